#include "Clock.h"

#include <cmath>
#include <ctime>

double now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

void sleepFor(double seconds)
{
    const double whole = std::floor(seconds);
    const timespec time = {time_t(whole), long((seconds - whole) * 1e9)};
    nanosleep(&time, nullptr);
}
