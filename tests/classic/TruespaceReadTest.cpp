// trueSpace reading: hand-built files in both encodings, holes, hierarchy, materials,
// and the hostile inputs (lying sizes, parent cycles, counts past the chunk, text
// where numbers belong, a header naming the wrong encoding, every cut-short prefix).
#include <gtest/gtest.h>

#include <filesystem>

#include "plugin/host/HostTypes.h"
#include "tests/classic/TruespaceTestSupport.h"
#include "tests/support/TestSupport.h"

using cobtest::Builder;
using cobtest::Describe;
using cobtest::Face;
using cobtest::Mat;
using cobtest::Object;

namespace {

// A group (scaled by 2, moved to x = 10) holding a mesh: a quad with material 1 and a
// triangle with material 0, two UVs; the mesh's matrix is absolute (scale 2, x = 12).
std::string Sample(bool ascii, bool bigEndian = false) {
    const Object g{.type = "Grou", .id = 500, .name = "Body", .tm = {2, 0, 0, 10, 0, 2, 0, 0, 0, 0, 2, 0}};
    const Object m{
        .id = 600,
        .parent = 500,
        .name = "Sphere",
        .dup = 2,
        .tm = {2, 0, 0, 12, 0, 2, 0, 0, 0, 0, 2, 0},
        .points = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0.5f, 0.5f, 1},
        .uvs = {0, 0, 1, 1},
        .faces = {Face{{{0, 0}, {1, 1}, {2, 1}, {3, 0}}, 1, false}, Face{{{0, 0}, {1, 0}, {4, 1}}, 0, false}}};
    const Mat m0{.id = 700, .parent = 600, .number = 0};
    const Mat m1{.id = 710, .parent = 600, .number = 1, .rgb = {1, 0, 0}, .alpha = 0.5f, .hasKd = true, .kd = 0.75f};
    return Builder(ascii, bigEndian).Add(g).Unit(501, 500, 5).Add(m).Unit(601, 600, 5).Add(m0).Add(m1).End().Bytes();
}

// One triangle with material 0 and no UVs.
Object Triangle(int32_t id = 1, const std::string& name = "") {
    return Object{.id = id,
                  .name = name,
                  .points = {0, 0, 0, 1, 0, 0, 0, 1, 0},
                  .faces = {Face{{{0, 0}, {1, 0}, {2, 0}}, 0, false}}};
}

} // namespace

TEST(TruespaceRead, BinarySampleBuildsHierarchyMeshAndMaterials) {
    auto r = cobtest::Read(Sample(false));
    ASSERT_TRUE(r.scene) << r.error;
    auto nodes = cobtest::Nodes(*r.scene);
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0]->GetName().str(), L"Body");
    EXPECT_EQ(nodes[0]->GetKindOf(), uint32_t(KINDOF_GROUP));
    EXPECT_EQ(nodes[1]->GetName().str(), L"Sphere,2");
    EXPECT_EQ(nodes[1]->GetParent(), nodes[0]);
    EXPECT_EQ(nodes[1]->GetNodeID(), 600u);

    // Absolute matrices become local ones: the mesh sits 2 units right of its group,
    // in the group's scaled frame (x offset 1, no scale of its own).
    const C4x4Matrix& local = nodes[1]->GetStaticLocalTM();
    EXPECT_FLOAT_EQ(local.m[0][0], 1);
    EXPECT_FLOAT_EQ(local.m[3][0], 1);
    C4x4Matrix world;
    nodes[1]->GetNodeTM(0, world);
    EXPECT_FLOAT_EQ(world.m[0][0], 2);
    EXPECT_FLOAT_EQ(world.m[3][0], 12);

    const C3DGeomObject* g = nodes[1]->GetGeomObject();
    ASSERT_TRUE(g);
    EXPECT_EQ(g->GetPointList()->size(), 5u);
    const C3DFaceList* f = g->GetFaceList();
    ASSERT_EQ(f->GetNumberOfFaces(), 2);
    // Clockwise in the file, counter-clockwise in the scene.
    EXPECT_EQ(std::vector<uint32_t>(f->Face(0).begin(), f->Face(0).end()), (std::vector<uint32_t>{3, 2, 1, 0}));
    EXPECT_EQ(std::vector<uint32_t>(f->Face(1).begin(), f->Face(1).end()), (std::vector<uint32_t>{4, 1, 0}));
    const CUVWChannel* uv = g->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    auto uf = uv->GetUVWFaceList()->Face(0);
    EXPECT_EQ(std::vector<uint32_t>(uf.begin(), uf.end()), (std::vector<uint32_t>{0, 1, 1, 0}));

    // Each face's mat# names a Mat1 of its own mesh.
    const C3DMaterial* red = r.scene->GetMaterialByID(f->GetMaterialID(0));
    const C3DMaterial* grey = r.scene->GetMaterialByID(f->GetMaterialID(1));
    ASSERT_TRUE(red && grey);
    EXPECT_EQ(red->diffuse, CRGBColor(255, 0, 0));
    EXPECT_FLOAT_EQ(red->diffuseFactor, 0.75f);
    EXPECT_FLOAT_EQ(red->transparency, 0.5f);
    EXPECT_FLOAT_EQ(grey->diffuseFactor, 1.0f);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 2);
    EXPECT_EQ(r.scene->GetUnit(), UNIT_FOOT);
    EXPECT_DOUBLE_EQ(r.scene->GetScaleFactor(), 30.48);
}

