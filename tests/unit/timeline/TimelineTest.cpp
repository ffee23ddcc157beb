// The timeline page, looked at in a real browser, and what it is written from.
#include "EntryText.h"
#include "Sound.h"

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
#include <vector>

namespace {

const int BrowserTimeoutMs = 120000;
const qint64 MostBytes = 2 * 1024 * 1024;
const double Origin = 16365.021770806; // time 0 of the road by CLOCK_MONOTONIC

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

QJsonObject fields(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

QByteArray journalLine(const QJsonObject &entry)
{
    return QJsonDocument(entry).toJson(QJsonDocument::Compact) + '\n';
}

/// Each case of states.txt as a run of the service, which logs its title and expectation as well.
QByteArray statesJournal()
{
    QByteArray journal;
    int tenths = 0;
    for (const QByteArray &text : contents(FOLDER "/states.txt").split('\n')) {
        if (text.isEmpty() || text.startsWith('#'))
            continue;
        QJsonObject entry {{"lane", "service"}, {"program", "service"}, {"pid", 1}};
        const auto add = [&](const QString &kind) {
            entry.insert("kind", kind);
            entry.insert("time", ++tenths / 10.0);
            journal += journalLine(entry);
        };
        if (text.startsWith("== "))
            add("start");
        entry.insert("message", QString::fromUtf8(text));
        add("log");
        if (text.startsWith("= "))
            add("end");
    }
    return journal;
}

/// The road again and again, for ten minutes.
QByteArray longJournal()
{
    const QList<QByteArray> road =
        contents(FOLDER "/runs/road/journal.jsonl").trimmed().split('\n');
    QByteArray journal;
    for (int visit = 0; visit < 20; ++visit) {
        for (const QByteArray &text : road) {
            QJsonObject entry = fields(text);
            for (const char *clock : {"time", "monotonic"}) {
                if (entry.contains(clock))
                    entry.insert(clock, entry.value(clock).toDouble() + 30 * visit);
            }
            journal += journalLine(entry);
        }
    }
    return journal;
}

/// Sound for runs/road/board.raw.log: two stretches of half a second, and half of the second loud.
bool writeSound(const QString &fileName)
{
    std::vector<std::int16_t> samples(44100 * 2, 0);
    for (std::size_t i = 44100 + 22050; i < samples.size(); i += 2) {
        samples[i] = 16384;
        samples[i + 1] = -8192;
    }
    const auto *bytes = reinterpret_cast<const char *>(samples.data());
    return QFile::copy(FOLDER "/runs/road/board.raw.log", fileName + ".log")
        && writeFile(fileName, QByteArray(bytes, int(samples.size() * sizeof samples[0])));
}

} // namespace

class TimelineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void entriesInWords();
    void soundInItsPlace();
    void refusals();
    void inTheBrowser_data();
    void inTheBrowser();
    void printed();

private:
    /// Writes run and page into the folder of this name.
    bool write(const QString &run);
    QString pageUrl(const QString &run) const;
    /// What the browser prints. Its own complaints aside, \p errors gets what the page says.
    QByteArray runBrowser(const QStringList &options, const QString &url, QByteArray *errors);

    QTemporaryDir m_folder;
    QString m_browser;
};

bool TimelineTest::write(const QString &run)
{
    const QString folder = m_folder.filePath(run);
    const QByteArray journal = run == "states" ? statesJournal()
        : run == "long"                        ? longJournal()
                                               : contents(FOLDER "/runs/" + run + "/journal.jsonl");
    QFile sound(folder + "/board.raw");
    if (!QDir(folder).removeRecursively() || !QDir().mkpath(folder)
        || !writeFile(folder + "/journal.jsonl", journal)
        || (run == "road" && !writeSound(sound.fileName())))
        return false;
    if (run == "long"
        && (!writeFile(sound.fileName() + ".log", "start frame=0 monotonic=16365.0 realtime=1.0\n")
            || !sound.open(QIODevice::WriteOnly) || !sound.resize(600 * 44100 * 4LL)))
        return false;
    return QProcess::execute(WRITE_TIMELINE, {folder}) == 0
        && QFileInfo(folder + "/timeline.html").size() < MostBytes;
}

QString TimelineTest::pageUrl(const QString &run) const
{
    return QUrl::fromLocalFile(m_folder.filePath(run + "/timeline.html"))
        .toString(QUrl::FullyEncoded);
}

