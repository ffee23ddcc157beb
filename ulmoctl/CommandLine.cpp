#include "CommandLine.h"

#include <QtCore/QRegExp>

const char HelpText[] =
    "Usage: ulmoctl [OPTION]... COMMAND [ARGUMENT]\n"
    "Control the Bluetooth audio service of this board.\n"
    "\n"
    "  status             tell whether Bluetooth is on, the PIN and the phone\n"
    "  on [--wait]        enable Bluetooth; with --wait, return when it is on\n"
    "  off                disable Bluetooth\n"
    "  pin PIN            set the pairing PIN, four digits; forgets every device\n"
    "  volume LEVEL       set the volume of the Bluetooth sound, 0 to 100\n"
    "  mute, unmute       silence the Bluetooth sound, let it be heard again\n"
    "  disconnect         disconnect the connected device\n"
    "  forget ADDRESS     forget a device, which must then pair again\n"
    "  forget --all       forget every device\n"
    "  watch              print the service's signals as they come, until Ctrl-C\n"
    "  help               print this help\n"
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
    {"help", 0},
};

const Syntax *syntaxOf(const QString &command)
{
    for (const Syntax &syntax : Syntaxes) {
        if (command == QLatin1String(syntax.command))
            return &syntax;
    }
    return 0;
}

// A word such as "-5" is no option, so that the mistake in "volume -5" is told as what it is.
bool isOption(const QString &word)
{
    return word.length() > 1 && word.startsWith(QLatin1Char('-')) && !word.at(1).isDigit();
}

QString takeOption(const QString &option, QStringList *arguments, CommandLine *line)
{
    const QString name = option.section(QLatin1Char('='), 0, 0);
    const bool hasValue = name != option;
    if (name == QLatin1String("--timeout")) {
        QString value = option.section(QLatin1Char('='), 1);
        if (!hasValue && !arguments->isEmpty())
            value = arguments->takeFirst();
        line->timeout = value.toInt() * 1000;
        if (value.toInt() < 1 || value.toInt() > 3600)
            return QLatin1String("--timeout takes seconds, from 1 to 3600");
    } else if (name == QLatin1String("--json") && !hasValue) {
        line->json = true;
    } else if (name == QLatin1String("--wait") && !hasValue) {
        line->wait = true;
    } else if (name == QLatin1String("--all") && !hasValue) {
        line->all = true;
    } else if (name == QLatin1String("--version") && !hasValue) {
        line->wish = CommandLine::ShowVersion;
    } else if (option == QLatin1String("--help") || option == QLatin1String("-h")) {
        line->wish = CommandLine::ShowHelp;
    } else {
        return QString::fromLatin1("unknown option '%1'").arg(option);
    }
    return QString();
}

// Options that go with some commands only.
QString misplacedOption(const CommandLine &line)
{
    if (line.wait && line.command != QLatin1String("on"))
        return QLatin1String("--wait goes only with 'on'");
    if (line.all && line.command != QLatin1String("forget"))
        return QLatin1String("--all goes only with 'forget'");
    if (line.timeout && line.command == QLatin1String("watch"))
        return QLatin1String("--timeout does not go with 'watch'");
    return QString();
}

QString takeArgument(const QString &argument, CommandLine *line)
{
    line->argument = argument;
    if (line->command == QLatin1String("volume")) {
        if (argument.endsWith(QLatin1Char('%')))
            line->argument.chop(1);
        bool isNumber;
        const int volume = line->argument.toInt(&isNumber);
        if (!isNumber || volume < 0 || volume > 100)
            return QLatin1String("the volume must be a number from 0 to 100");
    }
    if (line->command == QLatin1String("forget")) {
        const QRegExp address(QLatin1String("[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5}"));
        if (!address.exactMatch(argument))
            return QString::fromLatin1("'%1' is no address such as 00:11:22:AA:BB:CC")
                .arg(argument);
    }
    return QString();
}

} // namespace

QString parseCommandLine(QStringList arguments, CommandLine *line)
{
    QStringList words;
    while (!arguments.isEmpty()) {
        const QString argument = arguments.takeFirst();
        if (argument == QLatin1String("--")) {
            words << arguments;
            break;
        }
        if (!isOption(argument)) {
            words << argument;
            continue;
        }
        const QString mistake = takeOption(argument, &arguments, line);
        if (!mistake.isEmpty() || line->wish != CommandLine::RunCommand)
            return mistake;
    }
    if (words.isEmpty())
        return QLatin1String("no command");
    line->command = words.takeFirst();
    const Syntax *syntax = syntaxOf(line->command);
    if (!syntax)
        return QString::fromLatin1("unknown command '%1'").arg(line->command);
    if (line->command == QLatin1String("help"))
        line->wish = CommandLine::ShowHelp;

    QString mistake = misplacedOption(*line);
    if (mistake.isEmpty() && syntax->argument && !line->all) {
        if (words.isEmpty())
            return QString::fromLatin1("'%1' needs %2")
                .arg(line->command, QLatin1String(syntax->argument));
        mistake = takeArgument(words.takeFirst(), line);
    }
    if (mistake.isEmpty() && !words.isEmpty())
        return QString::fromLatin1("too many arguments: '%1'").arg(words.first());
    return mistake;
}
