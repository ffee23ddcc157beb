#include "Measurements.h"
#include "ProcessFigures.h"
#include "ProductControl.h"
#include "Rig.h"

QVector<Row> measureMemory(const Effort &effort)
{
    ProductControl product;
    Repetitions resident;
    Repetitions proportional;
    for (int i = 0; i < effort.repetitions(5); ++i) {
        Rig minimal(minimalServiceProgram());
        Rig service;
        service.switchOn();
        waitUntilIdle(service.subject().pid());
        const Memory measured = memoryOf(service.subject().pid());
        const Memory baseline = memoryOf(minimal.subject().pid());
        resident.add(measured.resident, baseline.resident);
        proportional.add(measured.proportional, baseline.proportional);
        service.switchOff();
    }
    const double bar = 1.5 * 1024;
    return {resident.row({"memory, resident, stack on and idle", "a minimal service", "KiB",
                          Row::Comparison::Difference, bar}),
            proportional.row({"memory, proportional share of it", "a minimal service", "KiB",
                              Row::Comparison::Difference, bar})};
}
