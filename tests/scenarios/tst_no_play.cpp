// A phone that is connected but does not play is reported every ten seconds, until it plays.

#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QTest>

class tst_no_play : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void isRepeated();
    void isRestarted();
    void isCancelled_data();
    void isCancelled();
};

namespace {

const char Started[] = "4 start/restart timer for no play";
const char Expired[] = "4 CONNECTED BUT NOT PLAYING";
const char Report[] = "@ NoPlayConnectedDevive";
const double Early = 9.4; // seconds: such a long timer may come five per cent early or late
const double Late = 12;

/// Waits for the next report and says how long it took since \p before.
double waitForReport(Road &road, QJsonObject *before)
{
    const QJsonObject report = road.await(Expired);
    road.await(Report);
    const double passed = Steps::secondsBetween(*before, report);
    *before = report;
    return passed;
}

} // namespace

void tst_no_play::isRepeated()
{
    Road road;
    road.meet("anna");
    road.tell("phone anna connect");
    QJsonObject last = road.await(Started);
    for (int i = 0; i < 2; ++i) {
        const double passed = waitForReport(road, &last);
        QVERIFY2(passed > Early && passed < Late, qPrintable(QString::number(passed)));
    }
    road.settle();
    QCOMPARE(road.deeds(0, {Report}).size(), 2);
}

void tst_no_play::isRestarted()
{
    Road road;
    road.bring("linking");
    road.await("4 wait pulseaudio bluetooth module ready... 12"); // more than a second
    road.tell("fault clear");
    const int from = road.mark();
    road.tell("phone anna play");
    road.tell("phone anna pause");
    road.rewind(from);
    road.await(Started);
    road.tell("signal {anna} org.bluez.AudioSource.PropertyChanged s:State v:s:connected");
    QJsonObject last = road.await(Started);
    const double passed = waitForReport(road, &last);
    QVERIFY2(passed > Early && passed < Late, qPrintable(QString::number(passed)));
    road.settle();
    QCOMPARE(road.deeds(0, {Report}).size(), 1);
}

void tst_no_play::isCancelled_data()
{
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QString>("last"); // what the service does about it
    QTest::newRow("it plays") << QStringList {"phone anna play"} << "";
    QTest::newRow("it is lost") << QStringList {"phone anna drop"} << "@ StopPlay bluetooth ''";
    QTest::newRow("Bluetooth is switched off") << QStringList {"disable"} << "@ BluetoothOn false";
    QTest::newRow("another phone is refused")
        << QStringList {"phone berta connect-acl"} << "> Device.Disconnect {berta}";
}

void tst_no_play::isCancelled()
{
    QFETCH(QStringList, lines);
    QFETCH(QString, last);
    Road road;
    road.meet("anna");
    road.meet("berta", "known");
    // The answer to the play request, which comes after the timer's start, is later than its end.
    road.tell("fault soundmanager delay=11500");
    road.stream();
    road.rewind(0);
    road.await(Started);
    for (const QString &line : lines)
        road.tell(line);
    if (!last.isEmpty())
        road.await(last);
    road.expect(VirtualProduct::message("reply", "PlayBluetooth"));
    road.settle();
    QCOMPARE(road.deeds(0, {Report, Expired}), QStringList());
}

SCENARIO_MAIN(tst_no_play)

#include "tst_no_play.moc"
