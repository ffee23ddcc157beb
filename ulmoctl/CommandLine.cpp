#include "CommandLine.h"

#include <getopt.h>
#include <stdio.h>

#include <QtCore/QStringList>

const char HelpText[] =
    "Usage: ulmoctl [OPTION]... COMMAND [ARGUMENT]\n"
    "Control the Bluetooth audio service of this board.\n"
    "\n"
    "  status             tell whether Bluetooth is enabled and on, and the PIN\n"
    "  on [--wait]        enable Bluetooth; with --wait, return when it is on\n"
    "  off                disable Bluetooth\n"
    "  pin PIN            set the pairing PIN, four digits; forgets every device\n"
    "  volume LEVEL       set the volume of the Bluetooth sound, 0 to 100\n"
    "  mute, unmute       silence the Bluetooth sound, let it be heard again\n"
    "  disconnect         disconnect the connected device\n"
    "  forget ADDRESS     forget a device, which must then pair again\n"
    "  forget --all       forget every device\n"
    "  watch              print the service's signals as they come, until Ctrl-C\n"
    "\n"
    "  --json             print JSON, one object per line\n"
    "  --timeout SECONDS  wait this long for an answer, 1 to 3600\n"
    "  -h, --help         print this help\n"
    "  --version          print the version\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 service not\n"
    "reachable, 4 no answer in time. More in the manual: man ulmoctl\n";

namespace {

struct Syntax
{
    const char *command;
    const char *argument; // what is missing, when it is; 0 for a command without one
};

const Syntax Syntaxes[] = {
    {"status", 0},
    {"on", 0},
    {"off", 0},
    {"pin", "the new PIN"},
    {"volume", "a level from 0 to 100"},
    {"mute", 0},
    {"unmute", 0},
    {"disconnect", 0},
    {"forget", "the address of a device, or --all"},
    {"watch", 0},
};

const Syntax *syntaxOf(const QString &command)
{
    for (const Syntax &syntax : Syntaxes) {
        if (command == QLatin1String(syntax.command))
            return &syntax;
    }
    return 0;
}

void hintAtHelp()
{
    fputs("Try 'ulmoctl --help' for more information.\n", stderr);
}

bool mistake(const QString &text)
{
    fprintf(stderr, "ulmoctl: %s\n", text.toUtf8().constData());
    hintAtHelp();
    return false;
}

bool takeTimeout(const char *text, CommandLine *line)
{
    bool ok;
    const int seconds = QString::fromUtf8(text).toInt(&ok);
    line->timeout = seconds * 1000;
    return ok && seconds >= 1 && seconds <= 3600;
}

// Options may stand anywhere, as the C library has it; what remains begins at optind.
bool takeOptions(int argc, char **argv, CommandLine *line)
{
    enum { Json = 1, Wait, All, Timeout, Version };
    const option options[] = {
        {"json", no_argument, 0, Json},
        {"wait", no_argument, 0, Wait},
        {"all", no_argument, 0, All},
        {"timeout", required_argument, 0, Timeout},
        {"help", no_argument, 0, 'h'},
        {"version", no_argument, 0, Version},
        {0, 0, 0, 0},
    };
    line->wish = CommandLine::RunCommand;
    for (;;) {
        switch (getopt_long(argc, argv, "h", options, 0)) {
        case -1:
            return true;
        case Json:
            line->json = true;
            break;
        case Wait:
            line->wait = true;
            break;
        case All:
            line->all = true;
            break;
        case Timeout:
            if (!takeTimeout(optarg, line))
                return mistake(QLatin1String("--timeout takes seconds, from 1 to 3600"));
            break;
        case 'h':
            line->wish = CommandLine::ShowHelp;
            return true;
        case Version:
            line->wish = CommandLine::ShowVersion;
            return true;
        default: // getopt_long has told it
            hintAtHelp();
            return false;
        }
    }
}

bool takeVolume(CommandLine *line)
{
    if (line->argument.endsWith(QLatin1Char('%')))
        line->argument.chop(1);
    bool ok;
    line->argument.toInt(&ok);
    return ok;
}

} // namespace

bool parseCommandLine(int argc, char **argv, CommandLine *line)
{
    if (!takeOptions(argc, argv, line))
        return false;
    if (line->wish != CommandLine::RunCommand)
        return true;

    QStringList words;
    for (int i = optind; i < argc; ++i)
        words << QString::fromUtf8(argv[i]);
    if (words.isEmpty())
        return mistake(QLatin1String("no command"));
    line->command = words.takeFirst();
    const Syntax *syntax = syntaxOf(line->command);
    if (!syntax)
        return mistake(QString::fromLatin1("unknown command '%1'").arg(line->command));

    if (line->wait && line->command != QLatin1String("on"))
        return mistake(QLatin1String("--wait goes only with 'on'"));
    if (line->all && line->command != QLatin1String("forget"))
        return mistake(QLatin1String("--all goes only with 'forget'"));
    if (line->timeout && line->command == QLatin1String("watch"))
        return mistake(QLatin1String("--timeout does not go with 'watch'"));

    if (syntax->argument && !line->all) {
        if (words.isEmpty()) {
            return mistake(QString::fromLatin1("'%1' needs %2")
                               .arg(line->command, QLatin1String(syntax->argument)));
        }
        line->argument = words.takeFirst();
    }
    if (!words.isEmpty())
        return mistake(QString::fromLatin1("too many arguments: '%1'").arg(words.first()));
    if (line->command == QLatin1String("volume") && !takeVolume(line))
        return mistake(QLatin1String("the volume must be a number from 0 to 100"));
    return true;
}
