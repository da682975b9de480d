#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "plugin/host/Cancel.h"
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

// A cancel set on the thread stops the preparation before its costly steps (cutting,
// merging); the caller drops what comes back.
TEST(ExportPrep, ACancelStopsTheCostlySteps) {
    std::atomic<bool> cancel{true};
    SetThreadCancelToken(&cancel);
    auto stopped = PrepareSceneForExport(*TwoQuads(), PREP_TRIANGULATE | PREP_MERGE);
    SetThreadCancelToken(nullptr);
    EXPECT_EQ(FirstMesh(*stopped)->GetFaceList()->GetNumberOfFaces(), 1); // neither cut nor merged
    auto done = PrepareSceneForExport(*TwoQuads(), PREP_TRIANGULATE | PREP_MERGE);
    EXPECT_EQ(FirstMesh(*done)->GetFaceList()->GetNumberOfFaces(), 4);
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

    // Vertex colours survive every flag word (STL and PLY write them; the others ignore them).
    auto bare = PrepareSceneForExport(*s, 0);
    EXPECT_EQ(FirstMesh(*bare)->GetChannelCount(CHANNEL_VC), 1);
    EXPECT_EQ(FirstMesh(*bare)->GetChannelCount(CHANNEL_SPEC_NORMAL), 0);
    EXPECT_EQ(bare->GetMaterialNumber(), 0);
    EXPECT_EQ(FirstMesh(*bare)->GetFaceList()->GetMaterialID(0), NO_MATERIAL);
    EXPECT_EQ(bare->GetChildCount(nullptr, KINDOF_CURVE), 0);

    auto kept =
        PrepareSceneForExport(*s, PREP_MATERIALS | PREP_KEEP_NORMALS | PREP_KEEP_VERTEX_COLORS | PREP_FACE_NORMALS);
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
    EXPECT_EQ(nf, 1 + 298); // the triangle and the 300-gon cut into triangles
    for (int f = 0; f < nf; ++f) EXPECT_EQ(g->GetFaceList()->GetFaceSize(f), 3);
    EXPECT_EQ(out->GetChildCount(nullptr, KINDOF_MESH), 1); // the empty mesh is gone
    EXPECT_EQ(out->GetChildCount(nullptr, KINDOF_CURVE), 0);
}

TEST(ExportPrep, ConcaveFacesAreCutOnTheirPlaneForEveryCuttingBit) {
    // The dart (area 0.2455, concave at its fourth corner) next to a quad, with UVs.
    C3DScene s;
    auto* o = new C3DObject();
    const float xy[5][2] = {{0, 0}, {0.5f, 0}, {0.5f, 0.7f}, {0.25f, 0.282f}, {0, 0.7f}};
    for (auto& p : xy) o->GetPointList()->Add(p[0], p[1], 0);
    uint32_t dart[5] = {0, 1, 2, 3, 4}, quad[4] = {0, 1, 2, 4};
    o->GetFaceList()->AddFace(dart, 5);
    o->GetFaceList()->AddFace(quad, 4);
    auto* uv = new CUVWChannel();
    for (auto& p : xy) uv->GetUVWPointList()->Add(p[0] * 2, p[1] * 2, 0);
    uv->GetUVWFaceList()->AddFace(dart, 5);
    uv->GetUVWFaceList()->AddFace(quad, 4);
    o->SetGlobalUVWChannel(o->AddChannel(uv));
    s.AddNode(nullptr, new C3DSceneNode(o));

    auto area = [](const C3DPointList& p, const CFaceList& f, int from, int to) {
        double a = 0;
        for (int i = from; i < to; ++i) {
            auto c = f.Face(i);
            C3DVector x = (p[int(c[1])] - p[int(c[0])]).Cross(p[int(c[2])] - p[int(c[0])]);
            a += 0.5 * x.Length();
        }
        return a;
    };
    for (uint64_t bit : {uint64_t(PREP_TRIANGULATE), uint64_t(PREP_TRIANGULATE_POLYGONS)}) {
        auto out = PrepareSceneForExport(s, bit);
        C3DGeomObject* g = FirstMesh(*out);
        const C3DFaceList& f = *g->GetFaceList();
        // Three triangles for the dart; the quad is cut only when every face must be a triangle.
        ASSERT_EQ(f.GetNumberOfFaces(), bit == PREP_TRIANGULATE ? 5 : 4);
        EXPECT_EQ(f.GetFaceSize(3), bit == PREP_TRIANGULATE ? 3 : 4);
        EXPECT_NEAR(area(*g->GetPointList(), f, 0, 3), 0.2455, 1e-6);
        // The UV faces follow corner for corner (the UVs are the points doubled).
        const CUVWChannel* u = g->GetGlobalUVWChannel();
        ASSERT_NE(u, nullptr);
        EXPECT_NEAR(area(*u->GetUVWPointList(), *u->GetUVWFaceList(), 0, 3), 4 * 0.2455, 1e-5);
        EXPECT_EQ(u->GetUVWFaceList()->GetIndexes(), f.GetIndexes());
    }
}

