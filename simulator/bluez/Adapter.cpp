#include "Adapter.h"

#include "Context.h"
#include "Device.h"
#include "Phone.h"
#include "RegisteredAgent.h"
#include "UnusedInterfaces.h"
#include "Uuids.h"

#include <QDBusObjectPath>
#include <QJsonArray>

#include <algorithm>

namespace {

const QString AdapterInterface = QStringLiteral("org.bluez.Adapter");
const QString Address = QStringLiteral("00:AA:01:00:00:00");
const QString Subject = QStringLiteral("devices");
const uint AudioDevice = 0x4c0100;
const char *const Capabilities[] = {
    "", "DisplayOnly", "DisplayYesNo", "KeyboardOnly", "NoInputNoOutput", "KeyboardDisplay"};

QVariant objectPath(const QString &path)
{
    return QVariant::fromValue(QDBusObjectPath(path));
}

} // namespace

Adapter::Adapter(Context *context, const QString &path, const QString &name, QObject *parent)
    : QObject(parent), m_context(context), m_path(path), m_name(name)
{
    publish();
    const QJsonObject stored = m_context->store.read(Subject);
    m_names = stored.value("names").toObject();
    for (const QJsonValue &device : stored.value("devices").toArray())
        m_devices.push_back(new Device(m_context, this, device.toObject()));
}

QString Adapter::address() const
{
    return Address;
}

void Adapter::publish()
{
    m_context->bus.publish(
        m_path,
        {AdapterInterface,
         {{"GetProperties", {}, {"a{sv}"}, [this](const Call &call) { answerProperties(call); }},
          {"SetProperty", {"s", "v"}, {}, nullptr},
          {"RequestSession",
           {},
           {},
           [this](const Call &call) {
               if (m_agent)
                   call.reply();
               else
                   call.fail(Errors::agentNotAvailable());
           }},
          {"ReleaseSession", {}, {}, [](const Call &call) { call.reply(); }},
          {"StartDiscovery", {}, {}, nullptr},
          {"StopDiscovery", {}, {}, nullptr},
          {"ListDevices", {}, {"ao"}, [this](const Call &call) { call.reply({devicePaths()}); }},
          {"CreateDevice", {"s"}, {"o"}, nullptr},
          {"CreatePairedDevice", {"s", "o", "s"}, {"o"}, nullptr},
          {"CancelDeviceCreation", {"s"}, {}, nullptr},
          {"RemoveDevice", {"o"}, {}, [this](const Call &call) { removeDevice(call); }},
          {"FindDevice",
           {"s"},
           {"o"},
           [this](const Call &call) {
               const Device *found = device(call.argument(0).toString());
               if (found)
                   call.reply({objectPath(found->path())});
               else
                   call.fail(Errors::doesNotExist());
           }},
          {"RegisterAgent", {"o", "s"}, {}, [this](const Call &call) { registerAgent(call); }},
          {"UnregisterAgent", {"o"}, {}, [this](const Call &call) { unregisterAgent(call); }}},
         {{"PropertyChanged", {"s", "v"}},
          {"DeviceCreated", {"o"}},
          {"DeviceRemoved", {"o"}},
          {"DeviceFound", {"s", "a{sv}"}},
          {"DeviceDisappeared", {"s"}}}});
    for (const Interface &unused : UnusedInterfaces::ofAdapter())
        m_context->bus.publish(m_path, unused);
}

void Adapter::answerProperties(const Call &call) const
{
    call.reply(Properties {
        {"Address", Address},
        {"Name", m_name},
        {"Class", AudioDevice},
        {"Powered", m_powered},
        {"Discoverable", m_discoverable},
        {"Pairable", m_pairable},
        {"DiscoverableTimeout", uint(0)},
        {"PairableTimeout", uint(0)},
        {"Discovering", false},
        {"Devices", devicePaths()},
        {"UUIDs",
         QStringList {Uuids::AudioSink, Uuids::RemoteControlTarget, Uuids::RemoteControl}}});
}

void Adapter::announceStoredDevices()
{
    for (Device *device : m_devices)
        device->announcePaired();
}

void Adapter::announceProperties()
{
    if (m_context->options.backend == Options::Backend::Management) {
        changed("Name", QString());
        changed("Powered", true);
        changed("Name", m_name);
        changed("Pairable", true);
        changed("Discoverable", false);
        changed("Pairable", true);
    } else {
        changed("Powered", true);
        changed("Pairable", true);
        changed("Class", AudioDevice);
        changed("Name", m_name);
        changed("Pairable", true);
        changed("Discoverable", false);
    }
}

void Adapter::stop()
{
    for (Device *device : m_devices)
        device->retire();
    if (m_agent)
        m_agent->release();
}

bool Adapter::hasStream() const
{
    return std::any_of(m_devices.begin(), m_devices.end(),
                       [](Device *device) { return device->session().isOpen(); });
}

