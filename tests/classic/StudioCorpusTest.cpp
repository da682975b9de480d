// Real 3DS files: what each one holds, and that writing it out and reading it
// back gives the same scene.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

#include "plugin/host/Color.h"
#include "plugin/host/Material.h"

using namespace classictest;
namespace fs = std::filesystem;

namespace {

struct Expect {
    const char* file;
    std::map<std::wstring, int> meshFaces; // mesh node name -> triangles
    int materials;
    int diffuseMaps;
};

const Expect kCorpus[] = {
    {"CameraRollAnim.3ds", {{L"Box01", 12}}, 0, 0},
    {"CameraRollAnimWithChildObject.3ds", {{L"Box01", 12}, {L"Box02", 12}}, 0, 0},
    {"RotatingCube.3DS", {{L"Box01", 12}}, 0, 0},
    {"TargetCameraAnim.3ds", {{L"Box01", 12}}, 0, 0},
    {"cube_with_diffuse_texture.3DS", {{L"Quader01", 12}}, 1, 1},
    {"cube_with_specular_texture.3DS", {{L"Quader01", 12}}, 1, 0},
    {"cubes_with_alpha.3DS",
     {{L"Quader01", 12}, {L"Quader02", 12}, {L"Quader03", 12}, {L"Quader04", 12}, {L"Quader05", 12}},
     5,
     1},
    {"fels.3ds", {{L"Default", 768}}, 1, 0},
    {"test1.3ds",
     {{L"Box01", 12},
      {L"Box02", 12},
      {L"Box04", 12},
      {L"Box05", 12},
      {L"Box06", 12},
      {L"Box07", 12},
      {L"Box08", 12},
      {L"Box09", 12},
      {L"Box10", 12}},
     3,
     3},
};

std::unique_ptr<C3DScene> ReadPath(const fs::path& p, int* error = nullptr) {
    ReadResult r = ReadFileWith<C3DStudioIo>(p);
    if (error) *error = r.error;
    return std::move(r.scene);
}

bool SavePath(C3DScene& scene, const fs::path& p) {
    CFileIo io;
    CSceneExportOptions opt;
    C3DStudioIo parser(io);
    return parser.Save(WidePath(p), &scene, opt);
}

std::vector<int32_t> KeyTimes(const C3DSceneNode& n) {
    std::vector<int32_t> t;
    for (int i = 0; i < n.GetTrackCount(); ++i)
        for (int k = 0; k < n.GetTrackByIndex(i)->GetKeyNbr(); ++k)
            t.push_back(n.GetTrackByIndex(i)->GetKeyByIndex(k)->GetTime());
    return t;
}

// The second scene is what the first becomes after a write and a read.
void ExpectSameScene(const C3DScene& a, const C3DScene& b, const std::string& file) {
    std::vector<C3DSceneNode*> na = AllNodes(a), nb = AllNodes(b);
    ASSERT_EQ(na.size(), nb.size()) << file;
    EXPECT_EQ(a.GetUnit(), b.GetUnit()) << file;
    EXPECT_NEAR(a.GetScaleFactor(), b.GetScaleFactor(), 1e-4) << file;
    for (size_t i = 0; i < na.size(); ++i) {
        const C3DSceneNode& x = *na[i];
        const C3DSceneNode& y = *nb[i];
        const std::string what = file + " node " + WideToUtf8(x.GetName().view());
        EXPECT_EQ(x.GetName(), y.GetName()) << what;
        EXPECT_EQ(x.GetKindOf(), y.GetKindOf()) << what;
        EXPECT_EQ(x.GetParent() == a.GetRoot(), y.GetParent() == b.GetRoot()) << what;
        for (int32_t t : KeyTimes(x)) {
            C4x4Matrix lx, ly;
            x.GetNodeLocalTM(t, lx);
            y.GetNodeLocalTM(t, ly);
            C3DPoint tx, sx, ty, sy;
            CQuaternion qx, qy;
            lx.Decompose(tx, qx, sx);
            ly.Decompose(ty, qy, sy);
            const std::string at = what + " at " + std::to_string(t);
            EXPECT_NEAR(tx.x, ty.x, 1e-3f) << at;
            EXPECT_NEAR(tx.y, ty.y, 1e-3f) << at;
            EXPECT_NEAR(tx.z, ty.z, 1e-3f) << at;
            EXPECT_NEAR(sx.x, sy.x, 1e-4f) << at;
            EXPECT_NEAR(sx.y, sy.y, 1e-4f) << at;
            EXPECT_NEAR(sx.z, sy.z, 1e-4f) << at;
            // A time whose rotation is (nearly) none gets no rotation key, so it reads
            // back as whatever the neighbouring keys give; only real rotations must survive.
            C3DVector axis;
            float angle = 0;
            qx.ToAxisAngle(axis, angle);
            if (std::fabs(angle) > 1e-6f) { EXPECT_GT(std::fabs(qx.Dot(qy)), 0.9999f) << at; }
        }
        const C3DGeomObject* gx = x.GetGeomObject();
        const C3DGeomObject* gy = y.GetGeomObject();
        ASSERT_EQ(gx == nullptr, gy == nullptr) << what;
        if (!gx) continue;
        C4x4Matrix wx, wy;
        x.GetNodeTM(0, wx);
        y.GetNodeTM(0, wy);
        const C3DPointList& px = *gx->GetPointList();
        const C3DPointList& py = *gy->GetPointList();
        ASSERT_EQ(px.GetSize(), py.GetSize()) << what;
        for (int p = 0; p < px.GetSize(); ++p) {
            C3DPoint u = wx.TransformPoint(px[p]), v = wy.TransformPoint(py[p]);
            float tol = 1e-3f * (1.0f + std::fabs(u.x) + std::fabs(u.y) + std::fabs(u.z));
            ASSERT_NEAR(u.x, v.x, tol) << what << " point " << p;
            ASSERT_NEAR(u.y, v.y, tol) << what << " point " << p;
            ASSERT_NEAR(u.z, v.z, tol) << what << " point " << p;
        }
        const C3DFaceList& fx = *gx->GetFaceList();
        const C3DFaceList& fy = *gy->GetFaceList();
        EXPECT_EQ(fx.GetIndexes(), fy.GetIndexes()) << what;
        ASSERT_EQ(fx.GetNumberOfFaces(), fy.GetNumberOfFaces()) << what;
        for (int f = 0; f < fx.GetNumberOfFaces(); ++f) {
            const C3DMaterial* mx = a.GetMaterialByID(fx.GetMaterialID(f));
            const C3DMaterial* my = b.GetMaterialByID(fy.GetMaterialID(f));
            ASSERT_EQ(mx == nullptr, my == nullptr) << what << " face " << f;
            if (mx) { EXPECT_EQ(mx->GetName(), my->GetName()) << what << " face " << f; }
        }
        EXPECT_EQ(gx->GetGlobalUVWChannel() != nullptr, gy->GetGlobalUVWChannel() != nullptr) << what;
    }
    ASSERT_EQ(a.GetMaterialNumber(), b.GetMaterialNumber()) << file;
    CMaterialPos pa, pb;
    const C3DMaterial* ma = a.GetFirstMaterial(pa);
    const C3DMaterial* mb = b.GetFirstMaterial(pb);
    for (; ma && mb; ma = a.GetNextMaterial(pa), mb = b.GetNextMaterial(pb)) {
        EXPECT_EQ(ma->GetName(), mb->GetName()) << file;
        // Colours are written as stored and read through the 1.3 gamma again.
        EXPECT_EQ(CGammaColor::GetDegammaColor(ma->diffuse, 1.3f), mb->diffuse) << file;
        EXPECT_NEAR(ma->transparency, mb->transparency, 0.011f) << file;
        EXPECT_EQ(ma->GetMaterialMap(MAP_DIFFUSE) != nullptr, mb->GetMaterialMap(MAP_DIFFUSE) != nullptr) << file;
    }
}

} // namespace

