// The Bluetooth service, as a caller on its bus has it.
#ifndef SERVICE_H
#define SERVICE_H

#include <QtDBus/QDBusConnection>

#include "Outcome.h"

/** The session bus of the environment or, if that names none or a login's own, the product's. */
QDBusConnection serviceBus();

/** What to tell when that failed. */
Outcome withoutBus(const QDBusConnection &bus);

/** Waits for the values that the service answers, so many milliseconds. */
Outcome callService(const QDBusConnection &bus, const char *method, const QVariantList &arguments,
                    int timeout, QVariantList *values);

#endif
