#pragma once
// What the Python module does below Python: load the format module once, pick a format,
// read a file into a scene and write a scene, with the same choices and sentences as the
// command line. Nothing here touches the interpreter.
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "plugin/host/Cancel.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/Options.h"

class C3DScene;

namespace pyorbiscope {

// Loads the format module (once per process): $ORBISCOPE_PLUGIN_PATH, then the folders
// `anchorDirs` name (the extension's own folder and its ../lib). False with `error` set.
bool LoadFormats(const std::vector<std::string>& anchorDirs, std::string& error);

// Outcome of a read or a write: the host's result code (0 on success), the command
// line's exit status and sentence for it, and the options' log.
struct Outcome {
    int result = 0;
    int exitCode = 0;
    std::string message;
    std::vector<IoLogInfo> log;
    std::string format; // description of the format used
};

// Result codes beyond the parsers' own, for failures found before or after a parser runs.
constexpr int RESULT_USAGE = -100;        // no such format ID, unreadable or unwritable format
constexpr int RESULT_CANNOT_WRITE = -101; // the output could not be created or moved into place

struct Hooks {
    std::atomic<bool>* cancel = nullptr;
    ProgressSink progress = nullptr;
    void* user = nullptr;
};

// Reads `path`; `typeID` (four characters, any case) chooses the format instead of the
// extension and the file's first bytes.
std::unique_ptr<C3DScene> ReadFile(const std::string& path, const std::string& typeID, const Hooks& hooks,
                                   Outcome& out);

// Writes `scene` to `path` through a temporary beside it, so a failed write leaves what
// was there. The format from `typeID` or the extension.
bool WriteFile(const C3DScene& scene, const std::string& path, const std::string& typeID, const Hooks& hooks,
               Outcome& out);

} // namespace pyorbiscope
