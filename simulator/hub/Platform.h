#ifndef PLATFORM_H
#define PLATFORM_H

#include <QDBusConnection>

/// The product's power and supervisor events on the session bus.
class Platform
{
public:
    Platform();

    /// Takes its name on the session bus at \p address; a stranger without a name connects too.
    bool start();
    /// Sends PowerSuspend and the like, or SupervisorShutdown, which has no \p reason.
    bool sendEvent(const QString &member, const QString &reason);
    /// The same from somebody who does not own the platform's name.
    bool spoofEvent(const QString &member, const QString &reason);

private:
    QDBusConnection m_owner;
    QDBusConnection m_stranger;
};

#endif
