#include "Commands.h"

#include <sys/wait.h>

#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusPendingReply>

#include "BluetoothServiceProxy.h"
#include "Bus.h"
#include "CommandLine.h"
#include "Names.h"
#include "Phone.h"
#include "StartWait.h"

namespace {

// The service has one thread, and an answer waits for everything before it. The longest is a new
// PIN with Bluetooth on: calls to BlueZ, three processes that get 2 s each to stop, one that gets
// 4 s to start and a dozen programs to run, together up to about a minute.
//
// A request is carried out even when nobody waits for its answer any more, so giving up early only
// hides what came of it: a change waits for the longest one before it and its own time. The status
// changes nothing and can be asked again; it gets what D-Bus itself allows.
const int ChangeTimeout = 120000;
const int StatusTimeout = 25000;
// After the answer the service gives BlueZ 15 s to appear and then configures it. What keeps it
// from starting mostly shows at once.
const int StartTimeout = 30000;
const int BriefStartTimeout = 1000;

const char StartOrStopInProgress[] = "a start or stop is in progress, try again in a moment";

struct Request
{
    const char *command;
    QDBusPendingReply<int> (*send)(BluetoothServiceProxy &service, const CommandLine &line);
    const char *done; // %1 is the argument
    const char *refused; // 0: the status is not the service's own, but that of pactl
};

const Request Requests[] = {
    {"off",
     [](BluetoothServiceProxy &service, const CommandLine &) { return service.SetEnabled(false); },
     "Bluetooth is off.", StartOrStopInProgress},
    {"pin",
     [](BluetoothServiceProxy &service, const CommandLine &line) {
         return service.SetPid(line.argument);
     },
     "The PIN is %1.", "the PIN must be four digits"},
    {"volume",
     [](BluetoothServiceProxy &service, const CommandLine &line) {
         return service.SetVolume(line.argument.toInt());
     },
     "The volume is set.", 0},
    {"mute", [](BluetoothServiceProxy &service, const CommandLine &) { return service.SetMute(1); },
     "The sound is muted.", 0},
    {"unmute",
     [](BluetoothServiceProxy &service, const CommandLine &) { return service.SetMute(0); },
     "The sound is not muted.", 0},
    {"disconnect",
     [](BluetoothServiceProxy &service, const CommandLine &) { return service.DisconnectDevice(); },
     "The device has been told to disconnect.", "no device is connected"},
    // BlueZ knows its devices by upper-case addresses, and the service passes them on as they are.
    {"forget",
     [](BluetoothServiceProxy &service, const CommandLine &line) {
         return line.all ? service.RemoveAllDevices()
                         : service.RemoveDevice(line.argument.toUpper());
     },
     "BlueZ has been told to forget %1.", "BlueZ cannot be asked, is Bluetooth on?"},
};

// What system() returned for the program that the service ran.
QString wordsForWaitStatus(int status)
{
    if (WIFEXITED(status))
        return QString::fromLatin1("exit status %1").arg(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return QString::fromLatin1("signal %1").arg(WTERMSIG(status));
    return QString::fromLatin1("it could not be run (%1)").arg(status);
}

const char MissingServiceHint[] =
    "See whether bluetoothmanager runs, and its log: journalctl -t bluetoothmanager";
const char LogHint[] = "The service's log tells why: journalctl -t bluetoothmanager";

bool isRunning(const BluetoothServiceProxy &service)
{
    const QDBusConnection bus = service.connection();
    return bus.isConnected() && bus.interface()->isServiceRegistered(service.service());
}

// The bus reports a service that ended before it answered like one that is late.
Outcome errorOutcome(const QDBusError &error, const BluetoothServiceProxy &service)
{
    const QString detail = error.name() + QLatin1String(": ") + error.message();
    switch (error.type()) {
    case QDBusError::ServiceUnknown:
        return failure(Unreachable,
                       QString::fromLatin1("the service is not running: %1 is not on the bus %2")
                           .arg(service.service(), busAddress()),
                       MissingServiceHint);
    case QDBusError::Disconnected:
    case QDBusError::AccessDenied:
        return failure(
            Unreachable,
            QString::fromLatin1("the bus does not let the service be reached (%1)").arg(detail));
    case QDBusError::NoReply:
    case QDBusError::Timeout:
    case QDBusError::TimedOut:
        if (!isRunning(service))
            return failure(Unreachable, QLatin1String("the service ended before it answered"),
                           MissingServiceHint);
        return failure(
            NoAnswer,
            QString::fromLatin1("no answer within %1 seconds").arg(service.timeout() / 1000),
            "The service may be busy, and may yet do what was asked.");
    default:
        return failure(Refused,
                       QString::fromLatin1("the service answered with an error (%1)").arg(detail));
    }
}

Outcome answerOutcome(int status, const char *refused)
{
    Outcome outcome = {status == 0 ? Done : Refused, QString(), 0, JsonObject()};
    outcome.details.add("status", status);
    if (status != 0) {
        outcome.text = refused ? QString::fromLatin1(refused)
                               : QLatin1String("pactl failed: ") + wordsForWaitStatus(status);
    }
    return outcome;
}

Outcome runRequest(const Request &request, BluetoothServiceProxy &service, const CommandLine &line)
{
    QDBusPendingReply<int> reply = request.send(service, line);
    reply.waitForFinished();
    if (reply.isError())
        return errorOutcome(reply.error(), service);
    Outcome outcome = answerOutcome(reply.value(), request.refused);
    if (outcome.exitStatus == Done) {
        const QString argument = line.all ? QLatin1String("every device") : line.argument;
        outcome.text = QString::fromLatin1(request.done).replace(QLatin1String("%1"), argument);
    }
    return outcome;
}

// What another phone is called comes from that phone, and may not tell the terminal what to do.
QString phoneText(const Phone &phone)
{
    if (phone.address.isEmpty())
        return QLatin1String("none");
    QString text = phone.name;
    for (int i = 0; i < text.length(); ++i) {
        if (!text.at(i).isPrint())
            text[i] = QLatin1Char('?');
    }
    return QString::fromLatin1("%1 (%2), %3")
        .arg(text, phone.address, QLatin1String(phone.playing ? "playing" : "not playing"));
}

Outcome status(BluetoothServiceProxy &service)
{
    QDBusPendingReply<int, bool, bool, QString> reply = service.GetStatus();
    reply.waitForFinished();
    if (reply.isError())
        return errorOutcome(reply.error(), service);
    const bool enabled = reply.argumentAt<1>();
    const bool on = reply.argumentAt<2>();
    const QString pin = reply.argumentAt<3>();
    Outcome outcome = answerOutcome(reply.argumentAt<0>(), "the service has no status");
    if (outcome.exitStatus != Done)
        return outcome;
    outcome.details.add("enabled", enabled).add("on", on).add("pin", pin);
    outcome.text = QString::fromLatin1("Bluetooth   %1, %2\nPIN         %3")
                       .arg(QLatin1String(enabled ? "enabled" : "disabled"),
                            QLatin1String(on ? "on" : "off"), pin);
    Phone phone;
    if (on && readPhone(&phone)) {
        outcome.text += QLatin1String("\nPhone       ") + phoneText(phone);
        const bool isConnected = !phone.address.isEmpty();
        outcome.details.add("phone", isConnected ? phone.address : QVariant());
        if (isConnected)
            outcome.details.add("name", phone.name).add("playing", phone.playing);
    }
    return outcome;
}

// The service answers when the start has begun, has failed or had nothing to do, without telling
// which.
Outcome switchOn(BluetoothServiceProxy &service, const CommandLine &line)
{
    StartWait start(&service);
    const Request request = {
        "on",
        [](BluetoothServiceProxy &proxy, const CommandLine &) { return proxy.SetEnabled(true); },
        "", StartOrStopInProgress};
    Outcome outcome = runRequest(request, service, line);
    if (outcome.exitStatus != Done)
        return outcome;

    QDBusPendingReply<int, bool, bool, QString> reply = service.GetStatus();
    reply.waitForFinished();
    if (reply.isError())
        return errorOutcome(reply.error(), service);
    const int patience = !line.wait ? BriefStartTimeout
        : line.timeout              ? line.timeout
                                    : StartTimeout;
    const bool wasOn = reply.argumentAt<2>();
    const StartWait::Result result = wasOn ? StartWait::CameOn : start.wait(patience);
    if (result == StartWait::Failed)
        return failure(Refused, QLatin1String("Bluetooth did not come on"), LogHint);
    if (result == StartWait::ServiceGone)
        return failure(Unreachable, QLatin1String("the service ended before Bluetooth was on"),
                       MissingServiceHint);
    if (result == StartWait::Undecided && line.wait)
        return failure(
            NoAnswer,
            QString::fromLatin1("Bluetooth is not on after %1 seconds").arg(patience / 1000),
            LogHint);
    const bool on = result == StartWait::CameOn;
    outcome.details.add("on", on);
    outcome.text = QLatin1String(on ? "Bluetooth is on." : "Bluetooth is starting.");
    return outcome;
}

} // namespace

Outcome runCommand(const QDBusConnection &bus, const CommandLine &line)
{
    BluetoothServiceProxy service(QLatin1String(Names::Service), QLatin1String(Names::Object), bus);
    const bool isStatus = line.command == QLatin1String("status");
    service.setTimeout(line.timeout ? line.timeout : isStatus ? StatusTimeout : ChangeTimeout);
    if (isStatus)
        return status(service);
    if (line.command == QLatin1String("on"))
        return switchOn(service, line);
    const Request *request = Requests;
    while (line.command != QLatin1String(request->command))
        ++request;
    return runRequest(*request, service, line);
}
