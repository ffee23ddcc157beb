// A command that hangs holds the service up for a while, not for ever.
#include "Road.h"
#include "Steps.h"

#include <QCoreApplication>
#include <QTest>

class tst_hung_command : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void isKilled();
};

void tst_hung_command::isKilled()
{
    Road product;
    product.meet("anna");
    product.tell("fault pactl:stat hang times=1");
    product.tell("phone anna connect");
    const QJsonObject hung = product.expectCommand("pactl stat");
    const QJsonObject failed = product.expectLog(4, "wait pulseaudio ... 1");
    QVERIFY(Steps::secondsBetween(hung, failed) > 29);
    product.rewind(0);
    product.expect({{"kind", "end"}, {"pid", hung.value("pid")}});
    product.await("@ PlayBluetooth");
}

SCENARIO_MAIN(tst_hung_command)

#include "tst_hung_command.moc"
