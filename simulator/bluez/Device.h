#ifndef DEVICE_H
#define DEVICE_H

#include "Adapter.h"
#include "Audio.h"
#include "Bus.h"
#include "Phone.h"
#include "Timer.h"

#include <optional>

/**
 * A phone as the daemon knows it, org.bluez.Device, and the radio link to it: its pairing, the
 * daemon's search for its services, its end.
 *
 * A device that is not bonded lives only as long as its link.
 */
class Device : public QObject
{
    Q_OBJECT

public:
    Device(Adapter &adapter, Phone &phone);

    QString address() const { return m_phone.address(); }
    QString path() const;
    Adapter &adapter() const { return m_adapter; }
    Phone &phone() const { return m_phone; }
    Audio &audio() { return m_audio; }

    bool isBonded() const { return m_key != 0; }
    int key() const { return m_key; }
    bool isTrusted() const { return m_trusted; }
    bool isLinkUp() const { return m_linkUp; }
    bool hasAudioSource() const { return m_uuids.contains(Audio::SourceUuid); }
    bool isPairing() const { return m_isPairing; }

    /// Paired before, with its services known.
    void setKnown(bool trusted);
    /// Answers a call to the object.
    void handle(const Call &call);

    /// The link has come up; signalled now unless the daemon is to hear of its audio first.
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
    /// The daemon ends or forgets the device: nothing is signalled any more.
    void retire();

private:
    enum class Search { None, Scheduled, Paging, Browsing, Kept };

    void getProperties(const Call &call);
    void setProperty(const Call &call);
    void disconnectCalled(const Call &call);
    void requestDisconnect();
    void finishPage(bool up);
    void finishPairing(const QString &whyNot);
    void search();
    void browse();
    void endSearch();
    void changed(const QString &property, const QVariant &value);

    Adapter &m_adapter;
    Phone &m_phone;
    Audio m_audio;
    int m_key = 0; ///< of the bond with the phone
    bool m_paired = false; ///< the property: the bond as far as it was signalled
    bool m_temporary = true;
    bool m_trusted = false;
    bool m_linkUp = false;
    bool m_connected = false; ///< the property: the link as far as it was signalled
    bool m_isPairing = false;
    Search m_search = Search::None;
    QStringList m_uuids;

    QVector<Call> m_disconnectCalls;
    std::optional<Call> m_removal;
    QVector<std::function<void(bool)>> m_pageWaiters;
    Timer m_disconnect;
    Timer m_idle;
    Timer m_paging;
    Timer m_pairing;
    Timer m_searching;
};

#endif
