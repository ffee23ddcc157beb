#include "Faults.h"

#include "Words.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

// NAME=WHAT needs a value, NAME[=WHAT] may have one; all but a NAME are numbers.
const QStringList OfPrograms {"exit=STATUS", "hang", "crash", "ignore-term", "delay=MS", "missing"};
const QStringList OfBluetoothd {"name-delay=MS", "no-name", "adapter-delay=MS", "no-adapter"};
const QStringList OfMethods {"error[=NAME]", "delay=MS", "never"};
const QStringList OfSoundManager {"absent", "refuse[=MS]", "delay=MS", "never"};
const QStringList Programs {"bluetoothd", "agent",      "hciconfig",  "sdptool",
                            "modprobe",   "connmanctl", "pulseaudio", "pactl"};

bool stands(const QString &behaviour)
{
    static const QStringList standing {"missing", "absent",        "name-delay",
                                       "no-name", "adapter-delay", "no-adapter"};
    return standing.contains(behaviour);
}

/// The whole number of \p word when it is "KEY=NUMBER", else -1.
int numberOf(const QString &word, const QString &key)
{
    bool ok = false;
    const int number = word.section('=', 1).toInt(&ok);
    return ok && number >= 0 && word.section('=', 0, 0) == key ? number : -1;
}

bool parseBehaviour(const QString &word, const QStringList &known, Faults::Behaviour *behaviour)
{
    static const QRegularExpression form("^([a-z-]+)(\\[?=([A-Z]+)\\]?)?$");
    const QString name = word.section('=', 0, 0);
    for (const QString &text : known) {
        const QRegularExpressionMatch match = form.match(text);
        if (match.captured(1) != name)
            continue;
        const QString value = match.captured(3);
        const bool fits = word.contains('=')
            ? (value == "NAME" ? word.size() > name.size() + 1 : numberOf(word, name) >= 0)
            : value.isEmpty() || text.contains('[');
        *behaviour = {name, word.section('=', 1)};
        return fits && !(value.isEmpty() && word.contains('='));
    }
    return false;
}

} // namespace

QStringList Faults::targets()
{
    return Programs + QStringList {"soundmanager"};
}

QStringList Faults::behavioursOf(const QString &target)
{
    static const QRegularExpression method("^bluez:[A-Z][A-Za-z]+\\.[A-Z][A-Za-z]+$");
    if (target == "soundmanager")
        return OfSoundManager;
    if (method.match(target).hasMatch())
        return OfMethods;
    const QString program = target.section(':', 0, 0);
    if (!Programs.contains(program))
        return {};
    return program == "bluetoothd" ? OfPrograms + OfBluetoothd : OfPrograms;
}

QString Faults::add(const QStringList &words)
{
    QString target = words.value(0);
    target.replace("bluez:org.bluez.", "bluez:");
    const QStringList known = behavioursOf(target);
    if (target.startsWith("bluez:") && known.isEmpty())
        return '"' + target.mid(6) + "\" is not Interface.Method";
    if (known.isEmpty())
        return unknownWord("program", target.section(':', 0, 0), targets());

    Fault fault;
    int next = 1;
    for (; next < words.size() && !parseBehaviour(words[next], known, &fault.behaviour); ++next)
        target += ' ' + words[next];
    if (next == words.size())
        return "its behaviours are " + known.join(' ');
    const bool isMethod = target.startsWith("bluez:");
    fault.target = isMethod ? target : target.section(':', 0, 0);
    fault.argument = isMethod ? QString() : target.section(':', 1);
    for (const QString &word : words.mid(next + 1)) {
        const int times = numberOf(word, "times");
        const int after = numberOf(word, "after");
        if (times < 0 && after < 0)
            return '"' + word + "\" is neither times=N nor after=N";
        if (times >= 0)
            fault.times = times;
        else
            fault.after = after;
    }
    const bool standing = stands(fault.behaviour.name);
    if (isMethod ? target.contains(' ') : target.contains(' ') && fault.argument.isEmpty())
        return "its behaviours are " + known.join(' ');
    if (standing && (!fault.argument.isEmpty() || words.size() > next + 1))
        return fault.behaviour.name + " holds always, until the fault is cleared";

    const auto isReplaced = [&](const Fault &other) {
        return other.target == fault.target && other.argument == fault.argument
            && stands(other.behaviour.name) == standing
            && (!standing || other.behaviour.name == fault.behaviour.name);
    };
    m_faults.erase(std::remove_if(m_faults.begin(), m_faults.end(), isReplaced), m_faults.end());
    m_faults.append(fault);
    return {};
}

QString Faults::clear(const QString &target)
{
    if (!target.isEmpty() && target != "bluez" && behavioursOf(target).isEmpty())
        return unknownWord("program", target, targets() + QStringList {"bluez"});
    const auto isMeant = [&](const Fault &fault) {
        const QString full =
            fault.argument.isEmpty() ? fault.target : fault.target + ':' + fault.argument;
        return target.isEmpty() || fault.target == target || full == target
            || fault.target.startsWith(target + ':');
    };
    m_faults.erase(std::remove_if(m_faults.begin(), m_faults.end(), isMeant), m_faults.end());
    return {};
}

Faults::Behaviour Faults::next(const QString &target, const QString &arguments)
{
    for (Fault &fault : m_faults) {
        if (fault.target != target || stands(fault.behaviour.name)
            || !arguments.contains(fault.argument))
            continue;
        if (fault.after > 0) {
            --fault.after;
        } else if (fault.times != 0) {
            fault.times = qMax(-1, fault.times - 1);
            return fault.behaviour;
        }
    }
    return {};
}

Faults::Behaviour Faults::standing(const QString &target, const QString &name) const
{
    for (const Fault &fault : m_faults) {
        if (fault.target == target && fault.behaviour.name == name)
            return fault.behaviour;
    }
    return {};
}
