#include "NameOwner.h"

#include <QtCore/QStringList>
#include <QtDBus/QDBusMessage>

namespace {
const char BusName[] = "org.freedesktop.DBus";
const char BusPath[] = "/org/freedesktop/DBus";
} // namespace

NameOwner::NameOwner(const QDBusConnection &connection, const QString &name, QObject *parent)
    : QObject(parent)
    , m_connection(connection)
    , m_followed(m_connection.connect(BusName, BusPath, BusName, "NameOwnerChanged",
                                      QStringList(name), QString(), this,
                                      SLOT(ownerChanged(QString, QString, QString))))
{
    // Asked for after the subscription: the answer can be no older than what the signals told.
    QDBusMessage query = QDBusMessage::createMethodCall(BusName, BusPath, BusName, "GetNameOwner");
    query << name;
    m_connection.callWithCallback(query, this, SLOT(ownerFound(QString)));
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
