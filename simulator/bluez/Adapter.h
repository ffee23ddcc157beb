#ifndef ADAPTER_H
#define ADAPTER_H

#include "Bus.h"

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <vector>

class Device;
class Phone;
class RegisteredAgent;
struct Context;

/// The unit's radio: org.bluez.Adapter, its devices, its pairing agent and its one SBC sink.
class Adapter : public QObject
{
    Q_OBJECT

public:
    /// Reads the stored devices; announce() then tells the bus.
    Adapter(Context *context, const QString &path, const QString &name, QObject *parent = nullptr);

    QString path() const { return m_path; }
    QString address() const;
    /// Signals the Paired of every stored device: before the adapter itself is announced.
    void announceStoredDevices();
    /// Signals the properties of a controller that has been brought up.
    void announceProperties();
    /// The orderly end: the links go at once and the agent is released; nothing is signalled.
    void stop();

    bool isPowered() const { return m_powered; }
    /// Whether phones can find and reach the unit (page scan).
    bool isConnectable() const { return m_powered && m_pairable; }
    bool simplePairing() const { return m_simplePairing; }
    bool hasStream() const;
    RegisteredAgent *agent() const { return m_agent; }

    /// \name What hciconfig does to the controller
    /// @{
    void setPowered(bool powered);
    void setScan(bool page, bool inquiry);
    void setSimplePairing(bool enabled) { m_simplePairing = enabled; }
    /// @}

    /// The device with \p address; null when the daemon does not know it.
    Device *device(const QString &address) const;
    const std::vector<Device *> &devices() const { return m_devices; }
    /// The device for a link from \p phone: a new one, with its signals, when it is not known.
    Device *deviceFor(const Phone *phone);
    /// Lets the unit know \p phone as if it had been paired, searched and, perhaps, trusted before.
    void introduce(const Phone *phone, const QString &key, bool trusted);
    /// Forgets \p device, with the signals.
    void remove(Device *device);
    /// Keeps bonded devices over a restart.
    void save();

    /// Names are remembered for longer than the devices.
    QString rememberedName(const QString &address) const;
    void rememberName(const QString &address, const QString &name);

    /// Gives the sink to \p device; false while another one has it.
    bool takeSink(Device *device);
    void releaseSink(const Device *device);

private:
    void publish();
    void answerProperties(const Call &call) const;
    void registerAgent(const Call &call);
    void unregisterAgent(const Call &call);
    void agentGone();
    void removeDevice(const Call &call);
    QVariant devicePaths() const;
    void changed(const QString &property, const QVariant &value);
    void setFlag(bool *flag, const QString &property, bool value);

    Context *m_context;
    QString m_path;
    QString m_name;
    bool m_powered = true;
    bool m_pairable = true;
    bool m_discoverable = false;
    bool m_discoverableWhenUp = false;
    bool m_simplePairing = false;
    RegisteredAgent *m_agent = nullptr;
    std::vector<Device *> m_devices; ///< in the order of their creation
    Device *m_sinkOwner = nullptr;
    QJsonObject m_names;
};

#endif
