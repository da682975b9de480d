#include "plugin/host/Image.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>
#include <zlib.h>

#include <jpeglib.h>

#include "plugin/host/IoFile.h"

namespace {
// Every block the decoder asks for is counted against the budget of the picture being
// decoded; past it the allocation fails and the decoder gives up cleanly ("out of memory").
struct DecodeBudget {
    size_t limit = 0;
    size_t used = 0;
};
thread_local DecodeBudget t_budget;

constexpr size_t kHeader = 16; // keeps the block's size, and malloc's alignment

void* BudgetAlloc(size_t n) {
    if (n > t_budget.limit - t_budget.used || n > SIZE_MAX - kHeader) return nullptr;
    auto* p = static_cast<unsigned char*>(std::malloc(n + kHeader));
    if (!p) return nullptr;
    std::memcpy(p, &n, sizeof n);
    t_budget.used += n;
    return p + kHeader;
}

void BudgetFree(void* q) {
    if (!q) return;
    auto* p = static_cast<unsigned char*>(q) - kHeader;
    size_t n;
    std::memcpy(&n, p, sizeof n);
    t_budget.used -= n;
    std::free(p);
}

void* BudgetRealloc(void* q, size_t n) {
    if (!q) return BudgetAlloc(n);
    auto* p = static_cast<unsigned char*>(q) - kHeader;
    size_t old;
    std::memcpy(&old, p, sizeof old);
    if (n > old && (n - old > t_budget.limit - t_budget.used || n > SIZE_MAX - kHeader)) return nullptr;
    auto* r = static_cast<unsigned char*>(std::realloc(p, n + kHeader));
    if (!r) return nullptr;
    t_budget.used = t_budget.used - old + n;
    std::memcpy(r, &n, sizeof n);
    return r + kHeader;
}

// The PNG writer deflates through zlib (smaller and faster than its own coder).
unsigned char* DeflateForPng(unsigned char* data, int len, int* outLen, int quality) {
    uLongf cap = compressBound(static_cast<uLong>(len));
    auto* out = static_cast<unsigned char*>(std::malloc(cap));
    if (!out) return nullptr;
    if (compress2(out, &cap, data, static_cast<uLong>(len), quality) != Z_OK) {
        std::free(out);
        return nullptr;
    }
    *outLen = static_cast<int>(cap);
    return out;
}
} // namespace

// PNG, BMP, TGA and GIF through stb; JPEG goes to libjpeg (below), whose decoder holds up
// against damaged Huffman tables where stb's reads past its tables.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_STDIO
#define STBI_ONLY_PNG
#define STBI_ONLY_BMP
#define STBI_ONLY_TGA
#define STBI_ONLY_GIF
#define STBI_NO_FAILURE_STRINGS
#define STBI_MAX_DIMENSIONS (1 << 15)
#define STBI_MALLOC(n) BudgetAlloc(n)
#define STBI_REALLOC(p, n) BudgetRealloc(p, n)
#define STBI_FREE(p) BudgetFree(p)
#include <stb/stb_image.h>

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_WRITE_NO_STDIO
#define STBIW_ZLIB_COMPRESS DeflateForPng
#include <stb/stb_image_write.h>

void CImage::Resize(int w, int h, uint32_t rgbaFill) {
    width = w > 0 ? w : 0;
    height = h > 0 ? h : 0;
    rgba.resize(static_cast<size_t>(width) * height * 4);
    const uint8_t c[4] = {uint8_t(rgbaFill >> 24), uint8_t(rgbaFill >> 16), uint8_t(rgbaFill >> 8), uint8_t(rgbaFill)};
    if (rgba.empty()) return;
    // One pixel, then the filled part copied onto the rest, doubling each time.
    std::memcpy(rgba.data(), c, 4);
    for (size_t done = 4; done < rgba.size(); done *= 2)
        std::memcpy(rgba.data() + done, rgba.data(), std::min(done, rgba.size() - done));
}

const char* ImageResultText(ImageResult r) {
    switch (r) {
    case ImageResult::Ok: return "read";
    case ImageResult::CannotOpen: return "cannot be opened";
    case ImageResult::NotAnImage: return "is not a picture in a format this program reads (PNG, JPEG, BMP, TGA, GIF)";
    case ImageResult::TooLarge: return "is larger than the pictures this program reads";
    case ImageResult::Damaged: return "is a damaged picture";
    }
    return "?";
}

