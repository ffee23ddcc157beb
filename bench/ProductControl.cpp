#include "ProductControl.h"

#include "CannotMeasure.h"
#include "Clock.h"

namespace {
const int TimeoutMs = int(Patience * 1000);
}

ProductControl::ProductControl()
{
    if (!m_hub.connectTo("/run/product/hub", TimeoutMs))
        throw CannotMeasure("no virtual product: " + m_hub.errorString());
    tell("fault clear");
    tell("fault bluetoothd adapter-delay=0");
}

void ProductControl::tell(const QString &line)
{
    m_hub.tell(line);
    while (m_hub.answers.isEmpty()) {
        if (!m_hub.receive(TimeoutMs))
            throw CannotMeasure("the virtual product does not answer to " + line);
    }
    const QJsonObject answer = m_hub.answers.takeFirst();
    if (answer.contains("error"))
        throw CannotMeasure(line + ": " + answer.value("error").toString());
}
