#include "BluetoothManager.h"

#include <chrono>
#include <memory>
#include <thread>

#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <QtDBus/QDBusConnection>
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
#include "Settings.h"
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

// All in milliseconds.
const int EnableDelay = 100;
const int BluezRegistrationTimeout = 15000;
const int BluezRestartDelay = 1000;
const int AgentRetryDelay = 10000;
const int NoPlayInterval = 10000;
const int PulseStepDelay = 100;
const int RemakeDelay = 100;

/** Polls of one phase of the PulseAudio bring-up; the last failed one gives up. */
const int PulsePolls = 40;

bool isRunning(const QProcess *process)
{
    return process && process->state() == QProcess::Running;
}

QString environmentValue(const char *name)
{
    return QString::fromLocal8Bit(qgetenv(name)).toLower();
}

bool environmentFlag(const char *name)
{
    const QString value = environmentValue(name);
    return value == "true" || value == "1";
}

bool environmentNumber(const char *name, int &number)
{
    bool isNumber = false;
    number = environmentValue(name).toInt(&isNumber, 10);
    return isNumber;
}

/** Path of BlueZ's default adapter; empty when BlueZ has none or cannot be asked. */
QString defaultAdapterPath()
{
    bluezManagerProxy manager(BluezService, "/", QDBusConnection::systemBus());
    if (!manager.isValid())
        return QString();
    QDBusPendingReply<QDBusObjectPath> adapter = manager.DefaultAdapter();
    adapter.waitForFinished();
    return adapter.isError() ? QString() : adapter.value().path();
}

/** Waits for the answer of BlueZ, for as long as the bus library does. */
bool isFailed(QDBusPendingCall call)
{
    call.waitForFinished();
    return call.isError();
}

} // namespace

// Settings and status

BluetoothManager::BluetoothManager() : UlmoFeatureBase(Names::Object)
{
    std::unique_ptr<Configuration> configuration;
    if (isInitialized())
        configuration.reset(new Configuration(Names::Object));
    else
        LOG_LINE(LogError, "Impossible to initialize Base feature");
    if (configuration && !configuration->isValid())
        LOG_LINE(LogError, "Impossible to initialize Configuration proxy");
    if (!configuration || !configuration->isValid()) {
        LOG_LINE(LogError, "Fatal error while crating the BluetoothManager");
        return;
    }

    m_reconnectTimeout = Settings::readInteger(*configuration, "bt-timeout-reconnect-1", 5000);
    if (m_reconnectTimeout < 100) {
        LOG_LINE(LogWarning, "too low reconnect timeout");
        m_reconnectTimeout = 100;
    } else if (m_reconnectTimeout > 10000) {
        LOG_LINE(LogWarning, "too big reconnect timeout");
        m_reconnectTimeout = 10000;
    }
    LOG_LINE(LogInformation, "reconnection timeout %d", m_reconnectTimeout);

    bool startEnabled = environmentFlag("ULMO_BT_ENABLE");
    if (startEnabled) {
        LOG_LINE(LogInformation, "force enable for ULMO_BT_ENABLE");
    } else {
        startEnabled = Settings::readInteger(*configuration, "bt-enable", 1) != 0;
        m_savedEnable = startEnabled;
    }

    m_pid = environmentValue("ULMO_BT_PID");
    if (!m_pid.isEmpty()) {
        LOG_LINE(LogInformation, "force PID for ULMO_BT_PID");
    } else {
        m_pid = Settings::readPid(*configuration);
        m_savedPid = m_pid;
    }
    if (!isValidPid(m_pid)) {
        m_pid = DefaultPid;
        // The store holds something else, so the next save has to write the repaired PIN.
        m_savedPid.clear();
    }

    m_legacyMode = Settings::readLegacyMode(*configuration, m_pid);
    LOG_LINE(LogInformation, "legacy mode %d", m_legacyMode);
    Q_EMIT BluetoothPidChanged(m_pid);

    if (environmentNumber("ULMO_BT_LATENCY", m_latency))
        LOG_LINE(LogInformation, "force ULMO_BT_LATENCY=%d", m_latency);
    else
        m_latency = Settings::readInteger(*configuration, "bt-latency", 1000);

    m_alsaDevice = "dm-audio";
    m_hostName = Settings::readBluetoothName(*configuration);

    LOG_LINE(LogInformation, "BLUETOOTH CONFIGURATION:");
    LOG_LINE(LogInformation, "> Enable:         %s", word(startEnabled));
    LOG_LINE(LogInformation, "> Pid:            %s", pidForLog(m_pid).constData());
    LOG_LINE(LogInformation, "> Latency:        %d", m_latency);

    killStaleDaemons();
    m_bluezWatcher = new QDBusServiceWatcher(BluezService, QDBusConnection::systemBus(),
                                             QDBusServiceWatcher::WatchForRegistration);
    m_valid = true;
    Q_EMIT BluetoothOn(false);
    if (startEnabled)
        QTimer::singleShot(EnableDelay, this, SLOT(Enable()));
}

