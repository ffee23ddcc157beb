#include "Script.h"

#include "DaemonBench.h"

#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QFile>
#include <QRegularExpression>

#include <cstdio>

namespace {

/// How far a delay of product time may be off. Timers never come early, but the line before may be
/// read late; how late they come is the machine's business.
const int MayBeEarly = 500;
const int MayBeLate = 3000;

/// Prints both sequences side by side from shortly before the first difference on. Not through
/// QtTest, which cuts long texts.
void printSideBySide(const QStringList &expected, const QStringList &actual)
{
    int first = 0;
    while (first < qMin(expected.size(), actual.size()) && expected.at(first) == actual.at(first))
        first++;
    std::printf("   %-60s %s\n", "expected", "actual");
    for (int i = qMax(0, first - 8); i < qMax(expected.size(), actual.size()); i++) {
        const QString left = expected.value(i, "-"), right = actual.value(i, "-");
        std::printf("%s %s %s\n", left == right ? "  " : "->", qPrintable(left.leftJustified(60)),
                    qPrintable(right));
    }
    std::fflush(stdout);
}

} // namespace

QVector<Script::Section> Script::sections(const QString &file)
{
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(file));
    QVector<Section> sections;
    for (const QString &part : QString::fromUtf8(input.readAll()).split("\n== ").mid(1))
        sections.append({part.section('\n', 0, 0), part.section('\n', 1)});
    if (sections.isEmpty())
        qFatal("no scripts in %s", qPrintable(file));
    return sections;
}

Script::Script(const QString &text)
{
    for (const QString &whole : text.split('\n')) {
        const QString line = whole.trimmed();
        if (line.startsWith("| "))
            m_lines.last() += line.mid(1);
        else if (!line.isEmpty() && !line.startsWith('#'))
            m_lines.append(line);
    }
}

QString Script::run(DaemonBench &bench)
{
    for (const QString &line : m_lines) {
        if (!line.startsWith("> ")) {
            expect(line);
            continue;
        }
        bench.recorder.waitForLines(m_expected.size());
        settleRaces(bench.recorder.lines());
        // The daemon may have gone on by itself: what is too much is seen at the next lines.
        if (bench.recorder.lines().mid(0, m_expected.size()) != m_expected)
            return compare(bench);
        const QString problem = act(bench, line.mid(2));
        if (!problem.isEmpty())
            return line + ": " + problem;
    }
    bench.recorder.waitForLines(m_expected.size());
    settleRaces(bench.recorder.lines());
    const QString problem = compare(bench);
    return problem.isEmpty() ? compareTimes(bench) : problem;
}

void Script::expect(QString line)
{
    static const QRegularExpression delayed("^\\+(\\d+) ");
    if (line.startsWith("~ ")) {
        m_races.append(m_expected.size());
        line.remove(0, 2);
    }
    const auto match = delayed.match(line);
    m_delays.append(match.hasMatch() ? match.captured(1).toInt() : -1);
    m_expected.append(line.remove(delayed));
}

void Script::settleRaces(const QStringList &actual)
{
    for (int i : qAsConst(m_races)) {
        if (i + 1 < m_expected.size() && actual.value(i) == m_expected.at(i + 1))
            m_expected.swapItemsAt(i, i + 1);
    }
}

QString Script::compare(const DaemonBench &bench) const
{
    if (bench.recorder.lines() == m_expected)
        return QString();
    printSideBySide(m_expected, bench.recorder.lines());
    return "other messages than expected, see above";
}

QString Script::compareTimes(const DaemonBench &bench) const
{
    for (int i = 1; i < m_expected.size(); i++) {
        const int wanted = m_delays.at(i);
        const int actual = int(bench.recorder.millisecondsBefore(i) / bench.scale());
        if (wanted >= 0 && (actual < wanted - MayBeEarly || actual > wanted + MayBeLate))
            return QStringLiteral("%1 ms instead of %2 before: %3")
                .arg(actual)
                .arg(wanted)
                .arg(m_expected.at(i));
    }
    return QString();
}

QString Script::act(DaemonBench &bench, const QString &action)
{
    const QStringList words = action.split(' ');
    const QString verb = words.first();
    bool ok = true;
    QString answer;
    if (verb == "start") {
        ok = bench.startDaemon();
    } else if (verb == "agent") {
        ok = bench.startAgent();
    } else if (verb == "stop") {
        ok = bench.stop(bench.daemon()) == 0;
    } else if (verb == "stop-agent") {
        ok = bench.stop(bench.agent()) == 0;
    } else if (verb == "option") {
        bench.hub.setOptions({{words.at(1), words.at(2)}});
    } else if (verb == "phone" && words.at(2).startsWith("name=")) {
        ok = bench.addPhone(words.at(1), words.at(2));
    } else if (verb == "unit") {
        QVariantList arguments;
        for (const QString &word : words.mid(3)) {
            if (word == "true" || word == "false")
                arguments.append(QVariant::fromValue(QDBusVariant(word == "true")));
            else if (word.startsWith('"'))
                arguments.append(word.mid(1, word.size() - 2));
            else
                arguments.append(QVariant::fromValue(QDBusObjectPath(bench.path(word))));
        }
        bench.begin(words.at(1), words.at(2), arguments);
    } else {
        ok = bench.hub.tell(action, &answer);
    }
    return ok ? QString() : "failed " + answer;
}
