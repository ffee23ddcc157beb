#include "Platform.h"

#include "Buses.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QMap>

namespace {
const QMap<QString, QString> Members {{"suspend", "PowerSuspend"},
                                      {"shutdown", "PowerShutdown"},
                                      {"reboot", "PowerReboot"},
                                      {"supervisor-end", "SupervisorShutdown"}};
}

QString Platform::start()
{
    QDBusConnection bus = Buses::connection("session", "platform");
    return bus.registerService("com.orbitalis.ulmo.platform")
        ? QString()
        : "the platform: " + bus.lastError().message();
}

QStringList Platform::events()
{
    return Members.keys();
}

QString Platform::send(const QString &event, const QString &reason, bool stranger)
{
    const QDBusConnection bus = Buses::connection("session", stranger ? "stranger" : "platform");
    QDBusMessage message = QDBusMessage::createSignal(
        "/com/orbitalis/ulmo/platform", "com.orbitalis.ulmo.platformevents", Members.value(event));
    if (event != "supervisor-end")
        message << reason;
    return bus.send(message) ? QString() : "there is no session bus";
}
