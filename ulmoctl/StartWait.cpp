#include "StartWait.h"

#include <QtCore/QTimer>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusServiceWatcher>

#include "BluetoothServiceProxy.h"

StartWait::StartWait(BluetoothServiceProxy *service)
{
    connect(service, SIGNAL(BluetoothOn(bool)), SLOT(bluetoothOn(bool)));
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
    if (on)
        m_loop.exit(CameOn);
}

void StartWait::serviceGone()
{
    m_loop.exit(ServiceGone);
}

void StartWait::timedOut()
{
    m_loop.exit(TimedOut);
}
