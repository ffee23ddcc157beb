#ifndef AGENT_H
#define AGENT_H

#include "Bus.h"
#include "Timer.h"

#include <QVector>

/// The program "agent": answers the daemon's pairing requests with the PIN of its command line.
class Agent : public QObject
{
    Q_OBJECT

public:
    Agent(const QString &systemBusAddress, Faults &faults, const Clock &clock,
          const QStringList &arguments, QObject *parent);

    /// SIGTERM: unregisters, and deletes itself after that.
    void stop();

signals:
    void exited(int status);

private:
    using Answered = std::function<void(const QDBusMessage &reply)>;

    /// Calls \p member of BlueZ; \p answered gets the reply or error.
    void callDaemon(const QString &path, const QString &member, const QVariantList &arguments,
                    const Answered &answered);
    void answerNext();

    QString m_path;
    int m_delay = 0; ///< seconds
    QString m_capability;
    QString m_pin;

    QString m_adapter;
    Bus m_bus;
    Timer m_sleep;
    QVector<Call> m_waiting;
};

#endif
