#include "Platform.h"

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

bool Platform::start(const QString &address)
{
    m_owner = QDBusConnection::connectToBus(address, "platform");
    m_stranger = QDBusConnection::connectToBus(address, "stranger");
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
