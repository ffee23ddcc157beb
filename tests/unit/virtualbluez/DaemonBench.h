#ifndef DAEMONBENCH_H
#define DAEMONBENCH_H

#include "BusRecorder.h"
#include "FakeHub.h"
#include "PrivateBus.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QVariantList>

#include <memory>

/// A bus with nobody but the virtual daemon, its agent, and whoever calls them.
class DaemonBench
{
    QTemporaryDir m_folder;
    PrivateBus m_bus;

public:
    FakeHub hub;
    BusRecorder recorder;

    /// Options: see Options in simulator/bluez. \p scale is the real time per product time.
    explicit DaemonBench(double scale, const QJsonObject &options = QJsonObject());
    ~DaemonBench();

    /// Starts the daemon and waits for its hello.
    bool startDaemon();
    /// Starts the daemon and waits until the adapter has been announced.
    bool startUp();
    /// Starts the agent as the board does, with \p pin.
    bool startAgent(const QString &pin = "7351");
    /// The same, without waiting for anything.
    void launchAgent(const QString &pin = "7351");
    /// Starts one more of the programs.
    void start(QProcess &process, const QStringList &arguments);
    QProcess &daemon() { return m_daemon; }
    QProcess &agent() { return m_agent; }
    /// Sends SIGTERM to \p process and waits for its end; its exit status, -1 for a crash.
    int stop(QProcess &process);

    /// Adds a phone with the next address and \p more of its description, and names its object;
    /// before or after the daemon's start.
    bool addPhone(const QString &handle, const QString &more = QString());

    /// The message that calls \p method ("Interface.Member") of \p object: "/", "adapter", a phone.
    QDBusMessage message(const QString &object, const QString &method,
                         const QVariantList &arguments = QVariantList()) const;
    /// Sends \p message and waits for the answer.
    QDBusMessage send(const QDBusMessage &message);
    /// Calls and waits for the answer.
    QDBusMessage call(const QString &object, const QString &method,
                      const QVariantList &arguments = QVariantList());
    /// Calls; the recorder sees the answer.
    void begin(const QString &object, const QString &method,
               const QVariantList &arguments = QVariantList());
    QString path(const QString &object) const;
    /// Real time per product time.
    double scale() const { return m_scale; }

private:
    double m_scale;
    QDBusConnection m_caller;
    QProcess m_daemon;
    QProcess m_agent;
    QHash<QString, QString> m_addresses;
};

#endif
