#include "Agent.h"

#include "Bus.h"

#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

namespace {
const QString BluezName = QStringLiteral("org.bluez");
} // namespace

Agent::Agent(const QString &systemBusAddress, Faults &faults, const Clock &clock,
             const QStringList &arguments, QObject *parent)
    : QObject(parent), m_sleep(clock, this), m_end(clock, this)
{
    m_bus = new Bus(
        systemBusAddress, faults,
        [this](const Call &call) {
            // The program sleeps through its delay: what comes meanwhile waits.
            m_waiting.append(call);
            answerNext();
        },
        this);
    connect(m_bus, &Bus::lost, this, [this] { emit exited(1); });
    if (!readArguments(arguments)) {
        m_end.start(0, [this] { emit exited(1); });
        return;
    }
    auto *watcher = new QDBusServiceWatcher(BluezName, m_bus->connection(),
                                            QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] { emit exited(0); });
    callDaemon("/", "Manager.DefaultAdapter", {}, [this](const QDBusMessage &adapter) {
        if (adapter.type() == QDBusMessage::ErrorMessage) {
            emit exited(1);
            return;
        }
        m_adapter = adapter.arguments().value(0).value<QDBusObjectPath>().path();
        callDaemon(m_adapter, "Adapter.RegisterAgent",
                   {QVariant::fromValue(QDBusObjectPath(m_path)), m_capability},
                   [this](const QDBusMessage &reply) {
                       if (reply.type() == QDBusMessage::ErrorMessage)
                           emit exited(1);
                   });
    });
}

bool Agent::readArguments(const QStringList &arguments)
{
    for (int i = 0; i + 1 < arguments.size(); i += 2) {
        const QString value = arguments.at(i + 1);
        // The last one is spelled as the board's program spells it.
        if (arguments.at(i) == "--path")
            m_path = value;
        else if (arguments.at(i) == "--delay")
            m_delay = value.toInt();
        else if (arguments.at(i) == "--capabilites")
            m_capability = value;
        else
            return false;
    }
    m_pin = arguments.value(arguments.size() - 1);
    return arguments.size() % 2 == 1 && !m_pin.startsWith("--");
}

void Agent::stop()
{
    if (m_stopping)
        return;
    m_stopping = true;
    if (m_adapter.isEmpty())
        deleteLater();
    else
        callDaemon(m_adapter, "Adapter.UnregisterAgent",
                   {QVariant::fromValue(QDBusObjectPath(m_path))},
                   [this](const QDBusMessage &) { deleteLater(); });
}

void Agent::callDaemon(const QString &path, const QString &member, const QVariantList &arguments,
                       const Answered &answered)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        BluezName, path, "org.bluez." + member.section('.', 0, 0), member.section('.', 1));
    call.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(m_bus->connection().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [watcher, answered] {
        watcher->deleteLater();
        answered(watcher->reply());
    });
}

void Agent::answerNext()
{
    while (!m_waiting.isEmpty() && !m_sleep.isActive()) {
        const QString method = m_waiting.first().method();
        if (method == "Agent.RequestPinCode(o)") {
            m_sleep.start(m_delay * 1000, [this] {
                m_waiting.takeFirst().reply({m_pin});
                answerNext();
            });
            return;
        }
        const Call call = m_waiting.takeFirst();
        if (method == "Agent.Release()" || method == "Agent.Cancel()"
            || method == "Agent.Authorize(os)")
            call.reply();
        else
            call.failUnknown(true);
        if (method == "Agent.Release()" && !m_stopping) {
            emit exited(0);
            return;
        }
    }
}
