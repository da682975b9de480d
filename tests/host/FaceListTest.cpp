#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "plugin/host/Object.h"
#include "plugin/host/Primitives.h"
#include "plugin/host/SceneNode.h"

TEST(FaceList, FlatStorageAndSkippedFaceCounts) {
    C3DFaceList fl;
    fl.SetCurrentMaterial(3);
    fl.AddTriangle(0, 1, 2);
    uint32_t quad[4] = {0, 1, 2, 3};
    fl.AddFace(quad, 4, FACE_SKIP);
    fl.SetCurrentMaterial(NO_MATERIAL);
    fl.AddFace(5)[4] = 9;
    EXPECT_EQ(fl.GetNumberOfFaces(), 3);
    EXPECT_EQ(fl.GetNumberOfIndices(), 12u);
    EXPECT_EQ(fl.GetFaceSize(1), 4);
    EXPECT_EQ(fl.GetFaceIndices(2)[4], 9u);
    EXPECT_EQ(fl.GetMaterialID(0), 3u);
    EXPECT_EQ(fl.GetMaterialID(2), NO_MATERIAL);
    // The writers' count: faces whose bit 0 is clear.
    EXPECT_EQ(fl.GetNumberOfFaces(FACE_SKIP, false), 2);
    EXPECT_EQ(fl.GetNumberOfFaces(FACE_SKIP, true), 1);
    fl.SetFacesFlags(FACE_SKIP, false);
    EXPECT_EQ(fl.GetNumberOfFaces(FACE_SKIP, false), 3);

    C3DFace f;
    fl.GetFace(1, f);
    EXPECT_EQ(f.GetSize(), 4);
    EXPECT_EQ(f.GetMaterialID(), 3u);
    C3DFaceList other;
    other.CopyFace(fl, 0);
    EXPECT_EQ(other.GetMaterialID(0), 3u);
    EXPECT_EQ(std::vector<uint32_t>(other.Face(0).begin(), other.Face(0).end()), (std::vector<uint32_t>{0, 1, 2}));
}

TEST(FaceList, SetSizeModesCompactAndWinding) {
    C3DFaceList fl;
    fl.SetSize(4, 3, SETSIZE_UNIFORM, 7);
    EXPECT_EQ(fl.GetNumberOfFaces(), 4);
    EXPECT_EQ(fl.GetNumberOfIndices(), 12u);
    EXPECT_EQ(fl.GetMaterialID(3), 7u);
    for (int i = 0; i < 4; ++i) fl.GetFaceIndices(i)[0] = static_cast<uint32_t>(i);
    fl.SetSize(2, 0, SETSIZE_TRUNCATE);
    EXPECT_EQ(fl.GetNumberOfFaces(), 2);
    EXPECT_EQ(fl.GetMaterialIDs().size(), 2u);
    fl.SetSize(100, 3, SETSIZE_RESERVE);
    EXPECT_EQ(fl.GetNumberOfFaces(), 2); // reserving adds nothing

    fl.RemoveAll();
    uint32_t a[3] = {0, 1, 2}, b[4] = {3, 4, 5, 6};
    fl.AddFace(a, 3);
    fl.AddFace(b, 4);
    fl.AddFace(a, 3);
    fl.SetMaterialID(2, 5);
    fl.Compact({true, false, true});
    ASSERT_EQ(fl.GetNumberOfFaces(), 2);
    EXPECT_EQ(fl.GetMaterialID(1), 5u);
    EXPECT_EQ(fl.GetFaceSize(1), 3);
    fl.InvertFaceWinding();
    EXPECT_EQ(std::vector<uint32_t>(fl.Face(0).begin(), fl.Face(0).end()), (std::vector<uint32_t>{2, 1, 0}));
}

TEST(FaceList, EdgeGraphListsDistinctEdgesAndTheirFaces) {
    C3DFaceList fl;
    uint32_t q[4] = {0, 1, 2, 3};
    fl.AddFace(q, 4);
    fl.AddTriangle(2, 1, 4); // shares edge (1,2) with the quad
    fl.InitEdgeToFaceGraph();
    const CEdgeGraph* g = fl.GetEdgeGraph();
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->edges.size(), 6u);
    std::set<std::pair<uint32_t, uint32_t>> edges(g->edges.begin(), g->edges.end());
    EXPECT_EQ(edges.size(), 6u);
    for (auto& e : g->edges) EXPECT_LT(e.first, e.second);
    // Corner 1 of the quad (1 -> 2) and corner 0 of the triangle (2 -> 1) are the same edge.
    EXPECT_EQ(g->cornerEdge[1], g->cornerEdge[4]);
    uint32_t shared = g->cornerEdge[1];
    EXPECT_EQ(g->edgeFaceOffsets[shared + 1] - g->edgeFaceOffsets[shared], 2u);
    // The closing edge of the quad runs 3 -> 0 and is stored as (0, 3).
    EXPECT_EQ(g->edges[g->cornerEdge[3]], std::make_pair(0u, 3u));
    fl.DeleteEdgeToFaceGraph();
    EXPECT_EQ(fl.GetEdgeGraph(), nullptr);
}

