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

/** The length without a character cut in its midst: the journal takes such a line for data. */
size_t withoutCutCharacter(const char *text, size_t length)
{
    size_t start = length;
    while (start && length - start < 3 && (text[start - 1] & 0xc0) == 0x80)
        --start;
    if (!start)
        return length;
    const unsigned char lead = static_cast<unsigned char>(text[start - 1]);
    const size_t needed = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : lead >= 0xc0 ? 1 : 0;
    return length - start < needed ? start - 1 : length;
}

/** Standard error that takes nothing must not stop the service. */
void writeToStandardError(const char *text, size_t length)
{
    size_t done = 0;
    for (int attempt = 0; attempt < 8 && done < length; ++attempt) {
        const ssize_t written = ::write(STDERR_FILENO, text + done, length - done);
        if (written > 0)
            done += static_cast<size_t>(written);
        else if (written < 0 && errno != EINTR)
            break;
    }
}

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
    const time_t now = time(nullptr);
    struct tm local;
    return localtime_r(&now, &local) ? local.tm_gmtoff : 0;
}

/** The syslog priority of a level. */
int priority(int level)
{
    return level == 1 ? 3 : level == 2 ? 4 : level == 9 ? 7 : 6;
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
    char line[LineSize];
    int length = 0;
    // The C library's formatting of texts and integers neither allocates nor takes a lock.
    if (d->toJournal) {
        length = snprintf(line, LineSize, "<%d>%d %s %s", priority(level), level, objectPath, text);
    } else {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        // A day is added for a board without a clock, which starts in 1970, west of Greenwich.
        const long day = 24L * 60 * 60;
        const int second = static_cast<int>((now.tv_sec + d->offset + day) % day);
        length = snprintf(line, LineSize, "%02d:%02d:%02d.%03d %d %s %s", second / 3600,
                          second / 60 % 60, second % 60, static_cast<int>(now.tv_nsec / 1000000),
                          level, objectPath, text);
    }
    size_t size = length < 0 ? 0 : static_cast<size_t>(length);
    if (size > LineSize - 1)
        size = LineSize - 1;
    // Text from outside: a control character in it must not begin a line of its own.
    for (size_t i = 0; i < size; ++i) {
        const unsigned char character = static_cast<unsigned char>(line[i]);
        if (character < 0x20 || character == 0x7f)
            line[i] = ' ';
    }
    size = withoutCutCharacter(line, size);
    line[size] = '\n';
    writeToStandardError(line, size + 1);
    errno = savedError;
}
