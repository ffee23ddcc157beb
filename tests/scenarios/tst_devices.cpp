// Callers forget phones, one or all, and disconnect the one that is connected.

#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QTest>

class tst_devices : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void removeOne_data();
    void removeOne();
    void removeAll();
    void removalIsNotWaitedFor();
    void removeConnected();
    void withoutAdapter();
    void disconnectHeld_data();
    void disconnectHeld();
};

namespace {

const char Removed[] = "4 removeDevice %1 Remove Device, pair again";
const char AskAdapter[] = "> Manager.DefaultAdapter /";

} // namespace

void tst_devices::removeOne_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("outcome");
    const QString device = "{adapter}/dev_";
    QTest::newRow("known") << "00:1A:7D:DA:71:13"
                           << "{anna}"
                           << QStringList {QString(Removed).arg("{anna}"),
                                           "> Adapter.RemoveDevice {adapter} {anna}"};
    const QString dashes = device + "00-1A-7D-DA-71-13";
    QTest::newRow("with dashes") << "00-1A-7D-DA-71-13" << dashes
                                 << QStringList {"2 removeDevice " + dashes
                                                 + " error Remove Device"};
    QTest::newRow("two slashes") << "00//1A" << device + "00//1A" << QStringList();
}

void tst_devices::removeOne()
{
    QFETCH(QString, address);
    QFETCH(QString, path);
    QFETCH(QStringList, outcome);
    Road road;
    road.meet("anna");
    const int from = road.mark();
    QCOMPARE(road.call("RemoveDevice", {"s:" + address}), QJsonArray {0});
    road.awaitAll(from, outcome);
    road.settle();
    const QStringList logs {"4 RemoveDevice", "2 remove device " + path, "4 removeDevice " + path};
    const QStringList expected = outcome.isEmpty() ? logs : logs + outcome.mid(0, 1);
    QCOMPARE(road.deeds(from), expected + QStringList {AskAdapter} + outcome.mid(1));
    QCOMPARE(road.entries({{"member", "DeviceRemoved"}}, from).size(), path == "{anna}" ? 1 : 0);
    QCOMPARE(road.call("GetStatus"), QJsonArray({0, true, true, "7351"}));
}

/// In the order of BlueZ's list, and whatever becomes of another one.
void tst_devices::removeAll()
{
    Road road;
    const QStringList phones {"carla", "anna", "berta"};
    for (const QString &phone : phones)
        road.meet(phone, "known");
    road.tell("fault bluez:Adapter.RemoveDevice error=DoesNotExist times=1 after=1");
    const int from = road.mark();
    QCOMPARE(road.call("RemoveAllDevices"), QJsonArray {0});

    QStringList steps {"4 RemoveAllDevices", "4 error listing device on {adapter}"};
    QStringList calls {AskAdapter, "> Adapter.ListDevices {adapter}"};
    for (const QString &phone : phones) {
        const QString path = '{' + phone + '}';
        steps << "4 removeDevice " + path << QString(Removed).arg(path);
        calls << "> Adapter.RemoveDevice {adapter} " + path;
    }
    road.settle();
    // The error of a refusal may be here when the call, which is not waited for, is looked at.
    QStringList deeds = road.deeds(from);
    deeds.replaceInStrings("2 removeDevice {anna} error Remove Device",
                           QString(Removed).arg("{anna}"));
    QCOMPARE(deeds, steps + calls);
    QStringList gone;
    for (const QJsonObject &entry : road.entries({{"member", "DeviceRemoved"}}, from))
        gone << entry.value("arguments").toArray().first().toString();
    QCOMPARE(gone, QStringList({road.path("carla"), road.path("berta")}));
}

void tst_devices::removalIsNotWaitedFor()
{
    Road road;
    road.meet("anna");
    road.meet("berta");
    road.tell("fault bluez:Adapter.RemoveDevice never");
    const QJsonObject begun = road.entries({}).last();
    QCOMPARE(road.call("RemoveDevice", {"s:00:1A:7D:DA:71:13"}), QJsonArray {0});
    QCOMPARE(road.call("RemoveAllDevices"), QJsonArray {0});
    road.settle();
    const double passed = Steps::secondsBetween(begun, road.entries({}).last());
    QVERIFY2(passed < 10, qPrintable(QString::number(passed))); // the bus library waits 25 s
    QCOMPARE(road.deeds(0, {"> Adapter.RemoveDevice"}).size(), 3);
}

/// The phone is held until BlueZ reports its disconnection.
void tst_devices::removeConnected()
{
    Road road;
    road.tell("timescale 0.15");
    road.bring("playing");
    const int from = road.mark();
    QCOMPARE(road.call("RemoveDevice", {"s:00:1A:7D:DA:71:13"}), QJsonArray {0});
    QCOMPARE(road.deeds(from, {"4 Device", "@ "}), QStringList());
    road.awaitAll(from, Road::gone());
    road.rewind(from);
    road.expect(VirtualProduct::message("signal", "DeviceRemoved"));
    road.settle();
    QCOMPARE(road.deeds(from, {"> Device"}), QStringList());
    road.tell("phone anna forget");
    road.stream();
}

void tst_devices::withoutAdapter()
{
    VirtualProduct::Options options;
    options.tell = QStringList {"fault bluez:Manager.DefaultAdapter error=NoSuchAdapter after=1"};
    Road road(options);
    const int from = road.mark();
    QCOMPARE(road.call("RemoveDevice", {"s:00:1A:7D:DA:71:13"}), QJsonArray {1});
    QCOMPARE(road.call("RemoveAllDevices"), QJsonArray {1});
    road.settle();
    const QString failed = "2 error get DefaultAdapter";
    QCOMPARE(road.deeds(from),
             QStringList(
                 {"4 RemoveDevice", failed, "4 RemoveAllDevices", failed, AskAdapter, AskAdapter}));
}

void tst_devices::disconnectHeld_data()
{
    QTest::addColumn<QString>("state");
    for (const char *state : {"accepted", "polling", "playing"})
        QTest::newRow(state) << state;
}

void tst_devices::disconnectHeld()
{
    QFETCH(QString, state);
    Road road(Road::acceptedFor(10000));
    road.bring(state);
    const int from = road.mark();
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {0});
    road.settle();
    QStringList steps {"4 DisconnectDevice", "4 Disconnect {anna}", "4 Device {anna} DISCONNECT",
                       "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO"};
    if (state == "polling")
        steps << "4 there is step to start pulseaudio running";
    if (state != "accepted")
        steps << "4 stop pulseaudio because not used any more";
    // A poll may come first.
    const QRegularExpression otherThanPoll("^(?!4 wait pulseaudio)");
    QCOMPARE(road.deeds(from, {"2 ", "4 ", "> "}).filter(otherThanPoll),
             steps + QStringList {"> Device.Disconnect {anna}"});
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {1});
}

SCENARIO_MAIN(tst_devices)

#include "tst_devices.moc"
