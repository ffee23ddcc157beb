#include "Faults.h"

#include "Words.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

const QStringList Programs {"bluetoothd", "agent",      "hciconfig",  "sdptool",
                            "modprobe",   "connmanctl", "pulseaudio", "pactl"};
const QStringList Standing {"missing", "absent",        "name-delay",
                            "no-name", "adapter-delay", "no-adapter"};

/// Whether \p word is one of \p known, which say where a value has its place and what it is.
bool isOneOf(const QStringList &known, const QString &word)
{
    return std::any_of(known.begin(), known.end(), [&word](QString form) {
        form.replace("[", "(").replace("]", ")?").replace("NAME", "\\S+");
        form.replace(QRegularExpression("MS|STATUS|N$"), "\\d+");
        return QRegularExpression(QRegularExpression::anchoredPattern(form)).match(word).hasMatch();
    });
}

} // namespace

QStringList Faults::targets()
{
    return Programs + QStringList {"soundmanager"};
}

QStringList Faults::behavioursOf(const QString &target)
{
    static const QRegularExpression method("^bluez:[A-Z][A-Za-z]+\\.[A-Z][A-Za-z]+$");
    const QString program = target.section(':', 0, 0);
    QStringList ofProgram {"exit=STATUS", "hang", "crash", "ignore-term", "delay=MS", "missing"};
    if (target == "soundmanager")
        return {"absent", "refuse[=MS]", "delay=MS", "never"};
    if (method.match(target).hasMatch())
        return {"error[=NAME]", "delay=MS", "never"};
    if (program == "bluetoothd")
        ofProgram += {"name-delay=MS", "no-name", "adapter-delay=MS", "no-adapter"};
    return Programs.contains(program) ? ofProgram : QStringList();
}

QString Faults::add(const QStringList &words)
{
    const QStringList known = behavioursOf(words.value(0));
    if (known.isEmpty())
        return words.value(0).startsWith("bluez:")
            ? '"' + words.at(0).mid(6) + "\" is not Interface.Method"
            : unknownWord("program", words.value(0).section(':', 0, 0), targets());

    // The argument of a program may have blanks.
    int place = 1;
    while (place < words.size() && !isOneOf(known, words.at(place)))
        ++place;
    const QString target = words.mid(0, place).join(' ');
    const bool isMethod = target.startsWith("bluez:");
    if (place == words.size() || (place > 1 && (isMethod || !target.contains(':'))))
        return "its behaviours are " + known.join(' ');

    Fault fault;
    fault.target = isMethod ? target : target.section(':', 0, 0);
    fault.argument = isMethod ? QString() : target.section(':', 1);
    const QString behaviour = words.at(place);
    fault.behaviour = {behaviour.section('=', 0, 0), behaviour.section('=', 1)};
    fault.stands = Standing.contains(fault.behaviour.name);
    for (const QString &word : words.mid(place + 1)) {
        if (!isOneOf({"times=N", "after=N"}, word))
            return '"' + word + "\" is neither times=N nor after=N";
        int &count = word.startsWith("times") ? fault.times : fault.after;
        count = word.section('=', 1).toInt();
    }
    if (fault.stands && (!fault.argument.isEmpty() || fault.times >= 0 || fault.after > 0))
        return fault.behaviour.name + " holds always, until the fault is cleared";

    const auto isReplaced = [&fault](const Fault &other) {
        return other.target == fault.target && other.argument == fault.argument
            && other.stands == fault.stands
            && (!fault.stands || other.behaviour.name == fault.behaviour.name);
    };
    m_faults.erase(std::remove_if(m_faults.begin(), m_faults.end(), isReplaced), m_faults.end());
    m_faults.append(fault);
    return {};
}

QString Faults::clear(const QString &target)
{
    if (!target.isEmpty() && target != "bluez" && behavioursOf(target).isEmpty())
        return unknownWord("program", target, targets() + QStringList {"bluez"});
    const auto isMeant = [&target](const Fault &fault) {
        return target.isEmpty()
            || (fault.target + ':' + fault.argument + ':').startsWith(target + ':');
    };
    m_faults.erase(std::remove_if(m_faults.begin(), m_faults.end(), isMeant), m_faults.end());
    return {};
}

Faults::Behaviour Faults::next(const QString &target, const QString &arguments)
{
    for (Fault &fault : m_faults) {
        if (fault.target != target || fault.stands || !arguments.contains(fault.argument))
            continue;
        if (fault.after > 0) {
            --fault.after;
        } else if (fault.times != 0) {
            --fault.times;
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
