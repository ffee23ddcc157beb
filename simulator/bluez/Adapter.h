#ifndef ADAPTER_H
#define ADAPTER_H

#include "core/Clock.h"

#include <QPointer>
#include <QVector>

class Bus;
class Call;
class Device;
class Phone;
class RegisteredAgent;

/**
 * The unit's radio and what the daemon shows of it: org.bluez.Manager and org.bluez.Adapter.
 *
 * The radio's state and the bonded devices outlive the daemon, here in memory.
 */
class Adapter : public QObject
{
    Q_OBJECT

public:
    /// How the daemon drives the kernel, which shows in the order of some signals.
    enum class Backend {
        Management, ///< news of links come before those of audio connections
        RawHci ///< both wait in the same queue
    };

    Adapter(const Clock &clock, QObject *parent);

    Backend backend = Backend::Management;
    /// Raw HCI only, where either order is seen: news of audio come before those of links.
    bool audioFirst = false;
    const Clock &clock;

    /// \name The daemon
    /// @{
    /// Answers a call to any object.
    void handle(const Call &call);
    /// The adapter is there, under a path with the daemon's process id, and says so on \p bus.
    void appear(Bus *bus, qint64 pid, const QString &name);
    /// The daemon ends in order: its agent hears of it, and nobody of anything else.
    void releaseAgent();
    /// The daemon has gone, with its connection to the bus.
    void vanish();
    bool isReady() const { return m_bus; }
    QString path() const { return m_path; }
    void emitSignal(const QString &path, const QString &member, const QVariantList &arguments = {});
    void emitChanged(const QString &path, const QString &interface, const QString &property,
                     const QVariant &value);
    RegisteredAgent *agent() const;
    /// @}

    /// \name The radio
    /// @{
    void hciconfig(const QStringList &arguments);
    bool isPowered() const { return m_powered; }
    bool isConnectable() const { return m_powered && m_pairable; }
    /// Pairs without the agent.
    bool hasSimplePairing() const { return m_simplePairing; }
    /// @}

    /// \name Devices
    /// @{
    Device *device(const QString &address) const;
    /// The device of \p phone, which is created when there is none.
    Device *deviceFor(Phone &phone);
    /// Has \p phone as a bonded device from before.
    void introduce(Phone &phone, bool trusted);
    /// Takes \p device away, with the signals.
    void remove(Device *device);
    /// A local client takes every stream, so that it is not suspended for want of one.
    void takeStream(bool taken);
    bool isStreamTaken() const { return m_streamTaken; }
    /// The only sink: false while another device has it.
    bool takeSink(Device *device);
    void releaseSink(const Device *device);
    /// @}

private:
    using Method = void (Adapter::*)(const Call &);

    void giveAdapter(const Call &call);
    void listAdapters(const Call &call);
    void managerProperties(const Call &call);
    void properties(const Call &call);
    void listDevices(const Call &call);
    void findDevice(const Call &call);
    void removeDevice(const Call &call);
    void registerAgent(const Call &call);
    void unregisterAgent(const Call &call);

    void setPowered(bool powered);
    void setFlag(bool *flag, const QString &property, bool value);
    void changed(const QString &property, const QVariant &value);
    QVariant adapterPaths() const;
    QVariant devicePaths() const;

    QPointer<Bus> m_bus;
    QString m_path;
    QString m_name;
    QPointer<RegisteredAgent> m_agent;
    bool m_powered = false;
    bool m_pairable = false; ///< page scan
    bool m_discoverable = false; ///< inquiry scan
    bool m_discoverableWhenUp = false;
    bool m_simplePairing = false;
    bool m_streamTaken = false;
    QVector<Device *> m_devices;
    QPointer<Device> m_sinkOwner;
};

#endif
