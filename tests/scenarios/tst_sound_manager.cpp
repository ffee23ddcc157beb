// The sound manager is asked to play and to stop, and only a refused stop has a consequence.

#include "Road.h"

#include <QCoreApplication>
#include <QTest>

class tst_sound_manager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void play_data();
    void play();
    void stop_data();
    void stop();
    void stopIsRefusedWhilePhoneIsHeld();
    void neverAnswers();
    void newerRequestCounts_data();
    void newerRequestCounts();
};

namespace {

const char PlayFailed[] = "2 error enabling sound manager for bluetooth play";
const char StopFailed[] = "2 error enabling sound manager for bluetooth play so disconnect";
const char Play[] = "@ PlayBluetooth";
const char Stop[] = "@ StopPlay bluetooth ''";
const char Connected[] = "@ ConnectAudioDevice";
const char Disconnected[] = "@ DisconnectAudioDevice";

} // namespace

void tst_sound_manager::play_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("logs");
    const QStringList asked {Connected, Play};
    QTest::newRow("granted") << "fault clear soundmanager" << asked << QStringList();
    QTest::newRow("granted late") << "fault soundmanager delay=400" << asked << QStringList();
    QTest::newRow("refused") << "fault soundmanager refuse" << asked << QStringList {PlayFailed};
    QTest::newRow("refused late") << "fault soundmanager refuse=400" << asked
                                  << QStringList {PlayFailed};
    QTest::newRow("absent") << "fault soundmanager absent" << QStringList {Connected}
                            << QStringList {PlayFailed};
}

void tst_sound_manager::play()
{
    QFETCH(QString, fault);
    QFETCH(QStringList, messages);
    QFETCH(QStringList, logs);
    Road road;
    road.bring("linking");
    road.tell(fault);
    const int from = road.mark();
    road.tell("fault clear pactl");
    road.awaitAll(from, messages + logs);
    if (messages.contains(Play)) {
        road.rewind(from);
        road.expect("the answer", [](const QJsonObject &entry) {
            return entry.value("senderName") == "com.orbitalis.ulmo.soundmanager";
        });
    }
    road.tell("phone anna play");
    road.settle();
    // Nothing else: the phone stays connected and the sound path stays up.
    QCOMPARE(road.deeds(from, {"1 ", "2 "}), logs);
    QCOMPARE(road.deeds(from, {"@ ", "> "}), messages);
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {0});
    road.awaitAll(from, Road::gone().filter(QRegularExpression("^4")));
}

void tst_sound_manager::stop_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("logs");
    const QStringList asked {Stop, Disconnected};
    QTest::newRow("granted") << "fault clear soundmanager" << asked << QStringList();
    QTest::newRow("granted late") << "fault soundmanager delay=400" << asked << QStringList();
    QTest::newRow("refused") << "fault soundmanager refuse" << asked << QStringList {StopFailed};
    QTest::newRow("absent") << "fault soundmanager absent" << QStringList {Disconnected}
                            << QStringList {PlayFailed};
}

void tst_sound_manager::stop()
{
    QFETCH(QString, fault);
    QFETCH(QStringList, messages);
    QFETCH(QStringList, logs);
    Road road;
    road.bring("playing");
    road.tell(fault);
    const int from = road.mark();
    road.tell("phone anna leave");
    road.awaitAll(from, messages + logs);
    if (messages.contains(Stop)) {
        road.rewind(from);
        road.expect("the answer", [](const QJsonObject &entry) {
            return entry.value("senderName") == "com.orbitalis.ulmo.soundmanager";
        });
    }
    road.settle();
    QCOMPARE(road.deeds(from, {"1 ", "2 "}), logs);
    QCOMPARE(road.deeds(from, {"@ ", "> "}), messages); // there is nothing left to disconnect
}

void tst_sound_manager::stopIsRefusedWhilePhoneIsHeld()
{
    Road road;
    road.meet("anna");
    // Asked when the connection is made again, refused when it is there again.
    road.tell("fault soundmanager refuse=2500");
    road.stream();
    road.tell("fault clear soundmanager");
    const int from = road.mark();
    road.awaitAll(from, QStringList {StopFailed, "4 Disconnect {anna}"} + Road::gone());
    road.settle();
    QCOMPARE(road.deeds(from, {"> "}), QStringList {"> Device.Disconnect {anna}"});
    // What is asked here is granted, and the play request's refusal comes later.
    QCOMPARE(road.deeds(from, {"@ "}), QStringList({Stop, Disconnected}));
}

/// Until the bus library gives up, after 25 s.
void tst_sound_manager::neverAnswers()
{
    Road road;
    road.meet("anna");
    road.tell("fault soundmanager never");
    road.stream();
    road.tell("phone anna play");
    const int from = road.settle();
    road.awaitAll(from, QStringList {StopFailed, "4 Disconnect {anna}"} + Road::gone());
    road.awaitAll(from, {PlayFailed});
    QCOMPARE(road.deeds(from, {"2 "}), QStringList({StopFailed, PlayFailed}));
}

void tst_sound_manager::newerRequestCounts_data()
{
    QTest::addColumn<QString>("member"); // which is asked twice and refused at first
    QTest::newRow("play") << "PlayBluetooth";
    QTest::newRow("stop") << "StopPlay";
}

void tst_sound_manager::newerRequestCounts()
{
    QFETCH(QString, member);
    Road road;
    if (member == "PlayBluetooth") {
        road.bring("linking");
        road.tell("fault soundmanager refuse=3000");
        road.tell("fault clear pactl");
        road.await(Play);
    } else {
        road.meet("anna");
        road.tell("fault soundmanager refuse=3000");
        road.tell("phone anna connect");
        road.await(Stop);
    }
    road.tell("fault clear soundmanager");
    road.rewind(0);
    road.await(Play);
    const int from = road.mark();
    road.tell("phone anna leave");
    road.awaitAll(from, Road::gone());
    road.stream();
    road.rewind(from);
    road.expect(VirtualProduct::message("error", member));
    road.settle();
    QCOMPARE(road.deeds(from, {PlayFailed}), QStringList());
    QCOMPARE(road.deeds(from, {Play}).size(), 1);
}

SCENARIO_MAIN(tst_sound_manager)

#include "tst_sound_manager.moc"
