#ifndef SERVICESEARCH_H
#define SERVICESEARCH_H

#include "Schedule.h"

class Device;
struct Context;

/**
 * The daemon's own search for a phone's services (SDP), about 2 s after a pairing that the phone
 * has started: it uses the link when there is one and pages the phone otherwise.
 */
class ServiceSearch
{
public:
    ServiceSearch(Context *context, Device *device);

    void schedule();
    /// Whether the device's services are being browsed: it cannot be removed meanwhile.
    bool isBrowsing() const { return m_phase == Phase::Paging || m_phase == Phase::Browsing; }
    bool isUsingLink() const { return m_phase == Phase::Browsing || m_phase == Phase::Kept; }
    /// A search that is only scheduled outlives the link.
    void linkLost();
    void stop();

private:
    enum class Phase { None, Scheduled, Paging, Browsing, Kept };

    void begin();
    void browse();

    Device *m_device;
    Phase m_phase = Phase::None;
    Timer m_timer;
};

#endif
