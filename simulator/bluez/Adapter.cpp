#include "Adapter.h"

#include "Device.h"

#include <QDBusObjectPath>
#include <QDBusPendingReply>
#include <QDBusVariant>

#include <algorithm>

namespace {

const QString Address = QStringLiteral("00:AA:01:00:00:00");
const uint AudioClass = 0x4c0100;
const int AgentLimit = 60000; ///< milliseconds of product time

QVariant objectPath(const QString &path)
{
    return QVariant::fromValue(QDBusObjectPath(path));
}

} // namespace

// ---- the daemon

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

void Adapter::vanish()
{
    forgetAgent();
    for (Device *device : qAsConst(m_devices))
        device->retire();
    const auto isBonded = [](const Device *device) { return device->isBonded(); };
    m_devices.erase(std::stable_partition(m_devices.begin(), m_devices.end(), isBonded),
                    m_devices.end());
}

void Adapter::handle(const Call &call)
{
    const auto device = std::find_if(m_devices.cbegin(), m_devices.cend(),
                                     [&](const Device *one) { return one->path() == call.path(); });
    if (call.path() == "/")
        handleManager(call);
    else if (isReady() && call.path() == m_path)
        handleAdapter(call);
    else if (isReady() && device != m_devices.cend())
        (*device)->handle(call);
    else
        call.failUnknown(false);
}

void Adapter::handleManager(const Call &call)
{
    const QString method = call.method();
    if (method == "Manager.ListAdapters()")
        call.reply({adapterPaths()});
    else if (method == "Manager.GetProperties()")
        call.reply({QVariantMap {{"Adapters", adapterPaths()}}});
    else if (method != "Manager.DefaultAdapter()")
        call.failUnknown(true);
    else if (isReady())
        call.reply({objectPath(m_path)});
    else
        call.fail("NoSuchAdapter", "No such adapter");
}

void Adapter::handleAdapter(const Call &call)
{
    const QString method = call.method();
    if (method == "Adapter.ListDevices()") {
        call.reply({devicePaths()});
    } else if (method == "Adapter.RemoveDevice(o)") {
        removeDevice(call);
    } else if (method == "Adapter.RegisterAgent(os)") {
        if (!m_agent.isEmpty()) {
            call.fail("AlreadyExists");
            return;
        }
        m_agent = call.sender();
        m_agentPath = call.argument(0).toString();
        call.reply();
    } else if (method == "Adapter.UnregisterAgent(o)") {
        if (m_agent != call.sender()) {
            call.fail("DoesNotExist");
            return;
        }
        releaseAgent();
        call.reply();
    } else if (method == "Adapter.GetProperties()") {
        call.reply({QVariantMap {{"Address", Address},
                                 {"Name", m_name},
                                 {"Class", backend == Backend::Management ? 0 : AudioClass},
                                 {"Powered", m_powered},
                                 {"Discoverable", m_discoverable},
                                 {"Pairable", m_pairable},
                                 {"Devices", devicePaths()}}});
    } else {
        call.failUnknown(true);
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
    emitSignal(path, interface + ".PropertyChanged",
               {property, QVariant::fromValue(QDBusVariant(value))});
}

void Adapter::changed(const QString &property, const QVariant &value)
{
    emitChanged(m_path, "Adapter", property, value);
}

// ---- the agent

QDBusPendingCallWatcher *Adapter::callAgent(const QString &member, const QVariantList &arguments)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(m_agent, m_agentPath, "org.bluez.Agent", member);
    call.setArguments(arguments);
    const int limit = qMax(1, qRound(AgentLimit * clock.scale));
    auto *watcher = new QDBusPendingCallWatcher(m_bus->connection().asyncCall(call, limit), m_bus);
    connect(watcher, &QDBusPendingCallWatcher::finished, watcher, &QObject::deleteLater);
    return watcher;
}

void Adapter::askAgent(Device *device, const QString &member, const QVariantList &more,
                       const AgentsAnswer &answer)
{
    if (m_agent.isEmpty() || m_question) {
        answer(false, QString());
        return;
    }
    m_asker = device;
    m_question = callAgent(member, QVariantList {objectPath(device->path())} + more);
    connect(m_question, &QDBusPendingCallWatcher::finished, this,
            [this, answer](QDBusPendingCallWatcher *question) {
                const QDBusPendingReply<> reply = *question;
                m_question = nullptr;
                answer(!reply.isError(), reply.reply().arguments().value(0).toString());
            });
}

void Adapter::cancelQuestion(const Device *device)
{
    if (!m_question || m_asker != device)
        return;
    delete m_question;
    if (!m_agent.isEmpty())
        callAgent("Cancel");
}

void Adapter::releaseAgent()
{
    if (!m_agent.isEmpty())
        callAgent("Release");
    forgetAgent();
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

// ---- devices

void Adapter::add(Device *device, bool isAnnounced)
{
    m_devices.append(device);
    if (!isAnnounced)
        return;
    emitSignal(m_path, "Adapter.DeviceCreated", {objectPath(device->path())});
    changed("Devices", devicePaths());
}

void Adapter::remove(Device *device)
{
    m_devices.removeOne(device);
    changed("Devices", devicePaths());
    emitSignal(m_path, "Adapter.DeviceRemoved", {objectPath(device->path())});
}

void Adapter::removeDevice(const Call &call)
{
    // As the daemon compares.
    const auto isMeant = [path = call.argument(0).toString()](const Device *device) {
        return device->path().compare(path, Qt::CaseInsensitive) == 0;
    };
    const auto device = std::find_if(m_devices.cbegin(), m_devices.cend(), isMeant);
    if (device != m_devices.cend())
        (*device)->removeOn(call);
    else
        call.fail("DoesNotExist");
}

bool Adapter::takeSink(const Device *device)
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

QVariant Adapter::adapterPaths() const
{
    return QVariant::fromValue(isReady() ? QList<QDBusObjectPath> {QDBusObjectPath(m_path)}
                                         : QList<QDBusObjectPath>());
}

QVariant Adapter::devicePaths() const
{
    QList<QDBusObjectPath> paths;
    for (const Device *device : m_devices)
        paths.append(QDBusObjectPath(device->path()));
    return QVariant::fromValue(paths);
}
