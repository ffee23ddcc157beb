#include "Analysis.h"
#include "Recording.h"
#include "TestSupport.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

/// What the board played is told right: from samples, from a file with its log, by the program.
class MeasureTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tones_data();
    void tones();
    void levelOfSilenceAndToneMixed();
    void findsTheFirstSound();
    void heardInTime_data();
    void heardInTime();
    void lateFrames();
    void windows_data();
    void windows();
    void writesTheWindowAsWav();
    void waits_data();
    void waits();
    void tellsPeople();
    void refusals_data();
    void refusals();

private:
    struct Outcome
    {
        int status;
        QByteArray output;
        QByteArray errors;
        QJsonObject json() const { return QJsonDocument::fromJson(output).object(); }
    };
    Outcome measure(const QStringList &arguments) const;
    QString path(const QString &name) const { return m_folder.filePath(name); }
    bool writeLog(const QByteArray &lines) const { return writeFile(path("board.raw.log"), lines); }

    QTemporaryDir m_folder;
};

MeasureTest::Outcome MeasureTest::measure(const QStringList &arguments) const
{
    QProcess program;
    program.start(BOARD_MEASURE, arguments);
    if (!program.waitForFinished())
        return {-1, {}, "does not end"};
    return {program.exitCode(), program.readAllStandardOutput(), program.readAllStandardError()};
}

void MeasureTest::tones_data()
{
    QTest::addColumn<double>("left");
    QTest::addColumn<double>("right");
    QTest::addColumn<double>("amplitude");
    QTest::addColumn<double>("seconds");

    QTest::newRow("the phone's tone") << 440.0 << 660.0 << 0.5 << 1.0;
    QTest::newRow("between two bins") << 440.34 << 659.66 << 0.5 << 1.0;
    QTest::newRow("full scale") << 1000.0 << 1000.0 << 1.0 << 2.0;
    QTest::newRow("low and high") << 30.0 << 15000.0 << 0.5 << 2.0;
    QTest::newRow("silent left") << 0.0 << 660.0 << 0.5 << 1.0;
    QTest::newRow("silence") << 0.0 << 0.0 << 0.5 << 1.0;
}

void MeasureTest::tones()
{
    QFETCH(double, left);
    QFETCH(double, right);
    QFETCH(double, amplitude);
    QFETCH(double, seconds);

    Analysis analysis;
    analysis.add(sines(left, right, amplitude, seconds));
    const std::pair<double, Channel> sides[] = {{left, analysis.left()}, {right, analysis.right()}};
    for (const auto &[frequency, channel] : sides) {
        QCOMPARE(channel.silent, frequency == 0);
        QCOMPARE(channel.frequency.has_value(), frequency != 0);
        if (channel.silent) {
            QVERIFY(std::isinf(channel.level) && channel.level < 0);
            continue;
        }
        QVERIFY2(std::fabs(*channel.frequency - frequency) < 0.3,
                 qPrintable(QString::number(*channel.frequency)));
        const double level = 20 * std::log10(amplitude / std::sqrt(2));
        QVERIFY2(std::fabs(channel.level - level) < 0.02,
                 qPrintable(QString::number(channel.level)));
    }
}

void MeasureTest::levelOfSilenceAndToneMixed()
{
    Analysis analysis;
    analysis.add(std::vector<std::int16_t>(2 * Rate));
    analysis.add(sines(440, 660, 0.5, 1));
    // Half the time at -9.03 dB.
    QVERIFY(std::fabs(analysis.left().level - -12.04) < 0.02);
    QVERIFY(std::fabs(*analysis.left().frequency - 440) < 1);
    QVERIFY(!analysis.left().silent);

    // A single least sign of life is no exact silence.
    Analysis nearly;
    std::vector<std::int16_t> samples(2 * Rate);
    samples[Rate] = 1;
    nearly.add(samples);
    QVERIFY(!nearly.left().silent);
    QVERIFY(nearly.right().silent);
}

void MeasureTest::findsTheFirstSound()
{
    Analysis analysis;
    std::vector<std::int16_t> samples(2 * 1000);
    samples[2 * 300] = 50; // below the threshold
    samples[2 * 700 + 1] = -2000; // the right side counts, and so does the negative half
    analysis.add(std::vector<std::int16_t>(2 * 500));
    QVERIFY(!analysis.firstSound());
    analysis.add(samples);
    QCOMPARE(analysis.firstSound().value_or(-1), std::int64_t(1200));
}

