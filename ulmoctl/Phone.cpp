#include "Phone.h"

#include <QtCore/QVariantMap>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusReply>

namespace {

const int Timeout = 2000; // milliseconds; the status is worth more than the phone

QDBusMessage ask(const QString &path, const char *interface, const char *method)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QLatin1String("org.bluez"), path, QLatin1String(interface), QLatin1String(method));
    call.setAutoStartService(false); // whether BlueZ runs is the service's affair
    return QDBusConnection::systemBus().call(call, QDBus::Block, Timeout);
}

QVariantMap propertiesOf(const QString &path, const char *interface)
{
    return QDBusReply<QVariantMap>(ask(path, interface, "GetProperties"));
}

} // namespace

bool readPhone(Phone *phone)
{
    const QDBusReply<QDBusObjectPath> adapter =
        ask(QLatin1String("/"), "org.bluez.Manager", "DefaultAdapter");
    if (!adapter.isValid())
        return false;
    const QDBusReply<QList<QDBusObjectPath>> devices =
        ask(adapter.value().path(), "org.bluez.Adapter", "ListDevices");
    if (!devices.isValid())
        return false;
    // A second phone is connected for a moment, before the service disconnects it.
    const QList<QDBusObjectPath> paths = devices.value();
    for (int i = 0; i < paths.size() && !phone->playing; ++i) {
        const QVariantMap device = propertiesOf(paths.at(i).path(), "org.bluez.Device");
        if (!device.value(QLatin1String("Connected")).toBool())
            continue;
        const QVariantMap source = propertiesOf(paths.at(i).path(), "org.bluez.AudioSource");
        phone->address = device.value(QLatin1String("Address")).toString();
        phone->name = device.value(QLatin1String("Name")).toString();
        phone->playing =
            source.value(QLatin1String("State")).toString() == QLatin1String("playing");
    }
    return true;
}
