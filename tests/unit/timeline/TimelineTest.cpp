// The timeline page, looked at in a real browser, and what it is written from.
#include "EntryText.h"
#include "SampleRun.h"
#include "Sound.h"
#include "Timeline.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace {

const int BrowserTimeoutMs = 120000;
const qint64 MostBytes = 2 * 1024 * 1024;
const double LongestOpeningMs = 5000; // measured: 0.4 s
const double LongestDrawingMs = 2000; // measured: 0.1 s

QByteArray contents(const QString &fileName)
{
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &fileName, const QByteArray &contents)
{
    QFile file(fileName);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

QString pageUrl(const QString &folder)
{
    return QUrl::fromLocalFile(folder + "/timeline.html").toString(QUrl::FullyEncoded);
}

QJsonObject fields(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace

class TimelineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void entriesInWords_data();
    void entriesInWords();
    void soundInItsPlace();
    void soundOfALongRunIsSmall();
    void withoutJournal();
    void writtenAgain();
    void inTheBrowser_data();
    void inTheBrowser();
    void states();
    void longRun();
    void printed_data();
    void printed();

private:
    QString written(const QString &run);
    bool hasBrowser() const { return !m_browser.isEmpty(); }
    QByteArray runBrowser(const QStringList &options, const QString &url, QByteArray *errors);
    QJsonObject checked(const QString &folder, const QString &name,
                        const QStringList &options = {"--virtual-time-budget=600000"},
                        const QString &scheme = {});

    QTemporaryDir m_folder;
    QString m_browser;
    int m_profiles = 0;
};

#define SKIP_WITHOUT_BROWSER()                                                                     \
    if (!hasBrowser())                                                                             \
    QSKIP("no chromium here to open the page in")

/// The folder of the run of this name and its page, both written when first asked for.
QString TimelineTest::written(const QString &run)
{
    const QString folder = m_folder.filePath(run);
    if (QFileInfo::exists(folder + "/timeline.html"))
        return folder;
    const bool isWritten = run == "road" ? writeRoadOfOnePhone(folder)
        : run == "hostile"               ? writeHostileRun(folder)
                                         : writeEmptyRun(folder);
    QString error;
    if (!isWritten || !writeTimeline(folder, &error))
        throw std::runtime_error("cannot write the run: " + error.toStdString());
    return folder;
}

/// What the browser prints. Its own complaints aside, \p errors gets what the page says.
QByteArray TimelineTest::runBrowser(const QStringList &options, const QString &url,
                                    QByteArray *errors)
{
    QProcess browser;
    browser.start(m_browser,
                  QStringList {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                               "--no-first-run", "--disable-background-networking",
                               "--disable-component-update", "--disable-sync",
                               "--disable-dev-shm-usage", "--hide-scrollbars",
                               "--allow-file-access-from-files", "--enable-logging=stderr",
                               "--user-data-dir="
                                   + m_folder.filePath("profile" + QString::number(++m_profiles))}
                          + options
                      << url);
    if (!browser.waitForFinished(BrowserTimeoutMs)) {
        browser.kill();
        browser.waitForFinished();
        *errors = "the browser did not finish";
        return QByteArray();
    }
    for (const QByteArray &line : browser.readAllStandardError().split('\n')) {
        if (line.contains("CONSOLE"))
            *errors += line + '\n';
    }
    return browser.readAllStandardOutput();
}

/// What check.js found; an object without "done" when it did not come to its end.
QJsonObject TimelineTest::checked(const QString &folder, const QString &name,
                                  const QStringList &options, const QString &scheme)
{
    QUrl url = QUrl::fromLocalFile(CHECK_FOLDER "/check.html");
    url.setQuery("case=" + name + "&scheme=" + scheme
                 + "&page=" + QUrl::toPercentEncoding(pageUrl(folder)));
    QByteArray errors;
    const QByteArray page =
        runBrowser(QStringList(options) << "--dump-dom", url.toString(QUrl::FullyEncoded), &errors);
    static const QRegularExpression resultPattern("<pre id=\"result\">([^<]*)</pre>");
    const QByteArray escaped = resultPattern.match(QString::fromUtf8(page)).captured(1).toLatin1();
    QJsonObject result = QJsonDocument::fromJson(QByteArray::fromPercentEncoding(escaped)).object();
    if (!errors.isEmpty())
        result.insert("console", QString::fromUtf8(errors));
    return result;
}

void TimelineTest::initTestCase()
{
    QVERIFY(m_folder.isValid());
    m_browser = QStandardPaths::findExecutable("chromium");
}

void TimelineTest::entriesInWords_data()
{
    QTest::addColumn<QByteArray>("entry");
    QTest::addColumn<QString>("text");

    const auto row = [](const char *name, const char *entry, const char *text) {
        QTest::newRow(name) << QByteArray(entry) << QString::fromUtf8(text);
    };
    row("log", R"({"kind":"log","text":"[a.cpp:1] f: m","message":"m"})", "m");
    row("log without prefix", R"({"kind":"log","text":"plain"})", "plain");
    row("start", R"({"kind":"start","program":"hciconfig","arguments":["hci0","up"]})",
        "hciconfig hci0 up starts");
    row("exit", R"({"kind":"end","program":"pactl","arguments":["stat"],"status":1})",
        "pactl stat ends with status 1");
    row("killed by number", R"({"kind":"end","program":"agent","signal":9})",
        "agent ends by SIGKILL");
    row("killed by name", R"({"kind":"end","program":"agent","signal":"SIGTERM"})",
        "agent ends by SIGTERM");
    row("end of unknown cause", R"({"kind":"end","program":"agent"})", "agent ends");
    row("call",
        R"({"lane":"bus","kind":"call","senderName":"caller","destinationName":"service","destination":":1.2",
            "interface":"com.orbitalis.ulmo.bluetoothinterface","member":"SetVolume",
            "arguments":[40]})",
        "caller \u2192 service: bluetoothinterface.SetVolume(40)");
    row("call without interface",
        R"({"lane":"bus","kind":"call","senderName":"service","destination":"x.y","member":"Play"})",
        "service \u2192 x.y: Play()");
    row("reply",
        R"({"lane":"bus","kind":"reply","senderName":"service","destinationName":"caller","interface":"a.B",
            "member":"GetStatus","arguments":[0,true,"7351",["x"],{"k":1}]})",
        "service \u2192 caller: B.GetStatus answers 0, true, \"7351\", [\"x\"], {\"k\":1}");
    row("error",
        R"({"lane":"bus","kind":"error","senderName":"org.bluez","destinationName":"service","interface":"a.B",
            "member":"Connect","name":"org.bluez.Error.Failed","text":"no"})",
        "org.bluez \u2192 service: B.Connect fails, org.bluez.Error.Failed \"no\"");
    row("signal of a device",
        R"({"lane":"bus","kind":"signal","senderName":"org.bluez","path":"/org/bluez/1/hci0/dev_00_11",
            "interface":"org.bluez.Device","member":"PropertyChanged",
            "arguments":["Connected",false]})",
        "org.bluez: Device.PropertyChanged(\"Connected\", false) of dev_00_11");
    row("phone", R"({"kind":"phone","phone":"anna","text":"plays"})", "anna: plays");
    row("error of another lane", R"({"lane":"control","kind":"error","text":"no such phone"})",
        "no such phone");
    row("fault", R"({"kind":"fault","text":"fault agent crash"})", "fault agent crash");
    row("unknown kind", R"({"time":1,"lane":"board","kind":"heard","level":-6})",
        R"({"level":-6})");
}

