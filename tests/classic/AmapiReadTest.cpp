// Amapi reader on files made by the test writer: meshes, names, colours, hidden
// nodes, curves, groups and ctrl shapes, and damaged input.
#include <gtest/gtest.h>

#include <atomic>

#include "formats/classic/CAmapiIo.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/Material.h"
#include "tests/classic/AmapiTestWriter.h"
#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

using namespace classictest;

namespace {

ReadResult ReadAmapi(const std::string& bytes) {
    CFileIo io;
    CSceneImportOptions opt;
    CAmapiIo parser(io);
    ReadResult r;
    r.scene.reset(parser.ReadMemory(bytes.data(), bytes.size(), opt));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    r.log = opt.GetLog();
    return r;
}

const std::vector<float> kTri = {0, 0, 0, 1, 0, 0, 0, 1, 0};

AmapiWriter::Body Mesh(const std::string& name) {
    return [name](AmapiWriter& w) {
        if (!name.empty()) w.Name(name);
        w.Geom(kTri, {{0, 1, 2}});
    };
}

std::vector<std::wstring> Names(const C3DScene& s) {
    std::vector<std::wstring> out;
    for (C3DSceneNode* n : AllNodes(s)) out.emplace_back(n->GetName().view());
    return out;
}

} // namespace

TEST(AmapiRead, ShapeWithNameColourAndPolygons) {
    AmapiWriter w;
    w.Shape([](AmapiWriter& s) {
        s.Name("Cube").Color(255, 10, 0);
        s.Geom({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0.5f, 2, 0}, {{0, 1, 2, 3}, {3, 2, 4}, {0, 1, 2, 4, 3}}, 0, 0, 1,
               2);
    });
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    auto nodes = AllNodes(*r.scene);
    ASSERT_EQ(nodes.size(), 1u);
    C3DSceneNode* n = nodes[0];
    EXPECT_EQ(n->GetName(), L"Cube");
    EXPECT_EQ(n->GetKindOf(), KINDOF_MESH);
    EXPECT_FALSE(n->IsFlagSet(NODE_HIDDEN));
    const C3DGeomObject* g = n->GetGeomObject();
    ASSERT_EQ(g->GetPointList()->GetSize(), 5);
    EXPECT_EQ(g->GetPointList()->GetPoint(4), C3DPoint(0.5f, 2, 0));
    const C3DFaceList& f = *g->GetFaceList();
    ASSERT_EQ(f.GetNumberOfFaces(), 3);
    EXPECT_EQ(f.GetFaceSize(0), 4); // polygons are kept, not triangulated
    EXPECT_EQ(f.GetFaceSize(2), 5);
    EXPECT_EQ(f.GetIndexes(), (std::vector<uint32_t>{0, 1, 2, 3, 3, 2, 4, 0, 1, 2, 4, 3}));
    ASSERT_EQ(r.scene->GetMaterialNumber(), 1);
    const C3DMaterial* m = r.scene->GetMaterialByID(f.GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->diffuse, CRGBColor(255, 10, 0));
    EXPECT_EQ(f.GetMaterialID(2), f.GetMaterialID(0));
}

TEST(AmapiRead, NamelessShapesAreNumberedByTheNodesBeforeThem) {
    AmapiWriter w;
    w.Shape(Mesh("First"));
    w.Shape(Mesh(""));
    w.Shape([](AmapiWriter& s) { s.Name("").Geom(kTri, {{0, 1, 2}}); }); // an empty name sub-block
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(Names(*r.scene), (std::vector<std::wstring>{L"First", L"Object 2", L"Object 3"}));
    // Without a colour a shape has no material.
    EXPECT_EQ(AllNodes(*r.scene)[0]->GetGeomObject()->GetFaceList()->GetMaterialID(0), NO_MATERIAL);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 0);
}

TEST(AmapiRead, VisibilityByteAndFlagBit3HideNodes) {
    AmapiWriter w;
    w.Shape([](AmapiWriter& s) { s.Name("Shown").Geom(kTri, {{0, 1, 2}}, 0, 0, 1); });
    w.Shape([](AmapiWriter& s) { s.Name("Invisible").Geom(kTri, {{0, 1, 2}}, 0, 0, 0); });
    w.Shape([](AmapiWriter& s) { s.Name("Flagged").Geom(kTri, {{0, 1, 2}}, 0x8, 0, 1); });
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    EXPECT_FALSE(Named(*r.scene, L"Shown")->IsFlagSet(NODE_HIDDEN));
    EXPECT_TRUE(Named(*r.scene, L"Invisible")->IsFlagSet(NODE_HIDDEN));
    EXPECT_TRUE(Named(*r.scene, L"Flagged")->IsFlagSet(NODE_HIDDEN));
}

