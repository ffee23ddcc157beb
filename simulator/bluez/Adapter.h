#ifndef ADAPTER_H
#define ADAPTER_H

#include "Bus.h"
#include "core/Clock.h"

#include <QDBusPendingCallWatcher>
#include <QVector>

class Device;

/**
 * The unit's radio and what the daemon shows of it: org.bluez.Manager and org.bluez.Adapter. The
 * radio's state and the bonded devices outlive the daemon.
 */
class Adapter : public QObject
{
public:
    /// How the daemon drives the kernel, which shows in the order of some signals.
    enum class Backend {
        Management, ///< news of links come before those of audio connections
        RawHci ///< both wait in the same queue, in either order
    };
    /// Gets whether the agent has agreed, and the PIN if that was asked for.
    using AgentsAnswer = std::function<void(bool agreed, const QString &pin)>;

    explicit Adapter(const Clock &productTime) : clock(productTime) { }

    const Clock &clock;
    Backend backend = Backend::Management;
    /// The order of raw HCI in which news of audio connections come before those of links.
    bool audioFirst = false;
    /// A local client takes every stream, so that it is not suspended for want of one.
    bool streamTaken = false;

    // The daemon.

    /// The adapter is there, under a path with the daemon's process id, and says so on \p bus.
    void appear(Bus *bus, qint64 pid, const QString &name);
    /// The daemon has gone, with its connection to the bus.
    void vanish();
    bool isReady() const { return m_bus; }
    /// Answers a call to any object.
    void handle(const Call &call);
    QString path() const { return m_path; }
    /// \p member is Interface.Member. Nothing while the daemon is not there, as the next one.
    void emitSignal(const QString &path, const QString &member, const QVariantList &arguments = {});
    void emitChanged(const QString &path, const QString &interface, const QString &property,
                     const QVariant &value);

    // The agent.

    /// Calls the agent for \p device with \p more arguments. It is asked one thing at a time, and
    /// refuses whatever else comes meanwhile.
    void askAgent(Device *device, const QString &member, const QVariantList &more,
                  const AgentsAnswer &answer);
    /// What was asked for \p device is void: the agent gets Cancel, nobody an answer.
    void cancelQuestion(const Device *device);
    /// It hears that nobody needs it any more.
    void releaseAgent();
    /// Its connection to the bus has gone.
    void forgetAgent() { m_agent.clear(); }

    // The radio.

    /// \p arguments as "hci0 piscan".
    void hciconfig(const QStringList &arguments);
    bool isPowered() const { return m_powered; }
    bool isConnectable() const { return m_powered && m_pairable; }
    /// Pairs without the agent.
    bool hasSimplePairing() const { return m_simplePairing; }

    // Devices.

    /// Has \p device, which is new, on the bus; announced unless it is known from before.
    void add(Device *device, bool isAnnounced);
    void remove(Device *device);
    /// The only sink: false while another device has it.
    bool takeSink(const Device *device);
    void releaseSink(const Device *device);

private:
    void handleManager(const Call &call);
    void handleAdapter(const Call &call);
    void removeDevice(const Call &call);
    QDBusPendingCallWatcher *callAgent(const QString &member, const QVariantList &arguments = {});
    void setPowered(bool powered);
    void setFlag(bool *flag, const QString &property, bool value);
    void changed(const QString &property, const QVariant &value);
    QVariant adapterPaths() const;
    QVariant devicePaths() const;

    QPointer<Bus> m_bus;
    QString m_path;
    QString m_name;
    bool m_powered = false;
    bool m_pairable = false; ///< page scan
    bool m_discoverable = false; ///< inquiry scan
    bool m_discoverableWhenUp = false;
    bool m_simplePairing = false;
    QVector<Device *> m_devices;
    const Device *m_sinkOwner = nullptr;

    QString m_agent; ///< its bus name
    QString m_agentPath;
    QPointer<QDBusPendingCallWatcher> m_question;
    const Device *m_asker = nullptr;
};

#endif
