// 3DS reader on hand-made files: containers, scale, objects, matrices, faces,
// coordinates, materials and maps, the keyframer, and damaged input.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>

#include "formats/classic/C3DStudioMaterial.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/Keys.h"
#include "plugin/host/Material.h"
#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

using namespace classictest;

namespace {

const float kIdentity[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};

// A named triangle object: points, one face per triple, an optional matrix.
void TriObject(StudioBuilder& b, const std::string& name, const std::vector<float>& pts,
               const std::vector<uint16_t>& faces, const float* matrix = kIdentity) {
    b.Begin(0x4000).Str(name).Begin(0x4100);
    if (!pts.empty()) b.Points(pts);
    if (matrix) b.Matrix(matrix);
    if (!faces.empty()) b.FacesOpen(faces).End();
    b.End().End();
}

std::string OneTriangleFile(uint16_t top = 0x4D4D) {
    StudioBuilder b;
    b.Begin(top);
    if (top == 0x4D4D) b.Begin(0x0002).U32(3).End().Begin(0x3D3D);
    TriObject(b, "Tri", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    if (top == 0x4D4D) b.End();
    b.End();
    return b.Bytes();
}

C3DSceneNode* OnlyNode(const C3DScene& s) {
    auto nodes = AllNodes(s);
    return nodes.size() == 1 ? nodes[0] : nullptr;
}

// Material chunk with a name and whatever the caller adds inside.
template <typename F> void Material(StudioBuilder& b, const std::string& name, F&& body) {
    b.Begin(0xAFFF).Begin(0xA000).Str(name).End();
    body(b);
    b.End();
}

// A file whose editor holds `editor` and whose keyframer holds `keys`.
template <typename E, typename K> std::string Scene(E&& editor, K&& keys) {
    StudioBuilder b;
    b.Begin(0x4D4D).Begin(0x3D3D);
    editor(b);
    b.End().Begin(0xB000);
    keys(b);
    b.End().End();
    return b.Bytes();
}

} // namespace

TEST(StudioRead, MainEditorAndProjectFilesAreAccepted) {
    for (uint16_t top : {uint16_t(0x4D4D), uint16_t(0x3D3D)}) {
        ReadResult r = ReadStudio(OneTriangleFile(top));
        ASSERT_TRUE(r.scene) << std::hex << top;
        C3DSceneNode* n = OnlyNode(*r.scene);
        ASSERT_TRUE(n);
        EXPECT_EQ(n->GetName(), L"Tri");
        EXPECT_EQ(n->GetKindOf(), KINDOF_MESH);
    }
    // A project file: its editor is read, its shapes only when the shape switch is on.
    StudioBuilder b;
    b.Begin(0xC23D).Begin(0x2D2D);
    b.Begin(0x5020).F32(10).F32(20).End();
    b.Begin(0x5000).U16(3);
    for (int i = 0; i < 3; ++i) {
        b.F32(float(11 + i)).F32(21).Raw(std::string(28, '\0').data(), 28).U8(i == 2 ? 1 : 0).U8(0);
    }
    b.End().End();
    b.Begin(0x3D3D);
    TriObject(b, "Tri", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    b.End().End();
    ReadResult off = ReadStudio(b.Bytes());
    ASSERT_TRUE(off.scene);
    EXPECT_EQ(AllNodes(*off.scene).size(), 1u);
    ReadResult on = ReadStudio(b.Bytes(), true);
    ASSERT_TRUE(on.scene);
    auto nodes = AllNodes(*on.scene);
    ASSERT_EQ(nodes.size(), 2u);
    ASSERT_EQ(nodes[0]->GetKindOf(), KINDOF_CURVE); // shapes go to the scene at once
    const C3DPointList& p = *nodes[0]->GetGeomObject()->GetPointList();
    ASSERT_EQ(p.GetSize(), 4); // the flagged last vertex closes the shape
    EXPECT_EQ(p[0], C3DPoint(1, 1, 0));
    EXPECT_EQ(p[2], C3DPoint(3, 1, 0));
    EXPECT_EQ(p[3], C3DPoint(1, 1, 0));
}

TEST(StudioRead, FirstBytesDecideTheResultCode) {
    EXPECT_EQ(ReadStudio("").error, IO_ERR_OPEN);
    EXPECT_EQ(ReadStudio("M").error, IO_ERR_OPEN);
    ReadResult bad = ReadStudio(std::string("\x4E\x4D\x06\0\0\0", 6));
    EXPECT_FALSE(bad.scene);
    EXPECT_EQ(bad.error, IO_ERR_FORMAT);
    EXPECT_EQ(bad.level, LOG_ERROR);

    ReadResult missing = ReadFileWith<C3DStudioIo>("/nonexistent/dir/x.3ds");
    EXPECT_FALSE(missing.scene);
    EXPECT_EQ(missing.error, IO_ERR_OPEN);
    EXPECT_EQ(missing.level, LOG_ERROR);
}

TEST(StudioRead, MasterScaleSetsUnitAndFactor) {
    struct Case {
        float value;
        double factor;
        int unit;
    } cases[] = {{39.37f, 100.0, UNIT_METER}, {0.3937f, 1.0, UNIT_CENTIMETER}, {1.0f, 2.54, UNIT_INCH},
                 {0.0f, 2.54, UNIT_INCH},     {2.0f, 5.08, UNIT_INCH},         {NAN, 2.54, UNIT_INCH}};
    for (const Case& c : cases) {
        StudioBuilder b;
        b.Begin(0x4D4D).Begin(0x0100).F32(c.value).End().End();
        ReadResult r = ReadStudio(b.Bytes());
        ASSERT_TRUE(r.scene) << c.value;
        EXPECT_NEAR(r.scene->GetScaleFactor(), c.factor, 1e-5) << c.value;
        EXPECT_EQ(r.scene->GetUnit(), c.unit) << c.value;
    }
}

TEST(StudioRead, ObjectsBecomeMeshesCurvesOrGroups) {
    StudioBuilder b;
    b.Begin(0x3D3D);
    TriObject(b, "Mesh", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    TriObject(b, "Line", {0, 0, 0, 1, 0, 0, 2, 0, 0}, {});
    TriObject(b, "Empty", {}, {0, 1, 2});
    b.End();
    ReadResult r = ReadStudio(b.Bytes());
    ASSERT_TRUE(r.scene);
    C3DSceneNode* mesh = Named(*r.scene, L"Mesh");
    C3DSceneNode* line = Named(*r.scene, L"Line");
    C3DSceneNode* empty = Named(*r.scene, L"Empty");
    ASSERT_TRUE(mesh && line && empty);
    EXPECT_EQ(mesh->GetKindOf(), KINDOF_MESH);
    EXPECT_EQ(line->GetKindOf(), KINDOF_CURVE);
    EXPECT_EQ(line->GetGeomObject()->GetFaceList()->GetIndexes(), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(empty->GetKindOf(), KINDOF_GROUP);
    EXPECT_EQ(empty->GetGeomObject(), nullptr);
    // Each object node carries its matrix as a key at time 0.
    EXPECT_EQ(mesh->GetKeyNbr(KEY_MATRIX), 1);
}

TEST(StudioRead, PointsAreTakenOutOfWorldSpaceAndMirroredMatricesNegateX) {
    const float moved[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 10, 20, 30};
    const float mirrored[12] = {-1, 0, 0, 0, 1, 0, 0, 0, 1, 10, 0, 0};
    const float singular[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 5, 5, 5};
    StudioBuilder b;
    b.Begin(0x3D3D);
    TriObject(b, "Moved", {11, 22, 33, 10, 20, 30, 10, 21, 30}, {0, 1, 2}, moved);
    TriObject(b, "Mirror", {7, 1, 2, 10, 0, 0, 10, 1, 0}, {0, 1, 2}, mirrored);
    TriObject(b, "Flat", {1, 2, 3, 4, 5, 6, 7, 8, 9}, {0, 1, 2}, singular);
    b.End();
    ReadResult r = ReadStudio(b.Bytes());
    ASSERT_TRUE(r.scene);

    C3DSceneNode* m = Named(*r.scene, L"Moved");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetGeomObject()->GetPointList()->GetPoint(0), C3DPoint(1, 2, 3));
    C4x4Matrix tm;
    m->GetNodeTM(0, tm);
    EXPECT_EQ(tm.GetTranslation(), C3DPoint(10, 20, 30));

    // Inverse gives (3, 1, 2); the mirror step negates x; the winding stays as written.
    C3DSceneNode* mm = Named(*r.scene, L"Mirror");
    ASSERT_TRUE(mm);
    const C3DGeomObject* g = mm->GetGeomObject();
    EXPECT_EQ(g->GetPointList()->GetPoint(0), C3DPoint(-3, 1, 2));
    EXPECT_EQ(g->GetFaceList()->GetIndexes(), (std::vector<uint32_t>{0, 1, 2}));

    C3DSceneNode* flat = Named(*r.scene, L"Flat");
    ASSERT_TRUE(flat);
    EXPECT_EQ(flat->GetGeomObject()->GetPointList()->GetPoint(2), C3DPoint(7, 8, 9));
}

TEST(StudioRead, FaceMaterialsByNameAndBadIndices) {
    StudioBuilder b;
    b.Begin(0x3D3D);
    Material(b, "Red", [](StudioBuilder&) {});
    Material(b, "Blue", [](StudioBuilder&) {});
    b.Begin(0x4000).Str("Box").Begin(0x4100);
    b.Points({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0});
    // Face 1 points past the points and is dropped; face indices past the list are ignored.
    b.FacesOpen({0, 1, 2, 0, 9, 2, 1, 3, 2, 3, 2, 1});
    b.Begin(0x4130).Str("Blue").U16(3).U16(0).U16(2).U16(40).End();
    b.Begin(0x4130).Str("Nobody").U16(1).U16(3).End();
    b.End().End().End().End();
    ReadResult r = ReadStudio(b.Bytes());
    ASSERT_TRUE(r.scene);
    C3DSceneNode* box = Named(*r.scene, L"Box");
    ASSERT_TRUE(box);
    const C3DFaceList& f = *box->GetGeomObject()->GetFaceList();
    ASSERT_EQ(f.GetNumberOfFaces(), 3);
    EXPECT_EQ(f.GetIndexes(), (std::vector<uint32_t>{0, 1, 2, 1, 3, 2, 3, 2, 1}));
    uint32_t blue = r.scene->GetMaterialID(CXStringW(L"Blue"));
    ASSERT_NE(blue, NO_MATERIAL);
    EXPECT_EQ(f.GetMaterialID(0), blue);
    EXPECT_EQ(f.GetMaterialID(1), blue);
    EXPECT_EQ(f.GetMaterialID(2), 0u); // unknown material name
}

TEST(StudioRead, TextureCoordinatesAreNegatedInVAndMustMatchThePoints) {
    StudioBuilder b;
    b.Begin(0x3D3D);
    b.Begin(0x4000).Str("Good").Begin(0x4100);
    b.Points({0, 0, 0, 1, 0, 0, 0, 1, 0});
    b.Begin(0x4140).U16(3).F32(0.25f).F32(0.75f).F32(2e10f).F32(-3e10f).F32(1).F32(1).End();
    b.FacesOpen({0, 1, 2}).End();
    b.End().End();
    b.Begin(0x4000).Str("Short").Begin(0x4100);
    b.Points({0, 0, 0, 1, 0, 0, 0, 1, 0});
    b.Begin(0x4140).U16(2).F32(0).F32(0).F32(1).F32(1).End();
    b.FacesOpen({0, 1, 2}).End();
    b.End().End();
    b.End();
    ReadResult r = ReadStudio(b.Bytes());
    ASSERT_TRUE(r.scene);
    const C3DGeomObject* good = Named(*r.scene, L"Good")->GetGeomObject();
    const CUVWChannel* uv = good->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    EXPECT_EQ(uv->GetChannelID(), C3DStudioIo::kUVChannelID);
    const CUVWPointList& up = *uv->GetUVWPointList();
    EXPECT_EQ(up[0], C3DPoint(0.25f, -0.75f, 0));
    EXPECT_EQ(up[1], C3DPoint(0, 0, 0));
    EXPECT_EQ(uv->GetUVWFaceList()->GetIndexes(), good->GetFaceList()->GetIndexes());

    EXPECT_EQ(Named(*r.scene, L"Short")->GetGeomObject()->GetGlobalUVWChannel(), nullptr);
    ASSERT_EQ(r.log.size(), 1u);
    EXPECT_EQ(r.log[0].level, LOG_INFO);
    EXPECT_NE(r.log[0].text.Find(L"Short"), -1);
}

TEST(StudioRead, MaterialColoursPercentagesAndMaps) {
    StudioBuilder b;
    b.Begin(0x3D3D);
    Material(b, "Mat", [](StudioBuilder& m) {
        m.Begin(0xA010).Begin(0x0011).U8(128).U8(200).U8(255).End().End(); // gamma colour
        m.Begin(0xA020).Begin(0x0012).U8(128).U8(10).U8(20).End().End();   // linear only
        m.Begin(0xA030).Begin(0x0012).U8(1).U8(2).U8(3).End().Begin(0x0010).F32(0.2f).F32(2.0f).F32(-1).End().End();
        m.Begin(0xA040).Begin(0x0030).U16(80).End().End();
        m.Begin(0xA050).Begin(0x0031).F32(0.257f).End().End();
        // Texture 1: no rotation, mirror tiling.
        m.Begin(0xA200).Begin(0x0030).U16(60).End().Begin(0xA300).Str("wood.jpg").End();
        m.Begin(0xA351).U16(0x2).End().Begin(0xA354).F32(2).End().Begin(0xA356).F32(3).End();
        m.Begin(0xA358).F32(0.25f).End().Begin(0xA35A).F32(0.5f).End().End();
        // Opacity: rotated 30 degrees, old tiling flag bit 0 (which also sets bit 4).
        m.Begin(0xA210).Begin(0xA300).Str("mask.png").End().Begin(0xA350).U16(1).End();
        m.Begin(0xA354).F32(2).End().Begin(0xA356).F32(3).End().Begin(0xA358).F32(0.25f).End();
        m.Begin(0xA35A).F32(0.5f).End().Begin(0xA35C).F32(30).End().End();
        // A mask of texture 1 and a specular map change no scene map.
        m.Begin(0xA33E).Begin(0xA300).Str("other.png").End().End();
        m.Begin(0xA204).Begin(0xA300).Str("shine.png").End().End();
    });
    b.End();
    ReadResult r = ReadStudio(b.Bytes());
    ASSERT_TRUE(r.scene);
    ASSERT_EQ(r.scene->GetMaterialNumber(), 1);
    CMaterialPos pos;
    auto* m = dynamic_cast<C3DStandardMaterial*>(r.scene->GetFirstMaterial(pos));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetName(), L"Mat");
    EXPECT_EQ(m->ambient, CRGBColor(104, 186, 255));
    EXPECT_FLOAT_EQ(m->ambientFactor, 0.2f);
    EXPECT_EQ(m->diffuse, CRGBColor(128, 10, 20));
    EXPECT_FLOAT_EQ(m->diffuseFactor, 0.7f);
    // A float colour after a linear one wins; 0.2 * 255 = 51, clamped to 0..255, then gamma.
    EXPECT_EQ(m->specular, CRGBColor(31, 255, 0));
    EXPECT_FLOAT_EQ(m->specularFactor, 0.8f);
    EXPECT_FLOAT_EQ(m->transparency, 0.25f); // 25.7 truncated to a percentage

    ASSERT_EQ(m->GetMaterialMapCount(), 2);
    const CMaterialMap* tex = m->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(tex);
    EXPECT_EQ(tex->file, L"wood.jpg");
    EXPECT_EQ(tex->channel, C3DStudioIo::kUVChannelID);
    EXPECT_FLOAT_EQ(tex->scaleU, 4);
    EXPECT_FLOAT_EQ(tex->scaleV, 6);
    EXPECT_FLOAT_EQ(tex->translateU, -0.25f);
    EXPECT_FLOAT_EQ(tex->translateV, -1.5f);
    EXPECT_FLOAT_EQ(tex->hpb.z, 0);
    EXPECT_EQ(tex->flags, 0u);

    const CMaterialMap* opa = m->GetMaterialMap(MAP_OPACITY);
    ASSERT_TRUE(opa);
    EXPECT_EQ(opa->file, L"mask.png");
    EXPECT_EQ(opa->channel, C3DStudioIo::kUVChannelID + 1);
    // sin 0.5, cos 0.866: t = -0.57735, k = 0.366025.
    EXPECT_NEAR(opa->scaleU, 0.732051, 1e-5);
    EXPECT_NEAR(opa->scaleV, 1.098076, 1e-5);
    EXPECT_NEAR(opa->hpb.z, -0.5235988, 1e-6);
    EXPECT_NEAR(opa->translateU, 1.116025, 1e-5);
    EXPECT_NEAR(opa->translateV, -2.866025, 1e-5);
    EXPECT_EQ(opa->flags, 3u);
}

// The specular and shininess masks are crossed: each mask chunk names the other map's slot.
TEST(StudioRead, MaskChunksOfSpecularAndShininessAreCrossed) {
    const struct {
        uint16_t id;
        int slot;
        bool mask;
    } cases[] = {{0xA346, 5, true},  {0xA348, 4, true}, {0xA204, 4, false},
                 {0xA33C, 5, false}, {0xA342, 2, true}, {0xA000, -1, false}};
    for (const auto& c : cases) {
        bool mask = !c.mask;
        EXPECT_EQ(StudioMapSlot(c.id, mask), c.slot) << std::hex << c.id;
        if (c.slot >= 0) { EXPECT_EQ(mask, c.mask) << std::hex << c.id; }
    }
}

TEST(StudioRead, KeyframerBuildsTheHierarchyWithTracks) {
    std::string file = Scene(
        [](StudioBuilder& b) {
            TriObject(b, "Body", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
            TriObject(b, "Wheel", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
            TriObject(b, "Still", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        },
        [](StudioBuilder& b) {
            b.Begin(0xB00A).U16(5).Str("").U32(100).End();
            // 0: a dummy holding the rest, renamed by its instance name.
            b.Begin(0xB002).Begin(0xB030).U16(0).End().NodeHeader("$$$DUMMY", 0xFFFF);
            b.Begin(0xB011).Str("Car").End().End();
            // 7: the body under the dummy, with a pivot and all three tracks.
            b.Begin(0xB002).Begin(0xB030).U16(7).End().NodeHeader("Body", 0);
            b.Begin(0xB013).F32(1).F32(2).F32(3).End();
            b.Begin(0xB020).U16(0).U32(0).U32(0).I32(2);
            b.I32(0).U16(0x5).F32(0.5f).F32(-0.25f).F32(1).F32(2).F32(3);
            b.I32(10).U16(0x18).F32(0.1f).F32(0.2f).F32(4).F32(5).F32(6).End();
            b.Begin(0xB021).U16(0).U32(0).U32(0).I32(2);
            b.I32(0).U16(0).F32(0).F32(0).F32(0).F32(1); // angle 0: dropped
            b.I32(5).U16(0).F32(1.5f).F32(0).F32(1).F32(0).End();
            b.Begin(0xB022).U16(0).U32(0).U32(0).I32(1).I32(0).U16(0).F32(2).F32(2).F32(2).End();
            b.End();
            // 8: the wheel under the body.
            b.Begin(0xB002).Begin(0xB030).U16(8).End().NodeHeader("Wheel", 7);
            b.Begin(0xB013).F32(1e-20f).F32(0).F32(0).End().End();
            // Ignored node: its tracks are read and dropped.
            b.Begin(0xB002).NodeHeader("$_$_$_$", 0xFFFF);
            b.Begin(0xB020).U16(0).U32(0).U32(0).I32(1).I32(0).U16(0).F32(9).F32(9).F32(9).End().End();
        });
    ReadResult r = ReadStudio(file);
    ASSERT_TRUE(r.scene) << r.error;
    auto nodes = AllNodes(*r.scene);
    ASSERT_EQ(nodes.size(), 4u);
    // Nodes without keyframer entries go to the root first, then the placed ones.
    EXPECT_EQ(nodes[0]->GetName(), L"Still");
    EXPECT_EQ(nodes[1]->GetName(), L"Car");
    EXPECT_EQ(nodes[1]->GetKindOf(), KINDOF_GROUP);
    EXPECT_EQ(nodes[2]->GetName(), L"Body");
    EXPECT_EQ(nodes[2]->GetParent(), nodes[1]);
    EXPECT_EQ(nodes[3]->GetName(), L"Wheel");
    EXPECT_EQ(nodes[3]->GetParent(), nodes[2]);

    C3DSceneNode* body = nodes[2];
    // The tracks replace the object matrix; a lone matrix key stays.
    EXPECT_EQ(body->GetKeyNbr(KEY_MATRIX), 0);
    EXPECT_EQ(nodes[0]->GetKeyNbr(KEY_MATRIX), 1);
    ASSERT_EQ(body->GetKeyNbr(KEY_PIVOT), 1);
    auto* pivot = dynamic_cast<C3DVectorKey*>(body->GetKeyByIndex(KEY_PIVOT, 0));
    ASSERT_TRUE(pivot);
    EXPECT_EQ(pivot->value, C3DVector(-1, -2, -3));
    EXPECT_EQ(nodes[3]->GetKeyNbr(KEY_PIVOT), 0); // a pivot below 1e-15 adds nothing

    ASSERT_EQ(body->GetKeyNbr(KEY_TRANSLATE), 2);
    auto* t0 = dynamic_cast<C3DVectorKey*>(body->GetKeyByIndex(KEY_TRANSLATE, 0));
    auto* t1 = dynamic_cast<C3DVectorKey*>(body->GetKeyByIndex(KEY_TRANSLATE, 1));
    ASSERT_TRUE(t0 && t1);
    EXPECT_EQ(t0->value, C3DVector(1, 2, 3));
    EXPECT_FLOAT_EQ(t0->tcb.tension, 0.5f);
    EXPECT_FLOAT_EQ(t0->tcb.continuity, 0);
    EXPECT_FLOAT_EQ(t0->tcb.bias, -0.25f);
    EXPECT_EQ(t1->GetTime(), 10);
    EXPECT_FLOAT_EQ(t1->tcb.easeIn, 0.1f);
    EXPECT_FLOAT_EQ(t1->tcb.easeOut, 0.2f);
    EXPECT_EQ(t1->value, C3DVector(4, 5, 6));
    EXPECT_EQ(body->GetTrack(KEY_TRANSLATE)->GetCurveKind(), CURVE_TCB);

    ASSERT_EQ(body->GetKeyNbr(KEY_ROTATE), 1);
    auto* rot = dynamic_cast<C3DRotateKey*>(body->GetKeyByIndex(KEY_ROTATE, 0));
    ASSERT_TRUE(rot);
    EXPECT_EQ(rot->GetTime(), 5);
    EXPECT_FLOAT_EQ(rot->GetAngle(), 1.5f);
    ASSERT_EQ(body->GetKeyNbr(KEY_SCALE), 1);
    EXPECT_EQ(dynamic_cast<C3DVectorKey*>(body->GetKeyByIndex(KEY_SCALE, 0))->value, C3DVector(2, 2, 2));
}

TEST(StudioRead, NodeIDsComeFromTheCounterWithoutChunk0xB030) {
    // The camera node (0xB003) is skipped but counted, so the box is node 1 and the
    // child's parent ID 1 finds it.
    std::string file = Scene(
        [](StudioBuilder& b) {
            TriObject(b, "Box", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
            TriObject(b, "Kid", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        },
        [](StudioBuilder& b) {
            b.Begin(0xB003).NodeHeader("Camera01", 0xFFFF).End();
            b.Begin(0xB002).NodeHeader("Box", 0xFFFF).End();
            b.Begin(0xB002).NodeHeader("Kid", 1).End();
        });
    ReadResult r = ReadStudio(file);
    ASSERT_TRUE(r.scene) << r.error;
    C3DSceneNode* kid = Named(*r.scene, L"Kid");
    ASSERT_TRUE(kid);
    EXPECT_EQ(kid->GetParent(), Named(*r.scene, L"Box"));
}

TEST(StudioRead, AnObjectUsedTwiceGivesAKeylessCopy) {
    std::string file = Scene(
        [](StudioBuilder& b) {
            TriObject(b, "Tree", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        },
        [](StudioBuilder& b) {
            b.Begin(0xB002).Begin(0xB030).U16(0).End().NodeHeader("Tree", 0xFFFF).End();
            b.Begin(0xB002).Begin(0xB030).U16(1).End().NodeHeader("Tree", 0xFFFF);
            b.Begin(0xB011).Str("Tree2").End().End();
        });
    ReadResult r = ReadStudio(file);
    ASSERT_TRUE(r.scene);
    auto nodes = AllNodes(*r.scene);
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0]->GetName(), L"Tree");
    EXPECT_EQ(nodes[0]->GetKeyNbr(KEY_MATRIX), 1);
    EXPECT_EQ(nodes[1]->GetName(), L"Tree2");
    EXPECT_EQ(nodes[1]->GetKeyNbr(), 0);
    ASSERT_TRUE(nodes[1]->GetGeomObject());
    EXPECT_NE(nodes[1]->GetGeomObject(), nodes[0]->GetGeomObject());
    EXPECT_EQ(nodes[1]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);
}

TEST(StudioRead, CopiesOfReusedObjectsStopAtTheirBudget) {
    // "Tree" (2,000 faces) used 40 times (uses 1.. renamed "U<n>"; the last takes ID 0 again),
    // then "Kid" under ID 0.
    std::vector<uint16_t> faces;
    for (int f = 0; f < 2000; ++f) faces.insert(faces.end(), {0, 1, 2});
    std::string file = Scene(
        [&](StudioBuilder& b) {
            TriObject(b, "Tree", {0, 0, 0, 1, 0, 0, 0, 1, 0}, faces);
            TriObject(b, "Kid", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        },
        [](StudioBuilder& b) {
            for (uint16_t i = 0; i < 40; ++i) {
                b.Begin(0xB002).Begin(0xB030).U16(i == 39 ? 0 : i).End().NodeHeader("Tree", 0xFFFF);
                if (i) b.Begin(0xB011).Str("U" + std::to_string(i)).End();
                b.End();
            }
            b.Begin(0xB002).Begin(0xB030).U16(40).End().NodeHeader("Kid", 0).End();
        });
    auto read = [&](uint64_t allowance) { return ReadStudio(file, false, allowance); };
    const std::wstring message = L"objects used too many times";
    ReadResult all = read(C3DStudioIo::kCopyAllowance);
    ASSERT_TRUE(all.scene);
    EXPECT_EQ(all.scene->GetRoot()->GetDirectChildCount(), 40);
    EXPECT_EQ(Named(*all.scene, L"Kid")->GetParent(), Named(*all.scene, L"U39"));
    EXPECT_FALSE(all.Logged(message));

    // No allowance beyond the file's own share: the first uses are kept in order, the rest
    // left out, and the child of a left-out use goes to the root (not to the older ID 0).
    ReadResult cut = read(0);
    ASSERT_TRUE(cut.scene);
    std::vector<std::wstring> names;
    for (C3DSceneNode* n = cut.scene->GetRoot()->GetChildNode(); n; n = n->GetRightNode())
        names.push_back(n->GetName().str());
    ASSERT_GT(names.size(), 2u);
    ASSERT_LT(names.size(), 40u);
    EXPECT_EQ(names[0], L"Tree");
    for (size_t i = 1; i + 1 < names.size(); ++i) EXPECT_EQ(names[i], L"U" + std::to_wstring(i));
    EXPECT_EQ(names.back(), L"Kid");
    EXPECT_FALSE(Named(*cut.scene, L"U39"));
    size_t logged = 0;
    for (const IoLogInfo& l : cut.log) logged += l.text.str().find(message) != std::wstring::npos;
    EXPECT_EQ(logged, 1u);
}

TEST(StudioRead, SelfParentsAndUnknownNamesInTheKeyframer) {
    std::string selfParent = Scene(
        [](StudioBuilder& b) {
            TriObject(b, "A", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
            TriObject(b, "B", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        },
        [](StudioBuilder& b) {
            b.Begin(0xB002).Begin(0xB030).U16(4).End().NodeHeader("A", 4).End();
            b.Begin(0xB002).Begin(0xB030).U16(5).End().NodeHeader("B", 4).End();
        });
    ReadResult r = ReadStudio(selfParent);
    ASSERT_TRUE(r.scene);
    auto nodes = AllNodes(*r.scene);
    ASSERT_EQ(nodes.size(), 2u);
    // A pass that places nothing puts what is left at the root, in map order.
    EXPECT_EQ(nodes[0]->GetName(), L"A");
    EXPECT_EQ(nodes[0]->GetParent(), r.scene->GetRoot());
    EXPECT_EQ(nodes[1]->GetParent(), r.scene->GetRoot());

    std::string unknown = Scene(
        [](StudioBuilder& b) {
            TriObject(b, "A", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        },
        [](StudioBuilder& b) { b.Begin(0xB002).NodeHeader("Nobody", 0xFFFF).End(); });
    ReadResult u = ReadStudio(unknown);
    EXPECT_FALSE(u.scene);
    EXPECT_EQ(u.error, IO_ERR_FORMAT);
}

TEST(StudioRead, StringsAreLimitedTo63Characters) {
    for (size_t len : {63u, 64u}) {
        StudioBuilder b;
        b.Begin(0x3D3D);
        TriObject(b, std::string(len, 'n'), {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        b.End();
        ReadResult r = ReadStudio(b.Bytes());
        EXPECT_EQ(r.scene != nullptr, len == 63) << len;
        if (len == 64) { EXPECT_EQ(r.error, IO_ERR_FORMAT); }
    }
}

TEST(StudioRead, DamagedChunkStructureIsRejected) {
    auto expectDamaged = [](const std::string& bytes, const char* what) {
        ReadResult r = ReadStudio(bytes);
        EXPECT_FALSE(r.scene) << what;
        EXPECT_EQ(r.error, IO_ERR_FORMAT) << what;
        EXPECT_EQ(r.level, LOG_ERROR) << what;
    };
    {
        StudioBuilder b; // a zero-length sub-chunk must not loop
        b.Begin(0x4D4D).Header(0x3D3D, 0).End();
        expectDamaged(b.Bytes(), "zero length");
    }
    {
        StudioBuilder b;
        b.Begin(0x4D4D).Header(0x3D3D, 5).U8(0).End();
        expectDamaged(b.Bytes(), "length below 6");
    }
    {
        StudioBuilder b; // a sub-chunk longer than its container
        b.Begin(0x4D4D).Begin(0x3D3D).Header(0x0100, 100).F32(1).End().Raw("padding-padding-padding-padding", 30);
        b.End();
        expectDamaged(b.Bytes(), "beyond container");
    }
    {
        StudioBuilder b; // more points than the chunk holds
        b.Begin(0x3D3D).Begin(0x4000).Str("X").Begin(0x4100).Begin(0x4110).U16(1000).F32(1).F32(2).F32(3).End();
        b.End().End().End();
        expectDamaged(b.Bytes(), "point count");
    }
    {
        StudioBuilder b; // a track announcing two billion keys with one present
        b.Begin(0x4D4D).Begin(0x3D3D);
        TriObject(b, "A", {0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
        b.End().Begin(0xB000).Begin(0xB002).NodeHeader("A", 0xFFFF);
        b.Begin(0xB020).U16(0).U32(0).U32(0).I32(0x7FFFFFFF).I32(0).U16(0).F32(1).F32(1).F32(1).End();
        b.End().End().End();
        expectDamaged(b.Bytes(), "key count");
    }
    {
        StudioBuilder b; // containers nested past the limit
        for (int i = 0; i < 1000; ++i) b.Begin(0x3D3D);
        for (int i = 0; i < 1000; ++i) b.End();
        expectDamaged(b.Bytes(), "deep nesting");
        StudioBuilder ok;
        for (int i = 0; i < C3DStudioIo::kMaxDepth; ++i) ok.Begin(0x3D3D);
        for (int i = 0; i < C3DStudioIo::kMaxDepth; ++i) ok.End();
        EXPECT_TRUE(ReadStudio(ok.Bytes()).scene);
    }
}

TEST(StudioRead, EveryTruncationFailsCleanlyAndTrailingBytesAreIgnored) {
    std::string file = Scene(
        [](StudioBuilder& b) {
            Material(b, "M", [](StudioBuilder& m) { m.Begin(0xA020).Begin(0x0011).U8(1).U8(2).U8(3).End().End(); });
            b.Begin(0x0100).F32(1).End();
            b.Begin(0x4000).Str("A").Begin(0x4100).Points({0, 0, 0, 1, 0, 0, 0, 1, 0});
            b.Begin(0x4140).U16(3).F32(0).F32(0).F32(1).F32(0).F32(0).F32(1).End();
            b.Matrix(kIdentity).FacesOpen({0, 1, 2}).Begin(0x4130).Str("M").U16(1).U16(0).End().End();
            b.End().End();
        },
        [](StudioBuilder& b) {
            b.Begin(0xB002).Begin(0xB030).U16(0).End().NodeHeader("A", 0xFFFF);
            b.Begin(0xB013).F32(1).F32(1).F32(1).End();
            b.Begin(0xB021).U16(0).U32(0).U32(0).I32(1).I32(0).U16(1).F32(0.5f).F32(1).F32(0).F32(0).F32(1).End();
            b.End();
        });
    ASSERT_TRUE(ReadStudio(file).scene);
    for (size_t n = 0; n < file.size(); ++n) {
        ReadResult r = ReadStudio(file.substr(0, n));
        EXPECT_FALSE(r.scene) << n;
        EXPECT_EQ(r.error, n < 2 ? IO_ERR_OPEN : IO_ERR_FORMAT) << n;
    }
    ReadResult tail = ReadStudio(file + std::string("\xFF\xFF\x01\x00\x00\x00garbage", 13));
    ASSERT_TRUE(tail.scene);
    EXPECT_EQ(AllNodes(*tail.scene).size(), 1u);
}

TEST(StudioRead, CancelReportsCode11AndBuildsNothing) {
    std::atomic<bool> cancel{true};
    SetThreadCancelToken(&cancel);
    ReadResult r = ReadStudio(OneTriangleFile());
    SetThreadCancelToken(nullptr);
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_CANCELLED);
    EXPECT_EQ(r.level, LOG_INFO);
}
