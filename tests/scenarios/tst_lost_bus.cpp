// A bus ends under a service that plays: the service goes on without it and stops orderly. Started
// again with the bus, it plays again.
#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QTest>

class tst_lost_bus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void endsAndComesBack_data();
    void endsAndComesBack();
};

void tst_lost_bus::endsAndComesBack_data()
{
    QTest::addColumn<QString>("then");
    QTest::addColumn<QString>("noticed");
    QTest::newRow("session") << "phone anna leave"
                             << "4 stop pulseaudio because not used any more";
    // The daemon ends with the bus, and what is started in its place cannot reach one either.
    QTest::newRow("system") << "status"
                            << "4 forceSyncDown";
}

void tst_lost_bus::endsAndComesBack()
{
    const QString bus = QTest::currentDataTag();
    QFETCH(QString, then);
    QFETCH(QString, noticed);
    Road product;
    product.bring("playing");
    product.tellRefused("bus " + bus + " start");
    product.tell("bus " + bus + " kill");
    product.tell(then);
    product.await(noticed);
    QCOMPARE(product.tell("service stop"), QString("exit status 0"));
    product.expectLog(4, "Succesfully terminated");
    Steps::expectNothingLeft(product);

    product.tell("bus " + bus + " start");
    product.mark();
    product.tell("service start");
    Steps::waitUntilOn(product);
    product.stream("anna");
}

SCENARIO_MAIN(tst_lost_bus)

#include "tst_lost_bus.moc"
