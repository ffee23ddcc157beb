/*
 * What the bench does on the session bus without losing time over it, by libdbus alone:
 *
 *     bus-timing calls N   N times GetStatus of the service; prints the microseconds of each
 *     bus-timing await     prints "ready", and when the service gets its name, the seconds of
 *                          CLOCK_MONOTONIC
 */
#include <dbus/dbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static const char service[] = "com.orbitalis.ulmo.bluetoothmanager";
static DBusError error;

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void check(void)
{
    if (!dbus_error_is_set(&error))
        return;
    fprintf(stderr, "bus-timing: %s\n", error.message);
    exit(1);
}

static void callService(DBusConnection *bus, int count)
{
    for (int i = 0; i < count; ++i) {
        DBusMessage *request = dbus_message_new_method_call(
            service, "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj",
            "com.orbitalis.ulmo.bluetoothinterface", "GetStatus");
        const double begin = now();
        DBusMessage *reply = dbus_connection_send_with_reply_and_block(bus, request, -1, &error);
        const double end = now();
        check();
        printf("%.1f\n", (end - begin) * 1e6);
        dbus_message_unref(reply);
        dbus_message_unref(request);
    }
}

static void awaitService(DBusConnection *bus)
{
    dbus_bus_add_match(bus, "type='signal',member='NameOwnerChanged'", &error);
    check();
    puts("ready");
    fflush(stdout);
    while (dbus_connection_read_write(bus, -1)) {
        DBusMessage *message;
        while ((message = dbus_connection_pop_message(bus))) {
            const char *changed = "";
            const double time = now();
            if (dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged"))
                dbus_message_get_args(message, NULL, DBUS_TYPE_STRING, &changed, DBUS_TYPE_INVALID);
            if (strcmp(changed, service) == 0) {
                printf("%.6f\n", time);
                return;
            }
            dbus_message_unref(message);
        }
    }
    exit(1);
}

int main(int argc, char **argv)
{
    DBusConnection *bus;

    dbus_error_init(&error);
    bus = dbus_bus_get(DBUS_BUS_SESSION, &error);
    check();
    if (argc == 3 && strcmp(argv[1], "calls") == 0)
        callService(bus, atoi(argv[2]));
    else if (argc == 2 && strcmp(argv[1], "await") == 0)
        awaitService(bus);
    else
        return 2;
    return 0;
}
