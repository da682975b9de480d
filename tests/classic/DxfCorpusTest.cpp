// Real DXF files: every one reads (the points-only drawing included), with counts
// checked by hand against the files' own records for four of them.
#include <gtest/gtest.h>

#include "formats/classic/CDxfIo.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

struct Counts {
    size_t meshPoints = 0, faces = 0, curvePoints = 0, lines = 0, points = 0;
};

Counts Count(const C3DScene& s) {
    Counts c;
    for (C3DSceneNode* n : classictest::AllNodes(s)) {
        const C3DGeomObject* g = n->GetGeomObject();
        if (!g) continue;
        const size_t np = g->GetPointList()->size();
        const size_t nf = static_cast<size_t>(g->GetFaceList()->GetNumberOfFaces());
        if (n->GetKindOf() == KINDOF_MESH) c.meshPoints += np, c.faces += nf;
        else if (n->GetKindOf() == KINDOF_CURVE) c.curvePoints += np, c.lines += nf;
        else if (n->GetKindOf() == KINDOF_POINTCLOUD) c.points += np;
    }
    return c;
}

std::unique_ptr<C3DScene> ReadCorpus(const std::string& name, CFileIo& io) {
    CDxfIo parser(io);
    CSceneImportOptions opt;
    return std::unique_ptr<C3DScene>(
        parser.Read(CXStringW(Utf8ToWide((testsupport::CorpusDir() / "dxf" / name).string())), opt));
}

} // namespace

TEST(DxfCorpus, EveryFileReads) {
    SKIP_WITHOUT_CORPUS();
    int files = 0;
    for (const fs::path& p : testsupport::CorpusFiles("dxf", ".dxf")) {
        CFileIo io;
        auto scene = ReadCorpus(p.filename().string(), io);
        EXPECT_TRUE(scene) << p << " error " << io.GetIoError();
        ++files;
    }
    EXPECT_GE(files, 5);
}

TEST(DxfCorpus, HandCheckedCounts) {
    SKIP_WITHOUT_CORPUS();
    CFileIo io;
    // Two POINT entities, nothing else.
    auto points = ReadCorpus("points.dxf", io);
    ASSERT_TRUE(points);
    EXPECT_EQ(Count(*points).points, 2u);
    // Two 3DFACEs (a quad, and a triangle whose fourth corner repeats the third) and a LINE, all red.
    auto line = ReadCorpus("lineTest.dxf", io);
    ASSERT_TRUE(line);
    Counts c = Count(*line);
    EXPECT_EQ(c.faces, 2u);
    EXPECT_EQ(c.meshPoints, 7u);
    EXPECT_EQ(c.lines, 1u);
    ASSERT_EQ(line->GetMaterialNumber(), 1);
    CMaterialPos pos;
    EXPECT_EQ(line->GetFirstMaterial(pos)->GetDiffuseColor(), CRGBColor(255, 0, 0));
    // Four polyface meshes: 8+8+680+72 vertices, 6+6+1174+104 faces; $INSUNITS 1 (inches).
    auto issue = ReadCorpus("issue_2229.dxf", io);
    ASSERT_TRUE(issue);
    c = Count(*issue);
    EXPECT_EQ(c.meshPoints, 768u);
    EXPECT_EQ(c.faces, 1290u);
    EXPECT_EQ(issue->GetUnit(), UNIT_INCH);
    // One polyface mesh of 3205 vertices and 3732 faces in a block, placed by one INSERT.
    auto wuson = ReadCorpus("wuson.dxf", io);
    ASSERT_TRUE(wuson);
    c = Count(*wuson);
    EXPECT_EQ(c.meshPoints, 3205u);
    EXPECT_EQ(c.faces, 3732u);
    // 288 3DFACE records.
    auto egg = ReadCorpus("PinkEggFromLW.dxf", io);
    ASSERT_TRUE(egg);
    EXPECT_EQ(Count(*egg).faces, 288u);
}
