// The bus on which the service is.
#ifndef BUS_H
#define BUS_H

#include <QtDBus/QDBusConnection>

#include "Outcome.h"

/** The session bus of the environment or, if that names none, the product's. */
QDBusConnection connectToBus();

/** Where connectToBus() looked. */
QString busAddress();

/** What to tell when that failed. */
Outcome withoutBus(const QDBusConnection &bus);

#endif
