// The settings file: what is read, what is refused, what a write leaves behind.
#include "Configuration.h"
#include "LogInterface.h"
#include "StandardError.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <memory>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

LogInterface *_logInterface = nullptr;

namespace {
QByteArray content(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

class TestConfiguration : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_folder.reset(new QTemporaryDir);
        usePath("settings.ini");
        m_standardError.reset(new StandardError);
        m_log.reset(new LogInterface("/log"));
        _logInterface = m_log.get();
    }

    void cleanup()
    {
        _logInterface = nullptr;
        m_standardError.reset();
    }

    void integers_data()
    {
        QTest::addColumn<int>("expected"); // 77 is the default, for those that are none
        QTest::newRow("-5") << -5;
        QTest::newRow("  5000 \t") << 5000;
        QTest::newRow("0100") << 100;
        QTest::newRow("2147483647") << INT_MAX;
        QTest::newRow("2147483648") << 77;
        QTest::newRow("") << 77;
        QTest::newRow("5 ; five") << 77;
        QTest::newRow("0x10") << 77;
    }

    void integers()
    {
        QFETCH(int, expected);
        const QByteArray value = QTest::currentDataTag();
        store("[BLUETOOTH]\nbt-latency=" + value + "\n");
        Configuration configuration("/object");

        const bool usable = expected != 77;
        bool ok = !usable;
        QCOMPARE(configuration.ReadConfigValue("BLUETOOTH", "bt-latency", 77, &ok, true), expected);
        QCOMPARE(ok, usable);
        if (usable)
            QCOMPARE(logged(), QByteArrayList());
        else
            QVERIFY(loggedOnce("2 /object settings file " + m_path + " [BLUETOOTH] bt-latency: \""
                               + value.trimmed() + '"'));
        QVERIFY(configuration.isValid());
    }

