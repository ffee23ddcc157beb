// Client of the product's sound manager on D-Bus.
#ifndef SOUNDMANAGERPROXY_H
#define SOUNDMANAGERPROXY_H

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusPendingReply>

class SoundManagerProxy : public QObject
{
    Q_OBJECT

public:
    SoundManagerProxy(const QString &service, const QString &path,
                      const QDBusConnection &connection, QObject *parent = nullptr);
    ~SoundManagerProxy();

    /** Whether somebody owned the service name when this proxy was made. */
    bool isValid() const;

    // The calls return at once; their replies may outlive the proxy.

    /** Makes Bluetooth the input that the product plays. */
    QDBusPendingReply<int> PlayBluetooth();
    /** Stops playing a source on a target; an empty target means all of them. */
    QDBusPendingReply<int> StopPlay(const QString &source, const QString &target);

private:
    struct Private;
    Private *const d;
};

#endif
