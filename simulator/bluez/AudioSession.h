#ifndef AUDIOSESSION_H
#define AUDIOSESSION_H

#include "Bus.h"
#include "Schedule.h"

#include <optional>

class Device;
class Phone;
struct Context;

/**
 * The audio connection (AVDTP) between a device and the unit: a signalling channel, and over it one
 * stream, which needs the unit's only SBC sink.
 */
class AudioSession
{
public:
    /// When the daemon notices that the session has died with its link.
    enum class Notice {
        AtOnce,
        Later, ///< shortly after the link's own end
        AfterDisconnect ///< the same, after Device.Disconnect: Connect can race with it
    };

    AudioSession(Context *context, Device *device);

    bool isActive() const { return m_phase != Phase::Idle; }
    bool isOpen() const { return m_phase == Phase::Open || m_phase == Phase::Streaming; }
    bool isStreaming() const { return m_phase == Phase::Streaming; }
    /// The link has gone, but the session's end was not noticed yet.
    bool isDying() const { return m_hangUp.isActive(); }
    bool diedByDisconnect() const { return isDying() && m_diedByDisconnect; }

    /// \name What the unit does
    /// @{
    /// For AudioSource.Connect; joins the phone when that is just setting the session up.
    void unitConnects();
    /// For AudioSource.Disconnect: closes the stream and answers \p call.
    void unitCloses(const Call &call);
    bool isClosing() const { return m_closing.has_value(); }
    /// @}

    /// \name What the phone does, over a link that is up
    /// @{
    /// Opens the signalling channel and, unless \p quiet, a stream. Nothing when there is a session
    /// already: the unit was faster.
    void phoneConnects(bool quiet);
    void phoneStarts();
    void phoneSuspends();
    void phoneClosesStream();
    void phoneClosesSignalling();
    /// @}

    /// A stream may have waited for the bond.
    void pairingFinished();
    void linkLost(Notice notice);
    void noticeHangUp();
    /// "stream-taken" has changed: a stream that a client has taken is not suspended.
    void streamTaken();
    /// The device goes: the session ends without a signal.
    void retire();

private:
    enum class Phase { Idle, Connecting, Signalling, Open, Streaming };
    enum Question { Discover, GetCapabilities, SetConfiguration, OpenStream };

    Phone *phone() const;
    void openSignalling();
    void configure(int question);
    void ask(const Timer::Action &answered);
    void authorise(bool quiet);
    void authorised(bool quiet);
    void phoneConfigures();
    void phoneOpens();
    void opened(bool byPhone);
    void announceOpen();
    void suspend();
    void giveUp();
    void closeUnused();
    void streamClosed();
    void becomeIdle();
    void end(int times);
    void stopActivity();

    Context *m_context;
    Device *m_device;
    Phase m_phase = Phase::Idle;
    std::optional<Call> m_closing;
    bool m_waitsForPairing = false;
    bool m_diedByDisconnect = false;
    Timer m_step; ///< setting up, one step after the other
    Timer m_announce; ///< between Connect's reply and State "connected"
    Timer m_question; ///< a request of the unit's about an open stream
    Timer m_idle;
    Timer m_suspend;
    Timer m_unused;
    Timer m_hangUp;
};

#endif
