/*
 * Stands in for PulseAudio's module-bluetooth-discover, whose BlueZ 5 version would find nothing
 * in the virtual product: loads with success and leaves a mark (the file PRODUCT_DISCOVER_MARK
 * names, or else /run/pulse/discover), from which on a connected phone's source may appear.
 */
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <unistd.h>

/* What a module exports, and what it meets in the server; PulseAudio installs no header for it. */
int pa__init(void *module);
const char *pa__get_version(void);
const char *pa_get_library_version(void);

/* The server refuses a module that was not made for its own version, "16.1", while the library
 * calls itself "16.1.0". */
const char *pa__get_version(void)
{
    static char version[32];
    const char *library = pa_get_library_version();
    int dots = 0;

    for (size_t i = 0; library[i] && i < sizeof version - 1; ++i) {
        if (library[i] == '.' && ++dots == 2)
            break;
        version[i] = library[i];
    }
    return version;
}

int pa__init(void *module)
{
    const char *mark = getenv("PRODUCT_DISCOVER_MARK");
    const int file =
        open(mark ? mark : "/run/pulse/discover", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);

    (void)module;
    if (file < 0)
        return -1;
    close(file);
    return 0;
}
