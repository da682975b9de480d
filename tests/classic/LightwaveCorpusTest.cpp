// Real Lightwave objects: every one reads; three are checked against counts taken by hand
// from their chunks (PNTS lengths, POLS records, LAYR parents, SURF names).
#include <gtest/gtest.h>

#include <string>

#include "tests/classic/LightwaveTestSupport.h"
#include "tests/support/TestSupport.h"

#include "plugin/host/Channel.h"
#include "plugin/host/Material.h"

using namespace lwtest;
namespace fs = std::filesystem;

namespace {

ReadResult ReadCorpus(const fs::path& p) {
    const std::string bytes = testsupport::ReadFile(p);
    return ReadObjectBytes(bytes, p.parent_path().wstring());
}

struct Totals {
    int meshes = 0, points = 0, faces = 0, triangles = 0;
};

Totals Count(const C3DScene& s) {
    Totals t;
    C3DBaseObject* o;
    for (C3DNodePos p = s.GetFirstNode(); C3DSceneNode* n = s.GetNextNode(o, p);) {
        if (!o || o->GetKindOf() != KINDOF_MESH) continue;
        auto* m = static_cast<C3DObject*>(o);
        ++t.meshes;
        t.points += m->GetPointList()->GetSize();
        t.faces += m->GetFaceList()->GetNumberOfFaces();
        for (int f = 0; f < m->GetFaceList()->GetNumberOfFaces(); ++f)
            t.triangles += m->GetFaceList()->GetFaceSize(f) - 2;
        (void)n;
    }
    return t;
}

} // namespace

TEST(LightwaveCorpus, EveryObjectReads) {
    SKIP_WITHOUT_CORPUS();
    int files = 0;
    for (const char* sub : {"lwo/lwo2", "lwo/lwob"}) {
        for (const fs::path& p : testsupport::CorpusFiles(sub, ".lwo")) {
            ReadResult r = ReadCorpus(p);
            ASSERT_TRUE(r.scene) << p << " error " << r.error;
            EXPECT_GT(Count(*r.scene).faces, 0) << p;
            ++files;
        }
    }
    EXPECT_EQ(files, 39);
}

TEST(LightwaveCorpus, HierarchyLayersByNumber) {
    SKIP_WITHOUT_CORPUS();
    ReadResult r = ReadCorpus(testsupport::CorpusDir() / "lwo/lwo2/hierarchy.lwo");
    ASSERT_TRUE(r.scene);
    // Layers 3, 4, 2, 1 in file order; 3 and 1 name 4 as parent, 2 names 3.
    C3DSceneNode* root = FindNode(*r.scene, L"RootOfHierarchy");
    ASSERT_TRUE(root);
    EXPECT_EQ(root->GetParent(), r.scene->GetRoot());
    EXPECT_EQ(FindNode(*r.scene, L"ChildOfRoot0")->GetParent(), root);
    EXPECT_EQ(FindNode(*r.scene, L"ChildOfRoot1")->GetParent(), root);
    EXPECT_EQ(FindNode(*r.scene, L"GrandChildOfRoot0")->GetParent(), FindNode(*r.scene, L"ChildOfRoot0"));
    const Totals t = Count(*r.scene);
    EXPECT_EQ(t.meshes, 4);
    EXPECT_EQ(t.points, 290);
    EXPECT_EQ(t.faces, 306); // 258 quads + 48 triangles
    EXPECT_EQ(t.triangles, 564);
    EXPECT_EQ(MeshOf(root)->GetPointList()->GetSize(), 266);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 3);
}

TEST(LightwaveCorpus, UglyVertexColours) {
    SKIP_WITHOUT_CORPUS();
    ReadResult r = ReadCorpus(testsupport::CorpusDir() / "lwo/lwo2/UglyVertexColors.lwo");
    ASSERT_TRUE(r.scene);
    const Totals t = Count(*r.scene);
    EXPECT_EQ(t.meshes, 1);
    EXPECT_EQ(t.points, 1628);
    EXPECT_EQ(t.faces, 1735); // 288 triangles, 1446 quads, one 24-gon
    EXPECT_EQ(t.triangles, 288 + 2 * 1446 + 22);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 3);
    C3DObject* o = MeshOf(FindNode(*r.scene, L"Layer 0"));
    ASSERT_TRUE(o);
    EXPECT_GE(o->GetChannelCount(CHANNEL_VC), 1);
    EXPECT_TRUE(o->GetGlobalVCChannel());
}

TEST(LightwaveCorpus, OldFormatCylindricalTexture) {
    SKIP_WITHOUT_CORPUS();
    ReadResult r = ReadCorpus(testsupport::CorpusDir() / "lwo/lwob/bluewithcylindrictexz.lwo");
    ASSERT_TRUE(r.scene);
    const Totals t = Count(*r.scene);
    EXPECT_EQ(t.points, 8);
    EXPECT_EQ(t.faces, 6);
    ASSERT_EQ(r.scene->GetMaterialNumber(), 1);
    const C3DMaterial* m = r.scene->GetMaterialByID(r.scene->GetMaterialID(L"Test"));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->diffuse, CRGBColor(0, 128, 192)); // COLR 00 80 c0
    const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->projection, static_cast<uint32_t>(PROJ_CYLINDRICAL));
    EXPECT_EQ(map->axis, 2); // TFLG 100: Z
    EXPECT_EQ(fs::path(map->file.str()).filename(), "IMAGE2.jpg");
    EXPECT_TRUE(MeshOf(FindNode(*r.scene, L"Layer 1"))->GetChannelByID(map->channel, CHANNEL_UVW));
}
