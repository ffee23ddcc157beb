// The bridge's face towards PulseAudio: the little BlueZ 5 that its module wants.
#pragma once

#include "Bluez5.h"

/**
 * PulseAudio plays only a stream that its own endpoint was given. It registers that here, on the
 * product's bus, and is given the open stream with its descriptor: no sound passes through the
 * bridge. But BlueZ 5 suspends what plays and is not taken within five seconds, and a phone may not
 * begin again. So the bridge takes it, and throws the sound away until PulseAudio is there.
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
        const QString adapter = m_bluez5->adapter();
        if (call.path() == m_stream)
            return handleStream(call);
        if (call.path() == "/"
            && method == "org.freedesktop.DBus.ObjectManager.GetManagedObjects()") {
            // The phone is told with its stream.
            const ManagedObjects objects = {
                {QDBusObjectPath(adapter), m_bluez5->interfaces(adapter)}};
            return send(call.createReply(QVariant::fromValue(objects)));
        }
        // Having found no RegisterApplication, PulseAudio registers one endpoint after the other.
        if (call.path() != adapter || method != "org.bluez.Media1.RegisterEndpoint(oa{sv})")
            return false;
        const auto path = qvariant_cast<QDBusObjectPath>(call.arguments().at(0));
        const auto endpoint = qdbus_cast<QVariantMap>(call.arguments().at(1));
        if (endpoint.value("UUID").toString().toLower() == SinkService)
            setEndpoint(call.service(), path.path());
        return send(call.createReply());
    }

private:
    /** All but a descriptor that the bridge has is BlueZ 5's own answer. */
    bool handleStream(const QDBusMessage &call)
    {
        const QString method = call.interface() + '.' + call.member();
        if (call.service() != m_owner)
            return refuse(call, "NotAuthorized", "Operation Not Authorized");
        if (m_drain && call.member().endsWith("Acquire")) {
            send(call.createReply(m_taken.arguments()));
            letGo();
        } else {
            m_bluez5->call(m_stream, method, call.arguments(), passTo(call));
        }
        return true;
    }

    /** PulseAudio's, for phones; of nobody where there is none. */
    void setEndpoint(const QString &owner, const QString &path)
    {
        // What PulseAudio had, nobody reads any more, and nobody could take.
        if (!m_owner.isEmpty() && !m_stream.isEmpty() && !m_drain)
            m_bluez5->call(m_stream, "org.bluez.MediaTransport1.Release", {});
        if (m_drain)
            m_drain->setEnabled(owner.isEmpty());
        m_owner = owner;
        m_endpoint = path;
        m_watcher.setWatchedServices(QStringList(owner));
        give();
        if (!owner.isEmpty())
            return;
        m_state.clear(); // what PulseAudio was about to take
        update();
    }

    void update()
    {
        if (m_stream != m_bluez5->stream()) {
            letGo();
            m_isAsked = false;
            callEndpoint("ClearConfiguration", {objectPath(m_stream)}, [](const QDBusMessage &) {});
            m_stream = m_bluez5->stream();
            m_state.clear();
            give();
        }
        const QVariant before = m_state;
        m_state = m_bluez5->interfaces(m_stream)[MediaTransport1].value("State");
        if (m_state == "idle")
            letGo();
        else if (m_state == "pending" && m_state != before && !m_isAsked && !m_drain)
            take();
        tellStream();
    }

    /** PulseAudio hears that it plays when there is a descriptor to ask for. */
    void tellStream()
    {
        QVariantMap properties = m_bluez5->interfaces(m_stream)[MediaTransport1];
        if (m_isAsked)
            properties.remove("State");
        const QVariantMap changes = news(&m_told, properties);
        if (!changes.isEmpty())
            tell(m_stream, "org.freedesktop.DBus.Properties.PropertiesChanged",
                 {MediaTransport1, changes, QStringList()});
    }

    /** The open stream, if there is one, to PulseAudio. */
    void give()
    {
        const QString phone = Bluez5::phoneOf(m_stream);
        QVariantMap device = m_bluez5->interfaces(phone)[Device1];
        const auto answered = [=](const QDBusMessage &reply) {
            if (!reply.errorName().isEmpty())
                warn("PulseAudio does not take the phone: " + reply.errorMessage());
            forgetState();
            update();
        };
        m_told = m_bluez5->interfaces(m_stream)[MediaTransport1];
        if (m_stream.isEmpty())
            return;
        // Of a new phone BlueZ 5 does not know it yet; and no other service is the unit's.
        device.insert("UUIDs", QStringList(SourceService));
        tell("/", "org.freedesktop.DBus.ObjectManager.InterfacesAdded",
             {objectPath(phone), QVariant::fromValue(Interfaces {{Device1, device}})});
        callEndpoint("SetConfiguration", {objectPath(m_stream), m_told}, answered);
        forgetState();
    }

    /**
     * Has the state told once more, so that what has begun before is taken. But not "idle": while
     * PulseAudio asks for the descriptor, it takes that for the stream's end, and is silent.
     */
    void forgetState()
    {
        if (m_told.value("State") != "idle")
            m_told.remove("State");
    }

    void callEndpoint(const QString &method, const QVariantList &arguments,
                      const Answered &answered)
    {
        if (!m_owner.isEmpty() && !m_stream.isEmpty())
            send(QDBusConnection::systemBus(), m_owner, m_endpoint,
                 "org.bluez.MediaEndpoint1." + method, arguments, answered);
    }

    void take()
    {
        const QString stream = m_stream;
        const auto answered = [=](const QDBusMessage &taken) {
            if (m_stream != stream)
                return; // closed meanwhile: the descriptor goes with the message
            m_isAsked = false;
            if (taken.signature() == "hqq")
                hold(taken);
            tellStream();
        };
        m_isAsked = true;
        m_bluez5->call(stream, "org.bluez.MediaTransport1.TryAcquire", {}, answered);
    }

    /** And throws away what comes, unless PulseAudio is there, which is about to ask. */
    void hold(const QDBusMessage &taken)
    {
        const auto descriptor = qvariant_cast<QDBusUnixFileDescriptor>(taken.arguments().at(0));
        m_taken = taken;
        m_drain = new QSocketNotifier(descriptor.fileDescriptor(), QSocketNotifier::Read, this);
        m_drain->setEnabled(m_owner.isEmpty());
        connect(m_drain, &QSocketNotifier::activated, this, [=](int socket) {
            char sound[4096];
            if (read(socket, sound, sizeof sound) <= 0)
                letGo();
        });
    }

    /** Closes what the bridge has of the descriptor. */
    void letGo()
    {
        delete m_drain;
        m_drain = nullptr;
        m_taken = QDBusMessage();
    }

    Bluez5 *const m_bluez5;
    QDBusServiceWatcher m_watcher;
    QString m_owner; // PulseAudio's name on the bus, or empty
    QString m_endpoint;
    QString m_stream; // empty when none is open
    QVariantMap m_told; // its properties
    QVariant m_state; // what BlueZ 5 has told last: each "pending" is taken once
    bool m_isAsked = false; // BlueZ 5, for its descriptor
    QDBusMessage m_taken; // with it, while the bridge has it
    QSocketNotifier *m_drain = nullptr;
};
