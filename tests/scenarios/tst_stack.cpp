// Bluetooth is switched on and off: what is run and in which order, what callers are told, and what
// happens when BlueZ, the agent or a command does not do as it should.

#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QTest>

class tst_stack : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void onAndOff_data();
    void onAndOff();
    void commandFails_data();
    void commandFails();
    void bringUpFails_data();
    void bringUpFails();
    void nameNeverComes();
    void nameComesLate();
    void askedWhileOff();
    void askedWhileStarting_data();
    void askedWhileStarting();
    void askedWhileOn();
    void daemonEnds_data();
    void daemonEnds();
    void daemonEndsAgainAndAgain();
    void askedBeforeRestart_data();
    void askedBeforeRestart();
    void childIgnoresRequest_data();
    void childIgnoresRequest();
};

namespace {

const char EnableKey[] = "BLUETOOTH/bt-enable";
/// The service waits for 1 s and 2 s; its timers may be a little early, and it may be late.
const double RestartDelay = 0.95;
const double TerminationTime = 1.95;

QJsonArray status(bool enable, bool on)
{
    return {0, enable, on, "7351"};
}

int setEnabled(VirtualProduct &product, bool enable)
{
    return product.call("SetEnabled", {enable ? "b:true" : "b:false"}).at(0).toInt(-1);
}

/// The beginning of a request, up to what it leads to.
QStringList requestSteps(bool enable, const QString &saved)
{
    return {QString("4 [DBUS|Internal] SetEnabled(%1) requested").arg(enable ? "true" : "false"),
            "4 Saving bluetooth configuration", "4 Enable " + saved};
}

QString nothingToDo(bool enable)
{
    return QString("4 [DBUS|Internal] SetEnabled(%1) requested but nothing to do")
        .arg(enable ? "true" : "false");
}

/// The tear-down of a stack without an agent, which has not come up.
QStringList tearDownWithoutAgent()
{
    return Steps::changed(Steps::tearDownSteps(), {{"4 forceSyncDown terminate agent", {}}});
}

} // namespace

void tst_stack::onAndOff_data()
{
    QTest::addColumn<QStringList>("environment");
    QTest::addColumn<int>("disableLegacy");
    QTest::addColumn<QString>("pin");
    QTest::addColumn<int>("pairingMode");
    QTest::newRow("pairing by PIN") << QStringList() << 0 << "7351" << 0;
    QTest::newRow("simple pairing") << QStringList() << 1 << "7351" << 1;
    QTest::newRow("another PIN") << QStringList {"ULMO_BT_PID=0042"} << 1 << "0042" << 0;
}

/// Twice, so that nothing may be left of the first time.
void tst_stack::onAndOff()
{
    QFETCH(QStringList, environment);
    QFETCH(int, disableLegacy);
    QFETCH(QString, pin);
    QFETCH(int, pairingMode);
    VirtualProduct::Options options = Steps::switchedOff();
    options.settings.insert("BLUETOOTH/bt-disable-legacy", disableLegacy);
    options.environment = environment;
    VirtualProduct product(options);
    Steps::waitUntilRunning(product);
    for (int i = 0; i < 2; ++i) {
        int from = product.mark();
        QCOMPARE(setEnabled(product, true), 0);
        Steps::waitUntilOn(product);
        QCOMPARE(Steps::steps(product, from),
                 requestSteps(true, "SAVED (true)") + Steps::bringUpSteps(pairingMode, pin));
        QCOMPARE(Steps::serviceSignals(product, from), QStringList {"BluetoothOn(true)"});
        QCOMPARE(product.settings().value(EnableKey).toString(), QString("1"));
        QCOMPARE(product.call("GetStatus"), QJsonArray({0, true, true, pin}));

        from = product.mark();
        product.rewind(from);
        QCOMPARE(setEnabled(product, false), 0);
        QCOMPARE(Steps::steps(product, from),
                 requestSteps(false, "SAVED (false)")
                     + QStringList {"4 startStopSequence requested"} + Steps::tearDownSteps());
        QCOMPARE(Steps::serviceSignals(product, from),
                 QStringList({"DisconnectAudioDevice()", "BluetoothOn(false)"}));
        QCOMPARE(product.settings().value(EnableKey).toString(), QString("0"));
        // Whoever waits for the answer has heard the signal before.
        product.expect(VirtualProduct::message("signal", "BluetoothOn"));
        product.expect(VirtualProduct::message("reply", "SetEnabled"));
        QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, pin}));
    }
    product.tell("service stop");
    Steps::expectNothingLeft(product);
}

