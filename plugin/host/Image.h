#pragma once
// RGBA pictures: loading textures (PNG, JPEG, BMP, TGA, GIF) from files that may be
// hostile, and writing PNG. Decoding is refused before anything is allocated when the
// header states a size past the limits, and the decoder's own memory is capped as well
// (a small PNG can still inflate without end).
#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct CImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgba; // width * height * 4, rows top to bottom

    bool IsEmpty() const { return width <= 0 || height <= 0; }
    void Resize(int w, int h, uint32_t rgbaFill = 0);
    uint8_t* Pixel(int x, int y) { return rgba.data() + (static_cast<size_t>(y) * width + x) * 4; }
    const uint8_t* Pixel(int x, int y) const { return rgba.data() + (static_cast<size_t>(y) * width + x) * 4; }
};

struct CImageLimits {
    int maxSide = 16384;            // pixels along either side
    uint64_t maxPixels = 16u << 20; // width * height
    uint64_t maxFileBytes = 256u << 20;
    // When above zero, a JPEG at least twice this along both sides is decoded at 1/2, 1/4 or
    // 1/8 of its size (as small as keeps both sides at least this). The limits above still
    // apply to the size the file states.
    int fitSide = 0;
};

enum class ImageResult { Ok, CannotOpen, NotAnImage, TooLarge, Damaged };

// A sentence fragment for messages ("is not a picture this program reads", ...).
const char* ImageResultText(ImageResult r);

ImageResult LoadImageMemory(std::span<const uint8_t> bytes, CImage& out, const CImageLimits& limits = {});
ImageResult LoadImageFile(const std::string& utf8Path, CImage& out, const CImageLimits& limits = {});

// PNG bytes of `image` (empty on failure).
std::vector<uint8_t> EncodePng(const CImage& image);
// Writes `image` as PNG under a temporary name beside `utf8Path` and renames it into place,
// so an interrupted run never leaves a half-written picture that looks up to date.
// On failure `error` holds the system's reason.
bool SavePng(const std::string& utf8Path, const CImage& image, std::string* error = nullptr);
