#include "Device.h"

#include "Adapter.h"
#include "Context.h"
#include "Durations.h"
#include "Error.h"
#include "Phone.h"
#include "PhoneBook.h"
#include "RegisteredAgent.h"
#include "Uuids.h"

#include <QDBusObjectPath>
#include <QJsonArray>

namespace {
const QString DeviceInterface = QStringLiteral("org.bluez.Device");
const uint SmartPhone = 524;
} // namespace

Device::Device(Context *context, Adapter *adapter, const QString &address)
    : QObject(adapter)
    , m_context(context)
    , m_adapter(adapter)
    , m_address(address)
    , m_path(adapter->path() + "/dev_" + QString(address).replace(':', '_'))
    , m_name(adapter->rememberedName(address))
    , m_disconnect(&context->schedule)
    , m_idle(&context->schedule)
    , m_paging(&context->schedule)
    , m_source(context, this)
    , m_session(context, this)
    , m_pairing(context, this)
    , m_search(context, this)
{
    publish();
}

Device::Device(Context *context, Adapter *adapter, const QJsonObject &stored)
    : Device(context, adapter, stored.value("address").toString())
{
    m_paired = true;
    m_temporary = false;
    m_name = stored.value("name").toString();
    m_alias = stored.value("alias").toString();
    m_key = stored.value("key").toString();
    m_trusted = stored.value("trusted").toBool();
    m_blocked = stored.value("blocked").toBool();
    for (const QJsonValue &uuid : stored.value("uuids").toArray())
        m_uuids.append(uuid.toString());
    if (m_uuids.contains(Uuids::AudioSource))
        m_source.appear();
}

Phone *Device::phone() const
{
    return m_context->phones->at(m_address);
}

QJsonObject Device::toJson() const
{
    return {{"address", m_address},
            {"name", m_name},
            {"alias", m_alias},
            {"key", m_key},
            {"trusted", m_trusted},
            {"blocked", m_blocked},
            {"uuids", QJsonArray::fromStringList(m_uuids)}};
}

void Device::publish()
{
    m_context->bus.publish(
        m_path,
        {DeviceInterface,
         {{"GetProperties", {}, {"a{sv}"}, [this](const Call &call) { answerProperties(call); }},
          {"SetProperty", {"s", "v"}, {}, [this](const Call &call) { setProperty(call); }},
          {"DiscoverServices", {"s"}, {"a{us}"}, nullptr},
          {"CancelDiscovery", {}, {}, nullptr},
          {"Disconnect", {}, {}, [this](const Call &call) { disconnectCalled(call); }}},
         {{"PropertyChanged", {"s", "v"}}, {"DisconnectRequested", {}}}});
}

void Device::answerProperties(const Call &call) const
{
    const QString addressAsName = QString(m_address).replace(':', '-');
    const QString alias = !m_alias.isEmpty() ? m_alias : !m_name.isEmpty() ? m_name : addressAsName;
    Properties properties {{"Address", m_address}};
    if (!m_name.isEmpty())
        properties.append({"Name", m_name});
    properties << Properties {{"Alias", alias},
                              {"Class", SmartPhone},
                              {"Icon", "phone"},
                              {"Paired", m_paired},
                              {"Trusted", m_trusted},
                              {"Blocked", m_blocked},
                              {"Connected", m_connected},
                              {"UUIDs", m_uuids},
                              {"Services", QVariant::fromValue(QList<QDBusObjectPath>())},
                              {"Adapter", QVariant::fromValue(QDBusObjectPath(m_adapter->path()))}};
    call.reply(properties);
}

void Device::setProperty(const Call &call)
{
    const QString name = call.argument(0).toString();
    const QVariant value = call.argument(1);
    bool *flag = name == "Trusted" ? &m_trusted : name == "Blocked" ? &m_blocked : nullptr;
    if (flag && value.type() == QVariant::Bool) {
        if (*flag != value.toBool()) {
            *flag = value.toBool();
            m_adapter->save();
            changed(name, *flag);
        }
    } else if (name == "Alias" && value.type() == QVariant::String) {
        if (m_alias != value.toString()) {
            m_alias = value.toString();
            m_adapter->save();
            changed(name, m_alias);
        }
    } else {
        call.fail(Errors::invalidArguments());
        return;
    }
    call.reply();
}

void Device::linkUp(Announce announce)
{
    // Whatever is left of the link before is noticed now.
    m_session.noticeHangUp();
    m_linkUp = true;
    phone()->linkCameUp();
    if (announce == Announce::Now)
        announceConnected();
    linkUsersChanged();
    if (m_paging.isActive())
        finishPage(true);
}

void Device::announceConnected()
{
    m_connected = true;
    changed("Connected", true);
    if (m_name.isEmpty() || m_name != phone()->bluetoothName()) {
        m_name = phone()->bluetoothName();
        m_adapter->rememberName(m_address, m_name);
        changed("Name", m_name);
        if (m_alias.isEmpty())
            changed("Alias", m_name);
    }
}