void tst_stack::commandFails_data()
{
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<Steps::Changes>("changes"); // of the bring-up
    using Changes = Steps::Changes;
    const QString sspmode = "set legacy mode (hciconfig hci0 sspmode 0) ";
    QTest::newRow("modprobe") << QStringList {"modprobe exit=1"} << Changes();
    QTest::newRow("connmanctl") << QStringList {"connmanctl exit=1"} << Changes();
    QTest::newRow("no modprobe, no connmanctl")
        << QStringList {"modprobe missing", "connmanctl missing"}
        << Changes {{"$ modprobe btwilink", {}}, {"$ connmanctl enable bluetooth", {}}};
    QTest::newRow("hciconfig up") << QStringList {"hciconfig:up exit=1"} << Changes();
    QTest::newRow("sdptool browse") << QStringList {"sdptool:browse exit=1"}
                                    << Changes {{"$ sdptool del 0x10000", {"$ sdptool del"}}};
    QTest::newRow("sdptool del") << QStringList {"sdptool:del exit=1"}
                                 << Changes {
                                        {"4 del headset profile 0", {"4 del headset profile 256"}}};
    QTest::newRow("hciconfig sspmode")
        << QStringList {"hciconfig:sspmode exit=3"}
        << Changes {{"4 " + sspmode + '0', {"2 " + sspmode + "768"}}};
    QTest::newRow("hciconfig lm") << QStringList {"hciconfig:lm exit=1"}
                                  << Changes {{"4 set lm master,accept 0",
                                               {"2 set lm master,accept 256"}}};
    QTest::newRow("hciconfig piscan")
        << QStringList {"hciconfig:piscan exit=1"}
        << Changes {{"$ hciconfig hci0 piscan",
                     {"$ hciconfig hci0 piscan", "2 error executing  hciconfig hci0 piscan"}}};
    QTest::newRow("no hciconfig")
        << QStringList {"hciconfig missing"}
        << Changes {{"$ hciconfig hci0 up", {}},
                    {"$ hciconfig hci0 sspmode 0", {}},
                    {"4 " + sspmode + '0', {"2 " + sspmode + "32512"}},
                    {"$ hciconfig hci0 lm master,accept", {}},
                    {"4 set lm master,accept 0", {"2 set lm master,accept 32512"}},
                    {"$ hciconfig hci0 piscan", {"2 error executing  hciconfig hci0 piscan"}}};
}

/// None of them keeps the stack from coming up.
void tst_stack::commandFails()
{
    QFETCH(QStringList, faults);
    QFETCH(Steps::Changes, changes);
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    for (const QString &fault : faults)
        product.tell("fault " + fault);
    const int from = product.mark();
    QCOMPARE(setEnabled(product, true), 0);
    Steps::waitUntilOn(product);
    QCOMPARE(Steps::steps(product, from),
             requestSteps(true, "SAVED (true)") + Steps::changed(Steps::bringUpSteps(), changes));
}

