// trueSpace writing: exact ASCII bytes of a one-triangle scene, binary layout checks,
// write-then-read in both encodings (the scene comes back), what the writer leaves out.
#include <gtest/gtest.h>

#include "formats/classic/TruespaceWriter.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/HostTypes.h"
#include "tests/classic/TruespaceTestSupport.h"
#include "tests/support/TestSupport.h"

using cobtest::Builder;
using cobtest::Face;
using cobtest::Mat;
using cobtest::Object;

namespace {

// One red triangle, counter-clockwise, no UVs.
std::unique_ptr<C3DScene> Triangle() {
    auto s = std::make_unique<C3DScene>();
    auto* m = static_cast<C3DStandardMaterial*>(s->CreateNewMaterial());
    m->diffuse = CRGBColor(255, 0, 0);
    m->smoothAngle = 40;
    auto obj = std::make_unique<C3DObject>();
    auto pts = std::make_unique<C3DPointList>();
    pts->Add(0, 0, 0);
    pts->Add(1, 0, 0);
    pts->Add(0, 1, 0);
    auto faces = std::make_unique<C3DFaceList>();
    faces->SetCurrentMaterial(m->GetID());
    faces->AddTriangle(0, 1, 2);
    obj->SetPointList(pts.release());
    obj->SetFaceList(faces.release());
    auto* node = new C3DSceneNode(obj.release());
    node->SetName(CXStringW(L"Tri"));
    s->AddNode(nullptr, node);
    return s;
}

std::string AsciiChunk(const std::string& head, const std::string& body) {
    char size[16];
    std::snprintf(size, sizeof size, "%08zu", body.size() + 1);
    return head + " Size " + size + "\n" + body;
}

std::string Write(const C3DScene& s, bool ascii) {
    std::string out;
    tsio::WriteScene(s, ascii, out);
    return out;
}

// A richer file to go round: a group holding two meshes, UVs, a texture, two materials
// on one mesh (mat# 1 and 2, kept as they were), a quad and a pentagon, feet.
std::string Rich() {
    const Object g{.type = "Grou", .id = 10, .name = "Rig", .tm = {0, -1, 0, 5, 1, 0, 0, 0, 0, 0, 1, 2}};
    const Object arm{.id = 20,
                     .parent = 10,
                     .name = "Arm",
                     .dup = 3,
                     .tm = {0, -1, 0, 6, 1, 0, 0, 1, 0, 0, 1, 2},
                     .points = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 2, 0.5f, 0, 0.5f, 2, 0.25f},
                     .uvs = {0, 0, 1, 0, 1, 1, 0, 1},
                     .faces = {Face{{{0, 0}, {1, 1}, {2, 2}, {3, 3}}, 1, false},
                               Face{{{1, 1}, {4, 2}, {2, 2}, {5, 3}, {3, 0}}, 2, false}}};
    const Mat m1{.id = 21, .parent = 20, .number = 1, .texture = "skin.png"};
    const Mat m2{.id = 22, .parent = 20, .number = 2, .rgb = {0.5f, 1, 1}, .alpha = 0.25f, .hasKd = true, .kd = 0.5f};
    const Object leg{.id = 30,
                     .parent = 10,
                     .name = "Leg",
                     .points = {0, 0, 0, 0, 0, 1, 1, 0, 0},
                     .uvs = {0.5f, 0.5f},
                     .faces = {Face{{{0, 0}, {1, 0}, {2, 0}}, 4, false}}};
    const Mat m3{.id = 31, .parent = 30, .number = 4, .ior = 1.5f};
    return Builder(false).Add(g).Unit(11, 10, 5).Add(arm).Add(m1).Add(m2).Add(leg).Add(m3).End().Bytes();
}

} // namespace

