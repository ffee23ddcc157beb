// write-timeline: draws the timeline of a run again, from its journal.
#include "Timeline.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 2 || arguments.at(1).startsWith('-')) {
        std::fprintf(stderr,
                     "usage: write-timeline OUT\n\n"
                     "Writes OUT/timeline.html from OUT/journal.jsonl and OUT/board.raw, which a\n"
                     "run of the virtual product left there.\n");
        return 2;
    }
    QString error;
    if (!writeTimeline(arguments.at(1), &error)) {
        std::fprintf(stderr, "write-timeline: %s\n", qPrintable(error));
        return 1;
    }
    return 0;
}
