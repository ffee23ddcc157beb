// The bridge's face towards the service: BlueZ 4, as far as the service knows it.
#pragma once

#include "Bluez5.h"

const int ConnectTimeout = 8500, ConnectAgain = 500; // ms; as BlueZ 4 for a phone out of range
const int LinkTimeout = 1000; // ms; for the word of a link

/** Manager, Adapter, Device and AudioSource on the product's bus, at BlueZ 5's paths. */
class Bluez4 : public QObject
{
public:
    explicit Bluez4(Bluez5 *bluez5) : m_bluez5(bluez5)
    {
        QMetaType::registerComparators<QDBusObjectPath>();
        QMetaType::registerComparators<QList<QDBusObjectPath>>();
        connect(bluez5, &Bluez5::changed, this, &Bluez4::update);
    }

    /** Answers "interface.method(signature)", at once or later; false when there is none. */
    bool handle(const QString &method, const QDBusMessage &call)
    {
        const QVariantMap told = m_told.value(call.path()).value(call.interface());
        if (told.isEmpty())
            return false;
        if (method.endsWith(".GetProperties()"))
            send(call.createReply(told));
        else if (method == "org.bluez.Manager.DefaultAdapter()")
            send(call.createReply(objectPath(m_bluez5->adapter())));
        else if (method == "org.bluez.Adapter.ListDevices()")
            send(call.createReply(told.value("Devices")));
        else if (method == "org.bluez.Adapter.RemoveDevice(o)")
            removeDevice(call);
        else if (method == "org.bluez.Device.SetProperty(sv)")
            setTrusted(call);
        else if (method == "org.bluez.Device.Disconnect()")
            disconnectLink(call);
        else if (method == "org.bluez.AudioSource.Connect()")
            connectSound(call);
        else
            return false;
        return true;
    }

private:
    const QString Manager = "org.bluez.Manager";
    const QString Adapter = "org.bluez.Adapter";
    const QString Device = "org.bluez.Device";
    const QString AudioSource = "org.bluez.AudioSource";

    void removeDevice(const QDBusMessage &call)
    {
        const QVariant path = call.arguments().at(0);
        const Interfaces told = m_told.value(qvariant_cast<QDBusObjectPath>(path).path());
        const bool isConnected = told[Device].value("Connected").toBool();
        if (!told.contains(Device))
            return refuse(call, "DoesNotExist", "Does Not Exist");
        // BlueZ 4 answers before it tells that the link has gone, BlueZ 5 after.
        if (isConnected)
            send(call.createReply());
        m_bluez5->call(call.path(), Adapter1, "RemoveDevice", {path},
                       isConnected ? nullptr : passTo(call));
    }

    void setTrusted(const QDBusMessage &call)
    {
        const QVariant value = qvariant_cast<QDBusVariant>(call.arguments().at(1)).variant();
        if (call.arguments().at(0) != "Trusted" || value.userType() != QMetaType::Bool)
            return refuse(call, "InvalidArguments", "Invalid arguments in method call");
        m_bluez5->call(call.path(), Properties, "Set", {Device1, "Trusted", variant(value)},
                       passTo(call));
    }

    void disconnectLink(const QDBusMessage &call)
    {
        if (!m_told[call.path()][Device].value("Connected").toBool())
            return refuse(call, "NotConnected", "Not Connected");
        if (state(call.path()) == "connecting")
            tellNews(call.path(), AudioSource, {{"State", "disconnected"}});
        send(QDBusMessage::createSignal(call.path(), Device, "DisconnectRequested"));
        if (m_bluez5->isLinked(call.path()))
            return m_bluez5->call(call.path(), Device1, "Disconnect", {}, passTo(call));
        // BlueZ 5 has missed the link of the stream.
        m_bluez5->call(call.path(), Device1, "DisconnectProfile", {SourceService}, passTo(call));
    }

    void connectSound(const QDBusMessage &call)
    {
        if (state(call.path()) == "connecting")
            return refuse(call, "InProgress", "Operation already in progress");
        if (m_bluez5->hasStream(call.path()))
            return refuse(call, "AlreadyConnected", "Already Connected");
        tellNews(call.path(), AudioSource, {{"State", "connecting"}});
        openStream(call, QDeadlineTimer(ConnectTimeout));
    }

    // It fails while a phone connects by itself, or does not yet take the link for encrypted. That
    // passes; but after an error the service would forget the phone. So it is tried again.
    void openStream(const QDBusMessage &call, const QDeadlineTimer &deadline)
    {
        const auto again = [=] { openStream(call, deadline); };
        const auto answered = [=](const QDBusMessage &reply) {
            if (reply.errorName() == "org.freedesktop.DBus.Error.NoReply")
                m_bluez5->call(call.path(), Device1, "Disconnect", {}); // it would go on
            else if (!reply.errorName().isEmpty() && !m_bluez5->hasStream(call.path()))
                return QTimer::singleShot(ConnectAgain, this, again);
            endConnect(call);
        };
        if (state(call.path()) != "connecting")
            return endConnect(call);
        m_bluez5->call(call.path(), Device1, "ConnectProfile", {SourceService}, answered,
                       int(deadline.remainingTime()));
    }

    /** With success if there is a stream by now, whoever has made it. */
    void endConnect(const QDBusMessage &call)
    {
        send(m_bluez5->hasStream(call.path())
                 ? call.createReply()
                 : call.createErrorReply("org.bluez.Error.Failed", "Stream setup failed"));
        if (state(call.path()) != "connecting")
            return; // the phone has been disconnected or removed meanwhile
        Interfaces &told = m_told[call.path()];
        told[AudioSource].remove("State");
        // The service keeps the place for a phone that was connecting until it hears that the link
        // has gone, and would hear nothing of a link that never was.
        if (!told[Device].value("Connected").toBool())
            told[Device].remove("Connected");
        updatePhone(call.path());
    }

