#ifndef SCHEDULE_H
#define SCHEDULE_H

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>
#include <map>
#include <utility>

class Timer;

/**
 * Product time, and everything that is going to happen in it.
 *
 * Product time runs at a settable pace, and what happens in it happens strictly in the order of its
 * nominal moments, however late the process is woken: two events never race. A timer started while
 * another one fires counts from that one's nominal moment.
 */
class Schedule : public QObject
{
    Q_OBJECT

public:
    explicit Schedule(QObject *parent = nullptr);

    /// Real time per product time: 1 as on the board, 0.1 ten times as fast. At least 0.001.
    void setScale(double scale);
    double scale() const { return m_scale; }

    /// Makes everything happen that is due by now; for whoever brings news from outside.
    void catchUp();

private:
    friend class Timer;
    using Moment = std::pair<qint64, quint64>; ///< microseconds of product time, order of entry

    qint64 now() const;
    qint64 realNow() const;
    Moment add(qint64 delay, Timer *timer);
    void remove(const Moment &moment);
    void arm();

    double m_scale = 1;
    QElapsedTimer m_clock;
    qint64 m_base = 0; ///< product time when m_clock was started
    qint64 m_current = 0; ///< nominal time of the latest event
    quint64 m_order = 0;
    bool m_running = false;
    std::map<Moment, Timer *> m_pending;
    QTimer m_wakeUp;
};

/// A single-shot timer of product time. Its end is the end of what it was to do.
class Timer
{
public:
    using Action = std::function<void()>;

    explicit Timer(Schedule *schedule);
    ~Timer();
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    /// Has \p action done after \p milliseconds of product time, instead of anything before.
    void start(int milliseconds, Action action);
    /// The same after \p milliseconds of real time.
    void startReal(int milliseconds, Action action);
    void stop();
    bool isActive() const { return m_active; }

private:
    friend class Schedule;
    void startMicroseconds(qint64 delay, Action action);
    void fire();

    Schedule *m_schedule;
    Schedule::Moment m_moment;
    bool m_active = false;
    Action m_action;
};

#endif
