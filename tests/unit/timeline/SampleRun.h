#ifndef SAMPLERUN_H
#define SAMPLERUN_H

#include <QString>
#include <QStringList>
#include <QVector>

// Journals as the virtual product leaves them, made up for the tests and for looking at.

/// The road of one phone from pairing to silence, with most of what can go wrong on the way.
bool writeRoadOfOnePhone(const QString &folder);

/// At least \p entryCount entries in ten minutes: phones that come and go.
bool writeLongRun(const QString &folder, int entryCount);

/// One run of the service after the other, each with the log messages given for it.
bool writeServiceRuns(const QString &folder, const QVector<QStringList> &messages);

/// Texts that would break out of the page if they were not escaped, and lines that are no entries.
bool writeHostileRun(const QString &folder);

/// A journal without any entry.
bool writeEmptyRun(const QString &folder);

#endif
