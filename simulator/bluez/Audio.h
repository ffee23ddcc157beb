#ifndef AUDIO_H
#define AUDIO_H

#include "Bus.h"
#include "Timer.h"

#include <QString>

#include <optional>

class Device;

/**
 * The audio connection between a device and the unit, org.bluez.AudioSource: a signalling channel,
 * and over it one stream, which needs the unit's only sink.
 */
class Audio
{
public:
    static const QString SourceUuid; ///< a phone with this service has org.bluez.AudioSource
    static const QString AdvancedUuid; ///< what the agent is asked for

    /// When the daemon notices that the connection has died with its link.
    enum class Notice {
        AtOnce,
        Later, ///< shortly after the link's own end
        AfterDisconnect ///< the same after Device.Disconnect, while an early Connect fails
    };

    explicit Audio(Device &device);

    bool isActive() const { return m_phase != Phase::Idle; }
    bool isOpen() const { return m_phase == Phase::Open || m_phase == Phase::Streaming; }
    /// Answers a call to the object; false when there is no such method.
    bool handle(const Call &call);

    /// \name What the phone does, over a link that is up
    /// @{
    /// Opens the signalling channel and, unless \p quiet, a stream.
    void phoneConnects(bool quiet);
    void phoneStarts();
    void phoneSuspends();
    /// Signals nothing: "disconnected" comes with the end of the signalling channel.
    void phoneClosesStream();
    void phoneClosesSignalling();
    /// @}

    /// A stream may have waited for the bond.
    void pairingFinished();
    void linkLost(Notice notice);
    void noticeHangUp();
    /// The stream is not suspended for want of a client any more.
    void streamTaken();
    /// The device goes: the connection ends without a signal.
    void retire();

private:
    enum class Phase { Idle, Connecting, Signalling, Open, Streaming };
    enum Question { Discover, GetCapabilities, SetConfiguration, OpenStream };

    void connectCalled(const Call &call);
    void disconnectCalled(const Call &call);
    void failConnect();

    void unitConnects();
    void openSignalling();
    void configure(int question);
    /// Has \p answered done when the phone answers, or gives the connection up.
    void ask(Timer &timer, const Timer::Action &answered);
    void authorised(bool quiet);
    void phoneConfigures();
    void phoneOpens();
    void opened(bool byPhone);
    void announceOpen();
    void closeStream(const QString &why);
    void becomeIdle();
    void end(int times, const QString &why = QString());
    void stopActivity();
    void setState(const QString &state);

    Device &m_device;
    QString m_state {"disconnected"};
    Phase m_phase = Phase::Idle;
    bool m_isAuthorised = false; ///< by the agent, for the life of the device
    bool m_waitsForPairing = false;
    bool m_refusesConnect = false; ///< until the end of a disconnected link is noticed
    bool m_hasDeadSession = false; ///< after a Connect that was refused for it
    std::optional<Call> m_connect;
    std::optional<Call> m_closing;
    Timer m_step; ///< setting up, one step after the other
    Timer m_announce; ///< between Connect's reply and State "connected"
    Timer m_question; ///< a request of the unit's about an open stream
    Timer m_idle;
    Timer m_suspend;
    Timer m_unused;
    Timer m_hangUp;
    Timer m_grace; ///< until Connect fails
};

#endif
