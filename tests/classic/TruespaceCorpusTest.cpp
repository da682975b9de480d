// The real trueSpace files: every one reads, three with counts taken by hand from the
// ASCII twins' "World Vertices"/"Faces" lines and chunk headers, and each binary file
// gives the scene its ASCII twin gives (to the six digits the text keeps).
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "tests/classic/TruespaceTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

cobtest::ReadResult ReadCorpus(const std::string& name) {
    return classictest::ReadFileWith<CTruespaceIo>(testsupport::CorpusDir() / "cob" / name);
}

const C3DGeomObject* Mesh(const C3DScene& s, const wchar_t* name) {
    const C3DSceneNode* n = s.FindNodeByName(CXStringW(name));
    return n ? n->GetGeomObject() : nullptr;
}

} // namespace

TEST(TruespaceCorpus, EveryFileReads) {
    SKIP_WITHOUT_CORPUS();
    const auto files = testsupport::CorpusFiles("cob", ".cob");
    if (files.empty()) GTEST_SKIP() << "no trueSpace files";
    for (const auto& f : files) {
        auto r = ReadCorpus(f.filename().string());
        ASSERT_TRUE(r.scene) << f << " " << r.error;
        EXPECT_GT(r.scene->GetChildCount(nullptr, KINDOF_MESH), 0) << f;
    }
}

TEST(TruespaceCorpus, MoleculeCountsByHand) {
    SKIP_WITHOUT_CORPUS();
    auto r = ReadCorpus("molecule.cob");
    ASSERT_TRUE(r.scene);
    // One Grou "Nitrogen" with four PolH "Sphere" (duplicates 0, 1, 3, 2), 114 points
    // and 128 faces each, a Mat1 each.
    const C3DSceneNode* group = r.scene->FindNodeByName(CXStringW(L"Nitrogen"));
    ASSERT_TRUE(group);
    EXPECT_EQ(group->GetParent(), r.scene->GetRoot());
    EXPECT_EQ(group->GetDirectChildCount(), 4);
    EXPECT_EQ(r.scene->GetNodeCount(), 5);
    for (const wchar_t* n : {L"Sphere", L"Sphere,1", L"Sphere,2", L"Sphere,3"}) {
        const C3DGeomObject* g = Mesh(*r.scene, n);
        ASSERT_TRUE(g) << WideToUtf8(n);
        EXPECT_EQ(g->GetPointList()->size(), 114u);
        EXPECT_EQ(g->GetFaceList()->GetNumberOfFaces(), 128);
        EXPECT_EQ(g->GetGlobalUVWChannel()->GetUVWPointList()->size(), 153u);
    }
    EXPECT_EQ(r.scene->GetMaterialNumber(), 4);
    EXPECT_EQ(r.scene->GetUnit(), UNIT_METER);
    // The spheres' matrices are absolute: "Sphere,1" sits at x = 3.24843 in the world.
    C4x4Matrix world;
    r.scene->FindNodeByName(CXStringW(L"Sphere,1"))->GetNodeTM(0, world);
    EXPECT_NEAR(world.m[3][0], 3.24843, 1e-4);
}

TEST(TruespaceCorpus, SpiderCountsByHand) {
    SKIP_WITHOUT_CORPUS();
    auto r = ReadCorpus("spider_4_3.cob");
    ASSERT_TRUE(r.scene);
    // A nameless PolH (duplicate 1) of 762 points, one shared UV and 1368 faces over four Mat1.
    EXPECT_EQ(r.scene->GetNodeCount(), 1);
    const C3DGeomObject* g = Mesh(*r.scene, L"NoName,1");
    ASSERT_TRUE(g);
    EXPECT_EQ(g->GetPointList()->size(), 762u);
    EXPECT_EQ(g->GetFaceList()->GetNumberOfFaces(), 1368);
    EXPECT_EQ(g->GetGlobalUVWChannel()->GetUVWPointList()->size(), 1u);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 4);
    std::map<uint32_t, int> perMaterial;
    for (int f = 0; f < g->GetFaceList()->GetNumberOfFaces(); ++f) ++perMaterial[g->GetFaceList()->GetMaterialID(f)];
    EXPECT_EQ(perMaterial.count(NO_MATERIAL), 0u);
    // The first Mat1 (mat# 1): rgb 0.8 with kd 0.6 in the binary file.
    const C3DMaterial* m = r.scene->GetMaterialByID(g->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
}

