// libFuzzer target: LXO bytes through CLxoIo::ReadMemory (the whole scene build).
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/lxo/CLxoIo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) (void)scene->MemoryBytes();
    return 0;
}
