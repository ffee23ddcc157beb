#include "Schedule.h"

#include <algorithm>
#include <cmath>

Schedule::Schedule(QObject *parent) : QObject(parent)
{
    m_clock.start();
    m_wakeUp.setSingleShot(true);
    m_wakeUp.setTimerType(Qt::PreciseTimer);
    connect(&m_wakeUp, &QTimer::timeout, this, &Schedule::catchUp);
}

void Schedule::setScale(double scale)
{
    m_base = realNow();
    m_clock.restart();
    m_scale = std::max(scale, 0.001);
    arm();
}

void Schedule::catchUp()
{
    if (m_running)
        return;
    m_running = true;
    while (!m_pending.empty() && m_pending.begin()->first.first <= realNow()) {
        const auto first = m_pending.begin();
        Timer *timer = first->second;
        m_current = first->first.first;
        m_pending.erase(first);
        timer->fire();
    }
    m_running = false;
    arm();
}

qint64 Schedule::now() const
{
    return m_running ? m_current : std::max(m_current, realNow());
}

qint64 Schedule::realNow() const
{
    return m_base + qint64(double(m_clock.nsecsElapsed()) / 1000 / m_scale);
}

Schedule::Moment Schedule::add(qint64 delay, Timer *timer)
{
    const Moment moment(now() + delay, m_order++);
    m_pending.emplace(moment, timer);
    arm();
    return moment;
}

void Schedule::remove(const Moment &moment)
{
    m_pending.erase(moment);
    arm();
}

void Schedule::arm()
{
    if (m_running)
        return;
    if (m_pending.empty()) {
        m_wakeUp.stop();
        return;
    }
    const qint64 productTime = std::max<qint64>(0, m_pending.begin()->first.first - realNow());
    m_wakeUp.start(int(std::ceil(productTime * m_scale / 1000)));
}

Timer::Timer(Schedule *schedule) : m_schedule(schedule) { }

Timer::~Timer()
{
    stop();
}

void Timer::start(int milliseconds, Action action)
{
    startMicroseconds(qint64(milliseconds) * 1000, std::move(action));
}

void Timer::startReal(int milliseconds, Action action)
{
    startMicroseconds(qint64(milliseconds * 1000 / m_schedule->scale()), std::move(action));
}

void Timer::stop()
{
    if (!m_active)
        return;
    m_active = false;
    m_action = nullptr;
    m_schedule->remove(m_moment);
}

void Timer::startMicroseconds(qint64 delay, Action action)
{
    stop();
    m_active = true;
    m_action = std::move(action);
    m_moment = m_schedule->add(delay, this);
}

void Timer::fire()
{
    m_active = false;
    // The action may start this timer anew, or end its owner and this timer with it.
    const Action action = std::move(m_action);
    m_action = nullptr;
    action();
}