TEST(TruespaceCorpus, DwarfCountsByHand) {
    SKIP_WITHOUT_CORPUS();
    auto r = ReadCorpus("dwarf.cob");
    ASSERT_TRUE(r.scene);
    // Grou "Body" over PolH "test2Mesh": 1485 points, 1479 UVs, 1896 faces; 1481 Chan
    // chunks in between are stepped over; two textured Mat1.
    EXPECT_EQ(r.scene->GetNodeCount(), 2);
    const C3DSceneNode* mesh = r.scene->FindNodeByName(CXStringW(L"test2Mesh"));
    ASSERT_TRUE(mesh);
    EXPECT_EQ(mesh->GetParent()->GetName().str(), L"Body");
    const C3DGeomObject* g = mesh->GetGeomObject();
    EXPECT_EQ(g->GetPointList()->size(), 1485u);
    EXPECT_EQ(g->GetFaceList()->GetNumberOfFaces(), 1896);
    EXPECT_EQ(g->GetGlobalUVWChannel()->GetUVWPointList()->size(), 1479u);
    ASSERT_EQ(r.scene->GetMaterialNumber(), 2);
    std::vector<std::wstring> maps;
    CMaterialPos mp;
    for (C3DMaterial* m = r.scene->GetFirstMaterial(mp); m; m = r.scene->GetNextMaterial(mp)) {
        ASSERT_TRUE(m->GetMaterialMap(MAP_DIFFUSE));
        maps.push_back(fileStripPath(m->GetMaterialMap(MAP_DIFFUSE)->file).str());
    }
    std::sort(maps.begin(), maps.end());
    EXPECT_EQ(maps, (std::vector<std::wstring>{L"axe.jpg", L"dwarf.jpg"}));
}

TEST(TruespaceCorpus, BinaryAndAsciiTwinsGiveTheSameScene) {
    SKIP_WITHOUT_CORPUS();
    for (const char* base : {"molecule", "spider_4_3", "spider_6_6", "dwarf"}) {
        auto b = ReadCorpus(std::string(base) + ".cob");
        auto a = ReadCorpus(std::string(base) + "_ascii.cob");
        ASSERT_TRUE(a.scene && b.scene) << base;
        auto nb = cobtest::Nodes(*b.scene), na = cobtest::Nodes(*a.scene);
        ASSERT_EQ(nb.size(), na.size()) << base;
        for (size_t i = 0; i < nb.size(); ++i) {
            EXPECT_EQ(nb[i]->GetName().str(), na[i]->GetName().str()) << base;
            EXPECT_EQ(nb[i]->GetKindOf(), na[i]->GetKindOf()) << base;
            for (int r = 0; r < 4; ++r)
                for (int c = 0; c < 4; ++c)
                    EXPECT_NEAR(nb[i]->GetStaticLocalTM().m[r][c], na[i]->GetStaticLocalTM().m[r][c], 1e-4) << base;
            const C3DGeomObject* gb = nb[i]->GetGeomObject();
            const C3DGeomObject* ga = na[i]->GetGeomObject();
            if (!gb) continue;
            ASSERT_TRUE(ga);
            const C3DPointList& pb = *gb->GetPointList();
            const C3DPointList& pa = *ga->GetPointList();
            ASSERT_EQ(pb.size(), pa.size()) << base;
            for (size_t k = 0; k < pb.size() * 3; ++k) {
                const float x = pb.GetData()[k], y = pa.GetData()[k];
                ASSERT_NEAR(x, y, 1e-5 + 1e-5 * std::fabs(x)) << base << " point value " << k;
            }
            EXPECT_EQ(gb->GetFaceList()->GetIndexes(), ga->GetFaceList()->GetIndexes()) << base;
            EXPECT_EQ(gb->GetFaceList()->GetOffsets(), ga->GetFaceList()->GetOffsets()) << base;
            EXPECT_EQ(gb->GetGlobalUVWChannel()->GetUVWFaceList()->GetIndexes(),
                      ga->GetGlobalUVWChannel()->GetUVWFaceList()->GetIndexes())
                << base;
            for (int f = 0; f < gb->GetFaceList()->GetNumberOfFaces(); ++f) {
                const C3DMaterial* mb = b.scene->GetMaterialByID(gb->GetFaceList()->GetMaterialID(f));
                const C3DMaterial* ma = a.scene->GetMaterialByID(ga->GetFaceList()->GetMaterialID(f));
                ASSERT_TRUE(mb && ma) << base;
                EXPECT_EQ(mb->GetName().str(), ma->GetName().str());
                EXPECT_EQ(mb->diffuse, ma->diffuse) << base;
                EXPECT_EQ(mb->GetMaterialMapCount(), ma->GetMaterialMapCount()) << base;
            }
        }
        EXPECT_EQ(b.scene->GetMaterialNumber(), a.scene->GetMaterialNumber()) << base;
        EXPECT_EQ(b.scene->GetUnit(), a.scene->GetUnit()) << base;
    }
}