void tst_stack::bringUpFails_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("told");
    QTest::newRow("no bluetoothd")
        << "bluetoothd"
        << Steps::bringUpSteps().mid(0, 4) + QStringList {"1 error starting bluez"}
            + Steps::changed(tearDownWithoutAgent(), {{"4 forceSyncDown terminate bluez", {}}});
    QStringList untilAgent = Steps::bringUpSteps();
    untilAgent = untilAgent.mid(0, untilAgent.indexOf("$ hciconfig hci0 piscan"));
    QTest::newRow("no agent") << "agent"
                              << untilAgent
            + QStringList {"2 error starting agent", "2 error starting agent"}
            + tearDownWithoutAgent();
}

/// It is given up silently, and another attempt is possible at once.
void tst_stack::bringUpFails()
{
    QFETCH(QString, program);
    QFETCH(QStringList, told);
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    product.tell("fault " + program + " missing");
    const int from = product.mark();
    QCOMPARE(setEnabled(product, true), 0);
    product.expectCommand("hciconfig hci0 down");
    QCOMPARE(product.call("GetStatus"), status(true, false));
    QStringList steps = Steps::steps(product, from);
    steps.removeAll("4 [DBUS|Internal] GetStatus() requested");
    QCOMPARE(steps, requestSteps(true, "SAVED (true)") + told);
    QCOMPARE(Steps::serviceSignals(product, from), QStringList {"DisconnectAudioDevice()"});

    product.tell("fault clear");
    product.tell("fault bluetoothd adapter-delay=0");
    const int again = product.mark();
    QCOMPARE(setEnabled(product, true), 0);
    Steps::waitUntilOn(product);
    QCOMPARE(Steps::steps(product, again),
             requestSteps(true, "(true) not saved because already saved") + Steps::bringUpSteps());
}

void tst_stack::nameNeverComes()
{
    VirtualProduct::Options options;
    options.tell.append("fault bluetoothd no-name");
    VirtualProduct product(options);
    const QJsonObject start = product.expectLog(4, "bluez started and wait registration");
    const int from = product.mark();
    const QJsonObject end = product.expectLog(1, "bluez service timeout !!!!!!!!!!!!!! ");
    QVERIFY(Steps::secondsBetween(start, end) > 14.2);
    QVERIFY(Steps::secondsBetween(start, end) < 20);
    product.expect(VirtualProduct::message("signal", "DisconnectAudioDevice"));
    QCOMPARE(Steps::steps(product, from),
             QStringList {"1 bluez service timeout !!!!!!!!!!!!!! "} + tearDownWithoutAgent());
    QCOMPARE(product.call("GetStatus"), status(true, false));
    QCOMPARE(Steps::serviceSignals(product), QStringList {"DisconnectAudioDevice()"});

    product.tell("fault clear");
    const int again = product.mark();
    QCOMPARE(setEnabled(product, true), 0);
    Steps::waitUntilOn(product);
    QVERIFY(!product.messages(again).contains(
        "startStartupSequence programming error timer already active"));
}

void tst_stack::nameComesLate()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.tell.append("fault bluetoothd name-delay=1500");
    VirtualProduct product(options);
    const QJsonObject start = product.expectLog(4, "bluez started and wait registration");
    QCOMPARE(product.call("GetStatus"), status(true, false));
    const QJsonObject name = product.expectLog(4, "bluez service registered org.bluez");
    QVERIFY(Steps::secondsBetween(start, name) > 1.4);
    Steps::waitUntilOn(product);
    QCOMPARE(product.call("GetStatus"), status(true, true));
}

void tst_stack::askedWhileOff()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    const int from = product.mark();
    QCOMPARE(setEnabled(product, false), 0);
    QCOMPARE(Steps::steps(product, from),
             requestSteps(false, "(false) not saved because already saved")
                 + QStringList {nothingToDo(false)});
    QCOMPARE(Steps::serviceSignals(product, from), QStringList());
}

void tst_stack::askedWhileStarting_data()
{
    QTest::addColumn<bool>("enable");
    QTest::newRow("on") << true;
    QTest::newRow("off") << false;
}

