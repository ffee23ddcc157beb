#include "Recording.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <QtTest>

#include <alsa/asoundlib.h>

constexpr int PeriodFrames = 1102; // 25 ms
constexpr int BufferFrames = 4 * PeriodFrames;

/// The board's loudspeaker output, played by ALSA alone: what it writes down, and when.
class BoardOutputTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void playsInRealTime();
    void forgetsWhatWasNotHeard();
    void goesOnAfterAStop();
    void lateFramesAreSilence();
    void takesFramesBack();
    void isOneCard();
    void wantsItsFormat();
    void refusesConfigurations();

private:
    int openDevice(snd_pcm_t **device, const QByteArray &fields);
    /// The device with buffers as PulseAudio has them, which never stops by itself.
    bool prepare(int bufferFrames = BufferFrames);
    QString raw() const { return m_folder->filePath("board.raw"); }
    QByteArray fileField() const { return "file \"" + raw().toLocal8Bit() + "\""; }
    Recording recording() const { return Recording(raw().toStdString()); }

    QScopedPointer<QTemporaryDir> m_folder;
    snd_pcm_t *m_device = nullptr;
};

void BoardOutputTest::init()
{
    m_folder.reset(new QTemporaryDir);
}

void BoardOutputTest::cleanup()
{
    if (m_device)
        snd_pcm_close(m_device);
    m_device = nullptr;
}

int BoardOutputTest::openDevice(snd_pcm_t **device, const QByteArray &fields)
{
    const QByteArray text = "pcm_type.board { lib \"" BOARD_OUTPUT "\" }\n"
                            "pcm.dm-audio { type board "
        + fields + " }\n";
    snd_config_t *configuration = nullptr;
    snd_input_t *input = nullptr;
    snd_config_top(&configuration);
    snd_input_buffer_open(&input, text.constData(), text.size());
    int error = snd_config_load(configuration, input);
    snd_input_close(input);
    if (error == 0)
        error = snd_pcm_open_lconf(device, "dm-audio", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK,
                                   configuration);
    snd_config_delete(configuration);
    return error;
}

bool BoardOutputTest::prepare(int bufferFrames)
{
    snd_pcm_hw_params_t *hardware;
    snd_pcm_sw_params_t *software;
    snd_pcm_uframes_t boundary;
    snd_pcm_hw_params_alloca(&hardware);
    snd_pcm_sw_params_alloca(&software);
    return openDevice(&m_device, fileField()) == 0 && snd_pcm_hw_params_any(m_device, hardware) >= 0
        && snd_pcm_hw_params_set_access(m_device, hardware, SND_PCM_ACCESS_RW_INTERLEAVED) == 0
        && snd_pcm_hw_params_set_format(m_device, hardware, SND_PCM_FORMAT_S16_LE) == 0
        && snd_pcm_hw_params_set_buffer_size(m_device, hardware, snd_pcm_uframes_t(bufferFrames))
        == 0
        && snd_pcm_hw_params_set_period_size(m_device, hardware, PeriodFrames, 0) == 0
        && snd_pcm_hw_params(m_device, hardware) == 0
        && snd_pcm_sw_params_current(m_device, software) == 0
        && snd_pcm_sw_params_get_boundary(software, &boundary) == 0
        && snd_pcm_sw_params_set_stop_threshold(m_device, software, boundary) == 0
        && snd_pcm_sw_params_set_start_threshold(m_device, software, boundary) == 0
        && snd_pcm_sw_params(m_device, software) == 0;
}

void BoardOutputTest::playsInRealTime()
{
    const int bufferFrames = 20 * PeriodFrames; // so that a busy machine does not come late
    QVERIFY(prepare(bufferFrames));
    QCOMPARE(snd_pcm_nonblock(m_device, 0), 0);
    const auto sound = sines(440, 660, 0.5, 1);
    const long frames = long(sound.size() / 2);
    QCOMPARE(snd_pcm_writei(m_device, sound.data(), bufferFrames), bufferFrames);
    const double start = monotonicTime();
    QCOMPARE(snd_pcm_start(m_device), 0);
    // With time stamps of another clock, PulseAudio would take the latency for 0.
    snd_pcm_status_t *status;
    snd_pcm_status_alloca(&status);
    QCOMPARE(snd_pcm_status(m_device, status), 0);
    snd_htimestamp_t stamp;
    snd_pcm_status_get_htstamp(status, &stamp);
    QVERIFY(std::fabs(double(stamp.tv_sec) - start) < 2);
    for (long done = bufferFrames; done < frames;) {
        const long written = snd_pcm_writei(m_device, &sound[std::size_t(2 * done)],
                                            snd_pcm_uframes_t(frames - done));
        QVERIFY(written > 0);
        done += written;
    }
    QCOMPARE(snd_pcm_drain(m_device), 0);
    const double elapsed = monotonicTime() - start;
    QVERIFY2(elapsed > 0.999 && elapsed < 2, qPrintable(QString::number(elapsed)));

    QCOMPARE(readFile(raw()), bytesOf(sound));
    const auto time = recording().timeOf(0);
    QVERIFY(time && std::fabs(*time - start) < 0.1);
    const QByteArray log = readFile(raw() + ".log");
    QVERIFY2(log.startsWith("start frame=0 "), log.constData());
    QVERIFY2(log.contains("\nstop frame=" + QByteArray::number(int(frames)) + ' '),
             log.constData());
    QVERIFY(!log.contains("underrun"));
    // The server runs under a user of its own; people read the files.
    QVERIFY(QFileInfo(raw()).permission(QFile::ReadOther));
}

