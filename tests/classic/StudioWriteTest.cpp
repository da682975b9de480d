// 3DS writer: exact bytes of a small scene, face splitting and material lists,
// the 16-bit limits, names, transforms and hierarchy through a read-back.
#include <gtest/gtest.h>

#include <cmath>

#include "formats/classic/C3DStudioWriter.h"
#include "plugin/host/Keys.h"
#include "plugin/host/Material.h"
#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

using namespace classictest;

namespace {

// Saves `scene` into a temporary file and returns its bytes ("" when Save failed).
std::string SaveBytes(C3DScene& scene, int* error = nullptr, std::vector<std::wstring>* log = nullptr) {
    testsupport::TempDir tmp;
    std::filesystem::path p = tmp / "out.3ds";
    CFileIo io;
    CSceneExportOptions opt;
    C3DStudioIo parser(io);
    bool ok = parser.Save(WidePath(p), &scene, opt);
    if (error) *error = io.GetIoError();
    if (log)
        for (const IoLogInfo& l : opt.GetLog()) log->emplace_back(l.text.view());
    return ok ? testsupport::ReadFile(p) : std::string();
}

C3DSceneNode* AddMesh(C3DScene& s, C3DSceneNode* parent, const wchar_t* name, const std::vector<float>& xyz,
                      const std::vector<std::vector<uint32_t>>& faces, uint32_t material = NO_MATERIAL) {
    auto* mesh = new C3DObject();
    for (size_t i = 0; i < xyz.size(); i += 3) mesh->GetPointList()->Add(xyz[i], xyz[i + 1], xyz[i + 2]);
    for (auto& f : faces) {
        mesh->GetFaceList()->SetCurrentMaterial(material);
        mesh->GetFaceList()->AddFace(f.data(), static_cast<int>(f.size()));
    }
    auto* node = new C3DSceneNode(mesh);
    node->SetName(CXStringW(name));
    return s.AddNode(parent, node);
}

std::vector<std::string> ObjectNames(const std::string& file) {
    std::vector<std::string> names;
    auto top = ChunksIn(file, 0, file.size());
    auto editor = FindChunk(ChunksIn(file, top.at(0)), 0x3D3D);
    if (!editor) return names;
    for (const RawChunk& c : ChunksIn(file, *editor))
        if (c.id == 0x4000) names.emplace_back(file.c_str() + c.Data());
    return names;
}

} // namespace

