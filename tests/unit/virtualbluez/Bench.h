#ifndef BENCH_H
#define BENCH_H

#include "Bluetoothd.h"
#include "BusMonitor.h"
#include "PrivateBus.h"

#include <QDBusConnection>
#include <QElapsedTimer>
#include <QHash>
#include <QLocalServer>
#include <QProcess>
#include <QTemporaryDir>
#include <QVector>

#include <functional>

class Program;

/**
 * The virtual daemon and its agent, on a bus of their own and with as much of the hub as they talk
 * to. What happens around org.bluez is written down, in the bus's own order, one line a message:
 *
 *   OBJECT Interface.Property = VALUE          the signal PropertyChanged
 *   signal OBJECT Interface.Member ARGUMENTS   any other signal
 *   call agent Agent.Member ARGUMENTS          only the daemon's own calls
 *   return OBJECT Interface.Member ARGUMENTS   with what was called
 *   error OBJECT Interface.Member NAME "TEXT"
 *
 * Objects are "/", "adapter", "agent" and phones by their names; texts are quoted, dictionaries are
 * {key value ...} in the order of the keys, "org.bluez." and the common part of UUIDs are left out.
 */
class Bench
{
    QTemporaryDir m_folder;
    PrivateBus m_bus;

public:
    /// Real time per product time.
    static constexpr double Scale = 0.1;

    explicit Bench(const QString &backend);
    ~Bench();

    bool startDaemon();
    bool startAgent();
    /// The same without waiting for anything.
    void launchAgent();
    /// Starts \p process as \p program, "bluetoothd" or "agent".
    void start(QProcess &process, const QString &program, const QStringList &arguments);
    QProcess &daemon() { return m_daemon; }
    QProcess &agent() { return m_agent; }
    /// Whether \p process ends with status 0 when it is told to.
    bool stop(QProcess &process);

    void setOption(const QString &key, const QJsonValue &value) { m_hub.setOption(key, value); }
    /// Has the daemon carry out \p line.
    Result tell(const QString &line);
    /// Adds a phone with the next address and \p more of its description.
    bool addPhone(const QString &name, const QString &more = QString());
    QString path(const QString &object) const;
    QDBusConnection caller() const { return m_caller; }

    QStringList lines() const { return m_lines; }
    /// Real time from the line before to the line at \p index.
    qint64 millisecondsBefore(int index) const { return m_times.at(index) - m_times.at(index - 1); }
    void clear();
    bool waitForLines(int count) const;
    bool waitForLine(const QString &line) const;

private:
    void welcome(Program *program);
    void record(const QJsonObject &entry);
    bool waitUntil(const std::function<bool()> &condition) const;
    QString role(const QString &path) const;
    QString text(const QJsonValue &value) const;

    Bluetoothd m_hub;
    QLocalServer m_server;
    BusMonitor m_monitor;
    QDBusConnection m_caller;
    QProcess m_daemon;
    QProcess m_agent;
    QHash<QString, QString> m_phones; ///< name -> last part of the object path
    QStringList m_lines;
    QVector<qint64> m_times; ///< of the lines
    QElapsedTimer m_clock;
};

#endif
