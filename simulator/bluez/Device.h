#ifndef DEVICE_H
#define DEVICE_H

#include "AudioSession.h"
#include "AudioSource.h"
#include "Bus.h"
#include "Pairing.h"
#include "Schedule.h"
#include "ServiceSearch.h"

#include <QJsonObject>
#include <QObject>
#include <QStringList>

#include <functional>
#include <optional>
#include <vector>

class Adapter;
class Phone;
struct Context;

/**
 * A remote device as the daemon knows it: org.bluez.Device, and the radio link to it.
 *
 * Temporary (not bonded) devices live only as long as their link.
 */
class Device : public QObject
{
    Q_OBJECT

public:
    /// Whether a link that comes up is signalled: the daemon does not always hear of it at once.
    enum class Announce { Now, Later };

    Device(Context *context, Adapter *adapter, const QString &address);
    /// A stored device, from toJson().
    Device(Context *context, Adapter *adapter, const QJsonObject &stored);

    QString address() const { return m_address; }
    QString path() const { return m_path; }
    Adapter *adapter() const { return m_adapter; }
    /// The phone with this address, wherever it is; null when there is none.
    Phone *phone() const;
    QJsonObject toJson() const;

    bool isBonded() const { return !m_key.isEmpty(); }
    QString key() const { return m_key; }
    bool isTemporary() const { return m_temporary; }
    bool isTrusted() const { return m_trusted; }
    bool isBlocked() const { return m_blocked; }
    bool isLinkUp() const { return m_linkUp; }
    /// Whether audio was authorised by the agent: remembered for the life of this object.
    bool isAuthorised() const { return m_authorised; }
    void setAuthorised() { m_authorised = true; }

    AudioSource &source() { return m_source; }
    AudioSession &session() { return m_session; }
    Pairing &pairing() { return m_pairing; }

    /// The radio link has been set up, by either side.
    void linkUp(Announce announce);
    /// Signals Connected = true, with what the link has taught about the phone.
    void announceConnected();
    /// Pages the phone; \p done is called with whether the link is up then.
    void page(const std::function<void(bool)> &done);
    /// The link ends, for whatever reason; \p why is for the phone's journal entry.
    void dropLink(const QString &why);
    /// The users of the link have changed: a link without any is dropped after 2 s.
    void linkUsersChanged();

    /// A pairing has succeeded.
    void bond(const QString &key);
    /// Signals Paired = true, also when it is the same as before.
    void announcePaired();
    /// Adds to the known services, with the signal and, for an A2DP source, its interface.
    void addUuid(const QString &uuid);

    /// Adapter.RemoveDevice: answers \p call when done.
    void removeOn(const Call &call);
    /// The daemon ends or forgets this device: nothing is signalled any more.
    void retire();

private:
    void publish();
    void answerProperties(const Call &call) const;
    void setProperty(const Call &call);
    void cancelAgentRequest();
    void disconnectCalled(const Call &call);
    void requestDisconnect();
    void finishPage(bool up);
    void changed(const QString &property, const QVariant &value);

    Context *m_context;
    Adapter *m_adapter;
    QString m_address;
    QString m_path;
    QString m_name;
    QString m_alias;
    QString m_key;
    QStringList m_uuids;
    bool m_paired = false; ///< the property: the bond as far as it was signalled
    bool m_temporary = true;
    bool m_trusted = false;
    bool m_blocked = false;
    bool m_authorised = false;
    bool m_linkUp = false;
    bool m_connected = false; ///< the property: the link as far as it was signalled

    std::vector<Call> m_disconnectCalls;
    std::optional<Call> m_removal;
    std::vector<std::function<void(bool)>> m_pageWaiters;
    Timer m_disconnect;
    Timer m_idle;
    Timer m_paging;

    AudioSource m_source;
    AudioSession m_session;
    Pairing m_pairing;
    ServiceSearch m_search;
};

#endif
