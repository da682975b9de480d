#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "LxoTestFiles.h"
#include "formats/lxo/CLxoIo.h"
#include "formats/lxo/LxoWriter.h"
#include "plugin/host/Channel.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"
#include "tests/support/TestSupport.h"

using namespace lxotest;
using testsupport::TempDir;

namespace {

struct Imported {
    CFileIo io;
    std::unique_ptr<C3DScene> scene;
    int error = 0;
};

std::unique_ptr<Imported> Import(const std::string& bytes) {
    auto r = std::make_unique<Imported>();
    CLxoIo parser(r->io);
    CSceneImportOptions options;
    r->scene.reset(parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, options));
    r->error = r->io.GetIoError();
    return r;
}

std::vector<C3DSceneNode*> Nodes(const C3DScene& scene) {
    std::vector<C3DSceneNode*> out;
    C3DNodePos pos = scene.GetFirstNode();
    while (pos.IsValid()) out.push_back(scene.GetNextNode(pos));
    return out;
}

C3DSceneNode* Named(const C3DScene& scene, const wchar_t* name) { return scene.FindNodeByName(CXStringW(name)); }

// A scene with a located mesh: locator "Root" (id 1, moved by 1,2,3) holding mesh "Body"
// (id 2, turned 90 degrees about Y), a mask selecting tag "Red" with a red material inside,
// a blue base material, two locators parenting each other, and one layer of four points
// with faces good and bad, a UV map with one seam value, material tags and a curve.
std::string WriteScene(const TempDir& dir) {
    using namespace lxoid;
    const std::string path = (dir / "scene.lxo").string();
    {
        LxoWriter w(path.c_str());
        LxoFileChunk form(w);
        { LxoVersionChunk c(w, 2, 1, "orbiscope"); }
        { LxoTagsChunk c(w, {"Red", "Default", "Red"}); }
        { LxoChannelNamesChunk c(w, {"unknown", "order", "enable", "diffAmt"}); }
        LxoLayerInfo l;
        l.referenceID = 2;
        { LxoLayerChunk c(w, l); }
        const float pts[15] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 5, 5, 5};
        { LxoPointsChunk c(w, pts, 5); }
        {
            LxoVertexMapChunk c(w, TXUV, 2, "Texture");
            for (uint32_t i = 0; i < 4; ++i) {
                const float uv[2] = {pts[i * 3] * 0.5f, pts[i * 3 + 1] * 0.5f};
                c.Add(i, uv);
            }
        }
        {
            LxoPolygonsChunk c(w, FACE);
            const uint32_t quad[4] = {0, 1, 2, 3}, tri1[3] = {0, 1, 2}, tri2[3] = {0, 2, 3}, edge[2] = {0, 1},
                           bad[3] = {0, 1, 9};
            c.AddPolygon(quad, 4);
            c.AddPolygon(tri1, 3);
            c.AddPolygon(tri2, 3);
            c.AddPolygon(edge, 2);
            c.AddPolygon(bad, 3);
        }
        {
            LxoVertexMapDiscChunkEx c(w, TXUV, 2, "Texture");
            const float seam[2] = {0.75f, 0.25f};
            c.Add(0, 1, seam); // point 0 of polygon 1
        }
        {
            LxoPolyTagChunk c(w, MATR);
            c.Add(0, 0);
            c.Add(1, 2);  // the second "Red": same material
            c.Add(3, 1);  // the two-corner face, dropped
            c.Add(40, 0); // no such polygon
        }
        {
            LxoPolygonsChunk c(w, CURV);
            const uint32_t curve[3] = {0, 2, 4};
            c.AddPolygon(curve, 3);
        }
        auto item = [&](const char* type, const char* name, uint32_t id) { w.WriteItemHeader(type, name, id, false); };
        {
            LxoChunk c(w, ITEM);
            item("locator", "Root", 1);
            { LxoLayerSubChunk s(w, 1, 9, 0xc8c8c8ff); }
        }
        {
            LxoChunk c(w, ITEM);
            item("mesh", "Body", 2);
            { LxoLayerSubChunk s(w, 0, 5, 0xc8c8c8ff); }
            { LxoLinkSubChunk s(w, "parent", 1, 0); }
        }
        {
            LxoChunk c(w, ITEM);
            item("translation", "", 3);
            { LxoLinkSubChunk s(w, "xfrmCore", 1, 0); }
            const float pos[3] = {1, 2, 3};
            { LxoXyzChannelSubChunk s(w, "pos", pos); }
        }
        {
            LxoChunk c(w, ITEM);
            item("rotation", "", 4);
            { LxoLinkSubChunk s(w, "xfrmCore", 2, 1); }
            { LxoLinkSubChunk s(w, "xfrmCore", 0xFFFFFFFFu, 0xFFFFFFFEu); }
            const float rot[3] = {0, 1.5707964f, 0};
            { LxoXyzChannelSubChunk s(w, "rot", rot); }
            { LxoChannelValueSubChunk s(w, "order", std::string_view("xyz")); }
        }
        {
            LxoChunk c(w, ITEM);
            item("mask", "", 5);
            { LxoNameStringSubChunk s(w, CHNS, ""); }
            { LxoChannelValueSubChunk s(w, "enable", int32_t(1)); }
        }
        {
            LxoChunk c(w, ITEM);
            item("advancedMaterial", "", 6);
            { LxoLinkSubChunk s(w, "parent", 5, 0); }
            const float red[3] = {1, 0, 0};
            { LxoRgbChannelSubChunk s(w, "diffCol", red); }
            { LxoChannelValueSubChunk s(w, "diffAmt", 0.5f); }
        }
        {
            LxoChunk c(w, ITEM);
            item("advancedMaterial", "Base Material", 7);
            { LxoLinkSubChunk s(w, "parent", 8, 0); }
            const float blue[3] = {0, 0, 1};
            { LxoRgbChannelSubChunk s(w, "diffCol", blue); }
        }
        {
            LxoChunk c(w, ITEM);
            item("polyRender", "", 8);
        }
        for (uint32_t id : {10u, 11u}) {
            LxoChunk c(w, ITEM);
            item("locator", id == 10 ? "A" : "B", id);
            { LxoLinkSubChunk s(w, "parent", id == 10 ? 11 : 10, 0); }
        }
    }
    std::string bytes = testsupport::ReadFile(path);
    return bytes;
}

