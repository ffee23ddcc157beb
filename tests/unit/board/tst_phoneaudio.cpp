#include "Analysis.h"
#include "Samples.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr int BlockBytes = 4 * Rate / 100; // what phone-audio writes at a time

/// A phone's sound: what files are turned into, and how the program hands it over.
class PhoneAudioTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void convertsFiles_data();
    void convertsFiles();
    void repeatsWithoutASeam();
    void refuses_data();
    void refuses();
    void needsTheFifo();

    void keepsPace();
    void pausesAndGoesOn();
    void waitsForASlowReader();
    void endsWithTheReader();
    void endsWithItsInput_data();
    void endsWithItsInput();

private:
    QString path(const QString &name) const { return m_folder->filePath(name); }
    void start(const QString &sound) { m_program->start(PHONE_AUDIO, {path("fifo"), sound}); }
    /// Reads the FIFO until \p count bytes are there, or 10 s are over.
    QByteArray hear(int count);
    int waitingBytes() const;
    /// Leaves the FIFO unread until it is full and the program has come in vain thirty times.
    bool fillFifo();
    bool makeSound(const QStringList &soxArguments) const
    {
        return QProcess::execute("sox", soxArguments) == 0;
    }
    /// Whether the program ends, and with \p status.
    bool endsWith(int status);
    void stopReading();

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<QProcess> m_program;
    int m_fifo = -1;
};

void PhoneAudioTest::init()
{
    m_folder.reset(new QTemporaryDir);
    QVERIFY(mkfifo(qPrintable(path("fifo")), 0600) == 0);
    m_fifo = open(qPrintable(path("fifo")), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    QVERIFY(m_fifo >= 0);
    m_program.reset(new QProcess);
}

void PhoneAudioTest::cleanup()
{
    m_program->kill();
    m_program->waitForFinished();
    m_program.reset();
    stopReading();
}

QByteArray PhoneAudioTest::hear(int count)
{
    QByteArray heard(count, '\0');
    int done = 0;
    const bool complete = QTest::qWaitFor(
        [&] {
            const ssize_t bytes = read(m_fifo, heard.data() + done, std::size_t(count - done));
            done += bytes > 0 ? int(bytes) : 0;
            return done == count;
        },
        10000);
    return complete ? heard : QByteArray();
}

int PhoneAudioTest::waitingBytes() const
{
    int waiting = 0;
    return ioctl(m_fifo, FIONREAD, &waiting) == 0 ? waiting : 0;
}

bool PhoneAudioTest::fillFifo()
{
    const auto wakeUps = [this] {
        const QByteArray status = readFile(QString("/proc/%1/status").arg(m_program->processId()));
        const QByteArray field = "\nvoluntary_ctxt_switches:";
        return status.mid(status.indexOf(field) + field.size()).split('\n').first().toInt();
    };
    // A page of the pipe holds two blocks.
    if (fcntl(m_fifo, F_SETPIPE_SZ, 4096) < 0
        || !QTest::qWaitFor([this] { return waitingBytes() == 2 * BlockBytes; }, 10000))
        return false;
    const int before = wakeUps();
    return QTest::qWaitFor([&] { return wakeUps() >= before + 30; }, 10000);
}

bool PhoneAudioTest::endsWith(int status)
{
    return m_program->waitForFinished() && m_program->exitStatus() == QProcess::NormalExit
        && m_program->exitCode() == status;
}

void PhoneAudioTest::stopReading()
{
    if (m_fifo >= 0)
        close(m_fifo);
    m_fifo = -1;
}

void PhoneAudioTest::convertsFiles_data()
{
    QTest::addColumn<double>("right"); // Hz; 440 on the left
    QTest::newRow("-r 44100 -c 2 -b 16") << 660.0;
    QTest::newRow("-r 44100 -c 2 -b 32 -e float") << 660.0;
    QTest::newRow("-r 8000 -c 1 -b 8") << 440.0;
    QTest::newRow("-r 192000 -c 2 -b 24") << 660.0;
}

void PhoneAudioTest::convertsFiles()
{
    QFETCH(double, right);

    const QString file = path("sound.wav");
    QStringList sox =
        QString("-D -n %1 %2 synth 1 sine 440").arg(QTest::currentDataTag(), file).split(' ');
    if (right != 440)
        sox << "sine" << QString::number(right);
    QVERIFY(makeSound(sox << "vol"
                          << "0.5"));

    const auto samples = openSamples(file.toStdString());
    std::vector<std::int16_t> heard(2 * Rate);
    for (int second = 0; second < 2; ++second) { // the second one comes from the beginning again
        Analysis analysis;
        samples->read(heard.data(), Rate);
        analysis.add(heard);
        const std::pair<double, Channel> sides[] = {{440, analysis.left()},
                                                    {right, analysis.right()}};
        for (const auto &[frequency, channel] : sides) {
            QVERIFY(channel.frequency);
            QVERIFY(std::fabs(*channel.frequency - frequency) < 1);
            QVERIFY2(std::fabs(channel.level - -9.03) < 0.1,
                     qPrintable(QString::number(channel.level)));
        }
    }
}

void PhoneAudioTest::repeatsWithoutASeam()
{
    // 1234 frames that are unlike, so that a lost or doubled one shows; 16 bit passes unchanged.
    std::vector<std::int16_t> once;
    for (int i = 0; i < 1234; ++i) {
        once.push_back(std::int16_t(i * 26 - 16000));
        once.push_back(std::int16_t(-32768 + i));
    }
    QVERIFY(writeFile(path("sound.raw"), bytesOf(once)));
    QVERIFY(makeSound({"-r", "44100", "-c", "2", "-b", "16", "-e", "signed", path("sound.raw"),
                       path("sound.wav")}));

    const auto samples = openSamples(path("sound.wav").toStdString());
    std::vector<std::int16_t> heard(2 * 5000);
    samples->read(heard.data(), 2000);
    samples->read(heard.data() + 2 * 2000, 3000);
    for (std::size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], once[i % once.size()]);
}

