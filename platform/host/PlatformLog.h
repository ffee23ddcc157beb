// Where the host platform reports its own troubles.
#ifndef PLATFORMLOG_H
#define PLATFORMLOG_H

#include <QtCore/QString>

/** Logs through the process-wide log client; silent while the process has none. */
void platformLog(int level, const QString &objectPath, const QString &text);

#endif
