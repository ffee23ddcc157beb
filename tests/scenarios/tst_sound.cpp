// A phone is heard: through real PulseAudio, loaded and told by the service, and real ALSA down to
// the board's output, at the level and the frequency that the phone plays.

#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QProcess>
#include <QTest>

#include <cmath>

namespace {

const double FullLevel = -9.03; // dB, of a sine at half of full scale
const double ReducedLevel = FullLevel - 23.88; // at 40 %, since PulseAudio's volumes are cubic
const double Tolerance = 0.3;

/// What came out of the board in the half second up to now; waits for the wanted sound.
class Board
{
public:
    explicit Board(const VirtualProduct &product) : m_file(product.folder() + "/board.raw") { }

    QJsonObject waitForLevel(double level)
    {
        return measure(
            {"--wait-level", QString::number(level), "--tolerance", QString::number(Tolerance)});
    }
    QJsonObject waitForSilence() { return measure({"--wait-silence"}); }

private:
    /// Empty when the wanted sound did not come.
    QJsonObject measure(const QStringList &options)
    {
        QProcess program;
        program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        program.start(QCoreApplication::applicationDirPath() + "/../../simulator/board-measure",
                      QStringList {m_file, "--json", "--timeout", "20"} + options);
        program.waitForFinished();
        const QByteArray told = program.readAllStandardOutput();
        if (program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0)
            return QJsonDocument::fromJson(told).object();
        qWarning("%s", told.constData());
        return QJsonObject();
    }

    QString m_file;
};

bool isTone(const QJsonObject &heard, double left, double right)
{
    const auto frequency = [&heard](const char *side) {
        return heard[side].toObject()["frequency"].toDouble();
    };
    return std::fabs(frequency("left") - left) < 1 && std::fabs(frequency("right") - right) < 1;
}

VirtualProduct::Options realSound()
{
    VirtualProduct::Options options;
    options.realPulse = true;
    options.settings = {{"BLUETOOTH/bt-enable", 1}, {"BLUETOOTH/bt-timeout-reconnect-1", 500}};
    return options;
}

const char Loopback[] = "pactl load-module module-loopback source_dont_move=yes "
                        "source=bluez_source.00_1A_7D_DA_71_13 sink=output latency_msec=1000 "
                        "adjust_time=60 remix=false";

/// Until the sound manager is asked to play what the phone sends.
void expectPlayback(VirtualProduct &product)
{
    product.expectLog(4, "connection coming from ulmo");
    product.expectCommand("pulseaudio --system");
    product.expectCommand("pactl load-module module-alsa-sink sink_name=output device=dm-audio");
    product.expectCommand(Loopback);
    product.expect(VirtualProduct::message("call", "PlayBluetooth"));
}

} // namespace

class tst_sound : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void visit();
    void ownFile();
};

void tst_sound::visit()
{
    VirtualProduct product(realSound());
    Board board(product);
    Steps::waitUntilOn(product);

    product.tell("phone add anna address=00:1A:7D:DA:71:13 pin=7351");
    product.tell("phone anna connect");
    expectPlayback(product);
    product.tell("phone anna play");
    QVERIFY(isTone(board.waitForLevel(FullLevel), 440, 660));

    QCOMPARE(product.call("SetVolume", {"i:40"}), QJsonArray {0});
    QVERIFY(isTone(board.waitForLevel(ReducedLevel), 440, 660));

    QCOMPARE(product.call("SetMute", {"i:1"}), QJsonArray {0});
    QCOMPARE(board.waitForSilence()["playing"], QJsonValue(true));
    QCOMPARE(product.call("SetMute", {"i:0"}), QJsonArray {0});
    QVERIFY(isTone(board.waitForLevel(ReducedLevel), 440, 660));

    product.tell("phone anna leave");
    product.expect({{"kind", "end"}, {"program", "pulseaudio"}});
    QCOMPARE(board.waitForSilence()["playing"], QJsonValue(false));

    // The phone is known by now. A new server begins at full volume, whatever was set before.
    product.tell("phone anna connect");
    expectPlayback(product);
    product.tell("phone anna play");
    QVERIFY(isTone(board.waitForLevel(FullLevel), 440, 660));
}

void tst_sound::ownFile()
{
    VirtualProduct product(realSound());
    Board board(product);
    Steps::waitUntilOn(product);

    const QString file = product.folder() + "/own.wav";
    QCOMPARE(QProcess::execute("sox",
                               {"-n", "-r", "48000", "-b", "24", "-c", "1", file, "synth", "3",
                                "sine", "1000", "vol", "0.5"}),
             0);
    product.tell("phone add anna address=00:1A:7D:DA:71:13 pin=7351 audio=" + file);
    product.tell("phone anna connect");
    expectPlayback(product);
    product.tell("phone anna play");
    QVERIFY(isTone(board.waitForLevel(FullLevel), 1000, 1000)); // one channel, on both sides
}

SCENARIO_MAIN(tst_sound)

#include "tst_sound.moc"
