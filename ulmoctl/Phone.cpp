#include <QtCore/QRegExp>
#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusMessage>

#include "Commands.h"

namespace {

const int Timeout = 2000; // milliseconds; the status is worth more than the phone

// What BlueZ answers; invalid for an error.
QVariant ask(const QDBusConnection &bus, const QString &path, const char *interface,
             const char *method = "GetProperties")
{
    QDBusMessage call = QDBusMessage::createMethodCall("org.bluez", path, interface, method);
    call.setAutoStartService(false); // whether BlueZ runs is the service's affair
    const QDBusMessage answer = bus.call(call, QDBus::Block, Timeout);
    const bool isError = answer.type() != QDBusMessage::ReplyMessage;
    return isError ? QVariant() : answer.arguments().value(0);
}

} // namespace

void addPhone(QDBusConnection bus, Outcome *outcome)
{
    // Beside a BlueZ that does not know these interfaces, one that does is on the service's bus.
    QVariant adapter = ask(bus, "/", "org.bluez.Manager", "DefaultAdapter");
    if (!adapter.isValid()) {
        bus = QDBusConnection::systemBus();
        adapter = ask(bus, "/", "org.bluez.Manager", "DefaultAdapter");
    }
    if (!adapter.isValid())
        return;
    const QVariant devices = ask(bus, qvariant_cast<QDBusObjectPath>(adapter).path(),
                                 "org.bluez.Adapter", "ListDevices");
    if (!devices.isValid())
        return;
    QVariantMap phone;
    bool playing = false;
    // A second phone is connected for a moment, before the service disconnects it.
    for (const QDBusObjectPath &device : qdbus_cast<QList<QDBusObjectPath>>(devices)) {
        const QVariant answer = ask(bus, device.path(), "org.bluez.Device");
        const QVariantMap properties = qdbus_cast<QVariantMap>(answer);
        if (playing || !properties.value("Connected").toBool())
            continue;
        phone = properties;
        const QVariant source = ask(bus, device.path(), "org.bluez.AudioSource");
        playing = qdbus_cast<QVariantMap>(source).value("State") == "playing";
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
