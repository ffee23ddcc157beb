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
    void removeAll_data();
    void removeAll();
    void removalIsNotWaitedFor();
    void removeConnected_data();
    void removeConnected();
    void withoutAdapter_data();
    void withoutAdapter();
    void disconnectHeld_data();
    void disconnectHeld();
};

namespace {

/// What is logged of a removal; long texts are cut in the log.
QStringList removalSteps(const QString &path, const QString &last)
{
    const int room = 300;
    const QString shown = path.size() > room ? path.left(room) + '*' : path;
    QStringList steps {"4 RemoveDevice", "2 remove device " + shown, "4 removeDevice " + shown};
    if (!last.isEmpty())
        steps << (path == shown ? last.arg(path) : last.section('%', 0, 0) + shown);
    return steps;
}

const char Removed[] = "4 removeDevice %1 Remove Device, pair again";
const char Refused[] = "2 removeDevice %1 error Remove Device";
const char AskAdapter[] = "> Manager.DefaultAdapter /";

} // namespace

void tst_devices::removeOne_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("last"); // log line
    QTest::addColumn<bool>("known"); // to BlueZ
    const QString longText(5000, 'A');
    const QString device = "{adapter}/dev_";
    QTest::newRow("known") << "00:1A:7D:DA:71:13"
                           << "{anna}" << Removed << true;
    QTest::newRow("lower case") << "00:1a:7d:da:71:13" << device + "00_1a_7d_da_71_13" << Removed
                                << true;
    QTest::newRow("with underscores") << "00_1A_7D_DA_71_13"
                                      << "{anna}" << Removed << true;
    QTest::newRow("unknown") << "00:00:00:00:00:01" << device + "00_00_00_00_00_01" << Removed
                             << false;
    QTest::newRow("empty") << "" << device << Removed << false;
    QTest::newRow("no address") << "anna" << device + "anna" << Removed << false;
    QTest::newRow("very long") << longText << device + longText << Removed << false;
    QTest::newRow("with dashes") << "00-1A-7D-DA-71-13" << device + "00-1A-7D-DA-71-13" << Refused
                                 << false;
    QTest::newRow("with a blank") << "00:1A 7D" << device + "00_1A 7D" << Refused << false;
    QTest::newRow("not ASCII") << "Müller" << device + "Müller" << Refused << false;
    QTest::newRow("slash inside") << "00/1A" << device + "00/1A" << Removed << false;
    QTest::newRow("slash at the end") << "00:1A/" << device + "00_1A/" << Refused << false;
    QTest::newRow("two slashes") << "00//1A" << device + "00//1A"
                                 << "" << false;
    QTest::newRow("not ASCII, and a slash") << "ü/1A" << device + "ü/1A"
                                            << "" << false;
    QTest::newRow("up the tree") << "/../.." << device + "/../.."
                                 << "" << false;
}

void tst_devices::removeOne()
{
    QFETCH(QString, address);
    QFETCH(QString, path);
    QFETCH(QString, last);
    QFETCH(bool, known);
    Road road;
    road.meet("anna");
    if (!known) // or its error might be here when the call, which is not waited for, is looked at
        road.tell("fault bluez:Adapter.RemoveDevice delay=500");
    const int from = road.mark();
    QCOMPARE(road.call("RemoveDevice", {"s:" + address}), QJsonArray {0});
    road.awaitAll(from, removalSteps(path, last));
    road.settle();

    QStringList calls {AskAdapter};
    if (last == Removed)
        calls << "> Adapter.RemoveDevice " + path.section('/', 0, -2) + ' ' + path;
    if (path == "{anna}")
        calls.last() = "> Adapter.RemoveDevice {adapter} {anna}";
    QCOMPARE(road.deeds(from, {"> "}), calls);
    QCOMPARE(road.deeds(from, {"2 ", "4 "}).size(), removalSteps(path, last).size());
    QCOMPARE(road.entries({{"member", "DeviceRemoved"}}, from).size(), known ? 1 : 0);
    QCOMPARE(road.call("GetStatus"), QJsonArray({0, true, true, "7351"}));
}

void tst_devices::removeAll_data()
{
    QTest::addColumn<QStringList>("phones");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QStringList>("asked"); // to be removed
    QTest::addColumn<QStringList>("removed");
    const QStringList three {"carla", "anna", "berta"};
    QTest::newRow("none") << QStringList() << "" << QStringList() << QStringList();
    QTest::newRow("one") << QStringList {"anna"} << "" << QStringList {"anna"}
                         << QStringList {"anna"};
    QTest::newRow("in the order of BlueZ's list") << three << "" << three << three;
    QTest::newRow("the first is refused")
        << three << "fault bluez:Adapter.RemoveDevice error times=1" << three
        << QStringList(three.mid(1));
    QTest::newRow("the second is refused")
        << three << "fault bluez:Adapter.RemoveDevice error=DoesNotExist times=1 after=1" << three
        << QStringList {"carla", "berta"};
    QTest::newRow("no list") << three << "fault bluez:Adapter.ListDevices error" << QStringList()
                             << QStringList();
}

