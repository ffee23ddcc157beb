// The sound manager is asked to play and to stop, and only a refused stop has a consequence.

#include "Road.h"

#include <QCoreApplication>
#include <QTest>

class tst_sound_manager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answers_data();
    void answers();
    void stopIsRefusedWhilePhoneIsHeld();
    void neverAnswers();
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

void tst_sound_manager::answers_data()
{
    QTest::addColumn<bool>("play");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("logs");
    const QStringList play {Connected, Play};
    const QStringList stop {Stop, Disconnected};
    const QString absent = "fault soundmanager absent";
    const QString refuse = "fault soundmanager refuse";
    QTest::newRow("play granted") << true << "fault clear soundmanager" << play << QStringList();
    QTest::newRow("play refused") << true << refuse << play << QStringList {PlayFailed};
    QTest::newRow("play, absent") << true << absent << QStringList {Connected}
                                  << QStringList {PlayFailed};
    QTest::newRow("stop granted") << false << "fault clear soundmanager" << stop << QStringList();
    QTest::newRow("stop refused") << false << refuse << stop << QStringList {StopFailed};
    QTest::newRow("stop, absent") << false << absent << QStringList {Disconnected}
                                  << QStringList {PlayFailed};
}

void tst_sound_manager::answers()
{
    QFETCH(bool, play);
    QFETCH(QString, fault);
    QFETCH(QStringList, messages);
    QFETCH(QStringList, logs);
    Road road;
    road.bring(play ? "linking" : "playing");
    road.tell(fault);
    const int from = road.mark();
    road.tell(play ? "fault clear pactl" : "phone anna leave");
    road.awaitAll(from, messages + logs);
    if (messages.size() == 2) {
        road.rewind(from);
        road.expect({{"senderName", "com.orbitalis.ulmo.soundmanager"}});
    }
    if (play)
        road.tell("phone anna play");
    road.settle();
    // Nothing else: what is played goes on, and there is nothing left to disconnect.
    QCOMPARE(road.deeds(from, {"1 ", "2 "}), logs);
    QCOMPARE(road.deeds(from, {"@ ", "> "}), messages);
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {play ? 0 : 1});
    road.tell("fault clear");
    road.stream();
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

/// The refusal of an older stop, when a newer one was granted, is of no interest.
void tst_sound_manager::newerRequestCounts()
{
    Road road;
    road.meet("anna");
    road.tell("fault soundmanager refuse=3000");
    road.tell("phone anna connect");
    road.await(Stop);
    road.tell("fault clear soundmanager");
    road.rewind(0);
    road.await(Play);
    const int from = road.mark();
    road.tell("phone anna leave");
    road.awaitAll(from, Road::gone());
    road.stream();
    road.rewind(from);
    road.expect(VirtualProduct::message("error", "StopPlay"));
    road.settle();
    QCOMPARE(road.deeds(from, {StopFailed}), QStringList());
    QCOMPARE(road.deeds(from, {Play}).size(), 1);
}

SCENARIO_MAIN(tst_sound_manager)

#include "tst_sound_manager.moc"
