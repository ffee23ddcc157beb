// A new PIN: every phone is forgotten, the PIN is saved, and the stack starts again with it.

#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QFile>
#include <QTest>

class tst_pin : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void changesNothing_data();
    void changesNothing();
    void whileOn_data();
    void whileOn();
    void whileOff();
    void settingsFail();
};

namespace {

const QStringList Stop {"@ StopPlay bluetooth ''", "@ DisconnectAudioDevice"};

VirtualProduct::Options withPin(const QString &pin, int disableLegacy)
{
    VirtualProduct::Options options;
    options.settings = {{"BLUETOOTH/bt-pid", pin}, {"BLUETOOTH/bt-disable-legacy", disableLegacy}};
    return options;
}

QString requested(const QString &pin)
{
    return QString("4 [DBUS|Internal] SetPid(%1) requested").arg(pin.isEmpty() ? "<none>" : pin);
}

/// From the request to what is done about the PIN itself; \p phones is how they are forgotten.
QStringList changeSteps(const QString &pin, const QStringList &phones, int legacyMode)
{
    return QStringList {requested(pin), "4 Disconnect connected device", "4 DisconnectDevice",
                        "4 Remove all device", "4 RemoveAllDevices"}
    + phones + QStringList {QString("4 legacy mode %1").arg(legacyMode)};
}

QStringList saved(const QString &pin)
{
    return {"4 Saving bluetooth configuration", QString("4 PID SAVED (%1)").arg(pin)};
}

} // namespace

void tst_pin::changesNothing_data()
{
    QTest::addColumn<QStringList>("pins");
    QTest::addColumn<int>("status");
    QTest::newRow("same") << QStringList {"7351"} << 0;
    QTest::newRow("refused") << QStringList {"",     "123",  "12345", "12a4",
                                             "12 4", "-123", "7351 ", "12.4"}
                             << 1;
}

void tst_pin::changesNothing()
{
    QFETCH(QStringList, pins);
    QFETCH(int, status);
    Road road;
    road.bring("playing");
    for (const QString &pin : pins) {
        const int from = road.mark();
        QCOMPARE(road.call("SetPid", {"s:" + pin}), QJsonArray {status});
        road.settle();
        QCOMPARE(road.deeds(from), QStringList {requested(pin)});
        QCOMPARE(road.call("GetStatus").at(3), QJsonValue("7351"));
    }
}

void tst_pin::whileOn_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("pin");
    QTest::addColumn<int>("legacyMode");
    QTest::newRow("away from the standard") << "7351"
                                            << "4711" << 0;
    QTest::newRow("back to the standard") << "4711"
                                          << "7351" << 1;
}

void tst_pin::whileOn()
{
    QFETCH(QString, before);
    QFETCH(QString, pin);
    QFETCH(int, legacyMode);
    Road road(withPin(before, 1));
    road.bring("streaming");
    road.meet("berta", "known");
    const int from = road.mark();
    QCOMPARE(road.call("SetPid", {"s:" + pin}), QJsonArray {0});

    const QStringList forgotten {
        "4 error listing device on {adapter}",
        "4 removeDevice {anna}",
        "4 removeDevice {anna} Remove Device, pair again",
        "4 removeDevice {berta}",
        "4 removeDevice {berta} Remove Device, pair again",
    };
    QStringList steps = changeSteps(pin, forgotten, legacyMode);
    steps.insert(3, "4 Disconnect {anna}");
    road.awaitAll(from,
                  steps + saved(pin) + QStringList {"4 Disable/Enable for pid change"}
                      + QStringList {"4 [DBUS|Internal] SetEnabled(false) requested"}
                      + Steps::tearDownSteps()
                      + QStringList {"4 [DBUS|Internal] SetEnabled(true) requested"}
                      + Steps::bringUpSteps(legacyMode, pin));
    road.rewind(from);
    Steps::waitUntilOn(road); // with the agent, which a phone needs to pair
    road.settle();
    QCOMPARE(road.deeds(from, {"@ "}),
             Stop + QStringList {"@ BluetoothPidChanged " + pin} + Stop
                 + QStringList({"@ BluetoothOn false", "@ BluetoothOn true"}));
    QCOMPARE(road.settings().value("BLUETOOTH/bt-pid").toString(), pin);
    QCOMPARE(road.call("GetStatus"), QJsonArray({0, true, true, pin}));

    // It is forgotten, and pairs with the new PIN only.
    const int again = road.mark();
    road.tell("phone anna forget");
    if (legacyMode == 0) {
        road.tell("phone anna pair");
        road.expect({{"kind", "phone"}, {"text", "is not paired: the PINs differ"}});
        road.rewind(again);
        road.expect(VirtualProduct::message("signal", "DeviceRemoved"));
    }
    road.tell("phone anna pin " + pin);
    road.stream();
}

void tst_pin::whileOff()
{
    VirtualProduct::Options options = withPin("1234", -1);
    options.settings.insert("BLUETOOTH/bt-enable", 0);
    Road road(options);
    Steps::waitUntilRunning(road);
    int from = road.mark();
    QCOMPARE(road.call("SetPid", {"s:7351"}), QJsonArray {0});
    road.settle();
    QCOMPARE(road.deeds(from),
             changeSteps("7351", {"2 error get DefaultAdapter"}, 0) + saved("7351")
                 + QStringList {"@ BluetoothPidChanged 7351"});
    QCOMPARE(road.settings().value("BLUETOOTH/bt-pid").toString(), QString("7351"));

    from = road.mark();
    road.tell("enable");
    Steps::waitUntilOn(road);
    road.awaitAll(from, Steps::bringUpSteps(0, "7351"));
}

void tst_pin::settingsFail()
{
    VirtualProduct::Options options = withPin("7351", 1);
    options.settings.insert("BLUETOOTH/bt-enable", 0);
    Road road(options);
    Steps::waitUntilRunning(road);
    const QByteArray spoilt("[BLUETOOTH\nspoilt");
    QFile settings(road.settingsFile());
    QVERIFY(settings.open(QIODevice::WriteOnly) && settings.write(spoilt) == spoilt.size());
    settings.close();
    const int from = road.mark();
    QCOMPARE(road.call("SetPid", {"s:1234"}), QJsonArray {0});
    road.awaitAll(from,
                  {"4 set legacy mode 1", "4 legacy mode 0", "4 Saving bluetooth configuration",
                   "1 Impossible to initialize Configuration proxy", "@ BluetoothPidChanged 1234"});
    QCOMPARE(road.call("GetStatus").at(3), QJsonValue("1234"));
    QVERIFY(settings.open(QIODevice::ReadOnly));
    QCOMPARE(settings.readAll(), spoilt);
}

SCENARIO_MAIN(tst_pin)

#include "tst_pin.moc"
