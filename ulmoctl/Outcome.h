// What came of a command, for people, for scripts and for the shell.
#ifndef OUTCOME_H
#define OUTCOME_H

#include <QtCore/QString>

#include "Json.h"

enum ExitStatus {
    Done = 0,
    Refused = 1, ///< the service said no, or what it tried has failed
    WrongUsage = 2,
    Unreachable = 3, ///< no bus, or no service on it
    NoAnswer = 4 ///< not in the time allowed
};

struct Outcome
{
    ExitStatus exitStatus;
    QString text; ///< the result when done, otherwise what went wrong
    QString hint; ///< what to do about a failure; empty when there is nothing to say
    JsonObject details; ///< what the service answered
};

inline Outcome failure(ExitStatus exitStatus, const QString &text, const QString &hint = QString())
{
    const Outcome outcome = {exitStatus, text, hint, JsonObject()};
    return outcome;
}

#endif
