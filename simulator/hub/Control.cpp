#include "Control.h"

#include "BusConnection.h"
#include "Hub.h"
#include "JournalText.h"
#include "TypedArguments.h"

#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QJsonDocument>
#include <QRegularExpression>

#include <csignal>

namespace {

const char ServiceName[] = "com.orbitalis.ulmo.bluetoothmanager";
const char ServicePath[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";
const char ServiceInterface[] = "com.orbitalis.ulmo.bluetoothinterface";
const int CallTimeoutMs = 120000;

const char Help[] = R"(The service over D-Bus
  status                          what it says of itself
  enable, disable                 Bluetooth on and off
  pin 1234                        the pairing PIN
  volume N, mute N
  disconnect                      the connected phone
  forget ADDRESS|all
  call METHOD [TYPE:VALUE ...]    any method; types s i b u o as v, as in v:b:true
  ulmoctl ...                     the board's own command, at the prompt inside
The service as a process
  service start|stop|restart|kill SIGNAL
Phones
  phone add NAME [address=A] [name=TEXT] [pin=7351] [audio=FILE] [known] [trusted]
  phone NAME pair|connect|play|pause|leave|drop|out-of-range|in-range|...
        ("phone NAME help" lists what else it can do)
  phones                          all of them
Programs: bluetoothd agent hciconfig sdptool modprobe connmanctl pulseaudio pactl
  kill PROGRAM [SIGNAL]           KILL without one
  fault PROGRAM[:ARGUMENT] BEHAVIOUR [times=N] [after=N]
        exit=STATUS hang crash ignore-term missing delay=MILLISECONDS
        for the next N starts with ARGUMENT in the command line, after N that go well
  fault bluetoothd name-delay=MS|no-name|adapter-delay=MS|no-adapter
  fault bluez:Interface.Method error[=NAME]|delay=MS|never [times=N] [after=N]
  fault soundmanager absent|refuse|refuse=MS|delay=MS|never
  fault clear [PROGRAM|bluez|soundmanager]
BlueZ
  backend mgmt|hci [other]        order of some signals, and the rarer order
  timescale F                     factor of BlueZ's own timers
  race N|off                      the next N reconnects run into the race
  signal PATH INTERFACE.SIGNAL [TYPE:VALUE ...]  from BlueZ, which means nothing by it
  spoof [to=BUSNAME] PATH INTERFACE.SIGNAL [TYPE:VALUE ...]  the same from a stranger
The rest of the product
  platform suspend|shutdown|reboot [REASON], platform supervisor-end
  platform spoof-suspend, ...     the same from a stranger
  login start [SYSTEMD-VERSION]|stop|suspend|resume|shutdown|reboot|cancel
  bus session|system kill|start   nobody gets back to it but the product's other services
  journal [N]                     the last N entries
  quit
)";

bool parseSignal(const QString &name, int *signal)
{
    static const QMap<QString, int> signalNumbers {
        {"HUP", SIGHUP},   {"INT", SIGINT},   {"QUIT", SIGQUIT}, {"ABRT", SIGABRT},
        {"KILL", SIGKILL}, {"SEGV", SIGSEGV}, {"TERM", SIGTERM}, {"STOP", SIGSTOP},
        {"CONT", SIGCONT}, {"USR1", SIGUSR1}};
    const QString bare = name.startsWith("SIG") ? name.mid(3) : name;
    *signal = signalNumbers.value(bare, bare.toInt());
    return *signal > 0;
}

QString yesNo(bool value)
{
    return value ? "true" : "false";
}

} // namespace

Control::Control(Hub &hub)
    : m_hub(hub)
    , m_commands {{"status", &Control::status},
                  {"enable", &Control::setEnabled},
                  {"disable", &Control::setEnabled},
                  {"pin", &Control::callShort},
                  {"volume", &Control::callShort},
                  {"mute", &Control::callShort},
                  {"disconnect", &Control::callShort},
                  {"forget", &Control::callShort},
                  {"call", &Control::call},
                  {"service", &Control::service},
                  {"kill", &Control::killProgram},
                  {"fault", &Control::fault},
                  {"backend", &Control::daemonOption},
                  {"timescale", &Control::daemonOption},
                  {"race", &Control::daemonOption},
                  {"platform", &Control::platform},
                  {"login", &Control::login},
                  {"bus", &Control::bus},
                  {"spoof", &Control::spoof},
                  {"journal", &Control::journal},
                  {"help", &Control::help},
                  {"quit", &Control::quit}}
{
}