// The mask in WriteScene names its tag through CHNS, which the writer has no class for:
// patch the empty CHNS written above into ptag "Red" / ptyp "Material" by rebuilding it.
std::string WithMaskStrings(std::string bytes) {
    // The placeholder CHNS holds the S0 "" (two zero bytes); replace it with two CHNS.
    const std::string empty = "CHNS" + U2(2) + std::string(2, '\0');
    const std::string ptag = "CHNS" + U2(10) + std::string("ptag\0\0Red\0", 10);
    const std::string ptyp = "CHNS" + U2(16) + std::string("ptyp\0\0Material\0\0", 16);
    const size_t at = bytes.find(empty);
    if (at == std::string::npos) return bytes;
    bytes.replace(at, empty.size(), ptag + ptyp);
    // Fix the ITEM size and the FORM size.
    const int64_t grow = static_cast<int64_t>(ptag.size() + ptyp.size()) - static_cast<int64_t>(empty.size());
    size_t item = bytes.rfind("ITEM", at);
    auto patch = [&](size_t pos) {
        uint32_t v = (uint32_t(uint8_t(bytes[pos])) << 24) | (uint32_t(uint8_t(bytes[pos + 1])) << 16) |
                     (uint32_t(uint8_t(bytes[pos + 2])) << 8) | uint8_t(bytes[pos + 3]);
        bytes.replace(pos, 4, U4(static_cast<uint32_t>(v + grow)));
    };
    patch(item + 4);
    patch(4);
    return bytes;
}

} // namespace