// The same scene in every encoding the reader takes: ASCII, big-endian binary, ASCII
// with CR-LF line ends (the header's own line end too, so the body starts with an empty
// line), and files whose header names the other encoding (the body decides, and says so).
TEST(TruespaceRead, EveryEncodingGivesTheSameScene) {
    auto bin = cobtest::Read(Sample(false));
    ASSERT_TRUE(bin.scene) << bin.error;
    std::string crlf;
    for (char c : Sample(true)) {
        if (c == '\n') crlf += '\r';
        crlf += c;
    }
    std::string binSaysAscii = Sample(false), asciiSaysBinary = Sample(true);
    binSaysAscii[15] = 'A';
    asciiSaysBinary[15] = 'B';
    const struct {
        const char* name;
        std::string bytes;
        const wchar_t* logged;
    } cases[] = {{"ascii", Sample(true), nullptr},
                 {"big-endian", Sample(false, true), nullptr},
                 {"crlf", crlf, nullptr},
                 {"binary, header says ASCII", binSaysAscii, L"header says ASCII"},
                 {"ascii, header says binary", asciiSaysBinary, L"header says binary"}};
    for (const auto& c : cases) {
        auto r = cobtest::Read(c.bytes);
        ASSERT_TRUE(r.scene) << c.name << " " << r.error;
        EXPECT_EQ(Describe(*bin.scene), Describe(*r.scene)) << c.name;
        if (c.logged) { EXPECT_TRUE(r.Logged(c.logged)) << c.name; }
    }
}

TEST(TruespaceRead, HoleIsBridgedIntoItsFaceWindingAgainstIt) {
    for (bool ascii : {false, true}) {
        Builder b(ascii);
        Object m;
        m.id = 1;
        m.name = "Frame";
        m.points = {0, 0, 0, 4, 0, 0, 4, 4, 0, 0, 4, 0, 1, 1, 0, 3, 1, 0, 3, 3, 0, 1, 3, 0};
        m.uvs = {0, 0};
        // Outer and hole listed the same way round: the outer face is turned for the host,
        // the hole must end up winding against it.
        m.faces = {Face{{{0, 0}, {1, 0}, {2, 0}, {3, 0}}, 0, false}, Face{{{4, 0}, {5, 0}, {6, 0}, {7, 0}}, 0, true}};
        b.Add(m).End();
        auto r = cobtest::Read(b.Bytes());
        ASSERT_TRUE(r.scene) << ascii;
        const C3DGeomObject* g = cobtest::Nodes(*r.scene)[0]->GetGeomObject();
        const C3DFaceList* f = g->GetFaceList();
        ASSERT_EQ(f->GetNumberOfFaces(), 1) << ascii;
        auto face = f->Face(0);
        ASSERT_EQ(face.size(), 10u);
        // Outer corner 3 (0,4) and hole corner 7 (1,3) are the first closest pair: the
        // bridge joins them, and the hole runs counter-clockwise inside the clockwise outer.
        const std::vector<uint32_t> got(face.begin(), face.end());
        EXPECT_EQ(got, (std::vector<uint32_t>{3, 7, 4, 5, 6, 7, 3, 2, 1, 0})) << ascii;
        // The UV face follows the same corners.
        EXPECT_EQ(g->GetGlobalUVWChannel()->GetUVWFaceList()->Face(0).size(), 10u);
    }
}

