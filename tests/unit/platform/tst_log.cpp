// Log lines on standard error: their form, their safety in a signal handler.
#include "LogInterface.h"
#include "StandardError.h"

#include <QRegularExpression>
#include <QTime>
#include <QtTest>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <sys/stat.h>
#include <sys/time.h>

LogInterface *_logInterface = nullptr;

namespace {
const char Clock[] = "HH:MM:SS.mmm ";
volatile sig_atomic_t signalsHandled;
volatile sig_atomic_t errnoChanged;

void logFromSignalHandler(int)
{
    errno = 1234;
    _logInterface->EmitLogString(2, "from the signal handler", "/signal");
    if (errno != 1234)
        errnoChanged = 1;
    signalsHandled = signalsHandled + 1;
}
} // namespace

class TestLog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { unsetenv("JOURNAL_STREAM"); }

    void line_data()
    {
        QTest::addColumn<int>("level");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("expected");

        const int room = 2048 - 1 - int(strlen(Clock)) - int(strlen("4 /a "));
        QTest::newRow("plain") << 4 << QByteArray("/a/b") << QByteArray("one [two] 50%s")
                               << QByteArray("4 /a/b one [two] 50%s");
        QTest::newRow("lowest level")
            << INT_MIN << QByteArray("/a") << QByteArray("x") << QByteArray("-2147483648 /a x");
        QTest::newRow("empty") << 0 << QByteArray("") << QByteArray("") << QByteArray("0  ");
        QTest::newRow("null") << 1 << QByteArray() << QByteArray() << QByteArray("1  ");
        QTest::newRow("forged line")
            << 2 << QByteArray("/a\n") << QByteArray("x\r\n<0>y\t\x1b\x7f.")
            << QByteArray("2 /a  x  <0>y   .");
        QTest::newRow("not Latin") << 4 << QByteArray("/a")
                                   << QByteArray("K\xc3\xbc"
                                                 "che \xe2\x82\xac")
                                   << QByteArray("4 /a K\xc3\xbc"
                                                 "che \xe2\x82\xac");
        QTest::newRow("too long") << 4 << QByteArray("/a") << QByteArray(5000, 'x')
                                  << "4 /a " + QByteArray(room, 'x');
        QTest::newRow("cut within a character")
            << 4 << QByteArray("/a") << QByteArray(room - 1, 'x') + "\xc3\xbc"
            << "4 /a " + QByteArray(room - 1, 'x');
        QTest::newRow("caller cut it within a character")
            << 4 << QByteArray("/a") << QByteArray("x\xf0\x9f\x8e") << QByteArray("4 /a x");
        QTest::newRow("whole character at the end")
            << 4 << QByteArray("/a") << QByteArray(room - 4, 'x') + "\xf0\x9f\x8e\xb5"
            << "4 /a " + QByteArray(room - 4, 'x') + "\xf0\x9f\x8e\xb5";
    }

    void line()
    {
        QFETCH(int, level);
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, expected);
        StandardError standardError;
        LogInterface log("/log");

        log.EmitLogString(level, text.isNull() ? nullptr : text.constData(),
                          path.isNull() ? nullptr : path.constData());

        const QByteArray written = standardError.take();
        QCOMPARE(written.mid(int(strlen(Clock))), expected + '\n');
    }

    void clockIsLocalTime_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::newRow("east") << QByteArray("EAST-05:45");
        QTest::newRow("west") << QByteArray("WEST+09:30");
    }

    void clockIsLocalTime()
    {
        QFETCH(QByteArray, zone);
        const QByteArray savedZone = qgetenv("TZ");
        qputenv("TZ", zone);
        tzset();
        StandardError standardError;
        LogInterface log("/log");

        const QTime before = QTime::currentTime();
        log.EmitLogString(4, "x", "/a");
        const int elapsed = before.msecsTo(QTime::currentTime());

        const QString clock =
            QString::fromLatin1(standardError.take().left(int(strlen(Clock)) - 1));
        const QTime logged = QTime::fromString(clock, "HH:mm:ss.zzz");
        savedZone.isNull() ? unsetenv("TZ") : setenv("TZ", savedZone.constData(), 1);
        tzset();
        QVERIFY2(logged.isValid(), qPrintable(clock));
        const int day = 24 * 60 * 60 * 1000;
        QVERIFY((before.msecsTo(logged) + day) % day <= (elapsed + day) % day);
    }

    void journal_data()
    {
        QTest::addColumn<QByteArray>("stream");
        QTest::addColumn<int>("level");
        QTest::addColumn<QByteArray>("prefix");

        const QByteArray own("%1:%2");
        QTest::newRow("error") << own << 1 << QByteArray("<3>1");
        QTest::newRow("warning") << own << 2 << QByteArray("<4>2");
        QTest::newRow("information") << own << 4 << QByteArray("<6>4");
        QTest::newRow("trace") << own << 9 << QByteArray("<7>9");
        QTest::newRow("unused level") << own << 5 << QByteArray("<6>5");
        QTest::newRow("of another inode") << QByteArray("%1:1%2") << 1 << QByteArray();
        QTest::newRow("of another device") << QByteArray("1%1:%2") << 1 << QByteArray();
        QTest::newRow("no numbers") << QByteArray("journal") << 1 << QByteArray();
    }

    void journal()
    {
        QFETCH(QByteArray, stream);
        QFETCH(int, level);
        QFETCH(QByteArray, prefix);
        StandardError standardError;
        struct stat status;
        QCOMPARE(fstat(STDERR_FILENO, &status), 0);
        stream.replace("%1", QByteArray::number(qulonglong(status.st_dev)));
        stream.replace("%2", QByteArray::number(qulonglong(status.st_ino)));
        qputenv("JOURNAL_STREAM", stream);
        LogInterface log("/log");

        log.EmitLogString(level, "text", "/a");

        const QByteArray written = standardError.take();
        if (prefix.isEmpty())
            QVERIFY2(QRegularExpression("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} 1 /a text\n$")
                         .match(QString::fromUtf8(written))
                         .hasMatch(),
                     written.constData());
        else
            QCOMPARE(written, prefix + " /a text\n");
    }

    void unwritableStandardError_data()
    {
        QTest::addColumn<bool>("pipe");
        QTest::newRow("full device") << false;
        QTest::newRow("full pipe") << true;
    }

    void unwritableStandardError()
    {
        QFETCH(bool, pipe);
        StandardError standardError;
        LogInterface log("/log");
        if (pipe) {
            while (write(STDERR_FILENO, "x", 1) == 1) { }
            QCOMPARE(errno, EAGAIN);
        } else {
            const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
            QVERIFY(full >= 0);
            dup2(full, STDERR_FILENO);
            close(full);
        }

        errno = 1234;
        log.EmitLogString(1, "text", "/a");

        QCOMPARE(errno, 1234);
    }

    /** An allocation or a lock in the log client would lock up here, sooner or later. */
    void logsFromSignalHandler()
    {
        StandardError standardError;
        LogInterface log("/log");
        _logInterface = &log;
        struct sigaction action = {};
        action.sa_handler = logFromSignalHandler;
        sigaction(SIGALRM, &action, nullptr);
        const struct itimerval often = {{0, 100}, {0, 100}};
        setitimer(ITIMER_REAL, &often, nullptr);

        QList<QByteArray> lines;
        while (signalsHandled < 2000) {
            for (int size = 1; size < 100; ++size)
                std::make_unique<char[]>(size * 32)[0] = 1;
            const time_t now = time(nullptr);
            localtime(&now);
            log.EmitLogString(4, "from the loop", "/loop");
            lines += standardError.takeLines();
        }
        const struct itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        signal(SIGALRM, SIG_DFL);
        _logInterface = nullptr;
        lines += standardError.takeLines();

        QVERIFY(!errnoChanged);
        int fromHandler = 0;
        for (const QByteArray &line : qAsConst(lines)) {
            const QByteArray rest = line.mid(int(strlen(Clock)));
            QVERIFY2(rest == "4 /loop from the loop" || rest == "2 /signal from the signal handler",
                     line.constData());
            fromHandler += rest.startsWith('2');
        }
        QCOMPARE(fromHandler, int(signalsHandled));
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
