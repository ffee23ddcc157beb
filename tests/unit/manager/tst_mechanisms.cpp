// The mechanisms below the decisions: log lines, paths, shell commands, child processes.
#include <QtTest>

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

const auto Finished = QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished);

int openDescriptors()
{
    return QDir("/proc/self/fd").entryList(QDir::System | QDir::Files).size();
}

} // namespace

class TestMechanisms : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logLine_data();
    void logLine();
    void devicePaths();
    void shellStatus_data();
    void shellStatus();
    void missingProgram();
    void failedForkHarmsNobody();
    void childOutput();
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
    QTest::addColumn<QByteArray>("expected"); // what is longer is cut
    const auto row = [](const char *name, const QByteArray &file, const QByteArray &function,
                        const QByteArray &text, const QByteArray &expected) {
        QTest::newRow(name) << file << function << text << expected;
    };
    const QByteArray much(5000, 'x');
    row("folder cut off", "/a/b/File.cpp", "int f(bool)", "text",
        "[File.cpp:42] int f(bool): text");
    row("no folder", "File.cpp", "f", "text", "[File.cpp:42] f: text");
    row("too long", "File.cpp", "f", much, "[File.cpp:42] f: " + much);
    row("prefix alone too long", "File.cpp", much, "text", "[File.cpp:42] " + much);
}

void TestMechanisms::logLine()
{
    QFETCH(QByteArray, file);
    QFETCH(QByteArray, function);
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, expected);
    char line[LogLineSize];
    formatLogLine(line, file.constData(), 42, function.constData(), "%s", text.constData());
    QCOMPARE(QByteArray(line), expected.left(511));
}

void TestMechanisms::devicePaths()
{
    using namespace DevicePath;
    QCOMPARE(ofAddress("/hci0", "aA:BB:c-d e"), QString("/hci0/dev_aA_BB_c-d e"));
    QCOMPARE(adapterOf("/org/bluez/1/hci0/dev_00_1A"), QString("/org/bluez/1/hci0"));
    QCOMPARE(adapterOf("/a_b//device"), QString("/a_b/"));
    QCOMPARE(adapterOf("/"), QString());
    QCOMPARE(pulseAudioSource("/org/bluez/1/hci0/dev_00_1A"), QString("bluez_source.00_1A"));
    QCOMPARE(pulseAudioSource("/a_b//device"), QString("bluez_source."));
    QCOMPARE(pulseAudioSource("/"), QString("bluez_source."));
}

void TestMechanisms::shellStatus_data()
{
    QTest::addColumn<int>("status");
    QTest::newRow("exit 1") << 256;
    QTest::newRow("/nonexistent/program") << 127 * 256;
    QTest::newRow("false | true") << 0;
    QTest::newRow("kill -s KILL $$") << SIGKILL;
}

void TestMechanisms::shellStatus()
{
    QTEST(runShellCommand(QTest::currentDataTag()), "status");
}

void TestMechanisms::missingProgram()
{
    for (const char *program : {"/nonexistent/program", "/etc/passwd"}) {
        QVERIFY2(!startChild(program, QStringList()), program);
        QCOMPARE(waitpid(-1, nullptr, WNOHANG), -1);
    }
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
        const int before = openDescriptors();
        const bool refused = !startChild("/bin/true", QStringList());
        _exit(mayNotFork && refused && openDescriptors() == before ? 0 : 1);
    }
    int status = 0;
    QCOMPARE(waitpid(child, &status, 0), child);
    QCOMPARE(status, 0);
}

void TestMechanisms::childOutput()
{
    QTemporaryFile result;
    QVERIFY(result.open());
    const QString script = "echo noise; echo noise >&2; "
                           "echo $(readlink /proc/$$/fd/1 /proc/$$/fd/2) > "
        + result.fileName();
    QProcess *process = startChild("/bin/sh", {"-c", script});
    QVERIFY(process);
    QVERIFY(process->waitForFinished());
    ::stopChild(process);
    QCOMPARE(result.readAll(), QByteArray("/dev/null /dev/null\n"));
}

void TestMechanisms::stopChild_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<bool>("ends");
    QTest::newRow("ends on SIGTERM") << "touch $READY; exec sleep 1000" << true;
    QTest::newRow("ignores SIGTERM")
        << "trap '' TERM; touch $READY; while :; do sleep 1000; done" << false;
}

void TestMechanisms::stopChild()
{
    QFETCH(QString, script);
    QFETCH(bool, ends);
    QTemporaryDir folder;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("READY", folder.filePath("ready"));
    QProcess *process = startChild("/bin/sh", {"-c", script}, environment);
    QVERIFY(process);
    const qint64 pid = process->processId();
    QTRY_VERIFY(QFile::exists(folder.filePath("ready")));

    QCOMPARE(::stopChild(process), ends);
    QVERIFY(!process);
    QVERIFY(!exists(pid));
}

// As the manager does with a child that has ended.
void TestMechanisms::discardInsideFinished()
{
    QProcess *process = startChild("/bin/true", QStringList());
    QVERIFY(process);
    int count = 0;
    connect(process, Finished, this, [&] {
        ++count;
        ::stopChild(process);
    });
    QTRY_COMPARE(count, 1);
    QVERIFY(!process);
}

void TestMechanisms::discardSilencesRunningChild()
{
    QProcess *process = startChild("/bin/sleep", {"1000"});
    QVERIFY(process);
    const qint64 pid = process->processId();
    int count = 0;
    connect(process, Finished, this, [&] { ++count; });
    ::stopChild(process);
    QVERIFY(!exists(pid));
    QCOMPARE(count, 0);
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
