#include "ControlMain.h"
#include "Faces.h"
#include "HubMain.h"

#include <cstdio>
#include <cstring>

// One program, several faces, by the name it is called under.
int main(int argc, char **argv)
{
    struct Face
    {
        const char *name;
        int (*main)(int argc, char **argv);
    };
    const Face faces[] = {{"product", hubMain},
                          {"bluetoothd", bluetoothdMain},
                          {"agent", agentMain},
                          {"product-control", controlMain}};
    const char *slash = strrchr(argv[0], '/');
    const char *name = slash ? slash + 1 : argv[0];
    for (const Face &face : faces) {
        if (strcmp(name, face.name) == 0)
            return face.main(argc, argv);
    }
    fprintf(stderr, "%s: called under a name that is not one of its faces\n", name);
    return 2;
}
