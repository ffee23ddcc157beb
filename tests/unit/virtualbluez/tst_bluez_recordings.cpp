#include "DaemonBench.h"
#include "Script.h"

#include <QFile>
#include <QtTest>

/**
 * Replays what phone and unit did in recordings of a real daemon, and holds the virtual daemon to
 * the same messages in the same order.
 */
class RecordingsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void replay_data();
    void replay();
};

void RecordingsTest::replay_data()
{
    QTest::addColumn<QString>("backend");
    for (const char *file : {"road", "fast", "unit", "two"})
        QTest::newRow(file) << "mgmt";
    for (const char *file : {"road-hci", "unit-hci"})
        QTest::newRow(file) << "hci";
}

void RecordingsTest::replay()
{
    QFETCH(QString, backend);
    QFile recording(QStringLiteral(RECORDINGS "/%1.txt").arg(QTest::currentDataTag()));
    QVERIFY(recording.open(QIODevice::ReadOnly));
    DaemonBench bench(0.1, {{"backend", backend}, {"adapter-delay", 200}});
    QCOMPARE(Script(QString::fromUtf8(recording.readAll())).run(bench), QString());
}

QTEST_GUILESS_MAIN(RecordingsTest)
#include "tst_bluez_recordings.moc"
