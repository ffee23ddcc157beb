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
    void saves();
    void supervisorEnds();
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
    for (const QString state : {"accepted", "polling"})
        QTest::newRow(qPrintable("suspend, " + state)) << "suspend" << Suspending << state;
    QTest::newRow("shutdown, playing") << "shutdown" << ShuttingDown << "playing";
    QTest::newRow("reboot, playing") << "reboot" << Rebooting << "playing";
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
    QStringList steps {log, "4 Disconnect {anna}", "4 Device {anna} DISCONNECT",
                       "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO"};
    if (state == "polling")
        steps << "4 there is step to start pulseaudio running";
    if (state != "accepted")
        steps << "4 stop pulseaudio because not used any more";
    road.awaitAll(from, steps + Stop + Stop);
    road.settle();
    QCOMPARE(road.deeds(from, {"> "}), QStringList {"> Device.Disconnect {anna}"});
    QCOMPARE(road.deeds(from, {"@ "}), Stop + Stop);

    // The stack is as it was.
    QCOMPARE(road.call("GetStatus"), QJsonArray({0, true, true, "7351"}));
    QCOMPARE(road.deeds(from, {"& ", "$ hciconfig", "4 forceSyncDown"}), QStringList());
    if (state == "accepted")
        return;
    road.tell("fault clear");
    road.stream();
}

void tst_power::saves()
{
    VirtualProduct::Options options;
    options.settings = {{"BLUETOOTH/bt-pid", "1111"}};
    options.environment = QStringList {"ULMO_BT_PID=4711"}; // which is not in the store
    Road road(options);
    const QStringList saves {"4 Saving bluetooth configuration",
                             "4 Enable (true) not saved because already saved"};
    const QStringList first = saves + QStringList {"4 PID SAVED (4711)"};
    const QStringList again = saves + QStringList {"4 PID (4711) not saved because already saved"};
    const QVector<QPair<QString, QStringList>> events {
        {"suspend", {Suspending}},
        {"shutdown restore", {ShuttingDown}},
        {"reboot restore", {Rebooting}},
        {"shutdown Restore", QStringList {ShuttingDown} + first},
        {"reboot", QStringList {Rebooting} + again}};
    for (const auto &event : events) {
        const int from = road.mark();
        road.tell("platform " + event.first);
        road.awaitAll(from, event.second + Stop);
        road.settle();
        QCOMPARE(road.deeds(from), event.second + Stop);
    }
    QCOMPARE(road.settings().value("BLUETOOTH/bt-pid").toString(), QString("4711"));
}

void tst_power::supervisorEnds()
{
    Road road;
    road.bring("polling");
    const int from = road.mark();
    road.tell("platform supervisor-end");
    road.awaitAll(from,
                  QStringList {"4 BluetoothManager close for supervisor end"}
                      + Steps::tearDownSteps() + QStringList {"4 BluetoothManager cleaned-up"});
    QCOMPARE(road.serviceExit(), 0);
    QCOMPARE(road.deeds(from, {"> "}), QStringList());
    Steps::expectNothingLeft(road);
}

void tst_power::strangers()
{
    Road road;
    road.bring("playing");
    const int from = road.mark();
    for (const QString event : {"suspend", "shutdown", "reboot", "supervisor-end"}) {
        road.tell("platform spoof-" + event + " power key");
        road.expect({{"interface", "com.orbitalis.ulmo.platformevents"}, {"bus", "session"}});
    }
    road.settle();
    QCOMPARE(road.deeds(from), QStringList());
}

SCENARIO_MAIN(tst_power)

#include "tst_power.moc"
