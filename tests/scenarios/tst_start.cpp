// From the start of the process to its end: what it says meanwhile, in which order, what makes it
// refuse to run, and how it is stopped.

#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QTest>

class tst_start : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void order();
    void settingsInOrder();
    void statusBeforeTheStack();
    void missingBus();
    void nameTaken();
    void unusableSettings();
    void stop_data();
    void stop();
    void stopAskedForTwice();
    void stopWhileStarting();
};

namespace {

const char ServiceObject[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";
const char SoundObject[] = "/com/orbitalis/ulmo/soundmanager/soundobj";
const char ServiceName[] = "com.orbitalis.ulmo.bluetoothmanager";
const char SettingsFile[] = "/run/product/out/settings.ini";
const int StartFailure = 255;

VirtualProduct::Options stopped()
{
    VirtualProduct::Options options = Steps::switchedOff();
    options.startService = false;
    return options;
}

QJsonObject logFor(const char *objectPath, int level, const QString &message)
{
    QJsonObject pattern = VirtualProduct::log(level, message);
    pattern.insert("path", objectPath);
    return pattern;
}

/// The last of the lines with which the process says that it stops in good order.
QStringList stopSteps(const QString &cause, const QStringList &tearDown)
{
    return QStringList {cause, "4 Gracefully stop BluetoothManager Adapter...",
                        "4 Gracefully stop BluetoothManager..."}
    + tearDown + QStringList {"4 BluetoothManager cleaned-up", "4 Succesfully terminated"};
}

/// What the service printed on its standard output.
QStringList printed(VirtualProduct &product)
{
    QStringList lines;
    for (const QJsonObject &entry : product.entries({{"kind", "output"}}))
        lines.append(entry.value("text").toString());
    return lines;
}

} // namespace

void tst_start::order()
{
    VirtualProduct product(Steps::adapterAtOnce());
    Steps::waitUntilOn(product);
    QCOMPARE(
        Steps::steps(product),
        QStringList(
            {"4 Starting Bluetooth Manager...", "4 reconnection timeout 5000", "4 legacy mode 0",
             "4 BLUETOOTH CONFIGURATION:", "4 > Enable:         true", "4 > Pid:            7351",
             "4 > Latency:        1000", "4 Bluetooth Manager running", "4 Enable",
             "4 [DBUS|Internal] SetEnabled(true) requested", "4 Saving bluetooth configuration",
             "4 Enable (true) not saved because already saved"})
            + Steps::bringUpSteps());

    product.rewind(0);
    const QJsonObject first = product.expect(logFor(ServiceObject, 4, "Starting Bluetooth Mana*"));
    QCOMPARE(first.value("file").toString(), QString("main.cpp"));
    QCOMPARE(first.value("function").toString(), QString("int main(int, char**)"));
    QVERIFY(first.value("line").toInt() > 0);
    const QJsonObject settings = product.expect(logFor(ServiceObject, 4, "> Latency:        1000"));
    QCOMPARE(settings.value("file").toString(), QString("BluetoothManager.cpp"));
    // The stack has to wait for 100 ms.
    const QJsonObject enable = product.expect(logFor(ServiceObject, 4, "Enable"));
    QCOMPARE(enable.value("function").toString(), QString("void BluetoothManager::Enable()"));
    QVERIFY(Steps::secondsBetween(settings, enable) > 0.095);
    // Nobody can have seen the two signals of the construction.
    QCOMPARE(Steps::serviceSignals(product), QStringList {"BluetoothOn(true)"});
    QCOMPARE(printed(product), QStringList());
}

/// With everything forced and everything repaired: each setting is told of in its turn.
void tst_start::settingsInOrder()
{
    VirtualProduct::Options options = Steps::switchedOff();
    options.settings.insert("BLUETOOTH/bt-timeout-reconnect-1", 20000);
    options.environment = QStringList {"ULMO_BT_ENABLE=1", "ULMO_BT_PID=1234", "ULMO_BT_LATENCY=0"};
    VirtualProduct product(options);
    Steps::waitUntilRunning(product);
    QCOMPARE(
        Steps::steps(product).mid(0, 11),
        QStringList({"4 Starting Bluetooth Manager...", "2 too big reconnect timeout",
                     "4 reconnection timeout 10000", "4 force enable for ULMO_BT_ENABLE",
                     "4 force PID for ULMO_BT_PID", "4 legacy mode 0", "4 force ULMO_BT_LATENCY=0",
                     "4 BLUETOOTH CONFIGURATION:", "4 > Enable:         true",
                     "4 > Pid:            1234", "4 > Latency:        0"}));
}

/// For a tenth of a second an enabled service says that it is not.
void tst_start::statusBeforeTheStack()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.environment.append("ULMO_BT_PID=1234");
    options.startService = false;
    VirtualProduct product(options);
    // On a busy machine the question may come too late, and is asked of another start.
    for (int attempt = 0; attempt < 20; ++attempt) {
        const int from = product.mark();
        product.tell("service start");
        Steps::waitUntilRunning(product);
        const QJsonArray status = product.call("GetStatus");
        if (!product.messages(from).contains("Enable")) {
            QCOMPARE(status, QJsonArray({0, false, false, "1234"}));
            return;
        }
        product.tell("service stop");
    }
    QFAIL("no question came early enough");
}

