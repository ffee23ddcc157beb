// The real ulmoctl against a fake service, and a fake BlueZ, on a bus of its own.
#include <QtTest>

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QJsonArray>
#include <QJsonDocument>

#include <memory>

#include <signal.h>

#include "Names.h"
#include "PrivateBus.h"

namespace {

constexpr int Patience = 30000; // milliseconds, for what takes a fraction of a second

// What stands for a value in a session: a text that begins with "/" is an object path, a list is
// one of these.
QVariant busValue(const QJsonValue &value)
{
    if (value.isArray()) {
        QList<QDBusObjectPath> paths;
        for (const QJsonValue &path : value.toArray())
            paths << QDBusObjectPath(path.toString());
        return QVariant::fromValue(paths);
    }
    if (value.toString().startsWith('/'))
        return QVariant::fromValue(QDBusObjectPath(value.toString()));
    return value.isDouble() ? value.toInt() : value.toVariant();
}

// Stands on the bus where the Bluetooth service and BlueZ do, and keeps what it is asked.
class FakeServices : public QDBusVirtualObject
{
public:
    QList<QDBusMessage> calls;

    ~FakeServices() override { leave(); }

    bool appear(const QString &address)
    {
        m_bus = QDBusConnection::connectToBus(address, "fake services");
        return m_bus.registerVirtualObject("/", this, QDBusConnection::SubPath)
            && m_bus.registerService("org.bluez") && m_bus.registerService(Names::Service);
    }

    /// Is gone like a service that crashes, after what it has sent.
    void leave()
    {
        m_bus.call(QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetId"));
        QDBusConnection::disconnectFromBus(m_bus.name());
        m_bus = QDBusConnection(QString()); // the last reference is what keeps it open
    }

    /// With a JSON array, or with name and text of an error.
    void answer(const QDBusMessage &call, const QString &text)
    {
        QVariantList values;
        for (const QJsonValue &value : QJsonDocument::fromJson(text.toUtf8()).array())
            values << busValue(value);
        m_bus.send(values.isEmpty()
                       ? call.createErrorReply(text.section(' ', 0, 0), text.section(' ', 1))
                       : call.createReply(values));
    }

    void say(const QString &name, const QString &argument)
    {
        QDBusMessage signal = QDBusMessage::createSignal(Names::Object, Names::Interface, name);
        if (argument == "true" || argument == "false")
            signal << (argument == "true");
        else if (!argument.isEmpty())
            signal << argument;
        m_bus.send(signal);
    }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &) override
    {
        calls << message;
        return true;
    }

    QString introspect(const QString &) const override { return QString(); }

private:
    QDBusConnection m_bus = QDBusConnection(QString());
};

} // namespace

class TestUlmoctl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void session_data();
    void session();

private:
    void play(const QString &line);
    void start(const QString &command);
    void takeCall(const QString &expected);
    void read(QProcess::ProcessChannel channel, const QString &expected);
    void end(int status);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<FakeServices> m_services;
    QProcess m_process;
    QDBusMessage m_call;
};

void TestUlmoctl::session_data()
{
    QTest::addColumn<QStringList>("lines");
    QFile file(SESSIONS);
    QVERIFY(file.open(QIODevice::ReadOnly));
    for (const QString &session :
         QString::fromUtf8(file.readAll()).trimmed().split("\n\n").mid(1)) {
        QStringList lines = session.split('\n');
        QTest::newRow(qPrintable(lines.takeFirst().mid(2))) << lines;
    }
}

void TestUlmoctl::session()
{
    QFETCH(QStringList, lines);
    m_bus = std::make_unique<PrivateBus>();
    m_services = std::make_unique<FakeServices>();
    QVERIFY(m_services->appear(m_bus->address()));
    for (const QString &line : lines << "$") {
        play(line);
        if (QTest::currentTestFailed())
            return qWarning("after: %s", qPrintable(line));
    }
}

