#pragma once
// Loads the format module with dlopen, the way the browser does, and registers
// its records with the host's parser registry.
#include <cstdint>
#include <string>

struct LoadedModule {
    uint32_t version = 0; // the module's interface version
    std::string path;
};

// Tries $ORBISCOPE_PLUGIN_PATH (a file or a folder), then the lib folder beside the
// binary (../lib), then the binary's own folder. On failure `error` says why.
bool LoadFormatModule(LoadedModule& out, std::string& error);
