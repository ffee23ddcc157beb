#ifndef SHELLCOMMAND_H
#define SHELLCOMMAND_H

#include <QtCore/QByteArray>

/**
 * Runs a command through the shell and waits for its end. Returns the raw wait status as system()
 * does: 0 for success, 256 for exit status 1; or -1 when no shell could be started. A command that
 * hangs is killed after 30 s, with all that it has started, and its status is then SIGKILL's, 9.
 * What the command prints is dropped: standard output and error of the service are its own. Signals
 * to the service are handled meanwhile.
 */
int runShellCommand(const QByteArray &command);

#endif
