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
    void onAndOff();
    void commandsFail();
    void bringUpFails_data();
    void bringUpFails();
    void nameNeverComes();
    void askedWhileStarting();
    void daemonEnds_data();
    void daemonEnds();
    void daemonEndsWhileStarting();
    void askedBeforeRestart_data();
    void askedBeforeRestart();
    void childrenIgnoreRequest();
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

/// Asks for what is so already.
void expectNothingDone(VirtualProduct &product, bool enable)
{
    const int from = product.mark();
    QCOMPARE(setEnabled(product, enable), 0);
    const QString known = enable ? "(true)" : "(false)";
    QCOMPARE(Steps::steps(product, from),
             requestSteps(enable, known + " not saved because already saved")
                 + QStringList {nothingToDo(enable)});
    QCOMPARE(Steps::serviceSignals(product, from), QStringList());
    QCOMPARE(product.call("GetStatus"), status(enable, enable));
}

} // namespace

/// Twice, so that nothing may be left of the first time; asked for once more, nothing is done.
void tst_stack::onAndOff()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    for (int i = 0; i < 2; ++i) {
        int from = product.mark();
        QCOMPARE(setEnabled(product, true), 0);
        Steps::waitUntilOn(product);
        QCOMPARE(Steps::steps(product, from),
                 requestSteps(true, "SAVED (true)") + Steps::bringUpSteps());
        QCOMPARE(Steps::serviceSignals(product, from), QStringList {"BluetoothOn(true)"});
        QCOMPARE(product.settings().value(EnableKey).toString(), QString("1"));
        expectNothingDone(product, true);

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
        expectNothingDone(product, false);
    }
    product.tell("service stop");
    Steps::expectNothingLeft(product);
}

/// None of them keeps the stack from coming up.
void tst_stack::commandsFail()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    for (const char *fault :
         {"modprobe exit=1", "connmanctl exit=1", "hciconfig:up exit=1", "sdptool exit=1",
          "hciconfig:sspmode exit=3", "hciconfig:lm exit=1", "hciconfig:piscan exit=1"})
        product.tell(QString("fault ") + fault);
    const int from = product.mark();
    QCOMPARE(setEnabled(product, true), 0);
    Steps::waitUntilOn(product);
    const QString sspmode = "set legacy mode (hciconfig hci0 sspmode 0) ";
    const QString piscan = "hciconfig hci0 piscan";
    const Steps::Changes changes {
        {"$ sdptool del 0x10000", {"$ sdptool del"}}, // what to delete is not known
        {"4 del headset profile 0", {"4 del headset profile 256"}},
        {"4 " + sspmode + '0', {"2 " + sspmode + "768"}},
        {"4 set lm master,accept 0", {"2 set lm master,accept 256"}},
        {"$ " + piscan, {"$ " + piscan, "2 error executing  " + piscan}}};
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

void tst_stack::askedWhileStarting()
{
    VirtualProduct::Options options;
    options.tell.append("fault bluetoothd no-name");
    VirtualProduct product(options);
    Steps::waitUntilStarting(product);
    for (const QString word : {"true", "false"}) {
        const int from = product.mark();
        QCOMPARE(product.call("SetEnabled", {"b:" + word}), QJsonArray {1});
        const QString requested = "[DBUS|Internal] SetEnabled(" + word + ") requested";
        QCOMPARE(Steps::steps(product, from),
                 QStringList({"4 " + requested,
                              "2 " + requested + " but there is already one in progress action"}));
        QCOMPARE(product.call("GetStatus"), status(true, false));
    }
    QVERIFY(product.settings().value(EnableKey).isUndefined());
}

void tst_stack::daemonEnds_data()
{
    QTest::addColumn<QString>("signal");
    QTest::addColumn<QString>("told");
    QTest::newRow("on, asked to end") << "TERM"
                                      << "0 normal";
    QTest::newRow("on, crash") << "SEGV"
                               << "11 crash";
}

