// Pictures for the renderer: PNG written and read back exactly, the small formats textures
// come in, and hostile files refused before (or while) they would take memory.
#include <gtest/gtest.h>

#include <cstring>
#include <zlib.h>

#include "plugin/host/Image.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {
std::vector<uint8_t> Bytes(const std::string& s) { return {s.begin(), s.end()}; }

void Put32be(std::vector<uint8_t>& v, uint32_t x) {
    for (int s = 24; s >= 0; s -= 8) v.push_back(uint8_t(x >> s));
}

void Chunk(std::vector<uint8_t>& png, const char* type, const std::vector<uint8_t>& data) {
    Put32be(png, uint32_t(data.size()));
    std::vector<uint8_t> body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    png.insert(png.end(), body.begin(), body.end());
    Put32be(png, uint32_t(crc32(0, body.data(), uInt(body.size()))));
}

// A grey 8-bit PNG of the given size whose pixel rows are `rows` (filter bytes included).
std::vector<uint8_t> GreyPng(uint32_t w, uint32_t h, const std::vector<uint8_t>& rows) {
    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    std::vector<uint8_t> ihdr;
    Put32be(ihdr, w);
    Put32be(ihdr, h);
    ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});
    Chunk(png, "IHDR", ihdr);
    uLongf cap = compressBound(uLong(rows.size()));
    std::vector<uint8_t> z(cap);
    EXPECT_EQ(compress2(z.data(), &cap, rows.data(), uLong(rows.size()), 9), Z_OK);
    z.resize(cap);
    Chunk(png, "IDAT", z);
    Chunk(png, "IEND", {});
    return png;
}

CImage Pattern(int w, int h) {
    CImage img;
    img.Resize(w, h, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* p = img.Pixel(x, y);
            p[0] = uint8_t(x * 37 + y);
            p[1] = uint8_t(y * 53);
            p[2] = uint8_t((x ^ y) * 11);
            p[3] = uint8_t(255 - x);
        }
    return img;
}
} // namespace

TEST(RenderImage, PngRoundTripIsExact) {
    const CImage img = Pattern(13, 7);
    const std::vector<uint8_t> png = EncodePng(img);
    ASSERT_GT(png.size(), 8u);
    CImage back;
    ASSERT_EQ(LoadImageMemory(png, back), ImageResult::Ok);
    EXPECT_EQ(back.width, 13);
    EXPECT_EQ(back.height, 7);
    EXPECT_EQ(back.rgba, img.rgba);

    testsupport::TempDir dir;
    std::string err;
    ASSERT_TRUE(SavePng((dir / "a.png").string(), img, &err)) << err;
    ASSERT_EQ(LoadImageFile((dir / "a.png").string(), back), ImageResult::Ok);
    EXPECT_EQ(back.rgba, img.rgba);
    // Only the picture is left: the temporary it was written under was renamed.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
    EXPECT_FALSE(SavePng((dir / "no" / "b.png").string(), img, &err));
    EXPECT_FALSE(err.empty());
    EXPECT_EQ(LoadImageFile((dir / "none.png").string(), back), ImageResult::CannotOpen);
}

