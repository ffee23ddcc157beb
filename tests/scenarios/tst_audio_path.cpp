// The way of the sound through PulseAudio: waiting for the server and for the phone's source, and
// what comes of it when one of them is late, does not come or goes away.

#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QTest>

class tst_audio_path : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void polls_data();
    void polls();
    void modulesFail();
    void serverDoesNotStart();
    void serverEnds_data();
    void serverEnds();
    void serverIgnoresTermination();
};

namespace {

const char WaitForServer[] = "4 wait pulseaudio ... ";
const char WaitForSource[] = "4 wait pulseaudio bluetooth module ready... ";
const char GivenUp[] = "1 error starting pulseaudio, so disconnect";
const char Stopped[] = "4 stop pulseaudio because not used any more";
const char StepDropped[] = "4 there is step to start pulseaudio running";
const int Polls = 40;
const double PollSeconds = 0.1;

/// What is logged when \p failures polls fail: the last one is not.
QStringList waits(const QString &text, int failures)
{
    QStringList lines;
    for (int i = 1; i <= qMin(failures, Polls - 1); ++i)
        lines.append(text + QString::number(i));
    return lines;
}

} // namespace

void tst_audio_path::polls_data()
{
    QTest::addColumn<int>("server"); // polls that fail
    QTest::addColumn<int>("source");
    QTest::addColumn<QStringList>("outcome");
    QTest::addColumn<QStringList>("calls"); // to BlueZ

    const QStringList plays = {"@ ConnectAudioDevice", "@ PlayBluetooth"};
    const QStringList drops = QStringList {GivenUp, "4 Disconnect {anna}"} + Road::gone();
    const QStringList forgets = QStringList {GivenUp, "4 trust {anna} false", "4 Disconnect {anna}"}
        + Road::gone()
        + QStringList {"4 removeDevice {anna}", "4 removeDevice {anna} Remove Device, pair again"};
    QTest::newRow("server does not answer")
        << Polls << 0 << drops << QStringList {"> Device.Disconnect {anna}"};
    QTest::newRow("source does not come")
        << 0 << Polls << forgets
        << QStringList {"> Device.SetProperty {anna} Trusted false", "> Device.Disconnect {anna}",
                        "> Adapter.RemoveDevice {adapter} {anna}"};
    QTest::newRow("both at the last poll") << Polls - 1 << Polls - 1 << plays << QStringList();
}

void tst_audio_path::polls()
{
    QFETCH(int, server);
    QFETCH(int, source);
    QFETCH(QStringList, outcome);
    QFETCH(QStringList, calls);
    Road road;
    if (server > 0)
        road.tell(QString("fault pactl:stat exit=1 times=%1").arg(server));
    if (source > 0)
        road.tell(QString("fault pactl:loopback exit=1 times=%1").arg(source));
    road.tell("backend hci other"); // the connection counts as the unit's own at once
    road.meet("anna");
    road.tell("phone anna auto-play on"); // BlueZ soon closes a stream that never was
    const int from = road.mark();
    road.tell("phone anna connect");
    road.awaitAll(from, outcome);
    road.settle();

    QCOMPARE(road.deeds(from, {WaitForSource}), waits(WaitForSource, source));
    if (server > 0) // or else it may still be starting when it is asked first
        QCOMPARE(road.deeds(from, {WaitForServer}), waits(WaitForServer, server));
    QCOMPARE(road.deeds(from, {"> "}),
             QStringList {"> Device.SetProperty {anna} Trusted true"} + calls);
    const QJsonObject begun = road.entries({{"program", "pactl"}}, from).first();
    const QJsonObject end = road.entries({{"program", "pactl"}}, from).last();
    const double passed = Steps::secondsBetween(begun, end);
    const int waited = qMin(server, Polls - 1) + qMin(source, Polls - 1);
    // Qt lets a timer be a twentieth early.
    QVERIFY2(passed > 0.9 * PollSeconds * waited, qPrintable(QString::number(passed)));
    if (outcome.contains(GivenUp)) {
        QCOMPARE(road.deeds(from, {"@ "}),
                 QStringList({"@ StopPlay bluetooth ''", "@ DisconnectAudioDevice"}));
    }
}

