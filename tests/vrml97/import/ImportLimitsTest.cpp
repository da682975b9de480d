// Hostile worlds: DEF/USE and PROTO doubling, Inline chains and cycles, every
// prefix of a valid world, and the regression files kept from fuzzing.
#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>

#include "tests/vrml97/import/ImportTestUtil.h"

using namespace importtest;
namespace fs = std::filesystem;

namespace {

// DEF A0 Shape {...}, then DEF Ak Group { children [USE Ak-1 USE Ak-1] }: 2^levels shapes.
std::string Doubling(int levels) {
    std::string s =
        "#VRML V2.0 utf8\nDEF A0 Group { children Shape { appearance Appearance { material Material {} } "
        "geometry IndexedFaceSet { coord Coordinate { point [0 0 0, 1 0 0, 0 1 0] } coordIndex [0 1 2] } } }\n";
    for (int k = 1; k <= levels; ++k)
        s += "DEF A" + std::to_string(k) + " Group { children [ USE A" + std::to_string(k - 1) +
             " Transform { children USE A" + std::to_string(k - 1) + " } ] }\n";
    return s;
}

double Seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

} // namespace

TEST(Vrml97ImportLimits, DefUseDoublingIsCappedAndReported) {
    auto t0 = std::chrono::steady_clock::now();
    ReadResult r = ReadWorld(Doubling(30));
    EXPECT_LT(Seconds(t0), 30.0);
    ASSERT_TRUE(r.scene);
    int nodes = r.scene->GetNodeCount();
    EXPECT_GT(nodes, 65536);
    EXPECT_LE(nodes, 65536 + 4096);
    EXPECT_TRUE(r.LogHas(L"stopped early")) << (r.log.empty() ? "" : WideToUtf8(r.log[0]));
    // A small doubling converts whole: each shared shape is one more copy of the same mesh.
    ReadResult small = ReadWorld(Doubling(4));
    ASSERT_TRUE(small.scene);
    auto meshes = AllNodes(*small.scene, KINDOF_MESH);
    EXPECT_EQ(meshes.size(), 31u); // every Ak stands at the top level too: 1 + 2 + 4 + 8 + 16
    EXPECT_FALSE(small.LogHas(L"stopped early"));
    for (auto* m : meshes) EXPECT_EQ(m->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);
}

TEST(Vrml97ImportLimits, ProtoDoublingIsBounded) {
    std::string s = "#VRML V2.0 utf8\nPROTO P0 [] { Shape { geometry Box {} } }\n";
    for (int k = 1; k <= 24; ++k)
        s += "PROTO P" + std::to_string(k) + " [] { Group { children [ P" + std::to_string(k - 1) + " {} P" +
             std::to_string(k - 1) + " {} ] } }\n";
    s += "P24 {}\n";
    auto t0 = std::chrono::steady_clock::now();
    ReadResult r = ReadWorld(s);
    EXPECT_LT(Seconds(t0), 60.0);
    if (r.scene) { EXPECT_LE(r.scene->GetNodeCount(), 65536 + 4096); }
}

TEST(Vrml97ImportLimits, TwentyProtosEachWrappingTheLastImportTheirShape) {
    // Real worlds build PROTOs on PROTOs further than a few levels.
    std::string s = "#VRML V2.0 utf8\nPROTO P0 [] { Shape { geometry Box {} } }\n";
    for (int k = 1; k < 20; ++k)
        s += "PROTO P" + std::to_string(k) + " [] { Transform { children P" + std::to_string(k - 1) + " {} } }\n";
    s += "P19 {}\n";
    ReadResult r = ReadWorld(s);
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 1u);
}

TEST(Vrml97ImportLimits, DeepNestingIsCut) {
    std::string s = "#VRML V2.0 utf8\n";
    for (int i = 0; i < 990; ++i) s += "Group { children ";
    s += "Shape { geometry Box {} }";
    for (int i = 0; i < 990; ++i) s += " }";
    ReadResult r = ReadWorld(s);
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 1u);
}

TEST(Vrml97ImportLimits, InlineLoadsLocalWorldsRelativeToTheIncludingFile) {
    testsupport::TempDir dir;
    fs::create_directories(dir / "parts" / "deeper");
    testsupport::WriteFile(dir / "main.wrl",
                           World("Transform { translation 1 0 0 children Inline { url \"parts/a.wrl\" } }"));
    testsupport::WriteFile(dir / "parts" / "a.wrl",
                           World("Shape { geometry Box {} } Inline { url [\"missing.wrl\" \"deeper/b.wrz\"] }"));
    gzFile f = gzopen((dir / "parts" / "deeper" / "b.wrz").c_str(), "wb");
    std::string b = World("Shape { geometry Sphere {} }");
    gzwrite(f, b.data(), static_cast<unsigned>(b.size()));
    gzclose(f);
    ReadResult r = ReadPath(dir / "main.wrl");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 2u);
    // Transform -> Inline -> (box, Inline -> sphere)
    auto top = Children(*r.scene);
    ASSERT_EQ(top.size(), 1u);
    auto inl = Children(*r.scene, top[0]);
    ASSERT_EQ(inl.size(), 1u);
    EXPECT_EQ(Children(*r.scene, inl[0]).size(), 2u);
    // No temporary file is left beside the gzip part.
    size_t entries = 0;
    for (auto& e : fs::directory_iterator(dir / "parts" / "deeper")) entries += e.is_regular_file();
    EXPECT_EQ(entries, 1u);
}

