// Every STL and OBJ file of the sample corpus, with counts worked out from the files
// (facets, groups with faces, distinct positions used per group).
#include <gtest/gtest.h>

#include <map>

#include "tests/mesh/MeshTestUtil.h"

using namespace meshtest;

namespace {

struct Expect {
    int error; // 0: reads
    int nodes, points, faces;
    const wchar_t* firstMaterial; // name of face 0's material; null: none
};

void Totals(C3DScene& s, int& nodes, int& points, int& faces) {
    nodes = points = faces = 0;
    C3DNodePos pos = s.GetFirstNode(KINDOF_MESH);
    C3DBaseObject* o = nullptr;
    while (s.GetNextNode(o, pos)) {
        auto* g = static_cast<C3DGeomObject*>(o);
        ++nodes;
        points += g->GetPointList()->GetSize();
        faces += g->GetFaceList()->GetNumberOfFaces();
    }
}

template <typename Parser> void CheckFolder(const std::string& sub, const std::map<std::string, Expect>& want) {
    auto files = testsupport::CorpusFiles(sub);
    size_t checked = 0;
    for (const auto& f : files) {
        const std::string name = f.filename().string();
        auto it = want.find(name);
        if (it == want.end()) continue;
        ++checked;
        const Expect& e = it->second;
        auto r = ReadPath<Parser>(f);
        if (e.error) {
            EXPECT_FALSE(r.scene) << name;
            EXPECT_EQ(r.error, e.error) << name;
            EXPECT_EQ(r.level, LOG_ERROR) << name;
            continue;
        }
        ASSERT_TRUE(r.scene) << name << " error " << r.error;
        int nodes, points, faces;
        Totals(*r.scene, nodes, points, faces);
        EXPECT_EQ(nodes, e.nodes) << name;
        EXPECT_EQ(points, e.points) << name;
        EXPECT_EQ(faces, e.faces) << name;
        const uint32_t id = FirstMesh(*r.scene)->GetFaceList()->GetMaterialID(0);
        if (e.firstMaterial) {
            ASSERT_NE(id, NO_MATERIAL) << name;
            EXPECT_EQ(r.scene->GetMaterialByID(id)->GetName(), e.firstMaterial) << name;
        } else {
            EXPECT_EQ(id, NO_MATERIAL) << name;
        }
    }
    EXPECT_EQ(checked, want.size()) << "corpus files missing from " << sub;
}

} // namespace

TEST(MeshCorpus, StlFiles) {
    SKIP_WITHOUT_CORPUS();
    // "triangle_with_two_solids" has two facets, but the read stops inside the second
    // solid ("endsolid name" does not end the count, and its lines are not a facet).
    CheckFolder<CStlIo>("stl", {{"3DSMaxExport.STL", {0, 1, 6000, 2000, nullptr}},
                                {"Spider_ascii.stl", {0, 1, 4104, 1368, nullptr}},
                                {"Spider_binary.stl", {0, 1, 4104, 1368, nullptr}},
                                {"Wuson.stl", {0, 1, 11196, 3732, nullptr}},
                                {"sphereWithHole.stl", {0, 1, 855, 285, nullptr}},
                                {"triangle.stl", {0, 1, 3, 1, nullptr}},
                                {"triangle_with_empty_solid.stl", {0, 1, 3, 1, nullptr}},
                                {"triangle_with_two_solids.stl", {0, 1, 3, 1, nullptr}}});
    auto r = ReadPath<CStlIo>(testsupport::CorpusDir() / "stl" / "sphereWithHole.stl");
    ASSERT_TRUE(r.scene);
    C3DSceneNode* node = nullptr;
    FirstMesh(*r.scene, &node);
    EXPECT_EQ(node->GetName(), L"tinysphere_withhole"); // "solid<TAB>name"
}

