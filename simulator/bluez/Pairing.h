#ifndef PAIRING_H
#define PAIRING_H

#include "Schedule.h"

class Device;
struct Context;

/**
 * A pairing that the phone has started over an existing link.
 *
 * With legacy pairing the registered agent gives the PIN, which must be the phone's. With Secure
 * Simple Pairing and an agent without input and output nobody is asked.
 */
class Pairing
{
public:
    Pairing(Context *context, Device *device);

    /// The phone hears of the outcome (Phone::pairingFinished()).
    void start();
    bool isActive() const { return m_active; }
    /// The link has gone.
    void abort();

private:
    void answered(bool agreed, const QString &pin);
    void succeed();
    void fail(const QString &why);

    Context *m_context;
    Device *m_device;
    bool m_active = false;
    Timer m_step;
};

#endif
