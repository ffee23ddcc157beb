#include "AgentProgram.h"

#include "Faces.h"
#include "HubLink.h"
#include "Termination.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QDBusServiceWatcher>

#include <cstdio>

namespace {

const QString Daemon = QStringLiteral("org.bluez");
const QString AgentInterface = QStringLiteral("org.bluez.Agent");
const QString AdapterInterface = QStringLiteral("org.bluez.Adapter");
/// Methods that take no thinking: an agent that can neither show nor ask agrees.
const QStringList Agreed {"Authorize",      "RequestConfirmation", "DisplayPasskey",
                          "DisplayPinCode", "ConfirmModeChange",   "Cancel"};

} // namespace

AgentProgram::AgentProgram(const QDBusConnection &connection, QObject *parent)
    : QDBusVirtualObject(parent), m_connection(connection)
{
    m_delayed.setSingleShot(true);
    connect(&m_delayed, &QTimer::timeout, this, [this] {
        answer(m_waiting.takeFirst(), {m_pin});
        handleNext();
    });
}

bool AgentProgram::readArguments(const QStringList &arguments)
{
    int next = 0;
    for (; next + 1 < arguments.size(); next += 2) {
        const QString value = arguments.at(next + 1);
        // The last one is spelled as the board's program spells it.
        if (arguments.at(next) == "--path")
            m_path = value;
        else if (arguments.at(next) == "--delay")
            m_delay = value.toInt();
        else if (arguments.at(next) == "--capabilites")
            m_capability = value;
        else
            break;
    }
    if (next != arguments.size() - 1 || arguments.last().startsWith("--")) {
        std::fprintf(stderr,
                     "usage: agent [--path PATH] [--delay SECONDS] [--capabilites NAME] PIN\n");
        return false;
    }
    m_pin = arguments.last();
    return true;
}

bool AgentProgram::registerWithDaemon()
{
    m_connection.registerVirtualObject(m_path, this);
    m_connection.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                         "Disconnected", this, SLOT(busLost()));
    auto *watcher = new QDBusServiceWatcher(Daemon, m_connection,
                                            QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this,
            [] { QCoreApplication::exit(0); });

    const QDBusReply<QDBusObjectPath> adapter = m_connection.call(
        QDBusMessage::createMethodCall(Daemon, "/", "org.bluez.Manager", "DefaultAdapter"));
    if (!adapter.isValid()) {
        std::fprintf(stderr, "agent: no adapter: %s\n", qPrintable(adapter.error().message()));
        return false;
    }
    m_adapter = adapter.value().path();
    QDBusMessage call =
        QDBusMessage::createMethodCall(Daemon, m_adapter, AdapterInterface, "RegisterAgent");
    call << QVariant::fromValue(QDBusObjectPath(m_path)) << m_capability;
    const QDBusReply<void> registered = m_connection.call(call);
    if (!registered.isValid()) {
        std::fprintf(stderr, "agent: not registered: %s\n",
                     qPrintable(registered.error().message()));
        return false;
    }
    return true;
}

void AgentProgram::stop()
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(Daemon, m_adapter, AdapterInterface, "UnregisterAgent");
    call << QVariant::fromValue(QDBusObjectPath(m_path));
    m_connection.call(call);
    // After what has come in meanwhile: the daemon says Release before it answers.
    QMetaObject::invokeMethod(QCoreApplication::instance(), "quit", Qt::QueuedConnection);
}

QString AgentProgram::introspect(const QString &path) const
{
    Q_UNUSED(path)
    return QString();
}

bool AgentProgram::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    Q_UNUSED(connection)
    if (message.interface() != AgentInterface)
        return false;
    // The board's program sleeps through its delay: what comes meanwhile waits.
    m_waiting.append(message);
    if (!m_delayed.isActive())
        handleNext();
    return true;
}

void AgentProgram::handleNext()
{
    while (!m_waiting.isEmpty() && !m_delayed.isActive()) {
        const QString member = m_waiting.first().member();
        if (member == "RequestPinCode") {
            m_delayed.start(int(m_delay * 1000 * m_scale));
            continue;
        }
        const QDBusMessage message = m_waiting.takeFirst();
        if (member == "Release") {
            answer(message);
            QCoreApplication::exit(0);
        } else if (member == "RequestPasskey") {
            answer(message, {m_pin.toUInt()});
        } else if (Agreed.contains(member)) {
            answer(message);
        } else {
            m_connection.send(message.createErrorReply(QDBusError::UnknownMethod, member));
        }
    }
}

void AgentProgram::answer(const QDBusMessage &message, const QVariantList &values)
{
    if (message.isReplyRequired())
        m_connection.send(message.createReply(values));
}

void AgentProgram::busLost()
{
    QCoreApplication::exit(1);
}

int agentMain(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    HubLink hub;
    if (!hub.connectAndHello("agent", application.arguments().mid(1))) {
        std::fprintf(stderr, "agent: no hub: %s\n", qPrintable(hub.errorString()));
        return 1;
    }
    hub.obey();
    Termination termination;
    AgentProgram agent(QDBusConnection::systemBus());
    agent.setTimescale(hub.options().value("timescale").toVariant().isValid()
                           ? hub.options().value("timescale").toVariant().toDouble()
                           : 1);
    if (!agent.readArguments(application.arguments().mid(1)) || !agent.registerWithDaemon())
        return 1;
    QObject::connect(&termination, &Termination::requested, &agent, &AgentProgram::stop);
    QObject::connect(&hub, &HubLink::disconnected, &application, &QCoreApplication::quit);
    return application.exec();
}
