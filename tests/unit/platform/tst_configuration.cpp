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
#include <sys/resource.h>
#include <sys/stat.h>

LogInterface *_logInterface = nullptr;

namespace {
const char ObjectPath[] = "/object";

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
        m_path = m_folder->filePath("settings.ini");
        qputenv("ULMO_SETTINGS", QFile::encodeName(m_path));
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
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("expected");
        QTest::addColumn<bool>("usable");

        QTest::newRow("zero") << QByteArray("0") << 0 << true;
        QTest::newRow("negative") << QByteArray("-5") << -5 << true;
        QTest::newRow("blanks around") << QByteArray("  5000 \t") << 5000 << true;
        QTest::newRow("leading zeros") << QByteArray("0100") << 100 << true;
        QTest::newRow("greatest") << QByteArray("2147483647") << INT_MAX << true;
        QTest::newRow("too great") << QByteArray("2147483648") << 77 << false;
        QTest::newRow("empty") << QByteArray("") << 77 << false;
        QTest::newRow("word") << QByteArray("yes") << 77 << false;
        QTest::newRow("comment behind") << QByteArray("5 ; five") << 77 << false;
        QTest::newRow("fraction") << QByteArray("1.0") << 77 << false;
        QTest::newRow("hexadecimal") << QByteArray("0x10") << 77 << false;
    }

    void integers()
    {
        QFETCH(QByteArray, value);
        QFETCH(int, expected);
        QFETCH(bool, usable);
        store("[BLUETOOTH]\nbt-latency=" + value + "\n");
        Configuration configuration(ObjectPath);

        bool ok = !usable;
        QCOMPARE(configuration.ReadConfigValue("BLUETOOTH", "bt-latency", 77, &ok, true), expected);
        QCOMPARE(ok, usable);
        if (usable)
            QCOMPARE(logged(), QByteArrayList());
        else
            QVERIFY(loggedOnce("2 /object settings file " + m_path.toUtf8()
                               + " [BLUETOOTH] bt-latency: \"" + value.trimmed() + "\""));
        QVERIFY(configuration.isValid());
    }

    void texts_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("usable");

        const QString none("the default");
        QTest::newRow("plain") << QByteArray("[GENERAL]\nNickname=Kitchen\n") << "Kitchen" << true;
        QTest::newRow("blanks around =")
            << QByteArray("\n  [GENERAL]  \nNickname  =  Living Room #2\n") << "Living Room #2"
            << true;
        QTest::newRow("semicolon and =")
            << QByteArray("[GENERAL]\nNickname=a;b=c\n") << "a;b=c" << true;
        QTest::newRow("empty") << QByteArray("[GENERAL]\nNickname=\n") << "" << true;
        QTest::newRow("last counts")
            << QByteArray("[GENERAL]\nNickname=a\n[X]\n[GENERAL]\nNickname=b\n") << "b" << true;
        QTest::newRow("no newline at the end")
            << QByteArray("[GENERAL]\nNickname=x") << "x" << true;
        QTest::newRow("from Windows")
            << QByteArray("\xef\xbb\xbf; Notiz\r\n[GENERAL]\r\n\r\nNickname=K\xc3\xbc"
                          "che\r\n")
            << QString::fromUtf8("K\xc3\xbc"
                                 "che")
            << true;
        QTest::newRow("other section") << QByteArray("[General]\nNickname=x\n") << none << false;
        QTest::newRow("other key") << QByteArray("[GENERAL]\nnickname=x\n") << none << false;
        QTest::newRow("empty file") << QByteArray("") << none << false;
        QTest::newRow("unknown escape")
            << QByteArray("[GENERAL]\nNickname=C:\\Audio\n") << "C:\\Audio" << true;
        QTest::newRow("comments of both kinds")
            << QByteArray("; a\n# b\n ;c=d\n[GENERAL]\n;Nickname=x\n#Nickname=y\nNickname=z ; w\n")
            << "z ; w" << true;
    }

    void texts()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, expected);
        QFETCH(bool, usable);
        store(file);
        Configuration configuration(ObjectPath);

        bool ok = !usable;
        QVERIFY(configuration.isValid());
        QCOMPARE(configuration.ReadConfigValue("GENERAL", "Nickname", "the default", &ok, true),
                 expected);
        QCOMPARE(ok, usable);
        QCOMPARE(logged(), QByteArrayList());
    }

    void nullOk()
    {
        store("[BLUETOOTH]\nbt-pid=1234\n");
        Configuration configuration(ObjectPath);
        QCOMPARE(configuration.ReadConfigValue("BLUETOOTH", "bt-pid", 0, nullptr, true), 1234);
        QCOMPARE(configuration.ReadConfigValue("BLUETOOTH", "bt-pid", QString(), nullptr, true),
                 QString("1234"));
    }

    void unusableFiles_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QByteArray>("place");

        QTest::newRow("stray text")
            << QByteArray("[BLUETOOTH]\nbt-enable=1\n\n# x\nstray\nbt-pid=1\n")
            << QByteArray("line 5: ");
        QTest::newRow("stray text at the end")
            << QByteArray("[A]\nb=c\nstray") << QByteArray("line 3: ");
        QTest::newRow("key outside a section")
            << QByteArray("# x\nbt-enable=1\n[BLUETOOTH]\n") << QByteArray("line 2: ");
        QTest::newRow("open bracket") << QByteArray("[BLUETOOTH\n") << QByteArray("line 1: ");
        QTest::newRow("not UTF-8") << QByteArray("[GENERAL]\nNickname=K\xfc"
                                                 "che\n")
                                   << QByteArray("line 2: not UTF-8 text");
        QTest::newRow("zeros after a crash") << QByteArray("[BLUETOOTH]\n") + QByteArray(64, '\0')
                                             << QByteArray("line 2: not UTF-8 text");
    }

    void unusableFiles()
    {
        QFETCH(QByteArray, file);
        QFETCH(QByteArray, place);
        store(file);
        const QByteArray complaint =
            "1 /object settings file " + m_path.toUtf8() + " unusable: " + place;

        Configuration configuration(ObjectPath);

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

    void unreadableFiles_data()
    {
        QTest::addColumn<QString>("below");
        QTest::newRow("a folder") << QString();
        QTest::newRow("below a file") << QString("file/settings.ini");
    }

    void unreadableFiles()
    {
        QFETCH(QString, below);
        QFile file(m_folder->filePath("file"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        m_path = m_folder->filePath(below);
        qputenv("ULMO_SETTINGS", QFile::encodeName(m_path));

        Configuration configuration(ObjectPath);

        QVERIFY(!configuration.isValid());
        QVERIFY(loggedOnce("1 /object settings file " + m_path.toUtf8() + " unusable: "));
        QVERIFY(!configuration.WriteConfigValue("BLUETOOTH", "bt-enable", "1", false));
        QVERIFY(loggedOnce("1 /object settings file "));
    }

    void writes_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("after");

        QTest::newRow("new key in a commented file")
            << QByteArray("# Product\n\n[GENERAL]\n; the name\nNickname=x y\nNickname[de]=z\n\n"
                          "  ; Radio\n\n[BLUETOOTH]\nbt-latency=5\n;bt-pid=1\nunknown=\\s;\n;\n")
            << QByteArray("# Product\n\n[GENERAL]\n; the name\nNickname=x y\nNickname[de]=z\n\n"
                          "  ; Radio\n\n[BLUETOOTH]\nbt-latency=5\n;bt-pid=1\nunknown=\\s;\n;\n"
                          "bt-pid=1234\n");
        QTest::newRow("changed key")
            << QByteArray("[BLUETOOTH]\n# four digits\nbt-pid=7351\nbt-enable=0\n[GENERAL]\na=b\n")
            << QByteArray(
                   "[BLUETOOTH]\n# four digits\nbt-pid=1234\nbt-enable=0\n\n[GENERAL]\na=b\n");
        QTest::newRow("comments that look hidden")
            << QByteArray("#\x1f;b\n;c\n")
            << QByteArray("#\x1f;b\n;c\n\n[BLUETOOTH]\nbt-pid=1234\n");
        QTest::newRow("comment alone")
            << QByteArray(";x") << QByteArray(";x\n\n[BLUETOOTH]\nbt-pid=1234\n");
        QTest::newRow("empty file") << QByteArray("") << QByteArray("[BLUETOOTH]\nbt-pid=1234\n");
    }

    void writes()
    {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, after);
        store(before);
        Configuration configuration(ObjectPath);

        QVERIFY(configuration.WriteConfigValue("BLUETOOTH", "bt-pid", "1234", false));

        QCOMPARE(content(m_path), after);
        QCOMPARE(configuration.ReadConfigValue("BLUETOOTH", "bt-pid", 0, nullptr, true), 1234);
        QCOMPARE(QDir(m_folder->path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList("settings.ini"));
        QCOMPARE(logged(), QByteArrayList());
    }

    void roundTrip_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << "";
        QTest::newRow("blanks around") << "  a b  ";
        QTest::newRow("only a blank") << " ";
        QTest::newRow("comment signs") << "# a; b";
        QTest::newRow("brackets and =") << "[x]=y";
        QTest::newRow("backslashes") << "C:\\new\\";
        QTest::newRow("control characters") << "a\nb\r\tc";
        QTest::newRow("quotes") << "\"a\" 'b'";
        QTest::newRow("not Latin") << QString::fromUtf8("K\xc3\xbc"
                                                        "che \xf0\x9f\x8e\xb5 \xd0\x96");
    }

    void roundTrip()
    {
        QFETCH(QString, text);
        QVERIFY(Configuration(ObjectPath).WriteConfigValue("GENERAL", "Nickname", text, false));
        bool ok = false;
        QCOMPARE(Configuration(ObjectPath).ReadConfigValue("GENERAL", "Nickname", "-", &ok, true),
                 text);
        QVERIFY(ok);
    }

    void firstWriteMakesFolder()
    {
        m_path = m_folder->filePath("a/b/settings.ini");
        qputenv("ULMO_SETTINGS", QFile::encodeName(m_path));
        Configuration configuration(ObjectPath);
        QVERIFY(configuration.isValid());
        QVERIFY(!QFile::exists(m_folder->filePath("a")));

        QVERIFY(configuration.WriteConfigValue("BLUETOOTH", "bt-pid", "1234", false));

        QCOMPARE(content(m_path), QByteArray("[BLUETOOTH]\nbt-pid=1234\n"));
        struct stat status;
        QCOMPARE(stat(QFile::encodeName(m_path).constData(), &status), 0);
        QCOMPARE(int(status.st_mode & 0777), 0600);
    }

    void keepsOwnerAndMode()
    {
        store("[BLUETOOTH]\n");
        const QByteArray path = QFile::encodeName(m_path);
        const bool isRoot = geteuid() == 0;
        if (isRoot)
            QCOMPARE(chown(path.constData(), 1234, 5678), 0);
        QCOMPARE(chmod(path.constData(), 0664), 0);
        struct stat before;
        QCOMPARE(stat(path.constData(), &before), 0);

        QVERIFY(Configuration(ObjectPath).WriteConfigValue("BLUETOOTH", "bt-pid", "1234", false));

        struct stat after;
        QCOMPARE(stat(path.constData(), &after), 0);
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

        QVERIFY(Configuration(ObjectPath).WriteConfigValue("GENERAL", "c", "d", false));

        QCOMPARE(content(target),
                 QByteArray(targetExists ? "[GENERAL]\na=b\nc=d\n" : "[GENERAL]\nc=d\n"));
        QVERIFY(QFileInfo(m_path).isSymLink());
        QVERIFY(QFileInfo(m_folder->filePath("hop")).isSymLink());
    }

    void keepsWhatOthersWrote()
    {
        Configuration first(ObjectPath);
        Configuration second(ObjectPath);
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
        Configuration configuration(ObjectPath);
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit saved;
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
        const struct rlimit small = {1000, saved.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);

        const bool written = configuration.WriteConfigValue("GENERAL", "a", "b", false);

        QCOMPARE(setrlimit(RLIMIT_FSIZE, &saved), 0);
        signal(SIGXFSZ, SIG_DFL);
        QVERIFY(!written);
        QVERIFY(loggedOnce("2 /object settings file " + m_path.toUtf8() + " not written: "));
        QCOMPARE(content(m_path), before);
        QCOMPARE(QDir(m_folder->path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList("settings.ini"));
        QCOMPARE(configuration.ReadConfigValue("GENERAL", "a", "unchanged", nullptr, true),
                 QString("unchanged"));
    }

    /** In /proc not even root makes files or folders. */
    void unwritableFolder_data()
    {
        QTest::addColumn<QString>("target");
        QTest::newRow("no file can be made") << "/proc/settings.ini";
        QTest::newRow("no folder can be made") << "/proc/ulmo/settings.ini";
    }

    void unwritableFolder()
    {
        QFETCH(QString, target);
        QVERIFY(QFile::link(target, m_path));
        Configuration configuration(ObjectPath);
        QVERIFY(configuration.isValid());

        QVERIFY(!configuration.WriteConfigValue("GENERAL", "a", "b", false));

        QVERIFY(loggedOnce("2 /object settings file " + m_path.toUtf8() + " not written: "));
    }

    void withoutLogClient()
    {
        store("broken\n");
        _logInterface = nullptr;
        QVERIFY(!Configuration(ObjectPath).isValid());
    }

private:
    void store(const QByteArray &text)
    {
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(text), qint64(text.size()));
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
    QString m_path;
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_configuration.moc"
