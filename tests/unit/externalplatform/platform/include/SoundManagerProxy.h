#ifndef PRODUCT_SOUNDMANAGERPROXY_H
#define PRODUCT_SOUNDMANAGERPROXY_H

#include <QtDBus/QDBusAbstractInterface>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusPendingReply>

// As Qt's generator makes it.
class SoundManagerProxy : public QDBusAbstractInterface
{
    Q_OBJECT

public:
    SoundManagerProxy(const QString &service, const QString &path,
                      const QDBusConnection &connection, QObject *parent = 0)
        : QDBusAbstractInterface(service, path, "com.example.product.sound", connection, parent)
    {
    }

    QDBusPendingReply<int> PlayBluetooth()
    {
        return asyncCallWithArgumentList("PlayBluetooth", QList<QVariant>());
    }
    QDBusPendingReply<int> StopPlay(const QString &source, const QString &target)
    {
        return asyncCallWithArgumentList("StopPlay", QList<QVariant>() << source << target);
    }
};

#endif
