// libFuzzer target: an OBJ file and its MTL library from one input. The part after
// the first "\n@@MTL@@\n" is served for every "mtllib"; the first byte, when it is
// 1 or 2, picks the WVEN text mode.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "formats/mesh/CWavefrontIo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view all(reinterpret_cast<const char*>(data), size);
    uint32_t wven = 0;
    if (!all.empty() && (all[0] == 1 || all[0] == 2)) {
        wven = static_cast<uint32_t>(all[0]);
        all.remove_prefix(1);
    }
    constexpr std::string_view kSep = "\n@@MTL@@\n";
    std::string_view obj = all, mtl;
    if (size_t p = all.find(kSep); p != std::string_view::npos) {
        obj = all.substr(0, p);
        mtl = all.substr(p + kSep.size());
    }
    CFileIo io;
    CWavefrontIo parser(io);
    CSceneImportOptions options;
    options.GetParserOptions().SetUInt(CWavefrontIo::kWvenKey, wven);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({reinterpret_cast<const uint8_t*>(obj.data()), obj.size()},
                                                      {reinterpret_cast<const uint8_t*>(mtl.data()), mtl.size()},
                                                      options));
    if (scene) (void)scene->MemoryBytes();
    return 0;
}
