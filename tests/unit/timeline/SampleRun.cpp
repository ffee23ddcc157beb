#include "SampleRun.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPair>

#include <cmath>
#include <cstdint>
#include <vector>

namespace {

/// The journal's time 0 by CLOCK_MONOTONIC.
constexpr double Origin = 5000.25;
constexpr int Rate = 44100;
const char Service[] = "com.orbitalis.ulmo.bluetoothmanager";
const char ServiceObject[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";
const char SoundManager[] = "com.orbitalis.ulmo.soundmanager";
const char Adapter[] = "/org/bluez/41/hci0";

QString devicePath(const QString &address)
{
    return QString(Adapter) + "/dev_" + QString(address).replace(':', '_');
}

/// Writes a journal entry by entry; every entry takes a little time, wait() lets more pass.
class Run
{
public:
    explicit Run(const QString &folder) : m_file(QDir(folder).filePath("journal.jsonl"))
    {
        m_isOpen = QDir().mkpath(folder) && m_file.open(QIODevice::WriteOnly);
        add("control", "clock", {{"text", "product started"}, {"monotonic", Origin}});
    }

    bool isOpen() const { return m_isOpen; }
    double time() const { return m_time; }
    int count() const { return m_count; }
    void wait(double milliseconds) { m_time += milliseconds / 1000; }
    void write(const QByteArray &line) { m_file.write(line + '\n'); }

    void add(const QString &lane, const QString &kind, QJsonObject fields)
    {
        fields.insert("time", std::round(m_time * 1e6) / 1e6);
        fields.insert("lane", lane);
        fields.insert("kind", kind);
        write(QJsonDocument(fields).toJson(QJsonDocument::Compact));
        ++m_count;
        wait(0.31);
    }

    void log(int level, const QString &function, const QString &message)
    {
        const int line = 100 + int(qHash(function + message.left(12), 0) % 900);
        add("service", "log",
            {{"level", level},
             {"path", ServiceObject},
             {"file", "BluetoothManager.cpp"},
             {"line", line},
             {"function", function},
             {"message", message},
             {"text",
              QString("[BluetoothManager.cpp:%1] %2: %3").arg(line).arg(function, message)}});
    }

    void start(const QString &lane, const QString &program, const QStringList &arguments = {})
    {
        m_running.insert(program, ++m_pid);
        m_arguments.insert(program, QJsonArray::fromStringList(arguments));
        add(lane, "start",
            {{"program", program}, {"pid", m_pid}, {"arguments", m_arguments.value(program)}});
    }

    void end(const QString &lane, const QString &program, const QString &how, int value)
    {
        add(lane, "end",
            {{"program", program},
             {"pid", m_running.value(program)},
             {"arguments", m_arguments.value(program)},
             {how, value}});
    }

    void tool(const QString &command, double milliseconds = 3, int status = 0)
    {
        const QString program = command.section(' ', 0, 0);
        const QString lane = program == "pactl" ? "pulse" : "tool";
        start(lane, program, command.section(' ', 1).split(' ', Qt::SkipEmptyParts));
        wait(milliseconds);
        end(lane, program, "status", status);
    }

    /// Somebody on a bus: its unique name and what people call it.
    struct Peer
    {
        QString name;
        QString title;
    };

    void call(const QString &bus, const Peer &from, const QString &to, const QString &toTitle,
              const QString &path, const QString &interface, const QString &member,
              const QJsonArray &arguments = {})
    {
        m_call = {{"path", path}, {"interface", interface}, {"member", member}};
        m_caller = from;
        m_callee = toTitle;
        m_bus = bus;
        m_callSerial = ++m_serial;
        QJsonObject fields = m_call;
        fields.insert("bus", bus);
        fields.insert("sender", from.name);
        fields.insert("senderName", from.title);
        fields.insert("destination", to);
        fields.insert("destinationName", toTitle);
        fields.insert("arguments", arguments);
        fields.insert("serial", m_callSerial);
        add("bus", "call", fields);
    }

    /// Answers the last call, in the name of who was called.
    void answer(const QString &kind, const QJsonArray &arguments = {},
                const QString &errorName = {})
    {
        answerAs(m_callee, kind, arguments, errorName);
    }

    void answerAs(const QString &sender, const QString &kind, const QJsonArray &arguments,
                  const QString &errorName)
    {
        QJsonObject fields = m_call;
        fields.insert("bus", m_bus);
        fields.insert("sender", sender == "org.bluez" ? ":1.2" : ":1.9");
        fields.insert("senderName", sender);
        fields.insert("destination", m_caller.name);
        fields.insert("destinationName", m_caller.title);
        fields.insert("arguments", arguments);
        fields.insert("serial", ++m_serial);
        fields.insert("replySerial", m_callSerial);
        if (kind == "error") {
            fields.insert("name", errorName);
            fields.insert("text", arguments.first().toString());
        }
        add("bus", kind, fields);
    }

    void signal(const QString &bus, const Peer &from, const QString &path, const QString &interface,
                const QString &member, const QJsonArray &arguments = {})
    {
        add("bus", "signal",
            {{"bus", bus},
             {"sender", from.name},
             {"senderName", from.title},
             {"path", path},
             {"interface", interface},
             {"member", member},
             {"arguments", arguments},
             {"serial", ++m_serial}});
    }

    void phone(const QString &name, const QString &text, const QString &state = {})
    {
        add("phone", "phone", {{"phone", name}, {"text", text}, {"state", state}});
    }

private:
    QFile m_file;
    bool m_isOpen = false;
    double m_time = 0.012;
    int m_count = 0;
    int m_pid = 40;
    int m_serial = 10;
    QHash<QString, int> m_running;
    QHash<QString, QJsonArray> m_arguments;
    QJsonObject m_call;
    Peer m_caller;
    QString m_callee;
    QString m_bus;
    int m_callSerial = 0;
};

/// The board's sound: stretches of a tone, each with the time at which it was heard.
class Sound
{
public:
    explicit Sound(const QString &folder)
        : m_raw(QDir(folder).filePath("board.raw")), m_log(QDir(folder).filePath("board.raw.log"))
    {
        m_raw.open(QIODevice::WriteOnly);
        m_log.open(QIODevice::WriteOnly);
    }

    void play(double start, double seconds, double loudness)
    {
        clock("start", start, " buffer=88200 period=4410");
        std::vector<std::int16_t> samples;
        const int count = int(seconds * Rate);
        for (int i = 0; i < count; ++i) {
            const double time = double(i) / Rate;
            // A second of silence until the loopback has filled its buffer; a pause in the middle.
            const bool isSilent = time < 1 || (time > seconds * 0.45 && time < seconds * 0.6);
            const double swell = 0.55 + 0.45 * std::sin(time * 2.1) * std::sin(time * 9.7);
            const double value = std::sin(time * 2 * M_PI * 440) * swell * loudness;
            samples.push_back(isSilent ? 0 : std::int16_t(value * 32767));
            samples.push_back(isSilent ? 0 : std::int16_t(value * -32767));
        }
        m_raw.write(reinterpret_cast<const char *>(samples.data()), qint64(samples.size()) * 2);
        m_log.write(QByteArray("underrun frame=") + QByteArray::number(m_frame + count / 3)
                    + " frames=300\n");
        m_frame += count;
        clock("stop", start + seconds, "");
    }

private:
    void clock(const QByteArray &what, double time, const QByteArray &more)
    {
        m_log.write(what + " frame=" + QByteArray::number(m_frame)
                    + " monotonic=" + QByteArray::number(Origin + time, 'f', 9)
                    + " realtime=1700000000.000000000" + more + '\n');
    }

    QFile m_raw;
    QFile m_log;
    qint64 m_frame = 0;
};

/// What happens in the product, in the words of its programs.
class Story
{
public:
    explicit Story(const QString &folder) : run(folder) { }

    void startService()
    {
        run.start("service", "service");
        run.wait(18);
        const QString constructor = "BluetoothManager::BluetoothManager()";
        const QString settings = "bool BluetoothManager::readSettings(bool*)";
        run.log(4, settings, "reconnection timeout 5000");
        run.log(4, settings, "legacy mode 0");
        run.log(4, settings, "BLUETOOTH CONFIGURATION:");
        run.log(4, settings, "> Enable:         true");
        run.log(4, settings, "> Pid:            7351");
        run.log(4, settings, "> Latency:        1000");
        run.wait(60);
        run.signal("session", service, ServiceObject, Interface, "BluetoothOn", {false});
        run.wait(100);
        run.log(4, "void BluetoothManager::Enable()", "Enable");
        switchOn();
    }

    void switchOn()
    {
        run.log(4, "int BluetoothManager::SetEnabled(bool)",
                "[DBUS|Internal] SetEnabled(true) requested");
        startStack();
    }

    void startStack()
    {
        const QString registered = "void BluetoothManager::serviceBluezRegistered(const QString&)";
        run.log(4, "void BluetoothManager::startStartupSequence()",
                "startStartupSequence requested");
        run.tool("modprobe btwilink", 6, 1);
        run.tool("connmanctl enable bluetooth");
        run.tool("hciconfig hci0 up", 12);
        run.start("bluez", "bluetoothd", {"-n"});
        run.log(4, "void BluetoothManager::startStartupSequence()",
                "bluez started and wait registration");
        run.wait(35);
        run.signal("system", {"org.freedesktop.DBus", "org.freedesktop.DBus"},
                   "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                   {"org.bluez", "", ":1.2"});
        run.log(4, registered, "bluez service registered org.bluez");
        run.tool("sdptool browse local", 5);
        run.tool("sdptool del 0x10003", 4);
        run.log(4, registered, "del headset profile 0");
        run.tool("hciconfig hci0 sspmode 0");
        run.log(4, registered, "set legacy mode (hciconfig hci0 sspmode 0) 0");
        run.tool("hciconfig hci0 lm master,accept");
        run.log(4, registered, "set lm master,accept 0");
        run.log(4, "bool BluetoothManager::startAgent()",
                "start agent agent with parameters --path /org/bluez/agent --delay 1 --capabilites "
                "NoInputNoOutput 7351");
        run.start("agent", "agent", {"--path", "/org/bluez/agent", "7351"});
        run.wait(8);
        run.call("system", agent, "org.bluez", "org.bluez", Adapter, "org.bluez.Adapter",
                 "RegisterAgent", {"/org/bluez/agent", "NoInputNoOutput"});
        run.wait(2);
        run.answer("reply");
        run.tool("hciconfig hci0 piscan");
        run.tool("hciconfig hci0 sspmode 0");
        run.log(4, registered, "agent started and wait registration");
        run.signal("session", service, ServiceObject, Interface, "BluetoothOn", {true});
    }

    void pair(const QString &name, const QString &address)
    {
        const QString path = devicePath(address);
        run.phone(name, "asks for pairing", "pairing");
        run.wait(20);
        run.signal("system", bluez, Adapter, "org.bluez.Adapter", "DeviceCreated", {path});
        run.call("system", bluez, ":1.5", "agent", "/org/bluez/agent", "org.bluez.Agent",
                 "RequestPinCode", {path});
        run.wait(1000);
        run.answer("reply", {"7351"});
        run.phone(name, "is paired", "paired");
        deviceChanged(path, "Paired", true);
    }

    void phoneConnects(const QString &name, const QString &address)
    {
        const QString path = devicePath(address);
        run.phone(name, "connects", "connecting");
        run.wait(40);
        deviceChanged(path, "Connected", true);
        run.log(4, DeviceSlot, "Device " + path + " CONNECTED AND ACCEPTED");
        run.wait(180);
        sourceChanged(path, "connecting");
    }

    void phoneIsRemade(const QString &name, const QString &address)
    {
        const QString path = devicePath(address);
        callBluez(path, "org.bluez.Device", "GetProperties", {},
                  {QJsonObject {{"Trusted", false}}});
        run.log(4, "void BluetoothManager::remakeConnection(const QString&)",
                "load timer for reconnect");
        trust(path);
        run.wait(90);
        sourceChanged(path, "connected");
        run.log(4, "void BluetoothManager::remakeConnection(const QString&)",
                "waiting to reconnect");
        run.wait(4880);
        run.log(4, "void BluetoothManager::reconnect()", "reconnect");
        disconnectDevice(path, 420);
        run.phone(name, "is disconnected", "idle");
        run.log(4, Disconnect, "Device " + path + " DISCONNECT");
        run.log(4, Disconnect, "Device " + path + " DISCONNECTED SO STOP PULSEAUDIO");
        callSoundManager("StopPlay", {"bluetooth", ""});
        run.log(4, "bool BluetoothManager::connectAudioSource(const QString&)",
                "connectAudioSource " + path);
        callBluez(path, "org.bluez.AudioSource", "Connect", {}, {}, 260);
    }

    void phoneIsLinked(const QString &name, const QString &address)
    {
        const QString path = devicePath(address);
        sourceChanged(path, "connecting");
        run.log(4, SourceSlot, "connection coming from ulmo");
        trust(path);
        run.wait(150);
        deviceChanged(path, "Connected", true);
        run.log(4, DeviceSlot, "Device " + path + " CONNECTED AND ACCEPTED");
        run.phone(name, "is connected", "connected");
        run.wait(210);
        sourceChanged(path, "connected");
    }

    void startPulseAudio(const QString &address)
    {
        const QString step = "void BluetoothManager::startPulseAudio_step1()";
        run.log(4, "bool BluetoothManager::startPulseAudio()",
                "try to start pulseaudio for " + devicePath(address));
        run.start("pulse", "pulseaudio", {"--system"});
        run.log(4, "void BluetoothManager::playSource(const QString&, const QString&)",
                "start/restart timer for no play");
        for (int i = 1; i <= 3; ++i) {
            run.wait(100);
            run.tool("pactl stat", 9, 1);
            run.log(4, step, QString("wait pulseaudio ... %1").arg(i));
        }
        run.wait(100);
        run.tool("pactl stat", 9);
        run.log(4, step,
                "/usr/bin/pactl load-module module-alsa-sink sink_name=output "
                "device=dm-audio");
        run.tool("pactl load-module module-alsa-sink sink_name=output device=dm-audio", 14);
        run.log(9, step, "/usr/bin/pactl load-module module-bluetooth-discover");
        run.tool("pactl load-module module-bluetooth-discover", 11);
        run.wait(100);
        const QString loopback = "pactl load-module module-loopback source_dont_move=yes "
                                 "source=bluez_source."
            + QString(address).replace(':', '_')
            + " sink=output latency_msec=1000 adjust_time=60 remix=false";
        run.log(9, "void BluetoothManager::startPulseAudio_step2()", "/usr/bin/" + loopback);
        run.add("pulse", "source", {{"text", "bluez_source exists"}});
        run.tool(loopback, 12);
        run.signal("session", service, ServiceObject, Interface, "ConnectAudioDevice");
        callSoundManager("PlayBluetooth", {});
    }

    void phoneLeaves(const QString &name, const QString &address)
    {
        const QString path = devicePath(address);
        run.phone(name, "leaves", "idle");
        run.wait(30);
        deviceChanged(path, "Connected", false);
        run.log(4, DeviceSlot, "Device " + path + " DISCONNECT");
        run.log(4, DeviceSlot, "Device " + path + " DISCONNECTED SO STOP PULSEAUDIO");
        run.log(4, "void BluetoothManager::stopPulseAudio()",
                "stop pulseaudio because not used any more");
        run.wait(60);
        run.end("pulse", "pulseaudio", "status", 0);
        callSoundManager("StopPlay", {"bluetooth", ""});
        run.signal("session", service, ServiceObject, Interface, "DisconnectAudioDevice");
        sourceChanged(path, "disconnected");
    }

    void anotherPhoneIsRefused(const QString &name, const QString &address)
    {
        const QString path = devicePath(address);
        run.phone(name, "connects", "connecting");
        run.wait(35);
        deviceChanged(path, "Connected", true);
        run.log(4, DeviceSlot, "DevicePropertyChanged but not for me, disconnect !!");
        disconnectDevice(path, 300);
        run.phone(name, "is disconnected", "idle");
    }

    void bluezCrashes()
    {
        run.add("control", "control", {{"text", "kill bluetoothd SEGV"}});
        run.end("bluez", "bluetoothd", "signal", 11);
        run.wait(2);
        run.log(2, "void BluetoothManager::bluezDown(int, QProcess::ExitStatus)",
                "bluezDown down 11 crash");
        takeDown(true);
        run.wait(1000);
        startStack();
    }

    void takeDown(bool restart)
    {
        const QString function = "void BluetoothManager::forceSyncDown(bool)";
        run.log(4, function, "forceSyncDown");
        run.tool("hciconfig hci0 noscan");
        run.log(4, function, "forceSyncDown terminate agent");
        run.wait(7);
        run.end("agent", "agent", "status", 0);
        if (!restart) {
            run.log(4, function, "forceSyncDown terminate bluez");
            run.wait(160);
            run.end("bluez", "bluetoothd", "status", 0);
        }
        run.tool("hciconfig hci0 down");
        callSoundManager("StopPlay", {"bluetooth", ""});
        if (restart)
            run.log(4, function, "restart");
    }

    void stopService()
    {
        run.add("control", "control", {{"text", "service stop"}});
        takeDown(false);
        run.log(4, "virtual BluetoothManager::~BluetoothManager()", "BluetoothManager cleaned-up");
        run.end("service", "service", "status", 0);
    }

    void callService(const QString &member, const QJsonArray &arguments, const QJsonArray &answer)
    {
        run.call("session", caller, Service, "service", ServiceObject, Interface, member,
                 arguments);
        run.log(4, "int BluetoothManager::" + member, "[DBUS|Internal] " + member + " requested");
        run.answer("reply", answer);
    }

    void callBluez(const QString &path, const QString &interface, const QString &member,
                   const QJsonArray &arguments, const QJsonArray &answer = {}, double delay = 4)
    {
        run.call("system", service, "org.bluez", "org.bluez", path, interface, member, arguments);
        run.wait(delay);
        run.answer("reply", answer);
    }

    void callSoundManager(const QString &member, const QJsonArray &arguments)
    {
        run.call("session", service, SoundManager, SoundManager,
                 "/com/orbitalis/ulmo/soundmanager/soundobj", "", member, arguments);
        run.wait(3);
        run.answer("reply", {0});
    }

    void disconnectDevice(const QString &path, double delay)
    {
        run.log(4, Disconnect, "Disconnect " + path);
        callBluez(path, "org.bluez.Device", "Disconnect", {}, {}, delay);
    }

    void trust(const QString &path)
    {
        run.log(4, "void BluetoothManager::trustDevice(const QString&, bool)",
                "trust " + path + " true");
        callBluez(path, "org.bluez.Device", "SetProperty", {"Trusted", true});
    }

    void deviceChanged(const QString &path, const QString &property, bool value)
    {
        run.signal("system", bluez, path, "org.bluez.Device", "PropertyChanged", {property, value});
        run.log(4, DeviceSlot,
                QString("DevicePropertyChanged (org.bluez.Device)%1 %2=%3")
                    .arg(path, property, value ? "true" : "false"));
    }

    void sourceChanged(const QString &path, const QString &state)
    {
        run.signal("system", bluez, path, "org.bluez.AudioSource", "PropertyChanged",
                   {"State", state});
        run.log(4, SourceSlot,
                QString("AudioSourcePropertyChanged (org.bluez.AudioSource)%1 State=%2")
                    .arg(path, state));
    }

    Run run;

private:
    const QString Interface = "com.orbitalis.ulmo.bluetoothinterface";
    const QString DeviceSlot =
        "void BluetoothManager::DevicePropertyChanged(const QString&, const QDBusVariant&)";
    const QString SourceSlot =
        "void BluetoothManager::AudioSourcePropertyChanged(const QString&, const QDBusVariant&)";
    const QString Disconnect = "void BluetoothManager::disconnectDevice(const QString&)";
    const Run::Peer service {":1.7", "service"};
    const Run::Peer bluez {":1.2", "org.bluez"};
    const Run::Peer agent {":1.5", "agent"};
    const Run::Peer caller {":1.8", "caller"};
};

} // namespace

bool writeRoadOfOnePhone(const QString &folder)
{
    const QString anna = "00:1A:7D:DA:71:13";
    const QString ben = "00:1A:7D:00:00:02";
    Story story(folder);
    if (!story.run.isOpen())
        return false;
    Run &run = story.run;

    story.startService();
    run.wait(700);
    story.callService("GetStatus", {}, {0, true, true, "7351"});
    story.pair("anna", anna);
    run.wait(300);
    story.phoneConnects("anna", anna);
    story.phoneIsRemade("anna", anna);
    story.phoneIsLinked("anna", anna);
    story.startPulseAudio(anna);
    const double soundStart = run.time();
    run.wait(600);
    run.phone("anna", "plays", "playing");
    story.sourceChanged(devicePath(anna), "playing");
    run.wait(1300);
    run.add("board", "heard", {{"text", "440 Hz left and right"}});
    run.wait(1100);
    story.callService("SetVolume", {40}, {0});
    run.tool("pactl set-source-output-volume 0 40%", 10);
    run.log(4, "int BluetoothManager::SetVolume(int)",
            "set volume /usr/bin/pactl set-source-output-volume 0 40% <- 0");
    run.wait(900);
    story.anotherPhoneIsRefused("ben", ben);
    run.wait(1900);
    story.phoneLeaves("anna", anna);
    Sound(folder).play(soundStart, run.time() - soundStart - 0.1, 0.5);
    run.wait(400);

    run.add("control", "error", {{"text", "phone carl play: no such phone"}});
    run.add("control", "fault", {{"text", "fault bluez:Adapter.RemoveDevice error"}});
    run.call("session", {":1.8", "caller"}, Service, "service", ServiceObject,
             "com.orbitalis.ulmo.bluetoothinterface", "RemoveDevice", {anna});
    run.log(4, "void BluetoothManager::removeDevice(const QString&)",
            "removeDevice " + devicePath(anna));
    run.answer("reply", {0});
    run.call("system", {":1.7", "service"}, "org.bluez", "org.bluez", Adapter, "org.bluez.Adapter",
             "RemoveDevice", {devicePath(anna)});
    run.wait(5);
    run.answer("error", {"Does Not Exist"}, "org.bluez.Error.DoesNotExist");
    run.log(2, "void BluetoothManager::removeDevice(const QString&)",
            "removeDevice " + devicePath(anna) + " error Remove Device");
    run.call("session", {":1.8", "caller"}, SoundManager, SoundManager,
             "/com/orbitalis/ulmo/soundmanager/soundobj", "", "PlayBluetooth");
    run.answerAs("org.freedesktop.DBus", "error", {"There is nobody of this name"},
                 "org.freedesktop.DBus.Error.ServiceUnknown");
    run.wait(500);
    story.bluezCrashes();
    run.wait(600);
    story.stopService();
    return true;
}

bool writeLongRun(const QString &folder, int entryCount)
{
    Story story(folder);
    if (!story.run.isOpen())
        return false;
    story.startService();
    for (int visit = 0; story.run.count() < entryCount; ++visit) {
        const QString address = QString("00:1A:7D:DA:%1:13").arg(visit % 100, 2, 10, QChar('0'));
        const QString phone = visit % 2 ? "ben" : "anna";
        story.phoneConnects(phone, address);
        story.phoneIsRemade(phone, address);
        story.phoneIsLinked(phone, address);
        story.startPulseAudio(address);
        story.phoneLeaves(phone, address);
        story.run.wait(600);
    }
    Sound(folder).play(10, 100, 0.3);
    return true;
}

bool writeServiceRuns(const QString &folder, const QVector<QStringList> &messages)
{
    Run run(folder);
    for (const QStringList &lines : messages) {
        run.start("service", "service");
        for (const QString &line : lines) {
            run.wait(100);
            run.log(4, "void f()", line);
        }
        run.wait(100);
        run.end("service", "service", "status", 0);
        run.wait(100);
    }
    return run.isOpen();
}

bool writeHostileRun(const QString &folder)
{
    Run run(folder);
    if (!run.isOpen())
        return false;
    const QString script = "</script><script>window.broken = 1</script>";
    const QString image = "<img src=x onerror='window.broken = 1'>";
    run.start("service", "service");
    run.log(4, "void f()", script);
    run.log(1, image, "<!-- {{script}} \"quoted\" & 'single' \u2028 \\u003c </table>");
    run.phone(image, script, "\"><svg onload='window.broken = 1'>");
    run.tool(image + ' ' + script);
    run.add(image, script, {{"text", image}});
    run.add("control", "fault",
            {{"text", "{{rows}} {{policy}}"}, {"toString", 1}, {"__proto__", 2}});
    run.log(4, "x", "Device /org/bluez/1/hci0/dev_<b>x</b> CONNECTED AND ACCEPTED");
    run.write("no JSON at all");
    run.write("[1, 2]");
    run.write("{\"time\":\"never\",\"lane\":\"bus\",\"kind\":\"call\"}");
    run.write("{\"time\":12.5,\"lane\":\"bus\",\"ki"); // cut by a kill
    return true;
}

bool writeEmptyRun(const QString &folder)
{
    QFile file(QDir(folder).filePath("journal.jsonl"));
    return QDir().mkpath(folder) && file.open(QIODevice::WriteOnly);
}
