#include "BluetoothManager.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusPendingCallWatcher>
#include <QtDBus/QDBusPendingReply>
#include <QtDBus/QDBusServiceWatcher>

#include "AudioSourceState.h"
#include "ChildProcess.h"
#include "Configuration.h"
#include "DevicePath.h"
#include "Discard.h"
#include "LogLine.h"
#include "ShellCommand.h"
#include "SoundManagerProxy.h"
#include "bluezAdapterProxy.h"
#include "bluezAudioSourceProxy.h"
#include "bluezDeviceProxy.h"
#include "bluezManagerProxy.h"

namespace {

const char BluezService[] = "org.bluez";
const char DeviceInterface[] = "org.bluez.Device";
const char AudioSourceInterface[] = "org.bluez.AudioSource";
const char PropertyChanged[] = "PropertyChanged";
/** Asked for by its types: QtDBus aborts the process over a signal whose text is no text. */
const char PropertyTypes[] = "sv";
const char *const DeviceSlot = SLOT(DevicePropertyChanged(QString, QDBusVariant));
const char *const AudioSourceSlot = SLOT(AudioSourcePropertyChanged(QString, QDBusVariant));
const char DefaultPid[] = "7351";
const char BluetoothSection[] = "BLUETOOTH";
const char GeneralSection[] = "GENERAL";

// All in milliseconds.
const int EnableDelay = 100;
const int BluezRegistrationTimeout = 15000;
const int BluezRestartDelay = 1000;
const int AgentRetryDelay = 10000;
const int NoPlayInterval = 10000;
const int PulseStepDelay = 100;

/** Polls of one phase of the PulseAudio bring-up; the last failed one gives up. */
const int PulsePolls = 40;

const char *word(bool value)
{
    return value ? "true" : "false";
}

QByteArray pidForLog(const QString &pid)
{
    return pid.isEmpty() ? QByteArray("<none>") : pid.toLocal8Bit();
}

const char *exitWord(QProcess::ExitStatus exitStatus)
{
    return exitStatus == QProcess::CrashExit ? "crash" : "normal";
}

LogLevel levelOf(int commandStatus)
{
    return commandStatus ? LogWarning : LogInformation;
}

QString environmentValue(const char *name)
{
    return QString::fromLocal8Bit(qgetenv(name)).toLower();
}

/** Kills the daemon that an earlier run left behind. */
void killStale(const QByteArray &program)
{
    runShellCommand("ps | grep " + program
                    + " | grep -v grep | xargs | cut -f1 -d' ' | xargs kill -s 9");
}

/** The name with blanks as underscores, and nothing else but ASCII letters, digits, underscores. */
QString bluetoothName(const QString &name)
{
    QString result;
    for (int i = 0; i < name.length(); ++i) {
        const char character = name.at(i) == QLatin1Char(' ') ? '_' : name.at(i).toLatin1();
        if ((character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z')
            || (character >= '0' && character <= '9') || character == '_')
            result += QLatin1Char(character);
    }
    return result;
}

/** Waits for the answer of BlueZ, for as long as the bus library does. */
bool isFailed(QDBusPendingCall call)
{
    call.waitForFinished();
    return call.isError();
}

bool isValidPid(const QString &pid)
{
    if (pid.length() != 4)
        return false;
    for (int i = 0; i < pid.length(); ++i) {
        if (!pid.at(i).isDigit())
            return false;
    }
    return true;
}

} // namespace

// Settings and status

BluetoothManager::BluetoothManager() : UlmoFeatureBase(Names::Object)
{
    bool startEnabled = false;
    if (!readSettings(&startEnabled)) {
        LOG_LINE(LogError, "Fatal error while crating the BluetoothManager");
        return;
    }

    killStale("/usr/bin/pulseaudio");
    killStale("/usr/bin/agent");
    killStale("/usr/sbin/bluetoothd");
    m_bluezWatcher = new QDBusServiceWatcher(BluezService, QDBusConnection::systemBus(),
                                             QDBusServiceWatcher::WatchForRegistration);
    m_valid = true;
    Q_EMIT BluetoothOn(false);
    if (startEnabled)
        QTimer::singleShot(EnableDelay, this, SLOT(Enable()));
}

BluetoothManager::~BluetoothManager()
{
    takeDown();
    delete m_bluezWatcher;
    m_bluezWatcher = 0;
    LOG_LINE(LogInformation, "BluetoothManager cleaned-up");
}

bool BluetoothManager::readSettings(bool *startEnabled)
{
    if (!isInitialized()) {
        LOG_LINE(LogError, "Impossible to initialize Base feature");
        return false;
    }
    Configuration configuration(Names::Object);
    if (!configuration.isValid()) {
        LOG_LINE(LogError, "Impossible to initialize Configuration proxy");
        return false;
    }

    m_reconnectTimeout =
        configuration.ReadConfigValue(BluetoothSection, "bt-timeout-reconnect-1", 5000, 0, true);
    if (m_reconnectTimeout < 100) {
        LOG_LINE(LogWarning, "too low reconnect timeout");
        m_reconnectTimeout = 100;
    } else if (m_reconnectTimeout > 10000) {
        LOG_LINE(LogWarning, "too big reconnect timeout");
        m_reconnectTimeout = 10000;
    }
    LOG_LINE(LogInformation, "reconnection timeout %d", m_reconnectTimeout);

    const QString forcedEnable = environmentValue("ULMO_BT_ENABLE");
    if (forcedEnable == "true" || forcedEnable == "1") {
        LOG_LINE(LogInformation, "force enable for ULMO_BT_ENABLE");
        *startEnabled = true;
    } else {
        *startEnabled =
            configuration.ReadConfigValue(BluetoothSection, "bt-enable", 1, 0, true) != 0;
        m_savedEnable = QVariant(*startEnabled);
    }

    const QString forcedPid = environmentValue("ULMO_BT_PID");
    if (!forcedPid.isEmpty()) {
        LOG_LINE(LogInformation, "force PID for ULMO_BT_PID");
        m_pid = forcedPid;
    } else {
        m_pid = configuration.ReadConfigValue(BluetoothSection, "bt-pid", DefaultPid, 0, true);
        m_savedPid = QVariant(m_pid);
    }
    if (!isValidPid(m_pid)) {
        m_pid = DefaultPid;
        // The store holds something else, so the next save has to write the repaired one.
        m_savedPid.clear();
    }

    m_legacyMode = readLegacyMode(configuration);
    LOG_LINE(LogInformation, "legacy mode %d", m_legacyMode);
    Q_EMIT BluetoothPidChanged(m_pid);

    bool isNumber = false;
    const int forcedLatency = environmentValue("ULMO_BT_LATENCY").toInt(&isNumber, 10);
    if (isNumber) {
        LOG_LINE(LogInformation, "force ULMO_BT_LATENCY=%d", forcedLatency);
        m_latency = forcedLatency;
    } else {
        m_latency = configuration.ReadConfigValue(BluetoothSection, "bt-latency", 1000, 0, true);
    }

    m_alsaDevice = "dm-audio";

    m_hostName = configuration.ReadConfigValue(GeneralSection, "Nickname", QString(), 0, true);
    if (m_hostName.isEmpty()) {
        m_hostName = "Ulmo_"
            + configuration.ReadConfigValue(GeneralSection, "SerialNumber", "unknown", 0, true);
    }
    m_hostName = bluetoothName(m_hostName);

    LOG_LINE(LogInformation, "BLUETOOTH CONFIGURATION:");
    LOG_LINE(LogInformation, "> Enable:         %s", word(*startEnabled));
    LOG_LINE(LogInformation, "> Pid:            %s", pidForLog(m_pid).constData());
    LOG_LINE(LogInformation, "> Latency:        %d", m_latency);
    return true;
}

int BluetoothManager::readLegacyMode(Configuration &configuration) const
{
    if (m_pid != DefaultPid)
        return 0;
    const int disableLegacy =
        configuration.ReadConfigValue(BluetoothSection, "bt-disable-legacy", 0, 0, true);
    return disableLegacy > 0 ? 1 : 0;
}

void BluetoothManager::SaveStatus(bool enable, bool pid)
{
    LOG_LINE(LogInformation, "Saving bluetooth configuration");
    Configuration configuration(Names::Object);
    if (!configuration.isValid()) {
        LOG_LINE(LogError, "Impossible to initialize Configuration proxy");
        return;
    }

    if (enable) {
        if (m_savedEnable.isValid() && m_savedEnable.toBool() == m_enabled) {
            LOG_LINE(LogInformation, "Enable (%s) not saved because already saved",
                     word(m_enabled));
        } else if (!configuration.WriteConfigValue(BluetoothSection, "bt-enable",
                                                   QString::number(m_enabled ? 1 : 0), false)) {
            LOG_LINE(LogWarning, "Error saving Enable");
        } else {
            LOG_LINE(LogInformation, "Enable SAVED (%s)", word(m_enabled));
            m_savedEnable = QVariant(m_enabled);
        }
    }

    if (pid) {
        const QByteArray pidText = pidForLog(m_pid);
        if (m_savedPid.isValid() && m_savedPid.toString() == m_pid) {
            LOG_LINE(LogInformation, "PID (%s) not saved because already saved",
                     pidText.constData());
        } else if (!configuration.WriteConfigValue(BluetoothSection, "bt-pid", m_pid, false)) {
            LOG_LINE(LogWarning, "Error saving Pid");
        } else {
            LOG_LINE(LogInformation, "PID SAVED (%s)", pidText.constData());
            m_savedPid = QVariant(m_pid);
        }
    }
}

int BluetoothManager::GetStatus(bool &Enable, bool &On, QString &Pid)
{
    LOG_LINE(LogInformation, "[DBUS|Internal] GetStatus() requested");
    Enable = m_enabled;
    Pid = m_pid;
    On = m_on;
    return 0;
}

// Stack

void BluetoothManager::Enable()
{
    LOG_LINE(LogInformation, "Enable");
    SetEnabled(true);
}

int BluetoothManager::SetEnabled(bool Enable)
{
    LOG_LINE(LogInformation, "[DBUS|Internal] SetEnabled(%s) requested", word(Enable));
    if (m_busy) {
        LOG_LINE(LogWarning,
                 "[DBUS|Internal] SetEnabled(%s) requested but there is already one in progress "
                 "action",
                 word(Enable));
        return 1;
    }

    m_enabled = Enable;
    SaveStatus(true, false);
    if (m_on == Enable) {
        LOG_LINE(LogInformation, "[DBUS|Internal] SetEnabled(%s) requested but nothing to do",
                 word(m_on));
        return 0;
    }

    if (Enable)
        startStartupSequence();
    else
        startStopSequence();
    return 0;
}

void BluetoothManager::startStartupSequence()
{
    LOG_LINE(LogInformation, "startStartupSequence requested");
    if (m_bluezProcess) {
        LOG_LINE(LogWarning, "startStartupSequence bluez already running");
        return;
    }

    m_busy = true;
    m_connectedDevicePath.clear();
    m_audioSourcePath.clear();
    if (m_pulseProcess) {
        LOG_LINE(LogWarning, "stop pulseaudio that is already working");
        terminateChild(m_pulseProcess);
        discardChild(m_pulseProcess);
    }

    runShellCommand("modprobe btwilink");
    runShellCommand("connmanctl enable bluetooth");
    runShellCommand("hciconfig hci0 up");

    if (!connect(m_bluezWatcher, SIGNAL(serviceRegistered(QString)), this,
                 SLOT(serviceBluezRegistered(QString))))
        LOG_LINE(LogWarning, "error registering on event registered");

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BLUEZHOSTNAME", m_hostName);
    m_bluezProcess = startChild("/usr/sbin/bluetoothd", QStringList() << "-n", environment);
    if (!m_bluezProcess) {
        LOG_LINE(LogError, "error starting bluez");
        takeDown();
        return;
    }
    LOG_LINE(LogInformation, "bluez started and wait registration");

    if (m_sequenceTimer) {
        discardTimer(m_sequenceTimer);
        LOG_LINE(LogInformation, "startStartupSequence programming error timer already active");
    }
    m_sequenceTimer = startSingleShot(BluezRegistrationTimeout, SLOT(timeoutStartBluez()));

    connect(m_bluezProcess, SIGNAL(finished(int, QProcess::ExitStatus)), this,
            SLOT(bluezDown(int, QProcess::ExitStatus)));
}

void BluetoothManager::serviceBluezRegistered(const QString &name)
{
    LOG_LINE(LogInformation, "bluez service registered %s", qPrintable(name));
    disconnect(m_bluezWatcher, SIGNAL(serviceRegistered(QString)), this,
               SLOT(serviceBluezRegistered(QString)));

    QDBusConnection systemBus = QDBusConnection::systemBus();
    if (!systemBus.connect(BluezService, "", DeviceInterface, PropertyChanged, PropertyTypes, this,
                           DeviceSlot)) {
        LOG_LINE(LogWarning, "error connecting to PropertyChanged of bluez Device");
        takeDown();
        return;
    }
    if (!systemBus.connect(BluezService, "", AudioSourceInterface, PropertyChanged, PropertyTypes,
                           this, AudioSourceSlot)) {
        LOG_LINE(LogWarning, "error connecting to PropertyChanged of bluez AudioSource");
        takeDown();
        return;
    }
    if (!connect(m_bluezWatcher, SIGNAL(serviceUnregistered(QString)), this,
                 SLOT(serviceBluezUnregistered(QString))))
        LOG_LINE(LogWarning, "error registering on event unregistered");

    discardTimer(m_sequenceTimer);

    // The unit is a sink: phones must not find its headset gateway.
    const int deleted = runShellCommand("sdptool del $(sdptool browse local | grep -A 1 \"Headset "
                                        "Audio Gateway\" | tail -n 1 | cut -f2 -d':' | tr -d ' ')");
    LOG_LINE(LogInformation, "del headset profile %d", deleted);
    applyLegacyMode();
    const int linkMode = runShellCommand("hciconfig hci0 lm master,accept");
    LOG_LINE(levelOf(linkMode), "set lm master,accept %d", linkMode);

    if (startAgent()) {
        LOG_LINE(LogInformation, "agent started and wait registration");
        m_on = true;
        m_busy = false;
        Q_EMIT BluetoothOn(true);
    } else {
        LOG_LINE(LogWarning, "error starting agent");
        takeDown();
    }
}

void BluetoothManager::serviceBluezUnregistered(const QString &name)
{
    LOG_LINE(LogInformation, "bluez service unregistered %s", qPrintable(name));
}

void BluetoothManager::timeoutStartBluez()
{
    LOG_LINE(LogError, "bluez service timeout !!!!!!!!!!!!!! ");
    discardTimer(m_sequenceTimer);
    takeDown();
}

void BluetoothManager::bluezDown(int exitCode, QProcess::ExitStatus exitStatus)
{
    LOG_LINE(LogWarning, "bluezDown down %d %s", exitCode, exitWord(exitStatus));
    forceSyncDown(true);
}

void BluetoothManager::bluezRestart()
{
    // Whatever m_enabled says: a crash of the daemon is not the user's wish.
    startStartupSequence();
}

void BluetoothManager::startStopSequence()
{
    LOG_LINE(LogInformation, "startStopSequence requested");
    m_busy = true;
    takeDown();
    Q_EMIT BluetoothOn(m_on);
}

void BluetoothManager::takeDown()
{
    forceSyncDown(false);
    m_busy = false;
}

void BluetoothManager::forceSyncDown(bool restart)
{
    LOG_LINE(LogInformation, "forceSyncDown");

    QDBusConnection systemBus = QDBusConnection::systemBus();
    systemBus.disconnect(BluezService, "", DeviceInterface, PropertyChanged, PropertyTypes, this,
                         DeviceSlot);
    systemBus.disconnect(BluezService, "", AudioSourceInterface, PropertyChanged, PropertyTypes,
                         this, AudioSourceSlot);
    discardAudioSourceState();
    discardTimer(m_noPlayTimer);
    discardLater(m_startPlayerWatcher);
    discardLater(m_stopPlayerWatcher);

    runShellCommand("hciconfig hci0 noscan");
    // Null in an object whose construction was given up.
    if (m_bluezWatcher)
        disconnect(m_bluezWatcher, 0, this, 0);

    stopChild(m_agentProcess, "agent");
    stopChild(m_bluezProcess, "bluez");
    runShellCommand("hciconfig hci0 down");

    m_connectedDevicePath.clear();
    m_audioSourcePath.clear();
    stopPulseAudio();
    m_on = false;
    if (restart) {
        LOG_LINE(LogInformation, "restart");
        QTimer::singleShot(BluezRestartDelay, this, SLOT(bluezRestart()));
    }
}

void BluetoothManager::stopChild(QProcess *&process, const char *name)
{
    if (!process)
        return;
    disconnect(process, 0, this, 0);
    if (process->state() == QProcess::Running) {
        LOG_LINE(LogInformation, "forceSyncDown terminate %s", name);
        if (!terminateChild(process))
            LOG_LINE(LogInformation, "forceSyncDown kill %s", name);
    }
    discardChild(process);
}

QTimer *BluetoothManager::startSingleShot(int milliseconds, const char *slot)
{
    QTimer *const timer = new QTimer(this);
    timer->setSingleShot(true);
    connect(timer, SIGNAL(timeout()), this, slot);
    timer->start(milliseconds);
    return timer;
}

void BluetoothManager::applyLegacyMode()
{
    const QByteArray command = "hciconfig hci0 sspmode " + QByteArray::number(m_legacyMode);
    const int status = runShellCommand(command);
    LOG_LINE(levelOf(status), "set legacy mode (%s) %d", command.constData(), status);
}

// Pairing agent

bool BluetoothManager::startAgent()
{
    if (m_agentProcess) {
        runShellCommand("hciconfig hci0 noscan");
        disconnect(m_agentProcess, 0, this, 0);
        terminateChild(m_agentProcess);
        discardChild(m_agentProcess);
    }

    // "--capabilites" is how the agent spells its option.
    const QStringList arguments = QStringList() << "--path"
                                                << "/org/bluez/agent"
                                                << "--delay"
                                                << "1"
                                                << "--capabilites"
                                                << "NoInputNoOutput" << m_pid;
    LOG_LINE(LogInformation, "start agent agent with parameters %s",
             qPrintable(arguments.join(" ")));
    m_agentProcess = startChild("/usr/bin/agent", arguments);
    if (!m_agentProcess) {
        LOG_LINE(LogWarning, "error starting agent");
        return false;
    }
    connect(m_agentProcess, SIGNAL(finished(int, QProcess::ExitStatus)), this,
            SLOT(agentDown(int, QProcess::ExitStatus)));

    // Only now may phones find the unit: there is somebody to answer them.
    if (runShellCommand("hciconfig hci0 piscan") != 0)
        LOG_LINE(LogWarning, "error executing  hciconfig hci0 piscan");
    applyLegacyMode();
    return true;
}

void BluetoothManager::agentDown(int exitCode, QProcess::ExitStatus exitStatus)
{
    LOG_LINE(LogInformation, "agent down %d %s", exitCode, exitWord(exitStatus));
    restartAgent();
}

void BluetoothManager::restartAgent()
{
    discardTimer(m_sequenceTimer);
    if (startAgent()) {
        LOG_LINE(LogWarning, "restart agent ok");
        return;
    }
    LOG_LINE(LogWarning, "not possible to restart agent");
    m_sequenceTimer = startSingleShot(AgentRetryDelay, SLOT(restartAgent()));
}

// Source connection policy

bool BluetoothManager::cameFromSignal(const char *slot, const QString &name,
                                      const QString &value) const
{
    // message() may be asked for only inside a call from the bus.
    if (!calledFromDBus()) {
        LOG_LINE(LogWarning, "%s %s not came from dbus", slot, qPrintable(name));
        return false;
    }
    if (message().type() != QDBusMessage::SignalMessage) {
        LOG_LINE(LogWarning, "%s %s not came from signal", slot, qPrintable(name));
        return false;
    }
    LOG_LINE(LogInformation, "%s (%s)%s %s=%s", slot, qPrintable(message().interface()),
             qPrintable(message().path()), qPrintable(name), qPrintable(value));
    return true;
}

bool BluetoothManager::cameFromPresentBluez() const
{
    // A daemon's last signals may still be queued when its successor runs (Qt 5 matches a signal
    // as it arrives, not as it is delivered). A device of a daemon that is gone never leaves again:
    // taken for the tracked one, it would keep every phone out.
    return message().service()
        == QDBusConnection::systemBus().interface()->serviceOwner(BluezService).value();
}

void BluetoothManager::DevicePropertyChanged(const QString &name, const QDBusVariant &value)
{
    const QString text = value.variant().toString();
    if (!cameFromSignal("DevicePropertyChanged", name, text) || name != "Connected"
        || !cameFromPresentBluez())
        return;
    const QString devicePath = message().path();

    if (text != "true") {
        forgetConnection(devicePath);
        return;
    }

    if (!m_audioSourceState)
        m_audioSourceState = new AudioSourceState(devicePath);
    if (m_audioSourceState->devicePath != devicePath || isAnotherHeld(devicePath)) {
        LOG_LINE(LogInformation, "DevicePropertyChanged but not for me, disconnect !!");
        disconnectDevice(devicePath);
        return;
    }
    m_audioSourceState->connected = true;
    if (m_audioSourceState->origin != OriginLocal)
        m_audioSourceState->origin = OriginRemote;
    m_connectedDevicePath = devicePath;
    LOG_LINE(LogInformation, "Device %s CONNECTED AND ACCEPTED", qPrintable(devicePath));
}

void BluetoothManager::AudioSourcePropertyChanged(const QString &name, const QDBusVariant &value)
{
    const QString state = value.variant().toString();
    if (!cameFromSignal("AudioSourcePropertyChanged", name, state) || name != "State"
        || !cameFromPresentBluez())
        return;
    const QString devicePath = message().path();

    if (!m_audioSourceState)
        m_audioSourceState = new AudioSourceState(devicePath);
    if (m_audioSourceState->devicePath != devicePath) {
        if (state != "disconnected") {
            LOG_LINE(LogInformation, "disconnect device because there is another");
            disconnectDevice(devicePath);
        }
        return;
    }
    discardTimer(m_noPlayTimer);

    if (!m_audioSourceState->connected && state == "connecting") {
        LOG_LINE(LogInformation, "connection coming from ulmo");
        trustDevice(devicePath, true);
        m_audioSourceState->origin = OriginLocal;
        m_audioSourceState->state = state;
        return;
    }
    if (!m_audioSourceState->connected)
        return;
    if (m_audioSourceState->origin != OriginLocal)
        remakeConnection(devicePath);
    else if ((state == "connected" || state == "playing") && !isAnotherHeld(devicePath))
        playSource(devicePath, state);
}

bool BluetoothManager::isAnotherHeld(const QString &devicePath) const
{
    return (!m_connectedDevicePath.isEmpty() && m_connectedDevicePath != devicePath)
        || (!m_audioSourcePath.isEmpty() && m_audioSourcePath != devicePath);
}

void BluetoothManager::playSource(const QString &devicePath, const QString &state)
{
    m_audioSourcePath = devicePath;
    if (!m_pulseProcess)
        startPulseAudio();
    if (state != "connected")
        return;
    if (!m_noPlayTimer) {
        m_noPlayTimer = new QTimer(this);
        m_noPlayTimer->setInterval(NoPlayInterval);
        connect(m_noPlayTimer, SIGNAL(timeout()), this, SLOT(noPlay()));
    }
    m_noPlayTimer->start();
    LOG_LINE(LogInformation, "start/restart timer for no play");
}

void BluetoothManager::noPlay()
{
    LOG_LINE(LogInformation, "CONNECTED BUT NOT PLAYING");
    Q_EMIT NoPlayConnectedDevive();
}

void BluetoothManager::remakeConnection(const QString &devicePath)
{
    if (!m_reconnectDevicePath.isEmpty()) {
        LOG_LINE(LogInformation, "waiting to reconnect");
        return;
    }
    if (IsTrustDevice(devicePath).toBool()) {
        m_reconnectDevicePath = devicePath;
        reconnect();
        return;
    }
    LOG_LINE(LogInformation, "load timer for reconnect");
    trustDevice(devicePath, true);
    m_reconnectDevicePath = devicePath;
    QTimer::singleShot(m_reconnectTimeout, this, SLOT(reconnect()));
}

void BluetoothManager::reconnect()
{
    if (m_reconnectDevicePath.isEmpty())
        return;
    LOG_LINE(LogInformation, "reconnect");
    disconnectDevice(m_reconnectDevicePath);
    connectAudioSource(m_reconnectDevicePath);
    m_reconnectDevicePath.clear();
}

bool BluetoothManager::connectAudioSource(const QString &devicePath)
{
    LOG_LINE(LogInformation, "connectAudioSource %s", qPrintable(devicePath));
    bluezAudioSourceProxy audioSource(BluezService, devicePath, QDBusConnection::systemBus());
    if (!audioSource.isValid()) {
        LOG_LINE(LogWarning, "connectAudioSource %s connected but error on it",
                 qPrintable(devicePath));
        return false;
    }
    if (isFailed(audioSource.Connect())) {
        LOG_LINE(LogWarning, "connectAudioSource %s error Connect", qPrintable(devicePath));
        trustDevice(devicePath, false);
        removeDevice(devicePath);
    }
    return true;
}

void BluetoothManager::disconnectDevice(const QString &devicePath)
{
    // A copy: most callers give the very field that is emptied below.
    const QString path = devicePath;
    LOG_LINE(LogInformation, "Disconnect %s", qPrintable(path));
    bluezDeviceProxy device(BluezService, path, QDBusConnection::systemBus());
    if (!device.isValid()) {
        LOG_LINE(LogWarning, "disconnectDevice %s connected but error on it", qPrintable(path));
        return;
    }
    if (isFailed(device.Disconnect()))
        LOG_LINE(LogWarning, "disconnectDevice %s error disconnectiong ", qPrintable(path));
    forgetConnection(path);
    discardTimer(m_noPlayTimer);
}

bool BluetoothManager::disconnectHeldDevice()
{
    if (!m_connectedDevicePath.isEmpty())
        disconnectDevice(m_connectedDevicePath);
    else if (!m_audioSourcePath.isEmpty())
        disconnectDevice(m_audioSourcePath);
    else
        return false;
    return true;
}

void BluetoothManager::forgetConnection(const QString &devicePath)
{
    if (m_audioSourceState && m_audioSourceState->devicePath == devicePath) {
        LOG_LINE(LogInformation, "Device %s DISCONNECT", qPrintable(devicePath));
        discardAudioSourceState();
    }
    const bool wasConnected = m_connectedDevicePath == devicePath;
    const bool wasPlayed = m_audioSourcePath == devicePath;
    if (wasConnected)
        m_connectedDevicePath.clear();
    if (wasPlayed)
        m_audioSourcePath.clear();
    if (wasConnected || wasPlayed) {
        LOG_LINE(LogInformation, "Device %s DISCONNECTED SO STOP PULSEAUDIO",
                 qPrintable(devicePath));
        stopPulseAudio();
    }
}

void BluetoothManager::discardAudioSourceState()
{
    delete m_audioSourceState;
    m_audioSourceState = 0;
}

// Device administration

void BluetoothManager::trustDevice(const QString &devicePath, bool trusted)
{
    LOG_LINE(LogInformation, "trust %s %s", qPrintable(devicePath), word(trusted));
    bluezDeviceProxy device(BluezService, devicePath, QDBusConnection::systemBus());
    if (!device.isValid() || isFailed(device.SetProperty("Trusted", QDBusVariant(trusted))))
        LOG_LINE(LogWarning, "error trusting %s", qPrintable(devicePath));
}

QVariant BluetoothManager::IsTrustDevice(const QString &devicePath)
{
    LOG_LINE(LogInformation, "IsTrustDevice %s", qPrintable(devicePath));
    bluezDeviceProxy device(BluezService, devicePath, QDBusConnection::systemBus());
    QDBusPendingReply<Qt_Type_dict_sv> properties;
    if (!device.isValid() || isFailed(properties = device.GetProperties())) {
        LOG_LINE(LogWarning, "error reading trust for %s", qPrintable(devicePath));
        return QVariant();
    }
    QVariant trusted = properties.value().value("Trusted");
    LOG_LINE(LogWarning, "trust for %s is %s", qPrintable(devicePath),
             qPrintable(trusted.toString()));
    return trusted;
}

void BluetoothManager::removeDevice(const QString &devicePath)
{
    LOG_LINE(LogInformation, "removeDevice %s", qPrintable(devicePath));
    bluezAdapterProxy adapter(BluezService, DevicePath::adapterOf(devicePath),
                              QDBusConnection::systemBus());
    if (!adapter.isValid())
        return;
    // Not waited for: BlueZ answers only after the 2 s of a disconnection. An error that is here
    // at once is one that the bus library found itself, such as a malformed path.
    const QDBusPendingReply<> reply = adapter.RemoveDevice(QDBusObjectPath(devicePath));
    if (reply.isError())
        LOG_LINE(LogWarning, "removeDevice %s error Remove Device", qPrintable(devicePath));
    else
        LOG_LINE(LogInformation, "removeDevice %s Remove Device, pair again",
                 qPrintable(devicePath));
}

bool BluetoothManager::defaultAdapter(QString *adapterPath)
{
    bluezManagerProxy manager(BluezService, "/", QDBusConnection::systemBus());
    QDBusPendingReply<QDBusObjectPath> adapter;
    if (!manager.isValid() || isFailed(adapter = manager.DefaultAdapter())) {
        LOG_LINE(LogWarning, "error get DefaultAdapter");
        return false;
    }
    *adapterPath = adapter.value().path();
    return true;
}

int BluetoothManager::RemoveDevice(const QString &Device)
{
    LOG_LINE(LogInformation, "RemoveDevice");
    QString adapterPath;
    if (!defaultAdapter(&adapterPath))
        return 1;
    const QString devicePath = DevicePath::ofAddress(adapterPath, Device);
    LOG_LINE(LogWarning, "remove device %s", qPrintable(devicePath));
    removeDevice(devicePath);
    return 0;
}

int BluetoothManager::RemoveAllDevices()
{
    LOG_LINE(LogInformation, "RemoveAllDevices");
    QString adapterPath;
    if (!defaultAdapter(&adapterPath))
        return 1;
    bluezAdapterProxy adapter(BluezService, adapterPath, QDBusConnection::systemBus());
    if (!adapter.isValid())
        return 0;

        // BlueZ would have clients read the property "Devices" instead; the method answers the
        // same.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const QDBusPendingReply<QList<QDBusObjectPath>> reply = adapter.ListDevices();
#pragma GCC diagnostic pop
    if (reply.isError()) {
        LOG_LINE(LogWarning, "error listing device on %s", qPrintable(adapterPath));
        return 0;
    }
    LOG_LINE(LogInformation, "error listing device on %s", qPrintable(adapterPath));
    // Reading the value waits for it.
    const QList<QDBusObjectPath> devices = reply.value();
    for (int i = 0; i < devices.count(); ++i)
        removeDevice(devices.at(i).path());
    return 0;
}

int BluetoothManager::DisconnectDevice()
{
    LOG_LINE(LogInformation, "DisconnectDevice");
    return disconnectHeldDevice() ? 0 : 1;
}

// Audio path through PulseAudio

bool BluetoothManager::startPulseAudio()
{
    if (m_pulseProcess)
        return false;
    LOG_LINE(LogInformation, "try to start pulseaudio for %s", qPrintable(m_audioSourcePath));
    runShellCommand("rm -rf /var/run/pulse/*");
    m_pulseProcess = startChild("/usr/bin/pulseaudio", QStringList() << "--system");
    if (!m_pulseProcess) {
        LOG_LINE(LogWarning, "problem starting pulseaudio for device %s, so disconnect device",
                 qPrintable(m_audioSourcePath));
        disconnectDevice(m_audioSourcePath);
        return false;
    }
    if (!connect(m_pulseProcess, SIGNAL(finished(int, QProcess::ExitStatus)), this,
                 SLOT(pulseaudioDown(int, QProcess::ExitStatus))))
        LOG_LINE(LogWarning, "error connecting on pulseuadio exit");
    discardTimer(m_pulseStepTimer);
    m_pulseRetries = 0;
    m_pulseStepTimer = startSingleShot(PulseStepDelay, SLOT(startPulseAudio_step1()));
    return true;
}

void BluetoothManager::startPulseAudio_step1()
{
    discardTimer(m_pulseStepTimer);
    if (runShellCommand("/usr/bin/pactl stat") != 0) {
        if (++m_pulseRetries < PulsePolls) {
            LOG_LINE(LogInformation, "wait pulseaudio ... %d", m_pulseRetries);
            m_pulseStepTimer = startSingleShot(PulseStepDelay, SLOT(startPulseAudio_step1()));
        } else {
            LOG_LINE(LogError, "error starting pulseaudio, so disconnect");
            disconnectDevice(m_audioSourcePath);
        }
        return;
    }

    const QByteArray loadSink =
        "/usr/bin/pactl load-module module-alsa-sink sink_name=output device="
        + m_alsaDevice.toLocal8Bit();
    LOG_LINE(LogInformation, "%s", loadSink.constData());
    const int sinkStatus = runShellCommand(loadSink);
    LOG_LINE(levelOf(sinkStatus), "%s <- %d", loadSink.constData(), sinkStatus);

    const QByteArray loadDiscovery = "/usr/bin/pactl load-module module-bluetooth-discover";
    LOG_LINE(LogTrace, "%s", loadDiscovery.constData());
    const int discoveryStatus = runShellCommand(loadDiscovery);
    LOG_LINE(levelOf(discoveryStatus), "%s <- %d", loadDiscovery.constData(), discoveryStatus);

    m_pulseRetries = 0;
    m_pulseStepTimer = startSingleShot(PulseStepDelay, SLOT(startPulseAudio_step2()));
}

void BluetoothManager::startPulseAudio_step2()
{
    discardTimer(m_pulseStepTimer);
    // Refused until the discovery module has made the source: the retries are the wait for it.
    const QByteArray loadLoopback =
        "/usr/bin/pactl load-module module-loopback source_dont_move=yes source="
        + DevicePath::pulseAudioSource(m_audioSourcePath).toLocal8Bit()
        + " sink=output latency_msec=" + QByteArray::number(m_latency)
        + " adjust_time=60 remix=false";
    LOG_LINE(LogTrace, "%s", loadLoopback.constData());
    if (runShellCommand(loadLoopback) == 0) {
        StartPlayer();
        return;
    }
    if (++m_pulseRetries < PulsePolls) {
        LOG_LINE(LogInformation, "wait pulseaudio bluetooth module ready... %d", m_pulseRetries);
        m_pulseStepTimer = startSingleShot(PulseStepDelay, SLOT(startPulseAudio_step2()));
        return;
    }
    LOG_LINE(LogError, "error starting pulseaudio, so disconnect");
    // A copy: disconnecting empties the field.
    const QString devicePath = m_audioSourcePath;
    trustDevice(devicePath, false);
    disconnectDevice(devicePath);
    removeDevice(devicePath);
}

void BluetoothManager::stopPulseAudio()
{
    if (m_pulseStepTimer) {
        LOG_LINE(LogInformation, "there is step to start pulseaudio running");
        discardTimer(m_pulseStepTimer);
    }
    if (m_pulseProcess) {
        disconnect(m_pulseProcess, 0, this, 0);
        LOG_LINE(LogInformation, "stop pulseaudio because not used any more");
        terminateChild(m_pulseProcess);
        discardChild(m_pulseProcess);
    }
    StopPlayer();
}

void BluetoothManager::pulseaudioDown(int exitCode, QProcess::ExitStatus exitStatus)
{
    LOG_LINE(LogWarning, "pulseaudio down %d %s", exitCode, exitWord(exitStatus));
    disconnectHeldDevice();
    StopPlayer();
    discardAudioSourceState();
}

// Sound manager hand-off

void BluetoothManager::StartPlayer()
{
    Q_EMIT ConnectAudioDevice();
    reapplyVolume();
    reapplyMute();
    SoundManagerProxy soundManager(Names::SoundManagerService, Names::SoundManagerObject,
                                   QDBusConnection::sessionBus());
    if (!soundManager.isValid()) {
        LOG_LINE(LogWarning, "error enabling sound manager for bluetooth play");
        return;
    }
    watchCall(m_startPlayerWatcher, soundManager.PlayBluetooth(),
              SLOT(callFinishedStartPlayer(QDBusPendingCallWatcher *)));
}

void BluetoothManager::callFinishedStartPlayer(QDBusPendingCallWatcher *watcher)
{
    const QDBusPendingReply<int> reply = *watcher;
    if (reply.isError())
        LOG_LINE(LogWarning, "error enabling sound manager for bluetooth play");
    discardLater(m_startPlayerWatcher);
}

void BluetoothManager::StopPlayer()
{
    SoundManagerProxy soundManager(Names::SoundManagerService, Names::SoundManagerObject,
                                   QDBusConnection::sessionBus());
    if (soundManager.isValid())
        watchCall(m_stopPlayerWatcher, soundManager.StopPlay("bluetooth", ""),
                  SLOT(callFinishedStopPlayer(QDBusPendingCallWatcher *)));
    else
        LOG_LINE(LogWarning, "error enabling sound manager for bluetooth play");
    Q_EMIT DisconnectAudioDevice();
}

void BluetoothManager::callFinishedStopPlayer(QDBusPendingCallWatcher *watcher)
{
    const QDBusPendingReply<int> reply = *watcher;
    if (reply.isError()) {
        LOG_LINE(LogWarning, "error enabling sound manager for bluetooth play so disconnect");
        disconnectHeldDevice();
    }
    // Disconnecting has asked for a stop once more; its answer is of no interest.
    discardLater(m_stopPlayerWatcher);
}

void BluetoothManager::watchCall(QDBusPendingCallWatcher *&watcher, const QDBusPendingCall &call,
                                 const char *slot)
{
    // The answer to an older request of the same kind no longer counts.
    discardLater(watcher);
    watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, SIGNAL(finished(QDBusPendingCallWatcher *)), this, slot);
}

