#include "ShellCommand.h"

#include <stdlib.h>

int runShellCommand(const QByteArray &command)
{
    return system(command.constData());
}

void killStaleDaemons()
{
    for (const char *program : {"/usr/bin/pulseaudio", "/usr/bin/agent", "/usr/sbin/bluetoothd"})
        runShellCommand(QByteArray("ps | grep ") + program
                        + " | grep -v grep | xargs | cut -f1 -d' ' | xargs kill -s 9");
}
