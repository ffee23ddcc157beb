#ifndef TIMELINE_H
#define TIMELINE_H

#include <QString>

/**
 * Draws a run: writes OUT/timeline.html, one page that needs nothing else, from OUT/journal.jsonl
 * and, where there is one, the board's sound OUT/board.raw. The sound has its place in time only
 * when some entry of the journal tells its own time by CLOCK_MONOTONIC, too, in a field
 * "monotonic" (seconds). Lines of the journal that are no entries are left out, and counted on the
 * page. False, with \p error set, when the journal cannot be read or the page not be written.
 */
bool writeTimeline(const QString &outFolder, QString *error);

#endif
