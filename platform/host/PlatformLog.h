// Where the host platform reports its own troubles.
#ifndef PLATFORMLOG_H
#define PLATFORMLOG_H

#include <QtCore/QString>

#include "LogInterface.h"

/** Defined by the executable. */
extern LogInterface *_logInterface;

/** Logs through the process-wide log client; silent while the process has none. */
inline void platformLog(int level, const QString &objectPath, const QString &text)
{
    if (_logInterface)
        _logInterface->EmitLogString(level, text.toUtf8().constData(),
                                     objectPath.toUtf8().constData());
}

#endif
