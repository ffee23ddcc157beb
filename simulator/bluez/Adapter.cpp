#include "Adapter.h"

#include "Bus.h"
#include "Device.h"
#include "RegisteredAgent.h"

#include <QDBusObjectPath>
#include <QHash>

#include <algorithm>

namespace {

const QString Address = QStringLiteral("00:AA:01:00:00:00");
const uint AudioClass = 0x4c0100;
const QStringList Capabilities {
    "", "DisplayOnly", "DisplayYesNo", "KeyboardOnly", "NoInputNoOutput", "KeyboardDisplay"};

QVariant objectPath(const QString &path)
{
    return QVariant::fromValue(QDBusObjectPath(path));
}

} // namespace

Adapter::Adapter(const Clock &productTime, QObject *parent)
    : QObject(parent), clock(productTime) { }

// ---- the daemon

void Adapter::handle(const Call &call)
{
    static const QHash<QString, Method> ofManager {
        {"Manager.DefaultAdapter()", &Adapter::giveAdapter},
        {"Manager.FindAdapter(s)", &Adapter::giveAdapter},
        {"Manager.ListAdapters()", &Adapter::listAdapters},
        {"Manager.GetProperties()", &Adapter::managerProperties}};
    static const QHash<QString, Method> ofAdapter {
        {"Adapter.GetProperties()", &Adapter::properties},
        {"Adapter.ListDevices()", &Adapter::listDevices},
        {"Adapter.FindDevice(s)", &Adapter::findDevice},
        {"Adapter.RemoveDevice(o)", &Adapter::removeDevice},
        {"Adapter.RegisterAgent(os)", &Adapter::registerAgent},
        {"Adapter.UnregisterAgent(o)", &Adapter::unregisterAgent}};

    const bool isManager = call.path() == "/";
    if (isManager || (isReady() && call.path() == m_path)) {
        const Method method = (isManager ? ofManager : ofAdapter).value(call.method());
        if (method)
            (this->*method)(call);
        else
            call.failUnknown(true);
        return;
    }
    for (Device *device : qAsConst(m_devices)) {
        if (isReady() && device->path() == call.path()) {
            device->handle(call);
            return;
        }
    }
    call.failUnknown(false);
}

void Adapter::appear(Bus *bus, qint64 pid, const QString &name)
{
    m_bus = bus;
    m_path = QString("/org/bluez/%1/hci0").arg(pid);
    m_name = name;
    // The daemon brings the controller up itself, and listens for connections.
    m_powered = true;
    m_pairable = true;
    for (Device *device : qAsConst(m_devices))
        device->announcePaired();
    emitSignal("/", "Manager.AdapterAdded", {objectPath(m_path)});
    emitChanged("/", "Manager", "Adapters", adapterPaths());
    emitSignal("/", "Manager.DefaultAdapterChanged", {objectPath(m_path)});
    if (backend == Backend::Management) {
        changed("Name", QString());
        changed("Powered", true);
        changed("Name", m_name);
        changed("Pairable", true);
        changed("Discoverable", m_discoverable);
        changed("Pairable", true);
    } else {
        changed("Powered", true);
        changed("Pairable", true);
        changed("Class", AudioClass);
        changed("Name", m_name);
        changed("Pairable", true);
        changed("Discoverable", m_discoverable);
    }
}

RegisteredAgent *Adapter::agent() const
{
    return m_agent;
}

void Adapter::releaseAgent()
{
    if (m_agent)
        m_agent->release();
}

void Adapter::vanish()
{
    m_bus = nullptr;
    delete m_agent;
    // A copy: only bonded devices stay.
    const QVector<Device *> devices = m_devices;
    for (Device *device : devices) {
        device->retire();
        if (!device->isBonded()) {
            m_devices.removeOne(device);
            device->deleteLater();
        }
    }
}

void Adapter::emitSignal(const QString &path, const QString &member, const QVariantList &arguments)
{
    if (m_bus)
        m_bus->emitSignal(path, member, arguments);
}

void Adapter::emitChanged(const QString &path, const QString &interface, const QString &property,
                          const QVariant &value)
{
    if (m_bus)
        m_bus->emitChanged(path, interface, property, value);
}

// ---- the radio

void Adapter::hciconfig(const QStringList &arguments)
{
    const QString command = arguments.value(1);
    if (command == "up" || command == "down") {
        setPowered(command == "up");
    } else if (command == "piscan" || command == "noscan") {
        // Pairable first in both directions; links that are up stay up.
        setFlag(&m_pairable, "Pairable", command == "piscan");
        setFlag(&m_discoverable, "Discoverable", command == "piscan");
    } else if (command == "sspmode") {
        m_simplePairing = arguments.value(2) == "1";
    }
}

void Adapter::setPowered(bool powered)
{
    if (powered == m_powered)
        return;
    m_powered = powered;
    if (powered) {
        changed("Powered", true);
        setFlag(&m_pairable, "Pairable", true);
        setFlag(&m_discoverable, "Discoverable", m_discoverableWhenUp);
        return;
    }
    // A copy: devices that are not bonded are removed with their link.
    const QVector<Device *> devices = m_devices;
    for (Device *device : devices)
        device->dropLink("the unit's radio is switched off");
    m_discoverableWhenUp = m_discoverable;
    setFlag(&m_discoverable, "Discoverable", false);
    setFlag(&m_pairable, "Pairable", false);
    changed("Powered", false);
}