TEST(LxoImport, WrittenSceneBuildsHierarchyTransformsMaterialsAndUVs) {
    TempDir dir;
    auto r = Import(WithMaskStrings(WriteScene(dir)));
    ASSERT_TRUE(r->scene) << r->error;
    const C3DScene& scene = *r->scene;

    C3DSceneNode* root = Named(scene, L"Root");
    C3DSceneNode* body = Named(scene, L"Body");
    ASSERT_TRUE(root && body);
    EXPECT_EQ(C3DScene::GetParent(body), root);

    // Root is moved, Body turned a quarter about +Y (x goes to -z), in Root's frame.
    C4x4Matrix tm;
    root->GetNodeLocalTM(0, tm);
    const C3DPoint t = tm.GetTranslation();
    EXPECT_FLOAT_EQ(t.x, 1);
    EXPECT_FLOAT_EQ(t.y, 2);
    EXPECT_FLOAT_EQ(t.z, 3);
    body->GetNodeTM(0, tm);
    const C3DPoint p = tm.TransformPoint({1, 0, 0});
    EXPECT_NEAR(p.x, 1, 1e-5);
    EXPECT_NEAR(p.y, 2, 1e-5);
    EXPECT_NEAR(p.z, 2, 1e-5);

    // Three faces: the two-corner one and the one past the points are dropped.
    auto* mesh = dynamic_cast<C3DObject*>(body->GetBaseObject());
    ASSERT_TRUE(mesh);
    ASSERT_EQ(mesh->GetPointList()->GetSize(), 5);
    const C3DFaceList& faces = *mesh->GetFaceList();
    ASSERT_EQ(faces.GetNumberOfFaces(), 3);
    EXPECT_EQ(faces.GetFaceSize(0), 4);
    EXPECT_EQ(faces.GetFaceIndices(2)[1], 2u);

    // Both "Red" tags share the mask's red material; the untagged face gets the blue base.
    ASSERT_EQ(scene.GetMaterialNumber(), 2);
    const C3DMaterial* red = scene.GetMaterialByID(faces.GetMaterialID(0));
    const C3DMaterial* base = scene.GetMaterialByID(faces.GetMaterialID(2));
    ASSERT_TRUE(red && base);
    EXPECT_EQ(faces.GetMaterialID(1), faces.GetMaterialID(0));
    EXPECT_EQ(red->GetName(), CXStringW(L"Red"));
    EXPECT_EQ(red->diffuse.r, 255);
    EXPECT_EQ(red->diffuse.b, 0);
    EXPECT_FLOAT_EQ(red->diffuseFactor, 0.5f);
    EXPECT_EQ(base->diffuse.b, 255);
    EXPECT_EQ(base->diffuse.r, 0);

    // UVs: the map's value everywhere but at point 0 of polygon 1, which has its own.
    const CUVWChannel* uv = mesh->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    const CUVWFaceList& uf = *uv->GetUVWFaceList();
    const CUVWPointList& up = *uv->GetUVWPointList();
    ASSERT_EQ(uf.GetNumberOfFaces(), 3);
    const C3DPoint q0 = up.GetPoint(static_cast<int>(uf.GetFaceIndices(0)[2]));
    EXPECT_FLOAT_EQ(q0.x, 0.5f);
    EXPECT_FLOAT_EQ(q0.y, 0.5f);
    const C3DPoint seam = up.GetPoint(static_cast<int>(uf.GetFaceIndices(1)[0]));
    EXPECT_FLOAT_EQ(seam.x, 0.75f);
    EXPECT_FLOAT_EQ(seam.y, 0.25f);
    const C3DPoint plain = up.GetPoint(static_cast<int>(uf.GetFaceIndices(0)[0]));
    EXPECT_FLOAT_EQ(plain.x, 0.0f);

    // The curve stays a curve through its own three points.
    C3DSceneNode* curveNode = Named(scene, L"Body curves");
    ASSERT_TRUE(curveNode);
    auto* curve = dynamic_cast<C3DCurve*>(curveNode->GetBaseObject());
    ASSERT_TRUE(curve);
    EXPECT_EQ(curve->GetPointList()->GetSize(), 3);
    ASSERT_EQ(curve->GetFaceList()->GetNumberOfFaces(), 1);
    EXPECT_FLOAT_EQ(curve->GetPointList()->GetPoint(2).x, 5.0f);

    // The two locators that parent each other both arrive, one of them a root.
    C3DSceneNode* a = Named(scene, L"A");
    C3DSceneNode* b = Named(scene, L"B");
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(C3DScene::GetParent(a) == b || C3DScene::GetParent(b) == a);
}

TEST(LxoImport, LayersBindToMeshItemsByReference) {
    TempDir dir;
    const std::string path = (dir / "two.lxo").string();
    WriteTwoLayers(path);
    auto r = Import(testsupport::ReadFile(path));
    ASSERT_TRUE(r->scene);
    // The items carry no names: their unique names are used.
    C3DSceneNode* first = Named(*r->scene, L"mesh7");
    C3DSceneNode* second = Named(*r->scene, L"mesh9");
    ASSERT_TRUE(first && second);
    auto* m1 = dynamic_cast<C3DObject*>(first->GetBaseObject());
    auto* m2 = dynamic_cast<C3DObject*>(second->GetBaseObject());
    ASSERT_TRUE(m1 && m2);
    EXPECT_FLOAT_EQ(m1->GetPointList()->GetPoint(0).x, 0.0f);
    EXPECT_FLOAT_EQ(m2->GetPointList()->GetPoint(0).x, 10.0f);
    EXPECT_EQ(m1->GetFaceList()->GetNumberOfFaces(), 1);
    // One host material per tag name, shared by both meshes.
    EXPECT_EQ(r->scene->GetMaterialNumber(), 1);
    EXPECT_EQ(m1->GetFaceList()->GetMaterialID(0), m2->GetFaceList()->GetMaterialID(0));
}

