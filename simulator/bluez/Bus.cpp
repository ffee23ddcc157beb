#include "Bus.h"

#include "Schedule.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QTimer>

#include <algorithm>
#include <climits>

namespace {

const QString Introspectable = QStringLiteral("org.freedesktop.DBus.Introspectable");

QVariant toArgument(const Properties &properties)
{
    // Written entry by entry: a QVariantMap would sort them.
    QDBusArgument map;
    map.beginMap(QMetaType::QString, qMetaTypeId<QDBusVariant>());
    for (const auto &property : properties) {
        map.beginMapEntry();
        map << property.first << QDBusVariant(property.second);
        map.endMapEntry();
    }
    map.endMap();
    return QVariant::fromValue(map);
}

QString describe(const QString &kind, const QString &name, const QStringList &in,
                 const QStringList &out, const QString &direction)
{
    QString text = "\t\t<" + kind + " name=\"" + name + "\">\n";
    const QString attribute = direction.isEmpty() ? QString() : " direction=\"%1\"";
    for (const QString &type : in)
        text += "\t\t\t<arg type=\"" + type + '"'
            + (attribute.isEmpty() ? QString() : attribute.arg(direction)) + "/>\n";
    for (const QString &type : out)
        text += "\t\t\t<arg type=\"" + type + '"' + attribute.arg("out") + "/>\n";
    return text + "\t\t</" + kind + ">\n";
}

} // namespace

Call::Call(Bus *bus, const QDBusMessage &message) : m_bus(bus), m_message(message) { }

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
    if (m_message.isReplyRequired())
        m_bus->send(m_message.createReply(values));
}

void Call::reply(const Properties &properties) const
{
    reply(QVariantList {toArgument(properties)});
}

void Call::fail(const Error &error) const
{
    if (m_message.isReplyRequired())
        m_bus->send(m_message.createErrorReply(error.name, error.text));
}

Bus::Bus(const QDBusConnection &connection, Schedule *schedule, QObject *parent)
    : QDBusVirtualObject(parent), m_connection(connection), m_schedule(schedule)
{
    qDBusRegisterMetaType<QList<QDBusObjectPath>>();
    m_connection.registerVirtualObject("/", this, QDBusConnection::SubPath);
}

bool Bus::claim(const QString &name)
{
    return m_connection.interface()->registerService(name,
                                                     QDBusConnectionInterface::DontQueueService,
                                                     QDBusConnectionInterface::DontAllowReplacement)
        == QDBusConnectionInterface::ServiceRegistered;
}

void Bus::publish(const QString &path, const Interface &interface)
{
    m_objects[path].append(interface);
}

void Bus::withdraw(const QString &path)
{
    m_objects.remove(path);
}

void Bus::emitSignal(const QString &path, const QString &interface, const QString &member,
                     const QVariantList &arguments)
{
    QDBusMessage message = QDBusMessage::createSignal(path, interface, member);
    message.setArguments(arguments);
    send(message);
}

void Bus::emitPropertyChanged(const QString &path, const QString &interface,
                              const QString &property, const QVariant &value)
{
    emitSignal(path, interface, "PropertyChanged",
               {property, QVariant::fromValue(QDBusVariant(value))});
}

void Bus::send(const QDBusMessage &message)
{
    if (!m_closed)
        m_connection.send(message);
}

void Bus::close()
{
    // A round trip to the bus: everything sent before is out when the answer is in.
    m_connection.interface()->isServiceRegistered(m_connection.baseService());
    m_closed = true;
}

void Bus::setFaults(const QJsonArray &faults)
{
    const QVector<Fault> before = std::move(m_faults);
    m_faults.clear();
    for (const QJsonValue &value : faults) {
        const QJsonObject object = value.toObject();
        const auto known = std::find_if(before.begin(), before.end(),
                                        [&](const Fault &fault) { return fault.source == object; });
        m_faults.append(known != before.end() ? *known : readFault(object));
    }
}

Bus::Fault Bus::readFault(const QJsonObject &object)
{
    const QString error = object.value("error").toString();
    Fault fault;
    fault.source = object;
    fault.method = object.value("method").toString();
    if (fault.method.startsWith("org.bluez."))
        fault.method.remove(0, int(qstrlen("org.bluez.")));
    fault.error = Errors::named(error.isEmpty() ? "Failed" : error);
    fault.delay = object.value("delay").toVariant().toInt();
    fault.never = object.value("never").toVariant().toBool();
    fault.times = object.contains("times") ? object.value("times").toVariant().toInt() : INT_MAX;
    fault.after = object.value("after").toVariant().toInt();
    return fault;
}

