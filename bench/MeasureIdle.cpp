#include "Clock.h"
#include "Measurements.h"
#include "PhoneVisits.h"
#include "ProcessFigures.h"

namespace {

/// How often both wake up in the same span of time.
Row wakeUps(const Effort &effort, const QString &what, Rig &service, Rig &minimal)
{
    const pid_t measured = service.subject().pid();
    const pid_t baseline = minimal.subject().pid();
    const double seconds = effort.brief ? 1 : 4;
    waitUntilIdle(measured);
    waitUntilIdle(baseline);
    const long measuredBefore = switchesOf(measured);
    const long baselineBefore = switchesOf(baseline);
    sleepFor(seconds);
    Repetitions repetitions;
    repetitions.add(double(switchesOf(measured) - measuredBefore),
                    double(switchesOf(baseline) - baselineBefore));
    return repetitions.row({"wake-ups in " + QString::number(seconds) + " s, " + what,
                            "a minimal service", QString(), Row::Comparison::Absolute, 0});
}

} // namespace

QVector<Row> measureIdle(const Effort &effort)
{
    ProductControl product;
    Rig service;
    Rig minimal(minimalServiceProgram());
    QVector<Row> rows {wakeUps(effort, "stack off", service, minimal)};
    PhoneVisits phone(service, product);
    rows.append(wakeUps(effort, "stack on", service, minimal));
    phone.arrive();
    phone.play();
    rows.append(wakeUps(effort, "playing", service, minimal));
    phone.leave();
    return rows;
}
