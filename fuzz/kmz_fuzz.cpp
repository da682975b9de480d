// libFuzzer target: KMZ archives held in memory through CKmzIo::ReadMemory (the archive is
// unpacked into a temporary folder that goes with the scene or at once).
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/kmz/CKmzIo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CKmzIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) (void)scene->MemoryBytes();
    return 0;
}
