// The real ulmoctl against a fake service on a bus of its own.
#include <QtTest>

#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QJsonArray>
#include <QJsonDocument>

#include <memory>

#include <signal.h>

#include "Names.h"
#include "PrivateBus.h"

namespace {

constexpr int Patience = 30000; // milliseconds, for what takes a fraction of a second

// Stands on the bus where the Bluetooth service does, and keeps what it is asked.
class FakeService : public QDBusVirtualObject
{
public:
    QList<QDBusMessage> calls;

    ~FakeService() override { leave(); }

    bool appear(const QString &address)
    {
        m_bus = QDBusConnection::connectToBus(address, "fake service");
        return m_bus.registerVirtualObject(Names::Object, this)
            && m_bus.registerService(Names::Service);
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
            values << (value.isDouble() ? value.toInt() : value.toVariant());
        m_bus.send(values.isEmpty()
                       ? call.createErrorReply(text.section(' ', 0, 0), text.section(' ', 1))
                       : call.createReply(values));
    }

    void say(const QString &name, const QString &argument)
    {
        QDBusMessage signal = QDBusMessage::createSignal(
            Names::Object, "com.orbitalis.ulmo.bluetoothinterface", name);
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

QString readFile(const char *path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// What bash offers for the last of the words.
QStringList complete(const QStringList &words)
{
    const QString script = "source \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _ulmoctl; "
                           "printf '%s\\n' \"${COMPREPLY[@]}\"; complete -p ulmoctl";
    QProcess bash;
    bash.start("bash", QStringList {"--norc", "-c", script, ULMOCTL_COMPLETION} + words);
    if (!bash.waitForFinished(Patience) || bash.exitCode() != 0)
        return {"(failed) " + bash.readAllStandardError()};
    QStringList lines = QString::fromUtf8(bash.readAllStandardOutput()).split('\n');
    lines.removeAll(QString());
    if (lines.isEmpty() || lines.takeLast() != "complete -F _ulmoctl ulmoctl")
        return {"(not registered)"};
    return lines;
}

} // namespace

class TestUlmoctl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void session_data();
    void session();
    void help();
    void completion_data();
    void completion();

private:
    void play(const QString &line);
    void start(QString arguments);
    void read(QProcess::ProcessChannel channel, const QString &expected);
    void end(int status);

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<FakeService> m_service;
    std::unique_ptr<QProcess> m_process;
    QDBusMessage m_call;
};

void TestUlmoctl::session_data()
{
    QTest::addColumn<QStringList>("lines");
    for (const QString &session : readFile(SESSIONS).split("\n\n", Qt::SkipEmptyParts)) {
        const QStringList lines = session.trimmed().split('\n');
        const QStringList commands = lines.filter(QRegularExpression("^\\$ "));
        if (!commands.isEmpty())
            QTest::newRow(qPrintable(commands.first().mid(2))) << lines;
    }
}

void TestUlmoctl::session()
{
    QFETCH(QStringList, lines);
    m_bus = std::make_unique<PrivateBus>();
    m_service = std::make_unique<FakeService>();
    QVERIFY(m_service->appear(m_bus->address()));
    QVERIFY(lines.last().startsWith('='));
    for (const QString &line : qAsConst(lines)) {
        play(line);
        if (QTest::currentTestFailed()) {
            qWarning("after: %s", qPrintable(line));
            return;
        }
    }
}

void TestUlmoctl::play(const QString &line)
{
    const QString rest = line.mid(2);
    switch (line.at(0).unicode()) {
    case '$':
        return start(rest.section(" # ", 0, 0));
    case '>': {
        QTRY_VERIFY_WITH_TIMEOUT(!m_service->calls.isEmpty(), Patience);
        m_call = m_service->calls.takeFirst();
        QStringList words {m_call.member()};
        if (!m_call.signature().isEmpty())
            words << m_call.signature() << m_call.arguments().first().toString();
        QCOMPARE(words.join(' '), rest);
        return;
    }
    case '<':
        return m_service->answer(m_call, rest);
    case '~':
        return m_service->say(rest.section(' ', 0, 0), rest.section(' ', 1));
    case '+':
        QVERIFY(m_service->appear(m_bus->address()));
        return;
    case '-':
        return rest == "bus" ? m_bus->stop() : m_service->leave();
    case '^':
        QCOMPARE(kill(pid_t(m_process->processId()), rest == "INT" ? SIGINT : SIGTERM), 0);
        return;
    case '!':
        return read(QProcess::StandardError, rest);
    case '=':
        return end(rest.toInt());
    default:
        return read(QProcess::StandardOutput, line);
    }
}

void TestUlmoctl::start(QString arguments)
{
    m_process = std::make_unique<QProcess>();
    QProcessEnvironment environment;
    environment.insert("DBUS_SESSION_BUS_ADDRESS", m_bus->address());
    environment.insert("TZ", "TEST-05:30"); // five and a half hours before UTC
    // For a build with sanitizers: a thread of QtDBus may hold a message at the end.
    environment.insert("ASAN_OPTIONS", "detect_leaks=0");
    m_process->setProcessEnvironment(environment);
    if (arguments.contains(" >/dev/full"))
        m_process->setStandardOutputFile("/dev/full");
    m_process->start(ULMOCTL, arguments.remove(" >/dev/full").split(' '));
}

void TestUlmoctl::read(QProcess::ProcessChannel channel, const QString &expected)
{
    m_process->setReadChannel(channel);
    const auto isDecided = [this] {
        return m_process->canReadLine() || m_process->state() == QProcess::NotRunning;
    };
    QVERIFY(QTest::qWaitFor(isDecided, Patience));
    const QString line = QString::fromUtf8(m_process->readLine()).remove('\n');
    QString pattern = QRegularExpression::escape(expected).replace("\\*", ".*");
    pattern.replace("TIME", "(?<time>\\d{4}-\\d\\d-\\d\\d[ T]\\d\\d:\\d\\d:\\d\\d\\.\\d{3})");
    const QRegularExpressionMatch match =
        QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(line);
    if (!match.hasMatch())
        QCOMPARE(line, expected);
    if (expected.contains("TIME")) {
        const QString time = match.captured("time").replace(' ', 'T') + "+05:30";
        const QDateTime told = QDateTime::fromString(time, Qt::ISODateWithMs);
        QVERIFY(qAbs(told.secsTo(QDateTime::currentDateTime())) < 60);
    }
    if (line.startsWith('{'))
        QVERIFY(QJsonDocument::fromJson(line.toUtf8()).isObject());
}

void TestUlmoctl::end(int status)
{
    QTRY_COMPARE_WITH_TIMEOUT(m_process->state(), QProcess::NotRunning, Patience);
    QCOMPARE(m_process->exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_process->readAllStandardOutput(), QByteArray());
    QCOMPARE(m_process->readAllStandardError(), QByteArray());
    QCOMPARE(m_process->exitCode(), status);
    QVERIFY(m_service->calls.isEmpty());
}

// The help fits the smallest terminal with the next prompt below it, and the manual and the
// completion know every command and option that it names.
void TestUlmoctl::help()
{
    QProcess process;
    process.start(ULMOCTL, {"status", "-h"});
    QVERIFY(process.waitForFinished(Patience));
    QCOMPARE(process.exitCode(), 0);
    const QString help = QString::fromUtf8(process.readAllStandardOutput());
    process.start(ULMOCTL, QStringList());
    QVERIFY(process.waitForFinished(Patience));
    QCOMPARE(process.exitCode(), 2);
    QCOMPARE(QString::fromUtf8(process.readAllStandardError()), help);

    const QStringList lines = help.split('\n');
    QVERIFY(lines.size() <= 24);
    QSet<QString> named;
    for (const QString &line : lines) {
        QVERIFY2(line.size() < 80, qPrintable(line));
        if (!line.startsWith("  "))
            continue;
        for (const QString &name : line.trimmed().section("  ", 0, 0).split(", "))
            named << name.section(' ', 0, 0);
    }
    const QString manual = readFile(ULMOCTL_MANUAL).remove('\\');
    for (const QString &name : qAsConst(named))
        QVERIFY2(manual.contains(QRegularExpression("(^\\.[BIR]+|~) ?" + name + "\\b",
                                                    QRegularExpression::MultilineOption)),
                 qPrintable(name));
    QStringList completed =
        complete({"ulmoctl", ""}) + complete({"ulmoctl", "-"}) + QStringList("-h");
    QCOMPARE(QSet<QString>(completed.begin(), completed.end()), named);
}

void TestUlmoctl::completion_data()
{
    QTest::addColumn<QString>("offered");
    QTest::newRow("ulmoctl o") << "on off";
    QTest::newRow("ulmoctl --json un") << "unmute";
    QTest::newRow("ulmoctl on -") << "--wait --json --timeout";
    QTest::newRow("ulmoctl forget --a") << "--all";
    QTest::newRow("ulmoctl watch -") << "--json";
    QTest::newRow("ulmoctl pin ") << "--json --timeout";
    QTest::newRow("ulmoctl --timeout ") << "";
    QTest::newRow("ulmoctl --timeout = ") << "";
    QTest::newRow("ulmoctl --timeout 5 d") << "disconnect";
    QTest::newRow("ulmoctl --timeout = 5 on --w") << "--wait";
}

void TestUlmoctl::completion()
{
    QFETCH(QString, offered);
    QCOMPARE(complete(QString(QTest::currentDataTag()).split(' ')).join(' '), offered);
}

QTEST_GUILESS_MAIN(TestUlmoctl)
#include "tst_ulmoctl.moc"
