#include <cstdio>

#include "cli/ToolCommands.h"

int RunLxoCommand(int, char**) {
    std::fprintf(stderr, "orbiscope: the LXO tools are not available yet.\n");
    return 8;
}
