#ifndef AUDIOSOURCE_H
#define AUDIOSOURCE_H

#include "Bus.h"
#include "Schedule.h"

#include <QString>

#include <optional>

class Device;
struct Context;

/**
 * org.bluez.AudioSource of a device, and org.bluez.Audio beside it, which for a phone never leaves
 * "disconnected". Both appear once the device is known as an A2DP source, and are then there until
 * the device is removed.
 */
class AudioSource
{
public:
    AudioSource(Context *context, Device *device);

    bool exists() const { return m_exists; }
    void appear();

    /// Signals \p state, also when it is the same as before; nothing while there is no interface.
    void setState(const QString &state);

    /// The stream is open: answers Connect; false when none was waiting.
    bool answerConnect();
    /// The configuration was refused: Connect fails at once, before any further state.
    void configurationRefused();
    /// The session has ended: "disconnected" \p times, and 2 s later a waiting Connect fails.
    void sessionEnded(int times);
    /// The interface goes, without a signal.
    void retire();

private:
    void connectCalled(const Call &call);
    void disconnectCalled(const Call &call);
    bool meetsRace();
    void failConnect();

    Context *m_context;
    Device *m_device;
    bool m_exists = false;
    QString m_state = QStringLiteral("disconnected");
    std::optional<Call> m_connect;
    Timer m_grace;
    /// A Connect that met a dying session leaves the source holding it: Disconnect then succeeds.
    bool m_holdsDeadSession = false;
};

#endif
