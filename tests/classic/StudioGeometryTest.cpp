// 3DS writes of scenes the format cannot hold as they are: meshes past its 16-bit counts,
// faces of more than three corners, and deep node chains.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

#include "plugin/host/ExportPrep.h"

using namespace classictest;
namespace fs = std::filesystem;

namespace {
// Prepares the scene as the 3DS writer asks, writes it and reads the file back.
std::unique_ptr<C3DScene> WriteAndReadBack(const C3DScene& scene, const fs::path& file) {
    CFileIo io;
    CSceneExportOptions opt;
    C3DStudioIo writer(io);
    writer.SaveDefaultOptions(opt);
    auto prepared = PrepareSceneForExport(scene, opt.prepFlags, &opt);
    EXPECT_TRUE(writer.Save(WidePath(file), prepared.get(), opt));
    ReadResult back = ReadFileWith<C3DStudioIo>(file);
    EXPECT_TRUE(back.scene) << "read error " << back.error;
    return std::move(back.scene);
}

struct Totals {
    size_t meshes = 0, triangles = 0;
    double area = 0;
    C3DBox box;
};
// Triangles, area and box of every mesh in world space.
Totals Measure(const C3DScene& s) {
    Totals t;
    for (C3DSceneNode* n : AllNodes(s)) {
        const C3DGeomObject* g = n->GetGeomObject();
        if (!g || n->GetKindOf() != KINDOF_MESH) continue;
        ++t.meshes;
        C4x4Matrix tm, obj;
        n->GetNodeTM(0, tm);
        n->GetObjectLocalTM(0, obj);
        const C4x4Matrix m = obj * tm;
        const C3DFaceList& f = *g->GetFaceList();
        for (int i = 0; i < f.GetNumberOfFaces(); ++i) {
            auto c = f.Face(i);
            if (c.size() != 3) {
                t.triangles = 0;
                return t;
            }
            C3DPoint a = m.TransformPoint(g->GetPointList()->GetPoint(int(c[0])));
            C3DPoint b = m.TransformPoint(g->GetPointList()->GetPoint(int(c[1])));
            C3DPoint d = m.TransformPoint(g->GetPointList()->GetPoint(int(c[2])));
            t.area += 0.5 * (b - a).Cross(d - a).Length();
            t.box.Add(a);
            t.box.Add(b);
            t.box.Add(d);
            ++t.triangles;
        }
    }
    return t;
}
} // namespace

TEST(StudioGeometry, MeshesPastTheCountsAreWrittenInPiecesAndReadBackWhole) {
    // A 182 x 182 grid of quads: 33,489 points and 66,248 triangles, just over the limit, on a
    // node moved and turned by keys (the pieces must follow it).
    C3DScene s;
    auto* o = new C3DObject();
    const int n = 182;
    for (int y = 0; y <= n; ++y)
        for (int x = 0; x <= n; ++x) o->GetPointList()->Add(float(x), float(y), 0.25f * float((x + y) % 2));
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            uint32_t a = uint32_t(y * (n + 1) + x);
            uint32_t q[4] = {a, a + 1, a + uint32_t(n) + 2, a + uint32_t(n) + 1};
            o->GetFaceList()->AddFace(q, 4);
        }
    auto* node = new C3DSceneNode(o);
    node->SetName(L"Terrain");
    auto tr = std::make_unique<C3DTranslateKey>(0);
    tr->value = {10, 20, 30};
    node->AddKey(std::move(tr));
    auto rot = std::make_unique<C3DRotateKey>(0);
    rot->SetRotation(0.5f, {0, 0, 1});
    node->AddKey(std::move(rot));
    s.AddNode(nullptr, node);
    const Totals before = Measure(*PrepareSceneForExport(s, PREP_TRIANGULATE));
    ASSERT_EQ(before.triangles, size_t(2 * n * n));

    testsupport::TempDir tmp;
    auto back = WriteAndReadBack(s, tmp / "grid.3ds");
    ASSERT_TRUE(back);
    const Totals after = Measure(*back);
    EXPECT_EQ(after.meshes, 2u);
    EXPECT_EQ(after.triangles, before.triangles);
    EXPECT_NEAR(after.area, before.area, 1e-3 * before.area);
    EXPECT_NEAR(after.box.min.x, before.box.min.x, 1e-3);
    EXPECT_NEAR(after.box.max.x, before.box.max.x, 1e-3);
    EXPECT_NEAR(after.box.min.y, before.box.min.y, 1e-3);
    EXPECT_NEAR(after.box.max.y, before.box.max.y, 1e-3);
    EXPECT_NEAR(after.box.max.z, before.box.max.z, 1e-3);
    EXPECT_TRUE(Named(*back, L"Terrain"));
    EXPECT_TRUE(Named(*back, L"Terrain.2"));
}

