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
    // JPEG again, shrunk as far as the decoder goes.
    if (size > 0 && data[0] == 0xFF) {
        limits.fitSide = 1;
        if (LoadImageMemory({data, size}, img, limits) == ImageResult::Ok &&
            img.rgba.size() != size_t(img.width) * img.height * 4)
            __builtin_trap();
    }
    return 0;
}
