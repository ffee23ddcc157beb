// The mechanisms below the decisions: log lines, paths, shell commands, child processes.
#include <QtTest>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "DevicePath.h"
#include "Discard.h"
#include "LogLine.h"
#include "ShellCommand.h"

LogInterface *_logInterface = nullptr;

namespace {

// Whether a process exists, a zombie included.
bool exists(qint64 pid)
{
    return kill(static_cast<pid_t>(pid), 0) == 0;
}

// Deletes the process of a field in the process's own finished signal, as the manager does.
class Owner : public QObject
{
    Q_OBJECT

public:
    QProcess *process = nullptr;
    int finishedCount = 0;

public Q_SLOTS:
    void childFinished(int, QProcess::ExitStatus)
    {
        ++finishedCount;
        discardChild(process);
    }
};

} // namespace

class TestMechanisms : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logLine_data();
    void logLine();
    void devicePaths_data();
    void devicePaths();
    void pathOfAddress_data();
    void pathOfAddress();
    void shellStatus_data();
    void shellStatus();
    void shellIsSilent();
    void missingProgram_data();
    void missingProgram();
    void failedForkHarmsNobody();
    void childEnvironmentAndOutput();
    void stopChild_data();
    void stopChild();
    void discardInsideFinished();
    void discardSilencesRunningChild();
    void discardedTimerNeverFires();
};

void TestMechanisms::logLine_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QByteArray>("function");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray function = "int BluetoothManager::SetEnabled(bool)";
    const QByteArray prefix = "[BluetoothManager.cpp:42] " + function + ": ";
    QTest::newRow("folder cut off") << QByteArray("/a/b/BluetoothManager.cpp") << function
                                    << QByteArray("text") << prefix + "text";
    QTest::newRow("no folder") << QByteArray("BluetoothManager.cpp") << function
                               << QByteArray("text") << prefix + "text";
    QTest::newRow("just fits") << QByteArray("BluetoothManager.cpp") << function
                               << QByteArray(511 - prefix.size(), 'x')
                               << prefix + QByteArray(511 - prefix.size(), 'x');
    QTest::newRow("cut") << QByteArray("BluetoothManager.cpp") << function << QByteArray(5000, 'x')
                         << prefix + QByteArray(511 - prefix.size(), 'x');
    QTest::newRow("prefix alone too long")
        << QByteArray("BluetoothManager.cpp") << QByteArray(600, 'f') << QByteArray("text")
        << "[BluetoothManager.cpp:42] " + QByteArray(511 - 26, 'f');
}

void TestMechanisms::logLine()
{
    QFETCH(QByteArray, file);
    QFETCH(QByteArray, function);
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, expected);

    char line[LogLineSize];
    formatLogLine(line, file.constData(), 42, function.constData(), "%s", text.constData());
    QCOMPARE(QByteArray(line), expected);
}

void TestMechanisms::devicePaths_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("adapter");
    QTest::addColumn<QString>("source");

    QTest::newRow("usual") << "/org/bluez/1/hci0/dev_00_1A_7D_DA_71_13"
                           << "/org/bluez/1/hci0"
                           << "bluez_source.00_1A_7D_DA_71_13";
    QTest::newRow("short") << "/dev_AA"
                           << ""
                           << "bluez_source.AA";
    QTest::newRow("root") << "/"
                          << ""
                          << "bluez_source.";
    QTest::newRow("empty") << ""
                           << ""
                           << "bluez_source.";
    QTest::newRow("no underscore") << "/org/bluez/device"
                                   << "/org/bluez"
                                   << "bluez_source.";
    QTest::newRow("slashes kept") << "/a//dev_B/dev_C"
                                  << "/a//dev_B"
                                  << "bluez_source.C";
}

void TestMechanisms::devicePaths()
{
    QFETCH(QString, device);
    QTEST(DevicePath::adapterOf(device), "adapter");
    QTEST(DevicePath::pulseAudioSource(device), "source");
}

void TestMechanisms::pathOfAddress_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("expected");

    QTest::newRow("upper case") << "AA:BB:CC:DD:EE:FF"
                                << "/hci0/dev_AA_BB_CC_DD_EE_FF";
    QTest::newRow("letter case kept") << "aa:Bb"
                                      << "/hci0/dev_aa_Bb";
    QTest::newRow("anything else untouched") << "a-b c"
                                             << "/hci0/dev_a-b c";
    QTest::newRow("empty") << ""
                           << "/hci0/dev_";
}

void TestMechanisms::pathOfAddress()
{
    QFETCH(QString, address);
    QTEST(DevicePath::ofAddress(QStringLiteral("/hci0"), address), "expected");
}

void TestMechanisms::shellStatus_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<int>("status");

    QTest::newRow("success") << QByteArray("true") << 0;
    QTest::newRow("exit status 1 is 256") << QByteArray("exit 1") << 256;
    QTest::newRow("not found") << QByteArray("/nonexistent/program") << 127 * 256;
    QTest::newRow("pipe: the last one counts") << QByteArray("false | true") << 0;
    QTest::newRow("killed by a signal") << QByteArray("kill -s 9 $$") << 9;
}

void TestMechanisms::shellStatus()
{
    QFETCH(QByteArray, command);
    QTEST(runShellCommand(command), "status");
}

