#ifndef PRODUCTCONTROL_H
#define PRODUCTCONTROL_H

#include <QLocalSocket>

/// The virtual product's control line.
class ProductControl
{
public:
    /// From here on every program of the board is ready as soon as it can be.
    ProductControl();

    /// Has a control line carried out, and waits for that.
    void tell(const QString &line);

private:
    QLocalSocket m_hub;
};

#endif
