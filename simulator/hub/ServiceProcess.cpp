#include "ServiceProcess.h"

#include <QRegularExpression>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

QJsonObject printed(const QByteArray &line)
{
    return {{"lane", "service"}, {"kind", "output"}, {"text", QString::fromUtf8(line)}};
}

/// A log line: "HH:MM:SS.mmm LEVEL PATH [FILE:LINE] FUNCTION: MESSAGE".
QJsonObject logged(const QByteArray &line)
{
    static const QRegularExpression logLine(R"(^\d\d:\d\d:\d\d\.\d{3} (\d) (\S+) (.*)$)");
    static const QRegularExpression prefixed(R"(^\[([^\]:]+):(\d+)\] (.*?): (.*)$)");
    const QRegularExpressionMatch match = logLine.match(QString::fromUtf8(line));
    if (!match.hasMatch())
        return printed(line);
    QJsonObject entry {{"lane", "service"},
                       {"kind", "log"},
                       {"level", match.captured(1).toInt()},
                       {"path", match.captured(2)},
                       {"text", match.captured(3)},
                       {"message", match.captured(3)}};
    const QRegularExpressionMatch prefix = prefixed.match(match.captured(3));
    if (prefix.hasMatch()) {
        entry.insert("file", prefix.captured(1));
        entry.insert("line", prefix.captured(2).toInt());
        entry.insert("function", prefix.captured(3));
        entry.insert("message", prefix.captured(4));
    }
    return entry;
}

} // namespace

ServiceProcess::ServiceProcess(const QString &program, QObject *parent) : QProcess(parent)
{
    setProgram(program);
    setStandardInputFile(nullDevice());
    open(&m_output);
    open(&m_log);
}

ServiceProcess::~ServiceProcess()
{
    for (int descriptor : {m_output.readEnd, m_output.writeEnd, m_log.readEnd, m_log.writeEnd})
        ::close(descriptor);
}

void ServiceProcess::setServiceEnvironment(const QStringList &variables)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString &variable : variables)
        environment.insert(variable.section('=', 0, 0), variable.section('=', 1));
    setProcessEnvironment(environment);
}

void ServiceProcess::setUnder(const QString &command)
{
    QStringList words = splitCommand(command) + QStringList {program()};
    setProgram(words.takeFirst());
    setArguments(words);
}

bool ServiceProcess::startService(QString *error)
{
    if (isRunning()) {
        *error = "the service runs already";
        return false;
    }
    QProcess::start();
    if (!waitForStarted()) {
        *error = errorString();
        return false;
    }
    m_pid = processId();
    return true;
}

bool ServiceProcess::isRunning() const
{
    return state() != QProcess::NotRunning;
}

QJsonObject ServiceProcess::startEntry() const
{
    return {{"lane", "service"}, {"kind", "start"}, {"program", "service"}, {"pid", m_pid}};
}

QJsonObject ServiceProcess::endEntry() const
{
    QJsonObject entry {
        {"lane", "service"}, {"kind", "end"}, {"program", "service"}, {"pid", m_pid}};
    entry.insert(exitStatus() == QProcess::CrashExit ? "signal" : "status", exitCode());
    return entry;
}

QVector<QJsonObject> ServiceProcess::takeEntries()
{
    QVector<QJsonObject> entries;
    for (const QByteArray &line : readLines(&m_output))
        entries.append(printed(line));
    for (const QByteArray &line : readLines(&m_log))
        entries.append(logged(line));
    return entries;
}

void ServiceProcess::setupChildProcess()
{
    // Away from the terminal: an interrupt typed there is not meant for the service.
    setsid();
    dup2(m_output.writeEnd, STDOUT_FILENO);
    dup2(m_log.writeEnd, STDERR_FILENO);
}

/// One pipe serves every start: children that outlive the service may go on writing.
void ServiceProcess::open(Pipe *pipe)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        qFatal("cannot make a pipe");
    pipe->readEnd = ends[0];
    pipe->writeEnd = ends[1];
    fcntl(pipe->readEnd, F_SETFL, O_NONBLOCK);
    auto *notifier = new QSocketNotifier(pipe->readEnd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &ServiceProcess::readable);
}

QList<QByteArray> ServiceProcess::readLines(Pipe *pipe)
{
    char buffer[65536];
    ssize_t length = 0;
    while ((length = ::read(pipe->readEnd, buffer, sizeof buffer)) > 0)
        pipe->rest.append(buffer, length);
    QList<QByteArray> lines = pipe->rest.split('\n');
    pipe->rest = lines.takeLast();
    return lines;
}
