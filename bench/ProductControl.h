#ifndef PRODUCTCONTROL_H
#define PRODUCTCONTROL_H

#include "HubClient.h"

/// The virtual product's control line.
class ProductControl
{
public:
    /// From here on every program of the board is ready as soon as it can be.
    ProductControl();

    /// Has a control line carried out, and waits for that.
    void tell(const QString &line);

private:
    HubClient m_hub;
};

#endif