void Control::tell(const QString &line, const Done &done)
{
    QStringList words;
    const bool complete = splitWords(line, &words);
    const QString name = words.value(0);
    m_hub.record({{"lane", "control"},
                  {"kind", name == "fault" ? "fault" : "control"},
                  {"text", line.trimmed()}});
    const Done answer = [this, line, done](const Result &result) {
        if (!result.ok)
            m_hub.record(
                {{"lane", "control"}, {"kind", "error"}, {"text", line + ": " + result.text}});
        done(result);
    };
    if (!complete) {
        answer(Result::failure("a quote is not closed"));
    } else if (name == "phone" || name == "phones" || name == "signal") {
        m_hub.bluetoothd().command(line.trimmed(), answer);
    } else if (m_commands.contains(name)) {
        (this->*m_commands.value(name))(words, answer);
    } else {
        answer(Result::failure("unknown command \"" + name + "\"; \"help\" lists them all"));
    }
}

void Control::callService(const QString &method, const QVariantList &arguments, const Done &done)
{
    const QDBusConnection connection = connectedTo("session", "caller");
    if (!connection.isConnected()) {
        done(Result::failure("there is no session bus"));
        return;
    }
    const QString interface = method.contains('.') ? method.section('.', 0, -2) : ServiceInterface;
    QDBusMessage message = QDBusMessage::createMethodCall(ServiceName, ServicePath, interface,
                                                          method.section('.', -1));
    message.setArguments(arguments);
    auto *watcher =
        new QDBusPendingCallWatcher(connection.asyncCall(message, CallTimeoutMs), &m_hub);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, done] {
        watcher->deleteLater();
        const QDBusMessage reply = watcher->reply();
        if (reply.type() == QDBusMessage::ErrorMessage) {
            done(Result::failure(reply.errorName() + ": " + reply.errorMessage()));
            return;
        }
        const QJsonArray values = toJson(reply.arguments());
        const QString text = QJsonDocument(values).toJson(QJsonDocument::Compact);
        done(Result::success(text, values));
    });
}

void Control::status(const QStringList &, const Done &done)
{
    callService("GetStatus", {}, [done](const Result &result) {
        if (!result.ok) {
            done(result);
            return;
        }
        const bool enabled = result.values.at(1).toBool();
        const bool on = result.values.at(2).toBool();
        const QString pin = result.values.at(3).toString();
        done(Result::success(QString("Bluetooth is %1 and %2; the PIN is %3 "
                                     "(Status %4, Enable %5, On %6, pid \"%3\")")
                                 .arg(on ? "on" : "off", enabled ? "enabled" : "disabled", pin)
                                 .arg(result.values.at(0).toInt())
                                 .arg(yesNo(enabled), yesNo(on)),
                             result.values));
    });
}

void Control::setEnabled(const QStringList &words, const Done &done)
{
    callService("SetEnabled", {words.first() == "enable"}, done);
}

/// "pin 1234" and the like: one word, and its argument where it has one.
void Control::callShort(const QStringList &words, const Done &done)
{
    const QString name = words.first();
    const QString argument = words.value(1);
    bool isNumber = false;
    const int number = argument.toInt(&isNumber);
    if (words.size() != (name == "disconnect" ? 1 : 2))
        done(Result::failure(name == "disconnect" ? "disconnect takes nothing"
                                                  : name + " wants one value"));
    else if (name == "pin")
        callService("SetPid", {argument}, done);
    else if (name == "disconnect")
        callService("DisconnectDevice", {}, done);
    else if (name == "forget" && argument == "all")
        callService("RemoveAllDevices", {}, done);
    else if (name == "forget")
        callService("RemoveDevice", {argument}, done);
    else if (!isNumber)
        done(Result::failure(name + " wants a number"));
    else
        callService(name == "volume" ? "SetVolume" : "SetMute", {number}, done);
}

void Control::call(const QStringList &words, const Done &done)
{
    QVariantList arguments;
    QString error;
    if (words.size() < 2)
        done(Result::failure("call METHOD [TYPE:VALUE ...]"));
    else if (!parseTypedArguments(words.mid(2), &arguments, &error))
        done(Result::failure(error));
    else
        callService(words.at(1), arguments, done);
}

