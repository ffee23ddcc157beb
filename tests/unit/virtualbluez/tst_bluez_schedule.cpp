#include "Schedule.h"

#include <QtTest>

/// Product time: order, pace, and what its timers may do to each other.
class ScheduleTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void order();
    void chains();
    void pace();
    void stopping();
};

void ScheduleTest::order()
{
    Schedule schedule;
    // So fast that all of them are due at the first wake-up.
    schedule.setScale(0.001);
    QStringList happened;
    Timer late(&schedule), early(&schedule), middle(&schedule), again(&schedule);
    late.start(300, [&] { happened << "late"; });
    early.start(100, [&] { happened << "early"; });
    middle.start(200, [&] { happened << "middle"; });
    again.start(200, [&] { happened << "after middle"; });
    QTRY_COMPARE(happened, QStringList({"early", "middle", "after middle", "late"}));
}

void ScheduleTest::chains()
{
    Schedule schedule;
    schedule.setScale(0.001);
    QStringList happened;
    Timer chain(&schedule), other(&schedule);
    // Three steps of 100 come before one of 301, however late the process is woken.
    chain.start(100,
                [&] { chain.start(100, [&] { chain.start(100, [&] { happened << "chain"; }); }); });
    other.start(301, [&] { happened << "other"; });
    QThread::msleep(5);
    schedule.catchUp();
    QCOMPARE(happened, QStringList({"chain", "other"}));
}

void ScheduleTest::pace()
{
    Schedule schedule;
    schedule.setScale(0.1);
    QElapsedTimer clock;
    bool scaled = false, real = false;
    Timer scaledTimer(&schedule), realTimer(&schedule);
    clock.start();
    scaledTimer.start(500, [&] { scaled = true; });
    realTimer.startReal(100, [&] { real = true; });
    QTRY_VERIFY(scaled);
    QVERIFY(clock.elapsed() >= 49);
    QVERIFY(!real);
    QTRY_VERIFY(real);
    QVERIFY(clock.elapsed() >= 99);
    // A slower pace holds for what is pending, too.
    scaled = false;
    scaledTimer.start(100, [&] { scaled = true; });
    clock.start();
    schedule.setScale(1);
    QTRY_VERIFY(scaled);
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
