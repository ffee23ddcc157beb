#include "SoundManager.h"

#include "BusConnection.h"
#include "Faults.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QTimer>

namespace {
const char ServiceName[] = "com.orbitalis.ulmo.soundmanager";
const char ObjectPath[] = "/com/orbitalis/ulmo/soundmanager/soundobj";
} // namespace

SoundManager::SoundManager(QObject *parent) : QObject(parent), m_connection("soundmanager") { }

bool SoundManager::start()
{
    m_connection = connectedTo("session", "soundmanager");
    return m_connection.registerObject(ObjectPath, this, QDBusConnection::ExportScriptableSlots)
        && (m_fault == "absent" || m_connection.registerService(ServiceName));
}

bool SoundManager::setFault(const QString &fault)
{
    const QString behaviour = fault.section('=', 0, 0);
    int delay = 0;
    if (Faults::number(fault, "delay", &delay) || Faults::number(fault, "refuse", &delay))
        m_fault = behaviour;
    else if (QStringList {"", "absent", "refuse", "never"}.contains(fault))
        m_fault = fault;
    else
        return false;
    m_delayMs = delay;
    if (m_fault == "absent")
        m_connection.unregisterService(ServiceName);
    else
        m_connection.registerService(ServiceName);
    return true;
}

int SoundManager::PlayBluetooth()
{
    return answer();
}

int SoundManager::StopPlay(const QString &source, const QString &target)
{
    Q_UNUSED(source)
    Q_UNUSED(target)
    return answer();
}

int SoundManager::answer()
{
    const QDBusMessage reply = m_fault == "refuse"
        ? message().createErrorReply(QDBusError::Failed, "the sound manager refuses")
        : message().createReply(0);
    setDelayedReply(true);
    if (m_fault != "never")
        QTimer::singleShot(m_delayMs, this, [this, reply] { m_connection.send(reply); });
    return 0;
}