/// The stack is taken down, and comes up again after a second.
void tst_stack::daemonEnds()
{
    QFETCH(QString, signal);
    QFETCH(QString, told);
    VirtualProduct product(Steps::adapterAtOnce());
    Steps::waitUntilOn(product);
    product.tell("kill bluetoothd " + signal);
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
    QCOMPARE(Steps::steps(product, from), Steps::bringUpSteps());
    QStringList announced = Steps::serviceSignals(product);
    announced.removeAll("DisconnectAudioDevice()");
    QCOMPARE(announced, QStringList({"BluetoothOn(true)", "BluetoothOn(true)"}));
    product.tell("service stop");
    Steps::expectNothingLeft(product);
}

/// There is no limit, and whatever has been tried before is no help and no harm.
void tst_stack::daemonEndsWhileStarting()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.tell.append("fault bluetoothd exit=3 times=3");
    VirtualProduct product(options);
    for (int i = 0; i < 3; ++i) {
        product.expectLog(2, "bluezDown down 3 normal");
        product.expectLog(4, "restart");
        QCOMPARE(setEnabled(product, false), 1);
    }
    const int from = product.mark();
    Steps::waitUntilOn(product);
    // The time-out of a start that was cut short has stayed till then.
    QStringList expected = Steps::bringUpSteps();
    expected.insert(expected.indexOf("4 bluez started and wait registration") + 1,
                    "4 startStartupSequence programming error timer already active");
    QCOMPARE(Steps::steps(product, from), expected);
    QCOMPARE(Steps::serviceSignals(product).filter("BluetoothOn"),
             QStringList {"BluetoothOn(true)"});
    QCOMPARE(product.call("GetStatus"), status(true, true));
}

void tst_stack::askedBeforeRestart_data()
{
    QTest::addColumn<bool>("enable");
    QTest::newRow("off") << false;
    QTest::newRow("on") << true;
}

/// The restart comes all the same.
void tst_stack::askedBeforeRestart()
{
    QFETCH(bool, enable);
    VirtualProduct product(Steps::adapterAtOnce());
    Steps::waitUntilOn(product);
    product.tell("kill bluetoothd");
    product.expectLog(4, "restart");
    const int from = product.mark();
    QCOMPARE(setEnabled(product, enable), 0);
    const QString running = "startStartupSequence bluez already running";
    if (enable) {
        // It does not wait for the second, and then there is nothing to restart.
        Steps::waitUntilOn(product);
        product.expectLog(2, running);
    } else {
        product.expectLog(4, nothingToDo(false).mid(2));
        QCOMPARE(product.settings().value(EnableKey).toString(), QString("0"));
        QCOMPARE(product.call("GetStatus"), status(false, false));
        Steps::waitUntilOn(product);
        QVERIFY(!product.messages(from).contains(running));
    }
    QCOMPARE(product.call("GetStatus"), status(enable, true));
}

/// They are killed after two seconds each, and nothing is left of them.
void tst_stack::childrenIgnoreRequest()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.tell << "fault agent ignore-term"
                 << "fault bluetoothd ignore-term";
    VirtualProduct product(options);
    Steps::waitUntilOn(product);
    const int from = product.mark();
    QCOMPARE(setEnabled(product, false), 0);
    QStringList expected = Steps::tearDownSteps();
    for (const QString name : {"agent", "bluez"}) {
        const QString killed = "forceSyncDown kill " + name;
        const QString asked = "forceSyncDown terminate " + name;
        expected.insert(expected.indexOf("4 " + asked) + 1, "4 " + killed);
        product.rewind(from);
        const QJsonObject begun = product.expectLog(4, asked);
        const double passed = Steps::secondsBetween(begun, product.expectLog(4, killed));
        QVERIFY2(passed > TerminationTime && passed < 6, qPrintable(QString::number(passed)));
    }
    QCOMPARE(Steps::steps(product, from),
             requestSteps(false, "SAVED (false)") + QStringList {"4 startStopSequence requested"}
                 + expected);
    QCOMPARE(product.call("GetStatus"), status(false, false));
    product.tell("service stop");
    Steps::expectNothingLeft(product);
}

SCENARIO_MAIN(tst_stack)

#include "tst_stack.moc"
