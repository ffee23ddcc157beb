#include "Schedule.h"

#include <QtTest>

/// Product time: pace, and what its timers may do to each other.
class ScheduleTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void order();
    void pace();
    void stopping();
};

void ScheduleTest::order()
{
    Schedule schedule;
    schedule.setScale(0.001);
    QStringList happened;
    Timer chain(&schedule), late(&schedule), first(&schedule), second(&schedule);
    // Three steps of 100 come before one of 301, however late the process is woken.
    chain.start(100,
                [&] { chain.start(100, [&] { chain.start(100, [&] { happened << "chain"; }); }); });
    late.start(301, [&] { happened << "late"; });
    first.start(200, [&] { happened << "first"; });
    second.start(200, [&] { happened << "second"; });
    QThread::msleep(5);
    schedule.catchUp();
    QCOMPARE(happened, QStringList({"first", "second", "chain", "late"}));
}

void ScheduleTest::pace()
{
    Schedule schedule;
    schedule.setScale(0.1);
    QStringList happened;
    Timer scaled(&schedule), real(&schedule);
    QElapsedTimer clock;
    clock.start();
    real.startReal(100, [&] { happened << "real"; });
    scaled.start(500, [&] { happened << "scaled"; });
    QTRY_COMPARE(happened, QStringList({"scaled", "real"}));
    QVERIFY(clock.elapsed() >= 99);
    // A slower pace holds for what is pending, too.
    scaled.start(100, [&] { happened << "later"; });
    clock.start();
    schedule.setScale(1);
    QTRY_COMPARE(happened.size(), 3);
    QVERIFY(clock.elapsed() >= 99);
}

void ScheduleTest::stopping()
{
    Schedule schedule;
    schedule.setScale(0.001);
    bool happened = false, ended = false;
    auto victim = std::make_unique<Timer>(&schedule);
    Timer stopped(&schedule), last(&schedule);
    victim->start(200, [&] { happened = true; });
    stopped.start(200, [&] { happened = true; });
    // A timer may end others, and its own owner.
    auto suicidal = std::make_unique<Timer>(&schedule);
    suicidal->start(100, [&] {
        victim.reset();
        stopped.stop();
        suicidal.reset();
    });
    last.start(300, [&] { ended = true; });
    QTRY_VERIFY(ended);
    QVERIFY(!happened);
    QVERIFY(!stopped.isActive());
}

QTEST_GUILESS_MAIN(ScheduleTest)
#include "tst_bluez_schedule.moc"