void MeasureTest::heardInTime_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<double>("now");
    QTest::addColumn<int>("before"); // frames of silence, then of the file, then of silence
    QTest::addColumn<int>("first"); // of the file's frames
    QTest::addColumn<int>("heard");
    QTest::addColumn<int>("after");
    QTest::addColumn<bool>("playing");

    // The file's frames 0 to 999 have the values 1 to 1000; a window is 100 frames long.
    const QByteArray start = "start frame=100 monotonic=1000.000000000 realtime=5.0 buffer=100\n";
    const QByteArray stop = "stop frame=200 monotonic=1001.000000000 realtime=6.0\n";
    const QByteArray restart =
        QByteArray(start).replace("frame=100", "frame=200").replace("1000.", "1002.");
    const auto row = [](const char *name, const QByteArray &lines, double second, int frame,
                        int silent, int from, int heard, int silentAfter, bool playing) {
        QTest::newRow(name) << lines << second + double(frame) / Rate << silent << from << heard
                            << silentAfter << playing;
    };
    row("never started", "", 1000, 0, 100, 0, 0, 0, false);
    row("starts later", start, 1000, -50, 100, 0, 0, 0, true);
    row("just started", start, 1000, 40, 60, 100, 40, 0, true);
    row("whole window", start, 1000, 150, 0, 150, 100, 0, true);
    row("just stopped", start + stop, 1000, 130, 0, 130, 70, 30, false);
    row("long stopped", start + stop, 1001, 0, 100, 0, 0, 0, false);
    row("player killed", start, 1000, 1950, 100, 0, 0, 0, false);
    row("stopped and started", start + stop + restart, 1002, 40, 60, 200, 40, 0, true);
    row("half a line", start + stop.left(16), 1000, 150, 0, 150, 100, 0, true);
}

void MeasureTest::heardInTime()
{
    QFETCH(QByteArray, log);
    QFETCH(double, now);
    QFETCH(int, before);
    QFETCH(int, first);
    QFETCH(int, heard);
    QFETCH(int, after);

    std::vector<std::int16_t> samples;
    for (std::int16_t value = 1; value <= 1000; ++value)
        samples.insert(samples.end(), {value, value});
    QVERIFY(writeFile(path("board.raw"), bytesOf(samples)));
    QVERIFY(writeLog(log));

    std::vector<std::int16_t> expected(std::size_t(2 * before));
    for (int i = 0; i < heard; ++i)
        expected.insert(expected.end(), 2, std::int16_t(first + i + 1));
    expected.insert(expected.end(), std::size_t(2 * after), 0);

    const Recording recording(path("board.raw").toStdString());
    QCOMPARE(recording.heardBefore(now, 100), expected);
    QTEST(recording.isPlaying(now), "playing");
}

void MeasureTest::lateFrames()
{
    QVERIFY(writeFile(path("board.raw"), QByteArray(4 * 1000, '\0')));
    QVERIFY(writeLog("start frame=0 monotonic=1.0 realtime=1.0\n"
                     "underrun frame=100 frames=50\n"
                     "underrun frame=150 frames=10\n"
                     "underrun frame=900 frames=20\n"));
    const Recording recording(path("board.raw").toStdString());
    QCOMPARE(recording.lateFrames(0, 1000), std::int64_t(80));
    QCOMPARE(recording.lateFrames(120, 35), std::int64_t(35));
    QCOMPARE(recording.lateFrames(160, 700), std::int64_t(0));
}

void MeasureTest::windows_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<double>("from");
    QTest::addColumn<double>("length");
    QTest::addColumn<double>("left"); // Hz, 0 for silence
    QTest::addColumn<double>("firstSound"); // since the file's beginning, negative for none

    // The file: 1 s silence, 2 s of 440/660 Hz, 1 s of 1000/1500 Hz.
    const auto row = [](const char *name, const char *options, double from, double length,
                        double left, double firstSound) {
        QTest::newRow(name) << QString(options).split(' ', Qt::SkipEmptyParts) << from << length
                            << left << firstSound;
    };
    row("whole file", "", 0, 4, 440, 1);
    row("silent part", "--length 0.9", 0, 0.9, 0, -1);
    row("from on", "--from 3", 3, 1, 1000, 3);
    row("from the end", "--from -2 --length 0.7", 2, 0.7, 440, 2);
    row("beyond both ends", "--from -9 --length 99", 0, 4, 440, 1);
}

void MeasureTest::windows()
{
    QFETCH(QStringList, options);
    QFETCH(double, from);
    QFETCH(double, length);
    QFETCH(double, left);
    QFETCH(double, firstSound);

    QVERIFY(writeFile(path("board.raw"),
                      bytesOf(sines(0, 0, 0, 1)) + bytesOf(sines(440, 660, 0.5, 2))
                          + bytesOf(sines(1000, 1500, 0.5, 1))));
    QVERIFY(writeLog("start frame=0 monotonic=500.0 realtime=1.0\n"));
    const Outcome outcome = measure(options << "--json" << path("board.raw"));
    QVERIFY2(outcome.status == 0, outcome.errors.constData());
    const QJsonObject told = outcome.json();
    QCOMPARE(told["from"].toDouble(), from);
    QCOMPARE(told["length"].toDouble(), length);
    const QJsonObject heard = told["left"].toObject();
    QCOMPARE(heard["silent"].toBool(), left == 0);
    QCOMPARE(heard["level"].isNull(), left == 0);
    QVERIFY(std::fabs(heard["frequency"].toDouble() - left) < 1);
    QVERIFY(std::fabs(told["firstSound"].toDouble(-1) - firstSound) < 0.001);
    QVERIFY(std::fabs(told["firstSoundTime"].toDouble(499) - (500 + firstSound)) < 0.001);
    QCOMPARE(told["playing"].toBool(), false);
}

