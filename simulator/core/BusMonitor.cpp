#include "BusMonitor.h"

#include "Journal.h"

#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

const char BusName[] = "org.freedesktop.DBus";
const char MarkInterface[] = "product.Monitor";
const char ServiceName[] = "com.orbitalis.ulmo.bluetoothmanager";
const char ServiceInterface[] = "com.orbitalis.ulmo.bluetoothinterface";
const char SoundManagerName[] = "com.orbitalis.ulmo.soundmanager";
const int TimeoutMs = 5000;
const int NoReplyExpected = 1; // flag of a call

QString text(const QJsonObject &message, const char *key)
{
    return message.value(QLatin1String(key)).toString();
}

/// Values as busctl gives them, with variants as what they hold.
QJsonValue plain(const QJsonValue &value)
{
    if (value.isArray()) {
        QJsonArray list;
        for (const QJsonValue &item : value.toArray())
            list.append(plain(item));
        return list;
    }
    if (!value.isObject())
        return value;
    QJsonObject object = value.toObject();
    if (object.size() == 2 && object.contains("type") && object.contains("data"))
        return plain(object.value("data"));
    for (auto field = object.begin(); field != object.end(); ++field)
        field.value() = plain(field.value());
    return object;
}

/// "Device.Connect" of org.bluez.Device and Connect.
QString shortMember(const QString &interface, const QString &member)
{
    return interface.isEmpty() ? member : interface.section('.', -1) + '.' + member;
}

QString json(const QJsonValue &value)
{
    return QJsonDocument(QJsonArray {value}).toJson(QJsonDocument::Compact).chopped(1).mid(1);
}

/// The words that are not empty, with a blank between them.
QString joined(QStringList words)
{
    words.removeAll(QString());
    return words.join(' ');
}

} // namespace

BusMonitor::BusMonitor(const QString &bus, Journal &journal, const ShortNames &shortNames,
                       QObject *parent)
    : QObject(parent), m_bus(bus), m_journal(journal), m_shortNames(shortNames), m_own(QString())
{
    m_busctl.setReadChannel(QProcess::StandardOutput);
    connect(&m_busctl, &QProcess::readyReadStandardOutput, this, &BusMonitor::readLines);
}

BusMonitor::~BusMonitor()
{
    m_busctl.kill();
    m_busctl.waitForFinished();
}

QString BusMonitor::start(const QString &address)
{
    // It ends by itself when its bus does.
    m_busctl.waitForFinished(TimeoutMs);
    readLines();
    m_openCalls.clear();
    m_busctl.start("busctl", {"--address=" + address, "--json=short", "monitor"});
    // Nothing may happen on the bus before it listens, which it tells on its standard error.
    while (!m_busctl.readAllStandardError().contains("Monitoring")) {
        m_busctl.setReadChannel(QProcess::StandardError);
        if (!m_busctl.waitForReadyRead(TimeoutMs))
            return "busctl cannot watch the " + m_bus + " bus";
    }
    m_busctl.setReadChannel(QProcess::StandardOutput);
    const QString name = "monitor of " + m_bus;
    QDBusConnection::disconnectFromBus(name);
    m_own = QDBusConnection::connectToBus(address, name);
    return {};
}

void BusMonitor::settle()
{
    // The bus shows everything in one order, a signal of our own as well.
    if (!m_own.send(QDBusMessage::createSignal("/", MarkInterface, "Mark")))
        return;
    ++m_marksSent;
    while (m_marksSeen < m_marksSent && m_busctl.waitForReadyRead(TimeoutMs))
        readLines();
}

void BusMonitor::readLines()
{
    while (m_busctl.canReadLine())
        record(QJsonDocument::fromJson(m_busctl.readLine()).object());
}

void BusMonitor::record(const QJsonObject &message)
{
    const QString type = text(message, "type");
    if (text(message, "interface") == MarkInterface) {
        ++m_marksSeen;
        return;
    }
    const QJsonObject payload = message.value("payload").toObject();
    QJsonObject facts {{"bus", m_bus},
                       {"sender", text(message, "sender")},
                       {"serial", message.value("cookie")},
                       {"signature", text(payload, "type")},
                       {"arguments", plain(payload.value("data"))}};
    for (const char *key : {"destination", "path", "interface", "member"}) {
        if (message.contains(QLatin1String(key)))
            facts.insert(QLatin1String(key), text(message, key));
    }
    if (type == "method_call")
        recordCall(message, facts);
    else if (type == "signal")
        recordSignal(facts);
    else
        recordAnswer(message, facts);
}

