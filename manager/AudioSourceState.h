#ifndef AUDIOSOURCESTATE_H
#define AUDIOSOURCESTATE_H

#include <QtCore/QString>

/** Who set the connection of an audio source up. */
enum AudioSourceOrigin {
    OriginUnknown = 0,
    /** This unit: the source went "connecting" before its device reported Connected. */
    OriginLocal = 1,
    /** The remote device. */
    OriginRemote = 2
};

/** The one audio source that the connection policy tracks, from its first signal to its last. */
struct AudioSourceState
{
    explicit AudioSourceState(const QString &path) : devicePath(path) { }

    /** The device's Connected property was accepted as true. */
    bool connected = false;
    /** Last AudioSource State taken over; for whoever inspects the record, no decision reads it. */
    QString state = "disconnected";
    /** An AudioSourceOrigin. */
    int origin = OriginUnknown;
    int reserved = 0;
    /** BlueZ object path of the tracked device; never changes. */
    const QString devicePath;
};

#endif