TEST(RenderImage, BmpTgaAndGifDecode) {
    // 2x1 BMP, 24 bits, bottom-up: a red and a blue pixel (stored as BGR), rows padded to 4 bytes.
    std::vector<uint8_t> bmp = {'B',  'M',  62, 0, 0, 0, 0, 0,  0, 0, 54, 0, 0, 0, 40,  0,   0, 0,    2,    0, 0,
                                0,    1,    0,  0, 0, 1, 0, 24, 0, 0, 0,  0, 0, 8, 0,   0,   0, 0x13, 0x0B, 0, 0,
                                0x13, 0x0B, 0,  0, 0, 0, 0, 0,  0, 0, 0,  0, 0, 0, 255, 255, 0, 0,    0,    0};
    CImage img;
    ASSERT_EQ(LoadImageMemory(bmp, img), ImageResult::Ok);
    ASSERT_EQ(img.width, 2);
    EXPECT_EQ(img.Pixel(0, 0)[0], 255);
    EXPECT_EQ(img.Pixel(0, 0)[2], 0);
    EXPECT_EQ(img.Pixel(1, 0)[2], 255);
    EXPECT_EQ(img.Pixel(1, 0)[0], 0);

    // 1x2 TGA, uncompressed true colour, top-left origin: green above white.
    std::vector<uint8_t> tga = {0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 24, 0x20, 0, 255, 0, 255, 255, 255};
    ASSERT_EQ(LoadImageMemory(tga, img), ImageResult::Ok);
    ASSERT_EQ(img.height, 2);
    EXPECT_EQ(img.Pixel(0, 0)[1], 255);
    EXPECT_EQ(img.Pixel(0, 0)[0], 0);
    EXPECT_EQ(img.Pixel(0, 1)[0], 255);

    // 1x1 GIF whose one pixel is colour 0 of a red-and-black table.
    std::vector<uint8_t> gif = {'G', 'I',  'F', '8', '9', 'a', 1, 0, 1, 0, 0x80, 0, 0, 255,  0,    0, 0,   0,
                                0,   0x2C, 0,   0,   0,   0,   1, 0, 1, 0, 0,    2, 2, 0x44, 0x01, 0, 0x3B};
    ASSERT_EQ(LoadImageMemory(gif, img), ImageResult::Ok);
    EXPECT_EQ(img.Pixel(0, 0)[0], 255);
    EXPECT_EQ(img.Pixel(0, 0)[1], 0);
}

TEST(RenderImage, JpegFromTheCorpus) {
    SKIP_WITHOUT_CORPUS();
    const fs::path jpg = testsupport::CorpusDir() / "wrl97" / "whitesand.jpg";
    if (!fs::exists(jpg)) GTEST_SKIP() << "no JPEG in the corpus";
    CImage img;
    ASSERT_EQ(LoadImageFile(jpg.string(), img), ImageResult::Ok);
    ASSERT_EQ(img.width, 256);
    ASSERT_EQ(img.height, 256);
    EXPECT_EQ(img.rgba.size(), size_t(img.width) * img.height * 4);
    auto mean = [](const CImage& i) {
        double sum = 0;
        for (size_t k = 0; k < i.rgba.size(); k += 4) sum += i.rgba[k] + i.rgba[k + 1] + i.rgba[k + 2];
        return sum / (double(i.width) * i.height * 3);
    };
    const double full = mean(img);

    // Shrunk as it is decoded, to the smallest size that keeps both sides at least the one asked.
    for (const auto& [fit, side] : {std::pair{100, 128}, {64, 64}, {1, 32}, {129, 256}}) {
        CImageLimits limits;
        limits.fitSide = fit;
        CImage small;
        ASSERT_EQ(LoadImageFile(jpg.string(), small, limits), ImageResult::Ok);
        EXPECT_EQ(small.width, side) << fit;
        EXPECT_EQ(small.height, side) << fit;
        ASSERT_EQ(small.rgba.size(), size_t(side) * side * 4);
        EXPECT_NEAR(mean(small), full, 3.0) << fit; // the same picture, not a corner of it
    }
}

TEST(RenderImage, DamagedAndForeignBytes) {
    CImage img;
    EXPECT_EQ(LoadImageMemory({}, img), ImageResult::NotAnImage);
    EXPECT_EQ(LoadImageMemory(Bytes("solid cube\nendsolid\n"), img), ImageResult::NotAnImage);
    // Formats the decoder could read but textures do not come in are refused too (PSD, HDR).
    EXPECT_EQ(
        LoadImageMemory(
            Bytes("8BPS\x00\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00\x01\x00\x00\x00\x01\x00\x08\x00\x03"), img),
        ImageResult::NotAnImage);
    EXPECT_EQ(LoadImageMemory(Bytes("#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n\x01\x01\x01\x80"), img),
              ImageResult::NotAnImage);
    // Every cut of a valid PNG fails cleanly, except cuts into the closing 12-byte end
    // chunk, which lose nothing and give the whole picture.
    const CImage pattern = Pattern(9, 9);
    const std::vector<uint8_t> png = EncodePng(pattern);
    for (size_t n = 0; n < png.size(); ++n) {
        const ImageResult r = LoadImageMemory(std::span(png.data(), n), img);
        if (n < png.size() - 12) {
            EXPECT_NE(r, ImageResult::Ok) << n;
            EXPECT_TRUE(img.IsEmpty());
        } else if (r == ImageResult::Ok) {
            EXPECT_EQ(img.rgba, pattern.rgba) << n;
        }
    }
}

