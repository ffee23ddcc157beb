// Log lines on standard error: their form, their safety in a signal handler.
#include "LogInterface.h"
#include "StandardError.h"

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
        const auto row = [](const char *name, int level, const QByteArray &path,
                            const QByteArray &text, const QByteArray &expected) {
            QTest::newRow(name) << level << path << text << expected;
        };
        row("plain", 4, "/a/b", "one [two] 50%s", "4 /a/b one [two] 50%s");
        row("lowest level", INT_MIN, "/a", "x", "-2147483648 /a x");
        row("empty", 0, "", "", "0  ");
        row("forged line", 2, "/a\n", "x\r\n<0>y\t\x1b\x7f.", "2 /a  x  <0>y   .");

        const int room = 2048 - 1 - int(strlen(Clock)) - int(strlen("4 /a "));
        const auto fill = [](int length) { return QByteArray(length, 'x'); };
        row("too long", 4, "/a", fill(5000), "4 /a " + fill(room));
        row("cut within a character", 4, "/a", fill(room - 1) + "ü", "4 /a " + fill(room - 1));
        row("caller cut one of four bytes", 4, "/a", "€\xf0\x9f\x8e", "4 /a €");
        row("caller cut one of three bytes", 4, "/a", "ü\xe2\x82", "4 /a ü");
        row("whole character at the end", 4, "/a", fill(room - 4) + "🎵",
            "4 /a " + fill(room - 4) + "🎵");
    }

    void line()
    {
        QFETCH(int, level);
        QFETCH(QByteArray, path);
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, expected);
        StandardError standardError;
        LogInterface log("/log");

        log.EmitLogString(level, text.constData(), path.constData());

        const QByteArray written = standardError.take();
        QCOMPARE(written.mid(int(strlen(Clock))), expected + '\n');
    }

    void clockIsLocalTime()
    {
        qputenv("TZ", "WEST+09:30");
        tzset();
        StandardError standardError;
        LogInterface log("/log");

        const QTime before = QTime::currentTime();
        log.EmitLogString(4, "x", "/a");
        const int elapsed = before.msecsTo(QTime::currentTime());

        const QString clock =
            QString::fromLatin1(standardError.take().left(int(strlen(Clock)) - 1));
        const QTime logged = QTime::fromString(clock, "HH:mm:ss.zzz");
        QVERIFY2(logged.isValid(), qPrintable(clock));
        const int day = 24 * 60 * 60 * 1000;
        QVERIFY((before.msecsTo(logged) + day) % day <= (elapsed + day) % day);
    }

    void journal_data()
    {
        QTest::addColumn<QByteArray>("stream");
        QTest::addColumn<int>("level");
        QTest::addColumn<QByteArray>("prefix"); // after the clock, where there is one
        const auto row = [](const char *name, const char *stream, int level, const char *prefix) {
            QTest::newRow(name) << QByteArray(stream) << level << QByteArray(prefix);
        };
        row("error", "DEVICE:INODE", 1, "<3>1");
        row("warning", "DEVICE:INODE", 2, "<4>2");
        row("information", "DEVICE:INODE", 4, "<6>4");
        row("trace", "DEVICE:INODE", 9, "<7>9");
        row("unused level", "DEVICE:INODE", 5, "<6>5");
        row("of another inode", "DEVICE:1INODE", 1, "1");
        row("of another device", "1DEVICE:INODE", 1, "1");
        row("no numbers", "journal", 1, "1");
    }

    void journal()
    {
        QFETCH(QByteArray, stream);
        QFETCH(int, level);
        QFETCH(QByteArray, prefix);
        StandardError standardError;
        struct stat status;
        QCOMPARE(fstat(STDERR_FILENO, &status), 0);
        stream.replace("DEVICE", QByteArray::number(qulonglong(status.st_dev)));
        stream.replace("INODE", QByteArray::number(qulonglong(status.st_ino)));
        qputenv("JOURNAL_STREAM", stream);
        LogInterface log("/log");

        log.EmitLogString(level, "text", "/a");

        const QByteArray written = standardError.take();
        QCOMPARE(written.mid(written.startsWith('<') ? 0 : int(strlen(Clock))),
                 prefix + " /a text\n");
    }

    void fullStandardError()
    {
        StandardError standardError;
        LogInterface log("/log");
        while (write(STDERR_FILENO, "x", 1) == 1) { }
        QCOMPARE(errno, EAGAIN);

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
