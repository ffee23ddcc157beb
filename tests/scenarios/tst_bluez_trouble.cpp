// BlueZ says what it never should, does not answer, or is gone; strangers speak in its place.

#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QTest>

class tst_bluez_trouble : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oddSignals();
    void convertedValues_data();
    void convertedValues();
    void spoofedSignals();
    void crash_data();
    void crash();
    void crashInCall_data();
    void crashInCall();
    void neverAnswers();
    void lateSignal();
};

namespace {

QString deviceSignal(const QString &arguments)
{
    return "{anna} org.bluez.Device.PropertyChanged " + arguments;
}

QString audioSignal(const QString &arguments)
{
    return "{anna} org.bluez.AudioSource.PropertyChanged " + arguments;
}

/// Has \p line carried out while the scenario goes on.
void tellWithoutWaiting(const Road &road, const QString &line)
{
    HubClient hub;
    QVERIFY(hub.connectTo(road.folder() + "/hub", 10000));
    hub.tell(line);
}

/// Whether the service is there and the phone "anna" is still played.
void verifyPlays(Road &road)
{
    QCOMPARE(road.call("GetStatus"), QJsonArray({0, true, true, "7351"}));
    const int from = road.mark();
    road.tell("phone anna pause");
    road.await("4 start/restart timer for no play"); // which is for a phone that is played
    road.settle();
    QCOMPARE(road.deeds(from), QStringList {"4 start/restart timer for no play"});
}

} // namespace

void tst_bluez_trouble::oddSignals()
{
    Road road;
    road.bring("playing");
    for (const QString &signal :
         {deviceSignal("s:Mood v:s:fine"), deviceSignal("s:Trusted v:b:false"),
          deviceSignal("s:Connected b:false"), deviceSignal(""),
          deviceSignal("s:State v:s:disconnected"), audioSignal("s:State v:s:dreaming"),
          audioSignal("s:State v:as:playing,connected"), audioSignal("s:State v:v:s:disconnected"),
          audioSignal("s:Connected v:b:false"), audioSignal("s:Volume v:u:3"),
          QString("{anna} org.bluez.Device.DisconnectRequested"),
          QString("{anna} org.bluez.Audio.PropertyChanged s:State v:s:disconnected"),
          QString("{adapter} org.bluez.Adapter.PropertyChanged s:Connected v:b:false"),
          QString("{berta} org.bluez.Device.PropertyChanged s:Connected v:b:false"),
          QString("{berta} org.bluez.AudioSource.PropertyChanged s:State v:s:disconnected")}) {
        const int from = road.mark();
        road.tell("signal " + signal);
        road.settle();
        const QStringList deeds = road.deeds(from);
        QVERIFY2(deeds.isEmpty(), qPrintable(signal + ": " + deeds.join(", ")));
    }
    verifyPlays(road);
}

void tst_bluez_trouble::convertedValues_data()
{
    QTest::addColumn<QString>("signal");
    QTest::newRow("down as a text") << deviceSignal("s:Connected v:s:false");
    QTest::newRow("up as another text") << deviceSignal("s:Connected v:s:True");
    QTest::newRow("up as a number") << deviceSignal("s:Connected v:i:1");
}

/// Values are taken as texts, and only "true" is connected.
void tst_bluez_trouble::convertedValues()
{
    QFETCH(QString, signal);
    Road road;
    road.bring("playing");
    int from = road.mark();
    road.tell("signal " + deviceSignal("s:Connected v:s:true"));
    road.awaitAll(from, {"4 Device {anna} CONNECTED AND ACCEPTED"});
    from = road.mark();
    road.tell("signal " + signal);
    road.awaitAll(from, Road::gone());
}

void tst_bluez_trouble::spoofedSignals()
{
    Road road;
    road.bring("playing");
    const int from = road.mark();
    const QJsonObject call =
        road.entries({{"kind", "call"}, {"bus", "system"}, {"senderName", "service"}}).last();
    const QString toService = "to=" + call.value("sender").toString() + ' ';
    for (const QString &to : {QString(), toService}) {
        for (const QString &signal :
             {deviceSignal("s:Connected v:b:false"), audioSignal("s:State v:s:connected"),
              QString("{berta} org.bluez.Device.PropertyChanged s:Connected v:b:true"),
              QString("{berta} org.bluez.AudioSource.PropertyChanged s:State v:s:playing")}) {
            road.tell("spoof " + to + signal);
            road.expect({{"kind", "signal"}, {"senderName", "caller"}});
        }
    }
    road.settle();
    QCOMPARE(road.messages(from).filter("PropertyChanged").size(), 1); // the one of settle()
    QCOMPARE(road.deeds(from), QStringList());
    verifyPlays(road);
}

