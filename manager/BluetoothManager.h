// The Bluetooth supervisor: every decision of the service.
#ifndef BLUETOOTHMANAGER_H
#define BLUETOOTHMANAGER_H

#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QVariant>
#include <QtDBus/QDBusContext>
#include <QtDBus/QDBusVariant>

#include "UlmoFeatureBase.h"

class QDBusPendingCall;
class QDBusPendingCallWatcher;
class QDBusServiceWatcher;
class QTimer;
struct AudioSourceState;

/**
 * Runs the Bluetooth stack on demand, keeps the pairing agent alive, accepts one audio source at a
 * time and brings its sound to the board's output. Everything happens on the event loop's thread;
 * starting and stopping children, shell commands and BlueZ calls block it, each for a bounded time.
 * Failures are logged and told by status, never thrown.
 */
class BluetoothManager : public UlmoFeatureBase, public QDBusContext
{
    Q_OBJECT

public:
    /** Reads the settings, kills daemons of an earlier run, and schedules Enable() when enabled. */
    BluetoothManager();
    /** Takes the whole stack down. */
    virtual ~BluetoothManager();

    /** False when the platform was not usable; the object then does nothing. */
    bool isValid() const { return m_valid; }

    // The platform's events. The reason "restore" keeps the settings from being saved.
    virtual void ulmoPowerOnReboot(const QString &reason) override;
    virtual void ulmoPowerOnShutdown(const QString &reason) override;
    virtual void ulmoPowerOnSuspend(const QString &reason) override;
    virtual void ulmoSupOnShutdown() override;

Q_SIGNALS:
    /** The stack came up (true) or was switched off (false); not sent for a crash and restart. */
    void BluetoothOn(bool Enabled);
    /** The sound manager is being asked to play. */
    void ConnectAudioDevice();
    /** The sound manager is being asked to stop. */
    void DisconnectAudioDevice();
    /** A source is connected but has not played for 10 s; repeated every 10 s. The misspelt name is
     *  the published one. */
    void NoPlayConnectedDevive();
    /** The pairing PIN in force. */
    void BluetoothPidChanged(const QString &Pid);

public Q_SLOTS:
    // The exported methods. All return 0 for done or nothing to do and 1 for a refusal, SetVolume
    // and SetMute the raw wait status of a failed command.
    /** Sets the pairing PIN, four digits; forgets all devices and restarts a running stack. */
    int SetPid(const QString &Pid);
    /** Switches Bluetooth on or off and remembers it. 1 while a start is in progress. */
    int SetEnabled(bool Enable);
    int GetStatus(bool &Enable, bool &On, QString &Pid);
    /** Volume in per cent, 0 to 100. */
    int SetVolume(int volume);
    /** 0 or 1. */
    int SetMute(int mute);
    /** Disconnects the accepted device; 1 when there is none. */
    int DisconnectDevice();
    /** Forgets every device; 1 when BlueZ cannot be asked. */
    int RemoveAllDevices();
    /** Forgets the device with an address "AA:BB:CC:DD:EE:FF"; 1 when BlueZ cannot be asked. */
    int RemoveDevice(const QString &Device);

private Q_SLOTS:
    void serviceBluezRegistered(const QString &name);
    void serviceBluezUnregistered(const QString &name);
    void bluezDown(int exitCode, QProcess::ExitStatus exitStatus);
    void bluezRestart();
    void agentDown(int exitCode, QProcess::ExitStatus exitStatus);
    void pulseaudioDown(int exitCode, QProcess::ExitStatus exitStatus);
    void timeoutStartBluez();
    void restartAgent();
    void Enable();
    void startPulseAudio_step1();
    void startPulseAudio_step2();
    void AudioSourcePropertyChanged(const QString &name, const QDBusVariant &value);
    void DevicePropertyChanged(const QString &name, const QDBusVariant &value);
    void reconnect();
    void noPlay();
    void callFinishedStartPlayer(QDBusPendingCallWatcher *);
    void callFinishedStopPlayer(QDBusPendingCallWatcher *);

private:
    Q_DISABLE_COPY(BluetoothManager)

    // Settings and status
    void SaveStatus(bool enable, bool pid);

    // Stack
    void startStartupSequence();
    void startStopSequence();
    void forceSyncDown(bool restart);
    void applyLegacyMode(const char *operation);
    QTimer *startSingleShot(int milliseconds, const char *slot);

    // Pairing agent
    bool startAgent();

    // Source connection policy
    bool isAnotherHeld(const QString &devicePath) const;
    void startNoPlayTimer();
    bool connectAudioSource(const QString &devicePath);
    void disconnectDevice(const QString &devicePath);
    bool disconnectHeldDevice();
    void forgetConnection(const QString &devicePath, const char *operation);
    void dropHeldSource();

    // Device administration
    void trustDevice(const QString &devicePath, bool trusted);
    QVariant IsTrustDevice(const QString &devicePath);
    void removeDevice(const QString &devicePath);

    // Audio path through PulseAudio
    bool startPulseAudio();
    void stopPulseAudio();

    // Sound manager hand-off
    void StartPlayer();
    void StopPlayer();
    void watchCall(QDBusPendingCallWatcher *&watcher, const QDBusPendingCall &call,
                   const char *slot);

    /** Construction finished without a fatal error. */
    bool m_valid = false;
    /** The user's wish, persisted. */
    bool m_enabled = false;
    /** The stack is up. */
    bool m_on = false;
    /** Pairing PIN, four digits, persisted. */
    QString m_pid;
    /** Latency of the loopback in milliseconds. */
    int m_latency = 1000;
    /** Bluetooth name of the product. */
    QString m_hostName = "Ulmo_unknown";
    /** ALSA output device of the audio path. */
    QString m_alsaDevice;
    /** 1 switches Secure Simple Pairing on, 0 leaves pairing by PIN only. */
    int m_legacyMode = 0;
    /** What the store is known to hold; invalid when unknown. */
    QVariant m_savedEnable;
    QVariant m_savedPid;
    /** A start or stop is in progress. */
    bool m_busy = false;
    /** BlueZ's property signals are subscribed to; what is still delivered later is of a daemon
     * that is gone, whose device would never leave again. */
    bool m_followsBluez = false;
    QDBusServiceWatcher *m_bluezWatcher = nullptr;
    /** Start time-out of bluetoothd, or the retry of an agent that would not start. */
    QTimer *m_sequenceTimer = nullptr;
    QProcess *m_bluezProcess = nullptr;
    QProcess *m_agentProcess = nullptr;
    /** Object path of the device whose Connected was accepted. */
    QString m_connectedDevicePath;
    /** Object path of the source being played. */
    QString m_audioSourcePath;
    AudioSourceState *m_audioSourceState = nullptr;
    QProcess *m_pulseProcess = nullptr;
    QTimer *m_pulseStepTimer = nullptr;
    int m_pulseRetries = 0;
    /** Last volume and mute applied, or asked for while no PulseAudio ran. */
    int m_volume = 100;
    int m_mute = 0;
    /** Device that reconnect() drops and re-makes; empty when none is waiting. */
    QString m_reconnectDevicePath;
    QTimer *m_noPlayTimer = nullptr;
    QDBusPendingCallWatcher *m_startPlayerWatcher = nullptr;
    QDBusPendingCallWatcher *m_stopPlayerWatcher = nullptr;
    /** Delay of the reconnect of a device that was not trusted yet, in milliseconds. */
    int m_reconnectTimeout = 5000;
};

#endif
