// Follows the owner of a bus name without ever waiting for the bus.
#ifndef NAMEOWNER_H
#define NAMEOWNER_H

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtDBus/QDBusConnection>

class QDBusMessage;

class NameOwner : public QObject
{
    Q_OBJECT

public:
    /** What is subscribed to after this arrives after the owner is known. */
    NameOwner(const QDBusConnection &connection, const QString &name, QObject *parent);

    /** False when the bus takes no subscription. */
    bool isFollowed() const { return m_followed; }

    /** Unique name of the owner; empty while there is none, or none is known yet. */
    QString uniqueName() const { return m_owner; }

    /** Whether the present owner sent the message. */
    bool sent(const QDBusMessage &message) const;

Q_SIGNALS:
    /** The owner came, went or gave way to another. */
    void changed();

private Q_SLOTS:
    void ownerFound(const QString &owner);
    void ownerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);

private:
    /** Kept for the answer that is awaited: Qt 4.8 crashes over it at exit when nobody has it. */
    QDBusConnection m_connection;
    QString m_owner;
    bool m_followed;
};

#endif
