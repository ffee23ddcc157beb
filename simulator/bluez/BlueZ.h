#ifndef BLUEZ_H
#define BLUEZ_H

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QStringList>

class Adapter;
class Agent;
class Bus;
class Clock;
class Faults;
class Journal;
class Phone;

/**
 * The virtual BlueZ 4 as far as the service can notice it: the daemon and its adapter on the system
 * bus, the agent program, and the phones around, which outlive both.
 */
class BlueZ : public QObject
{
    Q_OBJECT

public:
    BlueZ(Journal &journal, Clock &clock, Faults &faults, const QString &systemBusAddress);

    /// \name Programs, by process id
    /// @{
    /// A bluetoothd lives: it takes org.bluez, and its adapter comes a little later. The faults
    /// name-delay, no-name, adapter-delay (real milliseconds) and no-adapter of "bluetoothd" count.
    void start(qint64 pid, const QString &hostName);
    /// It ends, in order (SIGTERM) or not.
    void stop(bool orderly);
    void startAgent(qint64 pid, const QStringList &arguments);
    /// It ends; in order it unregisters first.
    void stopAgent(bool orderly);
    /// What hciconfig with these \p arguments, "hci0 piscan" and so on, does to the radio.
    void hciconfig(const QStringList &arguments);
    /// PulseAudio takes the phones' streams: BlueZ does not suspend them after 5 s.
    void takeStream(bool taken);
    /// @}

    /// \name Control
    /// @{
    /// Does "phone ...", "phones", "signal ..." or "backend ...". Returns why not, or an empty
    /// text; \p text is the answer for people.
    QString tell(const QStringList &words, QString *text);
    QStringList phoneNames() const;
    /// What phones can do.
    QStringList verbs() const;
    /// "/", "hci0", a phone's name, or the path as it is; whatever the process id in it.
    QString shortName(const QString &objectPath) const;
    /// @}

signals:
    /// The agent ends by itself.
    void agentExited(int status);
    /// A phone's stream has changed; without \p devicePath it is closed.
    void phonePlays(const QString &phone, const QString &devicePath, const QString &audioFile,
                    bool playing);

private:
    QString tellPhone(const QStringList &words, QString *text);
    QString addPhone(const QStringList &words);
    QString sendSignal(const QStringList &words);
    QString setBackend(const QStringList &words);
    const Phone *phoneAt(const QString &address) const;

    Journal &m_journal;
    Clock &m_clock;
    Faults &m_faults;
    QString m_busAddress;
    Adapter *m_adapter;
    QMap<QString, Phone *> m_phones;
    qint64 m_pid = 0; ///< of the daemon
    QPointer<Bus> m_bus; ///< of the daemon
    QPointer<Agent> m_agent;
};

#endif