void Control::service(const QStringList &words, const Done &done)
{
    const QString what = words.value(1);
    int signal = SIGTERM;
    if (what == "start") {
        done(m_hub.startService());
    } else if (what == "stop") {
        m_hub.stopService(done);
    } else if (what == "restart") {
        m_hub.stopService([this, done](const Result &result) {
            done(result.ok ? m_hub.startService() : result);
        });
    } else if (what == "kill" && parseSignal(words.value(2), &signal)) {
        done(m_hub.signalService(signal));
    } else {
        done(Result::failure("service start, stop, restart or kill SIGNAL"));
    }
}

void Control::killProgram(const QStringList &words, const Done &done)
{
    int signal = 0;
    if (words.size() < 2 || !parseSignal(words.value(2, "KILL"), &signal))
        done(Result::failure("kill PROGRAM [SIGNAL]"));
    else
        done(m_hub.killProgram(words.at(1), signal));
}

void Control::fault(const QStringList &words, const Done &done)
{
    if (words.value(1) == "clear")
        done(clearFaults(words.value(2)));
    else if (words.size() < 3)
        done(Result::failure("fault PROGRAM[:ARGUMENT] BEHAVIOUR, or fault clear [PROGRAM]"));
    else
        done(faultOf(words.at(1), words.mid(1)));
}

Result Control::faultOf(const QString &target, const QStringList &words)
{
    if (target == "soundmanager")
        return m_hub.soundManager().setFault(words.at(1))
            ? Result::success()
            : Result::failure("absent, refuse, refuse=MILLISECONDS, delay=MILLISECONDS or never");
    if (target.startsWith("bluez:"))
        return methodFault(target.mid(6), words.mid(1));

    Faults::Fault fault;
    QString error;
    const bool understood = Faults::parse(words, &fault, &error);
    if (!understood && target == "bluetoothd" && words.size() == 2)
        return bluetoothdFault(words.at(1));
    if (!m_hub.isBoardProgram(target.section(':', 0, 0)))
        return Result::failure("there is no program \"" + target.section(':', 0, 0) + '"');
    if (!understood)
        return Result::failure(error);
    m_hub.faults().add(fault);
    m_hub.updatePresence();
    return Result::success();
}

namespace {
const QStringList NumberedFaults {"name-delay", "adapter-delay"};
const QStringList PlainFaults {"no-name", "no-adapter"};
} // namespace

Result Control::bluetoothdFault(const QString &word)
{
    const QString key = word.section('=', 0, 0);
    int value = 0;
    if (NumberedFaults.contains(key) && Faults::number(word, key, &value))
        m_hub.bluetoothd().setOption(key, value);
    else if (PlainFaults.contains(word))
        m_hub.bluetoothd().setOption(key, true);
    else
        return Result::failure("bluetoothd has no fault \"" + word + '"');
    return Result::success();
}

/// "error", "error=NAME", "delay=MS" or "never", and how often, for one method of BlueZ's.
Result Control::methodFault(const QString &method, const QStringList &words)
{
    static const QRegularExpression methodName("^[A-Za-z.]+\\.[A-Za-z]+$");
    if (!methodName.match(method).hasMatch())
        return Result::failure('"' + method + "\" is not Interface.Method");
    QJsonObject fault {{"method", method}};
    for (const QString &word : words) {
        const QString key = word.section('=', 0, 0);
        const QString value = word.section('=', 1);
        int number = 0;
        if (word == "error" || word == "never")
            fault.insert(word, true);
        else if (key == "error" && !value.isEmpty())
            fault.insert(key, value);
        else if ((key == "delay" || key == "times" || key == "after")
                 && Faults::number(word, key, &number))
            fault.insert(key, number);
        else
            return Result::failure("error[=NAME], delay=MS or never, and times=N, after=N; not \""
                                   + word + '"');
    }
    if (!fault.contains("error") && !fault.contains("delay") && !fault.contains("never"))
        return Result::failure("error[=NAME], delay=MS or never");
    QJsonArray faults = m_hub.bluetoothd().options().value("faults").toArray();
    faults.append(fault);
    m_hub.bluetoothd().setOption("faults", faults);
    return Result::success();
}

Result Control::clearFaults(const QString &target)
{
    if (!target.isEmpty() && target != "soundmanager" && target != "bluez"
        && !m_hub.isBoardProgram(target))
        return Result::failure("there is no program \"" + target + '"');
    if (target.isEmpty() || target == "soundmanager")
        m_hub.soundManager().setFault(QString());
    if (target.isEmpty() || target == "bluez")
        m_hub.bluetoothd().setOption("faults", QJsonValue());
    if (target.isEmpty() || target == "bluetoothd") {
        for (const QString &key : NumberedFaults + PlainFaults) {
            if (m_hub.bluetoothd().options().contains(key))
                m_hub.bluetoothd().setOption(key, QJsonValue());
        }
    }
    m_hub.faults().clear(target);
    m_hub.updatePresence();
    return Result::success();
}

