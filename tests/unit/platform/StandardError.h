// What the process writes on standard error while this object lives.
#ifndef STANDARDERROR_H
#define STANDARDERROR_H

#include <QByteArray>
#include <QList>
#include <fcntl.h>
#include <unistd.h>

class StandardError
{
public:
    StandardError() : m_saved(dup(STDERR_FILENO))
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
            qFatal("no pipe");
        m_readEnd = ends[0];
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
    }

    ~StandardError()
    {
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
        close(m_readEnd);
    }

    /** Everything written since the last call. */
    QByteArray take()
    {
        QByteArray text;
        char buffer[4096];
        for (ssize_t length; (length = read(m_readEnd, buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<int>(length));
        return text;
    }

    /** The complete lines among them. */
    QList<QByteArray> takeLines()
    {
        QList<QByteArray> lines = take().split('\n');
        lines.removeLast();
        return lines;
    }

private:
    Q_DISABLE_COPY(StandardError)

    const int m_saved;
    int m_readEnd;
};

#endif
