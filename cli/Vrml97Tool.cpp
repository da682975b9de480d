#include <cstdio>

#include "cli/ToolCommands.h"

int RunVrml97Command(int, char**) {
    std::fprintf(stderr, "orbiscope: the VRML97 tools are not available yet.\n");
    return 8;
}