TEST(MeshCorpus, ObjFiles) {
    SKIP_WITHOUT_CORPUS();
    // Files with points or lines but no faces are "empty" (-10 at the error level).
    CheckFolder<CWavefrontIo>(
        "obj", {{"WusonOBJ.obj", {0, 1, 2117, 3732, nullptr}},
                {"box.obj", {0, 1, 8, 6, nullptr}},
                {"box_UTF16BE.obj", {0, 1, 8, 6, nullptr}},
                {"box_longline.obj", {0, 1, 8, 6, nullptr}},
                {"box_mat_with_spaces.obj", {0, 1, 8, 6, L"Material name with many, many spaces"}},
                {"box_without_lineending.obj", {0, 1, 8, 6, nullptr}},
                {"concave_polygon.obj", {0, 1, 64, 1, L"test"}},
                {"cube_mtllib_after_g.obj", {0, 1, 8, 12, nullptr}}, // names a ".mat" file that is not there
                {"cube_usemtl.obj", {0, 1, 8, 12, nullptr}},         // "mtl3" is not in its library
                {"cube_with_vertexcolors.obj", {0, 1, 8, 12, nullptr}},
                {"cube_with_vertexcolors_uni.obj", {0, 1, 8, 12, nullptr}},
                {"empty_mat.obj", {0, 1, 130, 256, L""}},
                {"mtl_different_folder.obj", {0, 1, 8, 6, L"Whatever"}},
                {"multiple_spaces.obj", {0, 1, 3, 1, nullptr}},
                {"number_formats.obj", {0, 1, 3, 1, nullptr}},
                {"only_a_part_of_vertexcolors.obj", {0, 1, 5, 3, nullptr}},
                {"point_cloud.obj", {IO_ERR_EMPTY, 0, 0, 0, nullptr}},
                {"regr01.obj", {0, 55, 2108, 2710, L"Base"}},
                {"regr_3429812.obj", {0, 3, 10, 3, L"Trim"}},
                {"space_in_material_name.obj", {0, 1, 64, 1, L"Hard Shiny Plastic White"}},
                {"spider.obj", {0, 19, 762, 1368, L"HLeibTex"}},
                {"testline.obj", {IO_ERR_EMPTY, 0, 0, 0, nullptr}},
                {"testmixed.obj", {0, 1, 8, 6, nullptr}},
                {"testpoints.obj", {IO_ERR_EMPTY, 0, 0, 0, nullptr}}});

    // scanf number forms; face 1 2 4 keeps the first-use order.
    auto r = ReadPath<CWavefrontIo>(testsupport::CorpusDir() / "obj" / "number_formats.obj");
    ASSERT_TRUE(r.scene);
    const C3DPointList& p = *FirstMesh(*r.scene)->GetPointList();
    EXPECT_EQ(p.GetPoint(1).y, 2.0f);  // "2."
    EXPECT_EQ(p.GetPoint(2).x, -1.0f); // file vertex 4: "-1 -2. -3.0"
    EXPECT_EQ(p.GetPoint(2).y, -2.0f);
    EXPECT_EQ(p.GetPoint(2).z, -3.0f);
    auto b = ReadPath<CWavefrontIo>(testsupport::CorpusDir() / "obj" / "box_UTF16BE.obj");
    auto a = ReadPath<CWavefrontIo>(testsupport::CorpusDir() / "obj" / "box.obj");
    ASSERT_TRUE(a.scene && b.scene);
    EXPECT_EQ(FirstMesh(*a.scene)->GetPointList()->Raw(), FirstMesh(*b.scene)->GetPointList()->Raw());
}

TEST(MeshCorpus, ConvertBothWays) {
    SKIP_WITHOUT_CORPUS();
    testsupport::TempDir dir;
    // STL -> OBJ -> STL keeps the triangles.
    auto stl = ReadPath<CStlIo>(testsupport::CorpusDir() / "stl" / "Wuson.stl");
    ASSERT_TRUE(stl.scene);
    ASSERT_TRUE(SaveScene<CWavefrontIo>(stl.scene.get(), dir / "w.obj"));
    auto obj = ReadPath<CWavefrontIo>(dir / "w.obj");
    ASSERT_TRUE(obj.scene);
    C3DGeomObject* m = FirstMesh(*obj.scene);
    EXPECT_EQ(m->GetFaceList()->GetNumberOfFaces(), 3732);
    m->ComputeFaceNormals();
    ASSERT_TRUE(SaveScene<CStlIo>(obj.scene.get(), dir / "w.stl"));
    EXPECT_EQ(std::filesystem::file_size(dir / "w.stl"), 84u + 50u * 3732u);
}