namespace {
struct JpegErrors {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
};

[[noreturn]] void JpegFail(j_common_ptr c) { std::longjmp(reinterpret_cast<JpegErrors*>(c->err)->jump, 1); }
void JpegSilent(j_common_ptr) {}

// A progressive file can carry any number of scans, each a pass over the whole picture.
void JpegScanLimit(j_common_ptr c) {
    auto* d = reinterpret_cast<j_decompress_ptr>(c);
    if (d->input_scan_number > 200) JpegFail(c);
}

// Only objects without destructors live between setjmp and the library's longjmp.
ImageResult LoadJpeg(std::span<const uint8_t> bytes, CImage& out, const CImageLimits& limits) {
    jpeg_decompress_struct cinfo;
    JpegErrors errors;
    jpeg_progress_mgr progress;
    cinfo.err = jpeg_std_error(&errors.mgr);
    errors.mgr.error_exit = JpegFail;
    errors.mgr.output_message = JpegSilent;
    progress.progress_monitor = JpegScanLimit;
    if (setjmp(errors.jump)) {
        jpeg_destroy_decompress(&cinfo);
        out = CImage{};
        return ImageResult::Damaged;
    }
    jpeg_create_decompress(&cinfo);
    cinfo.progress = &progress;
    jpeg_mem_src(&cinfo, bytes.data(), static_cast<unsigned long>(bytes.size()));
    jpeg_read_header(&cinfo, TRUE);
    const uint64_t w = cinfo.image_width, h = cinfo.image_height;
    if (w == 0 || h == 0 || w > uint64_t(limits.maxSide) || h > uint64_t(limits.maxSide) || w * h > limits.maxPixels) {
        jpeg_destroy_decompress(&cinfo);
        return w == 0 || h == 0 ? ImageResult::Damaged : ImageResult::TooLarge;
    }
    // The decoder's own buffers (a progressive file keeps every coefficient) within a budget.
    cinfo.mem->max_memory_to_use = static_cast<long>(w * h * 16 + (size_t(8) << 20));
    cinfo.out_color_space = JCS_EXT_RGBA;
    // The decoder shrinks in its inverse transform, for a fraction of the full work and memory.
    for (unsigned denom = 8; limits.fitSide > 0 && denom >= 2; denom /= 2)
        if (w / denom >= uint64_t(limits.fitSide) && h / denom >= uint64_t(limits.fitSide)) {
            cinfo.scale_num = 1;
            cinfo.scale_denom = denom;
            break;
        }
    jpeg_start_decompress(&cinfo);
    out.Resize(static_cast<int>(cinfo.output_width), static_cast<int>(cinfo.output_height), 0xFF);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = out.Pixel(0, static_cast<int>(cinfo.output_scanline));
        if (jpeg_read_scanlines(&cinfo, &row, 1) != 1) break;
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return ImageResult::Ok;
}
} // namespace

