// Measures the service against its baselines and prints one table. Runs inside the virtual product
// only: the service kills processes by what their command lines contain.

#include "CannotMeasure.h"
#include "Measurements.h"
#include "Table.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>

#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

namespace {

struct Measurement
{
    const char *name;
    QVector<Row> (*measure)(const Effort &effort);
};

const Measurement Measurements[] = {
    {"getstatus", measureGetStatus}, {"start", measureStart},   {"memory", measureMemory},
    {"idle", measureIdle},           {"signal", measureSignal}, {"bring-up", measureBringUp},
    {"crash", measureCrash},         {"play", measurePlay},     {"visits", measureVisits}};

const int UsualVisits = 150;
const int BriefVisits = 4;

bool isInsideProduct()
{
    return QFile::symLinkTarget("/proc/1/exe").endsWith("/enter-namespaces");
}

QStringList names()
{
    QStringList all;
    for (const Measurement &measurement : Measurements)
        all.append(measurement.name);
    return all;
}

/// Measures all or the one of that name. False when something could not be measured.
bool measureAll(const QString &only, const Effort &effort, QVector<Row> *rows)
{
    bool complete = true;
    for (const Measurement &measurement : Measurements) {
        if (!only.isEmpty() && only != measurement.name)
            continue;
        if (isatty(STDERR_FILENO))
            fprintf(stderr, "\rMeasuring %-12s", measurement.name);
        try {
            rows->append(measurement.measure(effort));
        } catch (const CannotMeasure &failure) {
            fprintf(stderr, "%s cannot be measured: %s\n", measurement.name, failure.what());
            complete = false;
        }
    }
    if (isatty(STDERR_FILENO))
        fputs("\r                      \r", stderr);
    return complete;
}

int fail(const QString &text)
{
    fprintf(stderr, "measure: %s\n", qPrintable(text));
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Speed and memory of the service against baselines measured in the same run.");
    parser.addHelpOption();
    const QCommandLineOption json("json", "Print the figures for keeping.");
    const QCommandLineOption only("only", "Measure one of: " + names().join(", ") + '.', "name");
    const QCommandLineOption brief("short", "Only see whether everything can be measured.");
    const QCommandLineOption visits("visits", "Visits of a phone, half a second each.", "number",
                                    QString::number(UsualVisits));
    parser.addOptions({json, only, brief, visits});
    parser.process(application);

    Effort effort;
    effort.brief = parser.isSet(brief);
    effort.visits = parser.value(visits).toInt();
    if (effort.brief && !parser.isSet(visits))
        effort.visits = BriefVisits;
    if (effort.visits < 1)
        return fail("--visits takes a number");
    if (parser.isSet(only) && !names().contains(parser.value(only)))
        return fail("--only takes one of " + names().join(", "));
    if (!isInsideProduct())
        return fail("runs inside the virtual product only; see bench/run");

    // Where it is allowed, so that the rest of the machine takes less part. Everything that is
    // measured inherits it.
    setpriority(PRIO_PROCESS, 0, -10);

    QVector<Row> rows;
    const bool complete = measureAll(parser.value(only), effort, &rows);
    fputs(parser.isSet(json) ? jsonOf(rows).constData() : qPrintable(tableOf(rows)), stdout);
    return complete ? 0 : 1;
}
