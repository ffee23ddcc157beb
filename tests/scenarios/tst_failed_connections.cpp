// BlueZ cannot do what the unit asks for a phone: a phone that cannot be connected is forgotten, a
// phone that cannot be disconnected does not hold the unit, and the rest is only logged.

#include "Road.h"

#include <QCoreApplication>
#include <QTest>

class tst_failed_connections : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void connectFails();
    void disconnectFails();
    void disconnectFailsInReconnect();
    void trustFails_data();
    void trustFails();
};

namespace {

const char NotDisconnected[] = "2 disconnectDevice {anna} error disconnectiong ";

} // namespace

void tst_failed_connections::connectFails()
{
    Road road;
    road.meet("anna");
    road.tell("phone anna refuse");
    const int from = road.mark();
    road.tell("phone anna connect");
    road.awaitAll(from,
                  Road::madeAgain() + QStringList {"2 connectAudioSource {anna} error Connect"}
                      + Road::forgotten());
    const QString path = road.path("anna");
    road.rewind(from);
    road.expect({{"member", "DeviceRemoved"}, {"arguments", QJsonArray {path}}});
    road.settle();
    QCOMPARE(road.deeds(from, {"& "}), QStringList());
}

void tst_failed_connections::disconnectFails()
{
    Road road;
    road.bring("streaming");
    road.tell("fault bluez:Device.Disconnect error");
    int from = road.mark();
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {0});
    road.awaitAll(from, QStringList {"4 Disconnect {anna}", NotDisconnected} + Road::gone());

    // What it still does is of no interest: it is not connected any more.
    from = road.settle();
    road.tell("phone anna play");
    road.tell("phone anna pause");
    road.settle();
    QCOMPARE(road.deeds(from), QStringList());
    QCOMPARE(road.call("DisconnectDevice"), QJsonArray {1});

    road.tell("fault clear");
    from = road.mark();
    road.tell("phone anna leave");
    road.awaitAll(from, {"4 Device {anna} DISCONNECT"});
    road.settle();
    QCOMPARE(road.deeds(from), QStringList {"4 Device {anna} DISCONNECT"});
    road.stream();
}

void tst_failed_connections::disconnectFailsInReconnect()
{
    Road road;
    road.meet("anna");
    road.tell("fault bluez:Device.Disconnect error");
    road.tell("fault bluez:AudioSource.Connect error=AlreadyConnected");
    const int from = road.mark();
    road.tell("phone anna connect");
    QStringList steps = Road::madeAgain();
    steps.insert(2, NotDisconnected);
    road.awaitAll(from,
                  steps + QStringList {"2 connectAudioSource {anna} error Connect"}
                      + Road::forgotten());
}

void tst_failed_connections::trustFails_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("traits");
    QTest::addColumn<QStringList>("logs");
    QTest::newRow("cannot be trusted") << "fault bluez:Device.SetProperty error"
                                       << "known"
                                       << QStringList {"2 trust for {anna} is false",
                                                       "4 load timer for reconnect",
                                                       "4 trust {anna} true",
                                                       "2 error trusting {anna}",
                                                       "4 reconnect",
                                                       "4 connection coming from ulmo",
                                                       "4 trust {anna} true",
                                                       "2 error trusting {anna}"};
    QTest::newRow("cannot be asked")
        << "fault bluez:Device.GetProperties error"
        << "trusted"
        << QStringList {"4 IsTrustDevice {anna}", "2 error reading trust for {anna}",
                        "4 load timer for reconnect", "4 trust {anna} true", "4 reconnect"};
}

void tst_failed_connections::trustFails()
{
    QFETCH(QString, fault);
    QFETCH(QString, traits);
    QFETCH(QStringList, logs);
    Road road;
    road.meet("anna", traits);
    road.tell(fault);
    const int from = road.mark();
    road.stream();
    road.awaitAll(from, logs);
}

SCENARIO_MAIN(tst_failed_connections)

#include "tst_failed_connections.moc"
