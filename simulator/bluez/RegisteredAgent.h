#ifndef REGISTEREDAGENT_H
#define REGISTEREDAGENT_H

#include "Timer.h"

#include <QDBusServiceWatcher>
#include <QPointer>
#include <QVariantList>

class Bus;
class Call;
class QDBusPendingCallWatcher;

/// The pairing agent as the daemon knows it: one request at a time.
class RegisteredAgent : public QObject
{
    Q_OBJECT

public:
    /// Gets whether the agent has agreed, and the PIN if that was asked for.
    using Answer = std::function<void(bool agreed, const QString &pin)>;

    /// \p call is its registration.
    RegisteredAgent(Bus *bus, const Clock &clock, const Call &call, QObject *parent);

    /// Whether \p call comes from this agent and means it.
    bool isMeantBy(const Call &call) const;
    /// Calls \p member with the object \p device and \p more; nobody is asked for a second time.
    void request(QObject *asker, const QString &member, const QString &device,
                 const QVariantList &more, const Answer &answer);
    /// The request of \p asker is void: the agent gets Cancel, nobody an answer.
    void cancel(const QObject *asker);
    void release();

signals:
    /// Its connection has gone.
    void gone();

private:
    QDBusPendingCallWatcher *send(const QString &member, const QVariantList &arguments = {});
    void finish(bool agreed, const QString &pin = QString());

    Bus *m_bus;
    QString m_sender;
    QString m_path;
    QDBusServiceWatcher m_presence;
    Timer m_limit;
    QPointer<const QObject> m_asker;
    Answer m_answer;
    QPointer<QDBusPendingCallWatcher> m_request;
};

#endif
