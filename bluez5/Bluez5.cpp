#include "Bluez5.h"

#include <QtCore/QTimer>
#include <QtDBus/QDBusMetaType>
#include <QtDBus/QDBusReply>
#include <QtDBus/QDBusServiceWatcher>

#include <sys/socket.h>
#include <unistd.h>

namespace {

// In milliseconds.
const int CallTimeout = 20000; // below the 25 s of whoever waits for what comes of it
const int LeaveTimeout = 1000;
const int StartAgain = 2000;

const char Service[] = "org.bluez";
const char Adapter[] = "org.bluez.Adapter1";
const char Device[] = "org.bluez.Device1";
const char Transport[] = "org.bluez.MediaTransport1";
const char ObjectManager[] = "org.freedesktop.DBus.ObjectManager";
const char EndpointPath[] = "/ulmo/sink";

/** What a sink has to take of SBC, as A2DP lays it out: all modes, bitpools from 2 to 53. */
const QByteArray Capabilities("\xff\xff\x02\x35", 4);

/** The first of these bits that is offered. */
int choose(char offered, std::initializer_list<int> bits)
{
    for (int bit : bits) {
        if (offered & bit)
            return bit;
    }
    return 0;
}

QDBusMessage selectConfiguration(const QDBusMessage &call)
{
    const QByteArray offered = call.arguments().at(0).toByteArray();
    if (offered.size() != Capabilities.size())
        return call.createErrorReply("org.bluez.Error.InvalidArguments", "not SBC");
    QByteArray chosen = Capabilities;
    // 44.1 before 48, 32 and 16 kHz; joint stereo before stereo, dual and mono.
    chosen[0] = choose(offered[0], {0x20, 0x10, 0x40, 0x80}) | choose(offered[0], {1, 2, 4, 8});
    // 16 blocks before fewer, 8 subbands before 4, allocation by loudness before noise.
    chosen[1] = choose(offered[1], {0x10, 0x20, 0x40, 0x80}) | choose(offered[1], {4, 8})
        | choose(offered[1], {1, 2});
    chosen[2] = qMax<uchar>(offered[2], Capabilities[2]);
    chosen[3] = qMin<uchar>(offered[3], Capabilities[3]);
    return call.createReply(chosen);
}

/**
 * Has phones show a loudspeaker. BlueZ 5 takes the class from its own file only, the kernel from
 * whoever may administrate the network (its net/bluetooth/mgmt.h: Set Device Class).
 */
void setDeviceClass(const QString &adapter)
{
    const uchar index = adapter.section("hci", -1).toInt();
    const uchar loudspeaker[] = {0x0e, 0, index, 0, 2, 0, 0x04, 0x14}; // major class audio/video
    const quint16 address[] = {AF_BLUETOOTH, 0xffff, 3};               // the control channel
    const int control = socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, 1);
    if (bind(control, reinterpret_cast<const sockaddr *>(address), sizeof address) != 0
        || write(control, loudspeaker, sizeof loudspeaker) < 0)
        warn("phones may not see a loudspeaker: " + qt_error_string());
    close(control);
}

/** Of a device itself, or of a transport of it. */
QString deviceOf(const QString &path)
{
    return path.section('/', 0, 4);
}

} // namespace

Bluez5::Bluez5(QObject *parent)
    : QDBusVirtualObject(parent)
    , m_bus(machineBus())
{
    qDBusRegisterMetaType<Interfaces>();
    qDBusRegisterMetaType<ManagedObjects>();
    m_bus.registerVirtualObject(EndpointPath, this);
    onBusLost(m_bus, this, SLOT(busLost()));
    m_bus.connect(Service, "/", ObjectManager, "InterfacesAdded", this,
                  SLOT(interfacesAdded(QDBusMessage)));
    m_bus.connect(Service, "/", ObjectManager, "InterfacesRemoved", this,
                  SLOT(interfacesRemoved(QDBusMessage)));
    m_bus.connect(Service, QString(), "org.freedesktop.DBus.Properties", "PropertiesChanged", this,
                  SLOT(propertiesChanged(QDBusMessage)));
    auto *const watcher =
        new QDBusServiceWatcher(Service, m_bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &Bluez5::ownerChanged);
    start();
    ownerChanged();
}

QStringList Bluez5::devices() const
{
    QStringList devices;
    for (const QString &path : m_objects.keys()) {
        if (interfaceOf(path) == Device)
            devices << path;
    }
    return devices;
}

QString Bluez5::transportOf(const QString &device) const
{
    const auto next = m_objects.upperBound(device);
    return next != m_objects.end() && next.key().startsWith(device + '/') ? next.key() : QString();
}

QString Bluez5::interfaceOf(const QString &path) const
{
    return path == m_adapter ? Adapter : path == deviceOf(path) ? Device : Transport;
}

void Bluez5::call(const QString &path, const QString &method, const QVariantList &arguments,
                  const Answered &answered)
{
    send(m_bus, methodCall(Service, path, method, arguments), CallTimeout, answered);
}

void Bluez5::set(const QString &path, const QString &property, const QVariant &value,
                 const Answered &answered)
{
    call(path, "org.freedesktop.DBus.Properties.Set",
         {interfaceOf(path), property, QVariant::fromValue(QDBusVariant(value))}, answered);
}

// Life

/** The unit of BlueZ 5 does not come back by itself after a crash, and not at once after some. */
void Bluez5::start()
{
    const QDBusMessage call = methodCall("org.freedesktop.DBus", "/",
                                         "org.freedesktop.DBus.StartServiceByName", {Service, 0u});
    send(m_bus, call, CallTimeout, [this](const QDBusMessage &answer) {
        if (!isError(answer) || !m_owner.isEmpty())
            return;
        warn("BlueZ 5 cannot be started: " + answer.errorMessage());
        QTimer::singleShot(StartAgain, this, &Bluez5::start);
    });
}