QByteArray TimelineTest::runBrowser(const QStringList &options, const QString &url,
                                    QByteArray *errors)
{
    QTemporaryDir profile;
    QProcess browser;
    browser.start(m_browser,
                  QStringList {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                               "--no-first-run", "--disable-background-networking",
                               "--disable-component-update", "--disable-sync",
                               "--disable-dev-shm-usage", "--hide-scrollbars",
                               "--allow-file-access-from-files", "--enable-logging=stderr",
                               "--user-data-dir=" + profile.path()}
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

void TimelineTest::initTestCase()
{
    QVERIFY(m_folder.isValid());
    m_browser = QStandardPaths::findExecutable("chromium");
}

/// words.txt: an entry, then what it is called.
void TimelineTest::entriesInWords()
{
    const QList<QByteArray> lines = contents(FOLDER "/words.txt").trimmed().split('\n');
    QVERIFY(lines.size() > 1);
    for (int i = 0; i < lines.size(); i += 2)
        QCOMPARE(entryText(fields(lines.at(i))), QString::fromUtf8(lines.value(i + 1)));
}

void TimelineTest::soundInItsPlace()
{
    const QString path = m_folder.filePath("board.raw");
    QVERIFY(writeSound(path));
    const QJsonObject outline = soundOutline(path, Origin);
    const double bucket = outline.value("bucket").toDouble();
    QCOMPARE(bucket, 0.01);
    const QJsonArray stretches = outline.value("stretches").toArray();
    QCOMPARE(stretches.size(), 2);
    QCOMPARE(stretches.at(0)["start"].toDouble(), 2.0);
    QCOMPARE(stretches.at(1)["start"].toDouble(), 10.0);
    const auto peaks = [&](int stretch) {
        return QByteArray::fromBase64(stretches.at(stretch)["peaks"].toString().toLatin1());
    };
    QCOMPARE(peaks(0), QByteArray(2 * 50, 0));
    QCOMPARE(peaks(1), QByteArray(2 * 25, 0) + QByteArray("\xe0\x40").repeated(25)); // of 127
    QCOMPARE(outline.value("late").toArray().size(), 1);
    QVERIFY(std::abs(outline.value("late").toArray().at(0).toDouble() - 10.2) < bucket);

    QVERIFY(soundOutline(m_folder.filePath("none.raw"), 0).isEmpty());
}

void TimelineTest::refusals()
{
    QProcess program;
    program.start(WRITE_TIMELINE, {m_folder.filePath("nothing")});
    QVERIFY(program.waitForFinished());
    QCOMPARE(program.exitCode(), 1);
    QVERIFY(program.readAllStandardError().contains("nothing/journal.jsonl"));
    QCOMPARE(QProcess::execute(WRITE_TIMELINE, {}), 2);
}

void TimelineTest::inTheBrowser_data()
{
    QTest::addColumn<QString>("run");
    QTest::addColumn<QString>("checks"); // of check.js
    QTest::addColumn<QStringList>("options");

    const QString virtualTime = "--virtual-time-budget=600000";
    const QString wide = "--window-size=1440,1000", narrow = "--window-size=500,900";
    const QString dark = "--blink-settings=preferredColorScheme=0";
    const QString light = "--blink-settings=preferredColorScheme=1";
    const auto row = [](const char *name, const QString &run, const QString &checks,
                        const QStringList &options) {
        QTest::newRow(name) << run << checks << options;
    };
    row("road", "road", "road", {wide, light, virtualTime});
    row("light", "road", "light", {wide, light, virtualTime});
    row("dark", "road", "dark", {wide, dark, virtualTime});
    row("narrow", "road", "light", {narrow, light, virtualTime});
    row("hostile", "hostile", "hostile", {wide, virtualTime});
    row("empty", "empty", "empty", {wide, virtualTime});
    row("states", "states", "states", {wide, virtualTime});
    row("long", "long", "long", {wide}); // in real time, to be measured
}

void TimelineTest::inTheBrowser()
{
    if (m_browser.isEmpty())
        QSKIP("no chromium here to open the page in");
    QFETCH(QString, run);
    QFETCH(QString, checks);
    QFETCH(QStringList, options);
    QVERIFY(write(run));
    QUrl url = QUrl::fromLocalFile(FOLDER "/check.html");
    url.setQuery("case=" + checks + "&page=" + QUrl::toPercentEncoding(pageUrl(run)));
    QByteArray errors;
    const QByteArray page =
        runBrowser(options << "--dump-dom", url.toString(QUrl::FullyEncoded), &errors);
    const QRegularExpression resultPattern("<pre id=\"result\">([^<]*)</pre>");
    const QByteArray escaped = resultPattern.match(QString::fromUtf8(page)).captured(1).toLatin1();
    const QJsonObject result = fields(QByteArray::fromPercentEncoding(escaped));
    for (const QJsonValue failure : result.value("failures").toArray())
        qWarning("%s", qPrintable(failure.toString()));
    QVERIFY2(result.contains("checked"), "the checks did not come to their end");
    QVERIFY(result.value("checked").toInt() > 3);
    QCOMPARE(result.value("failures").toArray().size(), 0);
    QCOMPARE(errors, QByteArray());
}

void TimelineTest::printed()
{
    if (m_browser.isEmpty())
        QSKIP("no chromium here to print the page with");
    QVERIFY(write("road"));
    const QString fileName = m_folder.filePath("road.pdf");
    QByteArray errors;
    runBrowser({"--no-pdf-header-footer", "--print-to-pdf=" + fileName}, pageUrl("road"), &errors);
    const QByteArray bytes = contents(fileName);
    const QString pdf = QString::fromLatin1(bytes.constData(), bytes.size());
    QCOMPARE(pdf.count(QRegularExpression("/Type\\s*/Page\\b")), 1);
    const QRegularExpressionMatch box =
        QRegularExpression(R"(/MediaBox\s*\[0 0 ([\d.]+) ([\d.]+)\])").match(pdf);
    QVERIFY(box.hasMatch());
    QVERIFY(box.captured(1).toDouble() > box.captured(2).toDouble()); // landscape
    QCOMPARE(errors, QByteArray());
}

QTEST_GUILESS_MAIN(TimelineTest)
#include "TimelineTest.moc"
