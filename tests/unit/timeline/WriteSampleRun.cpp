// write-sample-run OUT: the journal and the sound of a made-up run, to try the timeline with.
#include "SampleRun.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2 || !writeRoadOfOnePhone(argv[1])) {
        std::fprintf(stderr, "usage: write-sample-run OUT\n");
        return 2;
    }
    return 0;
}
