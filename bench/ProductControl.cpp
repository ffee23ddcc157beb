#include "ProductControl.h"

#include "CannotMeasure.h"
#include "Clock.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {
const int TimeoutMs = int(Patience * 1000);
}

ProductControl::ProductControl()
{
    m_hub.connectToServer("/run/product/hub");
    if (!m_hub.waitForConnected(TimeoutMs))
        throw CannotMeasure("no virtual product: " + m_hub.errorString());
    tell("fault clear");
    tell("fault bluetoothd adapter-delay=0");
}

void ProductControl::tell(const QString &line)
{
    const QJsonObject request {{"tell", line}};
    m_hub.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    while (!m_hub.canReadLine()) {
        if (!m_hub.waitForReadyRead(TimeoutMs))
            throw CannotMeasure("the virtual product does not answer to " + line);
    }
    const QJsonObject answer = QJsonDocument::fromJson(m_hub.readLine()).object();
    if (answer.contains("error"))
        throw CannotMeasure(line + ": " + answer.value("error").toString());
}