TEST(TruespaceRead, HolesPastTheCapAreLeftOut) {
    // 300 triangular holes in one face: bridging copies the face each time, so only the
    // first 256 are bridged and the rest are reported.
    Object m;
    m.id = 1;
    m.points = {0, 0, 0, 100, 0, 0, 100, 100, 0, 0, 100, 0};
    m.faces = {Face{{{0, 0}, {1, 0}, {2, 0}, {3, 0}}, 0, false}};
    for (int h = 0; h < 300; ++h) {
        const uint32_t base = static_cast<uint32_t>(m.points.size() / 3);
        const float x = 1 + float(h % 20) * 4, y = 1 + float(h / 20) * 4;
        m.points.insert(m.points.end(), {x, y, 0, x + 1, y, 0, x, y + 1, 0});
        m.faces.push_back(Face{{{base, 0}, {base + 2, 0}, {base + 1, 0}}, 0, true});
    }
    auto r = cobtest::Read(Builder(false).Add(m).End().Bytes());
    ASSERT_TRUE(r.scene);
    const C3DFaceList* f = cobtest::Nodes(*r.scene)[0]->GetGeomObject()->GetFaceList();
    ASSERT_EQ(f->GetNumberOfFaces(), 1);
    EXPECT_EQ(f->Face(0).size(), 4u + 256u * 5u);
    EXPECT_TRUE(r.Logged(L"holes beyond 256"));
}

TEST(TruespaceRead, LightsAndCamerasBecomeNodesFromTheirObjectBlock) {
    // No sample exists: only the common object block is read, whatever follows it.
    for (bool ascii : {false, true}) {
        Builder b(ascii);
        const Object light{.type = "Lght", .id = 1, .name = "Sun", .tm = {1, 0, 0, 7, 0, 1, 0, 0, 0, 0, 1, 0}};
        b.Add(light).Add(Object{.type = "Came", .id = 2, .name = "View"}).End();
        auto r = cobtest::Read(b.Bytes());
        ASSERT_TRUE(r.scene) << ascii;
        const C3DSceneNode* sun = r.scene->FindNodeByName(CXStringW(L"Sun"));
        const C3DSceneNode* view = r.scene->FindNodeByName(CXStringW(L"View"));
        ASSERT_TRUE(sun && view);
        EXPECT_EQ(sun->GetKindOf(), uint32_t(KINDOF_LIGHT));
        EXPECT_EQ(view->GetKindOf(), uint32_t(KINDOF_CAMERA));
        EXPECT_FLOAT_EQ(sun->GetStaticLocalTM().m[3][0], 7);
    }
}

TEST(TruespaceRead, ParentCyclesAndDanglingParentsEndAtTheTop) {
    Builder b(false);
    b.Add(Object{.type = "Grou", .id = 1, .parent = 2, .name = "A"});
    b.Add(Object{.type = "Grou", .id = 2, .parent = 1, .name = "C"});
    b.Add(Object{.type = "Grou", .id = 3, .parent = 99, .name = "D"}); // points nowhere
    b.Add(Object{.type = "Grou", .id = 4, .parent = 4, .name = "Self"}).End();
    auto r = cobtest::Read(b.Bytes());
    ASSERT_TRUE(r.scene);
    auto nodes = cobtest::Nodes(*r.scene);
    ASSERT_EQ(nodes.size(), 4u);
    int roots = 0;
    for (C3DSceneNode* n : nodes) roots += n->GetParent() == r.scene->GetRoot();
    EXPECT_EQ(roots, 3); // one of A and C, D, Self
    EXPECT_EQ(r.scene->FindNodeByName(CXStringW(L"D"))->GetParent(), r.scene->GetRoot());
    EXPECT_TRUE(r.Logged(L"cycles"));
    EXPECT_TRUE(r.Logged(L"parent is missing"));
}

