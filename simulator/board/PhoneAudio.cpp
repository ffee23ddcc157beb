/*
 * phone-audio FIFO FILE|tone: a virtual phone's sound, written to the FIFO in real time (s16le,
 * stereo, 44100 Hz) as soon as somebody reads it. It plays from the start; the line "pause" on
 * standard input makes it send silence, "play" goes on where it stopped. It ends when standard
 * input or the reader does.
 */
#include "Samples.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace {

constexpr std::int64_t Second = 1000000000; // in nanoseconds, the unit of every time here
constexpr std::int64_t BlockTime = Second / 100;
constexpr std::size_t BlockFrames = SampleRate / 100;

std::int64_t monotonicTime()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * Second + now.tv_nsec;
}

/// The commands on standard input.
class Remote
{
public:
    bool playing() const { return m_playing; }

    /// Obeys commands until the time \p until has come; false when there will be no more.
    bool attend(std::int64_t until)
    {
        for (;;) {
            const std::int64_t left = std::max<std::int64_t>(until - monotonicTime(), 0);
            const timespec timeout = {time_t(left / Second), long(left % Second)};
            pollfd input = {STDIN_FILENO, POLLIN, 0};
            const int ready = ppoll(&input, 1, &timeout, nullptr);
            if (ready == 0)
                return true;
            if (ready > 0 && !readCommands())
                return false;
        }
    }

private:
    bool readCommands()
    {
        char bytes[256];
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count <= 0)
            return count < 0 && errno == EINTR;
        m_pending.append(bytes, std::size_t(count));
        for (std::size_t end; (end = m_pending.find('\n')) != std::string::npos;) {
            obey(m_pending.substr(0, end));
            m_pending.erase(0, end + 1);
        }
        return true;
    }

    void obey(const std::string &command)
    {
        if (command == "play")
            m_playing = true;
        else if (command == "pause")
            m_playing = false;
        else
            std::fprintf(stderr, "phone-audio: no such command: %s\n", command.c_str());
    }

    bool m_playing = true;
    std::string m_pending;
};

int problem(const std::string &text)
{
    std::fprintf(stderr, "phone-audio: %s\n", text.c_str());
    return 1;
}

int play(int fifo, Samples &samples, Remote &remote)
{
    std::int16_t block[2 * BlockFrames];
    bool filled = false;

    // What is told at once, even "pause", counts from the first block on.
    std::int64_t due = monotonicTime() + BlockTime;
    // A block is smaller than PIPE_BUF, so it is taken whole or not at all. When the reader dawdles
    // the sound waits with it, and does not make up for it afterwards.
    for (; remote.attend(due); due += BlockTime) {
        if (!filled && remote.playing())
            samples.read(block, BlockFrames);
        else if (!filled)
            std::memset(block, 0, sizeof block);
        filled = ::write(fifo, block, sizeof block) < 0;
        if (filled && errno == EPIPE)
            return 0;
        if (filled && errno != EAGAIN && errno != EINTR)
            return problem(std::strerror(errno));
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fputs("usage: phone-audio FIFO FILE|tone\n", stderr);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const auto samples = openSamples(argv[2]);
        Remote remote;
        int fifo;
        while ((fifo = open(argv[1], O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
            if (errno != ENXIO)
                return problem(std::string(argv[1]) + ": " + std::strerror(errno));
            if (!remote.attend(monotonicTime() + BlockTime)) // nobody reads it yet
                return 0;
        }
        return play(fifo, *samples, remote);
    } catch (const std::exception &error) {
        return problem(error.what());
    }
}
