// What values are called in log lines.
#ifndef LOGWORDS_H
#define LOGWORDS_H

#include <QtCore/QByteArray>
#include <QtCore/QProcess>

#include "LogLine.h"

inline const char *word(bool value)
{
    return value ? "true" : "false";
}

inline const char *exitWord(QProcess::ExitStatus exitStatus)
{
    return exitStatus == QProcess::CrashExit ? "crash" : "normal";
}

inline QByteArray pidForLog(const QString &pid)
{
    return pid.isEmpty() ? QByteArray("<none>") : pid.toLocal8Bit();
}

/** A command that failed is a warning. */
inline LogLevel levelOf(int commandStatus)
{
    return commandStatus ? LogWarning : LogInformation;
}

#endif
