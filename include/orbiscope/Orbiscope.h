#pragma once
// The library's public entry: the scene model, the parser interface and the registry a
// program fills by loading the format module. Link the host library (Orbiscope::host,
// or `pkg-config orbiscope`) and -ldl; the module itself is loaded at run time.
#include <cstdint>
#include <string>

#include "orbiscope/Version.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"

namespace orbiscope {

// Loads the format module at `path` and registers its formats with the host's registry
// (CParserRegistry::Instance()); C3DIo::ReadScene then reads any of them. The module
// stays loaded for the life of the process.
// On failure returns false and says why in `error`.
inline bool LoadModule(const std::string& path, std::string* error = nullptr) {
    std::string why;
    const bool ok = CParserRegistry::Instance().LoadModuleFile(path, why);
    if (!ok && error) *error = why;
    return ok;
}

} // namespace orbiscope
