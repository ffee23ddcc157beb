// Waits for what becomes of a start of Bluetooth.
#ifndef STARTWAIT_H
#define STARTWAIT_H

#include <QtCore/QEventLoop>
#include <QtCore/QObject>

class BluetoothServiceProxy;

class StartWait : public QObject
{
    Q_OBJECT

public:
    enum Result { CameOn, Failed, ServiceGone, Undecided };

    /** Listens from now on, so that a signal sent before wait() counts as well. */
    explicit StartWait(BluetoothServiceProxy *service);

    /** Undecided after so many milliseconds. */
    Result wait(int milliseconds);

private Q_SLOTS:
    void bluetoothOn(bool on);
    void soundTakenDown();
    void decideFailure();
    void serviceGone();
    void timedOut();

private:
    QEventLoop m_loop;
    bool m_takenDown = false;
};

#endif