TEST(TruespaceRead, LongParentChainIsPlacedWithoutRecursion) {
    Builder b(false);
    const int n = 20000;
    for (int i = 1; i <= n; ++i) // children first, and the last closes a ring
        b.Add(Object{.type = "Grou", .id = i, .parent = i == n ? 1 : i + 1});
    b.End();
    auto r = cobtest::Read(b.Bytes());
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetNodeCount(), n);
}

TEST(TruespaceRead, LyingChunkSizes) {
    // A size past the end of the file is cut to the file: the mesh still reads.
    Builder b(false);
    std::string body = Builder(false).Add(Triangle()).Bytes().substr(32 + 20);
    b.Chunk("PolH", 0, 8, 1, 0, body, 0x7FFFFFF0);
    auto r = cobtest::Read(b.Bytes());
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(cobtest::Nodes(*r.scene)[0]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);
    EXPECT_TRUE(r.Logged(L"claims more bytes"));

    // A size too small fences the mesh short: it is dropped, and the walk goes on from
    // where the size says, through the rest of the body (no object there either).
    Builder s(false);
    s.Chunk("PolH", 0, 8, 1, 0, body, 40);
    auto r2 = cobtest::Read(s.Bytes());
    EXPECT_FALSE(r2.scene);
    EXPECT_TRUE(r2.error == IO_ERR_EMPTY || r2.error == IO_ERR_FORMAT) << r2.error;
}

TEST(TruespaceRead, CountsBeyondTheChunkDropTheChunkOnly) {
    for (bool ascii : {false, true}) {
        std::string bytes = Builder(ascii).Add(Triangle(1, "Big")).Bytes();
        // Claim a billion points (and, in a second file, a billion faces).
        for (const char* what : {"points", "faces"}) {
            std::string bad = bytes;
            if (ascii) {
                const std::string from = std::string(what) == std::string("points") ? "World Vertices 3" : "Faces 1";
                const std::string to =
                    std::string(what) == std::string("points") ? "World Vertices 1000000000" : "Faces 1000000000";
                bad.replace(bad.find(from), from.size(), to);
            } else {
                // Header 32 + chunk 20 + dup 2 + len 2 + name 3 + 24 floats.
                size_t at = 32 + 20 + 4 + 3 + 96;
                if (std::string(what) == "faces") at += 4 + 36 + 4;
                const uint32_t huge = 1000000000;
                std::memcpy(&bad[at], &huge, 4);
            }
            const Object kept{.type = "Grou", .id = 2, .name = "Kept"};
            auto r = cobtest::Read(bad + Builder(ascii).Add(kept).End().Bytes().substr(32));
            ASSERT_TRUE(r.scene) << ascii << what;
            EXPECT_EQ(r.scene->GetNodeCount(), 1) << ascii << what;
            EXPECT_TRUE(r.Logged(L"damaged PolH")) << ascii << what;
        }
    }
}

TEST(TruespaceRead, AsciiWordsWhereNumbersBelong) {
    std::string text = Builder(true).Add(Triangle()).End().Bytes();
    for (const std::string& from : {std::string("1 0 0\n0 1 0\nTexture"), std::string("<1,0>")}) {
        std::string bad = text;
        const size_t at = bad.find(from);
        ASSERT_NE(at, std::string::npos);
        bad.replace(at, 1, from[0] == '<' ? "<x" : "x");
        auto r = cobtest::Read(bad);
        EXPECT_FALSE(r.scene);
        EXPECT_EQ(r.error, IO_ERR_EMPTY);
    }
}

TEST(TruespaceRead, FacesIndexingPastThePointsAreDropped) {
    Object m = Triangle();
    m.uvs = {0, 0};
    m.faces.push_back(Face{{{0, 0}, {1, 0}, {3, 0}}, 0, false});
    m.faces.push_back(Face{{{0, 0}, {1, 5}, {2, 0}}, 0, false});
    for (bool ascii : {false, true}) {
        auto r = cobtest::Read(Builder(ascii).Add(m).End().Bytes());
        ASSERT_TRUE(r.scene);
        const C3DGeomObject* g = cobtest::Nodes(*r.scene)[0]->GetGeomObject();
        EXPECT_EQ(g->GetFaceList()->GetNumberOfFaces(), 2);
        auto uv = g->GetGlobalUVWChannel()->GetUVWFaceList()->Face(1);
        EXPECT_EQ(uv[1], 0u); // the UV index 5 of one UV became 0
        EXPECT_TRUE(r.Logged(L"faces with vertex indices out of range"));
    }
}