BluetoothManager::~BluetoothManager()
{
    forceSyncDown(false);
    m_busy = false;
    delete m_bluezWatcher;
    m_bluezWatcher = nullptr;
    LOG_LINE(LogInformation, "BluetoothManager cleaned-up");
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
        } else if (!configuration.WriteConfigValue(Settings::Bluetooth, "bt-enable",
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
        } else if (!configuration.WriteConfigValue(Settings::Bluetooth, "bt-pid", m_pid, false)) {
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
        stopChild(m_pulseProcess, StillConnected);
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
        forceSyncDown(false);
        m_busy = false;
        return;
    }
    LOG_LINE(LogInformation, "bluez started and wait registration");

    if (m_sequenceTimer) {
        discardTimer(m_sequenceTimer);
        LOG_LINE(LogInformation, "startStartupSequence programming error timer already active");
    }
    m_sequenceTimer = armTimer(BluezRegistrationTimeout, SLOT(timeoutStartBluez()));

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
        forceSyncDown(false);
        m_busy = false;
        return;
    }
    if (!systemBus.connect(BluezService, "", AudioSourceInterface, PropertyChanged, PropertyTypes,
                           this, AudioSourceSlot)) {
        LOG_LINE(LogWarning, "error connecting to PropertyChanged of bluez AudioSource");
        forceSyncDown(false);
        m_busy = false;
        return;
    }
    m_followsBluez = true;
    if (!connect(m_bluezWatcher, SIGNAL(serviceUnregistered(QString)), this,
                 SLOT(serviceBluezUnregistered(QString))))
        LOG_LINE(LogWarning, "error registering on event unregistered");

    discardTimer(m_sequenceTimer);

    // The unit is a sink: phones must not find its headset gateway.
    const int deleted = runShellCommand("sdptool del $(sdptool browse local | grep -A 1 \"Headset "
                                        "Audio Gateway\" | tail -n 1 | cut -f2 -d':' | tr -d ' ')");
    LOG_LINE(LogInformation, "del headset profile %d", deleted);
    applyLegacyMode(__PRETTY_FUNCTION__);
    const int linkMode = runShellCommand("hciconfig hci0 lm master,accept");
    LOG_LINE(levelOf(linkMode), "set lm master,accept %d", linkMode);

    if (startAgent()) {
        LOG_LINE(LogInformation, "agent started and wait registration");
        m_on = true;
        m_busy = false;
        Q_EMIT BluetoothOn(true);
    } else {
        LOG_LINE(LogWarning, "error starting agent");
        forceSyncDown(false);
        m_busy = false;
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
    forceSyncDown(false);
    m_busy = false;
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
    forceSyncDown(false);
    m_busy = false;
    Q_EMIT BluetoothOn(m_on);
}

