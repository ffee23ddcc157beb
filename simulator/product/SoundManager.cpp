#include "SoundManager.h"

#include "Buses.h"
#include "core/Faults.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QTimer>

void SoundManager::updatePresence()
{
    const QString name = "com.orbitalis.ulmo.soundmanager";
    QDBusConnection bus = Buses::connection("session", "soundmanager");
    bus.registerObject("/com/orbitalis/ulmo/soundmanager/soundobj", this,
                       QDBusConnection::ExportScriptableSlots);
    if (m_faults.standing("soundmanager", "absent"))
        bus.unregisterService(name);
    else
        bus.registerService(name);
}

int SoundManager::answer()
{
    const Faults::Behaviour fault = m_faults.next("soundmanager");
    const QDBusMessage reply = fault.name == "refuse"
        ? message().createErrorReply(QDBusError::Failed, "the sound manager refuses")
        : message().createReply(0);
    setDelayedReply(true);
    if (fault.name != "never")
        QTimer::singleShot(fault.number(), this, [bus = connection(), reply] { bus.send(reply); });
    return 0;
}
