#ifndef MEASUREMENTS_H
#define MEASUREMENTS_H

#include "Row.h"

/// How much is done for a figure.
struct Effort
{
    bool brief = false; ///< only as much as shows that it works
    int visits = 0; ///< of a phone, in the last measurement

    int repetitions(int usual) const { return brief ? 2 : usual; }
};

// Each measures what its name says, the service and its baseline in turn, on buses of its own.

QVector<Row> measureGetStatus(const Effort &effort);
QVector<Row> measureStart(const Effort &effort);
QVector<Row> measureMemory(const Effort &effort);
QVector<Row> measureIdle(const Effort &effort);
QVector<Row> measureSignal(const Effort &effort);
QVector<Row> measureBringUp(const Effort &effort);
QVector<Row> measureCrash(const Effort &effort);
QVector<Row> measurePlay(const Effort &effort);
QVector<Row> measureVisits(const Effort &effort);

#endif
