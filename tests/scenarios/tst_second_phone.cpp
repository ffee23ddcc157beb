// The unit plays one phone. Every other one is disconnected at once, whatever of it shows first,
// and the first one is not disturbed.

#include "Road.h"

#include <QCoreApplication>
#include <QTest>

class tst_second_phone : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void isRefused_data();
    void isRefused();
    void isPlayedLater();
    void waitsForTheFirstSign_data();
    void waitsForTheFirstSign();
};

namespace {

const char NotForMe[] = "4 DevicePropertyChanged but not for me, disconnect !!";
const char Another[] = "4 disconnect device because there is another";

} // namespace

void tst_second_phone::isRefused_data()
{
    QTest::addColumn<QString>("state"); // of the first phone
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QStringList>("signs"); // by which the second one is recognised, in order
    const QStringList linkFirst {NotForMe, Another};
    const QStringList audioFirst {Another, NotForMe};
    for (const QString state : {"accepted", "playing"})
        QTest::newRow(qPrintable(state + ", link first")) << state << "mgmt" << linkFirst;
    for (const QString state : {"accepted", "streaming"})
        QTest::newRow(qPrintable(state + ", audio first")) << state << "hci other" << audioFirst;
}

void tst_second_phone::isRefused()
{
    QFETCH(QString, state);
    QFETCH(QString, backend);
    QFETCH(QStringList, signs);
    Road road(Road::acceptedFor(10000));
    road.bring(state);
    road.tell("backend " + backend);
    road.meet("berta");
    const int from = road.mark();
    road.tell("phone berta connect");

    QStringList refused;
    for (const QString &sign : signs)
        refused << sign << "4 Disconnect {berta}"
                << "> Device.Disconnect {berta}";
    road.awaitAll(from, refused);
    road.awaitPhone(from, "berta", "link-down");
    road.rewind(from);
    road.expect(
        {{"path", road.path("berta")}, {"arguments", QJsonArray {"State", "disconnected"}}});
    road.settle();
    QCOMPARE(road.deeds(from, {"4 D", "4 disc"}),
             QStringList(refused).filter(QRegularExpression("^4")));
    QCOMPARE(road.deeds(from).filter("{anna}"), QStringList());
    QCOMPARE(road.deeds(from, {"@ "}), QStringList());
}

void tst_second_phone::isPlayedLater()
{
    Road road;
    road.bring("playing");
    road.meet("berta");
    int from = road.mark();
    road.tell("phone berta connect");
    road.awaitAll(from, {"4 Disconnect {berta}"});
    road.awaitPhone(from, "berta", "link-down");

    from = road.mark();
    road.tell("phone anna leave"); // in order, so that nothing of it trails
    road.awaitAll(from, Road::gone());
    from = road.mark();
    road.stream("berta");
    road.awaitAll(from, Road::ownConnection("berta") + Road::playback("berta"));
}

void tst_second_phone::waitsForTheFirstSign_data()
{
    QTest::addColumn<QString>("sign"); // from the first phone, which is not connected
    QTest::addColumn<bool>("refused"); // the second one
    const QString audio = "signal {anna} org.bluez.AudioSource.PropertyChanged s:State v:s:";
    const QString device = "signal {anna} org.bluez.Device.PropertyChanged s:";
    QTest::newRow("disconnected") << audio + "disconnected" << true;
    QTest::newRow("connecting") << audio + "connecting" << true;
    QTest::newRow("link is down") << device + "Connected v:b:false" << false;
}

/// Any State is a first sign of a phone, after which every other one is a second one.
void tst_second_phone::waitsForTheFirstSign()
{
    QFETCH(QString, sign);
    QFETCH(bool, refused);
    Road road;
    road.meet("anna");
    road.meet("berta");
    road.tell(sign);
    road.settle();
    const int from = road.mark();
    if (!refused) {
        road.stream("berta");
        return;
    }
    road.tell("phone berta connect-acl");
    road.awaitAll(from, {NotForMe, "4 Disconnect {berta}", "> Device.Disconnect {berta}"});
    road.awaitPhone(from, "berta", "link-down");
    QCOMPARE(road.deeds(from, {"> ", "@ "}), QStringList {"> Device.Disconnect {berta}"});

    // The end of the first one's link frees the place.
    road.tell("signal {anna} org.bluez.Device.PropertyChanged s:Connected v:b:false");
    road.await("4 Device {anna} DISCONNECT");
    road.stream("berta");
}

SCENARIO_MAIN(tst_second_phone)

#include "tst_second_phone.moc"
