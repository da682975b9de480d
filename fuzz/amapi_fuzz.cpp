// Amapi reader on arbitrary bytes (from memory).
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/classic/CAmapiIo.h"
#include "plugin/host/Scene.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CSceneImportOptions opt;
    CAmapiIo parser(io);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, opt));
    if (scene) scene->GetNodeCount();
    return 0;
}
