// The real ulmoctl against a fake service on a bus of its own.
#include <QtTest>

#include <QJsonDocument>
#include <QJsonObject>

#include <memory>

#include <signal.h>

#include "FakeService.h"
#include "PrivateBus.h"

namespace {

constexpr int Patience = 30000; // milliseconds, for what takes a fraction of a second

struct Result
{
    int status = -1; // -1: ended by a signal, or not at all
    QByteArray output;
    QByteArray error;
};

void prepare(QProcess &process, const QString &busAddress)
{
    QProcessEnvironment environment;
    environment.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
    environment.insert("TZ", "TEST-05:30"); // five and a half hours before UTC
    process.setProcessEnvironment(environment);
    process.setProgram(ULMOCTL);
}

// Runs it while the fake service, in this thread, can answer.
Result ulmoctl(const QStringList &arguments, const QString &busAddress)
{
    QProcess process;
    prepare(process, busAddress);
    process.setArguments(arguments);
    process.start();
    const bool ended =
        QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, Patience);
    Result result;
    if (ended && process.exitStatus() == QProcess::NormalExit)
        result.status = process.exitCode();
    result.output = process.readAllStandardOutput();
    result.error = process.readAllStandardError();
    return result;
}

QString nextLine(QProcess &process)
{
    if (!QTest::qWaitFor([&] { return process.canReadLine(); }, Patience))
        return "(no line)";
    return QString::fromUtf8(process.readLine()).chopped(1);
}

// Checks the time of a line of "watch" and returns the rest of the line.
QString withoutTime(const QString &line, bool json)
{
    if (!json) {
        const QRegularExpression time("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}  ");
        return QString(line).remove(time);
    }
    QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
    const QDateTime time = QDateTime::fromString(object.take("time").toString(), Qt::ISODateWithMs);
    if (time.offsetFromUtc() != 19800 || qAbs(time.secsTo(QDateTime::currentDateTime())) > 60)
        return "(wrong time) " + line;
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
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

const QString Usage = "Try 'ulmoctl --help' for more information.\n";

} // namespace

class TestUlmoctl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void commands_data();
    void commands();
    void usage_data();
    void usage();
    void json_data();
    void json();
    void startAndWait_data();
    void startAndWait();
    void failures_data();
    void failures();
    void unwritable();
    void watch_data();
    void watch();
    void watchWithoutBus();
    void help();
    void completion_data();
    void completion();

private:
    std::unique_ptr<PrivateBus> m_bus;
};

void TestUlmoctl::init()
{
    m_bus = std::make_unique<PrivateBus>();
    QVERIFY(!m_bus->address().isEmpty());
}

void TestUlmoctl::commands_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<int>("answer");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text"); // on standard output when done, else on standard error
    QTest::addColumn<QString>("calls");

    const auto row = [](const char *arguments, int answer, int status, const char *text,
                        const char *calls) {
        QTest::addRow("%s: %d", arguments, answer)
            << arguments << answer << status << text << calls;
    };
    const char busy[] = "a start or stop is in progress, try again in a moment";
    row("status", 0, 0, "Bluetooth   enabled, off\nPIN         7351", "GetStatus");
    row("on", 0, 0, "Bluetooth is starting.", "SetEnabled b true,GetStatus");
    row("on", 1, 1, busy, "SetEnabled b true");
    row("off", 0, 0, "Bluetooth is off.", "SetEnabled b false");
    row("off", 1, 1, busy, "SetEnabled b false");
    row("pin 1234", 0, 0, "The PIN is 1234.", "SetPid s 1234");
    row("pin 12%1", 1, 1, "the PIN must be four digits", "SetPid s 12%1");
    row("volume 40", 0, 0, "The volume is set.", "SetVolume i 40");
    row("volume 40%", 256, 1, "pactl failed: exit status 1", "SetVolume i 40");
    row("volume -- -5", 0, 0, "The volume is set.", "SetVolume i -5");
    row("volume 101", -1, 1, "pactl failed: it could not be run (-1)", "SetVolume i 101");
    row("mute", 0, 0, "The sound is muted.", "SetMute i 1");
    row("mute", 9, 1, "pactl failed: signal 9", "SetMute i 1");
    row("unmute", 0, 0, "The sound is not muted.", "SetMute i 0");
    row("disconnect", 0, 0, "The device has been told to disconnect.", "DisconnectDevice");
    row("disconnect", 1, 1, "no device is connected", "DisconnectDevice");
    row("forget 00:11:22:aa:bb:cc", 0, 0, "BlueZ has been told to forget 00:11:22:aa:bb:cc.",
        "RemoveDevice s 00:11:22:AA:BB:CC");
    row("forget x", 1, 1, "BlueZ cannot be asked, is Bluetooth on?", "RemoveDevice s X");
    row("forget --all", 0, 0, "BlueZ has been told to forget every device.", "RemoveAllDevices");
    row("--all forget", 1, 1, "BlueZ cannot be asked, is Bluetooth on?", "RemoveAllDevices");
}

