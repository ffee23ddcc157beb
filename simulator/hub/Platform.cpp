#include "Platform.h"

#include "BusConnection.h"

#include <QDBusMessage>

namespace {

bool send(const QDBusConnection &connection, const QString &member, const QString &reason)
{
    QDBusMessage event = QDBusMessage::createSignal("/com/orbitalis/ulmo/platform",
                                                    "com.orbitalis.ulmo.platformevents", member);
    if (member != "SupervisorShutdown")
        event << reason;
    return connection.send(event);
}

} // namespace

Platform::Platform() : m_owner("platform"), m_stranger("stranger") { }

bool Platform::start()
{
    m_owner = connectedTo("session", "platform");
    m_stranger = connectedTo("session", "stranger");
    return m_owner.registerService("com.orbitalis.ulmo.platform");
}

bool Platform::sendEvent(const QString &member, const QString &reason)
{
    return send(m_owner, member, reason);
}

bool Platform::spoofEvent(const QString &member, const QString &reason)
{
    return send(m_stranger, member, reason);
}
