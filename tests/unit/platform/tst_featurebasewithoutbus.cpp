// A feature where no bus can be reached.
#include "LogInterface.h"
#include "StandardError.h"
#include "UlmoFeatureBase.h"

#include <QtTest>

LogInterface *_logInterface = nullptr;

class TestFeatureBaseWithoutBus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reportsAndLogs()
    {
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/session");
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system");
        StandardError standardError;
        LogInterface log("/log");
        _logInterface = &log;

        UlmoFeatureBase feature("/object");

        QVERIFY(!feature.isInitialized());
        const QByteArrayList lines = standardError.takeLines();
        QCOMPARE(lines.size(), 1);
        QVERIFY2(lines.first().contains(" 1 /object no platform events from the session bus: ")
                     && lines.first().contains("/nonexistent/session"),
                 lines.first().constData());
        _logInterface = nullptr;
    }
};

QTEST_GUILESS_MAIN(TestFeatureBaseWithoutBus)
#include "tst_featurebasewithoutbus.moc"