void PhoneAudioTest::refuses_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::newRow("missing") << QByteArray();
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("text") << QByteArray("This is no sound.\n").repeated(100);
    QTest::newRow("only a header")
        << QByteArray::fromHex("524946462400000057415645666d7420100000000100020044ac000010b10200"
                               "04001000646174610000000000");
}

void PhoneAudioTest::refuses()
{
    QFETCH(QByteArray, contents);

    const QString file = path("bad.wav");
    QVERIFY(contents.isNull() || writeFile(file, contents));
    start(file);
    QVERIFY(endsWith(1));
    const QByteArray errors = m_program->readAllStandardError();
    QVERIFY2(errors.startsWith("phone-audio: " + file.toLocal8Bit() + ": "), errors.constData());
    QCOMPARE(errors.count('\n'), 1);
}

void PhoneAudioTest::needsTheFifo()
{
    QVERIFY(unlink(qPrintable(path("fifo"))) == 0);
    start("tone");
    QVERIFY(endsWith(1));
    QVERIFY(m_program->readAllStandardError().contains("fifo: No such file"));
}

void PhoneAudioTest::keepsPace()
{
    QElapsedTimer elapsed;
    elapsed.start();
    start("tone");
    const auto seconds = 1.5;
    QCOMPARE(hear(int(4 * Rate * seconds)), bytesOf(sines(440, 660, 0.5, seconds)));
    // A busy machine may be late, but nothing may be early.
    QVERIFY2(elapsed.elapsed() >= 1490, qPrintable(QString::number(elapsed.elapsed())));
    QVERIFY2(elapsed.elapsed() < 2500, qPrintable(QString::number(elapsed.elapsed())));
}

void PhoneAudioTest::pausesAndGoesOn()
{
    start("tone");
    QByteArray sound = hear(20 * BlockBytes);
    m_program->write("pause\n");
    const QByteArray silence(BlockBytes, '\0');
    QByteArray block;
    while ((block = hear(BlockBytes)) != silence) {
        QVERIFY(!block.isEmpty() && sound.size() < 200 * BlockBytes);
        sound += block;
    }
    QCOMPARE(hear(19 * BlockBytes), silence.repeated(19));
    m_program->write("nonsense\npl");
    m_program->write("ay\n");
    for (int blocks = 0; block == silence; ++blocks) {
        QVERIFY(blocks < 200);
        block = hear(BlockBytes);
    }
    sound += block + hear(20 * BlockBytes);
    QCOMPARE(sound, bytesOf(sines(440, 660, 0.5, 5)).left(sound.size()));
    m_program->setReadChannel(QProcess::StandardError);
    QTRY_VERIFY(m_program->canReadLine());
    QCOMPARE(m_program->readLine(), QByteArray("phone-audio: no such command: nonsense\n"));
}

void PhoneAudioTest::waitsForASlowReader()
{
    start("tone");
    QVERIFY(fillFifo());
    QByteArray sound = hear(waitingBytes());
    QElapsedTimer elapsed;
    elapsed.start();
    sound += hear(50 * BlockBytes);
    // Nothing is lost, and nothing is made up for in a rush.
    QCOMPARE(sound, bytesOf(sines(440, 660, 0.5, 2)).left(sound.size()));
    QVERIFY2(elapsed.elapsed() >= 440, qPrintable(QString::number(elapsed.elapsed())));
}

void PhoneAudioTest::endsWithTheReader()
{
    start("tone");
    QVERIFY(!hear(BlockBytes).isEmpty());
    stopReading();
    QVERIFY(endsWith(0));
    QCOMPARE(m_program->readAllStandardError(), QByteArray());
}

void PhoneAudioTest::endsWithItsInput_data()
{
    QTest::addColumn<bool>("reader");
    QTest::addColumn<bool>("fullFifo");

    QTest::newRow("before anybody reads") << false << false;
    QTest::newRow("while playing") << true << false;
    QTest::newRow("while the reader dawdles") << true << true;
}

void PhoneAudioTest::endsWithItsInput()
{
    QFETCH(bool, reader);
    QFETCH(bool, fullFifo);

    if (!reader)
        stopReading();
    start("tone");
    QVERIFY(m_program->waitForStarted());
    if (fullFifo)
        QVERIFY(fillFifo());
    else if (reader)
        QVERIFY(!hear(BlockBytes).isEmpty());
    m_program->closeWriteChannel();
    QVERIFY(endsWith(0));
}

QTEST_GUILESS_MAIN(PhoneAudioTest)
#include "tst_phoneaudio.moc"
