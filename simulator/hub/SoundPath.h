#ifndef SOUNDPATH_H
#define SOUNDPATH_H

#include "BackgroundProcess.h"

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QStringList>

class QFileSystemWatcher;

/**
 * What lies between a phone's audio stream and the sound server.
 *
 * With real PulseAudio: the phone's source, which a module on the board would make. It exists from
 * when the discovery module has been loaded and the phone's stream is open, and is fed with the
 * phone's sound. With the scripted one: what pactl answers.
 */
class SoundPath : public QObject
{
    Q_OBJECT

public:
    /// \p build is the build folder.
    SoundPath(bool realPulse, const QString &build, QObject *parent = nullptr);

    bool isReal() const { return m_real; }
    /// A phone's event (see HubLink::event()).
    void phoneEvent(const QJsonObject &event);
    /// The scripted server answers, or (also the real one) is gone.
    void setServerReady(bool ready);
    /// Status and output of the scripted pactl.
    QJsonObject pactlAnswer(const QStringList &arguments);

Q_SIGNALS:
    /// A local client has taken the phone's stream, or has left it.
    void takenChanged(bool taken);
    /// Something for the journal.
    void happened(const QString &text);

private:
    enum class Source { None, Loading, Loaded };

    QString sourceName() const;
    bool loopbackFits(const QStringList &arguments) const;
    void setTaken(bool taken);
    void discoveryLoaded();
    void updateSource();
    void loadSource();
    void sourceLoaded(int exitCode);
    void removeSource();
    void setFeederPlaying(bool playing);

    bool m_real;
    QString m_build;
    bool m_serverReady = false;
    bool m_discovery = false;
    bool m_streamOpen = false;
    bool m_playing = false;
    bool m_taken = false;
    bool m_loopback = false;
    int m_nextModule = 1;
    QString m_address;
    QString m_audio;

    QFileSystemWatcher *m_marks = nullptr;
    Source m_source = Source::None;
    QString m_sourceModule;
    QString m_fifo;
    BackgroundProcess m_loader;
    QPointer<QProcess> m_feeder; ///< plays the phone's sound into the source
};

#endif
