#include "Bus.h"

#include "core/Faults.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QHash>
#include <QTimer>

namespace {

const QString Prefix = QStringLiteral("org.bluez.");
const QHash<QString, QString> UsualTexts {{"InvalidArguments", "Invalid arguments in method call"},
                                          {"InProgress", "Operation already in progress"},
                                          {"AlreadyExists", "Already Exists"},
                                          {"NotConnected", "Not Connected"},
                                          {"AlreadyConnected", "Already Connected"},
                                          {"DoesNotExist", "Does Not Exist"},
                                          {"NoSuchAdapter", "No such adapter"},
                                          {"AgentNotAvailable", "Agent Not Available"},
                                          {"NotReady", "Resource Not Ready"},
                                          {"NotAuthorized", "Operation Not Authorized"},
                                          {"NotSupported", "Operation is not supported"},
                                          {"NotAvailable", "Operation currently not available"},
                                          {"Failed", "Operation failed"}};

} // namespace

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
        m_bus->send(m_message.createReply(values));
}

void Call::fail(const QString &error, const QString &text) const
{
    const QString last = error.section('.', -1);
    const QString name = error.contains('.') ? error : Prefix + "Error." + error;
    if (m_bus && m_message.isReplyRequired())
        m_bus->send(
            m_message.createErrorReply(name, text.isEmpty() ? UsualTexts.value(last, last) : text));
}

void Call::failUnknown(bool hasObject) const
{
    fail(hasObject ? "org.freedesktop.DBus.Error.UnknownMethod"
                   : "org.freedesktop.DBus.Error.UnknownObject",
         QString("Method \"%1\" with signature \"%2\" on interface \"%3\" doesn't exist\n")
             .arg(m_message.member(), m_message.signature(), m_message.interface()));
}

Bus::Bus(const QString &address, Faults &faults, const Handler &handler, QObject *parent)
    : QDBusVirtualObject(parent), m_faults(faults), m_handler(handler)
{
    static int count = 0;
    m_name = QString("bluez-%1").arg(++count);
    qDBusRegisterMetaType<QList<QDBusObjectPath>>();
    QDBusConnection bus = QDBusConnection::connectToBus(address, m_name);
    bus.registerVirtualObject("/", this, QDBusConnection::SubPath);
    bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                "Disconnected", this, SIGNAL(lost()));
}

Bus::~Bus()
{
    QDBusConnection::disconnectFromBus(m_name);
}

bool Bus::claim(const QString &name)
{
    QDBusConnectionInterface *bus = connection().interface();
    return bus
        && bus->registerService(name, QDBusConnectionInterface::DontQueueService)
        == QDBusConnectionInterface::ServiceRegistered;
}

void Bus::send(const QDBusMessage &message)
{
    connection().send(message);
}

void Bus::emitSignal(const QString &path, const QString &member, const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(path, Prefix + member.section('.', 0, -2),
                                                     member.section('.', -1));
    signal.setArguments(arguments);
    send(signal);
}

void Bus::emitChanged(const QString &path, const QString &interface, const QString &property,
                      const QVariant &value)
{
    emitSignal(path, interface + ".PropertyChanged",
               {property, QVariant::fromValue(QDBusVariant(value))});
}

void Bus::flush()
{
    if (QDBusConnectionInterface *bus = connection().interface())
        bus->isServiceRegistered(connection().baseService());
}

bool Bus::handleMessage(const QDBusMessage &message, const QDBusConnection &)
{
    if (message.type() != QDBusMessage::MethodCallMessage)
        return true;
    if (message.interface() == "org.freedesktop.DBus.Introspectable")
        return false;
    const Call call(this, message);
    if (!message.interface().startsWith(Prefix)) {
        call.failUnknown(true);
        return true;
    }
    const auto fault = m_faults.next("bluez:" + call.method().section('(', 0, 0));
    if (fault.name == "error")
        call.fail(fault.value.isEmpty() ? "Failed" : fault.value);
    else if (fault.name == "delay")
        QTimer::singleShot(fault.number(), this, [this, call] { m_handler(call); });
    else if (fault.name != "never")
        m_handler(call);
    return true;
}

QString Bus::introspect(const QString &) const
{
    return QString();
}
