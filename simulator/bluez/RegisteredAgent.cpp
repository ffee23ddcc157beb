#include "RegisteredAgent.h"

#include "Context.h"
#include "Durations.h"

#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <climits>

namespace {
const QString AgentInterface = QStringLiteral("org.bluez.Agent");
}

RegisteredAgent::RegisteredAgent(Context *context, const QString &sender, const QString &path,
                                 QObject *parent)
    : QObject(parent)
    , m_context(context)
    , m_sender(sender)
    , m_path(path)
    , m_presence(sender, context->bus.connection(), QDBusServiceWatcher::WatchForUnregistration)
    , m_limit(&context->schedule)
{
    connect(&m_presence, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
        m_context->schedule.catchUp();
        finish(false, QString());
        emit gone();
    });
}

bool RegisteredAgent::is(const QString &sender, const QString &path) const
{
    return sender == m_sender && path == m_path;
}

void RegisteredAgent::request(QObject *asker, const QString &member, const QVariantList &arguments,
                              const Answer &answer)
{
    if (m_watcher) {
        answer(false, QString());
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(m_sender, m_path, AgentInterface, member);
    call.setArguments(arguments);
    m_asker = asker;
    m_answer = answer;
    // The time limit is the daemon's own, in product time.
    m_watcher =
        new QDBusPendingCallWatcher(m_context->bus.connection().asyncCall(call, INT_MAX), this);
    connect(m_watcher, &QDBusPendingCallWatcher::finished, this, &RegisteredAgent::replied);
    m_limit.start(Durations::AgentRequest, [this] {
        send("Cancel");
        finish(false, QString());
    });
}

void RegisteredAgent::cancel(const QObject *asker)
{
    if (!m_watcher || m_asker != asker)
        return;
    m_answer = nullptr;
    send("Cancel");
    finish(false, QString());
}

void RegisteredAgent::release()
{
    finish(false, QString());
    send("Release");
}

void RegisteredAgent::replied(QDBusPendingCallWatcher *watcher)
{
    m_context->schedule.catchUp();
    if (watcher != m_watcher)
        return;
    const QDBusPendingReply<> reply = *watcher;
    finish(!reply.isError(), reply.reply().arguments().value(0).toString());
}

void RegisteredAgent::finish(bool agreed, const QString &value)
{
    m_limit.stop();
    if (m_watcher)
        m_watcher->deleteLater();
    m_watcher = nullptr;
    const Answer answer = std::move(m_answer);
    m_answer = nullptr;
    if (answer && m_asker)
        answer(agreed, value);
}

void RegisteredAgent::send(const QString &member)
{
    QDBusMessage call = QDBusMessage::createMethodCall(m_sender, m_path, AgentInterface, member);
    // Its reply is asked for, as the daemon does, but not looked at.
    m_context->bus.connection().asyncCall(call);
}
