// Lightwave object reading from built bytes: geometry and handedness, layers, surfaces,
// UV and colour maps, LWOB specifics, and damaged input.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "tests/classic/LightwaveTestSupport.h"

#include "formats/classic/LightwaveObject.h"
#include "plugin/host/Channel.h"
#include "plugin/host/Material.h"

using namespace lwtest;

namespace {

// One layer: a triangle (0,0,z) (0,1,z) (1,0,z), clockwise seen from -Z, surface "Red".
IffBuilder Triangle(float z = 2.0f) {
    IffBuilder b;
    b.Form("LWO2");
    b.Chunk("TAGS").S0("Red").End();
    b.Chunk("LAYR").U16(0).U16(0).Vec(0, 0, 0).S0("Tri").End();
    b.Chunk("PNTS").Vec(0, 0, z).Vec(0, 1, z).Vec(1, 0, z).End();
    b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(2).End();
    b.Chunk("PTAG").Id("SURF").VX(0).U16(0).End();
    return b;
}

std::string Close(IffBuilder& b) {
    b.End();
    return b.Bytes();
}

float UvAt(const C3DObject& o, int face, int corner, int comp, int channel = -1) {
    const CUVWChannel* ch =
        channel < 0 ? o.GetGlobalUVWChannel() : static_cast<CUVWChannel*>(o.GetChannelByID(channel, CHANNEL_UVW));
    const uint32_t idx = ch->GetUVWFaceList()->Face(face)[corner];
    const C3DPoint p = ch->GetUVWPointList()->GetPoint(static_cast<int>(idx));
    return comp == 0 ? p.x : p.y;
}

} // namespace

TEST(LightwaveRead, MirrorsZAndReversesWindingSoTheVisibleSideFacesTheViewer) {
    IffBuilder b = Triangle();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene) << r.error;
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Tri"));
    ASSERT_TRUE(o);
    ASSERT_EQ(o->GetPointList()->GetSize(), 3);
    EXPECT_FLOAT_EQ(o->GetPointList()->GetPoint(1).y, 1.0f);
    EXPECT_FLOAT_EQ(o->GetPointList()->GetPoint(0).z, -2.0f);
    ASSERT_EQ(o->GetFaceList()->GetNumberOfFaces(), 1);
    // Seen from -Z in the file (the viewer's side); after mirroring the viewer is at +Z.
    const C3DVector n = FaceNormal(*o->GetPointList(), o->GetFaceList()->Face(0));
    EXPECT_GT(n.z, 0.9f);
    EXPECT_EQ(o->GetFaceList()->Face(0)[0], 0u); // the first corner stays first
    const C3DMaterial* m = r.scene->GetMaterialByID(o->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetName(), L"Red");
}

TEST(LightwaveRead, SurfaceValuesBecomeMaterialValues) {
    IffBuilder b = Triangle();
    b.Chunk("SURF").S0("Red").S0("");
    b.Sub("COLR").Vec(1.0f, 0.5f, 0.0f).VX(0).End();
    b.Sub("DIFF").F32(0.8f).VX(0).End();
    b.Sub("S"
          "PEC")
        .F32(0.25f)
        .VX(0)
        .End();
    b.Sub("GLOS").F32(0.6f).VX(0).End();
    b.Sub("TRAN").F32(0.3f).VX(0).End();
    b.Sub("LUMI").F32(0.5f).VX(0).End();
    b.Sub("SMAN").F32(0.5235988f).End();
    b.Sub("SIDE").U16(3).End();
    b.End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    ASSERT_EQ(r.scene->GetMaterialNumber(), 1); // the tag and the surface are one material
    auto* m = static_cast<C3DStandardMaterial*>(r.scene->GetMaterialByID(r.scene->GetMaterialID(L"Red")));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->diffuse, CRGBColor(255, 128, 0));
    EXPECT_FLOAT_EQ(m->diffuseFactor, 0.8f);
    EXPECT_FLOAT_EQ(m->specularFactor, 0.25f);
    EXPECT_FLOAT_EQ(m->shininess, 0.6f);
    EXPECT_FLOAT_EQ(m->transparency, 0.3f);
    EXPECT_FLOAT_EQ(m->emissiveFactor, 0.5f);
    EXPECT_NEAR(m->smoothAngle, 30.0f, 1e-3);
    EXPECT_TRUE(m->IsFlagSet(MATF_TWO_SIDED));
}

