// libFuzzer target: DXF bytes (ASCII or binary) through CDxfIo::ReadMemory.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/classic/CDxfIo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CDxfIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) (void)scene->MemoryBytes();
    return 0;
}
