#ifndef CLOCK_H
#define CLOCK_H

#include <QObject>

#include <functional>

/// Product time: the timers of BlueZ and of phones, which a scale makes faster or slower.
class Clock
{
public:
    /// Factor of all durations that begin from now on; 0.05 is twenty times as fast.
    double scale = 1;

    /**
     * Calls \p action after \p milliseconds of product time, unless \p context or the returned
     * object is deleted first. The object is a child of \p context and goes after the call.
     */
    QObject *after(int milliseconds, QObject *context, const std::function<void()> &action) const;
};

#endif
