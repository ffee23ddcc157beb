#include "PlatformEvents.h"

#include "NameOwner.h"
#include "PlatformLog.h"
#include "UlmoFeatureBase.h"

#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusError>
#include <QtDBus/QDBusMessage>

PlatformEvents::PlatformEvents(UlmoFeatureBase *feature, const QString &objectPath)
    : QObject(feature), m_feature(feature), m_platform(nullptr), m_initialized(false)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        m_platform = new NameOwner(bus, "com.orbitalis.ulmo.platform", this);
        // From any sender: the bus daemon would have to be asked who owns the name otherwise.
        m_initialized = m_platform->isFollowed()
            && bus.connect(QString(), "/com/orbitalis/ulmo/platform",
                           "com.orbitalis.ulmo.platformevents", QString(), this,
                           SLOT(eventReceived(QDBusMessage)));
    }
    if (!m_initialized)
        platformLog(1, objectPath,
                    "no platform events from the session bus: " + bus.lastError().message());
}

void PlatformEvents::eventReceived(const QDBusMessage &message)
{
    if (!m_platform->sent(message))
        return;
    const QString event = message.member() + ' ' + message.signature();
    const QString reason = message.arguments().value(0).toString();
    if (event == "PowerSuspend s")
        m_feature->ulmoPowerOnSuspend(reason);
    else if (event == "PowerShutdown s")
        m_feature->ulmoPowerOnShutdown(reason);
    else if (event == "PowerReboot s")
        m_feature->ulmoPowerOnReboot(reason);
    else if (event == "SupervisorShutdown ")
        m_feature->ulmoSupOnShutdown();
}
