// Child processes: started and stopped within fixed times, silent, never left behind.
#ifndef CHILDPROCESS_H
#define CHILDPROCESS_H

#include <QtCore/QProcess>
#include <QtCore/QStringList>

/**
 * Starts a program and waits up to 4000 ms until it runs. Its standard input, output and error are
 * /dev/null. Returns the process, without a parent, or null when it could not be started.
 */
QProcess *startChild(
    const QString &program, const QStringList &arguments,
    const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment());

/** Whether those who are connected to a process hear of its end while it is being stopped. */
enum ChildListeners { Disconnected, StillConnected };

/**
 * Clears the field and ends its process, if there is one: asks it to (SIGTERM), waits up to 2000
 * ms, then kills and reaps it and deletes it. False when it had to be killed. Safe inside
 * finished(int, QProcess::ExitStatus) of that very process, which emits nothing after it.
 */
bool stopChild(QProcess *&field, ChildListeners listeners = Disconnected);

#endif