void tst_bluez_trouble::crash_data()
{
    QTest::addColumn<QString>("state");
    for (const char *state : {"accepted", "polling"})
        QTest::newRow(state) << state;
}

void tst_bluez_trouble::crash()
{
    QFETCH(QString, state);
    Road road(Road::acceptedFor(10000));
    road.bring(state);
    const int from = road.mark();
    road.tell("kill bluetoothd");
    QStringList steps {"2 bluezDown down 9 crash"};
    steps << "4 forceSyncDown"
          << "$ hciconfig hci0 noscan"
          << "$ hciconfig hci0 down";
    if (state == "polling")
        steps << "4 there is step to start pulseaudio running"
              << "4 stop pulseaudio because not used any more";
    steps << "4 restart" << Steps::bringUpSteps();
    road.awaitAll(from, steps);
    Steps::waitUntilOn(road);
    road.settle();
    QCOMPARE(road.deeds(from, {"> "}), QStringList()); // there was nobody to call
    if (state == "accepted")
        return;

    // The phone has another path now.
    road.tell("fault clear");
    road.stream();
    road.awaitAll(from, Road::ownConnection() + Road::playback());
}

void tst_bluez_trouble::crashInCall_data()
{
    QTest::addColumn<QString>("call"); // which the daemon does not live to answer
    QTest::addColumn<QString>("line"); // by which the service comes to make it
    QTest::addColumn<QStringList>("logs");
    const QString connect = "phone anna connect";
    QTest::newRow("question of trust")
        << "Device.GetProperties {anna}" << connect
        << QStringList {"2 error reading trust for {anna}", "4 load timer for reconnect",
                        "4 trust {anna} true", "2 error trusting {anna}"};
    QTest::newRow("disconnection")
        << "Device.Disconnect {anna}" << connect
        << QStringList {"2 disconnectDevice {anna} error disconnectiong ",
                        "4 Device {anna} DISCONNECT", "4 connectAudioSource {anna}",
                        "2 connectAudioSource {anna} connected but error on it"};
    QTest::newRow("list of phones")
        << "Adapter.ListDevices {adapter}"
        << "forget all" << QStringList {"4 error listing device on {adapter}"};
}

void tst_bluez_trouble::crashInCall()
{
    QFETCH(QString, call);
    QFETCH(QString, line);
    QFETCH(QStringList, logs);
    Road road;
    road.meet("anna");
    road.tell("fault bluez:" + call.section(' ', 0, 0) + " never");
    const int from = road.mark();
    tellWithoutWaiting(road, line);
    road.await("> " + call);
    road.tell("fault clear bluez"); // for the next daemon; this call stays unanswered
    road.tell("kill bluetoothd");
    road.awaitAll(from, logs + QStringList {"2 bluezDown down 9 crash"});
    Steps::waitUntilOn(road);
    if (line == "forget all") {
        road.rewind(from);
        road.expect(
            {{"kind", "reply"}, {"destinationName", "caller"}, {"arguments", QJsonArray {0}}});
    }
    road.stream();
}

/// Until the bus library gives up, after 25 s; the service answers nobody meanwhile.
void tst_bluez_trouble::neverAnswers()
{
    Road road;
    road.bring("playing");
    road.tell("fault bluez:Device.Disconnect never");
    const int from = road.mark();
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {0});
    road.awaitAll(
        from,
        QStringList {"4 Disconnect {anna}", "2 disconnectDevice {anna} error disconnectiong "}
            + Road::gone());
    QCOMPARE(road.call("GetStatus"), QJsonArray({0, true, true, "7351"}));
    road.tell("fault clear");
    const int again = road.mark();
    road.tell("phone anna leave");
    road.awaitPhone(again, "anna", "link-down");
    road.stream();
}

/// What a daemon said before its end is delivered when its successor is started.
void tst_bluez_trouble::lateSignal()
{
    Road road;
    road.bring("playing");
    road.tell("fault bluez:Device.Disconnect delay=500");
    const int from = road.mark();
    tellWithoutWaiting(road, "pin 1234");
    road.await("> Device.Disconnect {anna}");
    road.tell("signal {berta} org.bluez.Device.PropertyChanged s:Connected v:b:true");
    Steps::waitUntilOn(road);
    QVERIFY(road.messages(from).join('\n').contains("dev_00_1A_7D_DA_71_14 Connected=true"));
    road.meet("carla");
    road.stream("carla");
}

SCENARIO_MAIN(tst_bluez_trouble)

#include "tst_bluez_trouble.moc"
