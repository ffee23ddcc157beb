#include "Faults.h"

#include <algorithm>

namespace {

/// Whether \p word says how a program goes wrong, and how that is told to the program.
bool parseBehaviour(const QString &word, QJsonObject *behaviour)
{
    int value = 0;
    if (Faults::number(word, "exit", &value))
        *behaviour = {{"behaviour", "exit"}, {"status", value}};
    else if (Faults::number(word, "delay", &value))
        *behaviour = {{"behaviour", "delay"}, {"milliseconds", value}};
    else if (word == "hang" || word == "crash" || word == "ignore-term" || word == "missing")
        *behaviour = {{"behaviour", word}};
    else
        return false;
    return true;
}

} // namespace

bool Faults::number(const QString &word, const QString &key, int *value)
{
    if (!word.startsWith(key + '='))
        return false;
    bool ok = false;
    const int parsed = word.midRef(key.size() + 1).toInt(&ok);
    if (!ok || parsed < 0)
        return false;
    *value = parsed;
    return true;
}

bool Faults::parse(const QStringList &words, Fault *fault, QString *error)
{
    QStringList target;
    for (const QString &word : words) {
        if (fault->behaviour.isEmpty()) {
            if (target.isEmpty() || !parseBehaviour(word, &fault->behaviour))
                target.append(word);
        } else if (!number(word, "times", &fault->times) && !number(word, "after", &fault->after)) {
            *error = QString("\"%1\" is neither times=N nor after=N").arg(word);
            return false;
        }
    }
    if (fault->behaviour.isEmpty()) {
        *error =
            "no behaviour: exit=STATUS, hang, crash, ignore-term, missing or delay=MILLISECONDS";
        return false;
    }
    const QString joined = target.join(' ');
    fault->program = joined.section(':', 0, 0);
    fault->argument = joined.section(':', 1);
    if (fault->isMissing() && (!fault->argument.isEmpty() || fault->times >= 0 || fault->after)) {
        *error = "a missing program is missing whatever its arguments, until the fault is cleared";
        return false;
    }
    return true;
}

void Faults::add(const Fault &fault)
{
    m_faults.erase(std::remove_if(m_faults.begin(), m_faults.end(),
                                  [&fault](const Fault &other) {
                                      return other.program == fault.program
                                          && other.argument == fault.argument;
                                  }),
                   m_faults.end());
    m_faults.append(fault);
}

void Faults::clear(const QString &program)
{
    m_faults.erase(std::remove_if(m_faults.begin(), m_faults.end(),
                                  [&program](const Fault &fault) {
                                      return program.isEmpty() || fault.program == program;
                                  }),
                   m_faults.end());
}

bool Faults::isMissing(const QString &program) const
{
    return std::any_of(m_faults.begin(), m_faults.end(), [&program](const Fault &fault) {
        return fault.program == program && fault.isMissing();
    });
}

QJsonObject Faults::behaviourOfStart(const QString &program, const QStringList &arguments)
{
    const QString joined = arguments.join(' ');
    for (Fault &fault : m_faults) {
        if (fault.program != program || !joined.contains(fault.argument))
            continue;
        if (fault.after > 0) {
            --fault.after;
        } else if (fault.times != 0) {
            if (fault.times > 0)
                --fault.times;
            return fault.behaviour;
        }
    }
    return QJsonObject();
}