TEST(ExportPrep, VertexColoursSurviveTheStlFlagWord) {
    auto s = TwoQuads();
    auto* vc = new CVCChannel();
    vc->GetVCPointList()->Add(CRGBColor(200, 10, 10));
    uint32_t q[4] = {0, 0, 0, 0};
    vc->GetVCFaceList()->AddFace(q, 4);
    FirstMesh(*s)->SetGlobalVCChannel(FirstMesh(*s)->AddChannel(vc));
    // The STL writer's word: meshes, materials, triangles, merged in world space, face normals.
    auto out = PrepareSceneForExport(*s, 0x00000004000C6403ull);
    const CVCChannel* c = FirstMesh(*out)->GetGlobalVCChannel();
    ASSERT_NE(c, nullptr);
    ASSERT_EQ(c->GetVCFaceList()->GetNumberOfFaces(), 4); // two quads, two triangles each
    EXPECT_EQ(c->GetVCPointList()->Raw()[c->GetVCFaceList()->Face(0)[0]].r, 200);
}

TEST(ExportPrep, MeshesPastSixteenBitCountsAreCutIntoPiecesThatStayInPlace) {
    // A strip of 40,000 quads (80,002 points, 80,000 triangles once cut) under a moved parent.
    C3DScene s;
    auto* o = new C3DObject();
    const int quads = 40000;
    for (int i = 0; i <= quads; ++i) {
        o->GetPointList()->Add(float(i), 0, 0);
        o->GetPointList()->Add(float(i), 1, 0);
    }
    auto* uv = new CUVWChannel();
    for (int i = 0; i <= quads; ++i) {
        uv->GetUVWPointList()->Add(float(i), 0, 0);
        uv->GetUVWPointList()->Add(float(i), 1, 0);
    }
    for (int i = 0; i < quads; ++i) {
        uint32_t f[4] = {uint32_t(2 * i), uint32_t(2 * i + 2), uint32_t(2 * i + 3), uint32_t(2 * i + 1)};
        o->GetFaceList()->SetCurrentMaterial(uint32_t(i % 3));
        o->GetFaceList()->AddFace(f, 4);
        uv->GetUVWFaceList()->AddFace(f, 4);
    }
    o->SetGlobalUVWChannel(o->AddChannel(uv));
    auto* parent = new C3DSceneNode(nullptr);
    parent->SetNodeLocalTM(C4x4Matrix::Translation(0, 0, 7));
    s.AddNode(nullptr, parent);
    auto* node = new C3DSceneNode(o);
    node->SetName(L"strip");
    node->SetObjectLocalTM(C4x4Matrix::Translation(0, 5, 0));
    s.AddNode(parent, node);

    auto out = PrepareSceneForExport(s, PREP_MATERIALS | PREP_TRIANGULATE | PREP_SPLIT_16BIT);
    C3DSceneNode* first = out->FindNodeByName(CXStringW(L"strip"));
    ASSERT_NE(first, nullptr);
    std::vector<C3DSceneNode*> pieces{first};
    for (C3DSceneNode* c = first->GetChildNode(); c; c = c->GetRightNode()) pieces.push_back(c);
    ASSERT_EQ(pieces.size(), 2u);
    EXPECT_EQ(pieces[1]->GetName(), L"strip.2");
    size_t triangles = 0;
    C3DBox world;
    for (C3DSceneNode* n : pieces) {
        const C3DGeomObject* g = n->GetGeomObject();
        ASSERT_NE(g, nullptr);
        EXPECT_LE(g->GetPointList()->size(), 65535u);
        EXPECT_LE(g->GetFaceList()->GetNumberOfFaces(), 65535);
        triangles += size_t(g->GetFaceList()->GetNumberOfFaces());
        const CUVWChannel* u = g->GetGlobalUVWChannel();
        ASSERT_NE(u, nullptr);
        EXPECT_EQ(u->GetUVWFaceList()->GetNumberOfFaces(), g->GetFaceList()->GetNumberOfFaces());
        EXPECT_EQ(u->GetUVWPointList()->size(), g->GetPointList()->size());
        C4x4Matrix tm, obj;
        n->GetNodeTM(0, tm);
        n->GetObjectLocalTM(0, obj);
        for (int i = 0; i < g->GetPointList()->GetSize(); ++i) {
            C3DPoint p = (obj * tm).TransformPoint(g->GetPointList()->GetPoint(i));
            world.Add(p);
            // Each point keeps its UV (u = x, v = y before the moves).
            C3DPoint t = u->GetUVWPointList()->GetPoint(i);
            ASSERT_EQ(t.x, p.x);
            ASSERT_EQ(t.y + 5, p.y);
        }
        // Materials follow their faces: quad i (its points at x = i and i + 1) has material i % 3.
        for (int f = 0; f < g->GetFaceList()->GetNumberOfFaces(); f += 997) {
            float x = 1e9f;
            for (uint32_t i : g->GetFaceList()->Face(f)) x = std::min(x, g->GetPointList()->GetPoint(int(i)).x);
            ASSERT_EQ(g->GetFaceList()->GetMaterialID(f), uint32_t(x) % 3) << f;
        }
    }
    EXPECT_EQ(triangles, 80000u);
    EXPECT_FLOAT_EQ(world.min.x, 0);
    EXPECT_FLOAT_EQ(world.max.x, float(quads));
    EXPECT_FLOAT_EQ(world.min.y, 5);
    EXPECT_FLOAT_EQ(world.max.y, 6);
    EXPECT_FLOAT_EQ(world.min.z, 7);
    EXPECT_FLOAT_EQ(world.max.z, 7);
}

