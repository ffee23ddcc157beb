#include "RegisteredAgent.h"

#include "Bus.h"

#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include <climits>

namespace {
const int RequestLimit = 60000;
}

RegisteredAgent::RegisteredAgent(Bus *bus, const Clock &clock, const Call &call, QObject *parent)
    : QObject(parent)
    , m_bus(bus)
    , m_sender(call.sender())
    , m_path(call.argument(0).toString())
    , m_presence(m_sender, bus->connection(), QDBusServiceWatcher::WatchForUnregistration)
    , m_limit(clock, this)
{
    connect(&m_presence, &QDBusServiceWatcher::serviceUnregistered, this, [this] {
        finish(false);
        emit gone();
    });
}

bool RegisteredAgent::isMeantBy(const Call &call) const
{
    return call.sender() == m_sender && call.argument(0).toString() == m_path;
}

void RegisteredAgent::request(QObject *asker, const QString &member, const QString &device,
                              const QVariantList &more, const Answer &answer)
{
    if (m_request) {
        answer(false, QString());
        return;
    }
    m_asker = asker;
    m_answer = answer;
    m_request = send(member, QVariantList {QVariant::fromValue(QDBusObjectPath(device))} + more);
    connect(m_request, &QDBusPendingCallWatcher::finished, this,
            [this](QDBusPendingCallWatcher *request) {
                const QDBusPendingReply<> reply = *request;
                if (request == m_request)
                    finish(!reply.isError(), reply.reply().arguments().value(0).toString());
            });
    m_limit.start(RequestLimit, [this] {
        send("Cancel");
        finish(false);
    });
}

void RegisteredAgent::cancel(const QObject *asker)
{
    if (!m_request || m_asker != asker)
        return;
    m_answer = nullptr;
    send("Cancel");
    finish(false);
}

void RegisteredAgent::release()
{
    m_answer = nullptr;
    finish(false);
    send("Release");
}

QDBusPendingCallWatcher *RegisteredAgent::send(const QString &member, const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(m_sender, m_path, "org.bluez.Agent", member);
    call.setArguments(arguments);
    // The limit is the daemon's own, in product time.
    return new QDBusPendingCallWatcher(m_bus->connection().asyncCall(call, INT_MAX), this);
}

void RegisteredAgent::finish(bool agreed, const QString &pin)
{
    m_limit.stop();
    if (m_request)
        m_request->deleteLater();
    m_request = nullptr;
    const Answer answer = std::move(m_answer);
    m_answer = nullptr;
    if (answer && m_asker)
        answer(agreed, pin);
}
