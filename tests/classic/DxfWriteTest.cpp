// DXF writer: golden text derived by hand from the layout, and the file path.
#include <gtest/gtest.h>

#include "formats/classic/CDxfIo.h"
#include "plugin/host/Object.h"
#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

using namespace classictest;

namespace {

C3DSceneNode* Add(C3DScene& s, C3DSceneNode* parent, const wchar_t* name, C3DGeomObject* obj,
                  const std::vector<float>& xyz, const std::vector<std::vector<uint32_t>>& faces) {
    for (size_t i = 0; i < xyz.size(); i += 3) obj->GetPointList()->Add(xyz[i], xyz[i + 1], xyz[i + 2]);
    for (auto& f : faces) obj->GetFaceList()->AddFace(f.data(), static_cast<int>(f.size()));
    auto* n = new C3DSceneNode(obj);
    n->SetName(CXStringW(name));
    return s.AddNode(parent, n);
}

const char* const kSkeleton = "0\nSECTION\n2\nTABLES\n0\nTABLE\n0\nENDTAB\n0\nENDSEC\n0\nSECTION\n2\nENTITIES\n"
                              "0\nENDSEC\n0\nEOF\n";

} // namespace

TEST(DxfWrite, EmptySceneIsTheSectionSkeleton) {
    C3DScene scene;
    EXPECT_EQ(CDxfIo::FormatScene(scene), kSkeleton);
    // Group nodes (and object-less nodes) give neither layers nor entities.
    scene.AddNode(nullptr, new C3DSceneNode(new C3DGroup()));
    scene.AddNode(nullptr, new C3DSceneNode());
    EXPECT_EQ(CDxfIo::FormatScene(scene), kSkeleton);
}

TEST(DxfWrite, MeshesAndCurvesGoldenText) {
    C3DScene scene;
    Add(scene, nullptr, L"A", new C3DObject(), {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0.5f, 1.5f, -2.25f},
        {{0, 1, 2}, {0, 1, 2, 3}, {0, 1, 2, 3, 4}, {3, 4}});
    auto* curve = new C3DCurve();
    curve->SetClosed(true);
    Add(scene, nullptr, L"C", curve, {1, 2, 3, 4, 5, 6.5f}, {{0, 1}});
    C3DSceneNode* group = scene.AddNode(nullptr, new C3DSceneNode(new C3DGroup()));
    group->SetName(CXStringW(L"G"));
    C3DSceneNode* hidden = Add(scene, group, L"H", new C3DObject(), {0, 0, 0, 1e7f, 0, 0, 0, 1, 0}, {{0, 1, 2}});
    hidden->GetBaseObject()->SetFlag(OBJF_HIDDEN);

    const std::string expected = "0\nSECTION\n2\nTABLES\n0\nTABLE\n"
                                 // One layer per node, "LAYER" repeated; no layer for the group or the flagged mesh.
                                 "2\nLAYER\n2\nA\n70\n0\n"
                                 "2\nLAYER\n2\nC\n70\n0\n"
                                 "0\nENDTAB\n0\nENDSEC\n0\nSECTION\n2\nENTITIES\n"
                                 "0\nPOLYLINE\n8\nA\n70\n64\n66\n1\n71\n5\n72\n4\n"
                                 "0\nVERTEX\n8\nA\n70\n192\n10\n0.000000\n20\n0.000000\n30\n0.000000\n"
                                 "0\nVERTEX\n8\nA\n70\n192\n10\n1.000000\n20\n0.000000\n30\n0.000000\n"
                                 "0\nVERTEX\n8\nA\n70\n192\n10\n1.000000\n20\n1.000000\n30\n0.000000\n"
                                 "0\nVERTEX\n8\nA\n70\n192\n10\n0.000000\n20\n1.000000\n30\n0.000000\n"
                                 "0\nVERTEX\n8\nA\n70\n192\n10\n0.500000\n20\n1.500000\n30\n-2.250000\n"
                                 "0\nVERTEX\n8\nA\n70\n128\n10\n0\n20\n0\n30\n0\n71\n1\n72\n2\n73\n3\n"
                                 "0\nVERTEX\n8\nA\n70\n128\n10\n0\n20\n0\n30\n0\n71\n1\n72\n2\n73\n3\n74\n4\n"
                                 // The pentagon keeps its first three corners; the two-corner face repeats its last.
                                 "0\nVERTEX\n8\nA\n70\n128\n10\n0\n20\n0\n30\n0\n71\n1\n72\n2\n73\n3\n"
                                 "0\nVERTEX\n8\nA\n70\n128\n10\n0\n20\n0\n30\n0\n71\n4\n72\n5\n73\n5\n"
                                 "0\nSEQEND\n"
                                 // The closed curve gets no closed flag.
                                 "0\nPOLYLINE\n8\nC\n66\n1\n"
                                 "0\nVERTEX\n8\nC\n10\n1.000000\n20\n2.000000\n30\n3.000000\n"
                                 "0\nVERTEX\n8\nC\n10\n4.000000\n20\n5.000000\n30\n6.500000\n"
                                 "0\nSEQEND\n"
                                 // The flagged mesh, inside the group, still has its entity.
                                 "0\nPOLYLINE\n8\nH\n70\n64\n66\n1\n71\n3\n72\n1\n"
                                 "0\nVERTEX\n8\nH\n70\n192\n10\n0.000000\n20\n0.000000\n30\n0.000000\n"
                                 "0\nVERTEX\n8\nH\n70\n192\n10\n10000000.000000\n20\n0.000000\n30\n0.000000\n"
                                 "0\nVERTEX\n8\nH\n70\n192\n10\n0.000000\n20\n1.000000\n30\n0.000000\n"
                                 "0\nVERTEX\n8\nH\n70\n128\n10\n0\n20\n0\n30\n0\n71\n1\n72\n2\n73\n3\n"
                                 "0\nSEQEND\n"
                                 "0\nENDSEC\n0\nEOF\n";
    EXPECT_EQ(CDxfIo::FormatScene(scene), expected);

    // Through Save: the same bytes, names as 8-bit text.
    group->SetName(CXStringW(L"Gr\u00fcn"));
    testsupport::TempDir tmp;
    CFileIo io;
    CSceneExportOptions opt;
    CDxfIo parser(io);
    ASSERT_TRUE(parser.Save(CXStringW(Utf8ToWide((tmp / "x.dxf").string())), &scene, opt));
    EXPECT_EQ(testsupport::ReadFile(tmp / "x.dxf"), expected);
    parser.SaveDefaultOptions(opt);
    EXPECT_EQ(opt.prepFlags, uint64_t(PREP_CURVES | PREP_CURVE_POLYLINES | PREP_SPLIT_CURVES | PREP_WORLD_SPACE |
                                      PREP_TRIANGULATE_POLYGONS));
}

TEST(DxfWrite, LayerNamesAreLatin1AndAnUnopenablePathFails) {
    C3DScene scene;
    Add(scene, nullptr, L"Gr\u00fcn\u4e2d", new C3DCurve(), {0, 0, 0}, {{0}});
    std::string text = CDxfIo::FormatScene(scene);
    EXPECT_NE(text.find("2\nGr\xFC"
                        "n?\n70\n0\n"),
              std::string::npos);

    CFileIo io;
    CSceneExportOptions opt;
    CDxfIo parser(io);
    EXPECT_FALSE(parser.Save(CXStringW(L"/nonexistent/dir/x.dxf"), &scene, opt));
    EXPECT_EQ(io.GetIoError(), IO_ERR_OPEN);
    EXPECT_EQ(io.GetIoErrorLevel(), LOG_ERROR);
}