int BluetoothManager::reapplyVolume()
{
    return SetVolume(m_volume);
}

int BluetoothManager::reapplyMute()
{
    return SetMute(m_mute);
}

int BluetoothManager::SetVolume(int volume)
{
    if (!m_pulseProcess) {
        m_volume = volume;
        return 0;
    }
    const int clamped = qBound(0, volume, 100);
    if (clamped == m_volume)
        return 0;
    const QByteArray command =
        "/usr/bin/pactl set-source-output-volume 0 " + QByteArray::number(clamped) + "%";
    const int status = runShellCommand(command);
    LOG_LINE(levelOf(status), "set volume %s <- %d", command.constData(), status);
    if (status == 0)
        m_volume = clamped;
    return status;
}

int BluetoothManager::SetMute(int mute)
{
    if (mute == m_mute)
        return 0;
    if (!m_pulseProcess) {
        m_mute = mute;
        return 0;
    }
    const QByteArray command =
        "/usr/bin/pactl set-source-output-mute 0 " + QByteArray::number(mute);
    const int status = runShellCommand(command);
    LOG_LINE(levelOf(status), "set mute %s <- %d", command.constData(), status);
    if (status == 0)
        m_mute = mute;
    return status;
}

// Power and supervisor events, PIN change

void BluetoothManager::ulmoPowerOnReboot(const QString &reason)
{
    LOG_LINE(LogWarning, "[!] ULMO IS REBOOTING: save status");
    saveUnlessRestored(reason);
    dropConnection();
}

