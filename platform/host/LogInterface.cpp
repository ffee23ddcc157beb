// Log lines on standard error. Whatever EmitLogString uses must be async-signal-safe.
#include "LogInterface.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {
/** Below PIPE_BUF, so that lines of several writers to one pipe do not mix. */
const size_t LineSize = 2048;

class Line
{
public:
    void append(char character)
    {
        if (m_length < LineSize - 1)
            m_text[m_length++] = character;
    }

    /** Text from outside: a control character in it must not begin a line of its own. */
    void append(const char *text)
    {
        for (; text && *text; ++text) {
            const unsigned char character = static_cast<unsigned char>(*text);
            append(character < 0x20 || character == 0x7f ? ' ' : *text);
        }
    }

    void appendNumber(int number, int digits = 1)
    {
        char reversed[12];
        int count = 0;
        unsigned int rest = number < 0 ? 0u - static_cast<unsigned int>(number) : number;
        for (; rest || count < digits; rest /= 10)
            reversed[count++] = static_cast<char>('0' + rest % 10);
        if (number < 0)
            append('-');
        while (count)
            append(reversed[--count]);
    }

    /** Drops a character that was cut in its midst: the journal shows such a line as a blob. */
    void dropCutCharacter()
    {
        size_t start = m_length;
        while (start && m_length - start < 3 && (m_text[start - 1] & 0xc0) == 0x80)
            --start;
        if (!start)
            return;
        const unsigned char lead = static_cast<unsigned char>(m_text[start - 1]);
        const size_t needed = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : lead >= 0xc0 ? 1 : 0;
        if (m_length - start < needed)
            m_length = start - 1;
    }

    /** Ends the line and writes it. Standard error that takes nothing must not stop the service. */
    void write()
    {
        dropCutCharacter();
        m_text[m_length++] = '\n';
        size_t done = 0;
        for (int attempt = 0; attempt < 8 && done < m_length; ++attempt) {
            const ssize_t written = ::write(STDERR_FILENO, m_text + done, m_length - done);
            if (written > 0)
                done += static_cast<size_t>(written);
            else if (written < 0 && errno != EINTR)
                break;
        }
    }

private:
    char m_text[LineSize];
    size_t m_length = 0;
};

/** Whether standard error is the very stream that systemd connected to the journal. */
bool journalListens()
{
    const char *const stream = getenv("JOURNAL_STREAM");
    struct stat status;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    return stream && sscanf(stream, "%llu:%llu", &device, &inode) == 2
        && fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

/** Seconds east of Greenwich. */
long utcOffset()
{
    const time_t now = time(0);
    struct tm local;
    return localtime_r(&now, &local) ? local.tm_gmtoff : 0;
}

/** The syslog priority of a level. */
int priority(int level)
{
    switch (level) {
    case 1:
        return 3;
    case 2:
        return 4;
    case 9:
        return 7;
    default:
        return 6;
    }
}
} // namespace

struct LogInterface::Private
{
    const bool toJournal;
    /** Taken once: localtime_r takes a lock, which a signal handler must not wait for. */
    const long offset;
};

LogInterface::LogInterface(const char *) : d(new Private {journalListens(), utcOffset()}) { }

LogInterface::~LogInterface()
{
    delete d;
}

void LogInterface::EmitLogString(int level, const char *text, const char *objectPath)
{
    const int savedError = errno;
    Line line;
    if (d->toJournal) {
        line.append('<');
        line.appendNumber(priority(level));
        line.append('>');
    } else {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        // A day is added for a board without a clock, which starts in 1970, west of Greenwich.
        const long day = 24L * 60 * 60;
        const int second = static_cast<int>((now.tv_sec + d->offset + day) % day);
        line.appendNumber(second / 3600, 2);
        line.append(':');
        line.appendNumber(second / 60 % 60, 2);
        line.append(':');
        line.appendNumber(second % 60, 2);
        line.append('.');
        line.appendNumber(static_cast<int>(now.tv_nsec / 1000000), 3);
        line.append(' ');
    }
    line.appendNumber(level);
    line.append(' ');
    line.append(objectPath);
    line.append(' ');
    line.append(text);
    line.write();
    errno = savedError;
}
