#include "Pairing.h"

#include "Adapter.h"
#include "Context.h"
#include "Device.h"
#include "Durations.h"
#include "Phone.h"
#include "RegisteredAgent.h"

#include <QDBusObjectPath>
#include <QUuid>

namespace {
const int LongestPin = 16;
}

Pairing::Pairing(Context *context, Device *device)
    : m_context(context), m_device(device), m_step(&context->schedule)
{
}

void Pairing::start()
{
    m_active = true;
    m_device->linkUsersChanged();
    if (m_device->adapter()->simplePairing()) {
        m_step.start(Durations::Answer, [this] { succeed(); });
        return;
    }
    RegisteredAgent *agent = m_device->adapter()->agent();
    if (!agent) {
        fail("the unit has no agent");
        return;
    }
    agent->request(m_device, "RequestPinCode",
                   {QVariant::fromValue(QDBusObjectPath(m_device->path()))},
                   [this](bool agreed, const QString &pin) { answered(agreed, pin); });
}

void Pairing::abort()
{
    m_active = false;
    m_step.stop();
}

void Pairing::answered(bool agreed, const QString &pin)
{
    if (!agreed || pin.isEmpty() || pin.size() > LongestPin) {
        fail("the unit gives no PIN");
    } else if (pin != m_device->phone()->pin()) {
        m_step.start(Durations::Answer, [this] { fail("the PINs differ"); });
    } else {
        m_step.start(Durations::Answer, [this] { succeed(); });
    }
}

void Pairing::succeed()
{
    m_active = false;
    const QString key = QString::fromLatin1(QUuid::createUuid().toRfc4122().toHex());
    m_device->phone()->setKey(key);
    m_device->bond(key);
    m_device->phone()->pairingFinished(true, QString());
    m_device->session().pairingFinished();
}

void Pairing::fail(const QString &why)
{
    m_active = false;
    m_device->phone()->pairingFinished(false, why);
    if (m_device->session().isActive())
        m_device->dropLink("is not authenticated");
    else
        m_device->linkUsersChanged();
}
