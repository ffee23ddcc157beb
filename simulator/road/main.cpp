// product-road [--once] [--audio FILE]: inside the virtual product, tells the road of one phone.
// With --once it goes on with a crash of the daemon and an orderly stop. The exit status is 0 only
// when everything happened, and what was heard is what was expected.
#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>
#include <exception>

#include "Road.h"

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.addOptions({{"once", "Go on with a crash, a recovery and an orderly stop."},
                       {"audio", "The phone's music, a WAV file.", "file"}});
    parser.process(application);

    try {
        Observer observer;
        Road road(&observer, parser.value("audio"));
        road.comeOn();
        const bool heard = road.visit();
        if (parser.isSet("once")) {
            road.crashAndRecover();
            road.stop();
        }
        return heard ? 0 : 1;
    } catch (const std::exception &error) {
        fprintf(stderr, "product-road: %s\n", error.what());
        return 1;
    }
}
