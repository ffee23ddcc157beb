// The board's small programs: hciconfig, sdptool, modprobe, connmanctl, pactl and pulseaudio, by
// the name it is called under. It tells the hub that it runs, and does as the hub says: the hub
// knows the faults and the state of the board, and what the program would print and return.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string quoted(const char *text)
{
    std::string result = "\"";
    for (; *text; ++text) {
        const unsigned char character = *text;
        if (character == '"' || character == '\\') {
            result += '\\';
            result += *text;
        } else if (character < ' ') {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", character);
            result += escaped;
        } else {
            result += *text;
        }
    }
    return result + '"';
}

/// The hub's one-line answer: an object of texts and whole numbers.
class Answer
{
public:
    explicit Answer(const std::string &line) : m_line(line) { }

    std::string text(const char *key) const
    {
        std::string result;
        size_t at = valueOf(key);
        if (at == std::string::npos || m_line[at] != '"')
            return result;
        for (++at; at < m_line.size() && m_line[at] != '"'; ++at) {
            if (m_line[at] == '\\')
                result += m_line[++at] == 'n' ? '\n' : m_line[at];
            else
                result += m_line[at];
        }
        return result;
    }

    int number(const char *key) const
    {
        const size_t at = valueOf(key);
        return at == std::string::npos ? 0 : atoi(m_line.c_str() + at);
    }

private:
    size_t valueOf(const char *key) const
    {
        const std::string marker = std::string("\"") + key + "\":";
        const size_t at = m_line.find(marker);
        return at == std::string::npos ? at : at + marker.size();
    }

    std::string m_line;
};

/// The connection stays open for as long as the program lives, beyond exec: its end is the news.
int connectToHub()
{
    const char *path = getenv("PRODUCT_HUB");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path ? path : "/run/product/hub");
    const int hub = socket(AF_UNIX, SOCK_STREAM, 0);
    if (hub < 0
        || connect(hub, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        fprintf(stderr, "no virtual product at %s: %s\n", address.sun_path, strerror(errno));
        exit(1);
    }
    return hub;
}

void send(int hub, const std::string &line)
{
    if (write(hub, line.data(), line.size()) != ssize_t(line.size()))
        exit(1);
}

std::string readLine(int hub)
{
    std::string line;
    char buffer[4096];
    while (line.empty() || line.back() != '\n') {
        const ssize_t length = read(hub, buffer, sizeof buffer);
        if (length <= 0)
            exit(1);
        line.append(buffer, length);
    }
    return line;
}

void obey(const Answer &answer)
{
    const std::string behaviour = answer.text("behaviour");
    if (behaviour == "exit")
        _exit(answer.number("status"));
    if (behaviour == "crash") {
        signal(SIGSEGV, SIG_DFL); // a sanitizer would make an exit of it
        raise(SIGSEGV);
    }
    if (behaviour == "ignore-term")
        signal(SIGTERM, SIG_IGN);
    while (behaviour == "hang")
        pause();
    if (behaviour == "delay") {
        const int milliseconds = answer.number("milliseconds");
        const timespec delay = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
        nanosleep(&delay, nullptr);
    }
}

[[noreturn]] void becomeReal(const Answer &answer, int hub, char **argv)
{
    const std::string preload = answer.text("preload");
    if (!preload.empty())
        setenv("LD_PRELOAD", preload.c_str(), 1);
    // The one descriptor that PulseAudio does not close when it starts.
    setenv("PULSE_PASSED_FD", std::to_string(hub).c_str(), 1);
    execv(answer.text("exec").c_str(), argv);
    fprintf(stderr, "%s: %s\n", answer.text("exec").c_str(), strerror(errno));
    _exit(127);
}

/// A sound server that plays nothing: it leaves its files, says that it answers, and stays.
[[noreturn]] void serve(int hub, const sigset_t &termination)
{
    mkdir("/var/run/pulse", 0755);
    const int pidFile = open("/var/run/pulse/pid", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    dprintf(pidFile, "%d\n", int(getpid()));
    close(pidFile);
    send(hub, "{\"ready\":true}\n");
    int received = 0;
    sigwait(&termination, &received);
    unlink("/var/run/pulse/pid");
    _exit(0);
}

} // namespace

int main(int argc, char **argv)
{
    const char *slash = strrchr(argv[0], '/');
    const std::string name = slash ? slash + 1 : argv[0];

    const int hub = connectToHub();
    std::string hello = "{\"hello\":" + quoted(name.c_str())
        + ",\"pid\":" + std::to_string(getpid()) + ",\"arguments\":[";
    for (int i = 1; i < argc; ++i)
        hello += (i > 1 ? "," : "") + quoted(argv[i]);
    send(hub, hello + "]}\n");
    const Answer answer(readLine(hub));
    obey(answer);

    if (!answer.text("exec").empty())
        becomeReal(answer, hub, argv);
    if (name == "pulseaudio") {
        sigset_t termination;
        sigemptyset(&termination);
        sigaddset(&termination, SIGTERM);
        sigprocmask(SIG_BLOCK, &termination, nullptr);
        if (answer.text("behaviour") == "ignore-term")
            sigemptyset(&termination);
        serve(hub, termination);
    }
    fputs(answer.text("output").c_str(), stdout);
    return answer.number("status");
}