void TestUlmoctl::commands()
{
    QFETCH(QString, arguments);
    QFETCH(int, answer);
    QFETCH(int, status);
    QFETCH(QString, text);
    QFETCH(QString, calls);

    FakeService service(m_bus->address());
    service.status = answer;
    QVERIFY(service.appear());
    const Result result = ulmoctl(arguments.split(' '), m_bus->address());
    QCOMPARE(result.output, status == 0 ? text.toUtf8() + '\n' : QByteArray());
    QCOMPARE(result.error, status == 0 ? QByteArray() : "ulmoctl: " + text.toUtf8() + '\n');
    QCOMPARE(result.status, status);
    QCOMPARE(service.calls.join(','), calls);
}

void TestUlmoctl::usage_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("text");

    const auto row = [](const char *arguments, const char *text) {
        QTest::addRow("%s", arguments) << arguments << text;
    };
    row("--json", "no command");
    row("start", "unknown command 'start'");
    row("--frobnicate status", "unrecognized option '--frobnicate'");
    row("status now", "too many arguments: 'now'");
    row("forget --all 00:11:22:AA:BB:CC", "too many arguments: '00:11:22:AA:BB:CC'");
    row("pin", "'pin' needs the new PIN");
    row("forget", "'forget' needs the address of a device, or --all");
    row("volume", "'volume' needs a level from 0 to 100");
    row("volume loud", "the volume must be a number from 0 to 100");
    row("volume %", "the volume must be a number from 0 to 100");
    row("volume 99999999999", "the volume must be a number from 0 to 100");
    row("off --wait", "--wait goes only with 'on'");
    row("on --all", "--all goes only with 'forget'");
    row("watch --timeout 5", "--timeout does not go with 'watch'");
    row("status --timeout=0", "--timeout takes seconds, from 1 to 3600");
    row("status --timeout 3601", "--timeout takes seconds, from 1 to 3600");
}

void TestUlmoctl::usage()
{
    QFETCH(QString, arguments);
    QFETCH(QString, text);

    FakeService service(m_bus->address());
    QVERIFY(service.appear());
    const Result result = ulmoctl(arguments.split(' '), m_bus->address());
    QCOMPARE(result.status, 2);
    QCOMPARE(result.output, QByteArray());
    QVERIFY2(result.error.endsWith(("ulmoctl: " + text + '\n' + Usage).toUtf8()), result.error);
    QCOMPARE(service.calls, QStringList());
}