// Empty IDAT chunks (legal, and harmless) make stb copy zero bytes to a null buffer; they
// are left out of a copy of the file. Chunk CRCs are not checked by the decoder.
bool DropEmptyIdat(std::span<const uint8_t> bytes, std::vector<uint8_t>& copy) {
    static const uint8_t kSig[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    if (bytes.size() < 8 || std::memcmp(bytes.data(), kSig, 8) != 0) return false;
    auto emptyIdat = [&](size_t at) {
        return at + 12 <= bytes.size() && std::memcmp(&bytes[at], "\0\0\0\0IDAT", 8) == 0;
    };
    bool any = false;
    for (size_t at = 8; at + 8 <= bytes.size() && !any;) {
        const uint64_t len = (uint64_t(bytes[at]) << 24) | (uint32_t(bytes[at + 1]) << 16) |
                             (uint32_t(bytes[at + 2]) << 8) | bytes[at + 3];
        any = emptyIdat(at);
        at += 12 + len;
    }
    if (!any) return false;
    copy.assign(bytes.begin(), bytes.begin() + 8);
    size_t at = 8;
    while (at + 8 <= bytes.size()) {
        const uint64_t len = (uint64_t(bytes[at]) << 24) | (uint32_t(bytes[at + 1]) << 16) |
                             (uint32_t(bytes[at + 2]) << 8) | bytes[at + 3];
        const size_t end = static_cast<size_t>(std::min<uint64_t>(bytes.size(), at + 12 + len));
        if (!emptyIdat(at)) copy.insert(copy.end(), bytes.begin() + at, bytes.begin() + end);
        at = end;
    }
    copy.insert(copy.end(), bytes.begin() + std::min(at, bytes.size()), bytes.end());
    return true;
}

ImageResult LoadImageMemory(std::span<const uint8_t> bytes, CImage& out, const CImageLimits& limits) {
    out = CImage{};
    if (bytes.empty() || bytes.size() > limits.maxFileBytes || bytes.size() > INT32_MAX) return ImageResult::NotAnImage;
    if (bytes.size() >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF)
        return LoadJpeg(bytes, out, limits);
    std::vector<uint8_t> cleaned;
    if (DropEmptyIdat(bytes, cleaned)) bytes = cleaned;
    const auto* data = bytes.data();
    const int len = static_cast<int>(bytes.size());
    int w = 0, h = 0, comp = 0;
    // The header alone first: nothing is decoded for a picture past the limits.
    t_budget = {size_t(1) << 20, 0};
    const int known = stbi_info_from_memory(data, len, &w, &h, &comp);
    t_budget = {};
    if (!known) return ImageResult::NotAnImage;
    if (w <= 0 || h <= 0) return ImageResult::Damaged;
    if (w > limits.maxSide || h > limits.maxSide || uint64_t(w) * uint64_t(h) > limits.maxPixels)
        return ImageResult::TooLarge;
    // Room for the output, the decoder's working rows and planes (16-bit PNG rows, JPEG
    // component planes, GIF history) and its copy of the compressed stream.
    const uint64_t pixels = uint64_t(w) * uint64_t(h);
    t_budget = {static_cast<size_t>(pixels * 24 + bytes.size() * 2 + (size_t(4) << 20)), 0};
    int dw = 0, dh = 0, dc = 0;
    stbi_uc* px = stbi_load_from_memory(data, len, &dw, &dh, &dc, 4);
    ImageResult result = ImageResult::Damaged;
    if (px && dw == w && dh == h) {
        out.width = w;
        out.height = h;
        out.rgba.assign(px, px + pixels * 4);
        result = ImageResult::Ok;
    }
    stbi_image_free(px);
    t_budget = {};
    return result;
}

ImageResult LoadImageFile(const std::string& utf8Path, CImage& out, const CImageLimits& limits) {
    out = CImage{};
    IoFile file(true);
    if (!file.OpenFile(utf8Path, true)) return ImageResult::CannotOpen;
    if (static_cast<uint64_t>(file.FileGetLength()) > limits.maxFileBytes) return ImageResult::TooLarge;
    return LoadImageMemory(file.GetData(), out, limits);
}

std::vector<uint8_t> EncodePng(const CImage& image) {
    std::vector<uint8_t> png;
    if (image.IsEmpty() || image.rgba.size() != size_t(image.width) * image.height * 4) return png;
    // Renders are flat colours and smooth ramps: one fixed filter ("up") and a fast deflate level
    // cost a fraction of trying every filter on every row, for files a few percent larger.
    static const bool configured = [] {
        stbi_write_force_png_filter = 2;
        stbi_write_png_compression_level = 3;
        return true;
    }();
    (void)configured;
    // Opaque pictures are written without their alpha channel.
    bool opaque = true;
    for (size_t i = 3; i < image.rgba.size() && opaque; i += 4) opaque = image.rgba[i] == 255;
    std::vector<uint8_t> rgb;
    if (opaque) {
        rgb.resize(image.rgba.size() / 4 * 3);
        for (size_t i = 0, o = 0; i < image.rgba.size(); i += 4, o += 3) std::memcpy(&rgb[o], &image.rgba[i], 3);
    }
    auto sink = [](void* ctx, void* data, int size) {
        auto* v = static_cast<std::vector<uint8_t>*>(ctx);
        auto* b = static_cast<const uint8_t*>(data);
        v->insert(v->end(), b, b + size);
    };
    const int channels = opaque ? 3 : 4;
    if (!stbi_write_png_to_func(sink, &png, image.width, image.height, channels,
                                opaque ? rgb.data() : image.rgba.data(), image.width * channels))
        png.clear();
    return png;
}

bool SavePng(const std::string& utf8Path, const CImage& image, std::string* error) {
    const std::vector<uint8_t> png = EncodePng(image);
    if (png.empty()) {
        if (error) *error = "the picture could not be encoded";
        return false;
    }
    namespace fs = std::filesystem;
    const fs::path target(utf8Path);
    const fs::path tmp = target.parent_path() / (".~" + target.filename().string() + "." + std::to_string(getpid()));
    IoFile file(true);
    bool ok = file.OpenFile(tmp.string(), false, error);
    if (ok) {
        ok = file.FileWrite(png.data(), png.size());
        ok = file.CloseFile() && ok;
        if (!ok && error) *error = std::strerror(file.GetWriteErrno() ? file.GetWriteErrno() : EIO);
    }
    if (ok && std::rename(tmp.c_str(), target.c_str()) != 0) {
        if (error) *error = std::strerror(errno);
        ok = false;
    }
    if (!ok) ::unlink(tmp.c_str());
    return ok;
}
