#ifndef PROGRAMS_H
#define PROGRAMS_H

#include <QMap>
#include <QObject>
#include <QStringList>

class BlueZ;
class Faults;
class Journal;
class Sound;

/// The programs of the board that the service starts. Each does what it has to do by its name, or
/// does wrong as the faults say.
class Programs : public QObject
{
    Q_OBJECT

public:
    /// With \p realPulse, pulseaudio and pactl become the real ones.
    Programs(Journal &journal, Faults &faults, BlueZ &bluez, Sound &sound, bool realPulse);
    ~Programs() override;

    /// Waits for programs from now on. Returns why it cannot, or an empty text.
    QString listen();
    /// Takes notice of everything that has happened to them.
    void catchUp();
    /// Shows or takes away their files, as the faults say.
    void updatePresence();
    /// Sends \p signal to the \p program that was started last. Returns why not, or an empty text.
    QString kill(const QString &program, int signal);
    /// The system bus has ended, and what cannot live without it ends too.
    void systemBusLost();

signals:
    /// A program has just started, or is told to end: what the service has said before that goes
    /// to the journal first.
    void aboutToSpeak();
    /// The scripted PulseAudio has taken the phone's stream, or has left it.
    void streamTaken(bool taken);

private:
    struct Stub;

    void accept();
    void read(Stub *stub);
    void recordStart(const Stub &stub);
    void recordEnd(const Stub &stub);
    void started(Stub *stub);
    void carryOut(Stub *stub);
    void startOnBus(Stub *stub);
    void startPulseaudio(Stub *stub);
    void runSdptool(Stub *stub);
    void runPactl(Stub *stub);
    bool loadModule(const QStringList &arguments);
    void setLoopback(const QString &source);
    void terminationRequested(Stub *stub);
    void ended(Stub *stub);

    Journal &m_journal;
    Faults &m_faults;
    BlueZ &m_bluez;
    Sound &m_sound;
    bool m_realPulse;
    int m_socket = -1;
    QMap<QString, QString> m_files; ///< program -> what its file links to
    QList<Stub *> m_stubs; ///< in the order of their start
    Stub *m_bluetoothd = nullptr; ///< the one that serves, and so on
    Stub *m_agent = nullptr;
    Stub *m_pulse = nullptr;

    // The scripted sound server.
    QMap<QString, QString> m_sources; ///< phone -> source, of the open streams
    bool m_discovery = false;
    QString m_loopback; ///< the source that it takes
    int m_nextModule = 1;
};

#endif