TEST(RenderImage, SizesPastTheLimitsAreRefusedFromTheHeader) {
    const std::vector<uint8_t> png = EncodePng(Pattern(64, 64));
    CImage img;
    ASSERT_EQ(LoadImageMemory(png, img), ImageResult::Ok);
    CImageLimits few;
    few.maxPixels = 1000;
    EXPECT_EQ(LoadImageMemory(png, img, few), ImageResult::TooLarge);
    CImageLimits narrow;
    narrow.maxSide = 32;
    EXPECT_EQ(LoadImageMemory(png, img, narrow), ImageResult::TooLarge);
    CImageLimits small;
    small.maxFileBytes = 16;
    EXPECT_NE(LoadImageMemory(png, img, small), ImageResult::Ok);

    // 30000 x 30000 stated in the header, with one row of data behind it.
    const std::vector<uint8_t> huge = GreyPng(30000, 30000, std::vector<uint8_t>(30001, 0));
    EXPECT_EQ(LoadImageMemory(huge, img), ImageResult::TooLarge);
}

TEST(RenderImage, DecoderMemoryIsCappedForAStreamThatInflatesWithoutEnd) {
    // One grey pixel, then 48 MB of zeros in its compressed stream (about 48 kB on disk):
    // the decoder would inflate all of it, but its budget is a few MB for a picture this size.
    const std::vector<uint8_t> ok = GreyPng(1, 1, {0, 200});
    CImage img;
    ASSERT_EQ(LoadImageMemory(ok, img), ImageResult::Ok);
    EXPECT_EQ(img.Pixel(0, 0)[0], 200);
    std::vector<uint8_t> rows(48u << 20, 0);
    rows[1] = 200;
    const std::vector<uint8_t> bomb = GreyPng(1, 1, rows);
    ASSERT_LT(bomb.size(), 200000u);
    EXPECT_EQ(LoadImageMemory(bomb, img), ImageResult::Damaged);
    EXPECT_TRUE(img.IsEmpty());
    // The budget is per picture: the next ordinary one decodes again.
    EXPECT_EQ(LoadImageMemory(ok, img), ImageResult::Ok);
}

TEST(RenderImage, EmptyDataChunksAreHarmless) {
    // An empty IDAT before the real one: legal, and it must not reach the decoder as a copy
    // of nothing into no buffer (the sanitizer build stops on that).
    std::vector<uint8_t> png = GreyPng(1, 1, {0, 77});
    const std::vector<uint8_t> empty = {0, 0, 0, 0, 'I', 'D', 'A', 'T', 0x35, 0xAF, 0x06, 0x1E};
    png.insert(png.begin() + 33, empty.begin(), empty.end()); // after the signature and IHDR
    CImage img;
    ASSERT_EQ(LoadImageMemory(png, img), ImageResult::Ok);
    EXPECT_EQ(img.Pixel(0, 0)[0], 77);
}

TEST(RenderImage, FuzzFindingsReplay) {
    // Damaged JPEG files that made the first decoder read past its Huffman tables; each at
    // full size and shrunk as it is decoded.
    const fs::path dir = testsupport::SourceDir() / "tests" / "regressions" / "image";
    int n = 0;
    for (const auto& e : fs::directory_iterator(dir))
        for (int fit : {0, 1}) {
            const std::string bytes = testsupport::ReadFile(e.path());
            CImageLimits limits;
            limits.fitSide = fit;
            CImage img;
            const ImageResult r = LoadImageMemory(Bytes(bytes), img, limits);
            if (r == ImageResult::Ok) EXPECT_EQ(img.rgba.size(), size_t(img.width) * img.height * 4) << e.path();
            else EXPECT_TRUE(img.IsEmpty()) << e.path();
            n += fit;
        }
    EXPECT_GE(n, 2);
}