TEST(StudioCorpus, EveryFileReadsWithItsContent) {
    SKIP_WITHOUT_CORPUS();
    for (const Expect& e : kCorpus) {
        fs::path p = testsupport::CorpusDir() / "3ds" / e.file;
        if (!fs::exists(p)) continue;
        int error = 0;
        auto scene = ReadPath(p, &error);
        ASSERT_TRUE(scene) << e.file << " error " << error;
        std::map<std::wstring, int> faces;
        for (C3DSceneNode* n : AllNodes(*scene)) {
            if (n->GetKindOf() != KINDOF_MESH) continue;
            faces[std::wstring(n->GetName().view())] = n->GetGeomObject()->GetFaceList()->GetNumberOfFaces();
            EXPECT_EQ(n->GetParent(), scene->GetRoot()) << e.file;
        }
        EXPECT_EQ(faces, e.meshFaces) << e.file;
        EXPECT_EQ(scene->GetMaterialNumber(), e.materials) << e.file;
        int maps = 0;
        CMaterialPos mp;
        for (C3DMaterial* m = scene->GetFirstMaterial(mp); m; m = scene->GetNextMaterial(mp))
            maps += m->GetMaterialMap(MAP_DIFFUSE) != nullptr;
        EXPECT_EQ(maps, e.diffuseMaps) << e.file;
    }
}

TEST(StudioCorpus, TexturedCubeHasItsMapAndCoordinates) {
    SKIP_WITHOUT_CORPUS();
    fs::path p = testsupport::CorpusDir() / "3ds" / "cube_with_diffuse_texture.3DS";
    if (!fs::exists(p)) GTEST_SKIP();
    auto scene = ReadPath(p);
    ASSERT_TRUE(scene);
    C3DSceneNode* cube = Named(*scene, L"Quader01");
    ASSERT_TRUE(cube);
    const C3DGeomObject* g = cube->GetGeomObject();
    const CUVWChannel* uv = g->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    EXPECT_EQ(uv->GetUVWPointList()->GetSize(), g->GetPointList()->GetSize());
    EXPECT_EQ(uv->GetUVWFaceList()->GetIndexes(), g->GetFaceList()->GetIndexes());
    CMaterialPos mp;
    C3DMaterial* m = scene->GetFirstMaterial(mp);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetName(), L"01 - Default");
    const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->file, L"TEST.PNG");
    EXPECT_EQ(map->channel, C3DStudioIo::kUVChannelID);
    for (int f = 0; f < g->GetFaceList()->GetNumberOfFaces(); ++f)
        EXPECT_EQ(g->GetFaceList()->GetMaterialID(f), m->GetID());
}

TEST(StudioCorpus, WriteThenReadGivesTheSameScene) {
    SKIP_WITHOUT_CORPUS();
    testsupport::TempDir tmp;
    for (const Expect& e : kCorpus) {
        fs::path p = testsupport::CorpusDir() / "3ds" / e.file;
        if (!fs::exists(p)) continue;
        auto first = ReadPath(p);
        ASSERT_TRUE(first) << e.file;
        // Saving adds keys to key-less nodes; compare against a copy taken before.
        auto reference = first->Clone();
        fs::path out = tmp / (std::string(e.file) + ".out.3ds");
        ASSERT_TRUE(SavePath(*first, out)) << e.file;
        int error = 0;
        auto second = ReadPath(out, &error);
        ASSERT_TRUE(second) << e.file << " error " << error;
        ExpectSameScene(*reference, *second, e.file);
    }
}