TEST(Vrml97ImportLimits, InlineCyclesAreReadOnceAndDepthIsCapped) {
    testsupport::TempDir dir;
    // The world inlines itself three times: each copy is read once, none recurses.
    testsupport::WriteFile(dir / "self.wrl", World("Shape { geometry Box {} } Inline { url \"self.wrl\" }"
                                                   "Inline { url \"./self.wrl\" } Inline { url \"self.wrl\" }"));
    ReadResult r = ReadPath(dir / "self.wrl");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 1u);
    EXPECT_TRUE(r.LogHas(L"includes a world that includes it"));
    // a -> b -> a: b is read once, a not again.
    testsupport::WriteFile(dir / "a.wrl", World("Shape { geometry Box {} } Inline { url \"b.wrl\" }"));
    testsupport::WriteFile(dir / "b.wrl", World("Shape { geometry Cone {} } Inline { url \"a.wrl\" }"));
    ReadResult ab = ReadPath(dir / "a.wrl");
    ASSERT_TRUE(ab.scene);
    EXPECT_EQ(AllNodes(*ab.scene, KINDOF_MESH).size(), 2u);
    // A chain of 12 distinct files stops after 8 levels of Inline.
    for (int i = 0; i < 12; ++i)
        testsupport::WriteFile(
            dir / ("c" + std::to_string(i) + ".wrl"),
            World("Shape { geometry Box {} } Inline { url \"c" + std::to_string(i + 1) + ".wrl\" }"));
    ReadResult c = ReadPath(dir / "c0.wrl");
    ASSERT_TRUE(c.scene);
    EXPECT_EQ(AllNodes(*c.scene, KINDOF_MESH).size(), 9u);
    EXPECT_TRUE(c.LogHas(L"levels deep were not read"));
}

TEST(Vrml97ImportLimits, EveryPrefixOfAWorldReadsWithoutHarm) {
    std::string w =
        World("DEF T Transform { translation 1 2 3 rotation 0 1 0 0.5 children [\n"
              " Shape { appearance Appearance { material Material { diffuseColor 1 0 0 }"
              " texture ImageTexture { url \"C:/t/a.png\" } }\n"
              "  geometry IndexedFaceSet { coord Coordinate { point [0 0 0, 1 0 0, 1 1 0, 0 1 0] }\n"
              "   coordIndex [0 1 2 -1 0 2 3 -1] color Color { color [1 0 0, 0 1 0] } colorIndex [0 1 0 -1 1 0 1 -1]\n"
              "   texCoord TextureCoordinate { point [0 0, 1 1] } texCoordIndex [0 1 1 -1 0 0 1] } }\n"
              " Viewpoint { position 0 0 5 orientation 1 0 0 0.2 }\n"
              " Switch { choice [ Shape { geometry Cone {} } Shape { geometry IndexedLineSet {"
              " coord Coordinate { point [0 0 0, 1 1 1] } coordIndex [0 1] } } ] }\n"
              " Shape { geometry Extrusion { spine [0 0 0, 0 1 0, 1 2 0] } }\n"
              " Shape { geometry ElevationGrid { xDimension 2 zDimension 2 height [0 1 2 3] } } ] }\n"
              "PROTO Q [ field SFFloat r 1 ] { Shape { geometry Sphere { radius IS r } } } Q { r 2 }");
    testsupport::TempDir dir;
    ReadResult full = ReadWorld(w);
    ASSERT_TRUE(full.scene);
    EXPECT_EQ(AllNodes(*full.scene, KINDOF_MESH).size(), 5u);
    for (size_t n = 0; n < w.size(); n += 3) {
        ReadResult r = ReadWorld(w.substr(0, n));
        EXPECT_TRUE(r.scene ? r.error == 0 : r.error == -10) << n;
    }
}

TEST(Vrml97ImportLimits, RegressionFilesReadWithoutHarm) {
    fs::path dir = testsupport::SourceDir() / "tests" / "regressions" / "vrml97import";
    size_t n = 0;
    std::error_code ec;
    for (auto& e : fs::directory_iterator(dir, ec)) {
        if (!e.is_regular_file()) continue;
        ReadResult r = ReadPath(e.path());
        EXPECT_TRUE(r.scene ? r.error == 0 : (r.error == -10 || r.error == -3)) << e.path();
        ++n;
    }
    SUCCEED() << n << " regression files";
}