void Control::daemonOption(const QStringList &words, const Done &done)
{
    Bluetoothd &daemon = m_hub.bluetoothd();
    const QString key = words.first();
    const QString value = words.value(1);
    bool ok = false;
    const double number = value.toDouble(&ok);
    if (key == "backend" && (value == "mgmt" || value == "hci")) {
        daemon.setOption(key, value);
        daemon.setOption("order", words.value(2) == "other" ? "other" : "usual");
    } else if (key == "timescale" && ok && number > 0) {
        daemon.setOption(key, number);
    } else if (key == "race" && (value == "off" || (ok && number >= 0))) {
        daemon.setOption(key, value == "off" ? 0 : int(number));
    } else {
        done(Result::failure("backend mgmt|hci [other], timescale F, race N|off"));
        return;
    }
    done(Result::success());
}

void Control::platform(const QStringList &words, const Done &done)
{
    static const QMap<QString, QString> members {{"suspend", "PowerSuspend"},
                                                 {"shutdown", "PowerShutdown"},
                                                 {"reboot", "PowerReboot"},
                                                 {"supervisor-end", "SupervisorShutdown"}};
    const QString event = words.value(1);
    const bool spoof = event.startsWith("spoof-");
    const QString member = members.value(spoof ? event.mid(6) : event);
    const QString reason = words.mid(2).join(' ');
    if (member.isEmpty())
        done(Result::failure("platform " + QStringList(members.keys()).join('|')));
    else if (spoof ? m_hub.platform().spoofEvent(member, reason)
                   : m_hub.platform().sendEvent(member, reason))
        done(Result::success());
    else
        done(Result::failure("there is no session bus"));
}

void Control::login(const QStringList &words, const Done &done)
{
    const int debianVersion = 252;
    LoginManager &manager = m_hub.loginManager();
    const QString what = words.value(1);
    bool ok = true;
    if (what == "start")
        ok = manager.start(words.size() > 2 ? words.at(2).toInt() : debianVersion);
    else if (what == "stop")
        manager.stop();
    else
        ok = manager.sendEvent(what);
    done(ok ? Result::success() : Result::failure("\"login " + what + "\" is not possible"));
}

void Control::bus(const QStringList &words, const Done &done)
{
    if (words.value(2) == "kill")
        done(m_hub.killBus(words.at(1)));
    else if (words.value(2) == "start")
        done(m_hub.startBus(words.at(1)));
    else
        done(Result::failure("bus session|system kill|start"));
}

void Control::spoof(const QStringList &line, const Done &done)
{
    QStringList words = line;
    QVariantList arguments;
    QString error;
    const QString to = words.value(1).startsWith("to=") ? words.takeAt(1).mid(3) : QString();
    if (words.size() < 3) {
        done(Result::failure("spoof [to=BUSNAME] PATH INTERFACE.SIGNAL [TYPE:VALUE ...]"));
        return;
    }
    if (!parseTypedArguments(words.mid(3), &arguments, &error)) {
        done(Result::failure(error));
        return;
    }
    const QString signal = words.at(2);
    QDBusMessage message = QDBusMessage::createTargetedSignal(
        to, words.at(1), signal.section('.', 0, -2), signal.section('.', -1));
    message.setArguments(arguments);
    const QDBusConnection stranger = connectedTo("system", "spoofer");
    done(stranger.send(message) ? Result::success() : Result::failure("it cannot be sent"));
}

void Control::journal(const QStringList &words, const Done &done)
{
    const int standard = 20;
    const int count = words.size() > 1 ? words.at(1).toInt() : standard;
    QStringList texts;
    for (const QByteArray &line : m_hub.journal().contents().trimmed().split('\n')) {
        const QJsonObject entry = QJsonDocument::fromJson(line).object();
        if (!isBusBookkeeping(entry))
            texts.append(journalText(entry));
    }
    done(Result::success(texts.mid(qMax(0, texts.size() - count)).join('\n')));
}

void Control::help(const QStringList &, const Done &done)
{
    done(Result::success(QString(Help).trimmed()));
}

void Control::quit(const QStringList &, const Done &done)
{
    done(Result::success());
    m_hub.quit(0);
}
