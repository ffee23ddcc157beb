#ifndef DEVICE_H
#define DEVICE_H

#include "Adapter.h"
#include "Audio.h"
#include "Bus.h"

#include <optional>

class Phone;

/**
 * A phone as the daemon knows it, org.bluez.Device: the radio link to it, its pairing, the search
 * for its services. A device that is not bonded is there only as long as its link.
 */
class Device : public QObject
{
public:
    Device(Adapter &adapterOfUnit, Phone &itself) : m_adapter(adapterOfUnit), m_phone(itself) { }

    QString path() const;
    Adapter &adapter() const { return m_adapter; }
    Phone &phone() const { return m_phone; }
    Audio &audio() { return m_audio; }

    bool isBonded() const { return m_bonded; }
    bool isTrusted() const { return m_trusted; }
    bool isLinkUp() const { return m_linkUp; }
    bool isPairing() const { return m_isPairing; }
    bool hasService(const QString &uuid) const { return m_uuids.contains(uuid); }

    /// Has it bonded from before, with its services known.
    void setKnown(bool trusted);
    /// Answers a call to the object.
    void handle(const Call &call);

    /// The link has come up; signalled unless the daemon is to hear of something else first.
    void linkUp(bool isAnnounced);
    /// Connected = true, with what the link has taught about the phone.
    void announceConnected();
    /// Pages the phone; \p done gets whether the link is up then.
    void page(const std::function<void(bool)> &done);
    /// The link ends, for the reason \p why.
    void dropLink(const QString &why);
    /// Somebody has begun or ceased to use the link: a link without users is dropped.
    void linkUsersChanged();

    void startPairing();
    /// Signals Paired = true, also when it is the same as before.
    void announcePaired();
    void addService(const QString &uuid);
    /// Adapter.RemoveDevice.
    void removeOn(const Call &call);
    /// The daemon ends: nothing is signalled any more.
    void retire();

private:
    enum class Search { None, Paging, Browsing };

    void setProperty(const Call &call);
    void disconnectCalled(const Call &call);
    void requestDisconnect();
    void finishPage();
    void finishPairing(const QString &whyNot);
    void search(bool isLinked);
    void remove();
    void changed(const QString &property, const QVariant &value);

    Adapter &m_adapter;
    Phone &m_phone;
    Audio m_audio {*this};
    bool m_exists = false; ///< on the bus
    bool m_bonded = false;
    bool m_paired = false; ///< the property: the bond as far as it was signalled
    bool m_trusted = false;
    bool m_nameKnown = false; ///< even without the device
    bool m_linkUp = false;
    bool m_connected = false; ///< the property: the link as far as it was signalled
    bool m_isPairing = false;
    Search m_search = Search::None;
    QStringList m_uuids;

    QVector<Call> m_disconnectCalls;
    std::optional<Call> m_removal;
    QVector<std::function<void(bool)>> m_pageWaiters;
    Timer m_disconnect {m_adapter.clock, this};
    Timer m_link {m_adapter.clock, this}; ///< until it is up, or dropped for want of users
    Timer m_searching {m_adapter.clock, this};
};

#endif
