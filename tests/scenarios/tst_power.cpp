// Suspend, shutdown and reboot drop the connection and keep the stack; the supervisor's end is the
// service's end. Only the platform itself counts.

#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QTest>

class tst_power : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void dropsConnection_data();
    void dropsConnection();
    void saves_data();
    void saves();
    void reconnectStillRuns();
    void supervisorEnds_data();
    void supervisorEnds();
    void strangers_data();
    void strangers();
};

namespace {

const QStringList Stop {"@ StopPlay bluetooth ''", "@ DisconnectAudioDevice"};
const char Suspending[] = "2 [!] ULMO IS SUSPENDING";
const char ShuttingDown[] = "2 [!] ULMO IS SHUTTING DOWN: save status";
const char Rebooting[] = "2 [!] ULMO IS REBOOTING: save status";

} // namespace

void tst_power::dropsConnection_data()
{
    QTest::addColumn<QString>("event");
    QTest::addColumn<QString>("log");
    QTest::addColumn<QString>("state");
    const QMap<QString, QString> logs {
        {"suspend", Suspending}, {"shutdown", ShuttingDown}, {"reboot", Rebooting}};
    for (const QString &event : logs.keys()) {
        for (const QString state : {"idle", "accepted", "polling", "playing"})
            QTest::newRow(qPrintable(event + ", " + state)) << event << logs.value(event) << state;
    }
}

void tst_power::dropsConnection()
{
    QFETCH(QString, event);
    QFETCH(QString, log);
    QFETCH(QString, state);
    Road road(Road::acceptedFor(10000));
    road.bring(state);
    const int from = road.mark();
    road.tell("platform " + event + " power key");

    const bool isConnected = state != "idle";
    QStringList steps {log};
    if (isConnected)
        steps << "4 Disconnect {anna}"
              << "4 Device {anna} DISCONNECT"
              << "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO";
    if (state == "polling")
        steps << "4 there is step to start pulseaudio running";
    if (state == "polling" || state == "playing")
        steps << "4 stop pulseaudio because not used any more";
    road.awaitAll(from, steps + Stop + (isConnected ? Stop : QStringList()));
    road.settle();
    QCOMPARE(road.deeds(from, {"> "}),
             isConnected ? QStringList {"> Device.Disconnect {anna}"} : QStringList());
    QCOMPARE(road.deeds(from, {"@ "}), Stop + (isConnected ? Stop : QStringList()));

    // The stack is as it was.
    QCOMPARE(road.call("GetStatus"), QJsonArray({0, true, true, "7351"}));
    QCOMPARE(road.deeds(from, {"& ", "$ hciconfig", "4 forceSyncDown"}), QStringList());
    if (state == "accepted")
        return;
    road.tell("fault clear");
    road.stream();
}

void tst_power::saves_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("logs");
    const QStringList saved {"4 Saving bluetooth configuration",
                             "4 Enable (true) not saved because already saved",
                             "4 PID SAVED (4711)"};
    QTest::newRow("suspend") << "platform suspend" << QStringList {Suspending};
    QTest::newRow("suspend, power key") << "platform suspend power key" << QStringList {Suspending};
    QTest::newRow("shutdown") << "platform shutdown" << QStringList {ShuttingDown} + saved;
    QTest::newRow("shutdown, power key")
        << "platform shutdown power key" << QStringList {ShuttingDown} + saved;
    QTest::newRow("shutdown, restore") << "platform shutdown restore" << QStringList {ShuttingDown};
    QTest::newRow("shutdown, Restore")
        << "platform shutdown Restore" << QStringList {ShuttingDown} + saved;
    QTest::newRow("shutdown, restored")
        << "platform shutdown restored" << QStringList {ShuttingDown} + saved;
    QTest::newRow("reboot") << "platform reboot" << QStringList {Rebooting} + saved;
    QTest::newRow("reboot, restore") << "platform reboot restore" << QStringList {Rebooting};
}

void tst_power::saves()
{
    QFETCH(QString, line);
    QFETCH(QStringList, logs);
    VirtualProduct::Options options;
    options.settings = {{"BLUETOOTH/bt-pid", "1111"}};
    options.environment = QStringList {"ULMO_BT_PID=4711"}; // which is not in the store
    Road road(options);
    const int from = road.mark();
    road.tell(line);
    road.awaitAll(from, logs + Stop);
    road.settle();
    QCOMPARE(road.deeds(from, {"2 ", "4 "}), logs);
    const bool isSaved = logs.size() > 1;
    QCOMPARE(road.settings().value("BLUETOOTH/bt-pid").toString(),
             QString(isSaved ? "4711" : "1111"));
}

void tst_power::reconnectStillRuns()
{
    Road road(Road::acceptedFor(1500));
    road.bring("accepted");
    const int from = road.mark();
    road.tell("platform suspend");
    road.awaitAll(from,
                  QStringList {Suspending, "4 Disconnect {anna}", "4 reconnect",
                               "2 disconnectDevice {anna} error disconnectiong ",
                               "4 connectAudioSource {anna}"}
                      + Road::ownConnection() + Road::playback());
}

void tst_power::supervisorEnds_data()
{
    QTest::addColumn<QString>("state");
    for (const char *state : {"idle", "accepted", "polling", "linking", "playing"})
        QTest::newRow(state) << state;
}

void tst_power::supervisorEnds()
{
    QFETCH(QString, state);
    Road road(Road::acceptedFor(10000));
    road.bring(state);
    const int from = road.mark();
    road.tell("platform supervisor-end");
    road.awaitAll(from,
                  QStringList {"4 BluetoothManager close for supervisor end"}
                      + Steps::tearDownSteps() + QStringList {"4 BluetoothManager cleaned-up"});
    QCOMPARE(road.serviceExit(), 0);
    QCOMPARE(road.deeds(from, {"> "}), QStringList());
    Steps::expectNothingLeft(road);
}

void tst_power::strangers_data()
{
    QTest::addColumn<QString>("event");
    for (const char *event : {"suspend", "shutdown", "reboot", "supervisor-end"})
        QTest::newRow(event) << event;
}

void tst_power::strangers()
{
    QFETCH(QString, event);
    Road road;
    road.bring("playing");
    const int from = road.mark();
    road.tell("platform spoof-" + event + " power key");
    road.expect({{"interface", "com.orbitalis.ulmo.platformevents"}, {"bus", "session"}});
    road.settle();
    QCOMPARE(road.deeds(from), QStringList());
}

SCENARIO_MAIN(tst_power)

#include "tst_power.moc"
