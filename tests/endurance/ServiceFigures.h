#ifndef SERVICEFIGURES_H
#define SERVICEFIGURES_H

#include <sys/types.h>

/// What a service in a virtual product holds, seen from outside.
class ServiceFigures
{
public:
    /// The service that has \p inside as its process number in the product that this process runs.
    explicit ServiceFigures(pid_t inside);

    bool isThere() const { return m_process > 0; }
    int residentKiB() const;
    int descriptors() const;
    int children() const;

private:
    pid_t m_process = 0;
};

#endif
