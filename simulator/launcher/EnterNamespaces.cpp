// enter-namespaces COMMAND [ARGUMENT...]
//
// Runs COMMAND in fresh mount, pid, ipc and net namespaces, with a /proc of their own, and ends
// with its exit status. An ordinary user, or a root who lacks the right, gets there through a user
// namespace. Inside, the first process is this program's own: it adopts orphans and ends with
// COMMAND, and everything else in there ends with it. Whatever way the program outside ends, the
// inside ends too. SIGTERM and SIGHUP outside become SIGTERM to COMMAND.
//
// Where the kernel refuses, one line says why and the exit status is 77. There is no way round:
// what runs in here kills processes by name and deletes below /var/run.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const int Refused = 77;
const int CannotRun = 127;

[[noreturn]] void refuse(const char *what, int error)
{
    fprintf(stderr,
            "virtual-product: cannot make namespaces of its own: %s: %s. In a container allow it "
            "with --privileged, or with --cap-add SYS_ADMIN --security-opt seccomp=unconfined "
            "--security-opt apparmor=unconfined --security-opt systempaths=unconfined; on a host "
            "allow unprivileged user namespaces, or run as root.\n",
            what, strerror(error));
    _exit(Refused);
}

void writeFile(const char *path, const std::string &text)
{
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0 || write(file, text.data(), text.size()) != ssize_t(text.size()))
        refuse(path, errno);
    close(file);
}

void enterNamespaces()
{
    const int kinds = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWNET;
    if (geteuid() == 0 && unshare(kinds) == 0)
        return;

    const uid_t user = geteuid();
    const gid_t group = getegid();
    int deathSignal = 0;
    prctl(PR_GET_PDEATHSIG, &deathSignal);
    if (unshare(kinds | CLONE_NEWUSER) != 0)
        refuse("unshare", errno);
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    // The change of rights took it away.
    prctl(PR_SET_PDEATHSIG, deathSignal);
}

/// Waits for \p child, handing on requests to end and reaping whoever else ends meanwhile.
int superviseUntilEnd(pid_t child, const sigset_t &signals)
{
    for (;;) {
        int signal = 0;
        sigwait(&signals, &signal);
        if (signal == SIGTERM || signal == SIGHUP)
            kill(child, SIGTERM);
        int status = 0;
        pid_t ended = 0;
        while ((ended = waitpid(-1, &status, WNOHANG)) > 0) {
            if (ended == child)
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }
}

[[noreturn]] void run(char **command)
{
    execvp(command[0], command);
    fprintf(stderr, "virtual-product: cannot run %s: %s\n", command[0], strerror(errno));
    _exit(CannotRun);
}

int beFirstProcess(char **command, const sigset_t &signals, const sigset_t &before)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        refuse("mount private /", errno);
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        refuse("mount /proc", errno);
    const pid_t child = fork();
    if (child < 0)
        refuse("fork", errno);
    if (child == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        run(command);
    }
    return superviseUntilEnd(child, signals);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: enter-namespaces COMMAND [ARGUMENT...]\n");
        return CannotRun;
    }
    enterNamespaces();

    // Interrupts from the terminal reach COMMAND without help.
    sigset_t signals, before;
    sigemptyset(&signals);
    for (int signal : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGCHLD})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, &before);

    const pid_t child = fork();
    if (child < 0)
        refuse("fork", errno);
    if (child == 0)
        return beFirstProcess(argv + 1, signals, before);
    return superviseUntilEnd(child, signals);
}
