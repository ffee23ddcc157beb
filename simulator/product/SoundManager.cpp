#include "SoundManager.h"

#include "Buses.h"
#include "core/Faults.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QTimer>

namespace {

const char ServiceName[] = "com.orbitalis.ulmo.soundmanager";
const char ObjectPath[] = "/com/orbitalis/ulmo/soundmanager/soundobj";

QDBusConnection bus()
{
    return Buses::connection("session", "soundmanager");
}

} // namespace

SoundManager::SoundManager(Faults &faults, QObject *parent) : QObject(parent), m_faults(faults) { }

QString SoundManager::start()
{
    if (!bus().registerObject(ObjectPath, this, QDBusConnection::ExportScriptableSlots))
        return "the sound manager: " + bus().lastError().message();
    updatePresence();
    return {};
}

void SoundManager::updatePresence()
{
    if (m_faults.standing("soundmanager", "absent"))
        bus().unregisterService(ServiceName);
    else
        bus().registerService(ServiceName);
}

int SoundManager::PlayBluetooth()
{
    return answer();
}

int SoundManager::StopPlay(const QString &, const QString &)
{
    return answer();
}

int SoundManager::answer()
{
    const Faults::Behaviour fault = m_faults.next("soundmanager");
    const QDBusMessage reply = fault.name == "refuse"
        ? message().createErrorReply(QDBusError::Failed, "the sound manager refuses")
        : message().createReply(0);
    setDelayedReply(true);
    if (fault.name != "never")
        QTimer::singleShot(fault.number(), this, [reply] { bus().send(reply); });
    return 0;
}