TEST(LightwaveRead, UntaggedAndUnknownSurfacesGetDefaultMaterials) {
    IffBuilder b;
    b.Form("LWO2");
    b.Chunk("TAGS").S0("Ghost").End();
    b.Chunk("PNTS").Vec(0, 0, 0).Vec(0, 1, 0).Vec(1, 0, 0).End();
    b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(2).U16(3).VX(2).VX(1).VX(0).U16(3).VX(0).VX(2).VX(1).End();
    // Polygon 1 names a tag past the list, polygon 2 has none, polygon 9 does not exist.
    b.Chunk("PTAG").Id("SURF").VX(0).U16(0).VX(1).U16(7).VX(9).U16(0).End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Layer 0"));
    ASSERT_TRUE(o);
    ASSERT_EQ(o->GetFaceList()->GetNumberOfFaces(), 3);
    const C3DFaceList& f = *o->GetFaceList();
    EXPECT_EQ(r.scene->GetMaterialByID(f.GetMaterialID(0))->GetName(), L"Ghost");
    EXPECT_EQ(r.scene->GetMaterialByID(f.GetMaterialID(1))->GetName(), L"Default");
    EXPECT_EQ(f.GetMaterialID(1), f.GetMaterialID(2));
}

TEST(LightwaveRead, LayersHangByNumberWithPivotsAndCyclesEndAtTheRoot) {
    IffBuilder b;
    b.Form("LWO2");
    // The child comes first and names its parent by number 5.
    b.Chunk("LAYR").U16(2).U16(0).Vec(1, 2, 3).S0("Child").I16(5).End();
    b.Chunk("PNTS").Vec(1, 2, 3).Vec(2, 2, 3).Vec(1, 3, 3).End();
    b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(2).End();
    b.Chunk("LAYR").U16(5).U16(1).Vec(1, 0, 1).S0("Root").End(); // hidden, no parent field
    b.Chunk("PNTS").Vec(0, 0, 0).End();
    // Two layers naming each other: a cycle.
    b.Chunk("LAYR").U16(7).U16(0).Vec(0, 0, 0).S0("A").I16(8).End();
    b.Chunk("LAYR").U16(8).U16(0).Vec(0, 0, 0).S0("B").I16(7).End();
    b.Chunk("LAYR").U16(9).U16(0).Vec(0, 0, 0).S0("Self").I16(9).End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DSceneNode* child = FindNode(*r.scene, L"Child");
    C3DSceneNode* root = FindNode(*r.scene, L"Root");
    ASSERT_TRUE(child && root);
    EXPECT_EQ(child->GetParent(), root);
    EXPECT_EQ(root->GetParent(), r.scene->GetRoot());
    EXPECT_TRUE(root->IsFlagSet(NODE_HIDDEN));
    EXPECT_EQ(child->GetNodeID(), 2u);
    // Points are stored relative to the pivot; the node carries pivot - parent pivot.
    const C3DPoint t = child->GetStaticLocalTM().GetTranslation();
    EXPECT_FLOAT_EQ(t.x, 0.0f);
    EXPECT_FLOAT_EQ(t.y, 2.0f);
    EXPECT_FLOAT_EQ(t.z, -2.0f);
    const C3DPoint p1 = MeshOf(child)->GetPointList()->GetPoint(1);
    EXPECT_FLOAT_EQ(p1.x, 1.0f);
    EXPECT_FLOAT_EQ(p1.y, 0.0f);
    EXPECT_FLOAT_EQ(p1.z, 0.0f);
    // World position of point 1 is where the file put it (z mirrored).
    C4x4Matrix w;
    child->GetNodeTM(0, w);
    const C3DPoint wp = w.TransformPoint(p1);
    EXPECT_FLOAT_EQ(wp.x, 2.0f);
    EXPECT_FLOAT_EQ(wp.y, 2.0f);
    EXPECT_FLOAT_EQ(wp.z, -3.0f);
    C3DSceneNode* a = FindNode(*r.scene, L"A");
    C3DSceneNode* bb = FindNode(*r.scene, L"B");
    ASSERT_TRUE(a && bb);
    EXPECT_TRUE(a->GetParent() == r.scene->GetRoot() || bb->GetParent() == r.scene->GetRoot());
    EXPECT_EQ(FindNode(*r.scene, L"Self")->GetParent(), r.scene->GetRoot());
}

