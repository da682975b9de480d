// libFuzzer target: STL bytes (binary or ASCII) through CStlIo::ReadMemory.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/mesh/CStlIo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CStlIo parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) (void)scene->MemoryBytes();
    return 0;
}