void tst_audio_path::modulesFail()
{
    Road road;
    road.tell("fault pactl:alsa-sink exit=2");
    road.tell("fault pactl:discover exit=1");
    road.meet("anna");
    const int from = road.mark();
    road.stream();
    const QString sink =
        "/usr/bin/pactl load-module module-alsa-sink sink_name=output device=dm-audio";
    const QString discovery = "/usr/bin/pactl load-module module-bluetooth-discover";
    road.awaitAll(
        from,
        {"4 " + sink, "2 " + sink + " <- 512", "9 " + discovery, "2 " + discovery + " <- 256"});
}

void tst_audio_path::serverDoesNotStart()
{
    Road road;
    road.tell("fault pulseaudio missing");
    road.meet("anna");
    const int from = road.mark();
    road.tell("phone anna connect");
    road.awaitAll(from,
                  {"2 problem starting pulseaudio for device {anna}, so disconnect device",
                   "4 Disconnect {anna}", "4 Device {anna} DISCONNECT",
                   "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO"});
    road.settle();
    QCOMPARE(road.deeds(from, {"> Device.Disconnect"}).size(), 2); // with the reconnect's
    QCOMPARE(road.deeds(from, {"> Adapter", "@ ConnectAudioDevice"}), QStringList());
    road.tell("fault clear");
    road.stream();
}

void tst_audio_path::serverEnds_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QString>("signal");
    QTest::addColumn<QString>("log");
    QTest::newRow("ends while playing") << "playing"
                                        << "TERM"
                                        << "2 pulseaudio down 0 normal";
    QTest::newRow("killed while it is waited for") << "polling"
                                                   << "KILL"
                                                   << "2 pulseaudio down 9 crash";
}

void tst_audio_path::serverEnds()
{
    QFETCH(QString, state);
    QFETCH(QString, signal);
    QFETCH(QString, log);
    Road road;
    road.bring(state);
    const int from = road.mark();
    road.tell("kill pulseaudio " + signal);
    QStringList steps = QStringList {log, "4 Disconnect {anna}"} + Road::gone();
    if (state == "polling")
        steps.insert(4, StepDropped);
    road.awaitAll(from, steps + QStringList {"@ StopPlay bluetooth ''", "@ DisconnectAudioDevice"});
    const int ended = road.settle();
    QCOMPARE(road.deeds(from, {"> "}), QStringList {"> Device.Disconnect {anna}"});
    QCOMPARE(road.deeds(from, {"@ "}).size(), 4); // stopped with the device, and once more
    road.tell("fault clear");
    road.stream();
    QCOMPARE(road.deeds(ended, {"4 try to start", "$ "}).first(),
             QString("4 try to start pulseaudio for {anna}"));
}

void tst_audio_path::serverIgnoresTermination()
{
    Road road;
    road.tell("fault pulseaudio ignore-term");
    road.bring("streaming");
    int from = road.mark();
    road.tell("phone anna leave");
    const QJsonObject begun = road.await(Stopped);
    const QJsonObject end = road.expect({{"kind", "end"}, {"program", "pulseaudio"}});
    const double passed = Steps::secondsBetween(begun, end);
    QVERIFY2(passed > 1.9 && passed < 5, qPrintable(QString::number(passed)));
    road.awaitAll(from, Road::gone());
    from = road.settle();
    QCOMPARE(road.deeds(0, {"2 pulseaudio down"}), QStringList());
    road.stream();
    QCOMPARE(road.deeds(from, {"& "}), QStringList {"& pulseaudio --system"});
}

SCENARIO_MAIN(tst_audio_path)

#include "tst_audio_path.moc"
