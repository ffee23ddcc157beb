#include "Service.h"

#include "core/Journal.h"

#include <QRegularExpression>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

Service::Service(Journal &journal, const QString &program, const QStringList &environment,
                 const QString &under)
    : m_journal(journal)
{
    QStringList command = splitCommand(under) + QStringList {program};
    setProgram(command.takeFirst());
    setArguments(command);
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    for (const QString &variable : environment)
        variables.insert(variable.section('=', 0, 0), variable.section('=', 1));
    setProcessEnvironment(variables);

    if (pipe2(m_pipe, O_CLOEXEC) != 0)
        qFatal("cannot make a pipe");
    fcntl(m_pipe[0], F_SETFL, O_NONBLOCK);
    setStandardInputFile(nullDevice());
    setProcessChannelMode(MergedChannels);
    setStandardOutputFile(QString("/proc/self/fd/%1").arg(m_pipe[1]), Append);
    auto *notifier = new QSocketNotifier(m_pipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &Service::hasPrinted);
    connect(this, qOverload<int, ExitStatus>(&QProcess::finished), this, &Service::recordEnd);
}

Service::~Service()
{
    disconnect();
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

QString Service::startService()
{
    if (isRunning())
        return "the service runs already";
    start();
    if (!waitForStarted())
        return program() + ": " + errorString();
    m_pid = processId();
    m_journal.record("service", "start", "& service", {{"program", "service"}, {"pid", m_pid}});
    return {};
}

QString Service::kill(int signal)
{
    if (!isRunning())
        return "the service is not running";
    ::kill(pid_t(m_pid), signal);
    return {};
}

void Service::drain()
{
    char buffer[65536];
    ssize_t length = 0;
    while ((length = ::read(m_pipe[0], buffer, sizeof buffer)) > 0)
        m_rest.append(buffer, int(length));
    QList<QByteArray> lines = m_rest.split('\n');
    m_rest = lines.takeLast();
    for (const QByteArray &line : lines)
        record(QString::fromUtf8(line));
}

void Service::record(const QString &line)
{
    // "HH:MM:SS.mmm LEVEL PATH [FILE:LINE] FUNCTION: MESSAGE"; the platform's has no FILE.
    static const QRegularExpression logLine(
        R"(^\d\d:\d\d:\d\d\.\d{3} (\d) (\S+) (?:\[([^\]:]+):(\d+)\] (.*?): )?(.*)$)");
    const QRegularExpressionMatch match = logLine.match(line);
    if (!match.hasMatch()) {
        m_journal.record("service", "output", "| " + line);
        return;
    }
    m_journal.record("service", "log", match.captured(1) + ' ' + match.captured(6),
                     {{"level", match.captured(1).toInt()},
                      {"path", match.captured(2)},
                      {"file", match.captured(3)},
                      {"at", match.captured(4).toInt()},
                      {"function", match.captured(5)},
                      {"message", match.captured(6)}});
}

void Service::recordEnd(int code, ExitStatus status)
{
    // First what it has said before, and what it has waited for.
    emit hasPrinted();
    const QString by = status == CrashExit ? "signal" : "status";
    const QString how =
        (status == CrashExit ? "by signal " : "with status ") + QString::number(code);
    m_journal.record("service", "end", ". service ended " + how,
                     {{"program", "service"}, {"pid", m_pid}, {by, code}});
    emit ended(how);
}
