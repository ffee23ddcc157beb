#include "Audio.h"

#include "Adapter.h"
#include "Device.h"
#include "Phone.h"
#include "RegisteredAgent.h"

namespace {

// Milliseconds of product time.
const int ChannelSetup = 20;
const int Answer = 15; ///< one answer of a phone
const int AnswerLimit = 6000;
const int PhoneSetup = 60; ///< from a phone's signalling channel to its configuration
const int StateAfterReply = 10; ///< from Connect's reply to State "connected"
const int SessionIdle = 1000; ///< signalling channel without users
const int UnusedStream = 20000; ///< stream opened by the phone and never started
const int AutoSuspend = 5000; ///< stream started while no local client has taken it
const int ConnectGrace = 2000; ///< from a lost connection to the failure of Connect
const int HangUpNoticed = 20; ///< from a link's end to the dead audio connection's

/// The same after Device.Disconnect, in real milliseconds: the caller's speed does not scale.
const int DisconnectNoticed = 60;

} // namespace

const QString Audio::SourceUuid = QStringLiteral("0000110a-0000-1000-8000-00805f9b34fb");
const QString Audio::AdvancedUuid = QStringLiteral("0000110d-0000-1000-8000-00805f9b34fb");

Audio::Audio(Device &device)
    : m_device(device)
    , m_step(device.adapter().clock, &device)
    , m_announce(device.adapter().clock, &device)
    , m_question(device.adapter().clock, &device)
    , m_idle(device.adapter().clock, &device)
    , m_suspend(device.adapter().clock, &device)
    , m_unused(device.adapter().clock, &device)
    , m_hangUp(device.adapter().clock, &device)
    , m_grace(device.adapter().clock, &device)
{
}

// ---- methods

bool Audio::handle(const Call &call)
{
    const QString method = call.method();
    if (method == "AudioSource.Connect()")
        connectCalled(call);
    else if (method == "AudioSource.Disconnect()")
        disconnectCalled(call);
    else if (method == "AudioSource.GetProperties()")
        call.reply({QVariantMap {{"State", m_state}}});
    else if (method == "Audio.GetProperties()") // knows headsets and sinks only
        call.reply({QVariantMap {{"State", "disconnected"}}});
    else
        return false;
    return true;
}

void Audio::connectCalled(const Call &call)
{
    if (m_hangUp.isActive() && m_refusesConnect) {
        m_hasDeadSession = true;
        if (m_device.adapter().backend == Adapter::Backend::RawHci)
            call.fail("AlreadyConnected");
        else
            call.fail("Failed", "Failed to create a stream");
        return;
    }
    noticeHangUp();
    if (isOpen()) {
        call.fail("AlreadyConnected");
    } else if (m_connect) {
        call.fail("InProgress");
    } else if (!m_device.adapter().isPowered()) {
        call.fail("Failed", "Unable to get a session");
    } else {
        m_hasDeadSession = false;
        m_connect = call;
        unitConnects();
    }
}

void Audio::disconnectCalled(const Call &call)
{
    const bool isDying = m_hangUp.isActive();
    if (m_connect || m_closing) {
        call.fail("InProgress");
    } else if (isOpen() && !isDying) {
        m_closing = call;
        m_question.start(2 * Answer, [this] { closeStream("the unit closes it"); });
    } else if (isActive() && !isDying) {
        m_step.stop();
        becomeIdle();
        call.reply();
    } else if (m_hasDeadSession) {
        m_hasDeadSession = false;
        call.reply();
    } else {
        call.fail("NotConnected");
    }
}

void Audio::failConnect()
{
    m_grace.stop();
    if (m_connect)
        m_connect->fail("Failed", "Stream setup failed");
    m_connect.reset();
}

// ---- set up by the unit

void Audio::unitConnects()
{
    if (m_phase == Phase::Signalling && m_idle.isActive()) {
        m_idle.stop();
        configure(Discover);
    }
    if (m_phase != Phase::Idle)
        return; // joins the phone, which is just setting it up
    m_phase = Phase::Connecting;
    m_device.linkUsersChanged();
    // Before the link can exist: "connecting" always precedes Connected = true here.
    setState("connecting");
    if (m_device.isLinkUp()) {
        openSignalling();
        return;
    }
    m_device.page([this](bool up) {
        if (up)
            openSignalling();
        else
            end(2);
    });
}

void Audio::openSignalling()
{
    m_step.start(ChannelSetup, [this] {
        if (m_device.phone().refusesAudio(m_device.key())) {
            // Failures before the signalling channel is usable are signalled twice.
            end(2);
        } else {
            m_phase = Phase::Signalling;
            configure(Discover);
        }
    });
}

void Audio::configure(int question)
{
    ask(m_step, [this, question] {
        if (question == SetConfiguration) {
            if (m_device.phone().rejectsConfiguration()
                || !m_device.adapter().takeSink(&m_device)) {
                failConnect();
                becomeIdle();
                return;
            }
            m_device.addService(SourceUuid);
        }
        if (question == OpenStream)
            opened(false);
        else
            configure(question + 1);
    });
}

void Audio::ask(Timer &timer, const Timer::Action &answered)
{
    const std::optional<int> delay = m_device.phone().answerDelay();
    if (delay && Answer + *delay < AnswerLimit)
        timer.start(Answer + *delay, answered);
    else
        timer.start(AnswerLimit, [this] { end(1, "the phone does not answer"); });
}

