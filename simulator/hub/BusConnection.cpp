#include "BusConnection.h"

QString busAddress(const QString &bus)
{
    return qEnvironmentVariable(bus == "session" ? "DBUS_SESSION_BUS_ADDRESS"
                                                 : "DBUS_SYSTEM_BUS_ADDRESS");
}

QDBusConnection connectedTo(const QString &bus, const QString &name)
{
    if (!QDBusConnection(name).isConnected())
        QDBusConnection::disconnectFromBus(name);
    return QDBusConnection::connectToBus(busAddress(bus), name);
}
