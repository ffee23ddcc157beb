#ifndef ONEPROCESSOR_H
#define ONEPROCESSOR_H

#include <QtGlobal>

#include <sched.h>

/**
 * Keeps this process, and those that it starts meanwhile, on one processor: what a message costs
 * depends, by half as much again, on whether its sender and receiver happen to share one.
 */
class OneProcessor
{
public:
    OneProcessor()
    {
        sched_getaffinity(0, sizeof m_before, &m_before);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        sched_setaffinity(0, sizeof one, &one);
    }

    ~OneProcessor() { sched_setaffinity(0, sizeof m_before, &m_before); }

private:
    Q_DISABLE_COPY(OneProcessor)

    cpu_set_t m_before;
};

#endif
