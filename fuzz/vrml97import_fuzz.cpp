// Fuzz target for the VRML97 import: the input is read from memory through
// CVrml97Io::ReadMemory (gzip detection, the engine's parse, the conversion into a
// host scene, the outcome codes); nothing touches the file system.
#include <cstddef>
#include <cstdint>

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    theSystem = &g_quiet;
    CFileIo io(CXStringW(L""));
    CVrml97Io parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    C3DScene* scene = parser.ReadMemory({data, size}, options);
    if (scene) {
        // Touch what the writers would walk.
        (void)scene->GetBoundingBox();
        (void)scene->MemoryBytes();
    }
    delete scene;
    return 0;
}
