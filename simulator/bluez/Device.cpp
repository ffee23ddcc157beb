#include "Device.h"

#include "RegisteredAgent.h"

#include <QDBusObjectPath>
#include <QHash>

namespace {

// Milliseconds of product time.
const int DisconnectDelay = 2000; ///< from Disconnect or RemoveDevice to the end of the link
const int LinkIdle = 2000; ///< link without channels
const int LinkSetup = 40;
const int PageTimeout = 5120;
/// From Paired to the daemon's own service search: after an unused link has been dropped.
const int SearchDelay = 2200;
const int SearchTime = 50;
const int SearchKept = 2000; ///< the search's channel stays open
const int Answer = 15; ///< one answer of a phone
const int LongestPin = 16;
const uint SmartPhone = 524;

} // namespace

Device::Device(Adapter &adapter, Phone &phone)
    : QObject(&adapter)
    , m_adapter(adapter)
    , m_phone(phone)
    , m_audio(*this)
    , m_disconnect(adapter.clock, this)
    , m_idle(adapter.clock, this)
    , m_paging(adapter.clock, this)
    , m_pairing(adapter.clock, this)
    , m_searching(adapter.clock, this)
{
}

QString Device::path() const
{
    return m_adapter.path() + "/dev_" + address().replace(':', '_');
}

void Device::setKnown(bool trusted)
{
    m_key = m_phone.makeKey();
    m_paired = true;
    m_temporary = false;
    m_trusted = trusted;
    m_phone.nameKnown = true;
    m_uuids = QStringList {Audio::SourceUuid};
}

void Device::handle(const Call &call)
{
    using Method = void (Device::*)(const Call &);
    static const QHash<QString, Method> methods {
        {"Device.GetProperties()", &Device::getProperties},
        {"Device.SetProperty(sv)", &Device::setProperty},
        {"Device.Disconnect()", &Device::disconnectCalled}};
    const Method method = methods.value(call.method());
    if (method)
        (this->*method)(call);
    else if (!hasAudioSource() || !m_audio.handle(call))
        call.failUnknown(true);
}

void Device::getProperties(const Call &call)
{
    QVariantMap properties {{"Address", address()},
                            {"Alias", address().replace(':', '-')},
                            {"Class", SmartPhone},
                            {"Icon", "phone"},
                            {"Paired", m_paired},
                            {"Trusted", m_trusted},
                            {"Blocked", false},
                            {"Connected", m_connected},
                            {"UUIDs", m_uuids},
                            {"Services", QVariant::fromValue(QList<QDBusObjectPath>())},
                            {"Adapter", QVariant::fromValue(QDBusObjectPath(m_adapter.path()))}};
    if (m_phone.nameKnown) {
        properties["Name"] = m_phone.bluetoothName();
        properties["Alias"] = m_phone.bluetoothName();
    }
    call.reply({properties});
}

void Device::setProperty(const Call &call)
{
    const QVariant value = call.argument(1);
    if (call.argument(0) != "Trusted" || value.type() != QVariant::Bool) {
        call.fail("InvalidArguments");
        return;
    }
    if (m_trusted != value.toBool()) {
        m_trusted = value.toBool();
        changed("Trusted", m_trusted);
    }
    call.reply();
}

// ---- the link

void Device::linkUp(bool isAnnounced)
{
    // Whatever is left of the link before is noticed now.
    m_audio.noticeHangUp();
    m_linkUp = true;
    m_phone.note("link-up");
    if (isAnnounced)
        announceConnected();
    linkUsersChanged();
    if (m_paging.isActive())
        finishPage(true);
}

void Device::announceConnected()
{
    m_connected = true;
    changed("Connected", true);
    if (!m_phone.nameKnown) {
        m_phone.nameKnown = true;
        changed("Name", m_phone.bluetoothName());
        changed("Alias", m_phone.bluetoothName());
    }
}

void Device::page(const std::function<void(bool)> &done)
{
    m_pageWaiters.append(done);
    if (m_paging.isActive())
        return;
    if (!m_phone.isInRange()) {
        m_paging.start(PageTimeout, [this] { finishPage(false); });
        return;
    }
    m_paging.start(LinkSetup, [this] {
        if (m_adapter.isPowered() && m_phone.isInRange())
            linkUp(true);
        finishPage(m_linkUp);
    });
}

void Device::finishPage(bool up)
{
    m_paging.stop();
    const auto waiters = m_pageWaiters;
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
    m_isPairing = false;
    m_pairing.stop();
    m_phone.linkWentDown(why);
    if (m_adapter.agent())
        m_adapter.agent()->cancel(this);
    if (m_search == Search::Browsing || m_search == Search::Kept)
        endSearch();

    const bool byUnit = !m_disconnectCalls.isEmpty() || m_removal;
    const bool hadAudio = m_audio.isActive();
    if (hadAudio && m_adapter.audioFirst)
        m_audio.linkLost(Audio::Notice::AtOnce);
    // The replies come before the signal.
    for (const Call &call : qAsConst(m_disconnectCalls))
        call.reply();
    m_disconnectCalls.clear();
    if (m_removal)
        m_removal->reply();
    if (m_connected) {
        m_connected = false;
        changed("Connected", false);
    }
    if (m_temporary) {
        // Its audio dies with it, without a signal.
        m_adapter.remove(this);
    } else if (hadAudio && !m_adapter.audioFirst) {
        m_audio.linkLost(byUnit ? Audio::Notice::AfterDisconnect : Audio::Notice::Later);
    }
}

