#ifndef BLUEZ_H
#define BLUEZ_H

#include "Adapter.h"

#include <QMap>

class Agent;
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

    /// \name Programs, at most one of each
    /// @{
    /// A bluetoothd lives: it takes org.bluez, and its adapter comes a little later. The faults
    /// name-delay, no-name, adapter-delay (real milliseconds) and no-adapter of "bluetoothd" count.
    void start(qint64 pid, const QString &hostName);
    /// It ends, in order (SIGTERM) or not.
    void stop(bool orderly);
    /// The agent lives: it registers, or ends.
    void startAgent(const QStringList &arguments);
    /// It ends; in order it unregisters first.
    void stopAgent(bool orderly);
    /// What hciconfig with these \p arguments, "hci0 piscan" and so on, does to the radio.
    void hciconfig(const QStringList &arguments) { m_adapter.hciconfig(arguments); }
    /// PulseAudio takes the phones' streams: BlueZ does not suspend them after 5 s.
    void takeStream(bool taken) { m_adapter.streamTaken = taken; }
    /// @}

    /// \name Control
    /// @{
    /// Does "phone ...", "phones", "signal ..." or "backend ...". Returns why not, or an empty
    /// text; \p text is the answer for people.
    QString tell(const QStringList &words, QString *text);
    QStringList phoneNames() const { return m_phones.keys(); }
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
    /// The name of the phone with \p address; empty when there is none.
    QString nameOf(const QString &address) const;

    Journal &m_journal;
    Clock &m_clock;
    Faults &m_faults;
    QString m_busAddress;
    Adapter m_adapter;
    QPointer<Bus> m_bus; ///< of the daemon
    QPointer<Agent> m_agent;
    QMap<QString, Phone *> m_phones; ///< by name
};

#endif
