#ifndef BUS_H
#define BUS_H

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QPointer>

#include <functional>

class Bus;
class Faults;

/// A method call from the bus, which is answered once, now or later.
class Call
{
public:
    Call(Bus *bus, const QDBusMessage &message) : m_bus(bus), m_message(message) { }

    QString path() const { return m_message.path(); }
    QString sender() const { return m_message.service(); }
    /// Interface, member and signature, as "Device.SetProperty(sv)".
    QString method() const;
    /// Variants as what they hold.
    QVariant argument(int index) const;

    void reply(const QVariantList &values = {}) const;
    /// \p error is one of BlueZ's, "NotConnected", or a whole name; its words are the usual text.
    void fail(const QString &error, const QString &text = QString()) const;
    /// There is no such method, or not even the object.
    void failUnknown(bool hasObject) const;

private:
    QPointer<Bus> m_bus;
    QDBusMessage m_message;
};

/// A program's own connection to the system bus, which goes with this object.
class Bus : public QDBusVirtualObject
{
public:
    using Handler = std::function<void(const Call &)>;

    /// \p handler gets the calls to any object of BlueZ's that no fault keeps from it.
    Bus(const QString &address, Faults &faults, const Handler &handler, QObject *parent);
    ~Bus() override;

    QDBusConnection connection() const { return QDBusConnection(m_name); }
    /// \p member is Interface.Member.
    void emitSignal(const QString &path, const QString &member, const QVariantList &arguments);

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;
    QString introspect(const QString &) const override { return QString(); }

private:
    QString m_name;
    Faults &m_faults;
    Handler m_handler;
};

#endif
