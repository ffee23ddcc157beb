#include "Subject.h"

#include "CannotMeasure.h"
#include "Clock.h"

#include <QProcessEnvironment>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const int PipeSize = 1024 * 1024;

/// The null-terminated array that exec wants, for as long as the texts live.
std::vector<char *> pointersTo(QList<QByteArray> &texts)
{
    std::vector<char *> pointers;
    for (QByteArray &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

QList<QByteArray> environmentWith(const QStringList &variables)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString &variable : variables)
        environment.insert(variable.section('=', 0, 0), variable.section('=', 1));
    QList<QByteArray> texts;
    for (const QString &text : environment.toStringList())
        texts.append(text.toLocal8Bit());
    return texts;
}

} // namespace

Subject::Subject(const QString &program, const QStringList &arguments,
                 const QStringList &environment)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw CannotMeasure("cannot make a pipe");
    m_log = ends[0];
    fcntl(m_log, F_SETFL, O_NONBLOCK);
    if (fcntl(m_log, F_SETPIPE_SZ, PipeSize) < 0)
        throw CannotMeasure("cannot make a pipe large enough");

    QList<QByteArray> words {program.toLocal8Bit()};
    for (const QString &argument : arguments)
        words.append(argument.toLocal8Bit());
    QList<QByteArray> variables = environmentWith(environment);
    const std::vector<char *> argv = pointersTo(words);
    const std::vector<char *> envp = pointersTo(variables);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    m_startTime = now();
    const int error = posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    if (error != 0) {
        m_pid = -1;
        throw CannotMeasure("cannot run " + program);
    }
}

Subject::~Subject()
{
    kill();
    ::close(m_log);
}

double Subject::kill()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    return now();
}

double Subject::waitForLine(const QByteArray &text)
{
    const double deadline = now() + Patience;
    pollfd poller = {m_log, POLLIN, 0};
    while (now() < deadline) {
        poll(&poller, 1, 100);
        const double time = now();
        m_rest += read();
        // Only whole lines, but the text counts as soon as its line is there.
        const int found = m_rest.indexOf(text);
        const int end = found < 0 ? -1 : m_rest.indexOf('\n', found);
        if (end >= 0) {
            m_rest.remove(0, end + 1);
            return time;
        }
        m_rest.remove(0, m_rest.lastIndexOf('\n') + 1);
    }
    throw CannotMeasure("never logged: " + QString::fromUtf8(text));
}

void Subject::waitForLines(int count)
{
    const double deadline = now() + Patience;
    int lines = 0;
    while (lines < count) {
        if (now() > deadline)
            throw CannotMeasure(QString("%1 lines of %2 were written").arg(lines).arg(count));
        // Not at every line: waking this process is a cost to who writes.
        sleepFor(0.001);
        lines += read().count('\n');
    }
}

bool Subject::dropLines()
{
    m_rest.clear();
    return !read().isEmpty();
}

QByteArray Subject::read()
{
    QByteArray all;
    char buffer[65536];
    ssize_t length = 0;
    while ((length = ::read(m_log, buffer, sizeof buffer)) > 0)
        all.append(buffer, int(length));
    return all;
}
