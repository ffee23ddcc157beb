#include "Commands.h"

#include <stdlib.h>
#include <sys/wait.h>

#include <QtCore/QEventLoop>
#include <QtCore/QTimer>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusServiceWatcher>

#include "CommandLine.h"
#include "Names.h"
#include "Service.h"

// Waits for what becomes of a start of Bluetooth.
class StartWait : public QEventLoop
{
    Q_OBJECT

public:
    enum Result { Undecided, CameOn, Failed, ServiceGone };

    // Listens from now on, so that a signal sent before exec() counts as well.
    explicit StartWait(QDBusConnection bus);

private Q_SLOTS:
    void signalCame(const QDBusMessage &signal);
    void decide();
    void serviceGone() { exit(ServiceGone); }

private:
    bool m_takenDown = false;
};

StartWait::StartWait(QDBusConnection bus)
{
    bus.connect(Names::Service, Names::Object, Names::Interface, QString(), this,
                SLOT(signalCame(QDBusMessage)));
    QDBusServiceWatcher *watcher = new QDBusServiceWatcher(
        Names::Service, bus, QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, SIGNAL(serviceUnregistered(QString)), SLOT(serviceGone()));
}

// The service has no signal for a start that failed, but whatever ends one takes down the sound's
// path, and that has a signal. A switch-off before the start has it too, with BluetoothOn after it:
// both have arrived by now, so the failure is not decided before all that has come is seen.
void StartWait::signalCame(const QDBusMessage &signal)
{
    if (signal.member() == "BluetoothOn") {
        m_takenDown = false;
        if (signal.arguments().value(0).toBool())
            exit(CameOn);
    } else if (signal.member() == "DisconnectAudioDevice") {
        m_takenDown = true;
        QTimer::singleShot(0, this, SLOT(decide()));
    }
}

void StartWait::decide()
{
    if (m_takenDown)
        exit(Failed);
}