void tst_start::missingBus()
{
    VirtualProduct product(stopped());
    // The session bus is looked at first.
    for (const QString bus : {"system", "session"}) {
        product.tell("bus " + bus + " kill");
        const int from = product.mark();
        product.tell("service start");
        const QString text = "DBUS: Can't connect " + bus + " bus";
        product.expect(logFor(ServiceObject, 1, text));
        QCOMPARE(product.serviceExit(), StartFailure);
        QCOMPARE(product.messages(from), QStringList({"Starting Bluetooth Manager...", text}));
        QCOMPARE(printed(product).last(), text);
        QCOMPARE(product.entries({{"bus", "system"}}, from).size(), 0);
    }
}

void tst_start::nameTaken()
{
    VirtualProduct product(stopped());
    QDBusConnection other =
        QDBusConnection::connectToBus(product.sessionBusAddress(), "other service");
    QVERIFY(other.registerService(ServiceName));
    product.tell("service start");
    product.expectLog(4, "> Latency:        1000");
    product.expect(logFor(ServiceObject, 1,
                          "DBUS: Can't register service [com.orbitalis.ulmo.bluetoothmanager]"));
    QCOMPARE(product.serviceExit(), StartFailure);
    QVERIFY(!product.messages().contains("Bluetooth Manager running"));
    QCOMPARE(printed(product), QStringList());
    QDBusConnection::disconnectFromBus("other service");
}

void tst_start::unusableSettings()
{
    VirtualProduct::Options options;
    options.settingsFile = "[BLUETOOTH]\nbt-pid=1234\n[GENERAL\n";
    VirtualProduct product(options);
    product.expectLog(4, "Starting Bluetooth Manager...");
    // The file and the place in it, by which a person finds the mistake.
    product.expectLog(1, QString("settings file %1 unusable: line 3: *").arg(SettingsFile));
    product.expect(logFor(ServiceObject, 1, "Impossible to initialize Configuration proxy"));
    product.expect(logFor(ServiceObject, 1, "Fatal error while crating the BluetoothManager"));
    product.expect(logFor(SoundObject, 1, "Impossible to crate a valid SoundManager"));
    QCOMPARE(product.serviceExit(), StartFailure);
    QCOMPARE(product.messages().size(), 5);
    QCOMPARE(printed(product), QStringList());
}

void tst_start::stop_data()
{
    QTest::addColumn<bool>("on");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("cause");
    const QString signalled = "2 signal SIGINT or SIGTERM received";
    QTest::newRow("SIGTERM, switched off") << false << "service kill TERM" << signalled;
    QTest::newRow("SIGINT, on") << true << "service kill INT" << signalled;
    QTest::newRow("supervisor, on") << true << "platform supervisor-end"
                                    << "4 BluetoothManager close for supervisor end";
}

void tst_start::stop()
{
    QFETCH(bool, on);
    QFETCH(QString, line);
    QFETCH(QString, cause);
    VirtualProduct product(on ? Steps::adapterAtOnce() : Steps::switchedOff());
    Steps::waitUntilRunning(product);
    if (on)
        Steps::waitUntilOn(product);
    else
        product.call("GetStatus"); // answered by the event loop, which runs by then
    const int from = product.mark();
    product.tell(line);
    QCOMPARE(product.serviceExit(), 0);
    const QStringList idle {"4 forceSyncDown", "$ hciconfig hci0 noscan", "$ hciconfig hci0 down"};
    QCOMPARE(Steps::steps(product, from), stopSteps(cause, on ? Steps::tearDownSteps() : idle));
    // The adaptor is gone by now: the bus hears nothing of the tear-down.
    QCOMPARE(Steps::serviceSignals(product, from), QStringList());
    product.rewind(from);
    product.expect(logFor(ServiceObject, cause.left(1).toInt(), cause.mid(2)));
    product.expect(logFor(SoundObject, 4, "Gracefully stop BluetoothManager Adapter..."));
    product.expect(logFor(SoundObject, 4, "Gracefully stop BluetoothManager..."));
    product.expect(logFor(ServiceObject, 4, "BluetoothManager cleaned-up"));
    product.expect(logFor(SoundObject, 4, "Succesfully terminated"));
    QCOMPARE(printed(product), QStringList());
    Steps::expectNothingLeft(product);
}

/// The second request comes while the first is being carried out, and does not interrupt it.
void tst_start::stopAskedForTwice()
{
    VirtualProduct::Options options = Steps::adapterAtOnce();
    options.tell.append("fault bluetoothd ignore-term");
    VirtualProduct product(options);
    Steps::waitUntilOn(product);
    product.tell("service kill TERM");
    product.expectLog(4, "forceSyncDown terminate bluez");
    product.tell("service kill INT");
    product.expectLog(2, "signal SIGINT or SIGTERM received");
    product.expectLogs(
        4, {"forceSyncDown kill bluez", "BluetoothManager cleaned-up", "Succesfully terminated"});
    QCOMPARE(product.serviceExit(), 0);
    Steps::expectNothingLeft(product);
}

void tst_start::stopWhileStarting()
{
    VirtualProduct::Options options;
    options.tell.append("fault bluetoothd no-name");
    VirtualProduct product(options);
    Steps::waitUntilStarting(product);
    const int from = product.mark();
    product.tell("service kill TERM");
    QCOMPARE(product.serviceExit(), 0);
    const QStringList tearDown {"4 forceSyncDown", "$ hciconfig hci0 noscan",
                                "4 forceSyncDown terminate bluez", "$ hciconfig hci0 down"};
    QCOMPARE(Steps::steps(product, from),
             stopSteps("2 signal SIGINT or SIGTERM received", tearDown));
    QCOMPARE(Steps::serviceSignals(product), QStringList());
    Steps::expectNothingLeft(product);
}

SCENARIO_MAIN(tst_start)

#include "tst_start.moc"
