#include "DaemonBench.h"
#include "Script.h"

#include <QDBusObjectPath>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>

/**
 * The programs and the phones from the outside: restarts, the journal, the commands, how the
 * programs end, and that nothing piles up.
 */
class PhonesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void restart();
    void journal();
    void commands_data();
    void commands();
    void agentProgram();
    void daemonProgram();
    void manyVisits();
};

void PhonesTest::restart()
{
    DaemonBench bench(0.1, {{"adapter-delay", 50}});
    QVERIFY(bench.addPhone("P", "name=\"My phone\""));
    const QString firstRun = R"(
        > phone P pair
        signal adapter Adapter.DeviceCreated P
        adapter Adapter.Devices = [P]
        P Device.Connected = true
        P Device.Name = "My phone"
        P Device.Alias = "My phone"
        call agent Agent.RequestPinCode P
        return agent Agent.RequestPinCode "7351"
        P Device.Paired = true
        P Device.Connected = false
        P Device.Connected = true
        P Device.UUIDs = [110a]
        > unit P Device.SetProperty "Trusted" true
        P Device.Trusted = true
        return P Device.SetProperty
        > unit P AudioSource.Connect
        P AudioSource.State = "connecting"
        return P AudioSource.Connect
        P AudioSource.State = "connected"
        # No signal tells of the links' end.
        > stop
        call agent Agent.Release
        org.bluez vanishes)";
    QVERIFY(bench.startUp());
    QVERIFY(bench.startAgent());
    bench.recorder.clear();
    QCOMPARE(Script(firstRun).run(bench), QString());
    QTRY_COMPARE(bench.agent().state(), QProcess::NotRunning);
    QCOMPARE(bench.agent().exitCode(), 0);

    const QString secondRun = R"(
        > start
        org.bluez appears
        P Device.Paired = true
        signal / Manager.AdapterAdded adapter
        / Manager.Adapters = [adapter]
        signal / Manager.DefaultAdapterChanged adapter
        adapter Adapter.Name = ""
        adapter Adapter.Powered = true
        adapter Adapter.Name = "unit-0"
        adapter Adapter.Pairable = true
        adapter Adapter.Discoverable = false
        adapter Adapter.Pairable = true
        > unit P Device.GetProperties
        return P Device.GetProperties {"Address" "00:AA:01:01:00:01" "Name" "My phone" "Alias" "My
        | phone" "Class" 524 "Icon" "phone" "Paired" true "Trusted" true "Blocked" false
        | "Connected" false "UUIDs" [110a] "Services" [] "Adapter" adapter}
        > phone P connect
        P Device.Connected = true
        P AudioSource.State = "connecting"
        P AudioSource.State = "connected")";
    const QString before = bench.path("P");
    bench.recorder.clear();
    QCOMPARE(Script(secondRun).run(bench), QString());
    QVERIFY(bench.path("P") != before);
}

void PhonesTest::journal()
{
    DaemonBench bench(0.1, {{"adapter-delay", 0}});
    QVERIFY(bench.addPhone("P", "audio=/tone.raw"));
    QVERIFY(bench.startUp());
    QVERIFY(bench.startAgent());
    const QStringList visit {"connect", "play", "pause", "play", "leave"};
    const QStringList shown {"State = \"connected\"", "State = \"playing\"",
                             "State = \"connected\"", "State = \"playing\"", "Connected = false"};
    for (int i = 0; i < visit.size(); i++) {
        bench.recorder.clear();
        QVERIFY(bench.hub.tell("phone P " + visit.at(i)));
        QTRY_VERIFY2(bench.recorder.lines().join('\n').contains(shown.at(i)),
                     qPrintable(visit.at(i)));
    }
    QStringList states;
    for (const QJsonObject &event : bench.hub.events()) {
        QCOMPARE(event.value("kind").toString(), QString("phone"));
        QCOMPARE(event.value("lane").toString(), QString("phone"));
        QCOMPARE(event.value("phone").toString(), QString("P"));
        QCOMPARE(event.value("address").toString(), QString("00:AA:01:01:00:01"));
        QCOMPARE(event.value("audio").toString(), QString("/tone.raw"));
        QVERIFY(!event.value("text").toString().isEmpty());
        if (event.contains("state"))
            states.append(event.value("state").toString());
    }
    QCOMPARE(states,
             QStringList({"link-up", "paired", "stream-open", "playing", "paused", "playing",
                          "paused", "stream-closed", "link-down"}));
}

