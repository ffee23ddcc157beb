#include "Measurements.h"
#include "Rig.h"
#include "ShellCommands.h"

QVector<Row> measureStart(const Effort &effort)
{
    Repetitions repetitions;
    for (int i = 0; i < effort.repetitions(25); ++i) {
        const double measured = Rig().startTime();
        const double minimal = Rig(minimalServiceProgram()).startTime();
        repetitions.add(measured * 1000, (minimal + timeAlone(killPipelines())) * 1000);
    }
    return {repetitions.row({"exec to bus name", "a minimal service + the kill pipelines alone",
                             "ms", Row::Comparison::Difference, 15})};
}