void tst_stack::askedWhileStarting()
{
    QFETCH(bool, enable);
    VirtualProduct::Options options;
    options.tell.append("fault bluetoothd no-name");
    VirtualProduct product(options);
    Steps::waitUntilStarting(product);
    const int from = product.mark();
    QCOMPARE(setEnabled(product, enable), 1);
    const QString word = enable ? "true" : "false";
    QCOMPARE(Steps::steps(product, from),
             QStringList({"4 [DBUS|Internal] SetEnabled(" + word + ") requested",
                          "2 [DBUS|Internal] SetEnabled(" + word
                              + ") requested but there is already one in progress action"}));
    QCOMPARE(product.call("GetStatus"), status(true, false));
    QVERIFY(product.settings().value(EnableKey).isUndefined());
}

void tst_stack::askedWhileOn()
{
    VirtualProduct product(Steps::adapterAtOnce());
    Steps::waitUntilOn(product);
    const int from = product.mark();
    QCOMPARE(setEnabled(product, true), 0);
    QCOMPARE(Steps::steps(product, from),
             requestSteps(true, "(true) not saved because already saved")
                 + QStringList {nothingToDo(true)});
    QCOMPARE(Steps::serviceSignals(product, from), QStringList());
    QCOMPARE(product.call("GetStatus"), status(true, true));
}

void tst_stack::daemonEnds_data()
{
    QTest::addColumn<QString>("fault"); // of its first start; none when it is to come up
    QTest::addColumn<QString>("signal"); // sent when it has come up
    QTest::addColumn<QString>("told");
    QTest::newRow("starting, status 0") << "exit=0" << QString() << "0 normal";
    QTest::newRow("starting, status 3") << "exit=3" << QString() << "3 normal";
    QTest::newRow("starting, crash") << "crash" << QString() << "11 crash";
    QTest::newRow("on, asked to end") << QString() << "TERM"
                                      << "0 normal";
    QTest::newRow("on, crash") << QString() << "SEGV"
                               << "11 crash";
    QTest::newRow("on, killed") << QString() << "KILL"
                                << "9 crash";
}

/// The stack is taken down, and comes up again after a second.
void tst_stack::daemonEnds()
{
    QFETCH(QString, fault);
    QFETCH(QString, signal);
    QFETCH(QString, told);
    VirtualProduct::Options options = Steps::adapterAtOnce();
    if (!fault.isEmpty())
        options.tell.append("fault bluetoothd " + fault + " times=1");
    VirtualProduct product(options);
    if (!signal.isEmpty()) {
        Steps::waitUntilOn(product);
        product.tell("kill bluetoothd " + signal);
    }
    product.expectLog(2, "bluezDown down " + told);
    product.expectLog(4, "forceSyncDown");
    product.expectCommand("hciconfig hci0 noscan");
    product.expectCommand("hciconfig hci0 down");
    const QJsonObject down = product.expectLog(4, "restart");
    const int from = product.mark();
    const QJsonObject up = product.expectLog(4, "startStartupSequence requested");
    QVERIFY(Steps::secondsBetween(down, up) > RestartDelay);
    QVERIFY(Steps::secondsBetween(down, up) < 5);
    Steps::waitUntilOn(product);

    // The time-out of a start that was cut short has stayed till then.
    QStringList expected = Steps::bringUpSteps();
    if (signal.isEmpty())
        expected.insert(expected.indexOf("4 bluez started and wait registration") + 1,
                        "4 startStartupSequence programming error timer already active");
    QCOMPARE(Steps::steps(product, from), expected);
    QStringList announced = Steps::serviceSignals(product);
    announced.removeAll("DisconnectAudioDevice()");
    QCOMPARE(announced,
             QStringList({"BluetoothOn(true)", "BluetoothOn(true)"}).mid(signal.isEmpty() ? 1 : 0));
    product.tell("service stop");
    Steps::expectNothingLeft(product);
}