void Adapter::setFlag(bool *flag, const QString &property, bool value)
{
    if (*flag == value)
        return;
    *flag = value;
    changed(property, value);
}

void Adapter::changed(const QString &property, const QVariant &value)
{
    emitChanged(m_path, "Adapter", property, value);
}

// ---- devices

Device *Adapter::device(const QString &address) const
{
    for (Device *device : m_devices) {
        if (device->address().compare(address, Qt::CaseInsensitive) == 0)
            return device;
    }
    return nullptr;
}

Device *Adapter::deviceFor(Phone &phone)
{
    if (Device *known = device(phone.address()))
        return known;
    auto *created = new Device(*this, phone);
    m_devices.append(created);
    emitSignal(m_path, "Adapter.DeviceCreated", {objectPath(created->path())});
    changed("Devices", devicePaths());
    return created;
}

void Adapter::introduce(Phone &phone, bool trusted)
{
    auto *known = new Device(*this, phone);
    m_devices.append(known);
    known->setKnown(trusted);
}

void Adapter::remove(Device *device)
{
    m_devices.removeOne(device);
    changed("Devices", devicePaths());
    emitSignal(m_path, "Adapter.DeviceRemoved", {objectPath(device->path())});
    device->retire();
    device->deleteLater();
}

void Adapter::takeStream(bool taken)
{
    m_streamTaken = taken;
    if (!taken)
        return;
    for (Device *device : qAsConst(m_devices))
        device->audio().streamTaken();
}

bool Adapter::takeSink(Device *device)
{
    if (m_sinkOwner && m_sinkOwner != device)
        return false;
    m_sinkOwner = device;
    return true;
}

void Adapter::releaseSink(const Device *device)
{
    if (m_sinkOwner == device)
        m_sinkOwner = nullptr;
}

// ---- methods

void Adapter::giveAdapter(const Call &call)
{
    const QString wanted = call.argument(0).toString();
    if (isReady() && (wanted.isEmpty() || wanted == "hci0" || wanted == Address))
        call.reply({objectPath(m_path)});
    else
        call.fail("NoSuchAdapter");
}

void Adapter::listAdapters(const Call &call)
{
    call.reply({adapterPaths()});
}

void Adapter::managerProperties(const Call &call)
{
    call.reply({QVariantMap {{"Adapters", adapterPaths()}}});
}

void Adapter::properties(const Call &call)
{
    call.reply({QVariantMap {{"Address", Address},
                             {"Name", m_name},
                             {"Class", backend == Backend::Management ? 0u : AudioClass},
                             {"Powered", m_powered},
                             {"Discoverable", m_discoverable},
                             {"Pairable", m_pairable},
                             {"DiscoverableTimeout", 0u},
                             {"PairableTimeout", 0u},
                             {"Discovering", false},
                             {"Devices", devicePaths()},
                             {"UUIDs", QStringList {}}}});
}

void Adapter::listDevices(const Call &call)
{
    call.reply({devicePaths()});
}

void Adapter::findDevice(const Call &call)
{
    if (const Device *found = device(call.argument(0).toString()))
        call.reply({objectPath(found->path())});
    else
        call.fail("DoesNotExist");
}

void Adapter::removeDevice(const Call &call)
{
    const QString path = call.argument(0).toString();
    const auto found =
        std::find_if(m_devices.cbegin(), m_devices.cend(), [&path](const Device *device) {
            return device->path().compare(path, Qt::CaseInsensitive) == 0;
        });
    if (found != m_devices.cend())
        (*found)->removeOn(call);
    else
        call.fail("DoesNotExist");
}

void Adapter::registerAgent(const Call &call)
{
    if (m_agent) {
        call.fail("AlreadyExists");
    } else if (!Capabilities.contains(call.argument(1).toString())) {
        call.fail("InvalidArguments");
    } else {
        m_agent = new RegisteredAgent(m_bus, clock, call, this);
        connect(m_agent, &RegisteredAgent::gone, m_agent, &QObject::deleteLater);
        call.reply();
    }
}

void Adapter::unregisterAgent(const Call &call)
{
    if (!m_agent || !m_agent->isMeantBy(call)) {
        call.fail("DoesNotExist");
        return;
    }
    m_agent->release();
    m_agent->deleteLater();
    m_agent = nullptr;
    call.reply();
}

QVariant Adapter::adapterPaths() const
{
    QList<QDBusObjectPath> paths;
    if (isReady())
        paths.append(QDBusObjectPath(m_path));
    return QVariant::fromValue(paths);
}

QVariant Adapter::devicePaths() const
{
    QList<QDBusObjectPath> paths;
    for (const Device *device : m_devices)
        paths.append(QDBusObjectPath(device->path()));
    return QVariant::fromValue(paths);
}