void Device::page(const std::function<void(bool)> &done)
{
    m_pageWaiters.push_back(done);
    if (m_paging.isActive())
        return;
    if (phone() && phone()->isInRange()) {
        m_paging.start(Durations::LinkSetup, [this] {
            if (m_adapter->isPowered() && phone()->isInRange())
                linkUp(Announce::Now);
            finishPage(m_linkUp);
        });
    } else {
        m_paging.start(Durations::PageTimeout, [this] { finishPage(false); });
    }
}

void Device::finishPage(bool up)
{
    m_paging.stop();
    const auto waiters = std::move(m_pageWaiters);
    m_pageWaiters.clear();
    for (const auto &waiter : waiters)
        waiter(up);
}

void Device::dropLink(const QString &why)
{
    if (!m_linkUp)
        return;
    m_linkUp = false;
    m_idle.stop();
    m_disconnect.stop();
    phone()->linkWentDown(why);
    cancelAgentRequest();
    m_search.linkLost();

    const bool unitMade = !m_disconnectCalls.empty() || m_removal;
    const bool hasSession = m_session.isActive();
    // Management back-end: link events come before the AVDTP sockets'. Raw HCI: both wait in the
    // same queue; the session's end mostly comes first for a link that the unit ends, mostly last
    // for one that the phone ends.
    const bool sessionFirst = m_context->options.backend == Options::Backend::Hci
        && unitMade != m_context->options.otherOrder;
    if (hasSession && sessionFirst && !m_removal)
        m_session.linkLost(AudioSession::Notice::AtOnce);

    // The replies come before the signal, in both back-ends.
    for (const Call &call : m_disconnectCalls)
        call.reply();
    m_disconnectCalls.clear();
    if (m_removal)
        m_removal->reply();
    if (m_connected) {
        m_connected = false;
        changed("Connected", false);
    }
    if (m_temporary) {
        // The audio source dies with the device, without a signal of its own.
        m_adapter->remove(this);
    } else if (hasSession && !sessionFirst) {
        m_session.linkLost(unitMade ? AudioSession::Notice::AfterDisconnect
                                    : AudioSession::Notice::Later);
    }
}

void Device::cancelAgentRequest()
{
    m_pairing.abort();
    if (RegisteredAgent *agent = m_adapter->agent())
        agent->cancel(this);
}

void Device::linkUsersChanged()
{
    if (!m_linkUp || m_pairing.isActive() || m_session.isActive() || m_search.isUsingLink())
        m_idle.stop();
    else if (!m_idle.isActive())
        m_idle.start(Durations::LinkIdle, [this] { dropLink("is unused"); });
}

void Device::bond(const QString &key)
{
    m_key = key;
    m_temporary = m_removal.has_value();
    m_adapter->save();
    if (!m_paired)
        announcePaired();
    linkUsersChanged();
    m_search.schedule();
}

void Device::announcePaired()
{
    m_paired = true;
    changed("Paired", true);
}

void Device::addUuid(const QString &uuid)
{
    if (m_uuids.contains(uuid))
        return;
    m_uuids.append(uuid);
    m_uuids.sort();
    if (isBonded())
        m_adapter->save();
    if (uuid == Uuids::AudioSource)
        m_source.appear();
    changed("UUIDs", m_uuids);
}

void Device::disconnectCalled(const Call &call)
{
    if (!m_connected) {
        call.fail(Errors::notConnected());
        return;
    }
    m_disconnectCalls.push_back(call);
    requestDisconnect();
}

void Device::requestDisconnect()
{
    // Streams are not closed first: whatever the phone does in these 2 s still happens.
    if (m_disconnect.isActive())
        return;
    m_context->bus.emitSignal(m_path, DeviceInterface, "DisconnectRequested");
    m_disconnect.start(Durations::Disconnect, [this] { dropLink("is disconnected by the unit"); });
}

void Device::removeOn(const Call &call)
{
    if (m_temporary || m_search.isBrowsing()) {
        call.fail(Errors::deviceCreationInProgress());
    } else if (m_connected) {
        m_temporary = true;
        m_removal = call;
        requestDisconnect();
    } else {
        m_adapter->remove(this);
        call.reply();
    }
}

void Device::retire()
{
    if (m_linkUp)
        phone()->linkWentDown("loses its link");
    m_linkUp = false;
    m_disconnect.stop();
    m_idle.stop();
    m_paging.stop();
    m_pageWaiters.clear();
    cancelAgentRequest();
    m_search.stop();
    m_session.retire();
    m_source.retire();
    m_context->bus.withdraw(m_path);
}

void Device::changed(const QString &property, const QVariant &value)
{
    m_context->bus.emitPropertyChanged(m_path, DeviceInterface, property, value);
}
