#include "Faces.h"

#include <cstdio>
#include <cstring>

/// The two programs under test: bluez-faces bluetoothd|agent ARGUMENTS
int main(int argc, char **argv)
{
    if (argc > 1 && std::strcmp(argv[1], "bluetoothd") == 0)
        return bluetoothdMain(argc - 1, argv + 1);
    if (argc > 1 && std::strcmp(argv[1], "agent") == 0)
        return agentMain(argc - 1, argv + 1);
    std::fprintf(stderr, "usage: bluez-faces bluetoothd|agent ...\n");
    return 2;
}