/// There is no limit, and whatever has been tried before is no help and no harm.
void tst_stack::daemonEndsAgainAndAgain()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.tell.append("fault bluetoothd exit=1 times=4");
    VirtualProduct product(options);
    for (int i = 0; i < 4; ++i) {
        product.expectLog(2, "bluezDown down 1 normal");
        product.expectLog(4, "startStartupSequence requested");
    }
    Steps::waitUntilOn(product);
    QCOMPARE(product.call("GetStatus"), status(true, true));
}

void tst_stack::askedBeforeRestart_data()
{
    QTest::addColumn<bool>("starting"); // when bluetoothd ended
    QTest::addColumn<bool>("enable");
    QTest::addColumn<int>("answer");
    QTest::newRow("off, ended while on") << false << false << 0;
    QTest::newRow("on, ended while on") << false << true << 0;
    QTest::newRow("off, ended while starting") << true << false << 1;
    QTest::newRow("on, ended while starting") << true << true << 1;
}

/// The restart comes all the same.
void tst_stack::askedBeforeRestart()
{
    QFETCH(bool, starting);
    QFETCH(bool, enable);
    QFETCH(int, answer);
    VirtualProduct::Options options = Steps::adapterAtOnce();
    if (starting)
        options.tell.append("fault bluetoothd exit=1 times=1");
    VirtualProduct product(options);
    if (!starting) {
        Steps::waitUntilOn(product);
        product.tell("kill bluetoothd");
    }
    product.expectLog(4, "restart");
    const int from = product.mark();
    QCOMPARE(setEnabled(product, enable), answer);
    const QString running = "startStartupSequence bluez already running";
    if (answer == 1) {
        product.expectLog(2, "[DBUS|Internal] SetEnabled(*");
    } else if (enable) {
        // It does not wait for the second, and then there is nothing to restart.
        Steps::waitUntilOn(product);
        product.expectLog(4, "startStartupSequence requested");
        product.expectLog(2, running);
        QCOMPARE(product.call("GetStatus"), status(true, true));
        return;
    } else {
        product.expectLog(4, nothingToDo(false).mid(2));
        QCOMPARE(product.settings().value(EnableKey).toString(), QString("0"));
        QCOMPARE(product.call("GetStatus"), status(false, false));
    }
    Steps::waitUntilOn(product);
    QCOMPARE(product.call("GetStatus"), status(enable || answer == 1, true));
    QVERIFY(!product.messages(from).contains(running));
}

void tst_stack::childIgnoresRequest_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QString>("name");
    QTest::newRow("bluetoothd") << "bluetoothd"
                                << "bluez";
    QTest::newRow("agent") << "agent"
                           << "agent";
}

/// It is killed after two seconds, and nothing is left of it.
void tst_stack::childIgnoresRequest()
{
    QFETCH(QString, program);
    QFETCH(QString, name);
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.tell.append("fault " + program + " ignore-term");
    VirtualProduct product(options);
    Steps::waitUntilOn(product);
    const int from = product.mark();
    QCOMPARE(setEnabled(product, false), 0);
    QStringList expected = requestSteps(false, "SAVED (false)")
        + QStringList {"4 startStopSequence requested"} + Steps::tearDownSteps();
    expected.insert(expected.indexOf("4 forceSyncDown terminate " + name) + 1,
                    "4 forceSyncDown kill " + name);
    QCOMPARE(Steps::steps(product, from), expected);
    product.rewind(from);
    const QJsonObject asked = product.expectLog(4, "forceSyncDown terminate " + name);
    const QJsonObject killed = product.expectLog(4, "forceSyncDown kill " + name);
    QVERIFY(Steps::secondsBetween(asked, killed) > TerminationTime);
    QVERIFY(Steps::secondsBetween(asked, killed) < 6);
    QCOMPARE(product.call("GetStatus"), status(false, false));
    product.tell("service stop");
    Steps::expectNothingLeft(product);
}

SCENARIO_MAIN(tst_stack)

#include "tst_stack.moc"
