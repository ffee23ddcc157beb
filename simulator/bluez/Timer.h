#ifndef TIMER_H
#define TIMER_H

#include "core/Clock.h"

#include <QPointer>

/// A single shot of product time; its end is the end of what it was to do.
class Timer
{
public:
    using Action = std::function<void()>;

    Timer(const Clock &clock, QObject *context) : m_clock(clock), m_context(context) { }
    ~Timer() { stop(); }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    /// Has \p action done after \p milliseconds of product time, instead of anything before.
    void start(int milliseconds, const Action &action)
    {
        stop();
        m_shot = m_clock.after(milliseconds, m_context, [this, action] {
            m_shot = nullptr;
            action();
        });
    }
    /// The same in real time.
    void startReal(int milliseconds, const Action &action)
    {
        start(qRound(milliseconds / m_clock.scale), action);
    }
    void stop() { delete m_shot.data(); }
    bool isActive() const { return m_shot; }

private:
    const Clock &m_clock;
    QObject *m_context;
    QPointer<QObject> m_shot;
};

#endif
