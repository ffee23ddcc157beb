// A phone goes away, in whatever state it is and however it goes: the sound ends, nothing that was
// under way goes on, and the phone can come again.

#include "Road.h"

#include <QCoreApplication>
#include <QTest>

class tst_phone_leaves : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void soundEnds_data();
    void soundEnds();
    void reconnectStillRuns_data();
    void reconnectStillRuns();
    void isLostInReconnect();
    void trailingState_data();
    void trailingState();
};

void tst_phone_leaves::soundEnds_data()
{
    QTest::addColumn<QStringList>("row");
    for (const QString row : {"mgmt, polling, leave", "hci other, linking, drop",
                              "mgmt, streaming, out-of-range", "hci, playing, leave"})
        QTest::newRow(qPrintable(row)) << row.split(", ");
}

void tst_phone_leaves::soundEnds()
{
    QFETCH(QStringList, row);
    const QString state = row.at(1);
    Road road;
    road.bring(state);
    road.tell("backend " + row.at(0));
    const int from = road.mark();
    road.tell("phone anna " + row.at(2));
    QStringList steps = Road::gone();
    if (state == "polling" || state == "linking")
        steps.insert(2, "4 there is step to start pulseaudio running");
    road.awaitAll(from, steps);
    road.rewind(from);
    road.expect({{"kind", "end"}, {"program", "pulseaudio"}});
    const int left = road.settle();
    QCOMPARE(road.deeds(from, {"> "}), QStringList());
    QCOMPARE(road.deeds(from, {"@ "}),
             QStringList({"@ StopPlay bluetooth ''", "@ DisconnectAudioDevice"}));

    // Its link comes up and is idle, for longer than from one step to the next.
    road.tell("fault clear");
    road.tell("phone anna in-range");
    road.tell("timescale 0.15");
    road.tell("phone anna connect-acl");
    road.awaitPhone(left, "anna", "link-down");
    road.settle();
    QCOMPARE(road.deeds(left, {"$ "}), QStringList());
    road.tell("timescale 0.05");

    road.stream();
    road.awaitAll(left, Road::ownConnection() + Road::playback());
}

void tst_phone_leaves::reconnectStillRuns_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("outcome");
    const QStringList played = Road::ownConnection() + Road::playback();
    QTest::newRow("leaves and can be reached") << "phone anna leave" << played;
    QTest::newRow("is disconnected by a suspend") << "platform suspend" << played;
    const QStringList failed {"2 connectAudioSource {anna} error Connect"};
    QTest::newRow("out of range") << "phone anna out-of-range" << failed + Road::forgotten();
}

void tst_phone_leaves::reconnectStillRuns()
{
    QFETCH(QString, line);
    QFETCH(QStringList, outcome);
    Road road(Road::acceptedFor(1500));
    road.bring("accepted");
    const int from = road.mark();
    road.tell(line);
    road.awaitAll(
        from,
        QStringList {
            "4 Device {anna} DISCONNECT", "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO",
            "4 reconnect", "4 Disconnect {anna}", "2 disconnectDevice {anna} error disconnectiong ",
            "4 connectAudioSource {anna}", "> Device.Disconnect {anna}",
            "> AudioSource.Connect {anna}", "@ StopPlay bluetooth ''", "@ DisconnectAudioDevice"}
            + outcome);
}

void tst_phone_leaves::isLostInReconnect()
{
    Road road;
    road.tell("timescale 0.4");
    road.meet("anna");
    const int from = road.mark();
    road.tell("phone anna connect");
    road.await("> Device.Disconnect {anna}"); // which takes 2 s of BlueZ's
    road.tell("phone anna out-of-range");
    road.awaitAll(from,
                  Road::madeAgain() + QStringList {"2 connectAudioSource {anna} error Connect"}
                      + Road::forgotten());
    road.expect(VirtualProduct::message("signal", "DeviceRemoved"));
    road.tell("phone anna in-range");
    road.tell("phone anna forget");
    road.tell("timescale 0.05");
    const int again = road.mark();
    road.stream();
    road.rewind(again);
    road.expect(VirtualProduct::message("reply", "RequestPinCode"));
}

void tst_phone_leaves::trailingState_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("trails"); // "disconnected" comes after Connected = false
    QTest::newRow("leaves") << "phone anna leave" << false;
    QTest::newRow("drops the link") << "phone anna drop" << true;
    QTest::newRow("is disconnected") << "disconnect" << true;
}

/// The unit hears once more of a phone that it has forgotten already, and waits for that one.
void tst_phone_leaves::trailingState()
{
    QFETCH(QString, line);
    QFETCH(bool, trails);
    Road road;
    road.bring("streaming");
    road.meet("berta", "known");
    int from = road.mark();
    road.tell(line);
    road.awaitAll(from, Road::gone());
    road.rewind(from);
    road.expect({{"path", road.path("anna")}, {"arguments", QJsonArray {"State", "disconnected"}}});
    from = road.settle();
    road.tell("phone berta connect-acl");
    road.await(trails ? "4 DevicePropertyChanged but not for me, disconnect !!"
                      : "4 Device {berta} CONNECTED AND ACCEPTED");
    if (!trails)
        return;
    road.await("> Device.Disconnect {berta}");
    road.awaitPhone(from, "berta", "link-down");
    road.stream();
}

SCENARIO_MAIN(tst_phone_leaves)

#include "tst_phone_leaves.moc"
