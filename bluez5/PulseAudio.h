// The bridge's face towards PulseAudio: the little BlueZ 5 that its module wants.
#ifndef PULSEAUDIO_H
#define PULSEAUDIO_H

#include "Bluez5.h"

class QSocketNotifier;

/**
 * PulseAudio plays only streams that its own endpoint was given. It registers that here, on the
 * product's bus, and is given each open stream with its descriptor: no sound passes through the
 * bridge. But BlueZ 5 suspends a stream that nobody takes within five seconds, and a phone may not
 * begin again; so until PulseAudio is there, the bridge takes what plays and throws it away.
 */
class PulseAudio : public QObject
{
    Q_OBJECT

public:
    PulseAudio(Bluez5 *bluez5, QObject *parent);

    /** Answers a call, at once or later; false when there is no such method. */
    bool handle(const QDBusMessage &call);

private Q_SLOTS:
    void forgetEndpoint();

private:
    struct Stream
    {
        QVariantMap told;
        bool isAsked = false;           // of BlueZ 5, for the descriptor
        QList<QDBusMessage> calls;      // of PulseAudio, for the descriptor, unanswered
        QDBusMessage taken;             // with the descriptor, while the bridge has it
        QSocketNotifier *drain = nullptr;
    };

    bool handleStream(const QDBusMessage &call);
    void registerEndpoint(const QDBusMessage &call);
    void callEndpoint(const QString &method, const QVariantList &arguments,
                      const Answered &answered = nullptr);
    void update(const QString &device);
    void give(const QString &device, const QString &path);
    void ask(const QString &path, const QString &method);
    void throwAway(const QString &path);
    void letGo(const QString &path);

    Bluez5 *const m_bluez5;
    QString m_owner; // PulseAudio's name on the bus, or empty
    QString m_endpoint;
    QMap<QString, Stream> m_streams;
};

#endif
