#ifndef ROAD_H
#define ROAD_H

#include "Observer.h"
#include "SoundTable.h"

/**
 * The road of one phone through the product, from pairing to silence, told step by step: what the
 * phone does, what the service decides, what is heard. Throws std::runtime_error when the road
 * ends early.
 */
class Road
{
public:
    /// \p audioFile is the phone's music; a stereo tone when it is empty.
    Road(Observer *observer, const QString &audioFile);

    /// Waits until the stack is on and shows the service's status.
    void comeOn();
    /// The phone's whole visit. Returns whether what was heard is what was expected.
    bool visit();
    /// Kills the Bluetooth daemon and waits until the stack is on again.
    void crashAndRecover();
    /// Ends the service and checks that it ended well.
    void stop();

private:
    void narrate(const QString &text);
    void hear(const QString &situation, bool silent, double volume = 0);

    Observer *m_observer;
    QString m_audioFile;
    SoundTable m_heard;
};

#endif
