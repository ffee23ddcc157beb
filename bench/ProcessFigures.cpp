#include "ProcessFigures.h"

#include "CannotMeasure.h"
#include "Clock.h"

#include <QDir>
#include <QFile>

namespace {

QString folderOf(pid_t pid)
{
    return QString("/proc/%1/").arg(pid);
}

QByteArray contentsOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw CannotMeasure("the process has ended: no " + path);
    return file.readAll();
}

/// The contents of one file of every thread.
QList<QByteArray> ofThreads(pid_t pid, const QString &file)
{
    const QDir tasks(folderOf(pid) + "task");
    QList<QByteArray> contents;
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        contents.append(contentsOf(tasks.filePath(task) + '/' + file));
    return contents;
}

/// The number in the line "KEY: NUMBER".
double valueOf(const QByteArray &contents, const QByteArray &key)
{
    const int begin = contents.indexOf('\n' + key + ':');
    if (begin < 0)
        throw CannotMeasure("the kernel does not tell " + key);
    return contents.mid(begin + key.size() + 2).simplified().split(' ').first().toDouble();
}

} // namespace

Memory memoryOf(pid_t pid)
{
    const QByteArray contents = contentsOf(folderOf(pid) + "smaps_rollup");
    return {valueOf(contents, "Rss"), valueOf(contents, "Pss")};
}

long switchesOf(pid_t pid)
{
    double switches = 0;
    for (const QByteArray &status : ofThreads(pid, "status"))
        switches += valueOf(status, "voluntary_ctxt_switches")
            + valueOf(status, "nonvoluntary_ctxt_switches");
    return long(switches);
}

double processorTimeOf(pid_t pid)
{
    double nanoseconds = 0;
    for (const QByteArray &statistics : ofThreads(pid, "schedstat"))
        nanoseconds += statistics.split(' ').first().toDouble();
    return nanoseconds / 1e9;
}

int descriptorsOf(pid_t pid)
{
    return QDir(folderOf(pid) + "fd").entryList(QDir::Files | QDir::System).size();
}

int threadsOf(pid_t pid)
{
    return ofThreads(pid, "comm").size();
}

int childrenOf(pid_t pid)
{
    int children = 0;
    for (const QByteArray &pids : ofThreads(pid, "children"))
        children += pids.simplified().isEmpty() ? 0 : pids.simplified().split(' ').size();
    return children;
}

void waitUntilIdle(pid_t pid)
{
    const double quietSpan = 0.1;
    const double deadline = now() + Patience;
    for (double quietSince = now(); now() - quietSince < quietSpan;) {
        const long before = switchesOf(pid);
        sleepFor(quietSpan / 5);
        if (switchesOf(pid) != before)
            quietSince = now();
        if (now() > deadline)
            throw CannotMeasure(QString("the process %1 does not come to rest").arg(pid));
    }
}
