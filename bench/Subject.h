#ifndef SUBJECT_H
#define SUBJECT_H

#include <QByteArray>
#include <QStringList>

#include <sys/types.h>

/**
 * A process that is measured: the service, a baseline or a program of the board. It starts with
 * the object and is killed with it. What it writes to standard error is kept in a large pipe until
 * it is read, so that reading takes no part in a measurement.
 */
class Subject
{
public:
    /// \p environment holds "NAME=VALUE", on top of the bench's own.
    Subject(const QString &program, const QStringList &arguments, const QStringList &environment);
    ~Subject();

    pid_t pid() const { return m_pid; }
    /// Just before the process was made.
    double startTime() const { return m_startTime; }

    /// Waits for a line that contains \p text and returns when it was read.
    double waitForLine(const QByteArray &text);
    /// Waits until that many lines have been written since the last reading.
    void waitForLines(int count);
    /// Drops what was written so far; false when that was nothing.
    bool dropLines();
    /// Kills the process and returns when its end was seen.
    double kill();

private:
    Q_DISABLE_COPY(Subject)

    /// What has been written, without waiting.
    QByteArray read();

    pid_t m_pid = -1;
    int m_log = -1;
    double m_startTime = 0;
    QByteArray m_rest;
};

#endif