void TimelineTest::entriesInWords()
{
    QFETCH(QByteArray, entry);
    QFETCH(QString, text);
    QCOMPARE(entryText(fields(entry)), text);
}

/// Two stretches with a break between them; a loud half after a silent one in the second.
void TimelineTest::soundInItsPlace()
{
    const QString path = m_folder.filePath("two-stretches.raw");
    std::vector<std::int16_t> samples(44100 * 2, 0); // half a second each
    for (std::size_t i = 44100 + 22050; i < samples.size(); i += 2) {
        samples[i] = 16384;
        samples[i + 1] = -8192;
    }
    QVERIFY(writeFile(path,
                      QByteArray(reinterpret_cast<const char *>(samples.data()),
                                 int(samples.size() * sizeof samples[0]))));
    QVERIFY(writeFile(path + ".log",
                      "start frame=0 monotonic=102.000000000 realtime=1.0 buffer=1 period=1\n"
                      "stop frame=22050 monotonic=102.500000000 realtime=1.5\n"
                      "start frame=22050 monotonic=110.000000000 realtime=9.0 buffer=1 period=1\n"
                      "underrun frame=30870 frames=10\n"
                      "stop frame=44100 monotonic=110.500000000 realtime=9.5\n"));

    const QJsonObject outline = soundOutline(path, 100);
    const double bucket = outline.value("bucket").toDouble();
    QCOMPARE(bucket, 0.01);
    const QJsonArray stretches = outline.value("stretches").toArray();
    QCOMPARE(stretches.size(), 2);
    QCOMPARE(stretches.at(0)["start"].toDouble(), 2.0);
    QCOMPARE(stretches.at(1)["start"].toDouble(), 10.0);
    QByteArray silence(2 * 50, 0);
    QCOMPARE(QByteArray::fromBase64(stretches.at(0)["peaks"].toString().toLatin1()), silence);
    silence.chop(2 * 25);
    QCOMPARE(QByteArray::fromBase64(stretches.at(1)["peaks"].toString().toLatin1()),
             silence + QByteArray("\xe0\x40", 2).repeated(25)); // -32 and 64 of 127
    QCOMPARE(outline.value("late").toArray().size(), 1);
    QVERIFY(std::abs(outline.value("late").toArray().at(0).toDouble() - 10.2) < bucket);

    QVERIFY(soundOutline(m_folder.filePath("none.raw"), 0).isEmpty());
}

