// Every command but "watch": one request to the service and what came of it.
#ifndef COMMANDS_H
#define COMMANDS_H

#include <QtCore/QString>
#include <QtDBus/QDBusConnection>

#include "ExitStatus.h"
#include "JsonObject.h"

struct CommandLine;

struct Outcome
{
    ExitStatus exitStatus;
    QString text; ///< for people: the result when done, otherwise what went wrong
    const char *hint; ///< for people: what to do about a failure; 0 when there is nothing to say
    JsonObject details; ///< for scripts: what the service answered
};

/** What to tell when there is no session bus. */
Outcome withoutBus(const QDBusConnection &bus);

/** Carries out the command and waits for the service's answer. */
Outcome runCommand(const QDBusConnection &bus, const CommandLine &line);

#endif