TEST(LightwaveRead, DeepLayerChainsAreCutAndLinear) {
    IffBuilder b;
    b.Form("LWO2");
    const int n = 20000;
    for (int i = 1; i <= n; ++i) b.Chunk("LAYR").U16(uint16_t(i)).U16(0).Vec(0, 0, 0).S0("").I16(int16_t(i + 1)).End();
    b.Chunk("PNTS").Vec(0, 0, 0).End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetNodeCount(), n);
    int maxDepth = 0;
    C3DBaseObject* o;
    for (C3DNodePos p = r.scene->GetFirstNode(); C3DSceneNode* node = r.scene->GetNextNode(o, p);) {
        int d = 0;
        for (C3DSceneNode* q = node->GetParent(); q && q != r.scene->GetRoot(); q = q->GetParent()) ++d;
        maxDepth = std::max(maxDepth, d);
    }
    EXPECT_LE(maxDepth, 256);
}

TEST(LightwaveRead, VmadOverridesOneCornerOfTheVmap) {
    IffBuilder b = Triangle();
    b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(2).VX(1).End(); // a second POLS: indices restart
    b.Chunk("VMAP").Id("TXUV").U16(2).S0("uv");
    b.VX(0).F32(0.0f).F32(0.0f).VX(1).F32(0.0f).F32(1.0f).VX(2).F32(1.0f).F32(0.0f).VX(99).F32(5).F32(5).End();
    // Point 1 in polygon 0 of the latest POLS gets its own UV; polygon 4 does not exist.
    b.Chunk("VMAD").Id("TXUV").U16(2).S0("uv").VX(1).VX(0).F32(0.5f).F32(0.75f).VX(1).VX(4).F32(9).F32(9).End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Tri"));
    ASSERT_TRUE(o);
    ASSERT_EQ(o->GetFaceList()->GetNumberOfFaces(), 2);
    ASSERT_EQ(o->GetChannelCount(CHANNEL_UVW), 1);
    ASSERT_TRUE(o->GetGlobalUVWChannel());
    EXPECT_EQ(o->GetGlobalUVWChannel()->GetName(), L"uv");
    // Face 0 (0,1,2) reversed to (0,2,1): its corner 2 is point 1 with the VMAP value.
    EXPECT_EQ(o->GetFaceList()->Face(0)[2], 1u);
    EXPECT_FLOAT_EQ(UvAt(*o, 0, 2, 1), 1.0f);
    // Face 1 (0,2,1) reversed to (0,1,2): its corner 1 is point 1, overridden.
    EXPECT_EQ(o->GetFaceList()->Face(1)[1], 1u);
    EXPECT_FLOAT_EQ(UvAt(*o, 1, 1, 0), 0.5f);
    EXPECT_FLOAT_EQ(UvAt(*o, 1, 1, 1), 0.75f);
    EXPECT_FLOAT_EQ(UvAt(*o, 1, 2, 0), 1.0f);
}

TEST(LightwaveRead, RgbaMapsBecomeVertexColours) {
    IffBuilder b = Triangle();
    b.Chunk("VMAP").Id("RGBA").U16(4).S0("paint").VX(2).F32(1).F32(0).F32(0).F32(0.5f).End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Tri"));
    CVCChannel* vc = o->GetGlobalVCChannel();
    ASSERT_TRUE(vc);
    const uint32_t i2 = vc->GetVCFaceList()->Face(0)[1]; // corner 1 is point 2 after reversal
    EXPECT_EQ((*vc->GetVCPointList())[static_cast<int>(i2)], CRGBColor(255, 0, 0, 128));
    const uint32_t i0 = vc->GetVCFaceList()->Face(0)[0];
    EXPECT_EQ((*vc->GetVCPointList())[static_cast<int>(i0)], CRGBColor(255, 255, 255, 255));
}

