// The bridge's face towards BlueZ 5: a client of its objects, and the endpoint of its sound.
#pragma once

#include "Bus.h"

/** The interfaces of an object with their properties, and objects by path. */
typedef QMap<QString, QVariantMap> Interfaces;
typedef QMap<QDBusObjectPath, Interfaces> ManagedObjects;
Q_DECLARE_METATYPE(Interfaces)
Q_DECLARE_METATYPE(ManagedObjects)

/** Interfaces. */
const char Adapter1[] = "org.bluez.Adapter1";
const char Device1[] = "org.bluez.Device1";
const char MediaTransport1[] = "org.bluez.MediaTransport1";
const char ObjectManager[] = "org.freedesktop.DBus.ObjectManager";
const char Properties[] = "org.freedesktop.DBus.Properties";

/** A2DP: what a phone offers, and what the unit does, and where. */
const char SourceService[] = "0000110a-0000-1000-8000-00805f9b34fb";
const char SinkService[] = "0000110b-0000-1000-8000-00805f9b34fb";
const char EndpointPath[] = "/ulmo/sink";
// SBC as A2DP lays it out: modes, blocks and bands, least and greatest bitpool.
const QByteArray Capabilities("\xff\xff\x02\x35", 4);

// Has phones show a loudspeaker. BlueZ 5 takes the class from its own file only, the kernel from
// whoever may administrate the network (its net/bluetooth/mgmt.h: Set Device Class).
inline void setDeviceClass(const QString &adapter)
{
    const uchar index = adapter.section("hci", -1).toInt();
    const uchar loudspeaker[] = {0x0e, 0, index, 0, 2, 0, 0x04, 0x14}; // major class audio/video
    const quint16 address[] = {AF_BLUETOOTH, 0xffff, 3}; // the control channel
    const int control = socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, 1);
    if (bind(control, reinterpret_cast<const sockaddr *>(address), sizeof address) != 0
        || write(control, loudspeaker, sizeof loudspeaker) < 0)
        warn("phones may not see a loudspeaker: " + qt_error_string());
    close(control);
}

/** One adapter of BlueZ 5, what is below it, and the SBC sink endpoint that phones need. */
class Bluez5 : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.MediaEndpoint1")

public:
    /** Has the bus start BlueZ 5, and waits for it and for an adapter as long as it takes. */
    Bluez5() : m_bus(machineBus())
    {
        qDBusRegisterMetaType<Interfaces>();
        qDBusRegisterMetaType<ManagedObjects>();
        m_bus.registerObject(EndpointPath, this, QDBusConnection::ExportAllSlots);
        m_bus.connect("org.bluez", "/", ObjectManager, "InterfacesAdded", "oa{sa{sv}}", this,
                      SLOT(interfacesAdded(QDBusObjectPath, Interfaces)));
        m_bus.connect("org.bluez", "/", ObjectManager, "InterfacesRemoved", "oas", this,
                      SLOT(interfacesRemoved(QDBusObjectPath, QStringList)));
        m_bus.connect("org.bluez", QString(), Properties, "PropertiesChanged", "sa{sv}as", this,
                      SLOT(propertiesChanged(QString, QVariantMap, QStringList, QDBusMessage)));
        for (QDBusConnection bus : {m_bus, QDBusConnection::systemBus()})
            bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                        "Disconnected", this, SLOT(lost()));
        auto *const watcher = new QDBusServiceWatcher(
            "org.bluez", m_bus, QDBusServiceWatcher::WatchForUnregistration, this);
        connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, &Bluez5::lost);
        readObjects();
    }

    /** The adapter is there and on, and takes the sound of phones. */
    bool isReady() const { return m_hasEndpoint && properties(m_adapter)["Powered"].toBool(); }
    QString adapter() const { return m_adapter; }
    /** The transport of a phone's sound, or empty. One at a time: the endpoint takes no more. */
    QString stream() const { return m_stream; }
    QStringList paths() const { return m_objects.keys(); }
    /** Empty when the object is not there. */
    QVariantMap properties(const QString &path) const { return m_objects.value(path); }
    /** The phone that something below it belongs to, or itself. */
    static QString phoneOf(const QString &path) { return path.section('/', 0, 4); }
    bool hasStream(const QString &phone) const { return phoneOf(m_stream) == phone; }
    bool isLinked(const QString &phone) const { return properties(phone)["Connected"].toBool(); }

    /** BlueZ 5 also has keyboards. Of a new phone it does not know yet what that offers. */
    bool isPhone(const QString &path) const
    {
        const QStringList services = properties(path)["UUIDs"].toStringList();
        const bool isInput = properties(path)["Icon"].toString().startsWith("input-");
        return hasStream(path) || services.contains(SourceService)
            || (isDevice(path) && services.isEmpty() && !isInput);
    }

    void call(const QString &path, const QString &interface, const QString &method,
              const QVariantList &arguments, const Answered &answered = nullptr, int timeout = -1)
    {
        send(m_bus, methodCall("org.bluez", path, interface, method, arguments), answered, timeout);
    }

    /** Disconnects all phones. */
    void cutLinks()
    {
        for (const QString &path : paths()) {
            if (isPhone(path) && isLinked(path))
                call(path, Device1, "Disconnect", {});
        }
    }

    /** The same, and takes the endpoint back, before the service loses patience after 2 s. */
    void leave()
    {
        cutLinks();
        // BlueZ 5.82 crashes when it loses the endpoint of a stream that it is closing.
        bool isLate = false;
        QTimer::singleShot(1000, this, [&] { isLate = true; });
        while (!m_stream.isEmpty() && !isLate)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        // With its answer, the calls before have arrived as well.
        if (m_hasEndpoint)
            m_bus.call(methodCall("org.bluez", m_adapter, "org.bluez.Media1", "UnregisterEndpoint",
                                  {objectPath(EndpointPath)}),
                       QDBus::Block, 500);
    }

