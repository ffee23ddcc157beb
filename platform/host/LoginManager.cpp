#include "LoginManager.h"

#include "NameOwner.h"
#include "PlatformLog.h"
#include "UlmoFeatureBase.h"

#include <QtCore/QDateTime>
#include <QtCore/QVariant>
#include <QtDBus/QDBusArgument>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusMessage>

namespace {
const char Service[] = "org.freedesktop.login1";
const char Path[] = "/org/freedesktop/login1";
const char Interface[] = "org.freedesktop.login1.Manager";
/** Milliseconds; well below the five seconds for which an inhibitor delays by default. */
const int ScheduleTimeout = 1000;
} // namespace

LoginManager::LoginManager(UlmoFeatureBase *feature, const QString &objectPath)
    : QObject(feature)
    , m_feature(feature)
    , m_objectPath(objectPath)
    , m_bus(QDBusConnection::systemBus())
{
    // The machine's own, where the service's system bus is the product's.
    const QString address = qgetenv("ULMO_MACHINE_BUS_ADDRESS");
    if (!address.isEmpty())
        m_bus = QDBusConnection::connectToBus(address, "machine");
    if (!m_bus.isConnected())
        return;
    m_loginManager = new NameOwner(m_bus, Service, this);
    connect(m_loginManager, SIGNAL(changed()), SLOT(ownerChanged()));
    const char *const names[] = {"PrepareForSleep", "PrepareForShutdown",
                                 "PrepareForShutdownWithMetadata"};
    for (const char *name : names)
        m_bus.connect(QString(), Path, Interface, name, this, SLOT(signalReceived(QDBusMessage)));
}

void LoginManager::ownerChanged()
{
    // A new login manager knows neither the inhibitor nor what the old one had begun.
    m_sleeping = false;
    m_shutdown = NoShutdown;
    m_inhibitorAsked = false;
    m_inhibitor = QDBusUnixFileDescriptor();
    takeInhibitor();
}

void LoginManager::signalReceived(const QDBusMessage &message)
{
    if (!m_loginManager->sent(message))
        return;
    const QString event = message.member() + ' ' + message.signature();
    const QList<QVariant> arguments = message.arguments();
    const bool begins = arguments.value(0).toBool();
    if (event == "PrepareForSleep b") {
        if (begins)
            prepareForSleep();
        else
            m_sleeping = false;
    } else if (event == "PrepareForShutdown b"
               || event == "PrepareForShutdownWithMetadata ba{sv}") {
        if (!begins)
            m_shutdown = NoShutdown;
        else if (arguments.size() == 1)
            prepareForShutdown();
        else
            prepareForShutdown(qdbus_cast<QVariantMap>(arguments.at(1)).value("type").toString());
    }
    if (!begins)
        takeInhibitor();
}

void LoginManager::prepareForSleep()
{
    if (m_sleeping)
        return;
    m_sleeping = true;
    m_feature->ulmoPowerOnSuspend("suspend");
    m_inhibitor = QDBusUnixFileDescriptor();
}

/**
 * Of its two signals the login manager sends the one with metadata first, so that whoever receives
 * this one first knows that its systemd is older than 255 and has no other. Most of those put the
 * kind into ScheduledShutdown even for a shutdown at once; the oldest leave it unknown.
 */
void LoginManager::prepareForShutdown()
{
    if (m_shutdown != NoShutdown)
        return;
    m_shutdown = ShutdownOfUnknownKind;
    QDBusMessage query = QDBusMessage::createMethodCall(m_loginManager->uniqueName(), Path,
                                                        "org.freedesktop.DBus.Properties", "Get");
    query << Interface << "ScheduledShutdown";
    m_bus.callWithCallback(query, this, SLOT(scheduleFound(QDBusVariant)), SLOT(scheduleFound()),
                           ScheduleTimeout);
}

void LoginManager::prepareForShutdown(const QString &kind)
{
    if (m_shutdown == ShutdownAnnounced)
        return;
    m_shutdown = ShutdownAnnounced;
    if (kind == "reboot" || kind == "soft-reboot" || kind == "kexec")
        m_feature->ulmoPowerOnReboot("reboot");
    else
        m_feature->ulmoPowerOnShutdown("shutdown");
    m_inhibitor = QDBusUnixFileDescriptor();
}

void LoginManager::scheduleFound(const QDBusVariant &schedule)
{
    QString kind;
    qulonglong time = 0; // microseconds since 1970, 0 for at once
    const QDBusArgument argument = qvariant_cast<QDBusArgument>(schedule.variant());
    if (argument.currentSignature() == "(st)") {
        argument.beginStructure();
        argument >> kind >> time;
        argument.endStructure();
    }
    // One that is due later is not the one that begins now.
    if (time / 1000 > static_cast<qulonglong>(QDateTime::currentMSecsSinceEpoch()))
        kind.clear();
    if (m_shutdown == ShutdownOfUnknownKind)
        prepareForShutdown(kind);
}

void LoginManager::takeInhibitor()
{
    if (m_loginManager->uniqueName().isEmpty() || m_inhibitor.isValid() || m_inhibitorAsked)
        return;
    m_inhibitorAsked = true;
    QDBusMessage call =
        QDBusMessage::createMethodCall(m_loginManager->uniqueName(), Path, Interface, "Inhibit");
    call << "sleep:shutdown" << m_objectPath << "Settings are saved and audio is stopped first"
         << "delay";
    m_bus.callWithCallback(call, this, SLOT(inhibitorGranted(QDBusUnixFileDescriptor)),
                           SLOT(inhibitorRefused(QDBusError)));
}

void LoginManager::inhibitorGranted(const QDBusUnixFileDescriptor &inhibitor)
{
    m_inhibitorAsked = false;
    // Granted too late for what has begun meanwhile, it would only delay that.
    if (!m_sleeping && m_shutdown == NoShutdown)
        m_inhibitor = inhibitor;
}

void LoginManager::inhibitorRefused(const QDBusError &error)
{
    m_inhibitorAsked = false;
    // A login manager that went away in the meantime is no trouble.
    if (error.type() != QDBusError::ServiceUnknown && error.type() != QDBusError::NoReply)
        platformLog(2, m_objectPath,
                    QString("the login manager will not wait at sleep and shutdown: ")
                        + error.message());
}