TEST(AmapiRead, ClosedCurvesOpenCurvesAndTheKeepOpenFlag) {
    AmapiWriter w;
    w.Shape([](AmapiWriter& s) { s.Name("Loop").Color(1, 2, 3).Geom(kTri, {}, 0, 1); });
    w.Shape([](AmapiWriter& s) { s.Name("Kept").Geom(kTri, {}, 0x1, 1); });
    w.Shape([](AmapiWriter& s) { s.Name("Open").Geom(kTri, {}, 0, 0); });
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(Names(*r.scene), (std::vector<std::wstring>{L"Loop", L"Kept"})); // an open curve yields nothing
    const C3DGeomObject* loop = Named(*r.scene, L"Loop")->GetGeomObject();
    ASSERT_EQ(Named(*r.scene, L"Loop")->GetKindOf(), KINDOF_CURVE);
    ASSERT_EQ(loop->GetPointList()->GetSize(), 4);
    EXPECT_EQ(loop->GetPointList()->GetPoint(3), C3DPoint(0, 0, 0));
    EXPECT_EQ(loop->GetFaceList()->GetIndexes(), (std::vector<uint32_t>{0, 1, 2, 3}));
    const C3DMaterial* m = r.scene->GetMaterialByID(loop->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->diffuse, CRGBColor(1, 2, 3));
    EXPECT_EQ(Named(*r.scene, L"Kept")->GetGeomObject()->GetPointList()->GetSize(), 3);
}

TEST(AmapiRead, GroupsHoldTheirChildren) {
    AmapiWriter w;
    w.Shape([](AmapiWriter& s) {
        s.Name("Outer").Group({Mesh("A"), [](AmapiWriter& c) { c.Name("Inner").Group({Mesh("B"), Mesh("")}); }});
    });
    w.Shape([](AmapiWriter& s) { s.Group({Mesh("C")}); }); // a nameless group, named at the end
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    C3DSceneNode* outer = Named(*r.scene, L"Outer");
    C3DSceneNode* inner = Named(*r.scene, L"Inner");
    ASSERT_TRUE(outer && inner);
    EXPECT_EQ(outer->GetKindOf(), KINDOF_GROUP);
    EXPECT_EQ(outer->GetParent(), r.scene->GetRoot());
    EXPECT_EQ(Named(*r.scene, L"A")->GetParent(), outer);
    EXPECT_EQ(inner->GetParent(), outer);
    EXPECT_EQ(Named(*r.scene, L"B")->GetParent(), inner);
    // Nodes so far: Outer, A, Inner, B -> the nameless child is number 5.
    ASSERT_TRUE(Named(*r.scene, L"Object 5"));
    EXPECT_EQ(Named(*r.scene, L"Object 5")->GetParent(), inner);
    // Outer .. Object 5 are 5 nodes; the second group is node 6 and C node 7, then it is named.
    C3DSceneNode* second = Named(*r.scene, L"Object 8");
    ASSERT_TRUE(second);
    EXPECT_EQ(Named(*r.scene, L"C")->GetParent(), second);
}

TEST(AmapiRead, CtrlShapesEndAtTheirMarkerAndReadingGoesOn) {
    AmapiWriter w;
    w.Shape(
        [](AmapiWriter& s) {
            s.Name("Outer").Geom(kTri, {{0, 1, 2}});
            s.Ctrl(Mesh("Inner"));
        },
        false);
    w.Block("JUNK", [](AmapiWriter& b) { b.Raw("ignored by its size"); });
    w.Shape(Mesh("Next"));
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    // The nested shape is added while the outer one is still being read.
    EXPECT_EQ(Names(*r.scene), (std::vector<std::wstring>{L"Inner", L"Outer", L"Next"}));
    EXPECT_EQ(Named(*r.scene, L"Inner")->GetParent(), r.scene->GetRoot());
}

TEST(AmapiRead, UnknownSubBlocksAreSkippedAndStopAGroup) {
    AmapiWriter w;
    w.Shape([](AmapiWriter& s) {
        s.Sub("what", [](AmapiWriter& b) { b.Raw("12345"); });
        s.Name("Top").Group({Mesh("One"),
                             [](AmapiWriter& c) {
                                 c.Name("Two").Geom(kTri, {{0, 1, 2}});
                                 c.Sub("junk", [](AmapiWriter& b) { b.U32(7); });
                             },
                             Mesh("Three")});
    });
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(Names(*r.scene), (std::vector<std::wstring>{L"Top", L"One", L"Two"}));
}

TEST(AmapiRead, NotAmapiIsSilentAndAMissingFileIsReported) {
    ReadResult r = ReadAmapi("BMAP\0\0\0\1");
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(ReadAmapi("AM").error, 0);

    ReadResult missing = ReadFileWith<CAmapiIo>("/nonexistent/x.a3d");
    EXPECT_FALSE(missing.scene);
    EXPECT_EQ(missing.error, IO_ERR_OPEN);
    EXPECT_EQ(missing.level, LOG_ERROR);
}

