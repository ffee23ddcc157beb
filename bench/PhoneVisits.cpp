#include "PhoneVisits.h"

#include "ProcessFigures.h"

#include <cstring>

namespace {

const char Address[] = "00:AA:01:01:00:01";

/// A PropertyChanged with this value, from \p interface.
bool isChange(DBusMessage *message, const char *interface, const char *property, const char *state)
{
    DBusMessageIter arguments, value;
    if (!dbus_message_is_signal(message, interface, "PropertyChanged")
        || !dbus_message_iter_init(message, &arguments))
        return false;
    const char *name = nullptr;
    dbus_message_iter_get_basic(&arguments, &name);
    if (strcmp(name, property) != 0)
        return false;
    dbus_message_iter_next(&arguments);
    dbus_message_iter_recurse(&arguments, &value);
    if (dbus_message_iter_get_arg_type(&value) == DBUS_TYPE_BOOLEAN) {
        dbus_bool_t boolean = false;
        dbus_message_iter_get_basic(&value, &boolean);
        return strcmp(state, boolean ? "true" : "false") == 0;
    }
    const char *text = nullptr;
    dbus_message_iter_get_basic(&value, &text);
    return strcmp(text, state) == 0;
}

Bus::Predicate callOf(const char *member)
{
    return [member](DBusMessage *message) {
        return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL
            && dbus_message_has_member(message, member);
    };
}

} // namespace

PhoneVisits::PhoneVisits(Rig &rig, ProductControl &product) : m_rig(rig), m_product(product)
{
    m_rig.system().follow("type='signal',member='PropertyChanged',interface='org.bluez.Device'");
    m_rig.system().follow(
        "type='signal',member='PropertyChanged',interface='org.bluez.AudioSource'");
    m_rig.system().follow("type='signal',member='PropertyChanged',interface='org.bluez.Adapter'");
    m_product.tell("timescale 0.02");
    m_product.tell("phone add anna known trusted address=" + QString(Address));
    m_rig.switchOn();
    m_rig.system().waitFor("discoverable adapter", [](DBusMessage *message) {
        return isChange(message, "org.bluez.Adapter", "Discoverable", "true");
    });
    waitUntilIdle(m_rig.subject().pid());
}

PhoneVisits::~PhoneVisits()
{
    // Gone with the daemon that knows it.
    m_rig.switchOff();
    m_product.tell("timescale 1");
}

double PhoneVisits::arrive()
{
    m_rig.session().dropReceived();
    m_rig.system().dropReceived();
    m_product.tell("phone anna connect");
    // It connects by itself at first; the service drops that and makes its own connection.
    m_rig.system().waitFor("disconnection by the service", [](DBusMessage *message) {
        return isChange(message, "org.bluez.Device", "Connected", "false");
    });
    const double connected =
        m_rig.system()
            .waitFor("connection by the service",
                     [](DBusMessage *message) {
                         return isChange(message, "org.bluez.AudioSource", "State", "connected");
                     })
            .time;
    return m_rig.session().waitFor("PlayBluetooth", callOf("PlayBluetooth")).time - connected;
}

void PhoneVisits::play()
{
    m_product.tell("phone anna play");
    m_rig.system().waitFor("playing", [](DBusMessage *message) {
        return isChange(message, "org.bluez.AudioSource", "State", "playing");
    });
}

void PhoneVisits::leave()
{
    m_product.tell("phone anna leave");
    m_rig.session().waitFor("StopPlay", callOf("StopPlay"));
}

QByteArray PhoneVisits::sourceName()
{
    return "bluez_source." + QByteArray(Address).replace(':', '_');
}