TEST(StudioGeometry, PolygonsReachTheFileAsTrianglesWithAllTheirArea) {
    // The concave dart (area 0.2455) and a hexagon: the writer alone would keep the first
    // triangle of each.
    C3DScene s;
    auto* o = new C3DObject();
    const float xy[5][2] = {{0, 0}, {0.5f, 0}, {0.5f, 0.7f}, {0.25f, 0.282f}, {0, 0.7f}};
    for (auto& p : xy) o->GetPointList()->Add(p[0], 0, p[1]);
    uint32_t dart[5] = {0, 1, 2, 3, 4};
    o->GetFaceList()->AddFace(dart, 5);
    uint32_t hex[6];
    for (int i = 0; i < 6; ++i)
        hex[i] = uint32_t(o->GetPointList()->Add(3 + std::cos(i * 1.0471975f), 0, std::sin(i * 1.0471975f)));
    o->GetFaceList()->AddFace(hex, 6);
    auto* node = new C3DSceneNode(o);
    node->SetName(L"Shapes");
    s.AddNode(nullptr, node);

    testsupport::TempDir tmp;
    auto back = WriteAndReadBack(s, tmp / "shapes.3ds");
    ASSERT_TRUE(back);
    const Totals t = Measure(*back);
    EXPECT_EQ(t.triangles, 3u + 4u);
    EXPECT_NEAR(t.area, 0.2455 + 1.5 * std::sqrt(3.0), 1e-5);
}

TEST(StudioGeometry, DeepChainsWriteInLinearTime) {
    // 20,000 nodes each one below the last, each moved one unit along x and holding a
    // triangle: the node transforms are taken once per write, not once per ancestor.
    C3DScene s;
    const int depth = 20000;
    C3DSceneNode* parent = nullptr;
    for (int i = 0; i < depth; ++i) {
        auto* o = new C3DObject();
        o->GetPointList()->Add(0, 0, 0);
        o->GetPointList()->Add(1, 0, 0);
        o->GetPointList()->Add(0, 1, 0);
        o->GetFaceList()->AddTriangle(0, 1, 2);
        auto* node = new C3DSceneNode(o);
        node->SetName(CXStringW(L"n") + CXStringW(std::to_wstring(i)));
        node->SetNodeLocalTM(C4x4Matrix::Translation(1, 0, 0));
        s.AddNode(parent, node);
        parent = node;
    }
    testsupport::TempDir tmp;
    // Quadratic, this write took over a minute (the benchmark measures it; ctest's time-out would catch it).
    auto back = WriteAndReadBack(s, tmp / "chain.3ds");
    ASSERT_TRUE(back);
    // Every triangle is back, and the deepest lands 20,000 units out.
    size_t triangles = 0;
    for (C3DSceneNode* n : AllNodes(*back))
        if (const C3DGeomObject* g = n->GetGeomObject()) triangles += size_t(g->GetFaceList()->GetNumberOfFaces());
    EXPECT_EQ(triangles, size_t(depth));
    C3DSceneNode* last = Named(*back, L"n19999");
    ASSERT_TRUE(last);
    C4x4Matrix tm;
    last->GetNodeTM(0, tm);
    EXPECT_NEAR(tm.TransformPoint(last->GetGeomObject()->GetPointList()->GetPoint(1)).x, float(depth + 1), 1e-2);
}
