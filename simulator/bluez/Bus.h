#ifndef BUS_H
#define BUS_H

#include "Error.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>
#include <QPair>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <functional>

class Bus;
class Schedule;

/// An a{sv} with its entries in the order the daemon gives them.
using Properties = QVector<QPair<QString, QVariant>>;

/// One method call; copy it to answer later. Answer each call at most once.
class Call
{
public:
    Call(Bus *bus, const QDBusMessage &message);

    QString sender() const { return m_message.service(); }
    /// The argument at \p index; a variant is unwrapped, an object path is its text.
    QVariant argument(int index) const;

    void reply(const QVariantList &values = QVariantList()) const;
    void reply(const Properties &properties) const;
    void fail(const Error &error) const;

private:
    Bus *m_bus;
    QDBusMessage m_message;
};

/// A method of an interface. Signatures are lists of single complete types.
struct Method
{
    QString name;
    QStringList in;
    QStringList out;
    std::function<void(const Call &)> handler;
};

/// A signal of an interface, for its introspection.
struct SignalMember
{
    QString name;
    QStringList arguments;
};

/// One interface of one object.
struct Interface
{
    QString name;
    QVector<Method> methods;
    QVector<SignalMember> signalMembers;
};

/**
 * The daemon's side of the system bus: its object tree and everything it sends.
 *
 * The tree answers as the daemon's own D-Bus library does: Introspectable on every node,
 * no org.freedesktop.DBus.Properties, UnknownObject and UnknownMethod for the rest. Messages leave
 * in the order of the calls of these functions.
 */
class Bus : public QDBusVirtualObject
{
    Q_OBJECT

public:
    Bus(const QDBusConnection &connection, Schedule *schedule, QObject *parent = nullptr);

    /// Claims \p name without queueing for it; false when it has an owner already.
    bool claim(const QString &name);

    void publish(const QString &path, const Interface &interface);
    void withdraw(const QString &path);

    void emitSignal(const QString &path, const QString &interface, const QString &member,
                    const QVariantList &arguments = QVariantList());
    /// The signal PropertyChanged, which every BlueZ 4 interface with properties has.
    void emitPropertyChanged(const QString &path, const QString &interface, const QString &property,
                             const QVariant &value);
    void send(const QDBusMessage &message);
    QDBusConnection connection() const { return m_connection; }

    /// Sends what is still under way; then no call is answered and nothing is sent any more.
    void close();

    /**
     * Has single methods fail. Each fault is an object with
     *   method   "Interface.Member", with or without "org.bluez." in front
     *   error    name of the error reply (see Errors::named()); true or "" for Failed
     *   delay    milliseconds (real time) until the call is handled
     *   never    true: the call is never handled nor answered
     *   times    how many calls it hits; all when missing
     *   after    how many calls it lets pass first
     * A fault that was in force before goes on counting.
     */
    void setFaults(const QJsonArray &faults);

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

private:
    struct Fault
    {
        QJsonObject source;
        QString method;
        Error error;
        int delay;
        bool never;
        int times;
        int after;
    };

    static Fault readFault(const QJsonObject &object);
    void dispatch(const QDBusMessage &message);
    bool hasNode(const QString &path) const;
    Fault *faultFor(const QDBusMessage &message);
    const Method *find(const QDBusMessage &message) const;
    void refuse(const QDBusMessage &message);

    QDBusConnection m_connection;
    Schedule *m_schedule;
    QMap<QString, QVector<Interface>> m_objects;
    QVector<Fault> m_faults;
    bool m_closed = false;
};

#endif
