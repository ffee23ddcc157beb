#include "Clock.h"
#include "Measurements.h"
#include "PhoneVisits.h"
#include "ProcessFigures.h"

namespace {

/// What may not grow.
struct Holdings
{
    double memory; ///< KiB
    double things; ///< descriptors, threads and children
};

Holdings holdingsOf(pid_t pid)
{
    waitUntilIdle(pid);
    return {memoryOf(pid).resident, double(descriptorsOf(pid) + threadsOf(pid) + childrenOf(pid))};
}

Row grown(const Row &row, double after, double before)
{
    Repetitions once;
    once.add(after, before);
    return once.row(row);
}

} // namespace

QVector<Row> measureVisits(const Effort &effort)
{
    ProductControl product;
    Rig service;
    PhoneVisits phone(service, product);
    const pid_t pid = service.subject().pid();
    Holdings before = {};
    // The first ones fill what is filled only once.
    const int warmUp = effort.visits / 4;
    for (int visit = 0; visit < effort.visits; ++visit) {
        if (visit == warmUp)
            before = holdingsOf(pid);
        phone.arrive();
        phone.leave();
        service.subject().dropLines();
    }
    const Holdings after = holdingsOf(pid);
    const int counted = effort.visits - warmUp;
    const QString visits = QString("over %1 visits").arg(counted);

    // A timer left running shows itself within its interval, of which none is longer than 10 s.
    const double seconds = effort.brief ? 1 : 11;
    const long switches = switchesOf(pid);
    sleepFor(seconds);
    const double wakeUps = double(switchesOf(pid) - switches);

    // Until the allocator's free lists have settled, a page comes now and then.
    const double settlingKiB = 32;
    Row memory = grown({"memory growth " + visits, "the same service before them", "KiB",
                        Row::Comparison::Difference, settlingKiB},
                       after.memory, before.memory);
    memory.note =
        QString("%1 bytes a visit").arg((after.memory - before.memory) * 1024 / counted, 0, 'f', 0);
    return {memory,
            grown({"descriptors, threads, children " + visits, "the same service before them",
                   QString(), Row::Comparison::Difference, 0},
                  after.things, before.things),
            grown({"timers left: wake-ups in " + QString::number(seconds) + " s after them", "none",
                   QString(), Row::Comparison::Absolute, 0},
                  wakeUps, 0)};
}
