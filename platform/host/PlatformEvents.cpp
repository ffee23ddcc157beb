#include "PlatformEvents.h"

#include "NameOwner.h"
#include "PlatformLog.h"
#include "UlmoFeatureBase.h"

#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusMessage>

PlatformEvents::PlatformEvents(UlmoFeatureBase *feature, const QString &objectPath)
    : QObject(feature), m_feature(feature), m_platform(0), m_initialized(false)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        m_platform = new NameOwner(bus, QLatin1String("com.orbitalis.ulmo.platform"), this);
        // From any sender: the bus daemon would have to be asked who owns the name otherwise.
        m_initialized = m_platform->isFollowed()
            && bus.connect(QString(), QLatin1String("/com/orbitalis/ulmo/platform"),
                           QLatin1String("com.orbitalis.ulmo.platformevents"), QString(), this,
                           SLOT(eventReceived(QDBusMessage)));
    }
    if (!m_initialized)
        platformLog(1, objectPath,
                    QString::fromLatin1("no platform events from the session bus: ")
                        + bus.lastError().message());
}

void PlatformEvents::eventReceived(const QDBusMessage &message)
{
    if (!m_platform->sent(message))
        return;
    const QString event = message.member() + QLatin1Char(' ') + message.signature();
    const QString reason = message.arguments().value(0).toString();
    if (event == QLatin1String("PowerSuspend s"))
        m_feature->ulmoPowerOnSuspend(reason);
    else if (event == QLatin1String("PowerShutdown s"))
        m_feature->ulmoPowerOnShutdown(reason);
    else if (event == QLatin1String("PowerReboot s"))
        m_feature->ulmoPowerOnReboot(reason);
    else if (event == QLatin1String("SupervisorShutdown "))
        m_feature->ulmoSupOnShutdown();
}
