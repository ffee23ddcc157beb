#ifndef SOUND_H
#define SOUND_H

#include <QElapsedTimer>
#include <QObject>
#include <QProcess>

#include <memory>

class Journal;

/**
 * The sound of a phone in real PulseAudio: the source that BlueZ 4's module would make there, fed
 * with what the phone plays. It exists while the discovery module is loaded and a stream is open.
 */
class Sound : public QObject
{
    Q_OBJECT

public:
    explicit Sound(Journal &journal, QObject *parent = nullptr);
    ~Sound() override;

    /**
     * The stream of \p phone is open, and the phone plays or is silent; or it is closed, when
     * \p devicePath is empty. \p audioFile is what the phone plays, a test tone when empty. Of two
     * phones the one that came first counts.
     */
    void streamChanged(const QString &phone, const QString &devicePath, const QString &audioFile,
                       bool playing);
    /// PulseAudio has loaded its discovery module.
    void discovered();
    /// PulseAudio has ended, and the source with it.
    void pulseStopped();

signals:
    /// PulseAudio has taken the stream as a source, or has left it.
    void taken(bool taken);

private:
    void update();
    void loadSource();
    void sourceLoaded(int exitStatus);
    void removeSource();
    void feed();
    void stopFeeding();

    Journal &m_journal;
    QString m_phone;
    QString m_source; ///< its name in PulseAudio; empty without an open stream
    QString m_audioFile;
    bool m_playing = false;
    bool m_discovered = false;
    QProcess m_loader;
    QString m_module; ///< the source's number in PulseAudio; empty while there is none

    std::unique_ptr<QProcess> m_music;
    std::unique_ptr<QProcess> m_pace;
    qint64 m_playedMs = 0; ///< before the last pause
    QElapsedTimer m_sinceThen;
};

#endif
