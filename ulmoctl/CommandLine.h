// What was asked for on the command line.
#ifndef COMMANDLINE_H
#define COMMANDLINE_H

#include <QtCore/QStringList>

struct CommandLine
{
    enum Wish { RunCommand, ShowHelp, ShowVersion };

    Wish wish = RunCommand;
    QString command; ///< as it was typed, one of those in the help text
    QString argument; ///< the PIN, the volume without its "%", the address; else empty
    bool json = false;
    bool wait = false; ///< only with "on"
    bool all = false; ///< only with "forget"
    int timeout = 0; ///< milliseconds to wait for an answer; 0: what suits the command
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