Q_SIGNALS:
    /** An object has come or changed, with these properties, or has gone; or all is ready. */
    void changed(const QString &path, const QVariantMap &properties = QVariantMap());

public Q_SLOTS: // of the endpoint; the bus lets BlueZ 5 call them, as it is root's
    void SetConfiguration(const QDBusObjectPath &stream, const QVariantMap &properties)
    {
        const QString path = stream.path();
        if (!m_stream.isEmpty() || path == phoneOf(path) || !isDevice(phoneOf(path)))
            return sendErrorReply("org.bluez.Error.InvalidArguments", "no stream of a phone");
        m_stream = path;
        m_objects.insert(path, properties);
        Q_EMIT changed(path);
    }

    void ClearConfiguration(const QDBusObjectPath &stream)
    {
        if (stream.path() == m_stream)
            remove(stream.path());
    }

    void Release() { } // it ends, or the adapter has gone
    /** 44.1 kHz and joint stereo where the phone has them; 16 blocks of 8 bands every phone has. */
    QByteArray SelectConfiguration(const QByteArray &offered)
    {
        for (const char mode : {0x21, 0x22, 0x24, 0x28, 0x11, 0x12, 0x14, 0x18}) {
            if (offered.size() != Capabilities.size() || (offered[0] & mode) != mode)
                continue;
            const char bitpool = qMin<uchar>(offered[3], Capabilities[3]);
            return QByteArray().append(mode).append(0x15).append(offered[2]).append(bitpool);
        }
        sendErrorReply("org.bluez.Error.InvalidArguments", "no SBC that the unit has");
        return QByteArray();
    }

private Q_SLOTS:
    void lost() { fail("BlueZ 5, or a bus, has gone"); }
    void interfacesAdded(const QDBusObjectPath &object, const Interfaces &interfaces)
    {
        const QString path = object.path();
        if (m_adapter.isEmpty() && interfaces.contains(Adapter1))
            takeAdapter(path);
        if (!interfaces.contains(kindOf(path)) || !path.startsWith(m_adapter) || path == m_stream)
            return;
        m_objects.insert(path, interfaces.value(kindOf(path)));
        Q_EMIT changed(path, m_objects.value(path));
    }

    void interfacesRemoved(const QDBusObjectPath &object, const QStringList &removed)
    {
        if (removed.contains(kindOf(object.path())))
            remove(object.path());
    }

    void propertiesChanged(const QString &interface, const QVariantMap &changes,
                           const QStringList &, const QDBusMessage &signal)
    {
        const QString path = signal.path();
        if (!m_objects.contains(path) || interface != kindOf(path))
            return;
        m_objects[path].insert(changes);
        Q_EMIT changed(path, changes);
    }

private:
    bool isDevice(const QString &path) const { return properties(path).contains("Adapter"); }

    /** The interface of an object that matters. */
    QString kindOf(const QString &path) const
    {
        return path == m_adapter ? Adapter1 : path == m_stream ? MediaTransport1 : Device1;
    }

    /** With its stream, if that is a phone. */
    void remove(const QString &path)
    {
        if (path == m_adapter)
            fail("the adapter has gone");
        m_objects.remove(path);
        if (path == m_stream || hasStream(path)) {
            m_objects.remove(m_stream);
            m_stream.clear();
        }
        Q_EMIT changed(path);
    }

    /** Until it succeeds: a call starts a BlueZ 5 that has crashed, but not always at once. */
    void readObjects()
    {
        const auto answered = [=](const QDBusMessage &answer) {
            const QDBusReply<ManagedObjects> objects = answer;
            if (!objects.isValid()) {
                warn("BlueZ 5 is not there: " + objects.error().message());
                QTimer::singleShot(2000, this, &Bluez5::readObjects);
            }
            // By path, so that the first adapter is hci0, which the service's commands name.
            for (const QDBusObjectPath &object : objects.value().keys())
                interfacesAdded(object, objects.value().value(object));
        };
        call("/", ObjectManager, "GetManagedObjects", {}, answered);
    }

    void takeAdapter(const QString &path)
    {
        const QVariantMap endpoint = {{"UUID", SinkService},
                                      {"Codec", QVariant::fromValue(uchar(0))},
                                      {"Capabilities", Capabilities}};
        m_adapter = path;
        const QString name = qEnvironmentVariable("BLUEZHOSTNAME");
        const auto switchedOn = [](const QDBusMessage &answer) {
            if (!answer.errorName().isEmpty())
                warn("the radio is not on, rfkill may block it: " + answer.errorMessage());
        };
        call(path, Properties, "Set", {Adapter1, "Alias", variant(name)});
        call(path, Properties, "Set", {Adapter1, "DiscoverableTimeout", variant(0u)});
        call(path, Properties, "Set", {Adapter1, "Powered", variant(true)}, switchedOn);
        setDeviceClass(path);
        const auto answered = [=](const QDBusMessage &answer) {
            m_hasEndpoint = answer.errorName().isEmpty();
            if (!m_hasEndpoint)
                warn("phones cannot connect their sound: " + answer.errorMessage());
            Q_EMIT changed(path);
        };
        call(path, "org.bluez.Media1", "RegisterEndpoint", {objectPath(EndpointPath), endpoint},
             answered);
    }

    QDBusConnection m_bus;
    bool m_hasEndpoint = false;
    QString m_adapter;
    QString m_stream;
    QMap<QString, QVariantMap> m_objects; // the adapter, devices, and the stream
};