void BluetoothManager::forceSyncDown(bool restart)
{
    LOG_LINE(LogInformation, "forceSyncDown");

    QDBusConnection systemBus = QDBusConnection::systemBus();
    systemBus.disconnect(BluezService, "", DeviceInterface, PropertyChanged, PropertyTypes, this,
                         DeviceSlot);
    systemBus.disconnect(BluezService, "", AudioSourceInterface, PropertyChanged, PropertyTypes,
                         this, AudioSourceSlot);
    m_followsBluez = false;
    delete m_audioSourceState;
    m_audioSourceState = nullptr;
    discardTimer(m_noPlayTimer);
    discardLater(m_startPlayerWatcher);
    discardLater(m_stopPlayerWatcher);
    runShellCommand("hciconfig hci0 noscan");
    // Null in an object whose construction was given up.
    if (m_bluezWatcher)
        disconnect(m_bluezWatcher, nullptr, this, nullptr);

    if (isRunning(m_agentProcess))
        LOG_LINE(LogInformation, "forceSyncDown terminate agent");
    if (!stopChild(m_agentProcess))
        LOG_LINE(LogInformation, "forceSyncDown kill agent");
    if (isRunning(m_bluezProcess))
        LOG_LINE(LogInformation, "forceSyncDown terminate bluez");
    if (!stopChild(m_bluezProcess))
        LOG_LINE(LogInformation, "forceSyncDown kill bluez");
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

QTimer *BluetoothManager::armTimer(int milliseconds, const char *slot, Timing timing)
{
    QTimer *const timer = new QTimer(this);
    timer->setSingleShot(timing == Once);
    connect(timer, SIGNAL(timeout()), this, slot);
    timer->start(milliseconds);
    return timer;
}

void BluetoothManager::applyLegacyMode(const char *operation)
{
    const QByteArray command = "hciconfig hci0 sspmode " + QByteArray::number(m_legacyMode);
    const int status = runShellCommand(command);
    LOG_LINE_AS(Names::Object, operation, levelOf(status), "set legacy mode (%s) %d",
                command.constData(), status);
}

// Pairing agent

bool BluetoothManager::startAgent()
{
    if (m_agentProcess) {
        runShellCommand("hciconfig hci0 noscan");
        stopChild(m_agentProcess);
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
    applyLegacyMode(__PRETTY_FUNCTION__);
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
    m_sequenceTimer = armTimer(AgentRetryDelay, SLOT(restartAgent()));
}

// Source connection policy

void BluetoothManager::DevicePropertyChanged(const QString &name, const QDBusVariant &value)
{
    // message() may be asked for only inside a call from the bus.
    if (!calledFromDBus()) {
        LOG_LINE(LogWarning, "DevicePropertyChanged %s not came from dbus", qPrintable(name));
        return;
    }
    if (message().type() != QDBusMessage::SignalMessage) {
        LOG_LINE(LogWarning, "DevicePropertyChanged %s not came from signal", qPrintable(name));
        return;
    }
    if (!m_followsBluez)
        return;
    const QString devicePath = message().path();
    const QString text = value.variant().toString();
    LOG_LINE(LogInformation, "DevicePropertyChanged (%s)%s %s=%s",
             qPrintable(message().interface()), qPrintable(devicePath), qPrintable(name),
             qPrintable(text));
    if (name != "Connected")
        return;

    if (text != "true") {
        forgetConnection(devicePath, __PRETTY_FUNCTION__);
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
    if (!calledFromDBus()) {
        LOG_LINE(LogWarning, "AudioSourcePropertyChanged %s not came from dbus", qPrintable(name));
        return;
    }
    if (message().type() != QDBusMessage::SignalMessage) {
        LOG_LINE(LogWarning, "AudioSourcePropertyChanged %s not came from signal",
                 qPrintable(name));
        return;
    }
    if (!m_followsBluez)
        return;
    const QString devicePath = message().path();
    const QString state = value.variant().toString();
    LOG_LINE(LogInformation, "AudioSourcePropertyChanged (%s)%s %s=%s",
             qPrintable(message().interface()), qPrintable(devicePath), qPrintable(name),
             qPrintable(state));
    if (name != "State")
        return;

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
    if (m_audioSourceState->origin != OriginLocal) {
        // A connection that the phone made is never played as it is.
        if (!m_reconnectDevicePath.isEmpty()) {
            LOG_LINE(LogInformation, "waiting to reconnect");
        } else if (IsTrustDevice(devicePath).toBool()) {
            m_reconnectDevicePath = devicePath;
            reconnect();
        } else {
            LOG_LINE(LogInformation, "load timer for reconnect");
            trustDevice(devicePath, true);
            m_reconnectDevicePath = devicePath;
            QTimer::singleShot(m_reconnectTimeout, this, SLOT(reconnect()));
        }
    } else if ((state == "connected" || state == "playing") && !isAnotherHeld(devicePath)) {
        m_audioSourcePath = devicePath;
        if (!m_pulseProcess)
            startPulseAudio();
        if (state == "connected") {
            m_noPlayTimer = armTimer(NoPlayInterval, SLOT(noPlay()), Repeated);
            LOG_LINE(LogInformation, "start/restart timer for no play");
        }
    }
}

bool BluetoothManager::isAnotherHeld(const QString &devicePath) const
{
    return (!m_connectedDevicePath.isEmpty() && m_connectedDevicePath != devicePath)
        || (!m_audioSourcePath.isEmpty() && m_audioSourcePath != devicePath);
}

void BluetoothManager::noPlay()
{
    LOG_LINE(LogInformation, "CONNECTED BUT NOT PLAYING");
    Q_EMIT NoPlayConnectedDevive();
}

void BluetoothManager::reconnect()
{
    if (m_reconnectDevicePath.isEmpty())
        return;
    LOG_LINE(LogInformation, "reconnect");
    disconnectDevice(m_reconnectDevicePath);
    // BlueZ answers Disconnect up to 60 ms before it sees that the audio session died with the
    // link. A Connect that comes sooner fails, and then the phone would be forgotten.
    std::this_thread::sleep_for(std::chrono::milliseconds(RemakeDelay));
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
    forgetConnection(path, __PRETTY_FUNCTION__);
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

void BluetoothManager::forgetConnection(const QString &devicePath, const char *operation)
{
    if (m_audioSourceState && m_audioSourceState->devicePath == devicePath) {
        LOG_LINE_AS(Names::Object, operation, LogInformation, "Device %s DISCONNECT",
                    qPrintable(devicePath));
        delete m_audioSourceState;
        m_audioSourceState = nullptr;
    }
    const bool wasConnected = m_connectedDevicePath == devicePath;
    const bool wasPlayed = m_audioSourcePath == devicePath;
    if (wasConnected)
        m_connectedDevicePath.clear();
    if (wasPlayed)
        m_audioSourcePath.clear();
    if (wasConnected || wasPlayed) {
        LOG_LINE_AS(Names::Object, operation, LogInformation,
                    "Device %s DISCONNECTED SO STOP PULSEAUDIO", qPrintable(devicePath));
        stopPulseAudio();
    }
}

void BluetoothManager::dropHeldSource()
{
    disconnectHeldDevice();
    StopPlayer();
    delete m_audioSourceState;
    m_audioSourceState = nullptr;
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
    if (device.isValid())
        properties = device.GetProperties();
    if (!device.isValid() || isFailed(properties)) {
        LOG_LINE(LogWarning, "error reading trust for %s", qPrintable(devicePath));
        return QVariant();
    }
    const QVariant trusted = properties.value().value("Trusted");
    LOG_LINE(LogWarning, "trust for %s is %s", qPrintable(devicePath),
             qPrintable(trusted.toString()));
    return trusted;
}

void BluetoothManager::removeDevice(const QString &devicePath)
{
    LOG_LINE(LogInformation, "removeDevice %s", qPrintable(devicePath));
    // Qt sends an empty path in place of what is none, for which libdbus aborts the process.
    if (DevicePath::isValid(devicePath)) {
        bluezAdapterProxy adapter(BluezService, DevicePath::adapterOf(devicePath),
                                  QDBusConnection::systemBus());
        if (!adapter.isValid())
            return;
        // Not waited for: BlueZ answers only after the 2 s of a disconnection. An error that is
        // here at once is one that the bus library found itself.
        if (!adapter.RemoveDevice(QDBusObjectPath(devicePath)).isError()) {
            LOG_LINE(LogInformation, "removeDevice %s Remove Device, pair again",
                     qPrintable(devicePath));
            return;
        }
    }
    LOG_LINE(LogWarning, "removeDevice %s error Remove Device", qPrintable(devicePath));
}

int BluetoothManager::RemoveDevice(const QString &Device)
{
    LOG_LINE(LogInformation, "RemoveDevice");
    const QString adapterPath = defaultAdapterPath();
    if (adapterPath.isEmpty()) {
        LOG_LINE(LogWarning, "error get DefaultAdapter");
        return 1;
    }
    const QString devicePath = DevicePath::ofAddress(adapterPath, Device);
    LOG_LINE(LogWarning, "remove device %s", qPrintable(devicePath));
    removeDevice(devicePath);
    return 0;
}

int BluetoothManager::RemoveAllDevices()
{
    LOG_LINE(LogInformation, "RemoveAllDevices");
    const QString adapterPath = defaultAdapterPath();
    if (adapterPath.isEmpty()) {
        LOG_LINE(LogWarning, "error get DefaultAdapter");
        return 1;
    }
    bluezAdapterProxy adapter(BluezService, adapterPath, QDBusConnection::systemBus());
    if (!adapter.isValid())
        return 0;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    // BlueZ would have clients read the property "Devices" instead; the method answers the same.
    const QDBusPendingReply<QList<QDBusObjectPath>> reply = adapter.ListDevices();
#pragma GCC diagnostic pop
    if (reply.isError()) {
        LOG_LINE(LogWarning, "error listing device on %s", qPrintable(adapterPath));
        return 0;
    }
    LOG_LINE(LogInformation, "error listing device on %s", qPrintable(adapterPath));
    // An error that came late is no list: QtDBus would decode what it carries for ever.
    const QList<QDBusObjectPath> devices =
        isFailed(reply) ? QList<QDBusObjectPath>() : reply.value();
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
    m_pulseStepTimer = armTimer(PulseStepDelay, SLOT(startPulseAudio_step1()));
    return true;
}

void BluetoothManager::startPulseAudio_step1()
{
    discardTimer(m_pulseStepTimer);
    if (runShellCommand("/usr/bin/pactl stat") != 0) {
        if (++m_pulseRetries < PulsePolls) {
            LOG_LINE(LogInformation, "wait pulseaudio ... %d", m_pulseRetries);
            m_pulseStepTimer = armTimer(PulseStepDelay, SLOT(startPulseAudio_step1()));
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
    m_pulseStepTimer = armTimer(PulseStepDelay, SLOT(startPulseAudio_step2()));
}

void BluetoothManager::startPulseAudio_step2()
{
    discardTimer(m_pulseStepTimer);
    // The name comes from an object path, so it has no character that means something to the shell.
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
        m_pulseStepTimer = armTimer(PulseStepDelay, SLOT(startPulseAudio_step2()));
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
        LOG_LINE(LogInformation, "stop pulseaudio because not used any more");
        stopChild(m_pulseProcess);
    }
    StopPlayer();
}

void BluetoothManager::pulseaudioDown(int exitCode, QProcess::ExitStatus exitStatus)
{
    LOG_LINE(LogWarning, "pulseaudio down %d %s", exitCode, exitWord(exitStatus));
    dropHeldSource();
}

// Sound manager hand-off

void BluetoothManager::StartPlayer()
{
    Q_EMIT ConnectAudioDevice();
    // Both leave out what they take for applied: only a volume out of bounds is sent now.
    SetVolume(m_volume);
    SetMute(m_mute);
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
    if (reason != "restore")
        SaveStatus(true, true);
    dropHeldSource();
}

void BluetoothManager::ulmoPowerOnShutdown(const QString &reason)
{
    LOG_LINE(LogWarning, "[!] ULMO IS SHUTTING DOWN: save status");
    if (reason != "restore")
        SaveStatus(true, true);
    dropHeldSource();
}

void BluetoothManager::ulmoPowerOnSuspend(const QString &)
{
    LOG_LINE(LogWarning, "[!] ULMO IS SUSPENDING");
    dropHeldSource();
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
        m_legacyMode = Settings::readLegacyMode(configuration, m_pid);
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
