// The command "watch": tells each signal of the service as it comes.
#ifndef WATCH_H
#define WATCH_H

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtDBus/QDBusConnection>

#include "JsonObject.h"

class Watch : public QObject
{
    Q_OBJECT

public:
    Watch(const QDBusConnection &bus, bool json);

    /**
     * Tells whether the service runs, and everything after that, one line each. Returns the exit
     * status: at SIGINT or SIGTERM, when the bus is gone, or when nothing can be written.
     */
    int run();

private Q_SLOTS:
    void begin();
    void bluetoothOn(bool on);
    void pinChanged(const QString &pin);
    void audioDeviceConnected();
    void audioDeviceDisconnected();
    void connectedDeviceSilent();
    void ownerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void busLost();
    void interrupted();

private:
    void setOwner(const QString &owner);
    void tellRunning();
    void tell(const char *event, const QString &text, const JsonObject &details);

    QDBusConnection m_bus;
    const bool m_json;
    QString m_owner; // unique name of the service on the bus; empty while it does not run
};

#endif