TEST(AmapiRead, CountsPastTheDataAbandonTheGeometry) {
    AmapiWriter w;
    w.Shape([](AmapiWriter& s) {
        s.Name("Huge").Sub("geom", [](AmapiWriter& g) {
            g.U8(0).U8(0).U8(1).U32(0x40000000).U32(0).U32(1).U32(4);
            for (int i = 0; i < 5; ++i) g.U32(0);
            g.F32(1).F32(2).F32(3).F32(4);
        });
    });
    w.Shape([](AmapiWriter& s) { s.Name("Fine").Geom(kTri, {{0, 1, 2}}); });
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(Names(*r.scene), (std::vector<std::wstring>{L"Fine"}));
}

// An index past the points is not a short read: the shape stays, only that face goes,
// and the log says so.
TEST(AmapiRead, AFaceNamingAMissingPointIsDroppedAndLogged) {
    const std::vector<float> quad = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
    AmapiWriter w;
    w.Shape([&](AmapiWriter& s) { s.Name("Past").Geom(quad, {{0, 1, 2}, {0, 2, 7}, {2, 3, 0}, {4, 0, 1, 2}}); });
    w.Shape([](AmapiWriter& s) { s.Name("AllBad").Geom(kTri, {{0, 1, 3}}); });
    w.Shape([](AmapiWriter& s) { s.Name("Fine").Geom(kTri, {{0, 1, 2}}); });
    ReadResult r = ReadAmapi(w.Bytes());
    ASSERT_TRUE(r.scene);
    // A shape left with points and no faces is an open curve: nothing, as for any such shape.
    EXPECT_EQ(Names(*r.scene), (std::vector<std::wstring>{L"Past", L"Fine"}));
    const C3DGeomObject* g = Named(*r.scene, L"Past")->GetGeomObject();
    EXPECT_EQ(g->GetPointList()->GetSize(), 4);
    EXPECT_EQ(g->GetFaceList()->GetIndexes(), (std::vector<uint32_t>{0, 1, 2, 2, 3, 0}));
    ASSERT_EQ(r.log.size(), 2u);
    EXPECT_EQ(r.log[0].level, LOG_INFO);
    EXPECT_EQ(r.log[0].text, L"Past: 2 face(s) naming a point the shape does not have, left out");
    EXPECT_EQ(r.log[1].text, L"AllBad: 1 face(s) naming a point the shape does not have, left out");
}

TEST(AmapiRead, DamagedFilesNeverCrashOrHang) {
    AmapiWriter w;
    w.Shape([](AmapiWriter& s) {
        s.Name("G").Color(9, 9, 9).Group({Mesh("A"), [](AmapiWriter& c) { c.Geom(kTri, {}, 0, 1); }});
    });
    w.Shape([](AmapiWriter& s) { s.Ctrl(Mesh("C")); }, false);
    const std::string file = w.Bytes();
    ASSERT_EQ(Names(*ReadAmapi(file).scene), (std::vector<std::wstring>{L"G", L"A", L"Object 3", L"C"}));
    for (size_t n = 0; n < file.size(); ++n) {
        ReadResult r = ReadAmapi(file.substr(0, n));
        EXPECT_EQ(r.scene == nullptr, n < 4) << n; // once the magic is there, what was built stays
    }
    // A ctrl block without its marker, and a block size past the end.
    AmapiWriter noEof;
    noEof.Shape(
        [](AmapiWriter& s) {
            s.Sub("ctrl", [](AmapiWriter& c) {
                Mesh("X")(c);
                c.EndMarker();
            });
        },
        false);
    EXPECT_TRUE(ReadAmapi(noEof.Bytes()).scene);
    std::string longBlock = AmapiWriter().Raw("BLOKSHAP").U32(0xFFFFFFF0).Raw("blokname").U32(20).Bytes();
    EXPECT_TRUE(ReadAmapi(longBlock).scene);

    // Groups nested far past the cap.
    std::string deep = AmapiWriter().Bytes();
    deep += "BLOKSHAP";
    std::string inner;
    for (int i = 0; i < 5000; ++i) inner += std::string("blokgrup\xFF\xFF\xFF\xFF\0\0\0\1", 16);
    deep += std::string("\x7F\xFF\xFF\xFF", 4) + inner;
    ReadResult d = ReadAmapi(deep);
    ASSERT_TRUE(d.scene);
    EXPECT_LE(d.scene->GetNodeCount(), CAmapiIo::kMaxDepth);
}

TEST(AmapiRead, CancelReportsCode11) {
    AmapiWriter w;
    w.Shape(Mesh("A"));
    std::atomic<bool> cancel{true};
    SetThreadCancelToken(&cancel);
    ReadResult r = ReadAmapi(w.Bytes());
    SetThreadCancelToken(nullptr);
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_CANCELLED);
    EXPECT_EQ(r.level, LOG_INFO);
}