TEST(LxoImport, ChannelIndicesAreResolvedThroughTheNameTable) {
    // A rotation whose order channel ("zxy") is named by index 1, then a CHAN with an index
    // past the table (ignored). Read as "xyz", (1,0,0) would end at (0,0,-1).
    using namespace lxoid;
    std::string chnm = U4(3) + std::string("unknown\0order\0rot.Y\0", 20);
    std::string rot = std::string("rotation\0\0", 10) + std::string("\0\0", 2) + U4(2);
    rot += Sub("LINK", std::string("xfrmCore\0\0", 10) + U4(1) + U4(0));
    rot += Sub("CHNV", std::string("rot\0", 4) + U2(2) + U2(3) + std::string("X\0", 2) + F4(0) + std::string("Y\0", 2) +
                           F4(1.5707964f) + std::string("Z\0", 2) + F4(1.5707964f));
    rot += Sub("CHAN", U2(1) + U2(3) + std::string("zxy\0", 4));
    rot += Sub("CHAN", U2(700) + U2(3) + std::string("xyz\0", 4)); // no such channel
    rot += Sub("CHAN", U2(2) + U2(0x11) + U4(4));                  // rot.Y through envelope 4: not a value
    std::string loc = std::string("locator\0", 8) + std::string("L\0", 2) + U4(1) + Sub("LAYR", U4(0) + U4(9) + U4(0));
    const std::string file = Form(Chunk("CHNM", chnm) + Chunk("ITEM", loc) + Chunk("ITEM", rot));
    auto r = Import(file);
    ASSERT_TRUE(r->scene);
    C3DSceneNode* n = Named(*r->scene, L"L");
    ASSERT_TRUE(n);
    C4x4Matrix tm;
    n->GetNodeLocalTM(0, tm);
    // zxy: Z first takes (1,0,0) to (0,1,0); X (zero) keeps it; Y keeps a Y vector.
    const C3DPoint p = tm.TransformPoint({1, 0, 0});
    EXPECT_NEAR(p.x, 0, 1e-5);
    EXPECT_NEAR(p.y, 1, 1e-5);
    EXPECT_NEAR(p.z, 0, 1e-5);
    // And (0,0,1): Z keeps it, Y takes it to (1,0,0).
    const C3DPoint q = tm.TransformPoint({0, 0, 1});
    EXPECT_NEAR(q.x, 1, 1e-5);
    EXPECT_NEAR(q.z, 0, 1e-5);
}

TEST(LxoImport, RefusesWhatIsNotAnLxoFile) {
    EXPECT_EQ(Import("")->error, IO_ERR_EMPTY);
    auto r = Import(std::string("FORM\0\0\0\x04LWO2", 12));
    EXPECT_FALSE(r->scene);
    EXPECT_EQ(r->error, IO_ERR_FORMAT);
    r = Import(std::string("FORM\0\0\0\x04LXOB", 12));
    ASSERT_TRUE(r->scene); // an empty scene is a scene
    EXPECT_EQ(Nodes(*r->scene).size(), 0u);
}

TEST(LxoImport, EveryTruncatedPrefixGivesAResultCode) {
    TempDir dir;
    const std::string bytes = WithMaskStrings(WriteScene(dir));
    size_t refused = 0;
    for (size_t n = 0; n < bytes.size(); ++n) {
        auto r = Import(bytes.substr(0, n));
        if (!r->scene) {
            ++refused;
            EXPECT_LT(r->error, 0) << "prefix " << n;
        }
    }
    // Cutting inside a chunk is a read error; only cuts between chunks read.
    EXPECT_GT(refused, bytes.size() / 2);
}

