// libFuzzer target: the preview renderer on whatever scene an OBJ file describes (wild
// coordinates, broken indices, polygons of any size, points and lines). The first byte
// picks the view, the shading and the up axis.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/mesh/CWavefrontIo.h"
#include "plugin/host/Render.h"
#include "plugin/host/Scene.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    CFileIo io;
    CWavefrontIo parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data + 1, size - 1}, {}, options));
    if (!scene) return 0;
    CRenderOptions o;
    o.width = 24;
    o.height = 20;
    o.view = static_cast<RenderView>(mode % 8);
    o.shading = static_cast<RenderShading>((mode >> 3) % 3);
    o.zUp = (mode & 0x40) != 0;
    o.textures = false;
    o.fillBudget = 2000000;
    CImage img;
    if (RenderScene(*scene, o, img) == RenderResult::Ok && img.rgba.size() != size_t(24 * 20 * 4)) __builtin_trap();
    return 0;
}
