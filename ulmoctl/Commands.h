// What the commands do.
#ifndef COMMANDS_H
#define COMMANDS_H

#include <QtDBus/QDBusConnection>

#include "Outcome.h"

struct CommandLine;

/** Carries out any command but "watch", and waits for the service's answer. */
Outcome runCommand(const QDBusConnection &bus, const CommandLine &line);

/** Adds which phone is connected and whether it plays, or nothing where BlueZ may not be asked,
 *  which is looked for on this bus, the service's, and then on the system bus. */
void addPhone(QDBusConnection bus, Outcome *outcome);

/**
 * Tells whether the service runs and then, line by line, its signals and its coming and going.
 * Returns the exit status when the bus is gone or nobody reads any more; at SIGINT, SIGTERM, or
 * when nothing can be written, the process ends.
 */
int watch(const QDBusConnection &bus, bool json);

#endif