void PhonesTest::commands_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("refusal"); ///< empty: carried out
    const auto row = [](const char *command, const char *refusal) {
        QTest::newRow(command) << command << refusal;
    };
    row("phone add Q", "");
    row("phone add Q name=\"A longer name\" pin=0000 audio=/a known trusted", "");
    row("phone add P", "there is a phone P already");
    row("phone add Q address=00:AA:01:01:00:01", "P has this address");
    row("phone add Q address=00:aa:bb:cc:dd:ee", "");
    row("phone add Q address=nonsense", "\"NONSENSE\" is not an address");
    row("phone add", "a phone needs a name");
    row("phone add Q colour=red",
        "phone add NAME [address=..] [name=..] [pin=..] [audio=FILE] [known] [trusted]");
    row("phone Q pair", "there is no phone Q");
    row("phone P play", "P has no stream to the unit");
    row("phone P pause", "P does not play");
    row("phone P close", "P has no stream to the unit");
    row("phone P leave", "P is not connected");
    row("phone P drop", "P is not connected");
    row("phone P connect-a2dp", "P is not paired");
    row("phone K pair", "K is paired already");
    row("phone P answer-late soon", "answer-late MILLISECONDS");
    row("phone P auto-play maybe", "auto-play on|off");
    row("adapter explode", "adapter up|down|piscan|noscan|sspmode 0|sspmode 1");
    row("explode", "bluetoothd does not know \"explode\"");
}

void PhonesTest::commands()
{
    QFETCH(QString, command);
    QFETCH(QString, refusal);
    DaemonBench bench(0.1, {{"adapter-delay", 0}});
    QVERIFY(bench.addPhone("P"));
    QVERIFY(bench.addPhone("K", "known"));
    QVERIFY(bench.startUp());
    QString answer;
    QCOMPARE(bench.hub.tell(command, &answer), refusal.isEmpty());
    QCOMPARE(answer, refusal.isEmpty() ? "ok" : refusal);
    // What cannot begin now must say so.
    QVERIFY(bench.hub.tell("phone P out-of-range"));
    QVERIFY(!bench.hub.tell("phone P connect", &answer));
    QCOMPARE(answer, QString("P is out of range"));
    QVERIFY(bench.hub.tell("adapter noscan"));
    QVERIFY(!bench.hub.tell("phone K connect", &answer));
    QCOMPARE(answer, QString("the unit is not connectable"));
}