namespace {

// The service does one thing at a time; the longest is a new PIN with Bluetooth on: calls to BlueZ,
// three processes that get 2 s each to stop, one that gets 4 s to start and a dozen programs to
// run, together up to about a minute. A request is carried out even when nobody waits for its
// answer any more, so a change waits for the longest one before it and its own time. The status can
// be asked again; it gets what D-Bus itself allows.
const int ChangeTimeout = 120000;
const int StatusTimeout = 25000;
// After the answer the service gives BlueZ 15 s to appear and then configures it. What keeps it
// from starting mostly shows at once.
const int StartTimeout = 30000;
const int BriefStartTimeout = 1000;

const char LogHint[] = "The service's log tells why: journalctl -t bluetoothmanager";

// What system() returned for the program that the service ran.
QString wordsForWaitStatus(int status)
{
    if (WIFEXITED(status))
        return QString("exit status %1").arg(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return QString("signal %1").arg(WTERMSIG(status));
    return QString("it could not be run (%1)").arg(status);
}

int timeoutOf(const CommandLine &line)
{
    return line.timeout ? line.timeout : line.is("status") ? StatusTimeout : ChangeTimeout;
}

// Fills in what the service answers.
Outcome request(const QDBusConnection &bus, const CommandLine &line, QVariantList *values)
{
    const char *method = line.has("--all") ? "RemoveAllDevices" : line.command->method;
    QVariantList arguments;
    if (line.argument.isValid())
        arguments << line.argument;
    Outcome outcome = callService(bus, method, arguments, timeoutOf(line), values);
    if (outcome.exitStatus != Done)
        return outcome;
    const int status = values->value(0).toInt();
    outcome.details << jsonMember("status", status);
    outcome.exitStatus = status == 0 ? Done : Refused;
    if (status != 0 && line.command->refused)
        outcome.text = line.command->refused;
    else if (status != 0)
        outcome.text = "pactl failed: " + wordsForWaitStatus(status);
    else
        outcome.text =
            QString(line.command->done)
                .replace("%1", line.has("--all") ? "every device" : line.argument.toString());
    return outcome;
}

Outcome status(const QDBusConnection &bus, const CommandLine &line)
{
    QVariantList values;
    Outcome outcome = request(bus, line, &values);
    if (outcome.exitStatus != Done)
        return outcome;
    const bool enabled = values.value(1).toBool();
    const bool on = values.value(2).toBool();
    const QString pin = values.value(3).toString();
    outcome.text = QString("Bluetooth   %1, %2\nPIN         %3")
                       .arg(enabled ? "enabled" : "disabled", on ? "on" : "off", pin);
    outcome.details << jsonMember("enabled", enabled) << jsonMember("on", on)
                    << jsonMember("pin", pin);
    if (on)
        addPhone(bus, &outcome);
    return outcome;
}

// The service answers when the start has begun, has failed or had nothing to do, without telling
// which.
Outcome switchOn(const QDBusConnection &bus, const CommandLine &line)
{
    StartWait start(bus);
    QVariantList values;
    Outcome outcome = request(bus, line, &values);
    if (outcome.exitStatus != Done)
        return outcome;
    const Outcome after = callService(bus, "GetStatus", QVariantList(), timeoutOf(line), &values);
    if (after.exitStatus != Done)
        return after;
    const bool wasOn = values.value(2).toBool();
    const bool wait = line.has("--wait");
    const int patience = !wait ? BriefStartTimeout : line.timeout ? line.timeout : StartTimeout;
    QTimer::singleShot(patience, &start, SLOT(quit()));
    const int result = wasOn ? StartWait::CameOn : start.exec();
    if (result == StartWait::Failed)
        return failure(Refused, "Bluetooth did not come on", LogHint);
    if (result == StartWait::ServiceGone)
        return failure(Unreachable, "the service ended before Bluetooth was on", LogHint);
    if (result == StartWait::Undecided && wait)
        return failure(NoAnswer,
                       QString("Bluetooth is not on after %1 seconds").arg(patience / 1000),
                       LogHint);
    const bool on = result == StartWait::CameOn;
    outcome.text = on ? "Bluetooth is on." : "Bluetooth is starting.";
    outcome.details << jsonMember("on", on);
    return outcome;
}

// Whether the service applies a volume or mute value; without PulseAudio it only remembers it, with
// the same answer. Invalid where its processes cannot be seen.
QVariant runsPulseAudio(const QDBusConnection &bus)
{
    const QString look = "grep -qs bluetoothmanager /proc/%1/cmdline || exit 2; "
                         "grep -hs '(pulseaudio)' /proc/[0-9]*/stat | grep -q ') . %1 '";
    const uint service = bus.interface()->servicePid(Names::Service);
    const int status = WEXITSTATUS(system(look.arg(service).toLocal8Bit().constData()));
    return status < 2 ? QVariant(status == 0) : QVariant();
}

// The service does not send a value that was the last one, even if a phone has come since and plays
// without it. So the value beside it is set first. Nobody hears that of a volume; a phone that is
// muted already is heard for a blink. None begins muted, so "unmute" is sent where it counts.
Outcome setSound(const QDBusConnection &bus, const CommandLine &line)
{
    const QVariant isApplied = runsPulseAudio(bus);
    QVariantList values;
    CommandLine beside = line;
    beside.argument = qAbs(line.argument.toInt() - 1);
    Outcome outcome = line.is("unmute") ? Outcome() : request(bus, beside, &values);
    if (outcome.exitStatus == Done)
        outcome = request(bus, line, &values);
    if (outcome.exitStatus != Done)
        return outcome;
    outcome.details << jsonMember("applied", isApplied);
    const char next[] = "the next begins unmuted, at full volume.";
    if (!isApplied.isValid())
        outcome.text += QString(" If no phone plays, it is remembered: ") + next;
    else if (!isApplied.toBool())
        outcome.text = QString("It is remembered: no phone plays; ") + next;
    return outcome;
}

} // namespace

Outcome runCommand(const QDBusConnection &bus, const CommandLine &line)
{
    if (line.is("status"))
        return status(bus, line);
    if (line.is("on"))
        return switchOn(bus, line);
    if (line.is("volume") || line.is("mute") || line.is("unmute"))
        return setSound(bus, line);
    QVariantList values;
    return request(bus, line, &values);
}

#include "Commands.moc"
