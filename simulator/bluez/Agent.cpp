#include "Agent.h"

#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>

namespace {
const QString BluezName = QStringLiteral("org.bluez");
}

Agent::Agent(const QString &systemBusAddress, Faults &faults, const Clock &clock,
             const QStringList &arguments, QObject *parent)
    : QObject(parent)
    , m_bus(
          systemBusAddress, faults,
          [this](const Call &call) {
              // The program sleeps through its delay: what comes meanwhile waits.
              m_waiting.append(call);
              answerNext();
          },
          nullptr)
    , m_sleep(clock, this)
{
    const auto option = [&arguments](const QString &name) {
        return arguments.value(arguments.indexOf(name) + 1);
    };
    m_path = option("--path");
    m_delay = option("--delay").toInt();
    m_capability = option("--capabilites"); // as the board's program spells it
    m_pin = arguments.value(arguments.size() - 1);
    auto *watcher = new QDBusServiceWatcher(BluezName, m_bus.connection(),
                                            QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this, [this] { emit exited(0); });
    callDaemon("/", "Manager.DefaultAdapter", {}, [this](const QDBusMessage &adapter) {
        m_adapter = adapter.arguments().value(0).value<QDBusObjectPath>().path();
        if (m_adapter.isEmpty()) {
            emit exited(1);
            return;
        }
        const auto path = QVariant::fromValue(QDBusObjectPath(m_path));
        callDaemon(m_adapter, "Adapter.RegisterAgent", {path, m_capability},
                   [this](const QDBusMessage &reply) {
                       if (reply.type() == QDBusMessage::ErrorMessage)
                           emit exited(1);
                   });
    });
}

void Agent::stop()
{
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
    const QString interface = BluezName + '.' + member.section('.', 0, 0);
    QDBusMessage call =
        QDBusMessage::createMethodCall(BluezName, path, interface, member.section('.', 1));
    call.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(m_bus.connection().asyncCall(call), &m_bus);
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
        m_waiting.takeFirst().reply();
        if (method == "Agent.Release()")
            emit exited(0);
    }
}
