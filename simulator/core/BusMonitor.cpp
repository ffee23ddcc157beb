#include "BusMonitor.h"

#include "Journal.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

const char BusName[] = "org.freedesktop.DBus";
const char MarkInterface[] = "product.Monitor";
const QString ServicesPath = QStringLiteral("/com/orbitalis/ulmo/");
const int TimeoutMs = 5000;
const int NoReplyExpected = 1; // flag of a call

QString text(const QJsonObject &message, const char *key)
{
    return message.value(QLatin1String(key)).toString();
}

QString json(const QJsonValue &value)
{
    return QJsonDocument(QJsonArray {value}).toJson(QJsonDocument::Compact).chopped(1).mid(1);
}

/// \p value, or what it holds, with every text and number in it changed by \p change.
QJsonValue changed(const QJsonValue &value, const std::function<QJsonValue(QJsonValue)> &change)
{
    if (value.isArray()) {
        QJsonArray list;
        for (const QJsonValue &item : value.toArray())
            list.append(changed(item, change));
        return list;
    }
    if (!value.isObject())
        return change(value);
    QJsonObject object = value.toObject();
    // A variant, as busctl gives it.
    if (object.size() == 2 && object.contains("type") && object.contains("data"))
        return changed(object.value("data"), change);
    for (auto field = object.begin(); field != object.end(); ++field)
        field.value() = changed(field.value(), change);
    return object;
}

/// The words that are not empty, with a blank between them.
QString joined(QStringList words)
{
    words.removeAll(QString());
    return words.join(' ');
}

/// "Device.Connect" of org.bluez.Device and Connect.
QString shortMember(const QJsonObject &facts)
{
    const QString interface = text(facts, "interface");
    return interface.isEmpty() ? text(facts, "member")
                               : interface.section('.', -1) + '.' + text(facts, "member");
}

} // namespace

BusMonitor::BusMonitor(const QString &bus, Journal &journal, const ShortNames &shortNames)
    : m_bus(bus), m_journal(journal), m_shortNames(shortNames)
{
    connect(&m_busctl, &QProcess::readyReadStandardOutput, this, &BusMonitor::readLines);
}

BusMonitor::~BusMonitor()
{
    m_busctl.kill();
    m_busctl.waitForFinished();
}

QString BusMonitor::start(const QString &address)
{
    m_address = address;
    QDBusConnection::disconnectFromBus("monitor of " + m_bus);
    // It ends by itself when its bus does.
    m_busctl.waitForFinished(TimeoutMs);
    m_openCalls.clear();
    m_busctl.start("busctl", {"--address=" + address, "--json=short", "monitor"});
    // Nothing may happen on the bus before it listens, which it tells on its standard error.
    m_busctl.setReadChannel(QProcess::StandardError);
    const bool listens = m_busctl.waitForReadyRead(TimeoutMs)
        && m_busctl.readAllStandardError().contains("Monitoring");
    m_busctl.setReadChannel(QProcess::StandardOutput);
    return listens ? QString() : "busctl cannot watch the " + m_bus + " bus";
}

void BusMonitor::settle()
{
    // The bus shows everything in one order, a signal of our own as well.
    const QDBusConnection own = QDBusConnection::connectToBus(m_address, "monitor of " + m_bus);
    m_isSettled = !own.send(QDBusMessage::createSignal("/", MarkInterface, "Mark"));
    while (!m_isSettled && m_busctl.waitForReadyRead(TimeoutMs))
        readLines();
}

void BusMonitor::readLines()
{
    while (m_busctl.canReadLine())
        record(QJsonDocument::fromJson(m_busctl.readLine()).object());
}

