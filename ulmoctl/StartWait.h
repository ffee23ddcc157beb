// Waits until the service says that Bluetooth is on.
#ifndef STARTWAIT_H
#define STARTWAIT_H

#include <QtCore/QEventLoop>
#include <QtCore/QObject>

class BluetoothServiceProxy;

class StartWait : public QObject
{
    Q_OBJECT

public:
    enum Result { CameOn, ServiceGone, TimedOut };

    /** Listens from now on, so that a signal sent before wait() counts as well. */
    explicit StartWait(BluetoothServiceProxy *service);

    /** The service tells nobody of a start that has failed: that is a time-out too. */
    Result wait(int milliseconds);

private Q_SLOTS:
    void bluetoothOn(bool on);
    void serviceGone();
    void timedOut();

private:
    QEventLoop m_loop;
};

#endif
