// The bridge's face towards BlueZ 5: a client of its objects, and the endpoint of its sound.
#pragma once

#include "Bus.h"

#include <sys/socket.h>

/** The interfaces of an object with their properties, and objects by path. */
typedef QMap<QString, QVariantMap> Interfaces;
typedef QMap<QDBusObjectPath, Interfaces> ManagedObjects;
Q_DECLARE_METATYPE(Interfaces)
Q_DECLARE_METATYPE(ManagedObjects)

/** Of objects of BlueZ 5. */
const char Adapter1[] = "org.bluez.Adapter1";
const char Device1[] = "org.bluez.Device1";
const char MediaTransport1[] = "org.bluez.MediaTransport1";

/** A2DP: what a phone offers, and what the unit does. */
const char SourceService[] = "0000110a-0000-1000-8000-00805f9b34fb";
const char SinkService[] = "0000110b-0000-1000-8000-00805f9b34fb";

const char Service[] = "org.bluez";
const char ObjectManager[] = "org.freedesktop.DBus.ObjectManager";
const char Properties[] = "org.freedesktop.DBus.Properties";
const char EndpointPath[] = "/ulmo/sink";

// SBC as A2DP lays it out: modes, blocks and bands, least and greatest bitpool.
const QByteArray Capabilities("\xff\xff\x02\x35", 4);

/**
 * Has phones show a loudspeaker. BlueZ 5 takes the class from its own file only, the kernel from
 * whoever may administrate the network (its net/bluetooth/mgmt.h: Set Device Class).
 */
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