TEST(StudioWrite, SmallSceneGivesTheExactChunks) {
    C3DScene scene;
    auto* red = dynamic_cast<C3DStandardMaterial*>(scene.CreateNewMaterial());
    ASSERT_TRUE(red);
    red->SetName(CXStringW(L"Red"));
    red->ambient = CRGBColor(10, 20, 30);
    red->diffuse = CRGBColor(255, 0, 0);
    red->specular = CRGBColor(1, 2, 3);
    red->transparency = 0.5f;
    red->AddMaterialMap(CXStringW(L"textures/longtexturename.jpeg"), 0, MAP_DIFFUSE);
    AddMesh(scene, nullptr, L"Triangle", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {{0, 1, 2}}, red->GetID());

    StudioBuilder b;
    b.Begin(0x4D4D).Begin(0x0002).U32(3).End();
    b.Begin(0x3D3D).Begin(0x3D3E).U32(3).End();
    b.Begin(0xAFFF).Begin(0xA000).Str("Red").End();
    b.Begin(0xA010).Begin(0x0011).U8(10).U8(20).U8(30).End().End();
    b.Begin(0xA020).Begin(0x0011).U8(255).U8(0).U8(0).End().End();
    b.Begin(0xA030).Begin(0x0011).U8(1).U8(2).U8(3).End().End();
    b.Begin(0xA050).Begin(0x0031).F32(0.5f).End().End();
    b.Begin(0xA200).Begin(0x0030).U16(100).End().Begin(0xA300).Str("longtext.jpe").End().End();
    b.End();
    b.Begin(0x0100).F32(1.0f).End();
    b.Begin(0x4000).Str("Triangle").Begin(0x4100);
    b.Points({0, 0, 0, 1, 0, 0, 0, 1, 0});
    const float identity[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    b.Matrix(identity);
    b.Begin(0x4120).U16(1).U16(0).U16(1).U16(2).U16(7);
    b.Begin(0x4130).Str("Red").U16(1).U16(0).End().End();
    b.End().End().End();
    b.Begin(0xB000);
    b.Begin(0xB00A).U16(5).Str("").U32(100).End();
    b.Begin(0xB008).U32(0).U32(100).End();
    b.Begin(0xB009).U32(0).End();
    b.Begin(0xB002).Begin(0xB030).U16(0).End().NodeHeader("Triangle", 0xFFFF);
    b.Begin(0xB013).F32(0).F32(0).F32(0).End();
    // The key-less node gets a translation key at 0; only the first time counts for position.
    b.Begin(0xB020).U16(0).U32(0).U32(0).U32(1).U32(0).U16(0).F32(0).F32(0).F32(0).End();
    b.End().End().End();
    ASSERT_EQ(b.Size(), 435u); // lengths added up by hand

    std::string written = SaveBytes(scene);
    EXPECT_EQ(written, b.Bytes());
    // Saving changed the scene, deliberately.
    C3DSceneNode* node = Named(scene, L"Triangle");
    EXPECT_EQ(node->GetKeyNbr(KEY_TRANSLATE), 1);
}

TEST(StudioWrite, QuadsSplitLargerFacesKeepOneTriangleAndMaterialsNumberTriangles) {
    C3DScene scene;
    C3DMaterial* a = scene.CreateNewMaterial();
    a->SetName(CXStringW(L"A"));
    C3DMaterial* bm = scene.CreateNewMaterial();
    bm->SetName(CXStringW(L"B"));
    C3DSceneNode* n = AddMesh(scene, nullptr, L"Faces", {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 2, 2, 0}, {});
    C3DFaceList& f = *n->GetGeomObject()->GetFaceList();
    const std::vector<std::pair<std::vector<uint32_t>, uint32_t>> faces = {
        {{0, 1, 2, 3}, a->GetID()}, {{0, 2, 4}, bm->GetID()}, {{0, 1, 2, 3, 4}, a->GetID()}, {{1, 2}, NO_MATERIAL}};
    for (auto& [idx, mat] : faces) {
        f.SetCurrentMaterial(mat);
        f.AddFace(idx.data(), static_cast<int>(idx.size()));
    }
    std::string file = SaveBytes(scene);
    auto top = ChunksIn(file, 0, file.size());
    auto editor = FindChunk(ChunksIn(file, top.at(0)), 0x3D3D);
    ASSERT_TRUE(editor);
    auto obj = FindChunk(ChunksIn(file, *editor), 0x4000);
    ASSERT_TRUE(obj);
    auto tri = FindChunk(ChunksIn(file, *obj, 6), 0x4100);
    ASSERT_TRUE(tri);
    auto faceChunk = FindChunk(ChunksIn(file, *tri), 0x4120);
    ASSERT_TRUE(faceChunk);

    StudioBuilder expect;
    expect.U16(5);
    expect.U16(0).U16(1).U16(2).U16(6).U16(2).U16(3).U16(0).U16(6); // quad
    expect.U16(0).U16(2).U16(4).U16(7);                             // triangle
    expect.U16(0).U16(1).U16(2).U16(6);                             // pentagon: first triangle only
    expect.U16(1).U16(2).U16(2).U16(6);                             // two corners: the last repeats
    expect.Begin(0x4130).Str("A").U16(3).U16(0).U16(1).U16(3).End();
    expect.Begin(0x4130).Str("B").U16(1).U16(2).End();
    EXPECT_EQ(file.substr(faceChunk->Data(), faceChunk->length - 6), expect.Bytes());
}

TEST(StudioWrite, MeshesPastTheLimitsAreLeftOutSilently) {
    C3DScene scene;
    auto addBig = [&](const wchar_t* name, int points, int quads, int tris) {
        C3DSceneNode* n = AddMesh(scene, nullptr, name, {}, {});
        C3DGeomObject* g = n->GetGeomObject();
        g->GetPointList()->SetSize(points);
        for (int i = 0; i < quads; ++i) g->GetFaceList()->AddFace(std::vector<uint32_t>{0, 1, 2, 3}.data(), 4);
        for (int i = 0; i < tris; ++i) g->GetFaceList()->AddTriangle(0, 1, 2);
    };
    addBig(L"Fits", 65535, 32767, 1); // 65535 triangles
    addBig(L"TooMany", 4, 32767, 2);  // 65536 triangles
    addBig(L"TooBig", 65536, 0, 1);   // 65536 points
    std::string file = SaveBytes(scene);
    EXPECT_EQ(ObjectNames(file), (std::vector<std::string>{"Fits"}));
    // Their keyframer nodes are still written, under new names the editor part lacks,
    // so the file does not read back.
    ReadResult r = ReadStudio(file);
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_FORMAT);
}

