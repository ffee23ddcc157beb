// The Bluetooth service at the shell of the board.
#include <stdio.h>

#include <QtCore/QCoreApplication>

#include "Bus.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Watch.h"

namespace {

// Success goes to standard output and failure to standard error; for scripts, both to the former.
void print(const Outcome &outcome, const CommandLine &line)
{
    if (line.json) {
        JsonObject object;
        object.add("command", line.command)
            .add("exitStatus", outcome.exitStatus)
            .addMembers(outcome.details);
        if (outcome.exitStatus != Done)
            object.add("error", outcome.text);
        puts(object.toUtf8().constData());
    } else if (outcome.exitStatus == Done) {
        puts(outcome.text.toUtf8().constData());
    } else {
        fprintf(stderr, "ulmoctl: %s\n", outcome.text.toUtf8().constData());
        if (!outcome.hint.isEmpty())
            fprintf(stderr, "%s\n", outcome.hint.toUtf8().constData());
    }
}

int run(int argc, char **argv)
{
    if (argc == 1) {
        fputs(HelpText, stderr);
        return WrongUsage;
    }
    QCoreApplication application(argc, argv);
    CommandLine line;
    const QString mistake = parseCommandLine(application.arguments().mid(1), &line);
    if (!mistake.isEmpty()) {
        fprintf(stderr, "ulmoctl: %s\nTry 'ulmoctl --help' for more information.\n",
                mistake.toUtf8().constData());
        return WrongUsage;
    }
    if (line.wish == CommandLine::ShowHelp) {
        fputs(HelpText, stdout);
        return Done;
    }
    if (line.wish == CommandLine::ShowVersion) {
        puts("ulmoctl " ULMOCTL_VERSION);
        return Done;
    }

    const QDBusConnection bus = connectToBus();
    if (bus.isConnected() && line.command == QLatin1String("watch"))
        return Watch(bus, line.json).run();
    const Outcome outcome = bus.isConnected() ? runCommand(bus, line) : withoutBus(bus);
    print(outcome, line);
    return outcome.exitStatus;
}

} // namespace

int main(int argc, char **argv)
{
    const int status = run(argc, argv);
    if (fflush(stdout) != 0) {
        perror("ulmoctl: cannot write");
        return Refused;
    }
    return status;
}
