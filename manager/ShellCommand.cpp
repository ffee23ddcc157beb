#include "ShellCommand.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QtCore/QElapsedTimer>

extern char **environ;

namespace {

/** More than any command takes that still does something, in milliseconds. */
const int TimeLimit = 30000;

/** Starts the command in a process group of its own; 0 when there is no shell. */
pid_t startShell(const QByteArray &command)
{
    posix_spawn_file_actions_t silence;
    posix_spawn_file_actions_init(&silence);
    posix_spawn_file_actions_addopen(&silence, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&silence, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);

    QByteArray text = command;
    char shell[] = "sh";
    char option[] = "-c";
    char *arguments[] = {shell, option, text.data(), 0};
    pid_t child = 0;
    const int error = posix_spawn(&child, "/bin/sh", &silence, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&silence);
    return error == 0 ? child : 0;
}

/** Waits until nobody has the other end of the pipe any more. False when that takes too long. */
bool waitForHangUp(int descriptor)
{
    QElapsedTimer clock;
    clock.start();
    pollfd other = {descriptor, 0, 0};
    int hungUp = 0;
    do {
        hungUp = poll(&other, 1, qMax(0, TimeLimit - static_cast<int>(clock.elapsed())));
    } while (hungUp < 0 && errno == EINTR);
    return hungUp > 0;
}

} // namespace

// Not system(): it waits for ever, ignores SIGINT meanwhile, and has no way to silence the command
// alone. Pointing the service's own standard error elsewhere instead would lose what a signal
// handler logs then.
int runShellCommand(const QByteArray &command)
{
    // Waiting for a process has no time limit of its own that would leave SIGCHLD to QProcess. So
    // the command inherits one end of a pipe, which tells when it is gone.
    int ends[2];
    if (pipe(ends) != 0)
        return -1;
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    const pid_t child = startShell(command);
    close(ends[1]);
    if (child != 0 && !waitForHangUp(ends[0]))
        kill(-child, SIGKILL);
    close(ends[0]);
    if (child == 0)
        return -1;

    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}
