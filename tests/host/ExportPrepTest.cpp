#include <gtest/gtest.h>

#include "plugin/host/ExportPrep.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"

namespace {
// Two quads side by side, with a UV channel, under a translated parent.
C3DObject* Quad(float x0, uint32_t material) {
    auto* o = new C3DObject();
    C3DPointList& p = *o->GetPointList();
    p.Add(x0, 0, 0);
    p.Add(x0 + 1, 0, 0);
    p.Add(x0 + 1, 1, 0);
    p.Add(x0, 1, 0);
    o->GetFaceList()->SetCurrentMaterial(material);
    uint32_t q[4] = {0, 1, 2, 3};
    o->GetFaceList()->AddFace(q, 4);
    auto* uv = new CUVWChannel();
    for (int i = 0; i < 4; ++i) uv->GetUVWPointList()->Add(float(i), 0, 0);
    uv->GetUVWFaceList()->AddFace(q, 4);
    o->SetGlobalUVWChannel(o->AddChannel(uv));
    return o;
}

std::unique_ptr<C3DScene> TwoQuads() {
    auto s = std::make_unique<C3DScene>();
    s->CreateNewMaterial();
    auto* parent = new C3DSceneNode(Quad(0, 0));
    parent->SetName(L"first");
    parent->SetNodeLocalTM(C4x4Matrix::Translation(0, 0, 5));
    s->AddNode(nullptr, parent);
    auto* child = new C3DSceneNode(Quad(10, NO_MATERIAL));
    child->SetName(L"second");
    s->AddNode(parent, child);
    s->AddNode(nullptr, new C3DSceneNode(new C3DCamera()));
    return s;
}

C3DGeomObject* FirstMesh(const C3DScene& s) {
    C3DBaseObject* o;
    C3DNodePos p = s.GetFirstNode(KINDOF_MESH);
    C3DSceneNode* n = s.GetNextNode(o, p);
    return n ? n->GetGeomObject() : nullptr;
}
} // namespace

TEST(ExportPrep, LeavesTheSourceSceneUntouched) {
    auto s = TwoQuads();
    auto out = PrepareSceneForExport(*s, PREP_TRIANGULATE | PREP_MERGE | PREP_FACE_NORMALS);
    EXPECT_EQ(FirstMesh(*s)->GetFaceList()->GetNumberOfFaces(), 1);
    EXPECT_EQ(FirstMesh(*s)->GetChannelCount(CHANNEL_FACE_NORMAL), 0);
    EXPECT_NE(FirstMesh(*out), FirstMesh(*s));
}

