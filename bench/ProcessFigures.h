#ifndef PROCESSFIGURES_H
#define PROCESSFIGURES_H

#include <sys/types.h>

// What the kernel tells of a process.

/// In KiB.
struct Memory
{
    double resident = 0; ///< shared pages included
    double proportional = 0; ///< shared pages divided by the number of processes that share them
};
Memory memoryOf(pid_t pid);

/// How often its threads have given up the processor or were taken off it, all together.
long switchesOf(pid_t pid);
/// Seconds that its threads have run, all together.
double processorTimeOf(pid_t pid);
int descriptorsOf(pid_t pid);
int threadsOf(pid_t pid);
int childrenOf(pid_t pid);

/// Waits until a process has slept for a while.
void waitUntilIdle(pid_t pid);

#endif