QString Bus::introspect(const QString &path) const
{
    QString text =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\""
        "\n\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
        "<node name=\""
        + path + "\">\n";
    const auto object = m_objects.constFind(path);
    if (object != m_objects.constEnd()) {
        text += "\t<interface name=\"" + Introspectable + "\">\n"
            + describe("method", "Introspect", {}, {"s"}, "in") + "\t</interface>\n";
        for (const Interface &interface : *object) {
            text += "\t<interface name=\"" + interface.name + "\">\n";
            for (const Method &method : interface.methods)
                text += describe("method", method.name, method.in, method.out, "in");
            for (const SignalMember &member : interface.signalMembers)
                text += describe("signal", member.name, member.arguments, {}, QString());
            text += "\t</interface>\n";
        }
    }
    const QString prefix = path == "/" ? path : path + '/';
    QString previous;
    for (auto other = m_objects.lowerBound(prefix); other != m_objects.constEnd(); ++other) {
        if (!other.key().startsWith(prefix))
            break;
        const QString child = other.key().mid(prefix.size()).section('/', 0, 0);
        if (!child.isEmpty() && child != previous)
            text += "\t<node name=\"" + child + "\"/>\n";
        previous = child;
    }
    return text + "</node>\n";
}

bool Bus::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    Q_UNUSED(connection)
    if (m_closed || message.type() != QDBusMessage::MethodCallMessage)
        return true;
    m_schedule->catchUp();
    Fault *fault = faultFor(message);
    if (!fault) {
        dispatch(message);
    } else if (fault->delay > 0) {
        QTimer::singleShot(fault->delay, this, [this, message] {
            m_schedule->catchUp();
            dispatch(message);
        });
    } else if (!fault->never) {
        Call(this, message).fail(fault->error);
    }
    return true;
}

void Bus::dispatch(const QDBusMessage &message)
{
    if (message.interface() == Introspectable && message.member() == "Introspect"
        && message.signature().isEmpty() && hasNode(message.path())) {
        Call(this, message).reply(QVariantList {introspect(message.path())});
        return;
    }
    const Method *method = find(message);
    if (!method) {
        refuse(message);
        return;
    }
    // A copy: the call may take its own object from the bus.
    const auto handler = method->handler;
    if (handler)
        handler(Call(this, message));
    else
        Call(this, message).fail(Errors::notAvailable());
}

bool Bus::hasNode(const QString &path) const
{
    const QString prefix = path == "/" ? path : path + '/';
    const auto below = m_objects.lowerBound(prefix);
    return m_objects.contains(path)
        || (below != m_objects.constEnd() && below.key().startsWith(prefix));
}

Bus::Fault *Bus::faultFor(const QDBusMessage &message)
{
    const QString method = message.interface().section('.', -1) + '.' + message.member();
    for (Fault &fault : m_faults) {
        if (fault.method != method || fault.times <= 0)
            continue;
        if (fault.after > 0) {
            fault.after--;
            continue;
        }
        fault.times--;
        return &fault;
    }
    return nullptr;
}

const Method *Bus::find(const QDBusMessage &message) const
{
    const auto object = m_objects.constFind(message.path());
    if (object == m_objects.constEnd())
        return nullptr;
    for (const Interface &interface : *object) {
        if (interface.name != message.interface())
            continue;
        for (const Method &method : interface.methods) {
            if (method.name == message.member() && method.in.join("") == message.signature())
                return &method;
        }
    }
    return nullptr;
}

void Bus::refuse(const QDBusMessage &message)
{
    const bool known = m_objects.contains(message.path());
    const QString text =
        QStringLiteral("Method \"%1\" with signature \"%2\" on interface \"%3\" doesn't exist\n")
            .arg(message.member(), message.signature(), message.interface());
    Call(this, message)
        .fail({known ? "org.freedesktop.DBus.Error.UnknownMethod"
                     : "org.freedesktop.DBus.Error.UnknownObject",
               text});
}