// ---- set up by the phone

void Audio::phoneConnects(bool quiet)
{
    if (isActive())
        return; // the unit was faster
    m_phase = Phase::Connecting;
    m_device.linkUsersChanged();
    if (m_device.hasAudioSource())
        setState("connecting");
    else
        m_device.addService(AdvancedUuid);
    if (m_device.isTrusted() || m_isAuthorised) {
        authorised(quiet);
        return;
    }
    const auto answered = [this, quiet](bool agreed, const QString &) {
        if (m_phase != Phase::Connecting)
            return;
        if (agreed) {
            m_isAuthorised = true;
            authorised(quiet);
        } else {
            m_device.phone().note("refused", "nobody authorises its audio");
            end(1);
        }
    };
    if (RegisteredAgent *agent = m_device.adapter().agent())
        agent->request(&m_device, "Authorize", m_device.path(), {AdvancedUuid}, answered);
    else
        answered(false, QString());
}

void Audio::authorised(bool quiet)
{
    m_phase = Phase::Signalling;
    // Raw HCI lets the channel through before it has checked the key of the link.
    if (!m_device.isBonded())
        m_device.startPairing();
    // Over signalling alone the daemon takes over and configures the stream itself.
    if (quiet)
        m_idle.start(SessionIdle, [this] { configure(Discover); });
    else
        m_step.start(PhoneSetup, [this] { phoneConfigures(); });
}

void Audio::phoneConfigures()
{
    if (!m_device.adapter().takeSink(&m_device)) {
        m_device.phone().note("refused", "the unit plays another phone");
        failConnect();
        becomeIdle();
        return;
    }
    m_device.addService(SourceUuid);
    m_step.start(2 * Answer, [this] { phoneOpens(); });
}

void Audio::phoneOpens()
{
    m_waitsForPairing = m_device.isPairing();
    if (!m_waitsForPairing)
        opened(true);
}

void Audio::pairingFinished()
{
    if (m_waitsForPairing)
        phoneOpens();
}

// ---- the stream

void Audio::opened(bool byPhone)
{
    m_phase = Phase::Open;
    m_device.phone().streamOpened();
    if (byPhone)
        m_unused.start(UnusedStream, [this] { closeStream("nobody starts it"); });
    if (!m_connect) {
        announceOpen();
        return;
    }
    m_connect->reply();
    m_connect.reset();
    m_announce.start(StateAfterReply, [this] { announceOpen(); });
}

void Audio::announceOpen()
{
    m_announce.stop();
    setState("connected");
}

void Audio::phoneStarts()
{
    if (m_announce.isActive())
        announceOpen();
    m_phase = Phase::Streaming;
    m_unused.stop();
    setState("playing");
    if (m_device.adapter().isStreamTaken())
        return;
    m_suspend.start(AutoSuspend, [this] {
        ask(m_question, [this] {
            m_device.phone().suspendedByUnit();
            phoneSuspends();
        });
    });
}

void Audio::phoneSuspends()
{
    m_suspend.stop();
    m_question.stop();
    m_phase = Phase::Open;
    setState("connected");
}

void Audio::streamTaken()
{
    m_suspend.stop();
}

void Audio::phoneClosesStream()
{
    closeStream(QString());
}

void Audio::closeStream(const QString &why)
{
    m_device.phone().streamClosed(why);
    stopActivity();
    becomeIdle();
}

void Audio::becomeIdle()
{
    m_phase = Phase::Signalling;
    m_device.adapter().releaseSink(&m_device);
    m_idle.start(SessionIdle, [this] { end(1); });
}

void Audio::phoneClosesSignalling()
{
    end(1);
}

// ---- the end

void Audio::linkLost(Notice notice)
{
    stopActivity();
    m_device.adapter().releaseSink(&m_device);
    m_refusesConnect = notice == Notice::AfterDisconnect;
    if (notice == Notice::AtOnce)
        end(1);
    else if (notice == Notice::Later)
        m_hangUp.start(HangUpNoticed, [this] { end(1); });
    else
        m_hangUp.startReal(DisconnectNoticed, [this] { end(1); });
}

void Audio::noticeHangUp()
{
    if (m_hangUp.isActive())
        end(1);
}

void Audio::end(int times, const QString &why)
{
    m_device.phone().streamClosed(why);
    stopActivity();
    m_phase = Phase::Idle;
    m_device.adapter().releaseSink(&m_device);
    // First, so that the unused link is dropped before a waiting Connect fails, both 2 s later.
    m_device.linkUsersChanged();
    for (int i = 0; i < times; i++)
        setState("disconnected");
    if (m_connect && !m_grace.isActive())
        m_grace.start(ConnectGrace, [this] { failConnect(); });
}

void Audio::retire()
{
    stopActivity();
    failConnect();
    m_phase = Phase::Idle;
    m_isAuthorised = false;
    m_state = "disconnected";
    m_device.adapter().releaseSink(&m_device);
}

void Audio::stopActivity()
{
    m_waitsForPairing = false;
    if (m_closing)
        m_closing->reply();
    m_closing.reset();
    for (Timer *timer :
         {&m_step, &m_announce, &m_question, &m_idle, &m_suspend, &m_unused, &m_hangUp})
        timer->stop();
}

void Audio::setState(const QString &state)
{
    if (!m_device.hasAudioSource())
        return;
    m_state = state;
    m_device.adapter().emitChanged(m_device.path(), "AudioSource", "State", state);
}