/**
 * One adapter of BlueZ 5 and all below it, by BlueZ 5's paths, and the one SBC sink endpoint,
 * without which it lets no phone connect its sound.
 */
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
        m_bus.connect(Service, "/", ObjectManager, "InterfacesAdded", "oa{sa{sv}}", this,
                      SLOT(interfacesAdded(QDBusObjectPath, Interfaces)));
        m_bus.connect(Service, "/", ObjectManager, "InterfacesRemoved", "oas", this,
                      SLOT(interfacesRemoved(QDBusObjectPath, QStringList)));
        m_bus.connect(Service, QString(), Properties, "PropertiesChanged", "sa{sv}as", this,
                      SLOT(propertiesChanged(QString, QVariantMap, QStringList, QDBusMessage)));
        for (QDBusConnection bus : {m_bus, QDBusConnection::systemBus()})
            bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                        "Disconnected", this, SLOT(busLost()));
        auto *const watcher = new QDBusServiceWatcher(
            Service, m_bus, QDBusServiceWatcher::WatchForUnregistration, this);
        connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
            if (!m_owner.isEmpty())
                fail("BlueZ 5 has gone");
        });
        readObjects();
    }

    /** The adapter is there and on, and takes the sound of phones. */
    bool isReady() const
    {
        return m_hasEndpoint && interfaces(m_adapter)[Adapter1].value("Powered").toBool();
    }

    QString adapter() const { return m_adapter; }
    /** The transport of a phone's sound, or empty. One at a time: the endpoint takes no more. */
    QString stream() const { return m_stream; }
    QStringList paths() const { return m_objects.keys(); }
    /** Empty when the object is not there. */
    Interfaces interfaces(const QString &path) const { return m_objects.value(path); }
    /** The phone that something below it belongs to, or itself. */
    static QString phoneOf(const QString &path) { return path.section('/', 0, 4); }

    /** BlueZ 5 also has keyboards. Of a new phone it does not know yet what that offers. */
    bool isPhone(const QString &path) const
    {
        const QVariantMap device = interfaces(path)[Device1];
        const QStringList services = device.value("UUIDs").toStringList();
        if (phoneOf(m_stream) == path || services.contains(SourceService))
            return !device.isEmpty();
        return !device.isEmpty() && services.isEmpty()
            && !device.value("Icon").toString().startsWith("input-");
    }

    /** As send() does. */
    void call(const QString &path, const QString &method, const QVariantList &arguments,
              const Answered &answered = nullptr, int timeout = -1)
    {
        send(m_bus, Service, path, method, arguments, answered, timeout);
    }

    void set(const QString &path, const QString &interface, const QString &property,
             const QVariant &value, const Answered &answered = nullptr)
    {
        call(path, Properties + QString(".Set"),
             {interface, property, QVariant::fromValue(QDBusVariant(value))}, answered);
    }

    /** Disconnects all phones. */
    void cutLinks()
    {
        for (const QString &path : paths()) {
            if (isPhone(path) && interfaces(path)[Device1].value("Connected").toBool())
                call(path, "org.bluez.Device1.Disconnect", {});
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
            m_bus.call(QDBusMessage::createMethodCall(Service, m_adapter, "org.bluez.Media1",
                                                      "UnregisterEndpoint")
                           << objectPath(EndpointPath),
                       QDBus::Block, 500);
    }

Q_SIGNALS:
    /** An object has come, has changed, or has gone; or all is ready. */
    void changed(const QString &path);

public Q_SLOTS: // of the endpoint, for BlueZ 5
    void SetConfiguration(const QDBusObjectPath &stream, const QVariantMap &properties)
    {
        const QString path = stream.path();
        if (!isBluez5() || !m_stream.isEmpty() || phoneOf(path) == path
            || !interfaces(phoneOf(path)).contains(Device1))
            return sendErrorReply("org.bluez.Error.InvalidArguments", "no stream of a phone");
        m_stream = path;
        m_objects[path].insert(MediaTransport1, properties);
        Q_EMIT changed(path);
    }

    void ClearConfiguration(const QDBusObjectPath &stream)
    {
        if (isBluez5() && stream.path() == m_stream)
            interfacesRemoved(stream, {MediaTransport1});
    }

    void Release()
    {
        if (!isBluez5())
            return sendErrorReply(QDBusError::UnknownMethod, "only for BlueZ 5");
        fail("BlueZ 5 has given up the endpoint");
    }

    /** 44.1 kHz and joint stereo where the phone has them; 16 blocks of 8 bands every phone has. */
    QByteArray SelectConfiguration(const QByteArray &offered)
    {
        const int modes = offered.size() == Capabilities.size() ? offered[0] : 0;
        const int rate = modes & 0x20 ? 0x20 : modes & 0x10;
        const int channels = modes & -modes & 0x0f; // the lowest bit is the best of them
        const int bitpool = rate && channels ? qMin<uchar>(offered[3], Capabilities[3]) : 0;
        if (bitpool == 0 || uchar(offered[2]) > bitpool) {
            sendErrorReply("org.bluez.Error.InvalidArguments", "no SBC that the unit has");
            return QByteArray();
        }
        return QByteArray().append(rate | channels).append(0x15).append(offered[2]).append(bitpool);
    }

private Q_SLOTS:
    void busLost() { fail("a bus has gone"); }

    void interfacesAdded(const QDBusObjectPath &object, const Interfaces &interfaces)
    {
        const QString path = object.path();
        if (m_adapter.isEmpty() && interfaces.contains(Adapter1))
            takeAdapter(path);
        if (m_adapter.isEmpty() || !path.startsWith(m_adapter))
            return;
        m_objects[path].insert(interfaces);
        Q_EMIT changed(path);
    }

    void interfacesRemoved(const QDBusObjectPath &object, const QStringList &removed)
    {
        const QString path = object.path();
        if (path == m_adapter && removed.contains(Adapter1))
            fail("the adapter has gone");
        for (const QString &interface : removed)
            m_objects[path].remove(interface);
        if (m_objects[path].isEmpty())
            m_objects.remove(path);
        if (!interfaces(m_stream).contains(MediaTransport1)
            || !interfaces(phoneOf(m_stream)).contains(Device1))
            m_stream.clear();
        Q_EMIT changed(path);
    }

    void propertiesChanged(const QString &interface, const QVariantMap &changes,
                           const QStringList &, const QDBusMessage &signal)
    {
        if (!interfaces(signal.path()).contains(interface))
            return;
        m_objects[signal.path()][interface].insert(changes);
        Q_EMIT changed(signal.path());
    }

private:
    bool isBluez5() const { return message().service() == m_owner; }

    /** Until it succeeds: a call starts a BlueZ 5 that has crashed, but not always at once. */
    void readObjects()
    {
        const auto answered = [=](const QDBusMessage &answer) {
            const QDBusReply<ManagedObjects> objects = answer;
            m_owner = answer.service();
            if (!objects.isValid()) {
                warn("BlueZ 5 is not there: " + objects.error().message());
                QTimer::singleShot(2000, this, &Bluez5::readObjects);
            }
            // By path, so that the first adapter is hci0, which the service's commands name.
            for (const QDBusObjectPath &object : objects.value().keys())
                interfacesAdded(object, objects.value().value(object));
        };
        call("/", ObjectManager + QString(".GetManagedObjects"), {}, answered);
    }

    void takeAdapter(const QString &path)
    {
        const QVariantMap endpoint = {{"UUID", SinkService},
                                      {"Codec", QVariant::fromValue(uchar(0))},
                                      {"Capabilities", Capabilities}};
        m_adapter = path;
        if (qEnvironmentVariableIsSet("BLUEZHOSTNAME"))
            set(path, Adapter1, "Alias", qEnvironmentVariable("BLUEZHOSTNAME"));
        set(path, Adapter1, "DiscoverableTimeout", 0u);
        set(path, Adapter1, "Powered", true, [](const QDBusMessage &answer) {
            if (!answer.errorName().isEmpty())
                warn("the radio cannot be switched on, rfkill may block it: "
                     + answer.errorMessage());
        });
        setDeviceClass(path);
        const auto answered = [=](const QDBusMessage &answer) {
            m_hasEndpoint = answer.errorName().isEmpty();
            if (!m_hasEndpoint)
                warn("phones cannot connect their sound: " + answer.errorMessage());
            Q_EMIT changed(path);
        };
        const QVariantList arguments = {objectPath(EndpointPath), endpoint};
        call(path, "org.bluez.Media1.RegisterEndpoint", arguments, answered);
    }

    QDBusConnection m_bus;
    QString m_owner; // of BlueZ 5's name, when it is there
    bool m_hasEndpoint = false;
    QString m_adapter;
    QString m_stream;
    QMap<QString, Interfaces> m_objects;
};
