#include "Clock.h"
#include "Measurements.h"
#include "ProcessFigures.h"
#include "ProductControl.h"
#include "Rig.h"
#include "ShellCommands.h"

#include <csignal>

namespace {

const char Daemon[] = "/usr/sbin/bluetoothd";

pid_t daemonOf(Rig &rig)
{
    const Message request = methodCall(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                                       "GetConnectionUnixProcessID");
    const char *name = "org.bluez";
    dbus_message_append_args(request.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    dbus_uint32_t pid = 0;
    dbus_message_get_args(rig.system().call(request).get(), nullptr, DBUS_TYPE_UINT32, &pid,
                          DBUS_TYPE_INVALID);
    return pid_t(pid);
}

/// Seconds that the daemon takes alone: until it has its name, and from its killing to its end.
struct DaemonTimes
{
    double start;
    double end;
};

DaemonTimes timeDaemonAlone(Rig &rig)
{
    rig.system().dropReceived();
    const std::unique_ptr<Subject> daemon = rig.startBeside(Daemon, {"-n"});
    const double start = rig.system().waitForName("org.bluez") - daemon->startTime();
    // It has not been looked at below /proc: that would slow its end down.
    rig.system().waitFor("AdapterAdded", [](DBusMessage *message) {
        return dbus_message_is_signal(message, "org.bluez.Manager", "AdapterAdded");
    });
    const double begin = now();
    return {start, daemon->kill() - begin};
}

} // namespace

QVector<Row> measureBringUp(const Effort &effort)
{
    ProductControl product;
    Rig service;
    Repetitions repetitions;
    for (int i = 0; i < effort.repetitions(25); ++i) {
        const double measured = service.switchOn();
        waitUntilIdle(service.subject().pid());
        service.switchOff();
        const double alone = timeAlone(bringUpCommands()) + timeDaemonAlone(service).start;
        repetitions.add(measured * 1000, alone * 1000);
    }
    return {repetitions.row({"bring-up, instant tools",
                             "its shell commands + the daemon's own start, alone", "ms",
                             Row::Comparison::Difference, 30})};
}

QVector<Row> measureCrash(const Effort &effort)
{
    ProductControl product;
    Rig service;
    Rig idle(minimalServiceProgram());
    service.switchOn();
    Repetitions repetitions;
    for (int i = 0; i < effort.repetitions(10); ++i) {
        waitUntilIdle(service.subject().pid());
        service.subject().dropLines();
        const pid_t daemon = daemonOf(service);
        const double killed = now();
        kill(daemon, SIGKILL);
        const double measured = service.subject().waitForLine("bluezDown down ") - killed;
        repetitions.add(measured * 1000, timeDaemonAlone(idle).end * 1000);
        service.waitUntilOn();
    }
    service.switchOff();
    return {repetitions.row({"bluetoothd killed to tear-down begun",
                             "from the killing to its end, for its parent", "ms",
                             Row::Comparison::Absolute, 5})};
}
