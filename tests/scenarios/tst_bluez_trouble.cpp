// BlueZ says what it never should, does not answer, or is gone; strangers speak in its place.

#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QTest>

class tst_bluez_trouble : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oddSignals_data();
    void oddSignals();
    void convertedValues_data();
    void convertedValues();
    void spoofedSignals_data();
    void spoofedSignals();
    void crash_data();
    void crash();
    void crashInCall_data();
    void crashInCall();
    void neverAnswers();
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

void tst_bluez_trouble::oddSignals_data()
{
    QTest::addColumn<QStringList>("signalList");
    QTest::newRow("device properties") << QStringList {deviceSignal("s:Mood v:s:fine"),
                                                       deviceSignal("s:Trusted v:b:false"),
                                                       deviceSignal("s:connected v:b:false"),
                                                       deviceSignal("s:Connected"),
                                                       deviceSignal("s:Connected b:false"),
                                                       deviceSignal("v:b:false"),
                                                       deviceSignal("s: v:b:false"),
                                                       deviceSignal(""),
                                                       deviceSignal("s:State v:s:disconnected")};
    QTest::newRow("states") << QStringList {audioSignal("s:State v:s:dreaming"),
                                            audioSignal("s:State v:s:"),
                                            audioSignal("s:State v:s:Playing"),
                                            audioSignal("s:State v:u:3"),
                                            audioSignal("s:State v:as:playing,connected"),
                                            audioSignal("s:State v:o:/playing"),
                                            audioSignal("s:State v:v:s:disconnected"),
                                            audioSignal("s:Connected v:b:false"),
                                            audioSignal("s:Volume v:u:3")};
    QTest::newRow("other senders and signals")
        << QStringList {"{anna} org.bluez.Device.DisconnectRequested",
                        "{anna} org.bluez.Audio.PropertyChanged s:State v:s:disconnected",
                        "{adapter} org.bluez.Adapter.PropertyChanged s:Connected v:b:false",
                        "{berta} org.bluez.Device.PropertyChanged s:Connected v:b:false",
                        "{berta} org.bluez.AudioSource.PropertyChanged s:State v:s:disconnected"};
}

void tst_bluez_trouble::oddSignals()
{
    QFETCH(QStringList, signalList);
    Road road;
    road.bring("playing");
    for (const QString &signal : signalList) {
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
    QTest::newRow("down") << deviceSignal("s:Connected v:b:false");
    QTest::newRow("down as a text") << deviceSignal("s:Connected v:s:false");
    QTest::newRow("up as another text") << deviceSignal("s:Connected v:s:True");
    QTest::newRow("up as a number") << deviceSignal("s:Connected v:i:1");
    QTest::newRow("up as a list") << deviceSignal("s:Connected v:as:true,true");
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

void tst_bluez_trouble::spoofedSignals_data()
{
    QTest::addColumn<bool>("toServiceAlone");
    QTest::newRow("to everybody") << false;
    QTest::newRow("to the service alone") << true;
}

void tst_bluez_trouble::spoofedSignals()
{
    QFETCH(bool, toServiceAlone);
    Road road;
    road.bring("playing");
    const int from = road.mark();
    const QJsonObject call =
        road.entries({{"kind", "call"}, {"bus", "system"}, {"senderName", "service"}}).last();
    const QString to = toServiceAlone ? "to=" + call.value("sender").toString() + ' ' : QString();
    for (const QString &signal :
         {deviceSignal("s:Connected v:b:false"), audioSignal("s:State v:s:connected"),
          QString("{berta} org.bluez.Device.PropertyChanged s:Connected v:b:true"),
          QString("{berta} org.bluez.AudioSource.PropertyChanged s:State v:s:playing")}) {
        road.tell("spoof " + to + signal);
        road.expect({{"kind", "signal"}, {"senderName", "caller"}});
    }
    road.settle();
    QCOMPARE(road.messages(from).filter("PropertyChanged").size(), 1); // the one of settle()
    QCOMPARE(road.deeds(from), QStringList());
    verifyPlays(road);
}

void tst_bluez_trouble::crash_data()
{
    QTest::addColumn<QString>("state");
    for (const char *state : {"accepted", "polling", "playing"})
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
        steps << "4 there is step to start pulseaudio running";
    if (state != "accepted")
        steps << "4 stop pulseaudio because not used any more";
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
    QTest::addColumn<QJsonValue>("status"); // where it is for a caller
    const QString connect = "phone anna connect";
    QTest::newRow("question of trust")
        << "Device.GetProperties {anna}" << connect
        << QStringList {"2 error reading trust for {anna}", "4 load timer for reconnect",
                        "4 trust {anna} true", "2 error trusting {anna}"}
        << QJsonValue();
    QTest::newRow("disconnection")
        << "Device.Disconnect {anna}" << connect
        << QStringList {"2 disconnectDevice {anna} error disconnectiong ",
                        "4 Device {anna} DISCONNECT", "4 connectAudioSource {anna}",
                        "2 connectAudioSource {anna} connected but error on it"}
        << QJsonValue();
    QTest::newRow("connection") << "AudioSource.Connect {anna}" << connect
                                << QStringList {"2 connectAudioSource {anna} error Connect",
                                                "4 trust {anna} false", "2 error trusting {anna}",
                                                "4 removeDevice {anna}"}
                                << QJsonValue();
    QTest::newRow("adapter, for one phone")
        << "Manager.DefaultAdapter /"
        << "forget 00:1A:7D:DA:71:13" << QStringList {"2 error get DefaultAdapter"}
        << QJsonValue(1);
    QTest::newRow("adapter, for all phones")
        << "Manager.DefaultAdapter /"
        << "forget all" << QStringList {"2 error get DefaultAdapter"} << QJsonValue(1);
    QTest::newRow("list of phones")
        << "Adapter.ListDevices {adapter}"
        << "forget all" << QStringList {"4 error listing device on {adapter}"} << QJsonValue(0);
}

void tst_bluez_trouble::crashInCall()
{
    QFETCH(QString, call);
    QFETCH(QString, line);
    QFETCH(QStringList, logs);
    QFETCH(QJsonValue, status);
    Road road;
    road.meet("anna");
    road.tell("fault bluez:" + call.section(' ', 0, 0) + " never");
    const int from = road.mark();
    // Not through the road, which waits for the answer.
    QLocalSocket hub;
    hub.connectToServer(road.folder() + "/hub");
    hub.write(QJsonDocument(QJsonObject {{"tell", line}}).toJson(QJsonDocument::Compact) + '\n');
    QVERIFY(hub.waitForBytesWritten());
    road.await("> " + call);
    road.tell("fault clear bluez"); // for the next daemon; this call stays unanswered
    road.tell("kill bluetoothd");
    road.awaitAll(from, logs + QStringList {"2 bluezDown down 9 crash"});
    Steps::waitUntilOn(road);
    if (!status.isNull()) {
        road.rewind(from);
        road.expect(
            {{"kind", "reply"}, {"destinationName", "caller"}, {"arguments", QJsonArray {status}}});
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

SCENARIO_MAIN(tst_bluez_trouble)

#include "tst_bluez_trouble.moc"