void BoardOutputTest::forgetsWhatWasNotHeard()
{
    QVERIFY(prepare());
    const auto sound = sines(440, 660, 0.5, 0.1);
    QCOMPARE(snd_pcm_writei(m_device, sound.data(), BufferFrames), BufferFrames);
    QCOMPARE(snd_pcm_start(m_device), 0);
    QTRY_VERIFY(snd_pcm_avail(m_device) > PeriodFrames);
    const long heardAtLeast = qMin<long>(snd_pcm_avail(m_device), BufferFrames);
    QCOMPARE(snd_pcm_drop(m_device), 0);

    const QByteArray written = readFile(raw());
    QVERIFY(written.size() >= 4 * heardAtLeast);
    QVERIFY(bytesOf(sound).startsWith(written));
    const QByteArray log = readFile(raw() + ".log");
    QVERIFY2(log.contains("\nstop frame=" + QByteArray::number(written.size() / 4) + ' '),
             log.constData());
    QVERIFY(!recording().isPlaying(monotonicTime()));
}

void BoardOutputTest::goesOnAfterAStop()
{
    for (int visit = 0; visit < 2; ++visit) {
        QVERIFY(prepare());
        const std::vector<std::int16_t> sound(2 * 1000, std::int16_t(visit + 1));
        QCOMPARE(snd_pcm_writei(m_device, sound.data(), 1000), 1000);
        QCOMPARE(snd_pcm_start(m_device), 0);
        QTRY_VERIFY(snd_pcm_avail(m_device) >= BufferFrames);
        cleanup();
    }
    QCOMPARE(readFile(raw()),
             bytesOf(std::vector<std::int16_t>(2 * 1000, 1))
                 + bytesOf(std::vector<std::int16_t>(2 * 1000, 2)));

    // The pause between the two is not in the file, but in the log.
    const auto first = recording().timeOf(0), second = recording().timeOf(1000);
    QVERIFY(first && second && *second - *first > 1000.0 / Rate);
}

void BoardOutputTest::lateFramesAreSilence()
{
    QVERIFY(prepare());
    const std::vector<std::int16_t> sound(2 * BufferFrames, 7);
    QCOMPARE(snd_pcm_writei(m_device, sound.data(), 1000), 1000);
    QCOMPARE(snd_pcm_start(m_device), 0);
    // 500 frames more than there are have gone by.
    QTRY_VERIFY(snd_pcm_avail(m_device) > BufferFrames + 500);
    const long missed = snd_pcm_avail(m_device) - BufferFrames;
    QCOMPARE(snd_pcm_writei(m_device, sound.data(), 300), 300); // wholly late
    QCOMPARE(snd_pcm_writei(m_device, sound.data(), BufferFrames), BufferFrames); // in part

    const auto written = samplesOf(readFile(raw()));
    QCOMPARE(written.size(), std::size_t(2 * (1300 + BufferFrames)));
    const long heard = std::count(written.begin(), written.end(), 7) / 2;
    const long lost = std::count(written.begin(), written.end(), 0) / 2;
    QVERIFY(lost >= missed);
    QCOMPARE(heard + lost, 1300L + BufferFrames);
    QVERIFY(std::is_sorted(written.begin() + 2000, written.end())); // first the gap, then the rest
    QCOMPARE(recording().lateFrames(0, 1 << 20), std::int64_t(lost));
    QCOMPARE(recording().lateFrames(0, 1000), std::int64_t(0));
}

void BoardOutputTest::takesFramesBack()
{
    QVERIFY(prepare());
    const std::vector<std::int16_t> first(2 * 1000, 1), second(2 * 1000, 2);
    QCOMPARE(snd_pcm_writei(m_device, first.data(), 1000), 1000);
    QCOMPARE(snd_pcm_rewind(m_device, 400), 400);
    QCOMPARE(snd_pcm_writei(m_device, second.data(), 1000), 1000);
    QCOMPARE(readFile(raw()), bytesOf(std::vector<std::int16_t>(2 * 600, 1)) + bytesOf(second));
}

void BoardOutputTest::isOneCard()
{
    QVERIFY(prepare());
    snd_pcm_t *another = nullptr;
    QCOMPARE(openDevice(&another, fileField()), -EBUSY);
    cleanup();
    QVERIFY(prepare());
}

void BoardOutputTest::wantsItsFormat()
{
    const struct
    {
        snd_pcm_format_t format;
        unsigned channels;
        unsigned rate;
        bool isTaken;
    } cases[] = {
        {SND_PCM_FORMAT_S16_LE, 2, 44100, true},
        {SND_PCM_FORMAT_S16_LE, 1, 44100, false},
        {SND_PCM_FORMAT_S16_LE, 2, 48000, false},
        {SND_PCM_FORMAT_S32_LE, 2, 44100, false},
    };
    for (const auto &[format, channels, rate, isTaken] : cases) {
        QCOMPARE(openDevice(&m_device, fileField()), 0);
        const int error = snd_pcm_set_params(m_device, format, SND_PCM_ACCESS_RW_INTERLEAVED,
                                             channels, rate, 0, 100000);
        QCOMPARE(error == 0, isTaken);
        cleanup();
    }
}

void BoardOutputTest::refusesConfigurations()
{
    for (const QByteArray &fields :
         {QByteArray(), fileField() + " rate 44100", QByteArray("file 5"),
          QByteArray("file \"/nonexistent/board.raw\"")}) {
        snd_pcm_t *device = nullptr;
        QVERIFY2(openDevice(&device, fields) < 0, fields.constData());
    }
}

QTEST_GUILESS_MAIN(BoardOutputTest)
#include "tst_boardoutput.moc"
