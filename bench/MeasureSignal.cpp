#include "Clock.h"
#include "Measurements.h"
#include "OneProcessor.h"
#include "ProcessFigures.h"
#include "ProductControl.h"
#include "Rig.h"

namespace {

const int Signals = 2000; // as many lines as the pipe surely holds

/// A change of a property of a device that nobody cares for.
Message irrelevantChange()
{
    const Message signal(dbus_message_new_signal("/org/bluez/100/hci0/dev_00_AA_01_01_00_01",
                                                 "org.bluez.Device", "PropertyChanged"),
                         dbus_message_unref);
    const char *name = "Alias";
    const char *text = "anna";
    DBusMessageIter arguments, variant;
    dbus_message_iter_init_append(signal.get(), &arguments);
    dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &name);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, "s", &variant);
    dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &text);
    dbus_message_iter_close_container(&arguments, &variant);
    return signal;
}

/// Microseconds of processor time that \p receiver takes for one signal on \p bus.
double timeOfSignal(Bus &bus, Subject &receiver)
{
    const double before = processorTimeOf(receiver.pid());
    for (int i = 0; i < Signals; ++i)
        bus.send(irrelevantChange());
    bus.flush();
    receiver.waitForLines(Signals);
    // It may still be writing, into a pipe that must not fill up.
    do {
        waitUntilIdle(receiver.pid());
    } while (receiver.dropLines());
    return (processorTimeOf(receiver.pid()) - before) / Signals * 1e6;
}

} // namespace

QVector<Row> measureSignal(const Effort &effort)
{
    const OneProcessor oneProcessor;
    // The bench itself is BlueZ here; the daemon and the agent only have to be there.
    ProductControl product;
    product.tell("fault bluetoothd no-name");
    product.tell("fault agent hang");
    Rig service;
    service.setEnabled(true);
    service.system().claim("org.bluez");
    service.waitUntilOn();
    waitUntilIdle(service.subject().pid());
    service.subject().dropLines();

    Rig minimal(minimalServiceProgram());
    minimal.system().claim("org.bluez");
    const std::unique_ptr<Subject> subscriber =
        minimal.startBeside(programOf("bench/MinimalSubscriber"));
    subscriber->waitForLine("subscribed");

    timeOfSignal(service.system(), service.subject());
    timeOfSignal(minimal.system(), *subscriber);
    Repetitions repetitions;
    for (int i = 0; i < effort.repetitions(10); ++i) {
        const double measured = timeOfSignal(service.system(), service.subject());
        repetitions.add(measured, timeOfSignal(minimal.system(), *subscriber));
    }
    service.switchOff();
    return {repetitions.row({"an irrelevant PropertyChanged", "a minimal subscriber, one line each",
                             "us", Row::Comparison::Ratio, 1.3})};
}
