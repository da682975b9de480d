// gzip extraction: members, limits, damage, and the target never left half-written.
#include "plugin/host/MiniZip.h"

#include <gtest/gtest.h>

#include <random>
#include <zlib.h>

#include "plugin/host/FileHelpers.h"
#include "tests/support/TestSupport.h"

namespace {
std::string Gzip(const std::string& data) {
    z_stream zs{};
    EXPECT_EQ(Z_OK, deflateInit2(&zs, 6, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY));
    std::string out(deflateBound(&zs, data.size()) + 32, '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    zs.avail_in = static_cast<uInt>(data.size());
    zs.next_out = reinterpret_cast<Bytef*>(out.data());
    zs.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(Z_STREAM_END, deflate(&zs, Z_FINISH));
    out.resize(zs.total_out);
    deflateEnd(&zs);
    return out;
}
CXStringW W(const std::filesystem::path& p) { return CXStringW(Utf8ToWide(p.string())); }

std::string Payload(size_t n) {
    std::mt19937 rng(1);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>('a' + rng() % 6);
    return s;
}
} // namespace

TEST(MiniZip, ExtractsSingleAndConcatenatedMembers) {
    testsupport::TempDir dir;
    std::string data = Payload(3 << 20);
    testsupport::WriteFile(dir / "one.gz", Gzip(data));
    EXPECT_TRUE(CMiniZip::IsGZipFile(W(dir / "one.gz")));
    ASSERT_TRUE(CMiniZip::ExtractGZip(W(dir / "one.gz"), W(dir / "one.wrl")));
    EXPECT_EQ(data, testsupport::ReadFile(dir / "one.wrl"));

    // Two members read as their concatenation; trailing non-gzip bytes are ignored as gzip does.
    testsupport::WriteFile(dir / "two.gz", Gzip("#VRML V2.0 utf8\n") + Gzip("Shape {}\n") + std::string(8, '\0'));
    ASSERT_TRUE(CMiniZip::ExtractGZip(W(dir / "two.gz"), W(dir / "two.wrl")));
    EXPECT_EQ("#VRML V2.0 utf8\nShape {}\n", testsupport::ReadFile(dir / "two.wrl"));

    // An empty payload is a valid member.
    testsupport::WriteFile(dir / "empty.gz", Gzip(""));
    ASSERT_TRUE(CMiniZip::ExtractGZip(W(dir / "empty.gz"), W(dir / "empty.out")));
    EXPECT_EQ("", testsupport::ReadFile(dir / "empty.out"));

    // Into a temporary made beforehand: filled when it is there, never created again when a
    // clean-up has removed it in the meantime.
    CXStringW tmp = fileCreateTmpName(W(dir.path()), L"~t", L".wrl");
    ASSERT_TRUE(CMiniZip::ExtractGZip(W(dir / "one.gz"), tmp, 2ull << 30, true));
    EXPECT_EQ(data, testsupport::ReadFile(PathToUtf8(tmp)));
    fileDelete(tmp);
    EXPECT_FALSE(CMiniZip::ExtractGZip(W(dir / "one.gz"), tmp, 2ull << 30, true));
    EXPECT_FALSE(fileExists(tmp));
}

TEST(MiniZip, FailuresRemoveTheTarget) {
    testsupport::TempDir dir;
    std::string gz = Gzip(Payload(200000));
    // Over the size limit.
    testsupport::WriteFile(dir / "big.gz", gz);
    EXPECT_FALSE(CMiniZip::ExtractGZip(W(dir / "big.gz"), W(dir / "out"), 100000));
    EXPECT_FALSE(fileExists(W(dir / "out")));
    EXPECT_TRUE(CMiniZip::ExtractGZip(W(dir / "big.gz"), W(dir / "out"), 200000));
    // Every truncation fails cleanly (a gzip stream carries its length and CRC).
    for (size_t n :
         {size_t(0), size_t(1), size_t(2), size_t(10), size_t(11), gz.size() / 2, gz.size() - 8, gz.size() - 1}) {
        testsupport::WriteFile(dir / "cut.gz", gz.substr(0, n));
        EXPECT_FALSE(CMiniZip::ExtractGZip(W(dir / "cut.gz"), W(dir / "cut.out"))) << n;
        EXPECT_FALSE(fileExists(W(dir / "cut.out"))) << n;
    }
    // A damaged CRC.
    std::string bad = gz;
    bad[bad.size() - 6] ^= 0x55;
    testsupport::WriteFile(dir / "crc.gz", bad);
    EXPECT_FALSE(CMiniZip::ExtractGZip(W(dir / "crc.gz"), W(dir / "crc.out")));
    EXPECT_FALSE(fileExists(W(dir / "crc.out")));
    // Not gzip at all, and no input file.
    testsupport::WriteFile(dir / "plain.wrl", "#VRML V2.0 utf8\n");
    EXPECT_FALSE(CMiniZip::IsGZipFile(W(dir / "plain.wrl")));
    EXPECT_FALSE(CMiniZip::ExtractGZip(W(dir / "plain.wrl"), W(dir / "p.out")));
    EXPECT_FALSE(fileExists(W(dir / "p.out")));
    EXPECT_FALSE(CMiniZip::IsGZipFile(W(dir / "nothing.gz")));
    EXPECT_FALSE(CMiniZip::ExtractGZip(W(dir / "nothing.gz"), W(dir / "n.out")));
    EXPECT_FALSE(fileExists(W(dir / "n.out")));
}
