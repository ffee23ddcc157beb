#include "AudioSession.h"

#include "Adapter.h"
#include "Context.h"
#include "Device.h"
#include "Durations.h"
#include "Phone.h"
#include "RegisteredAgent.h"
#include "Uuids.h"

#include <QDBusObjectPath>

#include <optional>

AudioSession::AudioSession(Context *context, Device *device)
    : m_context(context)
    , m_device(device)
    , m_step(&context->schedule)
    , m_announce(&context->schedule)
    , m_question(&context->schedule)
    , m_idle(&context->schedule)
    , m_suspend(&context->schedule)
    , m_unused(&context->schedule)
    , m_hangUp(&context->schedule)
{
}

Phone *AudioSession::phone() const
{
    return m_device->phone();
}

// ---- set up by the unit

void AudioSession::unitConnects()
{
    if (m_phase == Phase::Signalling && m_idle.isActive()) {
        m_idle.stop();
        configure(Discover);
        return;
    }
    if (m_phase != Phase::Idle)
        return;
    m_phase = Phase::Connecting;
    m_device->linkUsersChanged();
    // Before the link can exist, so "connecting" always precedes Connected = true here.
    m_device->source().setState("connecting");
    if (m_device->isLinkUp()) {
        openSignalling();
        return;
    }
    m_device->page([this](bool up) {
        if (up)
            openSignalling();
        else
            end(2);
    });
}

void AudioSession::openSignalling()
{
    m_step.start(Durations::ChannelSetup, [this] {
        if (phone()->refusesAudio(m_device->key())) {
            // Failures before the signalling channel is usable are signalled twice.
            end(2);
        } else {
            m_phase = Phase::Signalling;
            configure(Discover);
        }
    });
}

void AudioSession::configure(int question)
{
    ask([this, question] {
        if (question == SetConfiguration) {
            if (phone()->rejectsConfiguration() || !m_device->adapter()->takeSink(m_device)) {
                m_device->source().configurationRefused();
                becomeIdle();
                return;
            }
            m_device->addUuid(Uuids::AudioSource);
        }
        if (question == OpenStream)
            opened(false);
        else
            configure(question + 1);
    });
}

void AudioSession::ask(const Timer::Action &answered)
{
    const std::optional<int> delay = phone()->answerDelay();
    if (delay && *delay < Durations::AnswerLimit)
        m_step.start(*delay, answered);
    else
        m_step.start(Durations::AnswerLimit, [this] { giveUp(); });
}

// ---- set up by the phone

void AudioSession::phoneConnects(bool quiet)
{
    if (m_phase != Phase::Idle)
        return;
    m_phase = Phase::Connecting;
    m_device->linkUsersChanged();
    if (m_device->source().exists())
        m_device->source().setState("connecting");
    else
        m_device->addUuid(Uuids::AdvancedAudio);
    authorise(quiet);
}

void AudioSession::authorise(bool quiet)
{
    if (m_device->isTrusted() || m_device->isAuthorised()) {
        authorised(quiet);
        return;
    }
    const auto answered = [this, quiet](bool agreed, const QString &) {
        if (m_phase != Phase::Connecting)
            return;
        if (agreed) {
            m_device->setAuthorised();
            authorised(quiet);
        } else {
            phone()->refused("connection refused");
            end(1);
        }
    };
    RegisteredAgent *agent = m_device->adapter()->agent();
    if (!agent) {
        answered(false, QString());
        return;
    }
    agent->request(m_device, "Authorize",
                   {QVariant::fromValue(QDBusObjectPath(m_device->path())), Uuids::AdvancedAudio},
                   answered);
}

void AudioSession::authorised(bool quiet)
{
    m_phase = Phase::Signalling;
    // Raw HCI lets the channel through before it has checked the key of the link.
    if (!m_device->isBonded())
        m_device->pairing().start();
    if (quiet) {
        // Signalling alone: the daemon takes over and configures the stream itself.
        m_idle.start(Durations::SessionIdle, [this] { configure(Discover); });
        return;
    }
    m_step.start(Durations::PhoneSetup, [this] { phoneConfigures(); });
}

void AudioSession::phoneConfigures()
{
    if (!m_device->adapter()->takeSink(m_device)) {
        phone()->refused("configuration refused: the unit plays another phone");
        m_device->source().configurationRefused();
        becomeIdle();
        return;
    }
    m_device->addUuid(Uuids::AudioSource);
    m_step.start(2 * Durations::Answer, [this] { phoneOpens(); });
}