TEST(LightwaveRead, FourByteIndicesAndTenBitCounts) {
    IffBuilder b;
    b.Form("LWO2");
    b.Chunk("PNTS").Vec(0, 0, 0).Vec(0, 1, 0).Vec(1, 0, 0).End();
    // A VX may use the long form for small indices; the top six bits of the count are flags.
    b.Chunk("POLS").Id("FACE").U16(0xFC03).U32(0xFF000000u).U32(0xFF000001u).U32(0xFF000002u).End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Layer 0"));
    ASSERT_EQ(o->GetFaceList()->GetNumberOfFaces(), 1);
    EXPECT_EQ(o->GetFaceList()->GetFaceSize(0), 3);
}

TEST(LightwaveRead, CurvesAndLinesBecomePolylines) {
    IffBuilder b = Triangle();
    b.Chunk("POLS").Id("CURV").U16(3).VX(2).VX(1).VX(0).End();
    b.Chunk("POLS").Id("FACE").U16(2).VX(0).VX(1).U16(0).End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DSceneNode* n = FindNode(*r.scene, L"Tri curves");
    ASSERT_TRUE(n);
    ASSERT_EQ(n->GetKindOf(), static_cast<uint32_t>(KINDOF_CURVE));
    auto* c = static_cast<C3DCurve*>(n->GetBaseObject());
    EXPECT_EQ(c->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(c->GetPointList()->GetSize(), 3);
    EXPECT_EQ(MeshOf(FindNode(*r.scene, L"Tri"))->GetFaceList()->GetNumberOfFaces(), 1);
}

TEST(LightwaveRead, ImageBlockWithUvMapAndClipRegistersTheTexture) {
    IffBuilder b = Triangle();
    b.Chunk("VMAP").Id("TXUV").U16(2).S0("other").VX(0).F32(0.1f).F32(0.1f).End();
    b.Chunk("VMAP").Id("TXUV").U16(2).S0("main").VX(0).F32(0.2f).F32(0.2f).End();
    b.Chunk("CLIP").U32(3).Sub("STIL").S0("Images/brick.png").End().End();
    b.Chunk("SURF").S0("Red").S0("");
    b.Sub("BLOK");
    b.Sub("IMAP").S0("\x80").Sub("CHAN").Id("COLR").End().Sub("ENAB").U16(1).End().End();
    b.Sub("PROJ").U16(5).End().Sub("IMAG").VX(3).End().Sub("VMAP").S0("main").End();
    b.End().End();
    ReadResult r = ReadObjectBytes(Close(b), L"/nonexistent/folder");
    ASSERT_TRUE(r.scene);
    const C3DMaterial* m = r.scene->GetMaterialByID(r.scene->GetMaterialID(L"Red"));
    const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->file, L"Images/brick.png");
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Tri"));
    CUVWChannel* ch = static_cast<CUVWChannel*>(o->GetChannelByID(map->channel, CHANNEL_UVW));
    ASSERT_TRUE(ch);
    EXPECT_EQ(ch->GetName(), L"main");
    ASSERT_EQ(r.scene->GetRequiredFiles().size(), 1u);
    EXPECT_EQ(r.scene->GetRequiredFiles()[0], L"/nonexistent/folder/Images/brick.png");
    EXPECT_TRUE(r.Logged(L"not found"));
}

TEST(LightwaveRead, PlanarProjectionComputesUvsFromCentreAndSize) {
    // Planar on Z, centre (1,1,0), size (2,4,1): u = (x-1)/2 + .5, v = (y-1)/4 + .5.
    IffBuilder b = Triangle(0.0f);
    b.Chunk("CLIP").U32(1).Sub("STIL").S0("a.png").End().End();
    b.Chunk("SURF").S0("Red").S0("");
    b.Sub("BLOK");
    b.Sub("IMAP").S0("\x80").Sub("CHAN").Id("COLR").End().End();
    b.Sub("TMAP").Sub("CNTR").Vec(1, 1, 0).VX(0).End().Sub("SIZE").Vec(2, 4, 1).VX(0).End().End();
    b.Sub("PROJ").U16(0).End().Sub("AXIS").U16(2).End().Sub("IMAG").VX(1).End();
    b.End().End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Tri"));
    const CMaterialMap* map = r.scene->GetMaterialByID(o->GetFaceList()->GetMaterialID(0))->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->projection, static_cast<uint32_t>(PROJ_PLANAR));
    // Host corner 1 is file point 2 = (1,0,0): u = .5, v = .25.
    EXPECT_FLOAT_EQ(UvAt(*o, 0, 1, 0, map->channel), 0.5f);
    EXPECT_FLOAT_EQ(UvAt(*o, 0, 1, 1, map->channel), 0.25f);
    // Corner 0 is (0,0,0): u = 0, v = .25.
    EXPECT_FLOAT_EQ(UvAt(*o, 0, 0, 0, map->channel), 0.0f);
}

