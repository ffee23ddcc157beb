#include "Measurements.h"
#include "PhoneVisits.h"
#include "ProcessFigures.h"
#include "ShellCommands.h"

QVector<Row> measurePlay(const Effort &effort)
{
    const double pollsMs = 200; // two steps of 100 ms, by the service's timers
    ProductControl product;
    Rig service;
    PhoneVisits phone(service, product);
    Repetitions repetitions;
    for (int i = 0; i < effort.repetitions(20); ++i) {
        const double measured = phone.arrive();
        // The stand-ins answer as they do for the service while the phone is there.
        const double alone = timeAlone(soundPathCommands(PhoneVisits::sourceName()));
        phone.leave();
        waitUntilIdle(service.subject().pid());
        repetitions.add(measured * 1000, pollsMs + alone * 1000);
    }
    return {repetitions.row({"\"connected\" to PlayBluetooth, instant tools",
                             "200 ms of polls + its commands alone", "ms",
                             Row::Comparison::Difference, 30})};
}
