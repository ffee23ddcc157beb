#include "PlatformLog.h"

#include "LogInterface.h"

/** Defined by the executable. */
extern LogInterface *_logInterface;

void platformLog(int level, const QString &objectPath, const QString &text)
{
    if (_logInterface)
        _logInterface->EmitLogString(level, text.toUtf8().constData(),
                                     objectPath.toUtf8().constData());
}