void TestUlmoctl::json_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<int>("answer");
    QTest::addColumn<QString>("pin");
    QTest::addColumn<QJsonObject>("object");

    // What would break out of a JSON string, and what needs no escape.
    const QString awkward = QString::fromUtf8("7\"3\\5\n\t\x01\x7f/é\u2028😀");
    QTest::newRow("status") << "status" << 0 << awkward
                            << QJsonObject {{"command", "status"}, {"exitStatus", 0},
                                            {"status", 0},         {"enabled", true},
                                            {"on", false},         {"pin", awkward}};
    QTest::newRow("on") << "on" << 0 << "7351"
                        << QJsonObject {
                               {"command", "on"}, {"exitStatus", 0}, {"status", 0}, {"on", false}};
    QTest::newRow("mute") << "mute" << 0 << "7351"
                          << QJsonObject {{"command", "mute"}, {"exitStatus", 0}, {"status", 0}};
    QTest::newRow("refused") << "volume 7" << 32512 << "7351"
                             << QJsonObject {{"command", "volume"},
                                             {"exitStatus", 1},
                                             {"status", 32512},
                                             {"error", "pactl failed: exit status 127"}};
}

void TestUlmoctl::json()
{
    QFETCH(QString, arguments);
    QFETCH(int, answer);
    QFETCH(QString, pin);
    QFETCH(QJsonObject, object);

    FakeService service(m_bus->address());
    service.status = answer;
    service.pin = pin;
    QVERIFY(service.appear());
    const Result result = ulmoctl((arguments + " --json").split(' '), m_bus->address());
    QCOMPARE(result.status, object["exitStatus"].toInt());
    QCOMPARE(result.error, QByteArray());
    QCOMPARE(result.output.indexOf('\n'), result.output.size() - 1);
    QJsonParseError error;
    QCOMPARE(QJsonDocument::fromJson(result.output, &error).object(), object);
    QCOMPARE(error.error, QJsonParseError::NoError);
}

void TestUlmoctl::startAndWait_data()
{
    QTest::addColumn<QString>("before"); // what comes with the answer to SetEnabled
    QTest::addColumn<QString>("after"); // and after that to GetStatus
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text");

    const QString gone = "ulmoctl: the service ended before Bluetooth was on\n";
    QTest::newRow("comes on") << ""
                              << "true" << 0 << "Bluetooth is on.\n";
    QTest::newRow("comes on at once") << "true"
                                      << "" << 0 << "Bluetooth is on.\n";
    QTest::newRow("is on") << "on"
                           << "" << 0 << "Bluetooth is on.\n";
    QTest::newRow("goes off first") << "false"
                                    << "true" << 0 << "Bluetooth is on.\n";
    QTest::newRow("never") << ""
                           << "false" << 4 << "ulmoctl: Bluetooth is not on after 2 seconds\n";
    QTest::newRow("crashes") << ""
                             << "crash" << 3 << gone;
}

void TestUlmoctl::startAndWait()
{
    QFETCH(QString, before);
    QFETCH(QString, after);
    QFETCH(int, status);
    QFETCH(QString, text);

    FakeService service(m_bus->address());
    const auto act = [&service](const QString &what) {
        if (what == "true" || what == "false")
            service.signal("BluetoothOn", {what == "true"});
        else if (what == "on")
            service.on = true;
        else if (what == "crash")
            QTimer::singleShot(0, &service, [&service] { service.leave(); });
    };
    service.beforeAnswer = [&](const QString &method) {
        if (method == "SetEnabled")
            act(before);
    };
    service.afterAnswer = [&](const QString &method) {
        if (method == "GetStatus")
            act(after);
    };
    QVERIFY(service.appear());
    const QStringList timeout = status == 4 ? QStringList {"--timeout", "2"} : QStringList();
    const Result result = ulmoctl(QStringList {"on", "--wait"} + timeout, m_bus->address());
    QCOMPARE(result.status, status);
    const QByteArray &told = status == 0 ? result.output : result.error;
    QVERIFY2(told.startsWith(text.toUtf8()), told);
}

