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
    "  mute               silence the Bluetooth sound\n"
    "  unmute             let the Bluetooth sound be heard again\n"
    "  disconnect         disconnect the connected device\n"
    "  forget ADDRESS     forget a device, or with --all every one\n"
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

const char Busy[] = "a start or stop is in progress, try again in a moment";

const Command Commands[] = {
    {"status", nullptr, nullptr, "GetStatus", QVariant(), "", "the service has no status"},
    {"on", nullptr, "--wait", "SetEnabled", true, "", Busy},
    {"off", nullptr, nullptr, "SetEnabled", false, "Bluetooth is off.", Busy},
    {"pin", "the new PIN", nullptr, "SetPid", QVariant(), "The PIN is %1.",
     "the PIN must be four digits"},
    {"volume", "a level from 0 to 100", nullptr, "SetVolume", QVariant(), "The volume is set.",
     nullptr},
    {"mute", nullptr, nullptr, "SetMute", 1, "The sound is muted.", nullptr},
    {"unmute", nullptr, nullptr, "SetMute", 0, "The sound is not muted.", nullptr},
    {"disconnect", nullptr, nullptr, "DisconnectDevice", QVariant(),
     "The device has been told to disconnect.", "no device is connected"},
    {"forget", "the address of a device, or --all", "--all", "RemoveDevice", QVariant(),
     "BlueZ has been told to forget %1.", "BlueZ cannot be asked, is Bluetooth on?"},
    {"watch", nullptr, nullptr, nullptr, QVariant(), "", ""},
};

const Command *commandNamed(const QString &name)
{
    for (const Command &command : Commands) {
        if (name == command.name)
            return &command;
    }
    return nullptr;
}

QString takeArgument(QString argument, CommandLine *line)
{
    // BlueZ knows its devices by upper-case addresses, and the service passes them on.
    line->argument = argument.toUpper();
    if (line->is("volume")) {
        if (!QRegExp("0*(100|[0-9]{1,2})%?").exactMatch(argument))
            return "the volume must be a number from 0 to 100";
        line->argument = argument.remove('%').toInt();
    }
    if (line->is("forget") && !QRegExp("[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5}").exactMatch(argument))
        return '\'' + argument + "' is no address such as 00:11:22:AA:BB:CC";
    return QString();
}

} // namespace

QString parseCommandLine(QStringList arguments, CommandLine *line)
{
    QStringList words;
    while (!arguments.isEmpty()) {
        const QString word = arguments.takeFirst();
        const QString option = word.section('=', 0, 0);
        if (word == "--") {
            words << arguments;
            break;
        }
        // A word such as "-5" is none, so that the mistake in "volume -5" is told as what it is.
        if (!QRegExp("-[^0-9].*").exactMatch(word)) {
            words << word;
        } else if (option == "--timeout") {
            line->options << option;
            const bool isApart = word == option && !arguments.isEmpty();
            const QString value = isApart ? arguments.takeFirst() : word.section('=', 1);
            const int seconds = value.toInt();
            if (seconds < 1 || seconds > 3600)
                return "--timeout takes seconds, from 1 to 3600";
            line->timeout = seconds * 1000;
        } else {
            line->options << word;
        }
    }
    const bool isHelp = words.value(0) == "help";
    if (isHelp)
        words.removeFirst();
    if (line->has("-h") || line->has("--help") || line->has("--version")
        || (isHelp && (words.isEmpty() || commandNamed(words.first()))))
        return QString();
    if (words.isEmpty())
        return "no command";
    const QString name = words.takeFirst();
    line->command = commandNamed(name);
    if (!line->command)
        return "unknown command '" + name + '\'';
    line->argument = line->command->value;
    for (const QString &option : line->options) {
        const bool isGeneral = option == "--json" || (option == "--timeout" && !line->is("watch"));
        if (!isGeneral && option != line->command->option)
            return '\'' + name + "' does not take " + option;
    }
    const bool takesArgument = line->command->argument && !line->has("--all");
    if (takesArgument && words.isEmpty())
        return '\'' + name + "' needs " + line->command->argument;
    const QString mistake = takesArgument ? takeArgument(words.takeFirst(), line) : QString();
    const bool isMore = mistake.isEmpty() && !words.isEmpty();
    return isMore ? "too many arguments: '" + words.first() + '\'' : mistake;
}