TEST(ExportPrep, DeepChainsAreBakedInLinearTime) {
    // 20,000 nodes each below the last, each one unit along x: world transforms are built
    // from the parent's, not by walking every ancestor of every node.
    C3DScene s;
    const int depth = 20000;
    C3DSceneNode* parent = nullptr;
    for (int i = 0; i < depth; ++i) {
        auto* o = new C3DObject();
        o->GetPointList()->Add(0, 0, 0);
        o->GetPointList()->Add(0, 1, 0);
        o->GetPointList()->Add(0, 0, 1);
        o->GetFaceList()->AddTriangle(0, 1, 2);
        auto* n = new C3DSceneNode(o);
        n->SetNodeLocalTM(C4x4Matrix::Translation(1, 0, 0));
        s.AddNode(parent, n);
        parent = n;
    }
    auto out = PrepareSceneForExport(s, PREP_WORLD_SPACE); // walking every ancestor took minutes
    C3DBaseObject* o;
    C3DNodePos p = out->GetFirstNode(KINDOF_MESH);
    C3DSceneNode* last = nullptr;
    while (C3DSceneNode* n = out->GetNextNode(o, p)) last = n;
    ASSERT_NE(last, nullptr);
    EXPECT_FLOAT_EQ(last->GetGeomObject()->GetPointList()->GetPoint(0).x, float(depth));
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