void AudioSession::phoneOpens()
{
    m_waitsForPairing = m_device->pairing().isActive();
    if (!m_waitsForPairing)
        opened(true);
}

void AudioSession::pairingFinished()
{
    if (m_waitsForPairing)
        phoneOpens();
}

// ---- the stream

void AudioSession::opened(bool byPhone)
{
    m_phase = Phase::Open;
    phone()->streamOpened();
    if (byPhone)
        m_unused.start(Durations::UnusedStream, [this] { closeUnused(); });
    if (m_device->source().answerConnect())
        m_announce.start(Durations::StateAfterReply, [this] { announceOpen(); });
    else
        announceOpen();
}

void AudioSession::announceOpen()
{
    m_announce.stop();
    m_device->source().setState("connected");
}

void AudioSession::phoneStarts()
{
    if (m_announce.isActive())
        announceOpen();
    m_phase = Phase::Streaming;
    m_unused.stop();
    m_device->source().setState("playing");
    if (!m_context->options.streamTaken)
        m_suspend.start(Durations::AutoSuspend, [this] { suspend(); });
}

void AudioSession::phoneSuspends()
{
    m_suspend.stop();
    m_question.stop();
    m_phase = Phase::Open;
    m_device->source().setState("connected");
}

void AudioSession::streamTaken()
{
    m_suspend.stop();
}

void AudioSession::suspend()
{
    const std::optional<int> delay = phone()->answerDelay();
    if (!delay || *delay >= Durations::AnswerLimit) {
        m_question.start(Durations::AnswerLimit, [this] { giveUp(); });
        return;
    }
    m_question.start(*delay, [this] {
        phone()->suspendedByUnit();
        phoneSuspends();
    });
}

void AudioSession::giveUp()
{
    phone()->streamClosed("is given up by the unit: it does not answer");
    end(1);
}

void AudioSession::unitCloses(const Call &call)
{
    if (!isOpen()) {
        m_step.stop();
        becomeIdle();
        call.reply();
        return;
    }
    m_closing = call;
    m_question.start(2 * Durations::Answer, [this] {
        phone()->streamClosed("has its stream closed by the unit");
        streamClosed();
    });
}

void AudioSession::closeUnused()
{
    phone()->streamClosed("has its unused stream closed by the unit");
    streamClosed();
}

void AudioSession::phoneClosesStream()
{
    // Emits nothing: "disconnected" comes with the end of the signalling channel.
    streamClosed();
}

void AudioSession::streamClosed()
{
    stopActivity();
    m_device->adapter()->releaseSink(m_device);
    becomeIdle();
}

void AudioSession::becomeIdle()
{
    m_phase = Phase::Signalling;
    m_idle.start(Durations::SessionIdle, [this] { end(1); });
}

void AudioSession::phoneClosesSignalling()
{
    end(1);
}

// ---- the end

void AudioSession::linkLost(Notice notice)
{
    stopActivity();
    m_device->adapter()->releaseSink(m_device);
    m_diedByDisconnect = notice == Notice::AfterDisconnect
        && m_context->options.backend == Options::Backend::Management;
    if (notice == Notice::AtOnce)
        end(1);
    else if (m_diedByDisconnect && m_context->options.race > 0)
        m_hangUp.startReal(Durations::RaceHeld, [this] { end(1); });
    else
        m_hangUp.start(Durations::HangUpNoticed, [this] { end(1); });
}

void AudioSession::noticeHangUp()
{
    if (isDying())
        end(1);
}

void AudioSession::end(int times)
{
    stopActivity();
    m_phase = Phase::Idle;
    m_device->adapter()->releaseSink(m_device);
    // First, so that the unused link is dropped before a waiting Connect fails, both 2 s later.
    m_device->linkUsersChanged();
    m_device->source().sessionEnded(times);
}

void AudioSession::retire()
{
    stopActivity();
    m_phase = Phase::Idle;
    m_device->adapter()->releaseSink(m_device);
}

void AudioSession::stopActivity()
{
    m_waitsForPairing = false;
    if (m_closing)
        m_closing->reply();
    m_closing.reset();
    for (Timer *timer :
         {&m_step, &m_announce, &m_question, &m_idle, &m_suspend, &m_unused, &m_hangUp})
        timer->stop();
}
