#ifndef PHONEVISITS_H
#define PHONEVISITS_H

#include "ProductControl.h"
#include "Rig.h"

/**
 * The visits of one phone that the unit knows, on a rig whose Bluetooth it switches on. BlueZ's own
 * timers run fast meanwhile.
 */
class PhoneVisits
{
public:
    PhoneVisits(Rig &rig, ProductControl &product);
    ~PhoneVisits();

    /// The phone connects; seconds from its source being "connected" to the request to play.
    double arrive();
    void play();
    /// The phone leaves, and the service has stopped everything.
    void leave();

    /// The phone's source, as PulseAudio would name it.
    static QByteArray sourceName();

private:
    Rig &m_rig;
    ProductControl &m_product;
};

#endif
