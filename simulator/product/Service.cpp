#include "Service.h"

#include "core/Journal.h"

#include <QRegularExpression>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

Service::Service(Journal &journal, const QString &program, const QStringList &environment,
                 const QString &under, QObject *parent)
    : QProcess(parent), m_journal(journal)
{
    QStringList command = splitCommand(under) + QStringList {program};
    setProgram(command.takeFirst());
    setArguments(command);
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    for (const QString &variable : environment)
        variables.insert(variable.section('=', 0, 0), variable.section('=', 1));
    setProcessEnvironment(variables);
    setStandardInputFile(nullDevice());
    open(&m_output);
    open(&m_log);
    connect(this, qOverload<int, ExitStatus>(&QProcess::finished), this, &Service::recordEnd);
}

Service::~Service()
{
    disconnect();
    for (int descriptor : {m_output.readEnd, m_output.writeEnd, m_log.readEnd, m_log.writeEnd})
        ::close(descriptor);
}

QString Service::startService()
{
    if (isRunning())
        return "the service runs already";
    QProcess::start();
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
    for (const QByteArray &line : readLines(&m_output))
        recordOutput(QString::fromUtf8(line));
    for (const QByteArray &line : readLines(&m_log))
        recordLog(QString::fromUtf8(line));
}

void Service::setupChildProcess()
{
    dup2(m_output.writeEnd, STDOUT_FILENO);
    dup2(m_log.writeEnd, STDERR_FILENO);
}

/// One pipe serves every start: children that outlive the service may go on writing.
void Service::open(Pipe *pipe)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        qFatal("cannot make a pipe");
    pipe->readEnd = ends[0];
    pipe->writeEnd = ends[1];
    fcntl(pipe->readEnd, F_SETFL, O_NONBLOCK);
    auto *notifier = new QSocketNotifier(pipe->readEnd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &Service::hasPrinted);
}

QList<QByteArray> Service::readLines(Pipe *pipe)
{
    char buffer[65536];
    ssize_t length = 0;
    while ((length = ::read(pipe->readEnd, buffer, sizeof buffer)) > 0)
        pipe->rest.append(buffer, int(length));
    QList<QByteArray> lines = pipe->rest.split('\n');
    pipe->rest = lines.takeLast();
    return lines;
}

/// A log line: "HH:MM:SS.mmm LEVEL PATH [FILE:LINE] FUNCTION: MESSAGE".
void Service::recordLog(const QString &line)
{
    static const QRegularExpression form(
        R"(^\d\d:\d\d:\d\d\.\d{3} (\d) (\S+) (?:\[([^\]:]+):(\d+)\] (.*?): )?(.*)$)");
    const QRegularExpressionMatch match = form.match(line);
    if (!match.hasMatch()) {
        recordOutput(line);
        return;
    }
    QJsonObject facts {{"level", match.captured(1).toInt()},
                       {"path", match.captured(2)},
                       {"message", match.captured(6)}};
    if (!match.captured(3).isEmpty()) {
        facts.insert("file", match.captured(3));
        facts.insert("at", match.captured(4).toInt());
        facts.insert("function", match.captured(5));
    }
    m_journal.record("service", "log", match.captured(1) + ' ' + match.captured(6), facts);
}

void Service::recordOutput(const QString &line)
{
    m_journal.record("service", "output", "| " + line);
}

void Service::recordEnd(int code, ExitStatus status)
{
    // First, what it has said and waited for.
    emit hasPrinted();
    const QString key = status == CrashExit ? "signal" : "status";
    const QString how =
        (status == CrashExit ? "by signal " : "with status ") + QString::number(code);
    m_journal.record("service", "end", ". service ended " + how,
                     {{"program", "service"}, {"pid", m_pid}, {key, code}});
    emit ended(how);
}