TEST(Normals, SmoothingAngleSplitsHardEdges) {
    // A cube with shared corners: below 90 degrees every corner splits into three normals.
    auto* obj = new C3DObject();
    C3DPointList& p = *obj->GetPointList();
    for (int i = 0; i < 8; ++i) p.Add(float(i & 1), float((i >> 1) & 1), float((i >> 2) & 1));
    const uint32_t quads[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (auto& q : quads) obj->GetFaceList()->AddFace(q, 4);
    C3DSceneNode holder(obj);
    CSpecNormalChannel* hard = obj->GenerateNormals(45.0f);
    EXPECT_EQ(hard->GetNormalVectorList()->GetSize(), 24);
    for (int i = 0; i < 24; ++i) EXPECT_NEAR(hard->GetNormalVectorList()->GetPoint(i).Length(), 1.0f, 1e-5f);
    CSpecNormalChannel* soft = obj->GenerateNormals(100.0f);
    EXPECT_EQ(soft, hard); // regenerated in place
    EXPECT_EQ(soft->GetNormalVectorList()->GetSize(), 8);
    C3DVector n0 =
        soft->GetNormalVectorList()->GetPoint(static_cast<int>(soft->GetNormalFaceList()->GetFaceIndices(0)[0]));
    EXPECT_NEAR(std::fabs(n0.x), 1 / std::sqrt(3.0f), 1e-5f);
    EXPECT_EQ(soft->GetNormalFaceList()->GetNumberOfFaces(), 6);

    CFaceNormalChannel* fn = obj->ComputeFaceNormals();
    EXPECT_EQ(fn->GetNormalVectorList()->GetSize(), 6);
    C3DVector top = fn->GetNormalVectorList()->GetPoint(1); // face 4 5 7 6 at z = 1
    EXPECT_NEAR(std::fabs(top.z), 1.0f, 1e-6f);
}

TEST(Channels, ConnectionInfoAndOneUVPerVertex) {
    C3DObject obj;
    obj.GetPointList()->Add(0, 0, 0);
    obj.GetPointList()->Add(1, 0, 0);
    obj.GetPointList()->Add(0, 1, 0);
    obj.GetPointList()->Add(7, 7, 7); // no face uses it
    obj.GetFaceList()->AddTriangle(0, 1, 2);
    obj.GetFaceList()->AddTriangle(0, 2, 1);
    auto* vc = new CVCChannel();
    vc->GetVCPointList()->Add(CRGBColor(255, 0, 0));
    vc->GetVCPointList()->Add(CRGBColor(0, 255, 0));
    vc->GetVCPointList()->Add(CRGBColor(0, 0, 255));
    vc->GetVCFaceList()->AddTriangle(0, 1, 2);
    vc->GetVCFaceList()->AddTriangle(2, 2, 1);
    int32_t id = obj.AddChannel(vc);
    obj.SetGlobalVCChannel(id);
    EXPECT_EQ(obj.GetFirstChannelIDByType(CHANNEL_VC), id);
    EXPECT_EQ(obj.GetGlobalVCChannel(), vc);
    ASSERT_TRUE(obj.InitGraph(id));
    auto c0 = obj.GetChannelConnectionInfo(0);
    EXPECT_EQ(std::vector<uint32_t>(c0.begin(), c0.end()), (std::vector<uint32_t>{0, 2}));
    auto c1 = obj.GetChannelConnectionInfo(1);
    EXPECT_EQ(std::vector<uint32_t>(c1.begin(), c1.end()), (std::vector<uint32_t>{1}));
    EXPECT_TRUE(obj.GetChannelConnectionInfo(3).empty());
    EXPECT_TRUE(obj.GetChannelConnectionInfo(99).empty());

    CUVWChannel uv;
    uv.GetUVWPointList()->Add(0.5f, 0.5f, 0);
    uv.GetUVWPointList()->Add(0.1f, 0.1f, 0);
    uv.GetUVWFaceList()->AddTriangle(1, 0, 0);
    uv.GetUVWFaceList()->AddTriangle(0, 0, 0);
    auto per = uv.GetOneUVPerVertex(*obj.GetFaceList(), 4);
    EXPECT_EQ(per, (std::vector<int32_t>{1, 0, 0, -1}));

    EXPECT_TRUE(obj.RemoveChannel(id));
    EXPECT_EQ(obj.GetGlobalVCChannel(), nullptr);
    EXPECT_FALSE(obj.InitGraph(id));
}

TEST(Primitives, ClosedOutwardMeshesOfTheRequestedSize) {
    struct Case {
        C3DSceneNode* node;
        float halfHeight;
    } cases[] = {
        {CreateCube({0, 0, 0}, 2, 4, 6, false, 3, -1), 2},
        {CreateSphere({0, 0, 0}, 1.5, 16, 16, false, 3, -1), 1.5f},
        {CreateCone({0, 0, 0}, 1, 2, 0, 16, 1, false, 3, -1), 1},
        {CreateCylinder({0, 0, 0}, 1, 3, 0, 16, 1, true, true, 3, -1), 1.5f},
    };
    for (auto& c : cases) {
        std::unique_ptr<C3DSceneNode> owner(c.node);
        C3DGeomObject* g = c.node->GetGeomObject();
        ASSERT_NE(g, nullptr);
        C3DBox b = g->GetBoundingBox();
        EXPECT_NEAR(b.max.y, c.halfHeight, 1e-5f);
        EXPECT_NEAR(b.min.y, -c.halfHeight, 1e-5f);
        EXPECT_EQ(g->GetFaceList()->GetMaterialID(0), 3u);
        // Every face normal points away from the centre (the shapes are convex).
        const int nf = g->GetFaceList()->GetNumberOfFaces();
        for (int f = 0; f < nf; ++f) {
            auto face = g->GetFaceList()->Face(f);
            C3DVector n = FaceNormal(*g->GetPointList(), face);
            C3DPoint centroid;
            for (uint32_t i : face) centroid += g->GetPointList()->GetPoint(static_cast<int>(i));
            centroid = centroid * (1.0f / face.size());
            EXPECT_GT(n.Dot(centroid), 0.0f) << "face " << f;
        }
    }
    std::unique_ptr<C3DSceneNode> withUV(CreateCylinder({0, 0, 0}, 1, 1, 0, 8, 2, true, true, NO_MATERIAL, -1));
    C3DGeomObject* g = withUV->GetGeomObject();
    ASSERT_NE(g->GetGlobalUVWChannel(), nullptr);
    EXPECT_EQ(g->GetGlobalUVWChannel()->GetUVWFaceList()->GetNumberOfFaces(), g->GetFaceList()->GetNumberOfFaces());
    // Axis mode 1 stands the cylinder along Z.
    std::unique_ptr<C3DSceneNode> zUp(CreateCylinder({0, 0, 0}, 1, 4, 1, 8, 1, false, false, NO_MATERIAL, -1));
    EXPECT_NEAR(zUp->GetGeomObject()->GetBoundingBox().max.z, 2.0f, 1e-5f);
}

// Readers hand whole arrays over; anything inconsistent must be refused untouched,
// since a face list that lies about its sizes is read out of range by every writer.
TEST(FaceList, AdoptTakesConsistentArraysOnly) {
    C3DFaceList fl;
    fl.AddTriangle(7, 8, 9);
    using Index = CFaceList::IndexArray;
    using Flags = CFaceList::FlagArray;
    struct Bad {
        Index offsets, indices;
        Flags flags;
        Index mats;
    } bad[] = {
        {{}, {}, {}, {}},                    // no leading zero
        {{1, 3}, {0, 1, 2}, {0}, {5}},       // does not start at 0
        {{0, 3}, {0, 1}, {0}, {5}},          // last offset past the indices
        {{0, 2, 1}, {0, 1}, {0, 0}, {5, 5}}, // decreasing
        {{0, 3}, {0, 1, 2}, {}, {5}},        // flags missing
        {{0, 3}, {0, 1, 2}, {0}, {}},        // materials missing
    };
    for (auto& b : bad) {
        EXPECT_FALSE(fl.Adopt(std::move(b.offsets), std::move(b.indices), std::move(b.flags), std::move(b.mats)));
        ASSERT_EQ(fl.GetNumberOfFaces(), 1);
        EXPECT_EQ(fl.Face(0)[0], 7u);
    }
    // A single step down anywhere in a longer list (the check runs in blocks of four).
    for (size_t at = 2; at + 1 < 40; ++at) {
        Index offsets(40);
        for (size_t i = 0; i < offsets.size(); ++i) offsets[i] = static_cast<uint32_t>(2 * i);
        offsets[at] = offsets[at - 1] - 1;
        EXPECT_FALSE(fl.Adopt(std::move(offsets), Index(78), Flags(39), Index(39))) << at;
    }
    ASSERT_EQ(fl.GetNumberOfFaces(), 1);
    Index steady(40);
    for (size_t i = 0; i < steady.size(); ++i) steady[i] = static_cast<uint32_t>(i / 3 * 3); // empty faces too
    EXPECT_TRUE(fl.Adopt(std::move(steady), Index(39), Flags(39), Index(39)));
    EXPECT_TRUE(fl.Adopt({0, 3, 3, 7}, {0, 1, 2, 3, 4, 5, 6}, {0, FACE_SKIP, 0}, {1, 2, 3}));
    ASSERT_EQ(fl.GetNumberOfFaces(), 3);
    EXPECT_EQ(fl.GetFaceSize(1), 0);
    EXPECT_EQ(fl.GetFaceSize(2), 4);
    EXPECT_EQ(fl.GetMaterialID(2), 3u);
    EXPECT_EQ(fl.GetNumberOfFaces(FACE_SKIP, false), 2);
}
