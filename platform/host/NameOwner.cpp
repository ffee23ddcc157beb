#include "NameOwner.h"

#include <QtCore/QStringList>
#include <QtDBus/QDBusMessage>

namespace {
const char BusName[] = "org.freedesktop.DBus";
const char BusPath[] = "/org/freedesktop/DBus";
} // namespace

NameOwner::NameOwner(QDBusConnection connection, const QString &name, QObject *parent)
    : QObject(parent)
    , m_followed(connection.connect(QLatin1String(BusName), QLatin1String(BusPath),
                                    QLatin1String(BusName), QLatin1String("NameOwnerChanged"),
                                    QStringList(name), QString(), this,
                                    SLOT(ownerChanged(QString, QString, QString))))
{
    // Asked for after the subscription: the answer can be no older than what the signals told.
    QDBusMessage query =
        QDBusMessage::createMethodCall(QLatin1String(BusName), QLatin1String(BusPath),
                                       QLatin1String(BusName), QLatin1String("GetNameOwner"));
    query << name;
    connection.callWithCallback(query, this, SLOT(ownerFound(QString)));
}

bool NameOwner::sent(const QDBusMessage &message) const
{
    return !m_owner.isEmpty() && message.service() == m_owner;
}

void NameOwner::ownerFound(const QString &owner)
{
    if (owner == m_owner)
        return;
    m_owner = owner;
    Q_EMIT changed();
}

void NameOwner::ownerChanged(const QString &, const QString &, const QString &newOwner)
{
    ownerFound(newOwner);
}
