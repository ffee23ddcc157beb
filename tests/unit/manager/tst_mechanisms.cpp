// The mechanisms below the decisions, where no story can see them fail.
#include <QtTest>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "LogLine.h"

LogInterface *_logInterface = nullptr;

namespace {

int openDescriptors()
{
    return QDir("/proc/self/fd").entryList(QDir::System | QDir::Files).size();
}

} // namespace

class TestMechanisms : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void longLogLine()
    {
        const QByteArray much(5000, 'x');
        char line[LogLineSize];
        formatLogLine(line, "/a/File.cpp", 42, "f(int)", "%s", much.constData());
        QCOMPARE(line, ("[File.cpp:42] f(int): " + much).left(511));
        formatLogLine(line, "File.cpp", 42, much, "text");
        QCOMPARE(line, ("[File.cpp:42] " + much).left(511));
    }

    /// Nothing that a child prints or reads is held, and nothing is left of one that was stopped.
    void childWithoutStreams()
    {
        const int before = openDescriptors();
        QProcess *process = startChild("/bin/sleep", {"1000"});
        QVERIFY(process);
        const QString folder = QString("/proc/%1").arg(process->processId());
        for (const QString stream : {"/fd/0", "/fd/1", "/fd/2"})
            QCOMPARE(QFile::symLinkTarget(folder + stream), "/dev/null");
        QVERIFY(stopChild(process));
        QVERIFY(!process && !QFile::exists(folder)); // not even as a zombie
        QCOMPARE(openDescriptors(), before);
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
};

QTEST_GUILESS_MAIN(TestMechanisms)
#include "tst_mechanisms.moc"
