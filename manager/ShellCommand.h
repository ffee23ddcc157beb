#ifndef SHELLCOMMAND_H
#define SHELLCOMMAND_H

#include <QtCore/QByteArray>

/**
 * Runs a command through system() and returns its raw wait status: 0 for success, 256 for exit
 * status 1. What the command prints goes where the service prints. Blocks until the command ends,
 * however long that takes.
 */
int runShellCommand(const QByteArray &command);

/** Kills the sound server, agent and Bluetooth daemon that an earlier run left behind. */
void killStaleDaemons();

#endif