TEST(StudioWrite, NamesAreCutAndMadeUnique) {
    C3DScene scene;
    scene.CreateNewMaterial()->AddMaterialMap(CXStringW(L"maps/longtexturename.jpeg"), -1, MAP_DIFFUSE);
    scene.CreateNewMaterial();
    AddMesh(scene, nullptr, L"VeryLongNodeName", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {{0, 1, 2}});
    AddMesh(scene, nullptr, L"VeryLongNodeName", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {{0, 1, 2}});
    AddMesh(scene, nullptr, L"Short", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {{0, 1, 2}});
    std::vector<std::wstring> log;
    std::string file = SaveBytes(scene, nullptr, &log);
    EXPECT_EQ(ObjectNames(file), (std::vector<std::string>{"VeryLongNo", "VeryLongN1", "Short"}));
    // What the format could not keep is said, once for each thing changed, and nothing else.
    EXPECT_EQ(log, (std::vector<std::wstring>{
                       L"3D Studio texture names are 8.3: \"longtexturename.jpeg\" is written as \"longtext.jpe\".",
                       L"3D Studio names have ten characters: \"VeryLongNodeName\" is written as \"VeryLongNo\".",
                       L"3D Studio names have ten characters: \"VeryLongNodeName\" is written as \"VeryLongN1\"."}));
    ReadResult r = ReadStudio(file);
    ASSERT_TRUE(r.scene);
    CMaterialPos pos;
    std::vector<std::wstring> mats;
    for (C3DMaterial* m = r.scene->GetFirstMaterial(pos); m; m = r.scene->GetNextMaterial(pos))
        mats.emplace_back(m->GetName().view());
    EXPECT_EQ(mats, (std::vector<std::wstring>{L"Default Material", L"Default Materia1"}));
    EXPECT_EQ(C3DStudioWriter::ShortTextureName(CXStringW(L"C:/maps/longtexturename.jpeg")), L"longtext.jpe");
    EXPECT_EQ(C3DStudioWriter::ShortTextureName(CXStringW(L"a.png")), L"a.png");
}

TEST(StudioWrite, RepeatedNamesTakeTheFirstFreeSuffix) {
    // "Box2" is a name of its own before the third "Box" would need that suffix; cut names
    // count their suffixes apart from the names they came from.
    C3DScene scene;
    const std::vector<float> tri = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    for (const wchar_t* name : {L"Box", L"Box", L"Box2", L"Box", L"Box", L"ABCDEFGHIJKL", L"ABCDEFGHIJKL"})
        AddMesh(scene, nullptr, name, tri, {{0, 1, 2}});
    EXPECT_EQ(ObjectNames(SaveBytes(scene)),
              (std::vector<std::string>{"Box", "Box1", "Box2", "Box3", "Box4", "ABCDEFGHIJ", "ABCDEFGHI1"}));
}