void TestUlmoctl::failures_data()
{
    QTest::addColumn<QString>("service");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text");

    QTest::newRow("no bus") << "no bus" << 3 << "no session bus (";
    QTest::newRow("absent") << "absent" << 3
                            << "the service is not running: com.orbitalis.ulmo.bluetoothmanager "
                               "is not on the bus";
    QTest::newRow("crashes") << "crashes" << 3 << "the service ended before it answered";
    QTest::newRow("silent") << "silent" << 4 << "no answer within 1 seconds";
    QTest::newRow("error") << "org.example.Trouble" << 1
                           << "the service answered with an error (org.example.Trouble: no such "
                              "luck)";
    QTest::newRow("denied") << "org.freedesktop.DBus.Error.AccessDenied" << 3
                            << "the bus does not let the service be reached (";
}

void TestUlmoctl::failures()
{
    QFETCH(QString, service);
    QFETCH(int, status);
    QFETCH(QString, text);

    FakeService fake(m_bus->address());
    fake.silent = service == "silent" || service == "crashes";
    if (service.contains('.'))
        fake.error = service;
    if (service != "absent")
        QVERIFY(fake.appear());
    if (service == "no bus")
        m_bus->stop();

    if (service == "crashes") {
        fake.afterAnswer = [&fake](const QString &) {
            QTimer::singleShot(0, &fake, [&fake] { fake.leave(); });
        };
    }
    const QStringList timeout =
        service == "silent" ? QStringList {"--timeout", "1"} : QStringList();
    const Result result = ulmoctl(QStringList {"status"} + timeout, m_bus->address());
    QVERIFY2(result.error.startsWith(("ulmoctl: " + text).toUtf8()), result.error);
    QCOMPARE(result.output, QByteArray());
    QCOMPARE(result.status, status);
}

void TestUlmoctl::unwritable()
{
    for (const char *command : {"--help", "watch"}) {
        QProcess process;
        prepare(process, m_bus->address());
        process.setArguments({command});
        process.setStandardOutputFile("/dev/full");
        process.start();
        QVERIFY(process.waitForFinished(Patience));
        QCOMPARE(process.exitCode(), 1);
        QCOMPARE(process.readAllStandardError(),
                 QByteArray("ulmoctl: cannot write: No space left on device\n"));
    }
}

void TestUlmoctl::watch_data()
{
    QTest::addColumn<bool>("json");
    QTest::addColumn<QStringList>("lines");

    QTest::newRow("text") << false
                          << QStringList {"Service                not running",
                                          "Service                running",
                                          "BluetoothOn            true",
                                          "BluetoothPidChanged    1234",
                                          "ConnectAudioDevice",
                                          "NoPlayConnectedDevive",
                                          "DisconnectAudioDevice",
                                          "Service                not running",
                                          "Service                running",
                                          "BluetoothOn            false"};
    QTest::newRow("json") << true << QStringList {R"({"event":"Service","running":false})",
                                                  R"({"event":"Service","running":true})",
                                                  R"({"event":"BluetoothOn","on":true})",
                                                  R"({"event":"BluetoothPidChanged","pin":"1234"})",
                                                  R"({"event":"ConnectAudioDevice"})",
                                                  R"({"event":"NoPlayConnectedDevive"})",
                                                  R"({"event":"DisconnectAudioDevice"})",
                                                  R"({"event":"Service","running":false})",
                                                  R"({"event":"Service","running":true})",
                                                  R"({"event":"BluetoothOn","on":false})"};
}

