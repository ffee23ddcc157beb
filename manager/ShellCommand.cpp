#include "ShellCommand.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

// Not system(): it ignores SIGINT meanwhile, and has no way to silence the command alone. Pointing
// the service's own standard error elsewhere instead would lose what a signal handler logs then.
int runShellCommand(const QByteArray &command)
{
    posix_spawn_file_actions_t silence;
    posix_spawn_file_actions_init(&silence);
    posix_spawn_file_actions_addopen(&silence, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&silence, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    QByteArray text = command;
    char shell[] = "sh";
    char option[] = "-c";
    char *arguments[] = {shell, option, text.data(), 0};
    pid_t child = 0;
    const int error = posix_spawn(&child, "/bin/sh", &silence, 0, arguments, environ);
    posix_spawn_file_actions_destroy(&silence);
    if (error != 0)
        return -1;

    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}
