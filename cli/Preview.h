#pragma once
// orbiscope preview / thumbnails: pictures of scenes through the host's renderer.
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class C3DScene;

// Reads `path` the way `info` does (one sentence on stderr when it fails) and returns
// the exit status; on success `format` names the format that read it.
using PreviewSceneReader = std::function<int(const std::string& path, const std::string& fromID,
                                             std::unique_ptr<C3DScene>& scene, std::string& format)>;

// `command` is "preview" or "thumbnails"; `args` follow it. `cancel` is the flag a Ctrl-C
// sets (thumbnails then starts no further file). Returns the exit status.
int RunPreviewCommand(const std::string& command, const std::vector<std::string>& args, int verbosity,
                      const std::atomic<bool>* cancel, const PreviewSceneReader& read);

// The usage lines of both commands (for the CLI's --help).
extern const char* const kPreviewUsage;
