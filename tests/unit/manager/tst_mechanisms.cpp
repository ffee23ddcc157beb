// The mechanisms below the decisions: paths, names, log lines, shell commands, child processes.
#include <QtTest>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "DevicePath.h"
#include "Discard.h"
#include "LogLine.h"
#include "Settings.h"
#include "ShellCommand.h"

LogInterface *_logInterface = nullptr;

namespace {

const auto Finished = QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished);

bool exists(qint64 pid)
{
    return kill(static_cast<pid_t>(pid), 0) == 0;
}

int openDescriptors()
{
    return QDir("/proc/self/fd").entryList(QDir::System | QDir::Files).size();
}

} // namespace

class TestMechanisms : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void names()
    {
        QCOMPARE(DevicePath::ofAddress("/1/hci0", "00:1a:7D"), "/1/hci0/dev_00_1a_7D");
        QCOMPARE(DevicePath::pulseAudioSource("/hci_0/device"), "bluez_source.");
        QVERIFY(DevicePath::isValid("/1/hci0/dev_00_1a_7D"));
        for (const char *path : {"", "/", "a/b", "/a/", "/a//b", "/a b", "/a-b", "/ü", "/a\n"})
            QVERIFY2(!DevicePath::isValid(path), path);
        for (const char *pid : {"0000", "7351", "١٢٣٤"})
            QVERIFY2(isValidPid(pid), pid);
        for (const char *pid : {"", "123", "12345", "12a4", "-123", "12 4", "½234"})
            QVERIFY2(!isValidPid(pid), pid);
        QCOMPARE(Settings::bluetoothName("Küche_2: \"1\"; $(x)\n٣"), "Kche_2_1_x");
    }

    void longLogLine()
    {
        const QByteArray much(5000, 'x');
        char line[LogLineSize];
        formatLogLine(line, "/a/File.cpp", 42, "f(int)", "%s", much.constData());
        QCOMPARE(line, ("[File.cpp:42] f(int): " + much).left(511));
        formatLogLine(line, "File.cpp", 42, much, "text");
        QCOMPARE(line, ("[File.cpp:42] " + much).left(511));
    }

    /// What a command leaves in the background is neither waited for nor ended.
    void shellCommands()
    {
        QCOMPARE(runShellCommand("exit 1"), 256);
        QCOMPARE(runShellCommand("false | true"), 0);
        QCOMPARE(runShellCommand("kill -s KILL $$"), SIGKILL);
        QTemporaryFile file;
        QVERIFY(file.open());
        const QByteArray name = QFile::encodeName(file.fileName());
        QCOMPARE(runShellCommand("sleep 1000 & echo $! > " + name), 0);
        const qint64 helper = file.readAll().trimmed().toLongLong();
        QVERIFY(helper > 0 && exists(helper));
        kill(static_cast<pid_t>(helper), SIGKILL);
    }

    /// A signal to what Qt takes for a child then would reach every process of the user.
    void failedForkHarmsNobody()
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

    void stopping_data()
    {
        QTest::addColumn<QString>("onTerm");
        QTest::addColumn<bool>("connected");
        QTest::addColumn<bool>("ends");
        QTest::newRow("ends on SIGTERM") << "trap - TERM" << false << true;
        QTest::newRow("ends, and is listened to") << "trap - TERM" << true << true;
        QTest::newRow("ignores SIGTERM") << "trap '' TERM" << false << false;
    }

    void stopping()
    {
        QFETCH(QString, onTerm);
        QFETCH(bool, connected);
        QFETCH(bool, ends);
        QTemporaryDir folder;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("READY", folder.filePath("ready"));
        QProcess *process =
            startChild("/bin/sh", {"-c", onTerm + "; touch $READY; exec sleep 1000"}, environment);
        QVERIFY(process);
        const qint64 pid = process->processId();
        int heard = 0;
        connect(process, Finished, this, [&] { ++heard; });
        QTRY_VERIFY(QFile::exists(folder.filePath("ready")));
        for (const QString stream : {"0", "1", "2"})
            QCOMPARE(QFile::symLinkTarget(QString("/proc/%1/fd/").arg(pid) + stream), "/dev/null");

        QElapsedTimer timer;
        timer.start();
        QCOMPARE(stopChild(process, connected ? StillConnected : Disconnected), ends);
        QVERIFY(timer.elapsed() < 25000); // Qt alone would wait for 30 s more

        QVERIFY(!process);
        QVERIFY(!exists(pid)); // not even as a zombie
        QCOMPARE(heard, connected ? 1 : 0);
        QVERIFY(stopChild(process)); // there is none any more
    }

    void stoppingInsideFinished()
    {
        QProcess *process = startChild("/bin/true", QStringList());
        QVERIFY(process);
        int heard = 0;
        connect(process, Finished, this, [&] {
            ++heard;
            QVERIFY(stopChild(process));
        });
        QTRY_VERIFY(!process);
        QCOMPARE(heard, 1);
    }

    void discardedTimer()
    {
        QPointer<QTimer> timer = new QTimer;
        QTimer *field = timer;
        timer->start(0);
        discardTimer(field);
        QVERIFY(!timer->isActive());
        QVERIFY(!field && timer); // deleted later, as it may be the sender of this very call
        QTRY_VERIFY(!timer);
    }
};

QTEST_GUILESS_MAIN(TestMechanisms)
#include "tst_mechanisms.moc"