void Bluez5::ownerChanged()
{
    if (!m_owner.isEmpty()) {
        Q_EMIT lost("BlueZ 5");
        return;
    }
    call("/", "org.freedesktop.DBus.ObjectManager.GetManagedObjects", {},
         [this](const QDBusMessage &answer) {
             const QDBusReply<ManagedObjects> objects = answer;
             if (!objects.isValid() || !m_owner.isEmpty())
                 return; // it is yet to come, or has been read
             m_owner = answer.service();
             const ManagedObjects tree = objects.value();
             // By path, so that the first adapter is hci0, which the service's commands name.
             for (auto object = tree.begin(); object != tree.end(); ++object)
                 add(object.key().path(), object.value());
         });
}

void Bluez5::setUpAdapter()
{
    const auto orWarn = [](const char *what) {
        return [what](const QDBusMessage &answer) {
            if (isError(answer))
                warn(what + (": " + answer.errorMessage()));
        };
    };
    const QString name = qEnvironmentVariable("BLUEZHOSTNAME");
    if (!name.isEmpty())
        set(m_adapter, "Alias", name, orWarn("the unit keeps its name"));
    set(m_adapter, "DiscoverableTimeout", 0u, orWarn("the unit cannot be found for long"));
    set(m_adapter, "Powered", true, orWarn("the adapter cannot be switched on"));
    setDeviceClass(m_adapter);
    const QVariantMap endpoint = {{"UUID", AudioSink},
                                  {"Codec", QVariant::fromValue(uchar(0))},
                                  {"Capabilities", Capabilities}};
    call(m_adapter, "org.bluez.Media1.RegisterEndpoint", {objectPath(EndpointPath), endpoint},
         [this, orWarn](const QDBusMessage &answer) {
             orWarn("phones cannot connect their sound")(answer);
             m_hasEndpoint = !isError(answer);
             changed(m_adapter);
         });
}

void Bluez5::leave(const QStringList &devices)
{
    for (const QString &device : devices)
        call(device, "org.bluez.Device1.Disconnect");
    // Waited for: with this answer, the calls before it have arrived as well.
    if (m_hasEndpoint)
        m_bus.call(methodCall(Service, m_adapter, "org.bluez.Media1.UnregisterEndpoint",
                              {objectPath(EndpointPath)}),
                   QDBus::Block, LeaveTimeout);
}

// Objects

void Bluez5::add(const QString &path, const Interfaces &interfaces)
{
    if (interfaces.contains(Adapter) && m_adapter.isEmpty()) {
        m_adapter = path;
        m_objects.insert(path, interfaces.value(Adapter));
        setUpAdapter();
    } else if (interfaces.contains(Device) && path.startsWith(m_adapter + "/dev_")) {
        m_objects.insert(path, interfaces.value(Device));
        changed(path);
    }
}

void Bluez5::changed(const QString &path)
{
    if (m_isReady && path == m_adapter) {
        Q_EMIT adapterChanged();
    } else if (m_isReady) {
        Q_EMIT deviceChanged(deviceOf(path));
    } else if (m_hasEndpoint && properties(m_adapter).value("Powered").toBool()) {
        m_isReady = true;
        Q_EMIT ready();
    }
}

void Bluez5::remove(const QString &path)
{
    if (m_objects.remove(path) > 0)
        changed(path);
}

void Bluez5::interfacesAdded(const QDBusMessage &signal)
{
    // What comes before the objects have been read will be among them.
    if (!m_owner.isEmpty() && signal.signature() == "oa{sa{sv}}")
        add(pathIn(signal.arguments().at(0)), qdbus_cast<Interfaces>(signal.arguments().at(1)));
}

void Bluez5::interfacesRemoved(const QDBusMessage &signal)
{
    const QString path = pathIn(signal.arguments().value(0));
    if (!signal.arguments().value(1).toStringList().contains(interfaceOf(path)))
        return;
    if (path == m_adapter)
        Q_EMIT lost("the adapter");
    remove(transportOf(path));
    remove(path);
}

void Bluez5::propertiesChanged(const QDBusMessage &signal)
{
    const QString path = signal.path();
    if (signal.signature() != "sa{sv}as" || !m_objects.contains(path)
        || signal.arguments().at(0) != interfaceOf(path))
        return;
    const QVariantMap properties = qdbus_cast<QVariantMap>(signal.arguments().at(1));
    for (auto property = properties.begin(); property != properties.end(); ++property)
        m_objects[path].insert(property.key(), property.value());
    changed(path);
}

// Endpoint

bool Bluez5::handleMessage(const QDBusMessage &call, const QDBusConnection &bus)
{
    if (call.interface() != "org.bluez.MediaEndpoint1" || call.service() != m_owner)
        return false;
    const QString method = call.member() + '(' + call.signature() + ')';
    const QString path = pathIn(call.arguments().value(0));
    if (method == "SelectConfiguration(ay)")
        return bus.send(selectConfiguration(call));
    const bool isTransport = interfaceOf(path) == Transport && m_objects.contains(deviceOf(path));
    if (method == "SetConfiguration(oa{sv})" && isTransport)
        m_objects.insert(path, qdbus_cast<QVariantMap>(call.arguments().at(1)));
    else if (method != "Release()" && (method != "ClearConfiguration(o)" || !isTransport))
        return false;
    // At once: the phone waits for it.
    bus.send(call.createReply());
    if (method == "SetConfiguration(oa{sv})")
        changed(path);
    else if (method == "ClearConfiguration(o)")
        remove(path);
    else
        Q_EMIT lost("the endpoint at BlueZ 5");
    return true;
}
