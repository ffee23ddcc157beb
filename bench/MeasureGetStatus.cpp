#include "Measurements.h"
#include "OneProcessor.h"
#include "Rig.h"

namespace {

double medianOfCalls(Rig &rig)
{
    const int calls = 200;
    QVector<double> microseconds;
    for (int i = 0; i < calls; ++i)
        microseconds.append(rig.timeGetStatus() * 1e6);
    rig.subject().dropLines();
    return spreadOf(microseconds).median;
}

} // namespace

QVector<Row> measureGetStatus(const Effort &effort)
{
    const OneProcessor oneProcessor;
    Rig service;
    Rig minimal(minimalServiceProgram());
    // Not counted: the first calls fill caches.
    medianOfCalls(service);
    medianOfCalls(minimal);
    Repetitions repetitions;
    for (int i = 0; i < effort.repetitions(25); ++i) {
        const double measured = medianOfCalls(service);
        repetitions.add(measured, medianOfCalls(minimal));
    }
    return {repetitions.row(
        {"GetStatus round trip", "a minimal adaptor", "us", Row::Comparison::Ratio, 1.1})};
}
