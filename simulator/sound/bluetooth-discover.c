/*
 * Stands in for PulseAudio's module-bluetooth-discover, whose BlueZ 5 version would find nothing in
 * the virtual product: loads with success. The product makes the phone's source itself.
 */
#include <stdio.h>

/* What a module exports, and what it meets in the server; PulseAudio installs no header for it. */
int pa__init(void *module);
const char *pa__get_version(void);
const char *pa_get_library_version(void);

/* The server refuses a module that was not made for its own version, "16.1", while the library
 * calls itself "16.1.0". */
const char *pa__get_version(void)
{
    static char version[32];
    int major = 0, minor = 0;
    sscanf(pa_get_library_version(), "%d.%d", &major, &minor);
    snprintf(version, sizeof version, "%d.%d", major, minor);
    return version;
}

int pa__init(void *module)
{
    (void)module;
    return 0;
}
