#include "Clock.h"

#include <QTimer>

QObject *Clock::after(int milliseconds, QObject *context, const std::function<void()> &action) const
{
    auto *timer = new QTimer(context);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer, &QTimer::timeout, context, [timer, action] {
        timer->deleteLater();
        action();
    });
    timer->start(qRound(milliseconds * scale));
    return timer;
}