TEST(TruespaceWrite, AsciiTriangleExactBytes) {
    auto s = Triangle();
    std::string expected = "Caligari V00.01ALH             \n";
    expected += AsciiChunk("PolH V0.08 Id 100 Parent 0",
                           "Name Tri\ncenter 0 0 0\nx axis 1 0 0\ny axis 0 1 0\nz axis 0 0 1\nTransform\n"
                           "1 0 0 0\n0 1 0 0\n0 0 1 0\n0 0 0 1\n"
                           "World Vertices 3\n0 0 0\n1 0 0\n0 1 0\n"
                           "Texture Vertices 1\n0 0\n"
                           "Faces 1\nFace verts 3 flags 0 mat 0\n<2,0> <1,0> <0,0> \n"
                           "DrawFlags 0\n");
    expected += AsciiChunk("Unit V0.01 Id 101 Parent 100", "Units 2\n");
    expected += AsciiChunk("Mat1 V0.08 Id 102 Parent 100", "mat# 0\nshader: phong  facet: auto40\nrgb 1.0,0.0,0.0\n"
                                                           "alpha 1  ka 1  ks 0  exp 0  ior 1  kd 1\n");
    expected +=
        AsciiChunk("ShBx V0.04 Id 103 Parent 102",
                   "Shader class: color\nShader name: \"plain color\" (plain)\nNumber of parameters: 1\n"
                   "colour: color (255, 0, 0)\nFlags: 3\n"
                   "Shader class: transparency\nShader name: \"none\" (none)\nNumber of parameters: 0\nFlags: 3\n"
                   "Shader class: reflectance\nShader name: \"caligari phong\" (caligari phong)\n"
                   "Number of parameters: 8\nambient factor: float 1\ndiffuse factor: float 1\n"
                   "specular factor: float 0\nexponent: float 3\nspecular colour: color (255, 255, 255)\n"
                   "transmission factor: float 0\nmirror factor: float 0\nrefraction: float 1\nFlags: 3\n"
                   "Shader class: displacement\nShader name: \"none\" (none)\nNumber of parameters: 0\nFlags: 3\n");
    expected += "END  V1.00 Id 0 Parent 0 Size        0\n";
    EXPECT_EQ(Write(*s, true), expected);
}

TEST(TruespaceWrite, BinaryTriangleLayout) {
    auto s = Triangle();
    const std::string b = Write(*s, false);
    ASSERT_EQ(b.substr(0, 32), "Caligari V00.01BLH             \n");
    // Walk the chunks by their sizes: PolH, Unit, Mat1, ShBx, END, and nothing after.
    std::vector<std::string> types;
    size_t p = 32;
    uint32_t polhSize = 0, mat1Size = 0;
    while (p + 20 <= b.size()) {
        uint32_t size;
        std::memcpy(&size, &b[p + 16], 4);
        types.push_back(b.substr(p, 4));
        if (types.back() == "PolH") polhSize = size;
        if (types.back() == "Mat1") mat1Size = size;
        p += 20 + size;
    }
    EXPECT_EQ(p, b.size());
    EXPECT_EQ(types, (std::vector<std::string>{"PolH", "Unit", "Mat1", "ShBx", "END "}));
    // Name block 4 + 3, frame 96, points 4 + 36, one UV 4 + 8, faces 4 + (1 + 2 + 2 + 3 * 8), draw flags 4.
    EXPECT_EQ(polhSize, 7u + 96 + 40 + 12 + 4 + 29 + 4);
    EXPECT_EQ(mat1Size, 41u); // with the diffuse factor, no texture record
    // With a texture: the record follows ior directly (no diffuse factor), as in trueSpace's files.
    C3DMaterial* m = s->GetMaterialByID(cobtest::Nodes(*s)[0]->GetGeomObject()->GetFaceList()->GetMaterialID(0));
    m->AddMaterialMap(CXStringW(L"wood.jpg"), -1, MAP_DIFFUSE);
    const std::string t = Write(*s, false);
    const size_t mat1 = t.find("Mat1");
    ASSERT_NE(mat1, std::string::npos);
    uint32_t texturedSize;
    std::memcpy(&texturedSize, &t[mat1 + 16], 4);
    EXPECT_EQ(texturedSize, 37u + 2 + 1 + 2 + 8 + 16);
    EXPECT_EQ(t.substr(mat1 + 20 + 37, 2), "t:");
    // The face: flags 0, three corners, mat 0, corners reversed to clockwise.
    const size_t face = 52 + 7 + 96 + 40 + 12 + 4;
    EXPECT_EQ(b[face], 0);
    uint32_t first;
    std::memcpy(&first, &b[face + 5], 4);
    EXPECT_EQ(first, 2u);
}