    void update(const QString &changed)
    {
        const QString adapter = m_bluez5->adapter();
        const QString path = Bluez5::phoneOf(changed);
        if (m_told.isEmpty())
            return begin();
        if (!m_told.contains(path) && m_bluez5->isPhone(path)) {
            show(path);
            send(QDBusMessage::createSignal(adapter, Adapter, "DeviceCreated") << objectPath(path));
        }
        tellNews(adapter, Adapter, adapterProperties());
        updatePhone(path);
        if (!m_told.contains(path) || !m_bluez5->properties(path).isEmpty())
            return;
        m_told.remove(path);
        tellNews(adapter, Adapter, adapterProperties());
        send(QDBusMessage::createSignal(adapter, Adapter, "DeviceRemoved") << objectPath(path));
    }

    /** Not before BlueZ 5 is ready: a missing adapter shows as the service's own time-out. */
    void begin()
    {
        const QString path = m_bluez5->adapter();
        if (!m_bluez5->isReady())
            return;
        if (!QDBusConnection::systemBus().registerService("org.bluez"))
            fail("another daemon has the name org.bluez on the product's bus");
        for (const QString &device : m_bluez5->paths()) {
            if (m_bluez5->isPhone(device))
                show(device);
        }
        m_bluez5->cutLinks(); // the service never heard of them, and would not look after them
        m_told[path][Adapter] = adapterProperties();
        send(QDBusMessage::createSignal("/", Manager, "AdapterAdded") << objectPath(path));
        tellNews("/", Manager, {{"Adapters", objectPaths({path})}});
        send(QDBusMessage::createSignal("/", Manager, "DefaultAdapterChanged") << objectPath(path));
    }

    /** Not connected, whatever BlueZ 5 has, until it is updated. */
    void show(const QString &path)
    {
        m_told[path] = {{Device, deviceProperties(path)},
                        {AudioSource, {{"State", "disconnected"}}}};
        m_told[path][Device].insert("Connected", false);
    }

    void updatePhone(const QString &path, bool hasWaited = false)
    {
        if (!m_told.value(path).contains(Device))
            return;
        const QVariantMap device = deviceProperties(path);
        const bool wasConnected = m_told[path][Device].value("Connected").toBool();
        const QVariant sound = m_bluez5->properties(m_bluez5->stream()).value("State");
        const bool plays = sound == "pending" || sound == "active";
        const bool hasStream = m_bluez5->hasStream(path);
        const char *const newState = !hasStream ? "disconnected" : plays ? "playing" : "connected";
        // Of a phone that is quick, BlueZ 5 hears of the link after the stream, or never.
        if (hasStream && !wasConnected && !m_bluez5->isLinked(path) && !hasWaited)
            return QTimer::singleShot(LinkTimeout, this, [=] { updatePhone(path, true); });
        // Sound begins after the link and ends before it: who has forgotten a phone with its link
        // would keep the place for it after a word of its sound.
        if (device.value("Connected").toBool())
            tellNews(path, Device, device);
        // While the unit connects, BlueZ 4 tells no more than that, and the rest after its answer.
        if (state(path) == "connecting")
            return;
        if (hasStream && state(path) == "disconnected")
            tellNews(path, AudioSource, {{"State", "connecting"}});
        tellNews(path, AudioSource, {{"State", newState}});
        tellNews(path, Device, device);
    }

    /** What is not as it was told. */
    void tellNews(const QString &path, const QString &interface, const QVariantMap &properties)
    {
        for (const QString &name : properties.keys()) {
            QVariant &told = m_told[path][interface][name];
            if (told != properties.value(name))
                send(QDBusMessage::createSignal(path, interface, "PropertyChanged")
                     << name << variant(properties.value(name)));
            told = properties.value(name);
        }
    }

    /** Of the sound, as it was told. */
    QVariant state(const QString &path) const { return m_told.value(path)[AudioSource]["State"]; }

    /** What BlueZ 5 has, by BlueZ 4's names. */
    QVariantMap deviceProperties(const QString &path) const
    {
        // The bond comes with the key, as BlueZ 4's "Paired", BlueZ 5's own with the services.
        QVariantMap properties = select(
            path, "Adapter Address Alias Blocked Paired=Bonded Class Icon Name Trusted UUIDs");
        properties.insert("Connected", m_bluez5->isLinked(path) || m_bluez5->hasStream(path));
        properties.insert("Services", objectPaths({}));
        return properties;
    }

    QVariantMap adapterProperties() const
    {
        QVariantMap properties = select(m_bluez5->adapter(),
                                        "Address Class Discoverable DiscoverableTimeout "
                                        "Discovering Name=Alias Pairable PairableTimeout Powered");
        properties.insert("Devices", objectPaths(QStringList(m_told.keys()).filter("/dev_")));
        return properties;
    }

    /** Those with these names; "NAME=NAME" where BlueZ 5's is another. */
    QVariantMap select(const QString &path, const QString &names) const
    {
        const QVariantMap properties = m_bluez5->properties(path);
        QVariantMap selected;
        for (const QString &name : names.split(' ')) {
            if (properties.contains(name.section('=', -1)))
                selected.insert(name.section('=', 0, 0), properties.value(name.section('=', -1)));
        }
        return selected;
    }

    static QVariant objectPaths(const QStringList &paths)
    {
        QList<QDBusObjectPath> objects;
        for (const QString &path : paths)
            objects << QDBusObjectPath(path);
        return QVariant::fromValue(objects);
    }

    Bluez5 *const m_bluez5;
    QMap<QString, Interfaces> m_told; // by path
};