TEST(ExportPrep, TriangulateSplitsChannelsAlike) {
    auto out = PrepareSceneForExport(*TwoQuads(), PREP_MATERIALS | PREP_TRIANGULATE);
    C3DGeomObject* g = FirstMesh(*out);
    ASSERT_EQ(g->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(g->GetFaceList()->GetMaterialID(1), 0u);
    auto* uv = g->GetGlobalUVWChannel();
    ASSERT_NE(uv, nullptr);
    ASSERT_EQ(uv->GetUVWFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(std::vector<uint32_t>(uv->GetUVWFaceList()->Face(1).begin(), uv->GetUVWFaceList()->Face(1).end()),
              (std::vector<uint32_t>{0, 2, 3}));
}

TEST(ExportPrep, MergeBakesWorldSpaceIntoOneFirstMesh) {
    auto out = PrepareSceneForExport(*TwoQuads(), PREP_MATERIALS | PREP_MERGE);
    EXPECT_EQ(out->GetChildCount(nullptr, KINDOF_MESH), 1);
    C3DGeomObject* g = FirstMesh(*out);
    ASSERT_EQ(g->GetPointList()->GetSize(), 8);
    ASSERT_EQ(g->GetFaceList()->GetNumberOfFaces(), 2);
    // Both quads moved by the parent's translation (the child inherits it).
    EXPECT_FLOAT_EQ(g->GetPointList()->GetPoint(0).z, 5);
    EXPECT_FLOAT_EQ(g->GetPointList()->GetPoint(4).z, 5);
    EXPECT_FLOAT_EQ(g->GetPointList()->GetPoint(4).x, 10);
    EXPECT_EQ(std::vector<uint32_t>(g->GetFaceList()->Face(1).begin(), g->GetFaceList()->Face(1).end()),
              (std::vector<uint32_t>{4, 5, 6, 7}));
    EXPECT_EQ(g->GetFaceList()->GetMaterialID(0), 0u);
    EXPECT_EQ(g->GetFaceList()->GetMaterialID(1), NO_MATERIAL);
    ASSERT_NE(g->GetGlobalUVWChannel(), nullptr);
    EXPECT_EQ(g->GetGlobalUVWChannel()->GetUVWPointList()->GetSize(), 8);
    // The merged mesh is the first node of the tree.
    EXPECT_EQ(out->GetRoot()->GetChildNode()->GetGeomObject(), g);
}

TEST(ExportPrep, WorldSpaceKeepsNodesAndResetsTheirMatrices) {
    auto out = PrepareSceneForExport(*TwoQuads(), PREP_WORLD_SPACE);
    EXPECT_EQ(out->GetChildCount(nullptr, KINDOF_MESH), 2);
    C3DBaseObject* o;
    C3DNodePos p = out->GetFirstNode(KINDOF_MESH);
    out->GetNextNode(o, p);
    C3DSceneNode* second = out->GetNextNode(o, p);
    EXPECT_FLOAT_EQ(second->GetGeomObject()->GetPointList()->GetPoint(0).z, 5);
    C4x4Matrix tm;
    second->GetNodeTM(0, tm);
    EXPECT_TRUE(tm.IsIdentity());
}

TEST(ExportPrep, ChannelAndMaterialBitsAndFaceNormals) {
    auto s = TwoQuads();
    auto* vc = new CVCChannel();
    vc->GetVCPointList()->Add(CRGBColor());
    uint32_t q[4] = {0, 0, 0, 0};
    vc->GetVCFaceList()->AddFace(q, 4);
    FirstMesh(*s)->AddChannel(vc);
    FirstMesh(*s)->GenerateNormals(30);

    auto bare = PrepareSceneForExport(*s, 0);
    EXPECT_EQ(FirstMesh(*bare)->GetChannelCount(CHANNEL_VC), 0);
    EXPECT_EQ(FirstMesh(*bare)->GetChannelCount(CHANNEL_SPEC_NORMAL), 0);
    EXPECT_EQ(bare->GetMaterialNumber(), 0);
    EXPECT_EQ(FirstMesh(*bare)->GetFaceList()->GetMaterialID(0), NO_MATERIAL);
    EXPECT_EQ(bare->GetChildCount(nullptr, KINDOF_CURVE), 0);

    auto kept = PrepareSceneForExport(*s, PREP_MATERIALS | PREP_KEEP_NORMALS | PREP_KEEP_VERTEX_COLORS | PREP_FACE_NORMALS);
    EXPECT_EQ(FirstMesh(*kept)->GetChannelCount(CHANNEL_VC), 1);
    EXPECT_EQ(FirstMesh(*kept)->GetChannelCount(CHANNEL_SPEC_NORMAL), 1);
    EXPECT_EQ(kept->GetMaterialNumber(), 1);
    CFaceNormalChannel* fn = FirstMesh(*kept)->GetFaceNormalChannel();
    ASSERT_NE(fn, nullptr);
    EXPECT_NEAR(fn->GetNormalVectorList()->GetPoint(0).z, 1.0f, 1e-6f);
}

TEST(ExportPrep, DamagedMeshesAreMadeSafeForWriters) {
    C3DScene s;
    auto* o = new C3DObject();
    o->GetPointList()->Add(0, 0, 0);
    o->GetPointList()->Add(1, 0, 0);
    o->GetPointList()->Add(0, 1, 0);
    o->GetFaceList()->AddTriangle(0, 1, 2);
    o->GetFaceList()->AddTriangle(0, 1, 9); // beyond the points
    auto* uv = new CUVWChannel();
    uv->GetUVWFaceList()->AddTriangle(0, 0, 0); // one face for two, no points
    o->AddChannel(uv);
    s.AddNode(nullptr, new C3DSceneNode(o));
    auto* empty = new C3DObject();
    s.AddNode(nullptr, new C3DSceneNode(empty));
    uint32_t big[300];
    for (uint32_t i = 0; i < 300; ++i) big[i] = i % 3;
    o->GetFaceList()->AddFace(big, 300);
    // Without the curves bit a curve node loses its object rather than reaching a mesh writer.
    auto* curve = new C3DCurve();
    curve->GetPointList()->Add(0, 0, 0);
    s.AddNode(nullptr, new C3DSceneNode(curve));

    auto out = PrepareSceneForExport(s, PREP_DROP_EMPTY | PREP_SPLIT_LARGE);
    C3DGeomObject* g = FirstMesh(*out);
    EXPECT_EQ(g->GetChannelCount(CHANNEL_UVW), 0);
    int nf = g->GetFaceList()->GetNumberOfFaces();
    EXPECT_EQ(nf, 3); // the triangle and the 300-gon split into two fans of at most 255
    for (int f = 0; f < nf; ++f) EXPECT_LE(g->GetFaceList()->GetFaceSize(f), 255);
    EXPECT_EQ(g->GetFaceList()->GetFaceSize(1) + g->GetFaceList()->GetFaceSize(2), 300 + 2);
    EXPECT_EQ(out->GetChildCount(nullptr, KINDOF_MESH), 1); // the empty mesh is gone
    EXPECT_EQ(out->GetChildCount(nullptr, KINDOF_CURVE), 0);
}

TEST(ExportPrep, SplitCurvesGivesEachLineItsOwnNodeInLineOrder) {
    C3DScene scene;
    auto* c = new C3DCurve();
    for (int i = 0; i < 5; ++i) c->GetPointList()->Add(float(i), 0, 0);
    const uint32_t a[] = {3, 1}, b[] = {0, 4, 2};
    c->GetFaceList()->SetCurrentMaterial(7);
    c->GetFaceList()->AddFace(a, 2);
    c->GetFaceList()->AddFace(b, 3);
    c->SetClosed(true);
    auto* n = new C3DSceneNode(c);
    n->SetName(CXStringW(L"C"));
    n->SetNodeLocalTM(C4x4Matrix::Translation(0, 5, 0));
    scene.AddNode(nullptr, n);
    auto out = PrepareSceneForExport(scene, PREP_CURVES | PREP_SPLIT_CURVES | PREP_MATERIALS);
    std::vector<C3DSceneNode*> curves;
    C3DNodePos pos = out->GetFirstNode(KINDOF_CURVE);
    while (C3DSceneNode* m = out->GetNextNode(pos)) curves.push_back(m);
    ASSERT_EQ(curves.size(), 2u);
    // Points follow the line; a closed curve repeats its first point; names, placement and materials stay.
    const C3DPointList& p0 = *curves[0]->GetGeomObject()->GetPointList();
    ASSERT_EQ(p0.GetSize(), 3);
    EXPECT_EQ(p0.GetPoint(0).x, 3);
    EXPECT_EQ(p0.GetPoint(1).x, 1);
    EXPECT_EQ(p0.GetPoint(2).x, 3);
    EXPECT_EQ(curves[1]->GetGeomObject()->GetPointList()->GetSize(), 4);
    EXPECT_EQ(curves[1]->GetGeomObject()->GetPointList()->GetPoint(1).x, 4);
    EXPECT_EQ(curves[1]->GetName(), CXStringW(L"C"));
    EXPECT_EQ(curves[1]->GetStaticLocalTM().GetTranslation().y, 5);
    EXPECT_EQ(curves[1]->GetGeomObject()->GetFaceList()->GetMaterialID(0), 7u);
    EXPECT_FALSE(curves[0]->GetBaseObject()->IsFlagSet(OBJF_CLOSED));
}
