#include <QtCore/QRegExp>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusReply>

#include "Commands.h"

namespace {

const int Timeout = 2000; // milliseconds; the status is worth more than the phone

QDBusMessage ask(const QString &path, const char *interface, const char *method)
{
    QDBusMessage call = QDBusMessage::createMethodCall("org.bluez", path, interface, method);
    call.setAutoStartService(false); // whether BlueZ runs is the service's affair
    return QDBusConnection::systemBus().call(call, QDBus::Block, Timeout);
}

QVariantMap propertiesOf(const QString &path, const char *interface)
{
    return QDBusReply<QVariantMap>(ask(path, interface, "GetProperties"));
}

} // namespace

void addPhone(Outcome *outcome)
{
    const QDBusReply<QDBusObjectPath> adapter = ask("/", "org.bluez.Manager", "DefaultAdapter");
    if (!adapter.isValid())
        return;
    const QDBusReply<QList<QDBusObjectPath>> devices =
        ask(adapter.value().path(), "org.bluez.Adapter", "ListDevices");
    if (!devices.isValid())
        return;
    QVariantMap phone;
    bool playing = false;
    // A second phone is connected for a moment, before the service disconnects it.
    for (const QDBusObjectPath &device : devices.value()) {
        const QVariantMap properties = propertiesOf(device.path(), "org.bluez.Device");
        if (playing || !properties.value("Connected").toBool())
            continue;
        phone = properties;
        playing = propertiesOf(device.path(), "org.bluez.AudioSource").value("State") == "playing";
    }
    if (phone.isEmpty()) {
        outcome->text += "\nPhone       none";
        outcome->details << jsonMember("phone", QVariant());
        return;
    }
    const QString address = phone.value("Address").toString();
    const QString name = phone.value("Name").toString();
    // It comes from the phone, and may not tell the terminal what to do.
    const QString printable =
        QString(name).replace(QRegExp("[\\x0000-\\x001f\\x007f-\\x009f]"), "?");
    outcome->text += "\nPhone       " + printable + " (" + address + "), "
        + (playing ? "playing" : "not playing");
    outcome->details << jsonMember("phone", address) << jsonMember("name", name)
                     << jsonMember("playing", playing);
}
