// libFuzzer target: Lightwave object bytes (LWOB, LWLO, LWO2) through CLightwaveIo::ReadMemory,
// then the LWO2 writer on whatever scene comes back.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "formats/classic/CLightwaveIo.h"
#include "formats/classic/LightwaveWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CLightwaveIo parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) {
        (void)scene->MemoryBytes();
        std::vector<uint8_t> out;
        lightwave::WriteObject(*scene, out);
    }
    return 0;
}
