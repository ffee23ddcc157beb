// Every command but "watch": one request to the service and what came of it.
#ifndef COMMANDS_H
#define COMMANDS_H

#include <QtDBus/QDBusConnection>

#include "Outcome.h"

struct CommandLine;

/** Carries out the command and waits for the service's answer. */
Outcome runCommand(const QDBusConnection &bus, const CommandLine &line);

#endif