void TimelineTest::soundOfALongRunIsSmall()
{
    const QString path = m_folder.filePath("long.raw");
    QFile raw(path);
    QVERIFY(raw.open(QIODevice::WriteOnly));
    QVERIFY(raw.resize(600 * 44100 * 4LL)); // ten minutes
    QVERIFY(writeFile(path + ".log", "start frame=0 monotonic=1.0 realtime=1.0 buffer=1\n"));
    const QJsonArray stretches = soundOutline(path, 0).value("stretches").toArray();
    QCOMPARE(stretches.size(), 1);
    QVERIFY(stretches.at(0)["peaks"].toString().size() < 12000);
}

void TimelineTest::withoutJournal()
{
    QString error;
    QVERIFY(!writeTimeline(m_folder.filePath("nothing"), &error));
    QVERIFY2(error.contains("journal.jsonl"), qPrintable(error));
    QVERIFY(!QFileInfo::exists(m_folder.filePath("nothing/timeline.html")));
}

void TimelineTest::writtenAgain()
{
    const QString folder = written("road");
    const QByteArray before = contents(folder + "/timeline.html");
    QVERIFY(QFile::remove(folder + "/timeline.html"));
    QCOMPARE(QProcess::execute(WRITE_TIMELINE, {folder}), 0);
    QCOMPARE(contents(folder + "/timeline.html"), before);
    QCOMPARE(QProcess::execute(WRITE_TIMELINE, {m_folder.filePath("nothing")}), 1);
    QCOMPARE(QProcess::execute(WRITE_TIMELINE, {}), 2);
}

void TimelineTest::inTheBrowser_data()
{
    QTest::addColumn<QString>("run");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("scheme");
    QTest::addColumn<QStringList>("options");

    const QString wide = "--window-size=1440,1000";
    QTest::newRow("road") << "road"
                          << "road"
                          << "light" << QStringList {wide};
    QTest::newRow("light") << "road"
                           << "looks"
                           << "light" << QStringList {wide};
    QTest::newRow("dark, no motion")
        << "road"
        << "looks"
        << "dark" << QStringList {wide, "--force-prefers-reduced-motion"};
    QTest::newRow("narrow") << "road"
                            << "looks"
                            << "light" << QStringList {"--window-size=500,900"};
    QTest::newRow("hostile") << "hostile"
                             << "hostile"
                             << "light" << QStringList {wide};
    QTest::newRow("empty") << "empty"
                           << "empty"
                           << "light" << QStringList {wide};
}