void TestUlmoctl::watch()
{
    QFETCH(bool, json);
    QFETCH(QStringList, lines);

    QProcess process;
    prepare(process, m_bus->address());
    process.setArguments(json ? QStringList {"watch", "--json"} : QStringList {"watch"});
    process.start();

    QStringList seen {withoutTime(nextLine(process), json)};
    {
        FakeService first(m_bus->address());
        QVERIFY(first.appear());
        seen << withoutTime(nextLine(process), json);
        first.signal("BluetoothOn", {true});
        first.signal("BluetoothPidChanged", {"1234"});
        first.signal("ConnectAudioDevice");
        first.signal("NoPlayConnectedDevive");
        first.signal("DisconnectAudioDevice");
        for (int i = 0; i < 5; ++i)
            seen << withoutTime(nextLine(process), json);
    }
    seen << withoutTime(nextLine(process), json);
    FakeService second(m_bus->address());
    QVERIFY(second.appear());
    seen << withoutTime(nextLine(process), json);
    second.signal("BluetoothOn", {false});
    seen << withoutTime(nextLine(process), json);

    kill(pid_t(process.processId()), json ? SIGTERM : SIGINT);
    QVERIFY(process.waitForFinished(Patience));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardError(), QByteArray());
    QCOMPARE(process.readAllStandardOutput(), QByteArray());
    QCOMPARE(seen, lines);
}

void TestUlmoctl::watchWithoutBus()
{
    QProcess process;
    prepare(process, m_bus->address());
    process.setArguments({"watch"});
    process.start();
    QCOMPARE(withoutTime(nextLine(process), false), QString("Service                not running"));
    m_bus->stop();
    QVERIFY(process.waitForFinished(Patience));
    QCOMPARE(process.exitCode(), 3);
    QCOMPARE(process.readAllStandardError(), QByteArray("ulmoctl: the session bus is gone\n"));
}

// The help fits the smallest terminal with the next prompt below it, and the manual and the
// completion know every command and option that it names.
void TestUlmoctl::help()
{
    const Result help = ulmoctl({"status", "-h"}, m_bus->address());
    QCOMPARE(help.status, 0);
    QCOMPARE(help.error, QByteArray());
    const Result nothing = ulmoctl({}, m_bus->address());
    QCOMPARE(nothing.status, 2);
    QCOMPARE(nothing.output, QByteArray());
    QCOMPARE(nothing.error, help.output);

    const QStringList lines = QString::fromUtf8(help.output).split('\n');
    QVERIFY(lines.size() <= 24);
    for (const QString &line : lines)
        QVERIFY2(line.size() < 80, qPrintable(line));

    QSet<QString> named;
    for (const QString &line : lines.filter(QRegularExpression("^  "))) {
        const QStringList columns = line.trimmed().split(QRegularExpression("  +"));
        for (const QString &name : columns.first().split(", "))
            named << name.section(' ', 0, 0);
    }
    QFile manualFile(ULMOCTL_MANUAL);
    QVERIFY(manualFile.open(QIODevice::ReadOnly));
    const QString manual = QString::fromUtf8(manualFile.readAll()).remove('\\');
    for (const QString &name : qAsConst(named))
        QVERIFY2(manual.contains(QRegularExpression("(^\\.[BIR]+|~) ?" + name + "\\b",
                                                    QRegularExpression::MultilineOption)),
                 qPrintable(name));

    QSet<QString> completed;
    for (const char *beginning : {"", "-"}) {
        for (const QString &name : complete({"ulmoctl", beginning}))
            completed << name;
    }
    QCOMPARE(completed << "-h", named);
}

void TestUlmoctl::completion_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("offered");

    const auto row = [](const char *words, const char *offered) {
        QTest::addRow("%s", words) << words << offered;
    };
    row("ulmoctl o", "on off");
    row("ulmoctl --json un", "unmute");
    row("ulmoctl on -", "--wait --json --timeout");
    row("ulmoctl forget --a", "--all");
    row("ulmoctl watch -", "--json");
    row("ulmoctl pin ", "--json --timeout");
    row("ulmoctl --timeout ", "");
    row("ulmoctl --timeout = ", "");
    row("ulmoctl --timeout 5 d", "disconnect");
    row("ulmoctl --timeout = 5 on --w", "--wait");
}

void TestUlmoctl::completion()
{
    QFETCH(QString, words);
    QFETCH(QString, offered);
    QCOMPARE(complete(words.split(' ')).join(' '), offered);
}

QTEST_GUILESS_MAIN(TestUlmoctl)
#include "tst_ulmoctl.moc"