void TestUlmoctl::play(const QString &line)
{
    const QString rest = line.mid(2);
    switch (line.mid(1, 1) == "-" ? 0 : line.at(0).unicode()) { // "--json" is read
    case '$':
        return start(rest);
    case '>':
        takeCall(rest.section(" = ", 0, 0));
        return rest.contains(" = ") ? m_services->answer(m_call, rest.section(" = ", 1)) : void();
    case '<':
        return m_services->answer(m_call, rest);
    case '~':
        return m_services->say(rest.section(' ', 0, 0), rest.section(' ', 1));
    case '+':
        QVERIFY(m_services->appear(m_bus->address()));
        return;
    case '-':
        return rest == "bus" ? m_bus->stop() : m_services->leave();
    case '^':
        QCOMPARE(kill(pid_t(m_process.processId()), rest == "INT" ? SIGINT : SIGTERM), 0);
        return;
    case '!':
        return read(QProcess::StandardError, rest);
    case '=':
        if (rest.size() > 1)
            read(QProcess::StandardError, "ulmoctl: " + rest.mid(2));
        return end(rest.left(1).toInt());
    default:
        return read(QProcess::StandardOutput, line);
    }
}

void TestUlmoctl::start(const QString &command)
{
    if (!m_process.program().isEmpty()) // the one before
        end(0);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("PATH", QFileInfo(ULMOCTL).path() + ':' + qgetenv("PATH"));
    environment.insert("DBUS_SESSION_BUS_ADDRESS", m_bus->address());
    environment.insert("DBUS_SYSTEM_BUS_ADDRESS", m_bus->address());
    environment.insert("TZ", "TEST-05:30"); // five and a half hours before UTC
    // For a build with sanitizers: a thread of QtDBus may hold a message at the end.
    environment.insert("ASAN_OPTIONS", "detect_leaks=0");
    environment.insert("MANUAL", ULMOCTL_MANUAL);
    environment.insert("BASH_FUNC_offer%%",
                       "() { source " ULMOCTL_COMPLETION "; COMP_WORDS=(ulmoctl \"$@\"); "
                       "COMP_CWORD=$#; _ulmoctl; echo \"${COMPREPLY[*]}\"; }");
    m_process.setProcessEnvironment(environment);
    if (!command.isEmpty())
        m_process.start("bash", {"--norc", "-o", "pipefail", "-c", command});
}

void TestUlmoctl::takeCall(const QString &expected)
{
    QTRY_VERIFY_WITH_TIMEOUT(!m_services->calls.isEmpty(), Patience);
    m_call = m_services->calls.takeFirst();
    QStringList words {m_call.member()};
    if (!m_call.signature().isEmpty())
        words << m_call.signature() << m_call.arguments().first().toString();
    QCOMPARE(words.join(' '), expected);
}

void TestUlmoctl::read(QProcess::ProcessChannel channel, const QString &expected)
{
    m_process.setReadChannel(channel);
    const auto isDecided = [this] {
        return m_process.canReadLine() || m_process.state() == QProcess::NotRunning;
    };
    QVERIFY(QTest::qWaitFor(isDecided, Patience));
    const QString line = QString::fromUtf8(m_process.readLine()).remove('\n');
    QString pattern = QRegularExpression::escape(expected).replace("\\*", ".*");
    pattern.replace("TIME", "\\d{4}-\\d\\d-\\d\\d[ T]\\d\\d:\\d\\d:\\d\\d\\.\\d{3}");
    if (!QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(line).hasMatch())
        QCOMPARE(line, expected);
}

void TestUlmoctl::end(int status)
{
    QTRY_COMPARE_WITH_TIMEOUT(m_process.state(), QProcess::NotRunning, Patience);
    QCOMPARE(m_process.readAllStandardOutput(), QByteArray());
    QCOMPARE(m_process.readAllStandardError(), QByteArray());
    QCOMPARE(m_process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_process.exitCode(), status);
    QVERIFY(m_services->calls.isEmpty());
    m_process.setProgram(QString());
}

QTEST_GUILESS_MAIN(TestUlmoctl)
#include "tst_ulmoctl.moc"
