#ifndef REGISTEREDAGENT_H
#define REGISTEREDAGENT_H

#include "Schedule.h"

#include <QDBusServiceWatcher>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantList>

#include <functional>

class QDBusPendingCallWatcher;
struct Context;

/// The pairing agent that has registered with the adapter, seen from the daemon.
class RegisteredAgent : public QObject
{
    Q_OBJECT

public:
    /// Called with whether the agent agreed, and its first reply value as text.
    using Answer = std::function<void(bool, const QString &)>;

    RegisteredAgent(Context *context, const QString &sender, const QString &path, QObject *parent);

    bool is(const QString &sender, const QString &path) const;

    /**
     * Asks the agent \p member, for \p asker. One request at a time: a second one is refused on the
     * spot. An agent that fails, goes away or takes longer than 60 s has refused.
     */
    void request(QObject *asker, const QString &member, const QVariantList &arguments,
                 const Answer &answer);
    /// Takes back the request of \p asker, if there is one: the agent gets Cancel.
    void cancel(const QObject *asker);
    /// Tells the agent that it is no longer registered; a request under way is refused.
    void release();

Q_SIGNALS:
    /// The agent's bus connection has gone.
    void gone();

private:
    void replied(QDBusPendingCallWatcher *watcher);
    void finish(bool agreed, const QString &value);
    void send(const QString &member);

    Context *m_context;
    QString m_sender;
    QString m_path;
    QDBusServiceWatcher m_presence;
    QPointer<QObject> m_asker;
    QDBusPendingCallWatcher *m_watcher = nullptr;
    Answer m_answer;
    Timer m_limit;
};

#endif
