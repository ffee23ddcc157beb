// What was asked for on the command line.
#ifndef COMMANDLINE_H
#define COMMANDLINE_H

#include <QtCore/QStringList>
#include <QtCore/QVariant>

struct Command
{
    const char *name;
    const char *argument; ///< what is missing, when it is; null for a command without one
    const char *option; ///< goes with this one only; null without one
    const char *method; ///< of the service; null for a command that asks it nothing
    QVariant value; ///< what the method gets, where that is no argument of the command
    const char *done; ///< what to tell; %1 is the argument
    const char *refused; ///< the same; null: the status is not the service's own, but that of pactl
};

struct CommandLine
{
    const Command *command = nullptr; ///< null: only print the help, or the version
    QVariant argument; ///< what the method gets; invalid for nothing
    QStringList options;
    int timeout = 0; ///< milliseconds to wait for an answer; 0: what suits the command

    bool is(const char *name) const { return command && qstrcmp(command->name, name) == 0; }
    bool has(const char *option) const { return options.contains(option); }
};

/**
 * Fills in what the arguments ask for, and returns the mistake in them, or an empty text.
 *
 * Only what can never make sense is a mistake: a command, option or argument that is unknown,
 * missing or too many, a volume out of bounds, an address that is none. All else is for the service
 * to say.
 */
QString parseCommandLine(QStringList arguments, CommandLine *line);

/** The text of --help, which fits a terminal of 80 columns and 24 lines. */
extern const char HelpText[];

#endif
