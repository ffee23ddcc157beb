#include "StartWait.h"

#include <QtCore/QTimer>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusServiceWatcher>

#include "BluetoothServiceProxy.h"

StartWait::StartWait(BluetoothServiceProxy *service)
{
    connect(service, SIGNAL(BluetoothOn(bool)), SLOT(bluetoothOn(bool)));
    connect(service, SIGNAL(DisconnectAudioDevice()), SLOT(soundTakenDown()));
    QDBusServiceWatcher *watcher =
        new QDBusServiceWatcher(service->service(), service->connection(),
                                QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, SIGNAL(serviceUnregistered(QString)), SLOT(serviceGone()));
}

StartWait::Result StartWait::wait(int milliseconds)
{
    QTimer::singleShot(milliseconds, this, SLOT(timedOut()));
    return Result(m_loop.exec());
}

void StartWait::bluetoothOn(bool on)
{
    m_takenDown = false;
    if (on)
        m_loop.exit(CameOn);
}

// The service has no signal for a start that failed, but whatever ends one takes down the sound's
// path, and that has a signal. A switch-off that came before the start has it too, followed by
// BluetoothOn with false, which arrived before the start was answered.
void StartWait::soundTakenDown()
{
    m_takenDown = true;
    QTimer::singleShot(0, this, SLOT(decideFailure()));
}

void StartWait::decideFailure()
{
    if (m_takenDown)
        m_loop.exit(Failed);
}

void StartWait::serviceGone()
{
    m_loop.exit(ServiceGone);
}

void StartWait::timedOut()
{
    m_loop.exit(Undecided);
}
