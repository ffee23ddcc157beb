#ifndef JOURNALTEXT_H
#define JOURNALTEXT_H

#include <QJsonObject>
#include <QString>

/**
 * A journal entry as one line for people: time, lane and what happened. With \p colour, for a
 * terminal, log lines show their level: errors red, warnings yellow, traces dim.
 */
QString journalText(const QJsonObject &entry, bool colour = false);

/// Whether an entry is only the buses' own bookkeeping, which people need not see.
bool isBusBookkeeping(const QJsonObject &entry);

#endif