TEST(LxoImport, CorpusSphere) {
    SKIP_WITHOUT_CORPUS();
    const auto path = testsupport::CorpusDir() / "lxo" / "sphereWithVertMap.lxo";
    if (!std::filesystem::exists(path)) GTEST_SKIP();
    auto r = Import(testsupport::ReadFile(path));
    ASSERT_TRUE(r->scene);
    C3DSceneNode* mesh = Named(*r->scene, L"mesh001");
    ASSERT_TRUE(mesh);
    auto* obj = dynamic_cast<C3DObject*>(mesh->GetBaseObject());
    ASSERT_TRUE(obj);
    // Counted in the chunks: PNTS 3192 bytes = 266 points, PTAG MATR for 288 polygons.
    EXPECT_EQ(obj->GetPointList()->GetSize(), 266);
    const C3DFaceList& faces = *obj->GetFaceList();
    EXPECT_EQ(faces.GetNumberOfFaces(), 288);
    // The faces wind counter-clockwise seen from outside: their normals point away from
    // the centre of the (nearly closed) sphere.
    int outward = 0;
    const C3DPointList& pts = *obj->GetPointList();
    for (int f = 0; f < faces.GetNumberOfFaces(); ++f) {
        const uint32_t* ix = faces.GetFaceIndices(f);
        const C3DPoint a = pts.GetPoint(int(ix[0])), b = pts.GetPoint(int(ix[1])), c = pts.GetPoint(int(ix[2]));
        const float ux = b.x - a.x, uy = b.y - a.y, uz = b.z - a.z, vx = c.x - a.x, vy = c.y - a.y, vz = c.z - a.z;
        const float nx = uy * vz - uz * vy, ny = uz * vx - ux * vz, nz = ux * vy - uy * vx;
        if (nx * a.x + ny * a.y + nz * a.z > 0) ++outward;
    }
    EXPECT_GT(outward, faces.GetNumberOfFaces() * 9 / 10);
    // One tag, "Default", selected by a mask whose material is purple (0.502, 0, 0.502).
    ASSERT_EQ(r->scene->GetMaterialNumber(), 1);
    const C3DMaterial* m = r->scene->GetMaterialByID(faces.GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetName(), CXStringW(L"Default"));
    EXPECT_EQ(m->diffuse.r, 128);
    EXPECT_EQ(m->diffuse.g, 0);
    EXPECT_EQ(m->diffuse.b, 128);
    // The camera (50 mm lens, 24 mm film height) and the sun.
    C3DSceneNode* cam = Named(*r->scene, L"camera002");
    C3DSceneNode* sun = Named(*r->scene, L"sunLight015");
    ASSERT_TRUE(cam && sun);
    ASSERT_EQ(cam->GetKindOf(), uint32_t(KINDOF_CAMERA));
    EXPECT_NEAR(static_cast<C3DCamera*>(cam->GetBaseObject())->GetVFov(), 2 * std::atan(0.24), 1e-4);
    ASSERT_EQ(sun->GetKindOf(), uint32_t(KINDOF_LIGHT));
    EXPECT_EQ(static_cast<C3DLight*>(sun->GetBaseObject())->GetLightKind(), LIGHT_DIRECTIONAL);
    // The camera sits 4 m along +Z and 0.75 m up.
    C4x4Matrix tm;
    cam->GetNodeTM(0, tm);
    EXPECT_NEAR(tm.GetTranslation().y, 0.75f, 1e-5);
    EXPECT_NEAR(tm.GetTranslation().z, 4.0f, 1e-5);
}

TEST(LxoImport, CorpusEngine) {
    SKIP_WITHOUT_CORPUS();
    const auto path = testsupport::CorpusDir() / "lxo" / "CrazyEngine.lxo";
    if (!std::filesystem::exists(path)) GTEST_SKIP();
    auto r = Import(testsupport::ReadFile(path));
    ASSERT_TRUE(r->scene);
    C3DSceneNode* mesh = Named(*r->scene, L"mesh016");
    ASSERT_TRUE(mesh);
    auto* obj = dynamic_cast<C3DObject*>(mesh->GetBaseObject());
    ASSERT_TRUE(obj);
    // PNTS 14784 bytes = 1232 points; PTAG MATR for 1252 polygons; VMAP TXUV of 1232
    // values and VMAD of 102 seam values.
    EXPECT_EQ(obj->GetPointList()->GetSize(), 1232);
    EXPECT_EQ(obj->GetFaceList()->GetNumberOfFaces(), 1252);
    const CUVWChannel* uv = obj->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    EXPECT_EQ(uv->GetUVWPointList()->GetSize(), 1232 + 102);
    // Its material tag is the second "Default" of the tag table; no mask selects it, so it
    // takes the white base material.
    ASSERT_EQ(r->scene->GetMaterialNumber(), 1);
    const C3DMaterial* m = r->scene->GetMaterialByID(obj->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetName(), CXStringW(L"Default"));
    EXPECT_EQ(m->diffuse.r, 255);
}