TEST(TruespaceWrite, BinaryRoundTripKeepsTheScene) {
    auto first = cobtest::Read(Rich());
    ASSERT_TRUE(first.scene);
    const std::string written = Write(*first.scene, false);
    auto again = cobtest::Read(written);
    ASSERT_TRUE(again.scene) << again.error;
    EXPECT_EQ(cobtest::Describe(*first.scene, 6), cobtest::Describe(*again.scene, 6));
    // And a second round gives the same bytes.
    EXPECT_EQ(Write(*again.scene, false), written);
}

// Both encodings through the parser, after the host's preparation: the scene comes back.
TEST(TruespaceWrite, SaveThroughTheParserWithItsPreparation) {
    auto first = cobtest::Read(Rich());
    ASSERT_TRUE(first.scene);
    testsupport::TempDir dir;
    for (bool ascii : {false, true}) {
        CFileIo io;
        CTruespaceIo parser(io);
        CSceneExportOptions opt;
        parser.SaveDefaultOptions(opt);
        if (ascii) opt.GetParserOptions().SetInt(CTruespaceIo::kOptionAscii, 1);
        auto prepared = PrepareSceneForExport(*first.scene, opt.prepFlags, &opt);
        const auto path = dir / (ascii ? "a.cob" : "b.cob");
        ASSERT_TRUE(parser.Save(classictest::WidePath(path), prepared.get(), opt));
        const std::string bytes = testsupport::ReadFile(path);
        EXPECT_EQ(bytes[15], ascii ? 'A' : 'B');
        auto back = cobtest::Read(bytes);
        ASSERT_TRUE(back.scene);
        EXPECT_EQ(cobtest::Describe(*first.scene, 5), cobtest::Describe(*back.scene, 5)) << ascii;
    }
}

TEST(TruespaceWrite, LeavesOutWhatItCannotWrite) {
    auto s = Triangle();
    C3DGeomObject* g = cobtest::Nodes(*s)[0]->GetGeomObject();
    g->GetFaceList()->AddFace(std::vector<uint32_t>{0, 1}.data(), 2); // a line
    g->GetFaceList()->AddTriangle(0, 2, 1, FACE_SKIP);                // flagged to skip
    g->GetFaceList()->AddTriangle(0, 1, 7);                           // past the points
    auto back = cobtest::Read(Write(*s, false));
    ASSERT_TRUE(back.scene);
    EXPECT_EQ(cobtest::Nodes(*back.scene)[0]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);

    // Nothing to write: no scene, or no mesh.
    CFileIo io;
    CTruespaceIo parser(io);
    CSceneExportOptions opt;
    C3DScene empty;
    testsupport::TempDir dir;
    EXPECT_FALSE(parser.Save(classictest::WidePath(dir / "x.cob"), &empty, opt));
    EXPECT_EQ(io.GetIoError(), IO_ERR_NOTHING_TO_WRITE);
    CFileIo io2;
    CTruespaceIo parser2(io2);
    EXPECT_FALSE(parser2.Save(CXStringW(L"/nonexistent/dir/x.cob"), s.get(), opt));
    EXPECT_EQ(io2.GetIoError(), IO_ERR_OPEN);
}

TEST(TruespaceWrite, FacesWithoutMaterialOrUvsGetTheSmallestValidOnes) {
    // trueSpace readers expect a Mat1 for every mat# and at least one UV.
    auto s = Triangle();
    cobtest::Nodes(*s)[0]->GetGeomObject()->GetFaceList()->SetAllMaterialIDs(NO_MATERIAL);
    auto back = cobtest::Read(Write(*s, false));
    ASSERT_TRUE(back.scene);
    const C3DGeomObject* g = cobtest::Nodes(*back.scene)[0]->GetGeomObject();
    ASSERT_EQ(back.scene->GetMaterialNumber(), 1);
    const C3DMaterial* m = back.scene->GetMaterialByID(g->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->diffuse, CRGBColor(204, 204, 204));
    ASSERT_TRUE(g->GetGlobalUVWChannel());
    EXPECT_EQ(g->GetGlobalUVWChannel()->GetUVWPointList()->size(), 1u);
}
