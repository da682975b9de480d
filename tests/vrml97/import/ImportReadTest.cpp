// CVrml97Io::Read: outcome codes and levels, gzip worlds through a temporary file
// that never survives the read, unit and scale, the shared name counter, name
// sanitising, cancellation and reads from several threads.
#include <gtest/gtest.h>
#include <zlib.h>

#include <atomic>
#include <fcntl.h>
#include <set>
#include <thread>
#include <unistd.h>

#include "plugin/host/Cancel.h"
#include "plugin/host/FileHelpers.h"
#include "tests/vrml97/import/ImportTestUtil.h"

using namespace importtest;
namespace fs = std::filesystem;

namespace {

const char* kOneBox = "Transform { children Shape { appearance Appearance { material Material {} } geometry Box {} } }";

void WriteGzip(const fs::path& p, const std::string& data) {
    gzFile f = gzopen(p.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(gzwrite(f, data.data(), static_cast<unsigned>(data.size())), static_cast<int>(data.size()));
    gzclose(f);
}

std::vector<std::string> FolderEntries(const fs::path& dir) {
    std::vector<std::string> out;
    for (auto& e : fs::directory_iterator(dir)) out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

size_t TempLeftovers() {
    size_t n = 0;
    std::error_code ec;
    for (auto& e : fs::directory_iterator(PathToUtf8(fileGetTempDirectory()), ec))
        if (e.path().filename().string().rfind("~vrml97", 0) == 0) ++n;
    return n;
}

} // namespace

TEST(Vrml97ImportRead, SceneCarriesUnitFiveAndScaleHundred) {
    ReadResult r = ReadWorld(World(kOneBox));
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.scene->GetUnit(), 5);
    EXPECT_EQ(r.scene->GetScaleFactor(), 100.0);
}

TEST(Vrml97ImportRead, WorldWithNothingImportableIsEmptyAtInformationLevel) {
    ReadResult r = ReadWorld(World("WorldInfo { title \"x\" } NavigationInfo { type \"EXAMINE\" }"));
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, -10);
    EXPECT_EQ(r.level, 2);
    // Garbage and a missing file give an empty world too (the engine reports, the import finds nothing).
    ReadResult g = ReadWorld("this is not VRML at all {{{");
    EXPECT_FALSE(g.scene);
    EXPECT_EQ(g.error, -10);
    testsupport::TempDir dir;
    ReadResult m = ReadPath(dir / "missing.wrl");
    EXPECT_EQ(m.error, -10);
}

TEST(Vrml97ImportRead, GzipWorldReadsThroughATemporaryFileThatIsRemoved) {
    testsupport::TempDir dir;
    WriteGzip(dir / "w.wrz", World(kOneBox));
    ReadResult r = ReadPath(dir / "w.wrz");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 1u);
    EXPECT_EQ(FolderEntries(dir.path()), std::vector<std::string>{"w.wrz"});

    // Also when the conversion yields nothing, and when the gzip stream is damaged.
    WriteGzip(dir / "empty.wrl.gz", World("WorldInfo {}"));
    EXPECT_EQ(ReadPath(dir / "empty.wrl.gz").error, -10);
    std::string gz = testsupport::ReadFile(dir / "w.wrz");
    testsupport::WriteFile(dir / "cut.wrz", gz.substr(0, gz.size() / 2));
    ReadResult cut = ReadPath(dir / "cut.wrz");
    EXPECT_FALSE(cut.scene);
    EXPECT_EQ(cut.error, -3);
    EXPECT_EQ(cut.level, 4);
    fs::remove(dir / "w.wrz");
    fs::remove(dir / "empty.wrl.gz");
    fs::remove(dir / "cut.wrz");
    EXPECT_TRUE(FolderEntries(dir.path()).empty());
}

TEST(Vrml97ImportRead, GzipWorldInAnUnwritableFolderUsesTheSystemTemporaryFolder) {
    // Nothing can be created under /proc/self/fd, not even by root.
    testsupport::TempDir dir;
    WriteGzip(dir / "w.wrz", World(kOneBox));
    int fd = ::open((dir / "w.wrz").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    size_t before = TempLeftovers();
    ReadResult r = ReadPath("/proc/self/fd/" + std::to_string(fd));
    ::close(fd);
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 1u);
    EXPECT_EQ(TempLeftovers(), before);
}

TEST(Vrml97ImportRead, GzipBombStopsAtTheInflateLimit) {
    // 300 MiB of spaces compress to a few hundred KiB, far past 200 times their size.
    testsupport::TempDir dir;
    gzFile f = gzopen((dir / "bomb.wrz").c_str(), "wb9");
    ASSERT_NE(f, nullptr);
    std::string chunk(1 << 20, ' ');
    for (int i = 0; i < 300; ++i) gzwrite(f, chunk.data(), static_cast<unsigned>(chunk.size()));
    gzclose(f);
    ReadResult r = ReadPath(dir / "bomb.wrz");
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, -3);
    EXPECT_EQ(FolderEntries(dir.path()), std::vector<std::string>{"bomb.wrz"});
}