namespace {
std::string LocatorItem(uint32_t id, uint32_t parent, const std::string& name = "") {
    std::string b = std::string("locator\0", 8) + name + std::string(name.size() % 2 ? 1 : 2, '\0') + U4(id);
    b += Sub("LAYR", U4(0) + U4(9) + U4(0));
    if (parent != 0xFFFFFFFFu) b += Sub("LINK", std::string("parent\0\0", 8) + U4(parent) + U4(0));
    return lxotest::Chunk("ITEM", b);
}
} // namespace

TEST(LxoImport, BrokenLinksAndTablesAreSurvived) {
    // Three locators in a parent cycle, one parented to a missing item, a layer whose item
    // reference names nothing (and no mesh item to fall back on), polygon tags past the tag
    // table, and a polygon index past the points.
    std::string chunks = Chunk("TAGS", std::string("Only\0\0", 6));
    std::string layr = U2(0) + U2(0) + F4(0) + F4(0) + F4(0) + std::string("Loose\0", 6) + U2(0xFFFF);
    for (int i = 0; i < 11; ++i) layr += U4(0);
    layr += U4(999) + U2(16) + U2(0) + U2(0) + U2(0);
    chunks += Chunk("LAYR", layr);
    chunks += Chunk("PNTS", F4(0) + F4(0) + F4(0) + F4(1) + F4(0) + F4(0) + F4(0) + F4(1) + F4(0));
    chunks += Chunk("POLS", std::string("FACE") + U2(3) + U2(0) + U2(1) + U2(2) + U2(3) + U2(0) + U2(1) + U2(7));
    chunks += Chunk("PTAG", std::string("MATR") + U2(0) + U2(5) + U2(1) + U2(0));
    chunks += LocatorItem(1, 2, "A") + LocatorItem(2, 3, "B") + LocatorItem(3, 1, "C") + LocatorItem(4, 77, "D");
    auto r = Import(Form(chunks));
    ASSERT_TRUE(r->scene);
    for (const wchar_t* n : {L"A", L"B", L"C", L"D"}) EXPECT_TRUE(Named(*r->scene, n)) << n;
    EXPECT_EQ(C3DScene::GetParent(Named(*r->scene, L"D")), r->scene->GetRoot());
    C3DSceneNode* loose = Named(*r->scene, L"Loose");
    ASSERT_TRUE(loose);
    auto* mesh = dynamic_cast<C3DObject*>(loose->GetBaseObject());
    ASSERT_TRUE(mesh);
    ASSERT_EQ(mesh->GetFaceList()->GetNumberOfFaces(), 1);
    // Tag 5 does not exist: the face falls back to the base material.
    const C3DMaterial* m = r->scene->GetMaterialByID(mesh->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetName(), CXStringW(L"Base Material"));
}

TEST(LxoImport, LongIndicesAndUnkeptPolygonKindsKeepTheNumbering) {
    // 0x10002 points, so the last ones take four-byte indices. A polygon of a kind that is
    // not kept sits between the faces and still counts; tags and seam values count from
    // the start of the POLS chunk before them.
    constexpr uint32_t kPoints = 0x10002;
    std::string pnts;
    pnts.reserve(size_t(kPoints) * 12);
    for (uint32_t i = 0; i < kPoints; ++i) pnts += F4(float(i)) + F4(0) + F4(0);
    auto vx = [](uint32_t v) { return v < 0xFF00 ? U2(static_cast<uint16_t>(v)) : U4(0xFF000000u | v); };
    const std::string uvHead = std::string("TXUV") + U2(2) + std::string("UV\0\0", 4);
    std::string chunks = Chunk("TAGS", std::string("A\0B\0", 4)) + Chunk("PNTS", pnts);
    chunks += Chunk("POLS", std::string("FACE") + U2(3) + vx(0) + vx(0xFF00) + vx(0x10001));
    chunks += Chunk("PTAG", std::string("MATR") + vx(0) + U2(0));
    chunks += Chunk("POLS", std::string("PTCH") + U2(4) + vx(0) + vx(1) + vx(2) + vx(3));
    // The second face names a point past the last: dropped.
    chunks +=
        Chunk("POLS", std::string("FACE") + U2(3) + vx(0x10001) + vx(1) + vx(2) + U2(3) + vx(1) + vx(2) + vx(kPoints));
    chunks += Chunk("PTAG", std::string("MATR") + vx(0) + U2(1) + vx(1) + U2(0));
    chunks += Chunk("VMAP", uvHead + vx(0x10001) + F4(0.5f) + F4(0.25f));
    chunks += Chunk("VMAD", uvHead + vx(0x10001) + vx(0) + F4(0.875f) + F4(0.75f));
    auto r = Import(Form(chunks));
    ASSERT_TRUE(r->scene) << r->error;
    C3DObject* mesh = nullptr;
    for (C3DSceneNode* n : Nodes(*r->scene))
        if (!mesh) mesh = dynamic_cast<C3DObject*>(n->GetBaseObject());
    ASSERT_TRUE(mesh);
    const C3DFaceList& faces = *mesh->GetFaceList();
    ASSERT_EQ(faces.GetNumberOfFaces(), 2);
    EXPECT_EQ(faces.GetFaceIndices(0)[1], 0xFF00u);
    EXPECT_EQ(faces.GetFaceIndices(0)[2], 0x10001u);
    EXPECT_EQ(faces.GetFaceIndices(1)[0], 0x10001u);
    EXPECT_EQ(r->scene->GetMaterialByID(faces.GetMaterialID(0))->GetName(), CXStringW(L"A"));
    EXPECT_EQ(r->scene->GetMaterialByID(faces.GetMaterialID(1))->GetName(), CXStringW(L"B"));
    const CUVWChannel* uv = mesh->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    const CUVWFaceList& uf = *uv->GetUVWFaceList();
    const C3DPoint shared = uv->GetUVWPointList()->GetPoint(static_cast<int>(uf.GetFaceIndices(0)[2]));
    const C3DPoint seam = uv->GetUVWPointList()->GetPoint(static_cast<int>(uf.GetFaceIndices(1)[0]));
    EXPECT_FLOAT_EQ(shared.x, 0.5f);
    EXPECT_FLOAT_EQ(shared.y, 0.25f);
    EXPECT_FLOAT_EQ(seam.x, 0.875f);
    EXPECT_FLOAT_EQ(seam.y, 0.75f);
}

