/*
 * Preloaded where a user namespace maps a single id: setgroups(2) is refused there, and PulseAudio
 * and dbus-daemon, which only want to drop groups, would give up.
 */
#include <grp.h>
#include <sys/types.h>

int initgroups(const char *user, gid_t group)
{
    (void)user;
    (void)group;
    return 0;
}

int setgroups(size_t count, const gid_t *groups)
{
    (void)count;
    (void)groups;
    return 0;
}