TEST(TruespaceRead, NotThisFormatEmptyAndUnknownChunks) {
    EXPECT_EQ(cobtest::Read("").error, IO_ERR_FORMAT);
    EXPECT_EQ(cobtest::Read("Caligari").error, IO_ERR_FORMAT);
    EXPECT_EQ(cobtest::Read("Calligari V00.01BLH             \n").error, IO_ERR_FORMAT);
    // Only unknown chunks: this format, nothing to show.
    Builder b(false);
    b.Chunk("Zzzz", 0, 1, 5, 0, std::string(10, 'x')).End();
    EXPECT_EQ(cobtest::Read(b.Bytes()).error, IO_ERR_EMPTY);
    // Unknown chunks between known ones are stepped over by size; bytes after END are ignored.
    Builder c(false);
    c.Chunk("Chan", 0, 12, 7, 9, std::string(300, '\xff')).Add(Object{.type = "Grou", .id = 9}).End();
    auto r = cobtest::Read(c.Bytes() + "garbage after the end");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetNodeCount(), 1);
}

TEST(TruespaceRead, EveryPrefixReadsOrFailsCleanly) {
    for (bool ascii : {false, true}) {
        const std::string full = Sample(ascii);
        for (size_t n = 0; n < full.size(); ++n) {
            auto r = cobtest::Read(full.substr(0, n));
            if (r.scene) {
                C4x4Matrix tm;
                for (C3DSceneNode* node : cobtest::Nodes(*r.scene)) node->GetNodeTM(0, tm);
            } else {
                EXPECT_TRUE(r.error == IO_ERR_FORMAT || r.error == IO_ERR_EMPTY) << n << " " << r.error;
            }
        }
    }
}

TEST(TruespaceRead, TexturesAreFoundBesideTheModelOrReportedMissing) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "wood.jpg", "jpeg");
    Object m = Triangle();
    m.faces.push_back(Face{{{0, 0}, {2, 0}, {1, 0}}, 1, false});
    Builder b(false);
    b.Add(m).Add(Mat{.id = 2, .parent = 1, .number = 0, .texture = "C:\\textures\\wood.jpg"});
    b.Add(Mat{.id = 3, .parent = 1, .number = 1, .texture = "missing.jpg"}).End();
    testsupport::WriteFile(dir / "m.cob", b.Bytes());
    auto r = classictest::ReadFileWith<CTruespaceIo>(dir / "m.cob");
    ASSERT_TRUE(r.scene);
    const C3DFaceList* f = cobtest::Nodes(*r.scene)[0]->GetGeomObject()->GetFaceList();
    const CMaterialMap* found = r.scene->GetMaterialByID(f->GetMaterialID(0))->GetMaterialMap(MAP_DIFFUSE);
    const CMaterialMap* missing = r.scene->GetMaterialByID(f->GetMaterialID(1))->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(found && missing);
    EXPECT_EQ(std::filesystem::path(WideToUtf8(found->file.str())), dir / "wood.jpg");
    EXPECT_EQ(missing->file.str(), L"missing.jpg");
    EXPECT_TRUE(r.Logged(L"texture not found: missing.jpg"));
}

TEST(TruespaceRead, KeptRegressionInputsReadWithoutACrash) {
    namespace fs = std::filesystem;
    const fs::path dir = testsupport::SourceDir() / "tests" / "regressions" / "classic";
    if (!fs::is_directory(dir)) GTEST_SKIP() << "no regression folder";
    int replayed = 0;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (!e.is_regular_file() || e.path().filename().string().rfind("cob_", 0) != 0) continue;
        auto r = cobtest::Read(testsupport::ReadFile(e.path()));
        if (r.scene) {
            C4x4Matrix tm;
            for (C3DSceneNode* n : cobtest::Nodes(*r.scene)) n->GetNodeTM(0, tm);
        } else {
            EXPECT_TRUE(r.error == IO_ERR_FORMAT || r.error == IO_ERR_EMPTY) << e.path();
        }
        ++replayed;
    }
    if (replayed == 0) GTEST_SKIP() << "no kept trueSpace inputs";
}