TEST(Vrml97ImportRead, UnnamedNodesTakeRisingNumbersFromOneCounterAcrossImports) {
    std::string w =
        World("Transform { children Shape { geometry Box {} } } Transform { children Shape { geometry Box {} } }");
    ReadResult a = ReadWorld(w);
    ReadResult b = ReadWorld(w);
    ASSERT_TRUE(a.scene && b.scene);
    auto ta = Children(*a.scene), tb = Children(*b.scene);
    ASSERT_EQ(ta.size(), 2u);
    ASSERT_EQ(tb.size(), 2u);
    long a1 = NumberAfter(Name(ta[0]), "t"), a2 = NumberAfter(Name(ta[1]), "t");
    long b1 = NumberAfter(Name(tb[0]), "t"), b2 = NumberAfter(Name(tb[1]), "t");
    ASSERT_GT(a1, 0);
    EXPECT_NE(a1, a2);
    EXPECT_GT(a2, a1);
    EXPECT_GT(b1, a2); // never reset between files
    EXPECT_GT(b2, b1);
    // The root took its number first, then the first Transform, then its shape "|tR|tAShapeN".
    auto sa = Children(*a.scene, ta[0]);
    ASSERT_EQ(sa.size(), 1u);
    std::string prefix = "|t" + std::to_string(a1 - 1) + "|t" + std::to_string(a1) + "Shape";
    EXPECT_EQ(NumberAfter(Name(sa[0]), prefix), a1 + 1) << Name(sa[0]);
}

TEST(Vrml97ImportRead, DefNamesAreSanitised) {
    ReadResult r = ReadWorld(World("DEF my-node:1 Group { children Shape { geometry Box {} } }"));
    ASSERT_TRUE(r.scene);
    auto top = Children(*r.scene);
    ASSERT_EQ(top.size(), 1u);
    EXPECT_EQ(Name(top[0]), "my_node_1");
    // The shape path carries the sanitised name.
    auto shape = Children(*r.scene, top[0]);
    ASSERT_EQ(shape.size(), 1u);
    EXPECT_NE(Name(shape[0]).find("|my_node_1Shape"), std::string::npos) << Name(shape[0]);
}

TEST(Vrml97ImportRead, SharedNodeKeepsOneNameForEveryUse) {
    ReadResult r = ReadWorld(World("Group { children [ DEF A Transform { children Shape { geometry Box {} } } ] }"
                                   "Transform { translation 1 0 0 children USE A }"
                                   "DEF B Group {} Group { children USE B }"));
    ASSERT_TRUE(r.scene);
    auto top = Children(*r.scene);
    ASSERT_EQ(top.size(), 4u);
    EXPECT_EQ(Name(Children(*r.scene, top[0])[0]), "A");
    EXPECT_EQ(Name(Children(*r.scene, top[1])[0]), "A");
    // An unnamed shared node is named once, then found under that name.
    ReadResult u = ReadWorld(
        World("Transform { children [ DEF X Group { children [ Transform { children Shape { geometry Box {} } } ] } ] }"
              "Group { children USE X }"));
    ASSERT_TRUE(u.scene);
    auto t = Children(*u.scene);
    ASSERT_EQ(t.size(), 2u);
    std::string first = Name(Children(*u.scene, Children(*u.scene, t[0])[0])[0]);
    std::string second = Name(Children(*u.scene, Children(*u.scene, t[1])[0])[0]);
    EXPECT_EQ(NumberAfter(first, "t") > 0, true) << first;
    EXPECT_EQ(first, second);
}

TEST(Vrml97ImportRead, CancelledReadReportsCancelEvenForAnEmptyWorld) {
    std::atomic<bool> cancel{true};
    SetThreadCancelToken(&cancel);
    ReadResult r = ReadWorld(World(kOneBox));
    ReadResult e = ReadWorld(World("WorldInfo {}"));
    SetThreadCancelToken(nullptr);
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, -11);
    EXPECT_EQ(r.level, 2);
    EXPECT_EQ(e.error, -11);
}

TEST(Vrml97ImportRead, ReadsOnSeveralThreadsStayIndependent) {
    std::string w = World("Transform { translation 1 2 3 children [ Shape { geometry Box {} } Transform { children "
                          "Shape { geometry Sphere {} } } ] }");
    std::vector<std::set<std::string>> names(4);
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) {
                ReadResult r = ReadWorld(w, "w" + std::to_string(t) + ".wrl");
                if (r.scene && AllNodes(*r.scene, KINDOF_MESH).size() == 2 && AllNodes(*r.scene).size() == 4) ++ok;
                if (r.scene)
                    for (auto* n : AllNodes(*r.scene, KINDOF_GROUP)) names[t].insert(Name(n));
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(ok.load(), 20);
    std::set<std::string> all;
    size_t total = 0;
    for (auto& s : names) {
        total += s.size();
        all.insert(s.begin(), s.end());
    }
    EXPECT_EQ(all.size(), total); // no two imports handed out the same number
    EXPECT_EQ(total, 40u);
}