TEST(LightwaveRead, ProjectedSurfacesGetTheirChannelsInEveryLayer) {
    // Planar on Z: "A" centred at 0 with size 1, "B" centred at (1,1,0) with size (2,4,1).
    // Layer 0 tags its faces A and "Gone" (no such surface); layer 1 tags them B and A.
    IffBuilder b;
    b.Form("LWO2");
    b.Chunk("TAGS").S0("A").S0("B").S0("Gone").End();
    b.Chunk("CLIP").U32(1).Sub("STIL").S0("a.png").End().End();
    for (const char* name : {"A", "B"}) {
        const bool a = name[0] == 'A';
        b.Chunk("SURF").S0(name).S0("");
        b.Sub("BLOK");
        b.Sub("IMAP").S0("\x80").Sub("CHAN").Id("COLR").End().End();
        b.Sub("TMAP").Sub("CNTR").Vec(a ? 0 : 1, a ? 0 : 1, 0).VX(0).End();
        b.Sub("SIZE").Vec(a ? 1 : 2, a ? 1 : 4, 1).VX(0).End().End();
        b.Sub("PROJ").U16(0).End().Sub("AXIS").U16(2).End().Sub("IMAG").VX(1).End();
        b.End().End();
    }
    for (uint16_t layer : {0, 1}) {
        b.Chunk("LAYR").U16(layer).U16(0).Vec(0, 0, 0).S0(layer ? "L1" : "L0").End();
        b.Chunk("PNTS").Vec(0, 0, 0).Vec(0, 1, 0).Vec(1, 0, 0).End();
        b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(2).U16(3).VX(0).VX(1).VX(2).End();
        b.Chunk("PTAG").Id("SURF").VX(0).U16(layer ? 1 : 0).VX(1).U16(layer ? 0 : 2).End();
    }
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    auto channelOf = [&](const wchar_t* surface) {
        const CMaterialMap* map =
            r.scene->GetMaterialByID(r.scene->GetMaterialID(surface))->GetMaterialMap(MAP_DIFFUSE);
        return map ? static_cast<int>(map->channel) : -1;
    };
    const int a = channelOf(L"A"), bb = channelOf(L"B");
    ASSERT_GE(a, 0);
    ASSERT_GE(bb, 0);
    ASSERT_NE(a, bb);
    // Host corner 1 is file point 2 = (1,0,0): A gives (1.5, .5), B gives (.5, .25).
    C3DObject* l0 = MeshOf(FindNode(*r.scene, L"L0"));
    ASSERT_TRUE(l0);
    ASSERT_TRUE(l0->GetChannelByID(a, CHANNEL_UVW));
    EXPECT_FALSE(l0->GetChannelByID(bb, CHANNEL_UVW));
    EXPECT_FLOAT_EQ(UvAt(*l0, 0, 1, 0, a), 1.5f);
    EXPECT_FLOAT_EQ(UvAt(*l0, 0, 1, 1, a), 0.5f);
    EXPECT_FLOAT_EQ(UvAt(*l0, 1, 1, 0, a), 0.0f); // the missing surface's face: the (0, 0) entry
    C3DObject* l1 = MeshOf(FindNode(*r.scene, L"L1"));
    ASSERT_TRUE(l1);
    ASSERT_TRUE(l1->GetChannelByID(a, CHANNEL_UVW));
    ASSERT_TRUE(l1->GetChannelByID(bb, CHANNEL_UVW));
    EXPECT_FLOAT_EQ(UvAt(*l1, 0, 1, 0, bb), 0.5f);
    EXPECT_FLOAT_EQ(UvAt(*l1, 0, 1, 1, bb), 0.25f);
    EXPECT_FLOAT_EQ(UvAt(*l1, 0, 1, 0, a), 0.0f);
    EXPECT_FLOAT_EQ(UvAt(*l1, 1, 1, 0, a), 1.5f);
    EXPECT_FLOAT_EQ(UvAt(*l1, 1, 1, 0, bb), 0.0f);
}

