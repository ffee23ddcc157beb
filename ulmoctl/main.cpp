// The Bluetooth service at the shell of the board.
#include <stdio.h>

#include <QtCore/QCoreApplication>

#include "CommandLine.h"
#include "Commands.h"
#include "Service.h"

namespace {

// Success goes to standard output and failure to standard error; for scripts, both to the former.
void print(const Outcome &outcome, const CommandLine &line)
{
    const bool isDone = outcome.exitStatus == Done;
    if (line.has("--json")) {
        QStringList members;
        members << jsonMember("command", line.command->name)
                << jsonMember("exitStatus", outcome.exitStatus) << outcome.details;
        if (!isDone)
            members << jsonMember("error", outcome.text);
        puts(jsonObject(members).toUtf8().constData());
    } else if (isDone) {
        puts(outcome.text.toUtf8().constData());
    } else {
        fprintf(stderr, "ulmoctl: %s\n", outcome.text.toUtf8().constData());
        if (!outcome.hint.isEmpty())
            fprintf(stderr, "%s\n", outcome.hint.toUtf8().constData());
    }
}

int run(const QStringList &arguments)
{
    if (arguments.isEmpty()) {
        fputs(HelpText, stderr);
        return WrongUsage;
    }
    CommandLine line;
    const QString mistake = parseCommandLine(arguments, &line);
    if (!mistake.isEmpty()) {
        fprintf(stderr, "ulmoctl: %s\nTry 'ulmoctl --help' for more information.\n",
                mistake.toUtf8().constData());
        return WrongUsage;
    }
    if (!line.command) {
        fputs(line.has("--version") ? "ulmoctl " ULMOCTL_VERSION "\n" : HelpText, stdout);
        return Done;
    }

    const QDBusConnection bus = serviceBus();
    if (bus.isConnected() && line.is("watch"))
        return watch(bus, line.has("--json"));
    const Outcome outcome = bus.isConnected() ? runCommand(bus, line) : withoutBus(bus);
    print(outcome, line);
    return outcome.exitStatus;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const int status = run(application.arguments().mid(1));
    if (fflush(stdout) != 0) {
        perror("ulmoctl: cannot write");
        return Refused;
    }
    return status;
}