void PhonesTest::agentProgram()
{
    DaemonBench bench(0.1, {{"adapter-delay", 0}, {"no-adapter", true}});
    QVERIFY(bench.startDaemon());
    QVERIFY(bench.recorder.waitForLine("org.bluez appears"));
    // Without an adapter, and with another agent registered: the end, with status 1.
    bench.launchAgent();
    QTRY_COMPARE(bench.agent().state(), QProcess::NotRunning);
    QCOMPARE(bench.agent().exitCode(), 1);
    QCOMPARE(bench.stop(bench.daemon()), 0);

    bench.hub.setOptions({{"no-adapter", false}});
    QVERIFY(bench.startUp());
    QVERIFY(bench
                .call("adapter", "Adapter.RegisterAgent",
                      {QVariant::fromValue(QDBusObjectPath("/mine")), "NoInputNoOutput"})
                .errorName()
                .isEmpty());
    bench.launchAgent();
    QTRY_COMPARE(bench.agent().state(), QProcess::NotRunning);
    QCOMPARE(bench.agent().exitCode(), 1);
    QVERIFY(bench
                .call("adapter", "Adapter.UnregisterAgent",
                      {QVariant::fromValue(QDBusObjectPath("/mine"))})
                .errorName()
                .isEmpty());

    // It ends with the daemon, in whatever way that ends.
    bench.recorder.clear();
    QVERIFY(bench.startAgent());
    const QJsonArray arguments = bench.hub.hellos().last().value("arguments").toArray();
    QCOMPARE(arguments.last().toString(), QString("7351"));
    QCOMPARE(arguments.size(), 7);
    bench.daemon().kill();
    QTRY_COMPARE(bench.agent().state(), QProcess::NotRunning);
    QCOMPARE(bench.agent().exitCode(), 0);

    bench.hub.setAnswer("agent", {{"behaviour", "exit"}, {"status", 3}});
    bench.launchAgent();
    QTRY_COMPARE(bench.agent().state(), QProcess::NotRunning);
    QCOMPARE(bench.agent().exitCode(), 3);
}

void PhonesTest::daemonProgram()
{
    DaemonBench bench(0.1, {{"adapter-delay", 0}});
    QVERIFY(bench.startUp());
    QCOMPARE(bench.hub.hellos().last().value("environment").toObject(),
             QJsonObject({{"BLUEZHOSTNAME", "unit-0"}}));
    // A second daemon finds the name taken.
    QProcess second;
    bench.start(second, {"bluetoothd", "-n"});
    QTRY_COMPARE(second.state(), QProcess::NotRunning);
    QCOMPARE(second.exitCode(), 1);
    QCOMPARE(bench.stop(bench.daemon()), 0);

    bench.hub.setOptions({{"no-name", true}});
    bench.recorder.clear();
    QVERIFY(bench.startDaemon());
    QVERIFY(bench.hub.tell("wait 2000"));
    QCOMPARE(bench.recorder.lines(), QStringList());
    QCOMPARE(bench.stop(bench.daemon()), 0);

    bench.hub.setOptions({{"no-name", QJsonValue()}});
    bench.hub.setAnswer("bluetoothd", {{"behaviour", "ignore-term"}});
    QVERIFY(bench.startUp());
    ::kill(pid_t(bench.daemon().processId()), SIGTERM);
    QVERIFY(bench.hub.tell("wait 2000"));
    QCOMPARE(bench.daemon().state(), QProcess::Running);
}

namespace {

int residentKilobytes(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression resident("VmRSS:\\s+(\\d+)");
    return resident.match(QString::fromUtf8(status.readAll())).captured(1).toInt();
}

} // namespace

void PhonesTest::manyVisits()
{
#ifdef __SANITIZE_ADDRESS__
    QSKIP("freed memory is kept in quarantine; the leak check does this test's work");
#endif
    DaemonBench bench(0.01, {{"adapter-delay", 0}});
    QVERIFY(bench.addPhone("K", "trusted"));
    QVERIFY(bench.startUp());
    int before = 0;
    const int warmUp = 100, visits = 600;
    for (int visit = 0; visit < visits; visit++) {
        if (visit == warmUp)
            before = residentKilobytes(bench.daemon().processId());
        bench.recorder.clear();
        QVERIFY(bench.hub.tell("phone K connect"));
        QVERIFY(bench.recorder.waitForLine("K AudioSource.State = \"connected\""));
        QVERIFY(bench.hub.tell("phone K drop"));
        QVERIFY(bench.recorder.waitForLine("K AudioSource.State = \"disconnected\""));
    }
    const int grown = residentKilobytes(bench.daemon().processId()) - before;
    QVERIFY2(before > 0 && grown < 512, qPrintable(QString::number(grown)));
}

QTEST_GUILESS_MAIN(PhonesTest)
#include "tst_bluez_phones.moc"
