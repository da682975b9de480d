// gzip worlds read into memory through the host's inflate: a cut-off, damaged or
// over-limit stream is a failure (never a short success), and the limit scales
// with the compressed size as it does for the import's temporary file.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <string>
#include <sys/wait.h>

#include "plugin/host/MiniZip.h"
#include "tests/support/TestSupport.h"
#include "tests/vrml97/GzipTestUtil.h"

namespace {

CXStringW W(const std::filesystem::path& p) { return CXStringW(Utf8ToWide(p.string())); }

} // namespace

TEST(VrmlGzipInput, InflatesWholeWorldsAndConcatenatedMembers) {
    testsupport::TempDir dir;
    const std::string world = "#VRML V2.0 utf8\nShape { geometry Box {} }\n";
    testsupport::WriteFile(dir / "w.wrl.gz", Gzip(world));
    std::string out;
    ASSERT_TRUE(CMiniZip::InflateGZip(W(dir / "w.wrl.gz"), out, 1 << 20));
    EXPECT_EQ(out, world);
    testsupport::WriteFile(dir / "two.gz", Gzip("ab") + Gzip("cd"));
    ASSERT_TRUE(CMiniZip::InflateGZip(W(dir / "two.gz"), out, 1 << 20));
    EXPECT_EQ(out, "abcd");
    // Exactly at the limit is whole, so it is a success.
    ASSERT_TRUE(CMiniZip::InflateGZip(W(dir / "w.wrl.gz"), out, world.size()));
    EXPECT_EQ(out, world);
}

TEST(VrmlGzipInput, ALimitedOrTruncatedInflateFails) {
    testsupport::TempDir dir;
    std::string big(300000, 'x');
    for (size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>('a' + i % 26);
    const std::string gz = Gzip(big);
    testsupport::WriteFile(dir / "big.gz", gz);
    std::string out = "stale";
    EXPECT_FALSE(CMiniZip::InflateGZip(W(dir / "big.gz"), out, big.size() - 1));
    EXPECT_TRUE(out.empty());
    // Every cut of the stream, the trailer included, is a failure.
    for (size_t n : {size_t{0}, size_t{1}, size_t{10}, gz.size() / 2, gz.size() - 8, gz.size() - 1}) {
        testsupport::WriteFile(dir / "cut.gz", gz.substr(0, n));
        out = "stale";
        EXPECT_FALSE(CMiniZip::InflateGZip(W(dir / "cut.gz"), out, 1 << 30)) << n;
        EXPECT_TRUE(out.empty()) << n;
    }
    std::string bad = gz;
    bad[bad.size() - 6] ^= 0x40; // CRC
    testsupport::WriteFile(dir / "crc.gz", bad);
    EXPECT_FALSE(CMiniZip::InflateGZip(W(dir / "crc.gz"), out, 1 << 30));
    EXPECT_FALSE(CMiniZip::InflateGZip(W(dir / "missing.gz"), out, 1 << 30));
}

TEST(VrmlGzipInput, TheLimitScalesWithTheCompressedSize) {
    EXPECT_EQ(CMiniZip::InflateLimit(0), uint64_t{256} << 20);
    EXPECT_EQ(CMiniZip::InflateLimit(1 << 20), uint64_t{256} << 20);
    EXPECT_EQ(CMiniZip::InflateLimit(uint64_t{10} << 20), uint64_t{2000} << 20);
    EXPECT_EQ(CMiniZip::InflateLimit(uint64_t{100} << 20), uint64_t{4} << 30);
    EXPECT_EQ(CMiniZip::InflateLimit(UINT64_MAX), uint64_t{4} << 30);
}

TEST(VrmlGzipInput, TheCheckCommandRefusesACutOffWorld) {
    auto cli = testsupport::BinaryDir() / "bin" / "orbiscope";
    if (!std::filesystem::exists(cli)) GTEST_SKIP() << "orbiscope not built";
    testsupport::TempDir dir;
    const std::string gz = Gzip("#VRML V2.0 utf8\nShape { geometry Box {} }\n" + std::string(4000, '#') + "\n");
    testsupport::WriteFile(dir / "whole.wrl.gz", gz);
    testsupport::WriteFile(dir / "cut.wrl.gz", gz.substr(0, gz.size() - 8)); // no trailer: no checksum
    auto run = [&](const char* name) {
        std::string cmd = "'" + cli.string() + "' vrml97 check '" + (dir / name).string() + "' >/dev/null 2>&1";
        int status = std::system(cmd.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(run("whole.wrl.gz"), 0);
    EXPECT_EQ(run("cut.wrl.gz"), 4);
}
