#ifndef FACES_H
#define FACES_H

/**
 * The virtual BlueZ 4 daemon with its phones: owns org.bluez on the system bus until SIGTERM.
 * Returns the exit status; 1 when there is no hub, no system bus, or org.bluez has an owner.
 */
int bluetoothdMain(int argc, char **argv);

/**
 * The virtual pairing agent:
 * agent --path PATH --delay SECONDS --capabilites CAPABILITY PIN
 * Returns the exit status; 1 when it cannot register with the daemon.
 */
int agentMain(int argc, char **argv);

#endif
