// Child processes: started and stopped within fixed times, silent, never left behind.
#ifndef CHILDPROCESS_H
#define CHILDPROCESS_H

#include <QtCore/QProcess>
#include <QtCore/QStringList>

/**
 * Starts a program and waits up to 4000 ms until it runs. Its standard output and error go to
 * /dev/null. Returns the process, without a parent, or null when it could not be started.
 */
QProcess *startChild(
    const QString &program, const QStringList &arguments,
    const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment());

/**
 * Asks a process to end (SIGTERM) and waits up to 2000 ms. False when it is still there, or was
 * gone before; its finished signal comes during the wait to whoever is connected.
 */
bool terminateChild(QProcess *process);

/**
 * Deletes the process of a field and clears the field first; a process that still runs is killed.
 * Nobody hears of it any more: QProcess would emit finished from its destructor. Safe inside
 * finished(int, QProcess::ExitStatus) of that very process, which emits nothing after it. A null
 * field is left alone.
 */
void discardChild(QProcess *&field);

#endif