    void texts_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("expected"); // null where there is none
        const auto row = [](const char *name, const char *file, const char *expected) {
            QTest::newRow(name) << QByteArray(file) << QString(expected);
        };
        row("blanks around =", "\n  [GENERAL]  \nNickname  =  Living Room #2\n", "Living Room #2");
        row("semicolon and =", "[GENERAL]\nNickname=a;b=c\n", "a;b=c");
        row("empty", "[GENERAL]\nNickname=\n", "");
        row("last counts", "[GENERAL]\nNickname=a\n[X]\n[GENERAL]\nNickname=b\n", "b");
        row("no newline at the end", "[GENERAL]\nNickname=x", "x");
        row("from Windows", "\xef\xbb\xbf; Notiz\r\n[GENERAL]\r\n\r\nNickname=Küche\r\n", "Küche");
        row("other section", "[General]\nNickname=x\n", nullptr);
        row("other key", "[GENERAL]\nnickname=x\n", nullptr);
        row("unknown escape", "[GENERAL]\nNickname=C:\\Audio\n", "C:\\Audio");
        row("comments of both kinds",
            "; a\n# b\n ;c=d\n[GENERAL]\n;Nickname=x\n#Nickname=y\nNickname=z ; w\n", "z ; w");
    }

    void texts()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, expected);
        store(file);
        Configuration configuration("/object");

        bool ok = expected.isNull();
        QVERIFY(configuration.isValid());
        QCOMPARE(configuration.ReadConfigValue("GENERAL", "Nickname", "default", &ok, true),
                 expected.isNull() ? "default" : expected);
        QCOMPARE(ok, !expected.isNull());
        QCOMPARE(logged(), QByteArrayList());
    }

    void unusableFiles_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QByteArray>("reason");
        QTest::newRow("stray text") << QByteArray("[BLUETOOTH]\nbt-enable=1\n\n# x\nstray\nb=1\n")
                                    << QByteArray("Key file contains line “stray”");
        QTest::newRow("stray text at the end")
            << QByteArray("[A]\nb=c\nstray") << QByteArray("Key file contains line “stray”");
        QTest::newRow("zeros after a crash")
            << QByteArray("[BLUETOOTH]\n") + QByteArray(64, '\0') << QByteArray("not UTF-8 text");
        QTest::newRow("below a file") << QByteArray() << QByteArray();
    }

    void unusableFiles()
    {
        QFETCH(QByteArray, file);
        QFETCH(QByteArray, reason);
        store(file);
        if (file.isNull())
            usePath("settings.ini/settings.ini");
        const QByteArray complaint = "1 /object settings file " + m_path + " unusable: " + reason;

        Configuration configuration("/object");

        QVERIFY(!configuration.isValid());
        QVERIFY(loggedOnce(complaint));
        bool ok = true;
        QCOMPARE(configuration.ReadConfigValue("BLUETOOTH", "bt-enable", 77, &ok, true), 77);
        QVERIFY(!ok);
        QCOMPARE(configuration.ReadConfigValue("GENERAL", "Nickname", "x", &ok, true),
                 QString("x"));
        QCOMPARE(logged(), QByteArrayList());
        QVERIFY(!configuration.WriteConfigValue("BLUETOOTH", "bt-enable", "1", false));
        QVERIFY(loggedOnce(complaint));
        QCOMPARE(content(m_path), file);
    }

    void writes_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("after");
        const auto row = [](const char *name, const char *before, const char *after) {
            QTest::newRow(name) << QByteArray(before) << QByteArray(after);
        };
        row("new key in a commented file",
            "# Product\n\n[GENERAL]\n; the name\nNickname=x y\nNickname[de]=z\n\n  ; Radio\n\n"
            "[BLUETOOTH]\nbt-latency=5\n;bt-pid=1\nunknown=\\s;\n;\n",
            "# Product\n\n[GENERAL]\n; the name\nNickname=x y\nNickname[de]=z\n\n  ; Radio\n\n"
            "[BLUETOOTH]\nbt-latency=5\n;bt-pid=1\nunknown=\\s;\n;\nbt-pid=1234\n");
        row("changed key", "[BLUETOOTH]\n# four digits\nbt-pid=7351\nbt-enable=0\n[GENERAL]\na=b\n",
            "[BLUETOOTH]\n# four digits\nbt-pid=1234\nbt-enable=0\n\n[GENERAL]\na=b\n");
        row("comments that look hidden", "#\x1f;b\n;c\n",
            "#\x1f;b\n;c\n\n[BLUETOOTH]\nbt-pid=1234\n");
        row("comment alone", ";x", ";x\n\n[BLUETOOTH]\nbt-pid=1234\n");
        row("empty file", "", "[BLUETOOTH]\nbt-pid=1234\n");
    }

    void writes()
    {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, after);
        store(before);
        Configuration configuration("/object");

        QVERIFY(configuration.WriteConfigValue("BLUETOOTH", "bt-pid", "1234", false));

        QCOMPARE(content(m_path), after);
        QCOMPARE(configuration.ReadConfigValue("BLUETOOTH", "bt-pid", 0, nullptr, true), 1234);
        QVERIFY(isAlone());
        QCOMPARE(logged(), QByteArrayList());
    }

    void roundTrip()
    {
        for (const QString text :
             {"", "  a b  ", "# a; b", "[x]=y", "C:\\new\\", "a\nb\r\tc", "ü 🎵"}) {
            QVERIFY(Configuration("/object").WriteConfigValue("GENERAL", "Nickname", text, false));
            Configuration written("/object");
            QCOMPARE(written.ReadConfigValue("GENERAL", "Nickname", "-", nullptr, true), text);
        }
    }

    void firstWriteMakesFolder()
    {
        usePath("a/b/settings.ini");
        Configuration configuration("/object");
        QVERIFY(configuration.isValid());
        QVERIFY(!QFile::exists(m_folder->filePath("a")));

        QVERIFY(configuration.WriteConfigValue("BLUETOOTH", "bt-pid", "1234", false));

        QCOMPARE(content(m_path), QByteArray("[BLUETOOTH]\nbt-pid=1234\n"));
        QCOMPARE(int(status().st_mode & 0777), 0600);
    }

    void keepsOwnerAndMode()
    {
        store("[BLUETOOTH]\n");
        if (geteuid() == 0)
            QCOMPARE(chown(m_path.constData(), 1234, 5678), 0);
        QCOMPARE(chmod(m_path.constData(), 0664), 0);
        const struct stat before = status();

        QVERIFY(Configuration("/object").WriteConfigValue("BLUETOOTH", "bt-pid", "1234", false));

        const struct stat after = status();
        QCOMPARE(after.st_mode, before.st_mode);
        QCOMPARE(after.st_uid, before.st_uid);
        QCOMPARE(after.st_gid, before.st_gid);
        QVERIFY(after.st_ino != before.st_ino);
    }

    void writesThroughLinks_data()
    {
        QTest::addColumn<bool>("targetExists");
        QTest::newRow("to a file") << true;
        QTest::newRow("to nothing yet") << false;
    }

    void writesThroughLinks()
    {
        QFETCH(bool, targetExists);
        const QString target = m_folder->filePath("data/real.ini");
        QVERIFY(QDir(m_folder->path()).mkdir("data"));
        if (targetExists) {
            store("[GENERAL]\na=b\n");
            QVERIFY(QFile::rename(m_path, target));
        }
        QVERIFY(QFile::link("hop", m_path));
        QVERIFY(QFile::link("data/real.ini", m_folder->filePath("hop")));

        QVERIFY(Configuration("/object").WriteConfigValue("GENERAL", "c", "d", false));

        QCOMPARE(content(target),
                 QByteArray(targetExists ? "[GENERAL]\na=b\nc=d\n" : "[GENERAL]\nc=d\n"));
        QVERIFY(QFileInfo(m_path).isSymLink());
        QVERIFY(QFileInfo(m_folder->filePath("hop")).isSymLink());
    }

    void keepsWhatOthersWrote()
    {
        Configuration first("/object");
        Configuration second("/object");
        QVERIFY(first.WriteConfigValue("BLUETOOTH", "bt-enable", "1", false));
        QVERIFY(second.WriteConfigValue("BLUETOOTH", "bt-pid", "1234", false));
        QCOMPARE(content(m_path), QByteArray("[BLUETOOTH]\nbt-enable=1\nbt-pid=1234\n"));

        store("broken\n");
        QVERIFY(!first.WriteConfigValue("BLUETOOTH", "bt-enable", "0", false));
        QCOMPARE(content(m_path), QByteArray("broken\n"));
    }

    void fullDisk()
    {
        const QByteArray before = "[GENERAL]\nlong=" + QByteArray(5000, 'x') + "\n";
        store(before);
        Configuration configuration("/object");
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit saved;
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
        const struct rlimit small = {1000, saved.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);

        const bool written = configuration.WriteConfigValue("GENERAL", "a", "b", false);

        QCOMPARE(setrlimit(RLIMIT_FSIZE, &saved), 0);
        QVERIFY(!written);
        QVERIFY(loggedOnce("2 /object settings file " + m_path + " not written: "));
        QCOMPARE(content(m_path), before);
        QVERIFY(isAlone());
        QCOMPARE(configuration.ReadConfigValue("GENERAL", "a", "unchanged", nullptr, true),
                 QString("unchanged"));
    }

    /// Who reads while somebody writes, or after he was killed, finds all of it.
    void wholeAtAnyMoment()
    {
        store("[GENERAL]\nlong=" + QByteArray(5000, 'x') + "\na=0\n");
        const pid_t writer = fork();
        if (writer == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            Configuration configuration("/object");
            for (int i = 1;; i = (i + 1) % 10)
                configuration.WriteConfigValue("GENERAL", "a", QString::number(i), false);
        }
        QVERIFY(writer > 0);
        const int length = content(m_path).size();
        QTRY_VERIFY(!content(m_path).endsWith("a=0\n")); // it is under way
        int differing = 0;
        for (int i = 0; i < 1000; ++i)
            differing += content(m_path).size() != length;
        kill(writer, SIGKILL);
        QCOMPARE(waitpid(writer, nullptr, 0), writer);
        QCOMPARE(differing, 0);
        QCOMPARE(content(m_path).size(), length);
    }

    void unwritableFolder()
    {
        QVERIFY(QFile::link("/proc/settings.ini", m_path)); // where not even root makes files
        Configuration configuration("/object");
        QVERIFY(configuration.isValid());
        QVERIFY(!configuration.WriteConfigValue("GENERAL", "a", "b", false));
        QVERIFY(loggedOnce("2 /object settings file " + m_path + " not written: "));
    }

    void withoutLogClient()
    {
        store("broken\n");
        _logInterface = nullptr;
        QVERIFY(!Configuration("/object").isValid());
    }