void BusMonitor::record(const QJsonObject &message)
{
    const QJsonObject payload = message.value("payload").toObject();
    const auto same = [](const QJsonValue &value) { return value; };
    QJsonObject facts {{"bus", m_bus},
                       {"serial", message.value("cookie")},
                       {"signature", text(payload, "type")},
                       {"arguments", changed(payload.value("data"), same)}};
    for (const char *key : {"sender", "destination", "path", "interface", "member"}) {
        if (message.contains(QLatin1String(key)))
            facts.insert(QLatin1String(key), text(message, key));
    }
    if (text(facts, "interface") == MarkInterface)
        m_isSettled = true;
    else if (text(message, "type") == "method_call")
        recordCall(message, facts);
    else if (text(message, "type") == "signal")
        recordSignal(facts);
    else
        recordAnswer(message, facts);
}

void BusMonitor::recordCall(const QJsonObject &message, const QJsonObject &facts)
{
    const QString destination = text(facts, "destination");
    const QString path = text(facts, "path");
    if (destination == BusName)
        return;
    QStringList marks {">", "<"};
    if (destination == "com.orbitalis.ulmo.bluetoothmanager")
        marks = QStringList {"?", "!"};
    else if (destination == "com.orbitalis.ulmo.soundmanager")
        marks.first() = "@";
    // The product's services have one object each, and are mostly called by their own interface.
    QString call = shortMember(facts);
    if (!path.startsWith(ServicesPath))
        call += ' ' + m_shortNames(path);
    else if (text(facts, "interface").startsWith("com.orbitalis."))
        call = text(facts, "member");
    if (!(message.value("flags").toInt() & NoReplyExpected))
        m_openCalls.insert({text(facts, "sender"), message.value("cookie").toDouble()},
                           {marks.last() + ' ' + call, facts});
    m_journal.record("bus", "call",
                     joined({marks.first(), call, render(facts.value("arguments").toArray())}),
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
    for (const QString name : {"path", "interface", "member"})
        facts.insert(name, call.facts.value(name));
    const QJsonArray arguments = facts.value("arguments").toArray();
    const QString error = text(message, "error_name");
    if (error.isEmpty()) {
        m_journal.record("bus", "reply", joined({call.answer, render(arguments)}), facts);
        return;
    }
    facts.insert("name", error);
    facts.insert("text", arguments.first());
    m_journal.record("bus", "error",
                     joined({call.answer, error.section('.', -1), json(arguments.first())}), facts);
}

void BusMonitor::recordSignal(const QJsonObject &facts)
{
    QJsonArray arguments = facts.value("arguments").toArray();
    const QString interface = text(facts, "interface");
    const QString first = arguments.first().toString();
    QString member = shortMember(facts);
    if (interface == BusName || text(facts, "sender") == BusName || interface.endsWith(".Local")) {
        // Of its bookkeeping only who comes under a name of its own, and who goes.
        if (text(facts, "member") == "NameOwnerChanged" && !first.startsWith(':'))
            m_journal.record(
                "bus", "signal",
                "~ " + first + (arguments.at(2).toString().isEmpty() ? " is gone" : " is there"),
                facts);
        return;
    }
    if (interface == "com.orbitalis.ulmo.bluetoothinterface") {
        m_journal.record("bus", "signal", joined({"@", text(facts, "member"), render(arguments)}),
                         facts);
        return;
    }
    if (text(facts, "member") == "PropertyChanged" && arguments.size() == 2) {
        member = interface.section('.', -1) + '.' + first;
        arguments.removeFirst();
    }
    m_journal.record("bus", "signal",
                     joined({"~", m_shortNames(text(facts, "path")), member, render(arguments)}),
                     facts);
}

QString BusMonitor::render(const QJsonArray &arguments) const
{
    static const QRegularExpression plainWord("^[\\w.:/@%+-]+$",
                                              QRegularExpression::UseUnicodePropertiesOption);
    const auto shorten = [this](const QJsonValue &value) -> QJsonValue {
        const QString word = value.toString();
        return word.startsWith('/') ? QJsonValue(m_shortNames(word)) : value;
    };
    QStringList words;
    for (const QJsonValue &argument : changed(arguments, shorten).toArray()) {
        const QString word = argument.toString();
        words.append(plainWord.match(word).hasMatch() ? word : json(argument));
    }
    return words.join(' ');
}