void MeasureTest::writesTheWindowAsWav()
{
    const auto samples = sines(440, 660, 0.5, 2);
    QVERIFY(writeFile(path("board.raw"), bytesOf(samples)));
    const QString wav = path("heard.wav");
    QCOMPARE(measure({path("board.raw"), "--from", "0.5", "--length", "1", "--wav", wav}).status,
             0);

    QProcess sox; // another's eyes, which would convert what the header says wrong
    sox.start("sox", {wav, "-t", "raw", "-r", "44100", "-c", "2", "-b", "16", "-"});
    QVERIFY(sox.waitForFinished());
    QCOMPARE(sox.readAllStandardError(), QByteArray());
    QCOMPARE(sox.readAllStandardOutput(), bytesOf(samples).mid(4 * Rate / 2, 4 * Rate));

    QCOMPARE(measure({path("board.raw"), "--wav", path("no/such/folder.wav")}).status, 1);
}

void MeasureTest::waits_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("status");
    QTest::addColumn<double>("earliest"); // seconds after the board's start

    // Heard from the moment the program starts: 0.5 s silence, 1 s at -9.03 dB, 1 s at -32.91 dB.
    const auto row = [](const char *options, int status, double earliest) {
        QTest::newRow(options) << QString(options).split(' ') << status << earliest;
    };
    row("--wait-level -9.03", 0, 0.95);
    row("--wait-level -32.91", 0, 1.95);
    row("--wait-level -30 --tolerance 4", 0, 1.5);
    row("--wait-silence", 0, 0);
    row("--wait-level -20 --timeout 1", 1, 1);
}

void MeasureTest::waits()
{
    QFETCH(QStringList, options);
    QFETCH(int, status);
    QFETCH(double, earliest);

    QVERIFY(writeFile(path("board.raw"),
                      bytesOf(sines(0, 0, 0, 0.5)) + bytesOf(sines(440, 660, 0.5, 1))
                          + bytesOf(sines(440, 660, 0.032, 1))));
    const double start = monotonicTime();
    QVERIFY(writeLog("start frame=0 monotonic=" + QByteArray::number(start, 'f', 9) + "\n"));
    const Outcome outcome = measure(options << "--json" << path("board.raw"));
    QVERIFY2(outcome.status == status, outcome.errors.constData());
    QVERIFY(monotonicTime() - start >= earliest);
    QVERIFY2(outcome.json()["length"].toDouble() == 0.5, outcome.output.constData());
    QVERIFY(outcome.json()["playing"].toBool());
    QCOMPARE(outcome.errors.contains("not heard within"), status == 1);
}

void MeasureTest::tellsPeople()
{
    QVERIFY(writeFile(path("board.raw"), bytesOf(sines(440, 0, 0.5, 1))));
    QVERIFY(writeLog("start frame=0 monotonic=500.0 realtime=1.0\n"
                     "underrun frame=0 frames=441\n"));
    QCOMPARE(measure({path("board.raw")}).output,
             QByteArray("1.00 s from 0.00 s on:\n"
                        "  left      440.0 Hz    -9.03 dB\n"
                        "  right  silence\n"
                        "  first sound at 0.000 s\n"
                        "  10 ms of it lost: the player came too late\n"));
    QCOMPARE(measure({path("board.raw"), "--wait-silence"}).output,
             QByteArray("the last 0.5 s, the output stopped:\n"
                        "  left   silence\n"
                        "  right  silence\n"));
}

void MeasureTest::refusals_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("why");

    const QString raw = path("board.raw");
    const auto row = [](const QStringList &arguments, int status, const char *why) {
        QTest::newRow(why) << arguments << status << QByteArray(why);
    };
    row({}, 2, "exactly one RAW");
    row({raw, "--from", "1s"}, 2, "1s");
    row({raw, "--form", "1"}, 2, "--form");
    row({raw, "--wait-silence", "--wait-level", "-9"}, 2, "either");
    row({path("none.raw")}, 1, "none.raw: nothing recorded");
    row({raw, "--from", "5"}, 1, "in this window");
}

void MeasureTest::refusals()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, why);

    QVERIFY(writeFile(path("board.raw"), bytesOf(sines(440, 660, 0.5, 1))));
    const Outcome outcome = measure(arguments);
    QTEST(outcome.status, "status");
    QVERIFY2(outcome.errors.contains(why), outcome.errors.constData());
    QCOMPARE(outcome.output, QByteArray());
}

QTEST_GUILESS_MAIN(MeasureTest)
#include "tst_measure.moc"
