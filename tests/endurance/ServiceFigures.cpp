#include "ServiceFigures.h"

#include <QDir>
#include <QFile>

#include <unistd.h>

namespace {

/// The values of a line of a process' status.
QList<QByteArray> statusOf(pid_t process, const QByteArray &key)
{
    QFile file(QString("/proc/%1/status").arg(process));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith(key + ':'))
            return line.mid(key.size() + 1).simplified().split(' ');
    }
    return {};
}

pid_t parentOf(pid_t process)
{
    return statusOf(process, "PPid").value(0).toInt();
}

bool isBelow(pid_t process, pid_t ancestor)
{
    while (process > 1 && process != ancestor)
        process = parentOf(process);
    return process == ancestor;
}

QList<pid_t> processes()
{
    QList<pid_t> all;
    for (const QString &name : QDir("/proc").entryList(QDir::Dirs)) {
        if (const pid_t process = name.toInt())
            all.append(process);
    }
    return all;
}

} // namespace

ServiceFigures::ServiceFigures(pid_t inside)
{
    for (pid_t process : processes()) {
        // Names are cut after 15 letters there.
        if (statusOf(process, "Name").value(0) == "bluetoothmanage"
            && statusOf(process, "NSpid").value(1).toInt() == inside && isBelow(process, getpid()))
            m_process = process;
    }
}

int ServiceFigures::residentKiB() const
{
    return statusOf(m_process, "VmRSS").value(0).toInt();
}

int ServiceFigures::descriptors() const
{
    return QDir(QString("/proc/%1/fd").arg(m_process))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

int ServiceFigures::children() const
{
    int count = 0;
    for (pid_t process : processes())
        count += parentOf(process) == m_process;
    return count;
}