TEST(LightwaveRead, ProjectionsAroundEachAxis) {
    lightwave::Projection p;
    const float n[3] = {0, 0, 1};
    float u, v;
    // Cylindrical about Y: longitude from atan2(x, z); v from y over the size.
    p.proj = 1;
    p.axis = 1;
    p.size[1] = 2;
    const float front[3] = {0, 1, 1};
    lightwave::ProjectUV(p, front, n, u, v);
    EXPECT_FLOAT_EQ(u, 0.5f);
    EXPECT_FLOAT_EQ(v, 1.0f);
    const float side[3] = {1, 0, 0};
    lightwave::ProjectUV(p, side, n, u, v);
    EXPECT_FLOAT_EQ(u, 0.75f);
    // Spherical: the pole is v = 1, the equator v = .5; wrap counts scale u.
    p.proj = 2;
    p.wrapW = 2;
    const float pole[3] = {0, 5, 0};
    lightwave::ProjectUV(p, pole, n, u, v);
    EXPECT_FLOAT_EQ(v, 1.0f);
    lightwave::ProjectUV(p, side, n, u, v);
    EXPECT_FLOAT_EQ(v, 0.5f);
    EXPECT_FLOAT_EQ(u, 1.5f);
    // Cubic picks the plane across the normal's largest component.
    p = {};
    p.proj = 3;
    const float nx[3] = {-3, 1, 1};
    const float pt[3] = {0.25f, 0.1f, 0.2f};
    lightwave::ProjectUV(p, pt, nx, u, v);
    EXPECT_FLOAT_EQ(u, 0.7f); // planar on X: u from z
    EXPECT_FLOAT_EQ(v, 0.6f); // v from y
}

// LWOB: U2 indices, surfaces by number, detail polygons, fixed-point values.
TEST(LightwaveRead, OldFormatDetailPolygonsAndSurfaces) {
    IffBuilder b;
    b.Form("LWOB");
    b.Chunk("PNTS");
    for (int i = 0; i < 7; ++i) b.Vec(float(i), float(i % 2), 0);
    b.End();
    b.Chunk("SRFS").S0("Base").S0("Decal").End();
    // The documents' example: quad (1,0,2,3) on surface 1 with one detail triangle (5,4,6) on 2.
    b.Chunk("POLS").U16(4).U16(1).U16(0).U16(2).U16(3).I16(-1).U16(1).U16(3).U16(5).U16(4).U16(6).I16(2);
    b.U16(3).U16(0).U16(1).U16(9).I16(1); // index 9 does not exist: dropped
    b.End();
    b.Chunk("SURF").S0("Base");
    b.Sub("COLR").U8(255).U8(128).U8(64).U8(0).End();
    b.Sub("FLAG").U16(256).End();
    b.Sub("DIFF").U16(128).End();
    b.Sub("VDIF").F32(0.75f).End();
    b.Sub("GLOS").U16(64).End();
    b.End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Layer 1"));
    ASSERT_TRUE(o);
    ASSERT_EQ(o->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(o->GetFaceList()->GetFaceSize(0), 4);
    EXPECT_EQ(o->GetFaceList()->GetFaceSize(1), 3);
    EXPECT_EQ(o->GetFaceList()->Face(1)[0], 5u);
    EXPECT_EQ(r.scene->GetMaterialByID(o->GetFaceList()->GetMaterialID(1))->GetName(), L"Decal");
    auto* base = static_cast<C3DStandardMaterial*>(r.scene->GetMaterialByID(o->GetFaceList()->GetMaterialID(0)));
    EXPECT_EQ(base->GetName(), L"Base");
    EXPECT_EQ(base->diffuse, CRGBColor(255, 128, 64));
    EXPECT_FLOAT_EQ(base->diffuseFactor, 0.75f); // the float value wins over the fixed one
    EXPECT_FLOAT_EQ(base->shininess, 0.4f);      // exponent 64
    EXPECT_TRUE(base->IsFlagSet(MATF_TWO_SIDED));
    EXPECT_TRUE(r.Logged(L"1 polygons"));
}

TEST(LightwaveRead, OldFormatCylindricalTextureMakesUvs) {
    IffBuilder b;
    b.Form("LWOB");
    b.Chunk("PNTS").Vec(1, 0, 0).Vec(0, 1, 1).Vec(-1, 0, 0).End();
    b.Chunk("SRFS").S0("T").End();
    b.Chunk("POLS").U16(3).U16(0).U16(1).U16(2).I16(1).End();
    b.Chunk("SURF").S0("T");
    b.Sub("CTEX").S0("Cylindrical Image Map").End();
    b.Sub("TFLG").U16(2).End(); // Y axis
    b.Sub("TSIZ").Vec(1, 2, 1).End();
    b.Sub("TIMG").S0("C:\\maps\\wood.jpg (sequence)").End();
    b.Sub("TALP").U8(0xFF).U8(0xFE).U8(0xFD).U8(0xFC).End(); // no NUL at all
    b.End();
    ReadResult r = ReadObjectBytes(Close(b));
    ASSERT_TRUE(r.scene);
    const C3DMaterial* m = r.scene->GetMaterialByID(r.scene->GetMaterialID(L"T"));
    const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->file, L"C:/maps/wood.jpg");
    EXPECT_EQ(map->projection, static_cast<uint32_t>(PROJ_CYLINDRICAL));
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Layer 1"));
    // Host corner 1 is file point 2 (-1,0,0): longitude -90 degrees, u = .25; v = 0/2 + .5.
    EXPECT_FLOAT_EQ(UvAt(*o, 0, 1, 0, map->channel), 0.25f);
    EXPECT_FLOAT_EQ(UvAt(*o, 0, 1, 1, map->channel), 0.5f);
}