void BluetoothManager::ulmoPowerOnShutdown(const QString &reason)
{
    LOG_LINE(LogWarning, "[!] ULMO IS SHUTTING DOWN: save status");
    saveUnlessRestored(reason);
    dropConnection();
}

void BluetoothManager::ulmoPowerOnSuspend(const QString &)
{
    LOG_LINE(LogWarning, "[!] ULMO IS SUSPENDING");
    dropConnection();
}

void BluetoothManager::saveUnlessRestored(const QString &reason)
{
    if (reason != "restore")
        SaveStatus(true, true);
}

void BluetoothManager::dropConnection()
{
    disconnectHeldDevice();
    StopPlayer();
    discardAudioSourceState();
}

void BluetoothManager::ulmoSupOnShutdown()
{
    LOG_LINE(LogInformation, "BluetoothManager close for supervisor end");
    QCoreApplication::exit(0);
}

int BluetoothManager::SetPid(const QString &Pid)
{
    LOG_LINE(LogInformation, "[DBUS|Internal] SetPid(%s) requested", pidForLog(Pid).constData());
    if (!isValidPid(Pid))
        return 1;
    if (Pid == m_pid)
        return 0;

    LOG_LINE(LogInformation, "Disconnect connected device");
    DisconnectDevice();
    LOG_LINE(LogInformation, "Remove all device");
    RemoveAllDevices();
    m_pid = Pid;

    Configuration configuration(Names::Object);
    if (configuration.isValid()) {
        m_legacyMode = readLegacyMode(configuration);
    } else {
        LOG_LINE(LogInformation, "set legacy mode %d", m_legacyMode);
        m_legacyMode = 0;
    }
    LOG_LINE(LogInformation, "legacy mode %d", m_legacyMode);
    Q_EMIT BluetoothPidChanged(m_pid);
    SaveStatus(false, true);

    if (m_on) {
        LOG_LINE(LogInformation, "Disable/Enable for pid change");
        SetEnabled(false);
        SetEnabled(true);
    }
    return 0;
}
