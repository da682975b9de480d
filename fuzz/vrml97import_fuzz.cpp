// Fuzz target for the VRML97 import: the input is written to a temporary world
// file and read through CVrml97Io::Read, the way the host reads (gzip detection,
// the engine's parse, the conversion into a host scene, the outcome codes).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "vrml/vrml97/CVrml97Io.h"
#include "vrml/vrml97/System.h"

namespace {
// Diagnostics would swamp the fuzzer's output.
class QuietSystem : public System {
public:
    void error(const char*, ...) override {}
    void warn(const char*, ...) override {}
    void inform(const char*, ...) override {}
};
QuietSystem g_quiet;

// One private folder per process: Inline URLs of the input resolve inside it.
const std::string& WorldPath() {
    static const std::string path = [] {
        CXStringW dir = fileCreateTmpFolder(CXStringW(), L"vrml97import-fuzz-");
        return PathToUtf8(dir) + "/world.wrl";
    }();
    return path;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    theSystem = &g_quiet;
    const std::string& path = WorldPath();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);
    CXStringW wpath(Utf8ToWide(path));
    CFileIo io(wpath);
    CVrml97Io parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    C3DScene* scene = parser.Read(wpath, options);
    if (scene) {
        // Touch what the writers would walk.
        (void)scene->GetBoundingBox();
        (void)scene->MemoryBytes();
    }
    delete scene;
    return 0;
}