void TimelineTest::inTheBrowser()
{
    SKIP_WITHOUT_BROWSER();
    QFETCH(QString, run);
    QFETCH(QString, name);
    QFETCH(QString, scheme);
    QFETCH(QStringList, options);
    const int preferred = scheme == "dark" ? 0 : 1;
    options << QString("--blink-settings=preferredColorScheme=%1").arg(preferred)
            << "--virtual-time-budget=600000";
    const QJsonObject result = checked(written(run), name, options, scheme);
    for (const QJsonValue failure : result.value("failures").toArray())
        qWarning("%s", qPrintable(failure.toString()));
    QVERIFY2(result.value("done").toBool(), "the checks did not come to their end");
    QVERIFY(result.value("checked").toInt() > 3);
    QCOMPARE(result.value("failures").toArray().size(), 0);
    QCOMPARE(result.value("console").toString(), QString());
}

/// All of them are runs of the service in one page, which is opened once.
void TimelineTest::states()
{
    SKIP_WITHOUT_BROWSER();
    const QString source = "AudioSourcePropertyChanged (org.bluez.AudioSource)/a/%1 State=%2";
    const QString connected = "DevicePropertyChanged (org.bluez.Device)/a/A Connected=true";
    const QString accepted = "Device /a/A CONNECTED AND ACCEPTED";
    const QStringList own {source.arg("A", "connecting"), "connection coming from ulmo", connected,
                           accepted, source.arg("A", "connected")};
    const QString ownStates = "Idle, LocalConnecting, AcceptedLocal, Streaming";
    const QStringList on {"startStartupSequence requested", "agent started and wait registration"};
    const struct
    {
        const char *name;
        QStringList messages;
        QString stack;
        QString connection; // and the reconnect, if any
    } cases[] = {
        {"nothing", {}, "Off", "Idle"},
        {"switched off", on + QStringList {"forceSyncDown"}, "Off, Starting, On, Off", "Idle"},
        {"a start that is none",
         on + QStringList {on.first(), "startStartupSequence bluez already running"},
         "Off, Starting, On, Starting, On", "Idle"},
        {"crash while starting",
         {on.first(), "bluezDown down 1 normal", "forceSyncDown", "restart", on.first()},
         "Off, Starting, Restart pending, Starting",
         "Idle"},
        {"stopped while a restart is pending",
         on + QStringList {"bluezDown down 9 crash", "forceSyncDown", "restart", "forceSyncDown"},
         "Off, Starting, On, Restart pending, Off", "Idle"},
        {"no answer from bluetoothd",
         {on.first(), "bluez service timeout !!!!!!!!!!!!!! ", "forceSyncDown"},
         "Off, Starting, Off",
         "Idle"},
        {"own connection", own, "Off", ownStates},
        {"own connection of a source seen before",
         QStringList {source.arg("A", "disconnected")} + own, "Off",
         "Idle, Seen, LocalConnecting, AcceptedLocal, Streaming"},
        {"playing at once", own.mid(0, 4) + QStringList {source.arg("A", "playing")}, "Off",
         ownStates},
        {"the source seen first is the one",
         {source.arg("A", "disconnected"), source.arg("B", "connecting"),
          "disconnect device because there is another", "Disconnect /a/B"},
         "Off",
         "Idle, Seen"},
        {"another one disturbs nothing",
         own
             + QStringList {source.arg("B", "connected"),
                            "disconnect device because there is another", "Disconnect /a/B",
                            source.arg("B", "disconnected")},
         "Off", ownStates},
        {"pause", own + QStringList {source.arg("A", "playing"), source.arg("A", "connected")},
         "Off", ownStates},
        {"a remote connection is not played",
         {connected, accepted, source.arg("A", "connecting"), source.arg("A", "playing")},
         "Off",
         "Idle, AcceptedRemote"},
        {"reconnect after a while",
         {connected, accepted, "load timer for reconnect", "waiting to reconnect", "reconnect",
          "Disconnect /a/A", "Device /a/A DISCONNECT", "connectAudioSource /a/A"},
         "Off",
         "Idle, AcceptedRemote, Idle, Reconnect pending"},
        {"reconnect at once",
         {connected, accepted, "reconnect", "connectAudioSource /a/A"},
         "Off",
         "Idle, AcceptedRemote, Reconnect pending"},
        {"the source disconnects only its audio",
         own + QStringList {source.arg("A", "disconnected")}, "Off", ownStates},
        {"another device leaves", own + QStringList {"Device /a/B DISCONNECT"}, "Off", ownStates},
        {"the device leaves", own + QStringList {"Device /a/A DISCONNECT"}, "Off",
         ownStates + ", Idle"},
        {"PulseAudio ends", own + QStringList {"pulseaudio down 9 crash"}, "Off",
         ownStates + ", Idle"},
        {"suspend", own + QStringList {"[!] ULMO IS SUSPENDING"}, "Off", ownStates + ", Idle"},
        {"stack down", own + QStringList {"forceSyncDown"}, "Off", ownStates + ", Idle"},
    };

    QVector<QStringList> runs;
    for (const auto &oneCase : cases)
        runs << oneCase.messages;
    const QString folder = m_folder.filePath("states");
    QString error;
    QVERIFY(writeServiceRuns(folder, runs));
    QVERIFY2(writeTimeline(folder, &error), qPrintable(error));
    const QJsonObject result = checked(folder, "bands");
    QVERIFY(result.value("done").toBool());

    QStringList found;
    for (const QJsonValue run : result.value("values")["runs"].toArray())
        found << run.toString();
    QStringList expected;
    for (const auto &oneCase : cases)
        expected << oneCase.stack + "; " + oneCase.connection;
    for (int i = 0; i < found.size() && i < expected.size(); ++i)
        QVERIFY2(
            found.at(i) == expected.at(i),
            qPrintable(QString("%1: %2, not %3").arg(cases[i].name, found.at(i), expected.at(i))));
    QCOMPARE(found.size(), expected.size());
}

