#include "Audio.h"

#include "Device.h"
#include "Phone.h"

namespace {

// Milliseconds of product time.
const int ChannelSetup = 20;
const int Answer = 15; ///< one answer of a phone
const int AnswerLimit = 6000;
const int Questions = 4; ///< discovery, capabilities, configuration, opening
const int PhoneSetup = 60; ///< from a phone's signalling channel to its configuration
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
    , m_next(device.adapter().clock, &device)
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
    // By the clock, since the timer may be late on a busy machine.
    const bool isEarly = m_disconnected.isValid() && m_disconnected.elapsed() < DisconnectNoticed;
    if (m_phase == Phase::Dying && isEarly) {
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
        return;
    }
    if (m_connect) {
        call.fail("InProgress", "Operation already in progress");
        return;
    }
    if (!m_device.adapter().isPowered()) {
        call.fail("Failed", "Unable to get a session");
        return;
    }
    m_hasDeadSession = false;
    m_connect = call;
    if (m_phase == Phase::Waiting)
        configure(Questions);
    if (m_phase != Phase::Idle)
        return; // joins what is being set up
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

void Audio::disconnectCalled(const Call &call)
{
    const bool isAlive = isActive() && m_phase != Phase::Dying;
    if (m_connect) {
        call.fail("InProgress", "Operation already in progress");
    } else if (!isAlive && !m_hasDeadSession) {
        call.fail("NotConnected");
    } else {
        m_hasDeadSession = false;
        if (isAlive)
            closeStream("the unit closes it");
        call.reply();
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

void Audio::openSignalling()
{
    m_next.start(ChannelSetup, [this] {
        // Failures before the signalling channel is usable are signalled twice.
        if (m_device.phone().refusesAudio())
            end(2);
        else
            configure(Questions);
    });
}

void Audio::configure(int questions)
{
    m_phase = Phase::Configuring;
    ask([this, questions] {
        if (questions == 1) {
            opened(false);
        } else if (questions != 2) {
            configure(questions - 1);
        } else if (!m_device.phone().rejectsConfiguration()
                   && m_device.adapter().takeSink(&m_device)) {
            m_device.addService(SourceUuid);
            configure(1);
        } else {
            failConnect();
            closeStream();
        }
    });
}

void Audio::ask(const Timer::Action &answered)
{
    const std::optional<int> late = m_device.phone().answerDelay();
    if (late && Answer + *late < AnswerLimit)
        m_next.start(Answer + *late, answered);
    else
        m_next.start(AnswerLimit, [this] { end(1, "the phone does not answer"); });
}

// ---- set up by the phone

void Audio::phoneConnects(bool quiet)
{
    if (isActive())
        return; // the unit was faster
    m_phase = Phase::Connecting;
    m_device.linkUsersChanged();
    if (m_device.hasService(SourceUuid))
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
        m_isAuthorised = agreed;
        if (agreed) {
            authorised(quiet);
        } else {
            m_device.phone().note("refused", "nobody authorises its audio");
            end(1);
        }
    };
    m_device.adapter().askAgent(&m_device, "Authorize", {AdvancedUuid}, answered);
}

void Audio::authorised(bool quiet)
{
    // Raw HCI lets the channel through before it has checked the key of the link.
    if (!m_device.isBonded())
        m_device.startPairing();
    // Over signalling alone the daemon takes over and configures the stream itself.
    if (quiet) {
        wait([this] { configure(Questions); });
        return;
    }
    m_phase = Phase::Configuring;
    m_next.start(PhoneSetup, [this] { phoneConfigures(); });
}

void Audio::phoneConfigures()
{
    if (!m_device.adapter().takeSink(&m_device)) {
        m_device.phone().note("refused", "the unit plays another phone");
        failConnect();
        closeStream();
        return;
    }
    m_device.addService(SourceUuid);
    m_next.start(2 * Answer, [this] {
        if (!m_device.isPairing())
            opened(true);
    });
}

void Audio::pairingFinished()
{
    if (m_phase == Phase::Configuring && !m_next.isActive())
        opened(true);
}

// ---- the stream

void Audio::opened(bool byPhone)
{
    m_phase = Phase::Open;
    m_next.stop();
    if (byPhone)
        m_next.start(UnusedStream, [this] { closeStream("nobody starts it"); });
    m_device.phone().setStream(Phone::Stream::Paused);
    if (m_connect)
        m_connect->reply();
    m_connect.reset();
    setState("connected");
}

void Audio::phoneStarts()
{
    m_phase = Phase::Playing;
    setState("playing");
    m_next.start(AutoSuspend, [this] {
        if (m_device.adapter().streamTaken)
            return;
        ask([this] {
            m_device.phone().setStream(Phone::Stream::Paused,
                                       "nobody takes it: the unit suspends it");
            phoneSuspends();
        });
    });
}

void Audio::phoneSuspends()
{
    m_phase = Phase::Open;
    m_next.stop();
    setState("connected");
}

void Audio::closeStream(const QString &why)
{
    m_device.phone().setStream(Phone::Stream::None, why);
    m_device.adapter().releaseSink(&m_device);
    wait([this] { end(1); });
}

void Audio::wait(const Timer::Action &then)
{
    m_phase = Phase::Waiting;
    m_next.start(SessionIdle, then);
}

// ---- the end

void Audio::linkLost(bool byUnit)
{
    m_phase = Phase::Dying;
    m_device.adapter().releaseSink(&m_device);
    if (byUnit) {
        m_disconnected.start();
        m_next.startReal(DisconnectNoticed, [this] { end(1); });
    } else {
        m_disconnected.invalidate();
        m_next.start(HangUpNoticed, [this] { end(1); });
    }
}

void Audio::noticeHangUp()
{
    if (m_phase == Phase::Dying)
        end(1);
}

void Audio::end(int times, const QString &why)
{
    m_phase = Phase::Idle;
    m_next.stop();
    m_device.phone().setStream(Phone::Stream::None, why);
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
    m_phase = Phase::Idle;
    m_next.stop();
    m_device.adapter().releaseSink(&m_device);
    failConnect();
    m_isAuthorised = false;
    m_state = "disconnected";
}

void Audio::setState(const QString &state)
{
    if (!m_device.hasService(SourceUuid))
        return;
    m_state = state;
    m_device.adapter().emitChanged(m_device.path(), "AudioSource", "State", state);
}
