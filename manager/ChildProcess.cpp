#include "ChildProcess.h"

namespace {
const int StartTimeout = 4000;
const int StopTimeout = 2000;

qint64 processNumber(const QProcess *process)
{
    // Qt 5 deprecates it, Qt 4.8 has nothing else.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return process->pid();
#pragma GCC diagnostic pop
}
} // namespace

QProcess *startChild(const QString &program, const QStringList &arguments,
                     const QProcessEnvironment &environment)
{
    QProcess *process = new QProcess;
    // Not only against noise among the log lines: Qt 4.8 gives a child that is opened with NotOpen
    // pipes all the same, reads them and keeps what it reads in this process's memory for ever.
    process->setStandardOutputFile(QLatin1String("/dev/null"));
    process->setStandardErrorFile(QLatin1String("/dev/null"));
    process->setProcessEnvironment(environment);
    process->start(program, arguments, QIODevice::NotOpen);
    const bool started = process->waitForStarted(StartTimeout);
    if (processNumber(process) < 0) {
        // Qt 5.15 takes a fork that failed for a process -1, and to signal that one, as even its
        // destructor does, is to signal every process of the machine. So the object is given up.
        QObject::disconnect(process, 0, 0, 0);
        return 0;
    }
    if (!started)
        discardChild(process);
    return process;
}

bool terminateChild(QProcess *process)
{
    process->terminate();
    return process->waitForFinished(StopTimeout);
}

void discardChild(QProcess *&field)
{
    if (!field)
        return;
    QProcess *const process = field;
    field = 0;
    QObject::disconnect(process, 0, 0, 0);
    process->kill();
    // Reaps it. The destructor would do the same, but complain on standard error.
    process->waitForFinished();
    delete process;
}
