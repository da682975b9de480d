// libFuzzer target: Collada documents through the host's CColladaIo::ReadMemory.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "plugin/host/ColladaIo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CColladaIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) (void)scene->MemoryBytes();
    return 0;
}
