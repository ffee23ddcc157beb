#include "ChildProcess.h"

#include <QtCore/QSocketNotifier>

namespace {

// In milliseconds.
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

/** Deletes a process, and kills it first when it still runs. */
void discard(QProcess *process)
{
    // QProcess would emit finished from its destructor.
    QObject::disconnect(process, nullptr, nullptr, nullptr);
    process->kill();
    // Reaps it. The destructor would do the same, but complain on standard error.
    process->waitForFinished();
    delete process;
}

} // namespace

QProcess *startChild(const QString &program, const QStringList &arguments,
                     const QProcessEnvironment &environment)
{
    // Not only against noise among the log lines: Qt 4.8 gives a child that is opened with NotOpen
    // pipes all the same, reads them and keeps what it reads in this process's memory for ever.
    QProcess *process = new QProcess;
    process->setStandardInputFile("/dev/null");
    process->setStandardOutputFile("/dev/null");
    process->setStandardErrorFile("/dev/null");
    process->setProcessEnvironment(environment);
    process->start(program, arguments, QIODevice::NotOpen);
    const bool started = process->waitForStarted(StartTimeout);
    if (processNumber(process) < 0) {
        // Qt 5.15 takes a fork that failed for a process -1, with a descriptor of any number. To
        // signal that process, as even its destructor does, is to signal every process of the
        // machine. So the object is given up, without its notifiers; it has nothing else.
        QObject::disconnect(process, nullptr, nullptr, nullptr);
        qDeleteAll(process->findChildren<QSocketNotifier *>());
        return nullptr;
    }
    if (started)
        return process;
    discard(process);
    return nullptr;
}

bool stopChild(QProcess *&field, ChildListeners listeners)
{
    if (!field)
        return true;
    QProcess *const process = field;
    field = nullptr;
    if (listeners == Disconnected)
        QObject::disconnect(process, nullptr, nullptr, nullptr);
    process->terminate();
    // False as well for a process that has ended before.
    const bool ended =
        process->waitForFinished(StopTimeout) || process->state() == QProcess::NotRunning;
    discard(process);
    return ended;
}