void Adapter::setPowered(bool powered)
{
    if (powered == m_powered)
        return;
    if (powered) {
        m_powered = true;
        changed("Powered", true);
        setFlag(&m_pairable, "Pairable", true);
        setFlag(&m_discoverable, "Discoverable", m_discoverableWhenUp);
        return;
    }
    m_powered = false;
    // A copy: devices that are not bonded are removed with their link.
    const std::vector<Device *> devices = m_devices;
    for (Device *device : devices)
        device->dropLink("loses the link: the unit's radio is switched off");
    m_discoverableWhenUp = m_discoverable;
    setFlag(&m_discoverable, "Discoverable", false);
    setFlag(&m_pairable, "Pairable", false);
    changed("Powered", false);
}

void Adapter::setScan(bool page, bool inquiry)
{
    // Pairable first in both directions; links that are up stay up.
    setFlag(&m_pairable, "Pairable", page);
    setFlag(&m_discoverable, "Discoverable", inquiry);
}

void Adapter::registerAgent(const Call &call)
{
    const QString capability = call.argument(1).toString();
    const bool known = std::any_of(std::begin(Capabilities), std::end(Capabilities),
                                   [&](const char *name) { return capability == name; });
    if (m_agent) {
        call.fail(Errors::alreadyExists());
    } else if (!known) {
        call.fail(Errors::invalidArguments());
    } else {
        m_agent = new RegisteredAgent(m_context, call.sender(), call.argument(0).toString(), this);
        connect(m_agent, &RegisteredAgent::gone, this, &Adapter::agentGone);
        call.reply();
    }
}

void Adapter::unregisterAgent(const Call &call)
{
    if (!m_agent || !m_agent->is(call.sender(), call.argument(0).toString())) {
        call.fail(Errors::doesNotExist());
        return;
    }
    m_agent->release();
    agentGone();
    call.reply();
}

void Adapter::agentGone()
{
    m_agent->deleteLater();
    m_agent = nullptr;
}

Device *Adapter::device(const QString &address) const
{
    for (Device *device : m_devices) {
        if (device->address().compare(address, Qt::CaseInsensitive) == 0)
            return device;
    }
    return nullptr;
}

Device *Adapter::deviceFor(const Phone *phone)
{
    if (Device *known = device(phone->address()))
        return known;
    auto *created = new Device(m_context, this, phone->address());
    m_devices.push_back(created);
    m_context->bus.emitSignal(m_path, AdapterInterface, "DeviceCreated",
                              {objectPath(created->path())});
    changed("Devices", devicePaths());
    return created;
}

void Adapter::introduce(const Phone *phone, const QString &key, bool trusted)
{
    rememberName(phone->address(), phone->bluetoothName());
    m_devices.push_back(new Device(m_context, this,
                                   {{"address", phone->address()},
                                    {"name", phone->bluetoothName()},
                                    {"key", key},
                                    {"trusted", trusted},
                                    {"uuids", QJsonArray {Uuids::AudioSource}}}));
    save();
}

void Adapter::removeDevice(const Call &call)
{
    const QString path = call.argument(0).toString();
    for (Device *device : m_devices) {
        // As the daemon compares.
        if (device->path().compare(path, Qt::CaseInsensitive) == 0) {
            device->removeOn(call);
            return;
        }
    }
    call.fail(Errors::doesNotExist());
}

void Adapter::remove(Device *device)
{
    m_devices.erase(std::find(m_devices.begin(), m_devices.end(), device));
    changed("Devices", devicePaths());
    m_context->bus.emitSignal(m_path, AdapterInterface, "DeviceRemoved",
                              {objectPath(device->path())});
    device->retire();
    if (device->isBonded())
        save();
    device->deleteLater();
}

void Adapter::save()
{
    QJsonArray devices;
    for (const Device *device : m_devices) {
        if (device->isBonded())
            devices.append(device->toJson());
    }
    m_context->store.write(Subject, {{"devices", devices}, {"names", m_names}});
}

QString Adapter::rememberedName(const QString &address) const
{
    return m_names.value(address).toString();
}

void Adapter::rememberName(const QString &address, const QString &name)
{
    m_names.insert(address, name);
    save();
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

QVariant Adapter::devicePaths() const
{
    QList<QDBusObjectPath> paths;
    for (const Device *device : m_devices)
        paths.append(QDBusObjectPath(device->path()));
    return QVariant::fromValue(paths);
}

void Adapter::changed(const QString &property, const QVariant &value)
{
    m_context->bus.emitPropertyChanged(m_path, AdapterInterface, property, value);
}

void Adapter::setFlag(bool *flag, const QString &property, bool value)
{
    if (*flag == value)
        return;
    *flag = value;
    changed(property, value);
}
