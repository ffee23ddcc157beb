#ifndef CLOCK_H
#define CLOCK_H

/// How long anything is waited for, in seconds; it only matters where something goes wrong.
const double Patience = 20;

/// Seconds of the monotonic clock.
double now();

void sleepFor(double seconds);

#endif
