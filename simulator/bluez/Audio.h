#ifndef AUDIO_H
#define AUDIO_H

#include "Bus.h"
#include "Timer.h"

#include <QElapsedTimer>

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

    explicit Audio(Device &device);

    bool isActive() const { return m_phase != Phase::Idle; }
    /// Answers a call to the object; false when there is no such method.
    bool handle(const Call &call);

    // What the phone does, over a link that is up.

    /// Opens the signalling channel and, unless \p quiet, a stream.
    void phoneConnects(bool quiet);
    void phoneStarts();
    void phoneSuspends();
    /// Signals nothing: "disconnected" comes with the end of the signalling channel.
    void closeStream(const QString &why = QString());
    /// The signalling channel is closed.
    void hangUp() { end(1); }

    /// A stream may have waited for the bond.
    void pairingFinished();
    /// The daemon notices a little later. After Device.Disconnect, \p byUnit, a Connect that comes
    /// before that fails.
    void linkLost(bool byUnit);
    void noticeHangUp();
    /// The device goes: the connection ends without a signal.
    void retire();

private:
    enum class Phase {
        Idle,
        Connecting,
        Configuring,
        Waiting, ///< signalling without users
        Open,
        Playing,
        Dying ///< its link has gone
    };

    bool isOpen() const { return m_phase == Phase::Open || m_phase == Phase::Playing; }
    void connectCalled(const Call &call);
    void disconnectCalled(const Call &call);
    void failConnect();
    void openSignalling();
    /// The unit asks the next of its \p questions and those that follow.
    void configure(int questions);
    /// Has \p answered done when the phone answers, or gives the connection up.
    void ask(const Timer::Action &answered);
    void authorised(bool quiet);
    void phoneConfigures();
    void opened(bool byPhone);
    void wait(const Timer::Action &then);
    void end(int times, const QString &why = QString());
    void setState(const QString &state);

    Device &m_device;
    QString m_state {"disconnected"};
    Phase m_phase = Phase::Idle;
    bool m_isAuthorised = false; ///< by the agent, for the life of the device
    QElapsedTimer m_disconnected; ///< since the unit has ended the link, while dying of that
    bool m_hasDeadSession = false; ///< after a Connect that was refused
    std::optional<Call> m_connect;
    Timer m_next; ///< what happens next by itself
    Timer m_grace; ///< until Connect fails
};

#endif
