#include "Device.h"

#include "Phone.h"

#include <QDBusObjectPath>

namespace {

// Milliseconds of product time.
const int DisconnectDelay = 2000; ///< from Disconnect or RemoveDevice to the end of the link
const int LinkIdle = 2000; ///< link without channels
const int LinkIdleAfterSearch = 4000;
const int LinkSetup = 40;
const int PageTimeout = 5120;
/// From Paired to the daemon's own service search: after an unused link has been dropped.
const int SearchDelay = 2200;
const int SearchTime = 50;
const int LongestPin = 16;
const uint SmartPhone = 524;

} // namespace

QString Device::path() const
{
    return m_adapter.path() + "/dev_" + QString(m_phone.traits.address).replace(':', '_');
}

void Device::setKnown(bool trusted)
{
    m_bonded = true;
    m_phone.isBonded = true;
    m_paired = true;
    m_trusted = trusted;
    m_nameKnown = true;
    m_uuids = QStringList {Audio::SourceUuid};
    m_exists = true;
    m_adapter.add(this, false);
}

void Device::handle(const Call &call)
{
    const QString method = call.method();
    if (method == "Device.GetProperties()") {
        call.reply(
            {QVariantMap {{"Address", m_phone.traits.address},
                          {"Name", m_phone.traits.name},
                          {"Alias", m_phone.traits.name},
                          {"Class", SmartPhone},
                          {"Icon", "phone"},
                          {"Paired", m_paired},
                          {"Trusted", m_trusted},
                          {"Blocked", false},
                          {"Connected", m_connected},
                          {"UUIDs", m_uuids},
                          {"Services", QVariant::fromValue(QList<QDBusObjectPath>())},
                          {"Adapter", QVariant::fromValue(QDBusObjectPath(m_adapter.path()))}}});
    } else if (method == "Device.SetProperty(sv)") {
        setProperty(call);
    } else if (method == "Device.Disconnect()") {
        disconnectCalled(call);
    } else if (!hasService(Audio::SourceUuid) || !m_audio.handle(call)) {
        call.failUnknown(true);
    }
}

void Device::setProperty(const Call &call)
{
    const QVariant value = call.argument(1);
    if (call.argument(0) != "Trusted" || value.type() != QVariant::Bool) {
        call.fail("InvalidArguments", "Invalid arguments in method call");
        return;
    }
    if (m_trusted != value.toBool()) {
        m_trusted = value.toBool();
        changed("Trusted", m_trusted);
    }
    call.reply();
}

void Device::changed(const QString &property, const QVariant &value)
{
    m_adapter.emitChanged(path(), "Device", property, value);
}

// ---- the link

void Device::linkUp(bool isAnnounced)
{
    if (!m_exists) {
        m_exists = true;
        m_adapter.add(this, true);
    }
    // Whatever is left of the link before is noticed now.
    m_audio.noticeHangUp();
    m_linkUp = true;
    m_phone.note("link-up");
    if (isAnnounced)
        announceConnected();
    m_link.stop();
    linkUsersChanged();
    finishPage();
}

void Device::announceConnected()
{
    m_connected = true;
    changed("Connected", true);
    if (!m_nameKnown) {
        m_nameKnown = true;
        changed("Name", m_phone.traits.name);
        changed("Alias", m_phone.traits.name);
    }
}

void Device::page(const std::function<void(bool)> &done)
{
    m_pageWaiters.append(done);
    if (m_link.isActive())
        return;
    m_link.start(m_phone.isInRange ? LinkSetup : PageTimeout, [this] {
        if (m_phone.isInRange && m_adapter.isPowered())
            linkUp(true);
        else
            finishPage();
    });
}

void Device::finishPage()
{
    const auto waiters = m_pageWaiters;
    m_pageWaiters.clear();
    for (const auto &waiter : waiters)
        waiter(m_linkUp);
}

void Device::dropLink(const QString &why)
{
    if (!m_linkUp)
        return;
    m_linkUp = false;
    m_isPairing = false;
    m_phone.linkWentDown(why);
    m_link.stop();
    m_disconnect.stop();
    m_adapter.cancelQuestion(this);
    if (m_search == Search::Browsing)
        m_search = Search::None;

    const bool byUnit = !m_disconnectCalls.isEmpty() || m_removal;
    const bool hadAudio = m_audio.isActive();
    if (hadAudio && m_adapter.audioFirst)
        m_audio.hangUp();
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
    if (m_removal || !isBonded())
        remove();
    else if (hadAudio && !m_adapter.audioFirst)
        m_audio.linkLost(byUnit);
}

void Device::linkUsersChanged()
{
    if (!m_linkUp)
        return;
    if (m_isPairing || m_audio.isActive() || m_search == Search::Browsing)
        m_link.stop();
    else if (!m_link.isActive())
        m_link.start(LinkIdle, [this] { dropLink("nobody uses the link"); });
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
    const bool isSearched = m_search == Search::Paging || m_search == Search::Browsing;
    if (!isBonded() || m_removal || isSearched) {
        call.fail("DoesNotExist", "Device creation in progress");
    } else if (m_connected) {
        m_removal = call;
        requestDisconnect();
    } else {
        m_audio.noticeHangUp();
        remove();
        call.reply();
    }
}

void Device::remove()
{
    m_bonded = false;
    m_adapter.remove(this);
    retire();
}

void Device::retire()
{
    if (m_linkUp)
        m_phone.linkWentDown("the unit ends the link");
    m_audio.retire();
    m_disconnect.stop();
    m_link.stop();
    m_searching.stop();
    m_pageWaiters.clear();
    m_disconnectCalls.clear();
    m_removal.reset();
    m_search = Search::None;
    m_linkUp = false;
    m_connected = false;
    m_isPairing = false;
    if (isBonded())
        return;
    // Nothing is left of it, for as long as it does not come again.
    m_exists = false;
    m_paired = false;
    m_trusted = false;
    m_uuids.clear();
}

// ---- pairing

void Device::startPairing()
{
    m_isPairing = true;
    linkUsersChanged();
    if (m_adapter.hasSimplePairing()) {
        finishPairing(QString());
        return;
    }
    m_adapter.askAgent(this, "RequestPinCode", {}, [this](bool agreed, const QString &pin) {
        const bool isPin = agreed && !pin.isEmpty() && pin.size() <= LongestPin;
        const QString whyNot = isPin ? "the PINs differ" : "the unit gives no PIN";
        finishPairing(isPin && pin == m_phone.traits.pin ? QString() : whyNot);
    });
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
    m_bonded = true;
    if (!m_paired)
        announcePaired();
    linkUsersChanged();
    if (m_search == Search::None && !m_searching.isActive()) {
        m_searching.start(SearchDelay, [this] {
            m_search = Search::Paging;
            if (m_linkUp)
                search(true);
            else
                page([this](bool up) { search(up); });
        });
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

void Device::search(bool isLinked)
{
    m_search = isLinked ? Search::Browsing : Search::None;
    linkUsersChanged();
    if (!isLinked)
        return;
    m_searching.start(SearchTime, [this] {
        m_search = Search::None;
        addService(Audio::SourceUuid);
        if (!m_audio.isActive())
            m_link.start(LinkIdleAfterSearch, [this] { dropLink("nobody uses the link"); });
    });
}

void Device::addService(const QString &uuid)
{
    if (m_uuids.contains(uuid))
        return;
    m_uuids.append(uuid);
    m_uuids.sort();
    changed("UUIDs", m_uuids);
}