void TimelineTest::longRun()
{
    SKIP_WITHOUT_BROWSER();
    const QString folder = m_folder.filePath("long");
    QString error;
    QVERIFY(writeLongRun(folder, 5000));
    QVERIFY2(writeTimeline(folder, &error), qPrintable(error));
    const qint64 size = QFileInfo(folder + "/timeline.html").size();
    QVERIFY2(size < MostBytes, qPrintable(QString::number(size)));

    const QJsonObject result = checked(folder, "measure", {"--window-size=1440,1000"});
    QCOMPARE(result.value("failures").toArray(), QJsonArray());
    QCOMPARE(result.value("console").toString(), QString());
    QVERIFY(result.value("done").toBool());
    const double opening = result.value("values")["opening"].toDouble();
    const double drawing = result.value("values")["drawing"].toDouble();
    qInfo("%.0f KiB, opened in %.0f ms, drawn again in %.0f ms", double(size) / 1024, opening,
          drawing);
    QVERIFY(opening > 0 && opening < LongestOpeningMs);
    QVERIFY(drawing > 0 && drawing < LongestDrawingMs);
}

void TimelineTest::printed_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("road") << "road";
    QTest::newRow("hostile") << "hostile";
}

void TimelineTest::printed()
{
    SKIP_WITHOUT_BROWSER();
    QFETCH(QString, name);
    const QString folder = written(name);
    const QString fileName = m_folder.filePath(name + ".pdf");
    QByteArray errors;
    runBrowser({"--no-pdf-header-footer", "--blink-settings=preferredColorScheme=0",
                "--print-to-pdf=" + fileName},
               pageUrl(folder), &errors);
    const QByteArray bytes = contents(fileName);
    const QString pdf = QString::fromLatin1(bytes.constData(), bytes.size());
    QCOMPARE(pdf.count(QRegularExpression("/Type\\s*/Page\\b")), 1);
    const QRegularExpressionMatch box =
        QRegularExpression(R"(/MediaBox\s*\[0 0 ([\d.]+) ([\d.]+)\])").match(pdf);
    QVERIFY(box.hasMatch());
    QVERIFY(box.captured(1).toDouble() > box.captured(2).toDouble()); // landscape
    QCOMPARE(QString::fromUtf8(errors), QString());
}

QTEST_GUILESS_MAIN(TimelineTest)
#include "TimelineTest.moc"
