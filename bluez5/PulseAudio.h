// The bridge's face towards PulseAudio: the little BlueZ 5 that its module wants.
#pragma once

#include "Bluez5.h"

/**
 * PulseAudio plays only a stream that was given to its own endpoint, which it registers here: no
 * sound passes through the bridge. But BlueZ 5 suspends what plays and is not taken within five
 * seconds, and a phone may not begin again. So the bridge takes it, and keeps the descriptor until
 * PulseAudio asks for it. What nobody reads meanwhile, the kernel throws away.
 */
class PulseAudio : public QObject
{
public:
    explicit PulseAudio(Bluez5 *bluez5) : m_bluez5(bluez5)
    {
        m_watcher.setConnection(QDBusConnection::systemBus());
        connect(&m_watcher, &QDBusServiceWatcher::serviceUnregistered, this,
                [=] { setEndpoint("", ""); });
        connect(bluez5, &Bluez5::changed, this, &PulseAudio::update);
    }

    /** Answers "interface.method(signature)", at once or later; false when there is none. */
    bool handle(const QString &method, const QDBusMessage &call)
    {
        const Interfaces adapter = {{Adapter1, m_bluez5->properties(m_bluez5->adapter())}};
        const ManagedObjects shown = {{QDBusObjectPath(m_bluez5->adapter()), adapter}};
        if (call.path() == m_stream)
            handleStream(call);
        else if (method == "org.freedesktop.DBus.ObjectManager.GetManagedObjects()")
            send(call.createReply(QVariant::fromValue(shown))); // the phone comes with its stream
        else if (method == "org.bluez.Media1.RegisterEndpoint(oa{sv})")
            registerEndpoint(call);
        else
            return false;
        return true;
    }

private:
    /** Having found no RegisterApplication, PulseAudio registers one after the other. */
    void registerEndpoint(const QDBusMessage &call)
    {
        const auto path = qvariant_cast<QDBusObjectPath>(call.arguments().at(0));
        const auto endpoint = qdbus_cast<QVariantMap>(call.arguments().at(1));
        if (endpoint.value("UUID").toString().toLower() == SinkService)
            setEndpoint(call.service(), path.path());
        send(call.createReply());
    }

    /** All but the descriptor, which the bridge asks for, is BlueZ 5's own answer. */
    void handleStream(const QDBusMessage &call)
    {
        if (call.service() != m_owner)
            return refuse(call, "NotAuthorized", "Operation Not Authorized");
        if (!call.member().endsWith("Acquire"))
            return m_bluez5->call(m_stream, call.interface(), call.member(), call.arguments(),
                                  passTo(call));
        m_askers << passTo(call);
        if (m_taken.type() == QDBusMessage::ReplyMessage)
            handOver(m_taken);
        else if (!m_isAsked)
            take(call.member());
    }

    /** PulseAudio's, for phones; of nobody where there is none. */
    void setEndpoint(const QString &owner, const QString &path)
    {
        // What PulseAudio may have had, nobody reads any more, and nobody could take.
        if (!m_owner.isEmpty() && !m_stream.isEmpty() && !isOurs())
            m_bluez5->call(m_stream, MediaTransport1, "Release", {}, [](const QDBusMessage &) {});
        m_askers.clear();
        m_owner = owner;
        m_endpoint = path;
        m_watcher.setWatchedServices(QStringList(owner));
        give();
    }

    void update(const QString &path, const QVariantMap &changes)
    {
        if (m_stream != m_bluez5->stream()) {
            handOver(QDBusMessage::createError("org.bluez.Error.NotAvailable", "it has closed"));
            if (!m_owner.isEmpty() && !m_stream.isEmpty())
                send(endpointCall("ClearConfiguration", {objectPath(m_stream)}));
            m_stream = m_bluez5->stream();
            give();
        } else if (path == m_stream) {
            if (changes.value("State") == "idle")
                m_taken = QDBusMessage();
            else if (changes.value("State") == "pending" && !isOurs())
                take("TryAcquire");
            send(QDBusMessage::createSignal(m_stream, Properties, "PropertiesChanged")
                 << MediaTransport1 << changes << QStringList());
        }
    }

    /** The open stream, if there is one, to PulseAudio. */
    void give()
    {
        const QString phone = Bluez5::phoneOf(m_stream);
        const QVariantMap properties = m_bluez5->properties(m_stream);
        QVariantMap device = m_bluez5->properties(phone);
        if (m_owner.isEmpty() || m_stream.isEmpty())
            return;
        // Of a new phone BlueZ 5 does not know it yet; and no other service is the unit's.
        device.insert("UUIDs", QStringList(SourceService));
        send(QDBusMessage::createSignal("/", ObjectManager, "InterfacesAdded")
             << objectPath(phone) << QVariant::fromValue(Interfaces {{Device1, device}}));
        send(QDBusConnection::systemBus(),
             endpointCall("SetConfiguration", {objectPath(m_stream), properties}));
        // What has begun before is taken when it is told once more. But not "idle": while
        // PulseAudio asks for the descriptor, it takes that for the stream's end, and is silent.
        if (properties.value("State") != "idle")
            update(m_stream, {{"State", properties.value("State")}});
    }

    QDBusMessage endpointCall(const QString &method, const QVariantList &arguments) const
    {
        return methodCall(m_owner, m_endpoint, "org.bluez.MediaEndpoint1", method, arguments);
    }

    void take(const QString &method)
    {
        const QString stream = m_stream;
        const auto answered = [=](const QDBusMessage &answer) {
            if (m_stream == stream) // or else the descriptor goes with the message
                handOver(answer);
        };
        m_isAsked = true;
        m_bluez5->call(stream, MediaTransport1, method, {}, answered);
    }

    /** The descriptor to PulseAudio, if that has asked, without old sound. If not, it is kept. */
    void handOver(const QDBusMessage &answer)
    {
        const bool isTaken = answer.signature() == "hqq";
        if (isTaken && !m_askers.isEmpty()) {
            const auto socket = qvariant_cast<QDBusUnixFileDescriptor>(answer.arguments().at(0));
            char sound[4096];
            while (recv(socket.fileDescriptor(), sound, sizeof sound, MSG_DONTWAIT) > 0)
                continue;
        }
        m_isAsked = false;
        for (const Answered &asker : m_askers)
            asker(answer);
        m_taken = isTaken && m_askers.isEmpty() ? answer : QDBusMessage();
        m_askers.clear();
    }

    bool isOurs() const { return m_isAsked || m_taken.type() == QDBusMessage::ReplyMessage; }
    Bluez5 *const m_bluez5;
    QDBusServiceWatcher m_watcher;
    QString m_owner; // PulseAudio's name on the bus, or empty
    QString m_endpoint;
    QString m_stream; // empty when none is open
    bool m_isAsked = false; // BlueZ 5, for its descriptor
    QDBusMessage m_taken; // with it, while the bridge has it
    QList<Answered> m_askers; // of PulseAudio, while BlueZ 5 is asked
};