TEST(LxoImport, LongParentChainStaysLinear) {
    // 100000 locators, each the parent of the next: no recursion, no quadratic walk.
    constexpr uint32_t kCount = 100000;
    std::string chunks;
    chunks.reserve(size_t(kCount) * 64);
    for (uint32_t i = 0; i < kCount; ++i) chunks += LocatorItem(i, i == 0 ? 0xFFFFFFFFu : i - 1);
    auto r = Import(Form(chunks));
    ASSERT_TRUE(r->scene);
    EXPECT_EQ(r->scene->GetNodeCount(), int(kCount));
    const C3DSceneNode* n = r->scene->GetRoot();
    uint32_t depth = 0;
    while ((n = C3DScene::GetChildNode(n))) ++depth;
    EXPECT_EQ(depth, kCount);
}

TEST(LxoImport, SetupActionValuesOverrideTheItemsAndOtherActionsDoNot) {
    std::string chunks = Chunk("CHNM", U4(2) + std::string("unknown\0pos.X\0", 14));
    chunks += LocatorItem(1, 0xFFFFFFFFu, "M");
    std::string xf = std::string("translation\0", 12) + std::string("\0\0", 2) + U4(2);
    xf += Sub("LINK", std::string("xfrmCore\0\0", 10) + U4(1) + U4(0));
    xf += Sub("CHNV", std::string("pos\0", 4) + U2(2) + U2(3) + std::string("X\0", 2) + F4(1) + std::string("Y\0", 2) +
                          F4(0) + std::string("Z\0", 2) + F4(0));
    chunks += Chunk("ITEM", xf);
    auto action = [](const char* type, float x) {
        const std::string t = std::string(type) + '\0';
        const std::string s0 = t.size() % 2 ? t + '\0' : t;
        return Chunk("ACTN", s0 + s0 + U4(7) + Sub("ITEM", U4(2)) + Sub("CHAN", U2(1) + U2(2) + U2(0) + F4(x)));
    };
    chunks += action("setup", 5) + action("edit", 9);
    auto r = Import(Form(chunks));
    ASSERT_TRUE(r->scene);
    C3DSceneNode* m = Named(*r->scene, L"M");
    ASSERT_TRUE(m);
    C4x4Matrix tm;
    m->GetNodeLocalTM(0, tm);
    EXPECT_FLOAT_EQ(tm.GetTranslation().x, 5);
}

