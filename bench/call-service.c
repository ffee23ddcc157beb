/*
 * call-service N: calls GetStatus of the service N times on the session bus, without losing time
 * over it, by libdbus alone. Prints the microseconds of each.
 */
#include <dbus/dbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

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
    fprintf(stderr, "call-service: %s\n", error.message);
    exit(1);
}

static void callService(DBusConnection *bus, int count)
{
    for (int i = 0; i < count; ++i) {
        DBusMessage *request =
            dbus_message_new_method_call("com.orbitalis.ulmo.bluetoothmanager",
                                         "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj",
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

int main(int argc, char **argv)
{
    DBusConnection *bus;

    dbus_error_init(&error);
    bus = dbus_bus_get(DBUS_BUS_SESSION, &error);
    check();
    if (argc != 2)
        return 2;
    callService(bus, atoi(argv[1]));
    return 0;
}