TEST(StudioWrite, TransformsHierarchyAndMirrorsSurviveARoundTrip) {
    C3DScene scene;
    scene.SetUnit(UNIT_METER);
    scene.SetScaleFactor(100.0);
    auto* group = new C3DSceneNode(new C3DGroup());
    group->SetName(CXStringW(L"Grp"));
    group->SetNodeLocalTM(C4x4Matrix::Translation(10, 0, 0));
    scene.AddNode(nullptr, group);
    C3DSceneNode* kid = AddMesh(scene, group, L"Kid", {1, 2, 3, 2, 2, 3, 1, 3, 3}, {{0, 1, 2}});
    kid->SetNodeLocalTM(C4x4Matrix::Translation(1, 2, 3));
    C3DSceneNode* mirror = AddMesh(scene, nullptr, L"Mirror", {1, 2, 3, 4, 5, 6, 7, 8, 10}, {{0, 1, 2}});
    mirror->SetNodeLocalTM(C4x4Matrix::Scaling(-1, 1, 1) * C4x4Matrix::Translation(5, 0, 0));
    auto tcb = std::make_unique<C3DTranslateKey>(0);
    tcb->value = C3DVector(5, 0, 0);
    tcb->tcb.tension = 0.25f;
    auto rotKey = std::make_unique<C3DVectorKey>(KEY_SCALE, 0);
    rotKey->value = C3DVector(-1, 1, 1);
    mirror->AddKey(std::move(tcb));
    mirror->AddKey(std::move(rotKey));
    auto reference = scene.Clone();

    std::string file = SaveBytes(scene);
    ReadResult r = ReadStudio(file);
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(r.scene->GetUnit(), UNIT_METER);
    EXPECT_NEAR(r.scene->GetScaleFactor(), 100.0, 1e-3);

    C3DSceneNode* g2 = Named(*r.scene, L"Grp");
    C3DSceneNode* k2 = Named(*r.scene, L"Kid");
    ASSERT_TRUE(g2 && k2);
    EXPECT_EQ(g2->GetKindOf(), KINDOF_GROUP);
    EXPECT_EQ(k2->GetParent(), g2);
    for (const wchar_t* name : {L"Kid", L"Mirror"}) {
        C3DSceneNode* a = Named(*reference, name);
        C3DSceneNode* b = Named(*r.scene, name);
        ASSERT_TRUE(b);
        C4x4Matrix wa, wb;
        a->GetNodeTM(0, wa);
        b->GetNodeTM(0, wb);
        const C3DPointList& pa = *a->GetGeomObject()->GetPointList();
        const C3DPointList& pb = *b->GetGeomObject()->GetPointList();
        ASSERT_EQ(pa.GetSize(), pb.GetSize());
        for (int i = 0; i < pa.GetSize(); ++i) {
            C3DPoint u = wa.TransformPoint(pa[i]), v = wb.TransformPoint(pb[i]);
            EXPECT_NEAR(u.x, v.x, 1e-4) << name << i;
            EXPECT_NEAR(u.y, v.y, 1e-4) << name << i;
            EXPECT_NEAR(u.z, v.z, 1e-4) << name << i;
            // The mirror step and the writer's negation cancel: the object keeps its points.
            EXPECT_NEAR(pa[i].x, pb[i].x, 1e-4) << name << i;
        }
    }
    C3DSceneNode* m2 = Named(*r.scene, L"Mirror");
    ASSERT_EQ(m2->GetKeyNbr(KEY_TRANSLATE), 1);
    EXPECT_FLOAT_EQ(m2->GetKeyByIndex(KEY_TRANSLATE, 0)->tcb.tension, 0.25f);
    // The dummy's box went out with it; the reader skips it.
    auto top = ChunksIn(file, 0, file.size());
    auto kf = FindChunk(ChunksIn(file, top.at(0)), 0xB000);
    ASSERT_TRUE(kf);
    auto dummy = FindChunk(ChunksIn(file, *kf), 0xB002);
    ASSERT_TRUE(dummy);
    auto parts = ChunksIn(file, *dummy);
    ASSERT_TRUE(FindChunk(parts, 0xB014));
    EXPECT_EQ(FindChunk(parts, 0xB014)->length, 30u);
    EXPECT_STREQ(file.c_str() + FindChunk(parts, 0xB010)->Data(), "$$$DUMMY");
    EXPECT_STREQ(file.c_str() + FindChunk(parts, 0xB011)->Data(), "Grp");
}

TEST(StudioWrite, AnUnopenablePathReportsCode1) {
    C3DScene scene;
    CFileIo io;
    CSceneExportOptions opt;
    C3DStudioIo parser(io);
    EXPECT_FALSE(parser.Save(CXStringW(L"/nonexistent/dir/out.3ds"), &scene, opt));
    EXPECT_EQ(io.GetIoError(), IO_ERR_OPEN);
    EXPECT_EQ(io.GetIoErrorLevel(), LOG_ERROR);
    parser.SaveDefaultOptions(opt);
    EXPECT_EQ(opt.prepFlags,
              uint64_t(PREP_MESHES | PREP_MATERIALS | PREP_CURVES | PREP_TRIANGULATE | PREP_SPLIT_16BIT));
}
