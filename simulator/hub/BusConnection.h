#ifndef BUSCONNECTION_H
#define BUSCONNECTION_H

#include <QDBusConnection>
#include <QString>

/// Where the "session" or "system" bus is.
QString busAddress(const QString &bus);

/// A connection of the hub's own to \p bus; one whose bus was ended is made anew.
QDBusConnection connectedTo(const QString &bus, const QString &name);

#endif
