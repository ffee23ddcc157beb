#ifndef PROGRAMS_H
#define PROGRAMS_H

#include <QMap>
#include <QObject>
#include <QSet>
#include <QStringList>

class BlueZ;
class Faults;
class Sound;
class Stub;
class Stubs;

/// What each program of the board does, by its name, or does wrong as the faults say.
class Programs : public QObject
{
    Q_OBJECT

public:
    /// With \p realPulse, pulseaudio and pactl become the real ones.
    Programs(Stubs &stubs, Faults &faults, BlueZ &bluez, Sound &sound, bool realPulse,
             QObject *parent = nullptr);

    /// Shows or takes away the programs' files, as the faults say.
    void updatePresence();
    /// The system bus has ended, and what cannot live without it ends too.
    void systemBusLost();
    /// The stream of a phone, as Sound::streamChanged() has it.
    void streamChanged(const QString &phone, const QString &devicePath);

signals:
    /// PulseAudio has taken the phone's stream, or has left it.
    void streamTaken(bool taken);

private:
    void started(Stub *stub);
    void carryOut(Stub *stub);
    void startBluetoothd(Stub *stub);
    void startAgent(Stub *stub);
    void startPulseaudio(Stub *stub);
    void runSdptool(Stub *stub);
    void runPactl(Stub *stub);
    int loadModule(const QStringList &arguments);
    void terminationRequested(Stub *stub);
    void programEnded(Stub *stub, int status);
    void ended(Stub *stub);
    void leaveStream();

    Stubs &m_stubs;
    Faults &m_faults;
    BlueZ &m_bluez;
    Sound &m_sound;
    bool m_realPulse;
    QMap<QString, QString> m_files; ///< program -> what its file links to
    Stub *m_bluetoothd = nullptr; ///< the one that serves, and so on
    Stub *m_agent = nullptr;
    Stub *m_pulse = nullptr;
    QSet<Stub *> m_ignoringTerm;

    // The scripted sound server.
    QMap<QString, QString> m_sources; ///< phone -> source, of the open streams
    bool m_discovery = false;
    QString m_loopback; ///< the source that it takes
    int m_nextModule = 1;
};

#endif