TEST(LxoImport, VertexColoursWithSeamsAndWhiteForMissingPoints) {
    using namespace lxoid;
    TempDir dir;
    const std::string path = (dir / "rgb.lxo").string();
    {
        LxoWriter w(path.c_str());
        LxoFileChunk form(w);
        { LxoLayerChunk c(w, LxoLayerInfo{}); }
        const float pts[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
        { LxoPointsChunk c(w, pts, 3); }
        {
            LxoPolygonsChunk c(w, FACE);
            const uint32_t tri[3] = {0, 1, 2};
            c.AddPolygon(tri, 3);
        }
        {
            LxoVertexMapChunk c(w, RGB_, 3, "Color");
            const float red[3] = {1, 0, 0}, green[3] = {0, 1, 0};
            c.Add(0, red);
            c.Add(1, green);
        }
        {
            LxoVertexMapChunk c(w, RGB_, 3, "Other"); // a second colour map is left out
            const float black[3] = {0, 0, 0};
            c.Add(0, black);
        }
        {
            LxoVertexMapDiscChunkEx c(w, RGBA, 4, "Color");
            const float blue[4] = {0, 0, 1, 0.5f};
            c.Add(1, 0, blue);
        }
    }
    auto r = Import(testsupport::ReadFile(path));
    ASSERT_TRUE(r->scene);
    C3DNodePos pos = r->scene->GetFirstNode();
    C3DSceneNode* n = r->scene->GetNextNode(pos);
    ASSERT_TRUE(n);
    auto* mesh = dynamic_cast<C3DObject*>(n->GetBaseObject());
    ASSERT_TRUE(mesh);
    const CVCChannel* vc = mesh->GetGlobalVCChannel();
    ASSERT_TRUE(vc);
    const uint32_t* corner = vc->GetVCFaceList()->GetFaceIndices(0);
    const CVCPointList& colors = *vc->GetVCPointList();
    const CRGBColor c0 = colors[int(corner[0])], c1 = colors[int(corner[1])], c2 = colors[int(corner[2])];
    EXPECT_EQ(c0.r, 255);
    EXPECT_EQ(c0.g, 0);
    EXPECT_EQ(c1.b, 255);
    EXPECT_EQ(c1.g, 0);
    EXPECT_EQ(c1.a, 128);
    EXPECT_EQ(c2.r, 255);
    EXPECT_EQ(c2.g, 255);
    EXPECT_EQ(c2.b, 255);
}

TEST(LxoImport, CamerasAndLightsWithTheLightMaterialColour) {
    std::string chunks = Chunk("CHNM", U4(4) + std::string("unknown\0focalLen\0\0apertureY\0projType\0\0", 38));
    std::string cam = std::string("camera\0\0", 8) + std::string("Cam\0", 4) + U4(1);
    cam += Sub("CHAN", U2(1) + U2(2) + F4(0.05f)) + Sub("CHAN", U2(2) + U2(2) + F4(0.024f));
    cam += Sub("CHAN", U2(3) + U2(3) + std::string("persp\0", 6));
    chunks += Chunk("ITEM", cam);
    chunks += Chunk("ITEM", std::string("sunLight\0\0", 10) + std::string("Sun\0", 4) + U4(2));
    std::string mat = std::string("lightMaterial\0", 14) + std::string("\0\0", 2) + U4(3);
    mat += Sub("LINK", std::string("parent\0\0", 8) + U4(2) + U4(0));
    mat += Sub("CHNV", std::string("lightCol\0\0", 10) + U2(2) + U2(3) + std::string("R\0", 2) + F4(1) +
                           std::string("G\0", 2) + F4(0.5f) + std::string("B\0", 2) + F4(0));
    chunks += Chunk("ITEM", mat);
    auto r = Import(Form(chunks));
    ASSERT_TRUE(r->scene);
    C3DSceneNode* camNode = Named(*r->scene, L"Cam");
    C3DSceneNode* sunNode = Named(*r->scene, L"Sun");
    ASSERT_TRUE(camNode && sunNode);
    auto* camera = dynamic_cast<C3DCamera*>(camNode->GetBaseObject());
    auto* light = dynamic_cast<C3DLight*>(sunNode->GetBaseObject());
    ASSERT_TRUE(camera && light);
    EXPECT_NEAR(camera->GetVFov(), 2 * std::atan(0.24), 1e-5); // 24 mm film behind a 50 mm lens
    EXPECT_EQ(camera->GetProjection(), PROJECTION_PERSPECTIVE);
    EXPECT_EQ(light->GetLightKind(), LIGHT_DIRECTIONAL);
    EXPECT_EQ(light->color.r, 255);
    EXPECT_EQ(light->color.g, 128);
    EXPECT_EQ(light->color.b, 0);
    EXPECT_EQ(r->scene->GetNodeCount(), 2); // the light material is no node
}