void TestMechanisms::shellIsSilent()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    const int saved[] = {dup(STDOUT_FILENO), dup(STDERR_FILENO)};
    dup2(file.handle(), STDOUT_FILENO);
    dup2(file.handle(), STDERR_FILENO);
    // What the service itself says meanwhile, in a signal handler, must get through.
    signal(SIGTERM, [](int) {
        if (write(STDERR_FILENO, "a", 1) != 1)
            abort();
    });
    const int status = runShellCommand("echo output; echo error >&2; kill -s TERM $PPID");
    signal(SIGTERM, SIG_DFL);
    dup2(saved[0], STDOUT_FILENO);
    dup2(saved[1], STDERR_FILENO);
    close(saved[0]);
    close(saved[1]);

    QCOMPARE(status, 0);
    file.seek(0);
    QCOMPARE(file.readAll(), QByteArray("a"));
}

void TestMechanisms::missingProgram_data()
{
    QTest::addColumn<QString>("program");

    QTest::newRow("missing") << "/nonexistent/program";
    QTest::newRow("not executable") << "/etc/passwd";
    QTest::newRow("a folder") << "/usr";
}

void TestMechanisms::missingProgram()
{
    QFETCH(QString, program);
    QVERIFY(!startChild(program, QStringList()));
    QCOMPARE(waitpid(-1, nullptr, WNOHANG), -1);
}

// A signal to what Qt takes for a child then would reach every process of the user.
void TestMechanisms::failedForkHarmsNobody()
{
    if (geteuid() != 0)
        QSKIP("only root can become a user who has no other processes");
    const pid_t child = fork();
    if (child == 0) {
        const uid_t lonelyUser = 61234;
        const rlimit none {0, 0};
        const bool mayNotFork = setgid(lonelyUser) == 0 && setuid(lonelyUser) == 0
            && setrlimit(RLIMIT_NPROC, &none) == 0 && fork() < 0;
        _exit(mayNotFork && !startChild(QStringLiteral("/bin/true"), QStringList()) ? 0 : 1);
    }
    int status = 0;
    QCOMPARE(waitpid(child, &status, 0), child);
    QCOMPARE(status, 0);
}

void TestMechanisms::childEnvironmentAndOutput()
{
    QTemporaryDir folder;
    const QString result = folder.filePath(QStringLiteral("result"));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("BLUEZHOSTNAME"), QStringLiteral("Living_Room"));
    environment.insert(QStringLiteral("RESULT"), result);
    QProcess *process = startChild(
        QStringLiteral("/bin/sh"),
        {QStringLiteral("-c"),
         QStringLiteral("echo noise; echo noise >&2; "
                        "echo $BLUEZHOSTNAME $(readlink /proc/$$/fd/1 /proc/$$/fd/2) > $RESULT")},
        environment);
    QVERIFY(process);
    QVERIFY(process->waitForFinished());
    discardChild(process);

    QFile file(result);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll().simplified(), QByteArray("Living_Room /dev/null /dev/null"));
}

void TestMechanisms::stopChild_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<bool>("ends");

    QTest::newRow("ends on SIGTERM") << "exec sleep 1000" << true;
    QTest::newRow("ignores SIGTERM")
        << "trap '' TERM; touch $READY; while :; do sleep 1000; done" << false;
}

void TestMechanisms::stopChild()
{
    QFETCH(QString, script);
    QFETCH(bool, ends);

    QTemporaryDir folder;
    const QString ready = folder.filePath(QStringLiteral("ready"));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("READY"), ready);
    QProcess *process =
        startChild(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script}, environment);
    QVERIFY(process);
    const qint64 pid = process->processId();
    if (!ends)
        QTRY_VERIFY(QFile::exists(ready));

    QCOMPARE(terminateChild(process), ends);
    QCOMPARE(exists(pid), !ends);
    discardChild(process);
    QVERIFY(!process);
    QVERIFY(!exists(pid));
}

void TestMechanisms::discardInsideFinished()
{
    Owner owner;
    owner.process = startChild(QStringLiteral("/bin/true"), QStringList());
    QVERIFY(owner.process);
    connect(owner.process, SIGNAL(finished(int, QProcess::ExitStatus)), &owner,
            SLOT(childFinished(int, QProcess::ExitStatus)));
    QTRY_COMPARE(owner.finishedCount, 1);
    QVERIFY(!owner.process);
}

void TestMechanisms::discardSilencesRunningChild()
{
    Owner owner;
    owner.process = startChild(QStringLiteral("/bin/sleep"), {QStringLiteral("1000")});
    QVERIFY(owner.process);
    const qint64 pid = owner.process->processId();
    connect(owner.process, SIGNAL(finished(int, QProcess::ExitStatus)), &owner,
            SLOT(childFinished(int, QProcess::ExitStatus)));
    discardChild(owner.process);
    QVERIFY(!exists(pid));
    QCOMPARE(owner.finishedCount, 0);
}

void TestMechanisms::discardedTimerNeverFires()
{
    QTimer *timer = new QTimer(this);
    QSignalSpy fired(timer, &QTimer::timeout);
    timer->start(0);
    QTimer *field = timer;
    discardTimer(field);
    QVERIFY(!field);
    // Everybody is disconnected, the spies too; so ask the parent for the deletion.
    QTRY_VERIFY(!findChild<QTimer *>());
    QCOMPARE(fired.count(), 0);
}

QTEST_GUILESS_MAIN(TestMechanisms)
#include "tst_mechanisms.moc"