private:
    void usePath(const char *name)
    {
        m_path = QFile::encodeName(m_folder->filePath(name));
        qputenv("ULMO_SETTINGS", m_path);
    }

    void store(const QByteArray &text)
    {
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(text), qint64(text.size()));
    }

    struct stat status() const
    {
        struct stat found = {};
        stat(m_path.constData(), &found);
        return found;
    }

    /** Whether no temporary file has been left beside the settings. */
    bool isAlone() const
    {
        return QDir(m_folder->path()).entryList(QDir::Files | QDir::Hidden)
            == QStringList("settings.ini");
    }

    /** The lines logged since the last call, without their clock. */
    QByteArrayList logged()
    {
        QByteArrayList lines = m_standardError->takeLines();
        for (QByteArray &line : lines)
            line.remove(0, int(strlen("HH:MM:SS.mmm ")));
        return lines;
    }

    bool loggedOnce(const QByteArray &beginning)
    {
        const QByteArrayList lines = logged();
        const bool found = lines.size() == 1 && lines.first().startsWith(beginning);
        if (!found)
            qWarning() << "expected" << beginning << "found" << lines;
        return found;
    }

    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<StandardError> m_standardError;
    std::unique_ptr<LogInterface> m_log;
    QByteArray m_path;
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_configuration.moc"
