#include "DaemonBench.h"
#include "Script.h"

#include <QtTest>

/// Runs the scripts of situations.txt.
class SituationsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void situations_data();
    void situations();
};

void SituationsTest::situations_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QString>("script");
    for (const Script::Section &section : Script::sections(SITUATIONS)) {
        const QString title = section.title.section(": ", 1);
        for (const QString &backend : section.title.section(": ", 0, 0).split(' '))
            QTest::newRow(qPrintable(title + ", " + backend)) << backend << section.script;
    }
}

void SituationsTest::situations()
{
    QFETCH(QString, backend);
    QFETCH(QString, script);
    DaemonBench bench(0.1, {{"adapter-delay", 0}, {"backend", backend}});
    QVERIFY(bench.addPhone("P"));
    QVERIFY(bench.addPhone("K", "trusted"));
    QVERIFY(bench.startUp());
    QVERIFY(bench.startAgent());
    bench.recorder.clear();
    QCOMPARE(Script(script).run(bench), QString());
}

QTEST_GUILESS_MAIN(SituationsTest)
#include "tst_bluez_situations.moc"
