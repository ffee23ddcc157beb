#include "AudioSource.h"

#include "Adapter.h"
#include "Context.h"
#include "Device.h"
#include "Durations.h"

namespace {

const QString SourceInterface = QStringLiteral("org.bluez.AudioSource");
const QString AudioInterface = QStringLiteral("org.bluez.Audio");
const QString SetUpFailed = QStringLiteral("Stream setup failed");

} // namespace

AudioSource::AudioSource(Context *context, Device *device)
    : m_context(context), m_device(device), m_grace(&context->schedule)
{
}

void AudioSource::appear()
{
    m_exists = true;
    m_context->bus.publish(
        m_device->path(),
        {AudioInterface,
         {{"Connect",
           {},
           {},
           [](const Call &call) { call.fail(Errors::failed("Connect Failed")); }},
          {"Disconnect", {}, {}, [](const Call &call) { call.fail(Errors::notConnected()); }},
          {"GetProperties",
           {},
           {"a{sv}"},
           [](const Call &call) {
               call.reply(Properties {{"State", "disconnected"}});
           }}},
         {{"PropertyChanged", {"s", "v"}}}});
    m_context->bus.publish(
        m_device->path(),
        {SourceInterface,
         {{"Connect", {}, {}, [this](const Call &call) { connectCalled(call); }},
          {"Disconnect", {}, {}, [this](const Call &call) { disconnectCalled(call); }},
          {"GetProperties",
           {},
           {"a{sv}"},
           [this](const Call &call) {
               call.reply(Properties {{"State", m_state}});
           }}},
         {{"PropertyChanged", {"s", "v"}}}});
}

void AudioSource::setState(const QString &state)
{
    if (!m_exists)
        return;
    m_state = state;
    m_context->bus.emitPropertyChanged(m_device->path(), SourceInterface, "State", state);
}

void AudioSource::connectCalled(const Call &call)
{
    AudioSession &session = m_device->session();
    if (session.isDying()) {
        if (meetsRace()) {
            call.fail(Errors::failed("Failed to create a stream"));
            session.noticeHangUp();
            m_holdsDeadSession = true;
            return;
        }
        session.noticeHangUp();
    }
    if (session.isOpen()) {
        call.fail(Errors::alreadyConnected());
    } else if (m_connect) {
        call.fail(Errors::audioInProgress());
    } else if (!m_device->adapter()->isPowered()) {
        call.fail(Errors::failed("Unable to get a session"));
    } else {
        m_holdsDeadSession = false;
        m_connect = call;
        session.unitConnects();
    }
}

bool AudioSource::meetsRace()
{
    // Only the management back-end tells of a link's end before the session notices it.
    if (!m_device->session().diedByDisconnect() || m_context->options.race <= 0)
        return false;
    m_context->options.race--;
    return true;
}

void AudioSource::disconnectCalled(const Call &call)
{
    AudioSession &session = m_device->session();
    if (m_connect || session.isClosing()) {
        call.fail(Errors::audioInProgress());
    } else if (session.isActive() && !session.isDying()) {
        session.unitCloses(call);
    } else if (m_holdsDeadSession) {
        m_holdsDeadSession = false;
        call.reply();
    } else {
        call.fail(Errors::notConnected());
    }
}

bool AudioSource::answerConnect()
{
    if (!m_connect)
        return false;
    m_connect->reply();
    m_connect.reset();
    return true;
}

void AudioSource::configurationRefused()
{
    failConnect();
}

void AudioSource::sessionEnded(int times)
{
    for (int i = 0; i < times; i++)
        setState("disconnected");
    if (m_connect && !m_grace.isActive())
        m_grace.start(Durations::ConnectGrace, [this] { failConnect(); });
}

void AudioSource::failConnect()
{
    if (!m_connect)
        return;
    const Call call = *m_connect;
    m_connect.reset();
    call.fail(Errors::failed(SetUpFailed));
}

void AudioSource::retire()
{
    m_grace.stop();
    failConnect();
    m_exists = false;
}