TEST(LightwaveRead, RefusesWhatIsNotAnObject) {
    EXPECT_EQ(ReadObjectBytes("").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadObjectBytes(std::string("FORM\0\0\0\4LWO3", 12)).error, IO_ERR_FORMAT);
    IffBuilder b;
    b.Form("ILBM");
    EXPECT_EQ(ReadObjectBytes(Close(b)).error, IO_ERR_FORMAT);
    IffBuilder e;
    e.Form("LWO2").Chunk("TAGS").S0("x").End();
    ReadResult r = ReadObjectBytes(Close(e));
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_EMPTY);
}

TEST(LightwaveRead, DamagedLengthsAndTruncationNeverFail) {
    IffBuilder b = Triangle();
    b.Chunk("VMAP").Id("TXUV").U16(2).S0("uv").VX(0).F32(0).F32(0).End();
    b.Chunk("SURF").S0("Red").S0("").Sub("COLR").Vec(1, 0, 0).VX(0).End().End();
    const std::string good = Close(b);
    // Every prefix: a scene or a clean error, never a crash (ASan/UBSan builds check the rest).
    for (size_t n = 0; n <= good.size(); ++n) {
        ReadResult r = ReadObjectBytes(good.substr(0, n));
        if (!r.scene) { EXPECT_NE(r.error, 0) << n; }
    }
    // A PNTS length far past the file is clamped to what is there.
    std::string bad = good;
    const size_t pnts = bad.find("PNTS");
    bad[pnts + 4] = '\x7F';
    ReadResult r = ReadObjectBytes(bad);
    ASSERT_TRUE(r.scene);
    EXPECT_GT(MeshOf(FindNode(*r.scene, L"Tri"))->GetPointList()->GetSize(), 3);
    // Polygons naming points past the list are dropped, counts of 0 ignored.
    IffBuilder c;
    c.Form("LWO2");
    c.Chunk("PNTS").Vec(0, 0, 0).Vec(0, 1, 0).Vec(1, 0, 0).End();
    c.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(0xFFFFFF).U16(0).U16(3).VX(0).VX(1).VX(2).U16(1023).End();
    r = ReadObjectBytes(Close(c));
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(MeshOf(FindNode(*r.scene, L"Layer 0"))->GetFaceList()->GetNumberOfFaces(), 1);
}
