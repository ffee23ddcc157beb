#include "SoundManagerProxy.h"

#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusPendingCall>
#include <QtDBus/QDBusReply>

namespace {
/** Milliseconds to wait for the bus daemon, which answers at once unless in trouble itself. */
const int BusTimeout = 1000;

bool hasOwner(const QDBusConnection &bus, const QString &service)
{
    QDBusMessage query = QDBusMessage::createMethodCall(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner");
    query << service;
    return QDBusReply<bool>(bus.call(query, QDBus::Block, BusTimeout)).value();
}
} // namespace

struct SoundManagerProxy::Private
{
    const QString service;
    const QString path;
    const QDBusConnection bus;
    const bool valid;

    /** Names no interface, so that any object with such a method answers. */
    QDBusPendingCall call(const char *method, const QList<QVariant> &arguments) const
    {
        QDBusMessage message = QDBusMessage::createMethodCall(service, path, QString(), method);
        message.setArguments(arguments);
        return bus.asyncCall(message);
    }
};

SoundManagerProxy::SoundManagerProxy(const QString &service, const QString &path,
                                     const QDBusConnection &connection, QObject *parent)
    : QObject(parent), d(new Private {service, path, connection, hasOwner(connection, service)})
{
}

SoundManagerProxy::~SoundManagerProxy()
{
    delete d;
}

bool SoundManagerProxy::isValid() const
{
    return d->valid;
}

QDBusPendingReply<int> SoundManagerProxy::PlayBluetooth()
{
    return d->call("PlayBluetooth", QList<QVariant>());
}

QDBusPendingReply<int> SoundManagerProxy::StopPlay(const QString &source, const QString &target)
{
    return d->call("StopPlay", QList<QVariant>() << source << target);
}
