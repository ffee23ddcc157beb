// bus-user USER ADDRESS ACTION [ARGUMENT]...
//
// Connects to a bus as USER and tries one thing. Prints its unique name and then, at the end, one
// word: "yes", "no" where the bus denied it, or the error that came instead. Actions:
//   own NAME
//   call DESTINATION INTERFACE METHOD     yes: the destination, or the bus, dealt with it
//   signal DESTINATION PATH INTERFACE SIGNAL   to everybody where DESTINATION is "-"
//   hear INTERFACE SIGNAL                 yes: it came before the end of hearing, a
//   NameOwnerChanged
//                                         of the name that is read from standard input

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include <dbus/dbus.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace {

const int CallTimeout = 20000;
const char Driver[] = "org.freedesktop.DBus";

int tell(const std::string &outcome)
{
    std::cout << outcome << std::endl;
    return 0;
}

std::string outcomeOf(DBusError &error)
{
    if (!dbus_error_is_set(&error))
        return "yes";
    const bool denied = strcmp(error.name, DBUS_ERROR_ACCESS_DENIED) == 0;
    const std::string outcome = denied ? "no" : std::string(error.name) + ": " + error.message;
    dbus_error_free(&error);
    return outcome;
}

bool become(const char *user)
{
    const passwd *entry = getpwnam(user);
    return entry && initgroups(user, entry->pw_gid) == 0 && setgid(entry->pw_gid) == 0
        && setuid(entry->pw_uid) == 0;
}

int own(DBusConnection *bus, const char *name)
{
    DBusError error = DBUS_ERROR_INIT;
    const int answer = dbus_bus_request_name(bus, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, &error);
    if (answer == DBUS_REQUEST_NAME_REPLY_EXISTS)
        return tell("owned by somebody else");
    return tell(outcomeOf(error));
}

/// Whatever answer but a denial: who is called need not know the method.
int call(DBusConnection *bus, const char *destination, const char *interface, const char *method)
{
    DBusMessage *message = dbus_message_new_method_call(destination, "/", interface, method);
    DBusError error = DBUS_ERROR_INIT;
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(bus, message, CallTimeout, &error);
    dbus_message_unref(message);
    if (reply)
        dbus_message_unref(reply);
    const bool deadEnd = dbus_error_has_name(&error, DBUS_ERROR_NO_REPLY)
        || dbus_error_has_name(&error, DBUS_ERROR_SERVICE_UNKNOWN);
    const std::string outcome = outcomeOf(error);
    return tell(outcome == "no" || deadEnd ? outcome : "yes");
}

/// Whether it arrives is for the receiver to say.
int sendSignal(DBusConnection *bus, const std::string &destination, const char *path,
               const char *interface, const char *name)
{
    DBusMessage *message = dbus_message_new_signal(path, interface, name);
    if (destination != "-")
        dbus_message_set_destination(message, destination.c_str());
    dbus_connection_send(bus, message, nullptr);
    dbus_connection_flush(bus);
    dbus_message_unref(message);
    return tell("yes");
}

int hear(DBusConnection *bus, const char *interface, const char *name)
{
    DBusError error = DBUS_ERROR_INIT;
    dbus_bus_add_match(bus, "type='signal'", &error);
    const std::string outcome = outcomeOf(error);
    if (outcome != "yes")
        return tell(outcome);
    tell("hearing");
    std::string endName;
    std::cin >> endName;

    bool heard = false;
    while (dbus_connection_read_write(bus, CallTimeout)) {
        while (DBusMessage *message = dbus_connection_pop_message(bus)) {
            heard = heard || dbus_message_is_signal(message, interface, name);
            const char *changed = nullptr;
            const bool ended = dbus_message_is_signal(message, Driver, "NameOwnerChanged")
                && dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &changed,
                                         DBUS_TYPE_INVALID)
                && endName == changed;
            dbus_message_unref(message);
            if (ended)
                return tell(heard ? "yes" : "no");
        }
    }
    return tell("the bus went away");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4 || !become(argv[1]))
        return 2;
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection *bus = dbus_connection_open_private(argv[2], &error);
    if (!bus)
        return tell(outcomeOf(error));
    dbus_connection_set_exit_on_disconnect(bus, false);
    // The bus hangs up on somebody who may not connect.
    if (!dbus_bus_register(bus, &error))
        return tell("no");
    tell(dbus_bus_get_unique_name(bus));

    const std::string action = argv[3];
    int status = 2;
    if (action == "own" && argc == 5)
        status = own(bus, argv[4]);
    else if (action == "call" && argc == 7)
        status = call(bus, argv[4], argv[5], argv[6]);
    else if (action == "signal" && argc == 8)
        status = sendSignal(bus, argv[4], argv[5], argv[6], argv[7]);
    else if (action == "hear" && argc == 6)
        status = hear(bus, argv[4], argv[5]);
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
    return status;
}
