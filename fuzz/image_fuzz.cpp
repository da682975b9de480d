// libFuzzer target: texture bytes (PNG, JPEG, BMP, TGA, GIF) through LoadImageMemory, with
// limits small enough that a run never waits on a legitimately large picture.
#include <cstddef>
#include <cstdint>

#include "plugin/host/Image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CImageLimits limits;
    limits.maxSide = 4096;
    limits.maxPixels = 1u << 22;
    CImage img;
    if (LoadImageMemory({data, size}, img, limits) == ImageResult::Ok &&
        img.rgba.size() != size_t(img.width) * img.height * 4)
        __builtin_trap();
    return 0;
}
