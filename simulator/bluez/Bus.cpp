#include "Bus.h"

#include "core/Faults.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QRegularExpression>
#include <QTimer>

namespace {
const QString Prefix = QStringLiteral("org.bluez.");
}

QString Call::method() const
{
    return m_message.interface().section('.', -1) + '.' + m_message.member() + '('
        + m_message.signature() + ')';
}

QVariant Call::argument(int index) const
{
    const QVariant value = m_message.arguments().value(index);
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return value.value<QDBusVariant>().variant();
    if (value.userType() == qMetaTypeId<QDBusObjectPath>())
        return value.value<QDBusObjectPath>().path();
    return value;
}

void Call::reply(const QVariantList &values) const
{
    if (m_bus && m_message.isReplyRequired())
        m_bus->connection().send(m_message.createReply(values));
}

void Call::fail(const QString &error, const QString &text) const
{
    static const QRegularExpression wordBegin("(?<=[a-z])(?=[A-Z])");
    const QString name = error.contains('.') ? error : Prefix + "Error." + error;
    const QString usualText = error.section('.', -1).replace(wordBegin, " ");
    if (m_bus && m_message.isReplyRequired())
        m_bus->connection().send(
            m_message.createErrorReply(name, text.isEmpty() ? usualText : text));
}

void Call::failUnknown(bool hasObject) const
{
    const QString error = hasObject ? "UnknownMethod" : "UnknownObject";
    const QString text = "Method \"%1\" with signature \"%2\" on interface \"%3\" doesn't exist";
    fail("org.freedesktop.DBus.Error." + error,
         text.arg(m_message.member(), m_message.signature(), m_message.interface()));
}

Bus::Bus(const QString &address, Faults &faults, const Handler &handler, QObject *parent)
    : QDBusVirtualObject(parent), m_faults(faults), m_handler(handler)
{
    static int count = 0;
    m_name = QString("bluez-%1").arg(++count);
    qDBusRegisterMetaType<QList<QDBusObjectPath>>();
    QDBusConnection::connectToBus(address, m_name)
        .registerVirtualObject("/", this, QDBusConnection::SubPath);
}

Bus::~Bus()
{
    // Questions that are still open must not outlive the connection.
    qDeleteAll(findChildren<QDBusPendingCallWatcher *>(QString(), Qt::FindDirectChildrenOnly));
    // A round trip: the bus has all that was sent before when the answer is in.
    if (QDBusConnectionInterface *bus = connection().interface())
        bus->isServiceRegistered(connection().baseService());
    QDBusConnection::disconnectFromBus(m_name);
}

void Bus::emitSignal(const QString &path, const QString &member, const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(path, Prefix + member.section('.', 0, 0),
                                                     member.section('.', 1));
    signal.setArguments(arguments);
    connection().send(signal);
}

bool Bus::handleMessage(const QDBusMessage &message, const QDBusConnection &)
{
    if (message.interface() == "org.freedesktop.DBus.Introspectable")
        return false;
    const Call call(this, message);
    const auto fault = m_faults.next("bluez:" + call.method().section('(', 0, 0));
    if (!message.interface().startsWith(Prefix))
        call.failUnknown(true);
    else if (fault.name == "error")
        call.fail(fault.value.isEmpty() ? "Failed" : fault.value);
    else if (fault.name == "delay")
        QTimer::singleShot(fault.number(), this, [this, call] { m_handler(call); });
    else if (fault.name != "never")
        m_handler(call);
    return true;
}
