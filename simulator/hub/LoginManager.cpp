#include "LoginManager.h"

#include "BusConnection.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QSocketNotifier>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

namespace {

const char ServiceName[] = "org.freedesktop.login1";
const char ObjectPath[] = "/org/freedesktop/login1";
const char ManagerInterface[] = "org.freedesktop.login1.Manager";
const int InhibitDelayMaxMs = 5000;

} // namespace

struct ScheduledShutdown
{
    QString type;
    quint64 time; ///< microseconds since 1970; 0: at once
};
Q_DECLARE_METATYPE(ScheduledShutdown)

QDBusArgument &operator<<(QDBusArgument &argument, const ScheduledShutdown &shutdown)
{
    argument.beginStructure();
    argument << shutdown.type << shutdown.time;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, ScheduledShutdown &shutdown)
{
    argument.beginStructure();
    argument >> shutdown.type >> shutdown.time;
    argument.endStructure();
    return argument;
}

LoginManager::LoginManager(QObject *parent)
    : QDBusVirtualObject(parent), m_connection("login-manager")
{
    qDBusRegisterMetaType<ScheduledShutdown>();
}

LoginManager::~LoginManager()
{
    for (int inhibitor : m_inhibitors)
        close(inhibitor);
}

bool LoginManager::connectToBus()
{
    m_connection = connectedTo("system", "login-manager");
    return m_connection.registerVirtualObject(ObjectPath, this);
}

bool LoginManager::start(int version)
{
    m_version = version;
    return m_connection.registerService(ServiceName);
}

void LoginManager::stop()
{
    m_connection.unregisterService(ServiceName);
}

bool LoginManager::sendEvent(const QString &event)
{
    if (event == "suspend" || event == "resume") {
        emitSignal("PrepareForSleep", {event == "suspend"});
        if (event == "suspend")
            goDownWhenReleased("the machine sleeps");
        return true;
    }
    if (event != "shutdown" && event != "reboot" && event != "cancel")
        return false;
    const bool begins = event != "cancel";
    if (begins)
        m_shutdownType = event == "reboot" ? "reboot" : "poweroff";
    if (m_version >= 255)
        emitSignal("PrepareForShutdownWithMetadata",
                   {begins, QVariantMap {{"type", m_shutdownType}}});
    emitSignal("PrepareForShutdown", {begins});
    if (begins)
        goDownWhenReleased("the machine goes down");
    else
        m_goingDown.clear();
    return true;
}

QString LoginManager::introspect(const QString &path) const
{
    Q_UNUSED(path)
    return QString();
}

bool LoginManager::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    if (message.interface() == ManagerInterface && message.member() == "Inhibit"
        && message.signature() == "ssss") {
        connection.send(inhibit(message));
        return true;
    }
    if (message.interface() == "org.freedesktop.DBus.Properties" && message.member() == "Get"
        && message.arguments().value(1) == "ScheduledShutdown" && m_version >= 250) {
        const QVariant shutdown = QVariant::fromValue(ScheduledShutdown {m_shutdownType, 0});
        connection.send(message.createReply(QVariant::fromValue(QDBusVariant(shutdown))));
        return true;
    }
    return false;
}

QDBusMessage LoginManager::inhibit(const QDBusMessage &message)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return message.createErrorReply(QDBusError::Failed, "no pipe");
    const QDBusUnixFileDescriptor theirs(ends[1]); // a copy of its own
    close(ends[1]);
    m_inhibitors.append(ends[0]);
    auto *notifier = new QSocketNotifier(ends[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this, notifier] {
        notifier->setEnabled(false);
        notifier->deleteLater();
        inhibitorReleased(int(notifier->socket()));
    });
    return message.createReply(QVariant::fromValue(theirs));
}

void LoginManager::emitSignal(const QString &member, const QVariantList &arguments)
{
    QDBusMessage event = QDBusMessage::createSignal(ObjectPath, ManagerInterface, member);
    event.setArguments(arguments);
    m_connection.send(event);
}

void LoginManager::inhibitorReleased(int descriptor)
{
    if (!m_inhibitors.removeOne(descriptor))
        return;
    close(descriptor);
    emit happened("an inhibitor is released");
    if (m_inhibitors.isEmpty())
        goDown(true);
}

void LoginManager::goDownWhenReleased(const QString &what)
{
    m_goingDown = what;
    if (m_inhibitors.isEmpty())
        goDown(true);
    else
        QTimer::singleShot(InhibitDelayMaxMs, this, [this] { goDown(false); });
}

void LoginManager::goDown(bool waited)
{
    if (m_goingDown.isEmpty())
        return;
    emit happened(waited ? m_goingDown : m_goingDown + " although an inhibitor is held");
    m_goingDown.clear();
}