void Device::linkUsersChanged()
{
    const bool isSearched = m_search == Search::Browsing || m_search == Search::Kept;
    if (!m_linkUp || m_isPairing || m_audio.isActive() || isSearched)
        m_idle.stop();
    else if (!m_idle.isActive())
        m_idle.start(LinkIdle, [this] { dropLink("nobody uses the link"); });
}

void Device::disconnectCalled(const Call &call)
{
    if (!m_connected) {
        call.fail("NotConnected");
        return;
    }
    m_disconnectCalls.append(call);
    requestDisconnect();
}

void Device::requestDisconnect()
{
    // The stream is not closed first: whatever the phone does in these 2 s still happens.
    if (m_disconnect.isActive())
        return;
    m_adapter.emitSignal(path(), "Device.DisconnectRequested");
    m_disconnect.start(DisconnectDelay, [this] { dropLink("the unit disconnects"); });
}

void Device::removeOn(const Call &call)
{
    if (m_temporary || m_search == Search::Paging || m_search == Search::Browsing) {
        call.fail("DoesNotExist", "Device creation in progress");
    } else if (m_connected) {
        m_temporary = true;
        m_removal = call;
        requestDisconnect();
    } else {
        m_audio.noticeHangUp();
        m_adapter.remove(this);
        call.reply();
    }
}

void Device::retire()
{
    if (m_linkUp)
        m_phone.linkWentDown("the unit ends the link");
    m_linkUp = false;
    m_connected = false;
    m_temporary = !isBonded();
    m_isPairing = false;
    for (Timer *timer : {&m_disconnect, &m_idle, &m_paging, &m_pairing})
        timer->stop();
    m_pageWaiters.clear();
    m_disconnectCalls.clear();
    m_removal.reset();
    if (m_adapter.agent())
        m_adapter.agent()->cancel(this);
    endSearch();
    m_audio.retire();
}

// ---- pairing

void Device::startPairing()
{
    m_isPairing = true;
    linkUsersChanged();
    RegisteredAgent *agent = m_adapter.agent();
    if (m_adapter.hasSimplePairing()) {
        m_pairing.start(Answer, [this] { finishPairing(QString()); });
    } else if (!agent) {
        finishPairing("the unit has no agent");
    } else {
        agent->request(this, "RequestPinCode", path(), {}, [this](bool agreed, const QString &pin) {
            const bool isPin = agreed && !pin.isEmpty() && pin.size() <= LongestPin;
            const QString whyNot = !isPin ? "the unit gives no PIN"
                : pin != m_phone.pin()    ? "the PINs differ"
                                          : "";
            m_pairing.start(Answer, [this, whyNot] { finishPairing(whyNot); });
        });
    }
}

void Device::finishPairing(const QString &whyNot)
{
    m_isPairing = false;
    if (!whyNot.isEmpty()) {
        m_phone.pairingFinished(whyNot);
        if (m_audio.isActive())
            dropLink("it is not authenticated");
        else
            linkUsersChanged();
        return;
    }
    m_key = m_phone.makeKey();
    m_temporary = m_removal.has_value();
    if (!m_paired)
        announcePaired();
    linkUsersChanged();
    if (m_search == Search::None || m_search == Search::Kept) {
        m_search = Search::Scheduled;
        m_searching.start(SearchDelay, [this] { search(); });
    }
    m_phone.pairingFinished(QString());
    m_audio.pairingFinished();
}

void Device::announcePaired()
{
    m_paired = true;
    changed("Paired", true);
}

// ---- services

void Device::search()
{
    if (m_linkUp) {
        browse();
        return;
    }
    m_search = Search::Paging;
    page([this](bool up) {
        if (up)
            browse();
        else
            endSearch();
    });
}

void Device::browse()
{
    m_search = Search::Browsing;
    linkUsersChanged();
    m_searching.start(SearchTime, [this] {
        m_search = Search::Kept;
        addService(Audio::SourceUuid);
        m_searching.start(SearchKept, [this] {
            endSearch();
            linkUsersChanged();
        });
    });
}

void Device::endSearch()
{
    m_search = Search::None;
    m_searching.stop();
}

void Device::addService(const QString &uuid)
{
    if (m_uuids.contains(uuid))
        return;
    m_uuids.append(uuid);
    m_uuids.sort();
    changed("UUIDs", m_uuids);
}

void Device::changed(const QString &property, const QVariant &value)
{
    m_adapter.emitChanged(path(), "Device", property, value);
}