void tst_devices::removeAll()
{
    QFETCH(QStringList, phones);
    QFETCH(QString, fault);
    QFETCH(QStringList, asked);
    QFETCH(QStringList, removed);
    Road road;
    for (const QString &phone : phones)
        road.meet(phone, "known");
    if (!fault.isEmpty())
        road.tell(fault);
    const int from = road.mark();
    QCOMPARE(road.call("RemoveAllDevices"), QJsonArray {0});

    QStringList steps {"4 RemoveAllDevices", "4 error listing device on {adapter}"};
    QStringList calls {AskAdapter, "> Adapter.ListDevices {adapter}"};
    for (const QString &phone : asked) {
        const QString path = '{' + phone + '}';
        steps << "4 removeDevice " + path << QString(Removed).arg(path);
        calls << "> Adapter.RemoveDevice {adapter} " + path;
    }
    road.settle();
    // The error of a refusal may be here when the call, which is not waited for, is looked at.
    QStringList deeds = road.deeds(from);
    deeds.replaceInStrings(QRegularExpression("^2 (?=error listing)"), "4 ");
    deeds.replaceInStrings(QRegularExpression("^2 (removeDevice \\S+) error Remove Device$"),
                           "4 \\1 Remove Device, pair again");
    QCOMPARE(deeds, steps + calls);
    QStringList gone;
    for (const QJsonObject &entry : road.entries({{"member", "DeviceRemoved"}}, from))
        gone << entry.value("arguments").toArray().first().toString();
    QStringList expected;
    for (const QString &phone : removed)
        expected << road.path(phone);
    QCOMPARE(gone, expected);
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

void tst_devices::removeConnected_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("it") << "RemoveDevice" << QStringList {"s:00:1A:7D:DA:71:13"};
    QTest::newRow("all") << "RemoveAllDevices" << QStringList();
}

/// The phone is held until BlueZ reports its disconnection.
void tst_devices::removeConnected()
{
    QFETCH(QString, method);
    QFETCH(QStringList, arguments);
    Road road;
    road.tell("timescale 0.15");
    road.bring("playing");
    const int from = road.mark();
    QCOMPARE(road.call(method, arguments), QJsonArray {0});
    QCOMPARE(road.deeds(from, {"4 Device", "@ "}), QStringList());
    road.awaitAll(from, Road::gone());
    road.rewind(from);
    road.expect(VirtualProduct::message("signal", "DeviceRemoved"));
    road.settle();
    QCOMPARE(road.deeds(from, {"> Device"}), QStringList());
    road.tell("phone anna forget");
    road.stream();
}

void tst_devices::withoutAdapter_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("isOn");
    QTest::newRow("one, switched off")
        << "RemoveDevice" << QStringList {"s:00:1A:7D:DA:71:13"} << false;
    QTest::newRow("all, switched off") << "RemoveAllDevices" << QStringList() << false;
    QTest::newRow("one, no adapter")
        << "RemoveDevice" << QStringList {"s:00:1A:7D:DA:71:13"} << true;
    QTest::newRow("all, no adapter") << "RemoveAllDevices" << QStringList() << true;
}

void tst_devices::withoutAdapter()
{
    QFETCH(QString, method);
    QFETCH(QStringList, arguments);
    QFETCH(bool, isOn);
    VirtualProduct::Options options;
    options.settings.insert("BLUETOOTH/bt-enable", isOn ? 1 : 0);
    options.tell = QStringList {"fault bluez:Manager.DefaultAdapter error=NoSuchAdapter after=1"};
    Road road(options);
    if (!isOn)
        Steps::waitUntilRunning(road);
    const int from = road.mark();
    QCOMPARE(road.call(method, arguments), QJsonArray {1});
    road.settle();
    QCOMPARE(road.deeds(from),
             QStringList({"4 " + method, "2 error get DefaultAdapter"})
                 + (isOn ? QStringList {AskAdapter} : QStringList()));
}

void tst_devices::disconnectHeld_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<bool>("held");
    QTest::newRow("idle") << "idle" << false;
    QTest::newRow("accepted") << "accepted" << true;
    QTest::newRow("polling") << "polling" << true;
    QTest::newRow("linking") << "linking" << true;
    QTest::newRow("streaming") << "streaming" << true;
    QTest::newRow("playing") << "playing" << true;
}

void tst_devices::disconnectHeld()
{
    QFETCH(QString, state);
    QFETCH(bool, held);
    Road road(Road::acceptedFor(10000));
    road.bring(state);
    const int from = road.mark();
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {held ? 0 : 1});
    road.settle();
    if (!held) {
        QCOMPARE(road.deeds(from), QStringList {"4 DisconnectDevice"});
        return;
    }
    QStringList steps {"4 DisconnectDevice", "4 Disconnect {anna}", "4 Device {anna} DISCONNECT",
                       "4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO"};
    if (state == "polling" || state == "linking")
        steps << "4 there is step to start pulseaudio running";
    if (state != "accepted")
        steps << "4 stop pulseaudio because not used any more";
    QCOMPARE(road.deeds(from, {"2 ", "4 ", "> "}),
             steps + QStringList {"> Device.Disconnect {anna}"});
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {1});
}

SCENARIO_MAIN(tst_devices)

#include "tst_devices.moc"