void BusMonitor::recordCall(const QJsonObject &message, const QJsonObject &facts)
{
    const QString destination = text(facts, "destination");
    if (destination == BusName)
        return;
    Call call {text(facts, "path"), text(facts, "interface"), text(facts, "member"), '<'};
    QString mark = ">";
    if (destination == ServiceName) {
        call.answerMark = '!';
        mark = "?";
    } else if (destination == SoundManagerName) {
        mark = "@";
    }
    if (!(message.value("flags").toInt() & NoReplyExpected))
        m_openCalls.insert({text(facts, "sender"), message.value("cookie").toDouble()}, call);
    m_journal.record("bus", "call",
                     joined({mark, nameOf(call), render(facts.value("arguments").toArray())}),
                     facts);
}

void BusMonitor::recordAnswer(const QJsonObject &message, QJsonObject facts)
{
    const QJsonValue serial = message.value("reply_cookie");
    const QPair<QString, double> key(text(facts, "destination"), serial.toDouble());
    // What nobody has seen asked was asked of the bus itself.
    if (!m_openCalls.contains(key))
        return;
    const Call call = m_openCalls.take(key);
    facts.insert("replySerial", serial);
    facts.insert("path", call.path);
    facts.insert("interface", call.interface);
    facts.insert("member", call.member);
    QString result = render(facts.value("arguments").toArray());
    const QString error = text(message, "error_name");
    if (!error.isEmpty()) {
        const QString why = facts.value("arguments").toArray().first().toString();
        facts.insert("name", error);
        facts.insert("text", why);
        result = error.section('.', -1) + ' ' + json(why);
    }
    m_journal.record("bus", error.isEmpty() ? "reply" : "error",
                     joined({QString(call.answerMark), nameOf(call), result}), facts);
}

void BusMonitor::recordSignal(const QJsonObject &facts)
{
    const QString interface = text(facts, "interface");
    QString member = text(facts, "member");
    QJsonArray arguments = facts.value("arguments").toArray();
    const QString name = arguments.first().toString();
    QString line;
    if (text(facts, "sender") == BusName || interface == "org.freedesktop.DBus.Local") {
        // Of its bookkeeping only who comes under a name of its own, and who goes.
        if (member != "NameOwnerChanged" || name.startsWith(':'))
            return;
        line = "~ " + name + (arguments.at(2).toString().isEmpty() ? " is gone" : " is there");
    } else if (interface == ServiceInterface) {
        line = joined({"@", member, render(arguments)});
    } else {
        if (member == "PropertyChanged" && arguments.size() == 2) {
            member = name;
            arguments.removeFirst();
        }
        line = joined({"~", m_shortNames(text(facts, "path")), shortMember(interface, member),
                       render(arguments)});
    }
    m_journal.record("bus", "signal", line, facts);
}

/// What was called, and of which object where that is not clear.
QString BusMonitor::nameOf(const Call &call) const
{
    // The product's services have one object each, and are mostly called by their own interface.
    const bool isProducts = call.path.startsWith("/com/orbitalis/");
    if (isProducts && (call.interface.isEmpty() || call.interface.startsWith("com.orbitalis.")))
        return call.member;
    const QString name = shortMember(call.interface, call.member);
    return isProducts ? name : name + ' ' + m_shortNames(call.path);
}

QString BusMonitor::render(const QJsonArray &arguments) const
{
    static const QRegularExpression plainWord("^[\\w.:/@%+-]+$",
                                              QRegularExpression::UseUnicodePropertiesOption);
    QStringList words;
    for (const QJsonValue &argument : arguments) {
        const QString word = withShortNames(argument).toString();
        words.append(plainWord.match(word).hasMatch() ? word : json(withShortNames(argument)));
    }
    return words.join(' ');
}

QJsonValue BusMonitor::withShortNames(const QJsonValue &value) const
{
    if (value.isString() && value.toString().startsWith('/'))
        return m_shortNames(value.toString());
    if (value.isArray()) {
        QJsonArray list;
        for (const QJsonValue &item : value.toArray())
            list.append(withShortNames(item));
        return list;
    }
    QJsonObject object = value.toObject();
    for (auto field = object.begin(); field != object.end(); ++field)
        field.value() = withShortNames(field.value());
    return value.isObject() ? object : value;
}
