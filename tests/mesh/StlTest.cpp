#include <atomic>
#include <gtest/gtest.h>

#include "plugin/host/Cancel.h"
#include "tests/mesh/MeshTestUtil.h"

using namespace meshtest;

namespace {

struct Tri {
    float n[3];
    float v[9];
    uint16_t attr;
};

std::string BinaryStl(const std::vector<Tri>& tris, const std::string& headerText = "test", int64_t countOverride = -1) {
    std::string s(80, '\0');
    std::memcpy(s.data(), headerText.data(), std::min<size_t>(80, headerText.size()));
    PutU32(s, countOverride >= 0 ? uint32_t(countOverride) : uint32_t(tris.size()));
    for (auto& t : tris) {
        for (float f : t.n) PutF(s, f);
        for (float f : t.v) PutF(s, f);
        PutU16(s, t.attr);
    }
    return s;
}

const Tri kT0{{0, 0, 1}, {0, 0, 0, 1, 0, 0, 0, 1, 0}, 0};
const Tri kT1{{0, 0, -1}, {5, 5, 5, 6, 5, 5, 5, 6, 5}, 0};

const char* kAscii =
    "solid part\n"
    "  facet normal 0 0 1\n"
    "    outer loop\n"
    "      vertex 0 0 0\n"
    "      vertex 1 0 0\n"
    "      vertex 0 1 0\n"
    "    endloop\n"
    "  endfacet\n"
    "  facet normal 0 0 1\n"
    "    outer loop\n"
    "      vertex 2 0 0\n"
    "      vertex 3 0 0\n"
    "      vertex 2 1 0\n"
    "    endloop\n"
    "  endfacet\n"
    "endsolid part\n"
    "endsolid\n";

} // namespace

TEST(StlRead, BinaryKeepsFileOrderNormalsAndColours) {
    Tri coloured = kT1;
    coloured.attr = 0x8000 | 31 | (1 << 5) | (17 << 10); // red 31, green 1, blue 17
    auto r = ReadBytes<CStlIo>(BinaryStl({kT0, coloured}), "a.stl");
    ASSERT_TRUE(r.scene) << r.error;
    C3DGeomObject* obj = FirstMesh(*r.scene);
    ASSERT_TRUE(obj);
    const C3DPointList& pts = *obj->GetPointList();
    ASSERT_EQ(pts.GetSize(), 6);
    EXPECT_EQ(pts.GetPoint(4).x, 6.0f);
    const C3DFaceList& fl = *obj->GetFaceList();
    ASSERT_EQ(fl.GetNumberOfFaces(), 2);
    EXPECT_EQ(FaceOf(fl, 0), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(FaceOf(fl, 1), (std::vector<uint32_t>{3, 4, 5}));

    auto* sn = static_cast<CSpecNormalChannel*>(obj->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
    ASSERT_TRUE(sn);
    EXPECT_EQ(FaceOf(*sn->GetNormalFaceList(), 1), (std::vector<uint32_t>{1, 1, 1}));
    EXPECT_EQ(sn->GetNormalVectorList()->GetPoint(1).z, -1.0f);

    CVCChannel* vc = obj->GetGlobalVCChannel();
    ASSERT_TRUE(vc);
    EXPECT_TRUE(vc->GetVCFaceList()->IsFaceFlagSet(0, FACE_SKIP));
    EXPECT_FALSE(vc->GetVCFaceList()->IsFaceFlagSet(1, FACE_SKIP));
    EXPECT_EQ(FaceOf(*vc->GetVCFaceList(), 1), (std::vector<uint32_t>{0, 0, 0}));
    ASSERT_EQ(vc->GetVCPointList()->GetSize(), 1);
    const CRGBColor c = (*vc->GetVCPointList())[0];
    // Stored as bytes: (attr * 8) mod 256, ((attr >> 5) * 8) mod 256, (attr >> 7) & 0x1F8.
    EXPECT_EQ(c.r, 248);
    EXPECT_EQ(c.g, 8);
    EXPECT_EQ(c.b, 17 << 3);
}

TEST(StlRead, LengthRuleDecidesBinaryOrAscii) {
    // A binary file whose header says "solid" is still binary when its length matches.
    auto r = ReadBytes<CStlIo>(BinaryStl({kT0}, "solid fake"), "b.stl");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(FirstMesh(*r.scene)->GetFaceList()->GetNumberOfFaces(), 1);

    // N = 0 (84 bytes) is not binary; without "solid" it is not STL at all.
    auto empty = ReadBytes<CStlIo>(BinaryStl({}, "nothing"), "c.stl");
    EXPECT_FALSE(empty.scene);
    EXPECT_EQ(empty.error, IO_ERR_FORMAT);
    EXPECT_EQ(empty.level, LOG_ERROR);
    auto emptySolid = ReadBytes<CStlIo>(BinaryStl({}, "solid x"), "c2.stl");
    EXPECT_FALSE(emptySolid.scene);
    EXPECT_EQ(emptySolid.error, IO_ERR_FORMAT);

    // A count that disagrees with the length: not binary, not ASCII.
    auto wrong = ReadBytes<CStlIo>(BinaryStl({kT0, kT1}, "bin", 3), "d.stl");
    EXPECT_FALSE(wrong.scene);
    EXPECT_EQ(wrong.error, IO_ERR_FORMAT);
    auto huge = ReadBytes<CStlIo>(BinaryStl({kT0}, "bin", 0xFFFFFFFFll), "e.stl");
    EXPECT_FALSE(huge.scene);
    EXPECT_EQ(huge.error, IO_ERR_FORMAT);

    auto missing = ReadPath<CStlIo>(testsupport::TempDir().path() / "none.stl");
    EXPECT_EQ(missing.error, IO_ERR_OPEN);
    EXPECT_EQ(missing.level, LOG_ERROR);
}

TEST(StlRead, HeaderColourMarker) {
    // "COLOR=" at 0: the colour is taken from bytes 7..9 (one byte after '=' skipped), alpha from 10.
    std::string header = "COLOR=";
    header += std::string("\x01\x10\x20\x30\xFF", 5);
    auto r = ReadBytes<CStlIo>(BinaryStl({kT0}, header), "col.stl");
    ASSERT_TRUE(r.scene);
    C3DMaterial* m = r.scene->GetMaterialByID(0);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->diffuse.r, 0x10);
    EXPECT_EQ(m->diffuse.g, 0x20);
    EXPECT_EQ(m->diffuse.b, 0x30);
    EXPECT_FLOAT_EQ(m->transparency, -1.0f / 255.0f); // byte taken as signed

    // Lower-case marker is found too; too close to the end of the header it is ignored.
    auto lower = ReadBytes<CStlIo>(BinaryStl({kT0}, "x color=\x01\x02\x03\x04\x05"), "col2.stl");
    ASSERT_TRUE(lower.scene);
    EXPECT_TRUE(lower.scene->GetMaterialByID(0));
    std::string late(70, 'a');
    late += "COLOR=";
    auto tooLate = ReadBytes<CStlIo>(BinaryStl({kT0}, late), "col3.stl");
    ASSERT_TRUE(tooLate.scene);
    EXPECT_FALSE(tooLate.scene->GetMaterialByID(0));
}

TEST(StlRead, AsciiReversesWindingAndIgnoresNormals) {
    auto r = ReadBytes<CStlIo>(kAscii, "a.stl");
    ASSERT_TRUE(r.scene) << r.error;
    C3DSceneNode* node = nullptr;
    C3DGeomObject* obj = FirstMesh(*r.scene, &node);
    ASSERT_TRUE(obj);
    EXPECT_EQ(node->GetName(), L"part");
    const C3DFaceList& fl = *obj->GetFaceList();
    ASSERT_EQ(fl.GetNumberOfFaces(), 2);
    EXPECT_EQ(FaceOf(fl, 0), (std::vector<uint32_t>{2, 1, 0}));
    EXPECT_EQ(FaceOf(fl, 1), (std::vector<uint32_t>{5, 4, 3}));
    EXPECT_EQ(obj->GetPointList()->GetPoint(3).x, 2.0f);
    auto* sn = static_cast<CSpecNormalChannel*>(obj->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
    ASSERT_TRUE(sn);
    EXPECT_EQ(FaceOf(*sn->GetNormalFaceList(), 1), (std::vector<uint32_t>{1, 1, 1}));
    EXPECT_EQ(sn->GetNormalVectorList()->GetPoint(0).z, 0.0f); // the file said 1
}

TEST(StlRead, AsciiVariants) {
    // No name: "Object"; CRLF line ends, upper-case keywords, blank lines between.
    std::string crlf = "SOLID\r\nFACET NORMAL 0 0 1\r\n\r\nOUTER LOOP\r\nVERTEX 0 0 0\r\nVERTEX 1 0 0\r\n"
                       "VERTEX 0 1 0\r\nENDLOOP\r\nENDFACET\r\nENDSOLID\r\n";
    auto r = ReadBytes<CStlIo>(crlf, "a.stl");
    ASSERT_TRUE(r.scene);
    C3DSceneNode* node = nullptr;
    FirstMesh(*r.scene, &node);
    EXPECT_EQ(node->GetName(), L"Object");

    // "endsolid name" does not end the count: the second solid's lines are counted but the
    // read stops at the first line it cannot use, keeping the first facet.
    std::string two = std::string(kAscii).substr(0, std::string(kAscii).find("  facet normal 0 0 1\n    outer loop\n      vertex 2"));
    two += "endsolid part\nsolid second\n";
    two += std::string(kAscii).substr(std::string("solid part\n").size());
    auto t = ReadBytes<CStlIo>(two, "two.stl");
    ASSERT_TRUE(t.scene);
    EXPECT_EQ(FirstMesh(*t.scene)->GetFaceList()->GetNumberOfFaces(), 1);

    // A facet with only two numbers on a vertex line ends the read; facets before it stay.
    std::string shortVertex = kAscii;
    shortVertex.replace(shortVertex.find("vertex 3 0 0"), 12, "vertex 3 0");
    auto sv = ReadBytes<CStlIo>(shortVertex, "sv.stl");
    ASSERT_TRUE(sv.scene);
    EXPECT_EQ(FirstMesh(*sv.scene)->GetFaceList()->GetNumberOfFaces(), 1);

    // Only the first facet line is validated.
    std::string badFirst = kAscii;
    badFirst.replace(badFirst.find("facet normal"), 5, "fakit");
    EXPECT_FALSE(ReadBytes<CStlIo>(badFirst, "bf.stl").scene);
    std::string badSecond = kAscii;
    badSecond.replace(badSecond.rfind("facet normal"), 5, "fakit");
    auto bs = ReadBytes<CStlIo>(badSecond, "bs.stl");
    ASSERT_TRUE(bs.scene);
    EXPECT_EQ(FirstMesh(*bs.scene)->GetFaceList()->GetNumberOfFaces(), 2);

    // Not "solid", no facets, fewer than seven lines.
    EXPECT_EQ(ReadBytes<CStlIo>("hello world\n", "x.stl").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadBytes<CStlIo>("solid a\nendsolid\n", "x.stl").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadBytes<CStlIo>("solid a\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\n", "x.stl").error,
              IO_ERR_FORMAT);
    EXPECT_EQ(ReadBytes<CStlIo>("", "x.stl").error, IO_ERR_FORMAT);
}

TEST(StlRead, EveryPrefixFailsCleanly) {
    const std::string bin = BinaryStl({kT0, kT1});
    for (size_t n = 0; n < bin.size(); ++n) {
        auto r = ReadBytes<CStlIo>(bin.substr(0, n), "p.stl");
        EXPECT_FALSE(r.scene) << n;
        EXPECT_EQ(r.error, IO_ERR_FORMAT) << n;
    }
    const std::string ascii = kAscii;
    for (size_t n = 0; n < ascii.size(); ++n) {
        auto r = ReadBytes<CStlIo>(ascii.substr(0, n), "p.stl");
        if (r.scene) {
            EXPECT_GE(FirstMesh(*r.scene)->GetFaceList()->GetNumberOfFaces(), 1);
        } else {
            EXPECT_EQ(r.error, IO_ERR_FORMAT) << n;
        }
    }
    // Trailing garbage after a binary file breaks the length rule.
    EXPECT_EQ(ReadBytes<CStlIo>(bin + "xx", "g.stl").error, IO_ERR_FORMAT);
}

TEST(StlRead, CancelledReadReportsCancel) {
    std::atomic<bool> cancel{true};
    SetThreadCancelToken(&cancel);
    auto r = ReadBytes<CStlIo>(BinaryStl({kT0, kT1}), "c.stl");
    auto a = ReadBytes<CStlIo>(kAscii, "c2.stl");
    SetThreadCancelToken(nullptr);
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_CANCELLED);
    EXPECT_EQ(r.level, LOG_INFO);
    EXPECT_FALSE(a.scene);
    EXPECT_EQ(a.error, IO_ERR_CANCELLED);
}

TEST(StlWrite, GoldenBytesAndMaterialLessOverflow) {
    C3DScene scene;
    C3DGeomObject* obj = AddMesh(scene, {0, 0, 0, 1, 0, 0, 0, 1, 0}, {{0, 1, 2}});
    obj->ComputeFaceNormals();
    testsupport::TempDir dir;
    ASSERT_TRUE(SaveScene<CStlIo>(&scene, dir / "o.stl"));
    const std::string got = testsupport::ReadFile(dir / "o.stl");

    std::string want(80, '\0');
    const std::string text = "Created by Orbiscope (https://orbiscope.org)";
    std::memcpy(want.data(), text.data(), text.size());
    PutU32(want, 1);
    for (float f : {0.f, 0.f, 1.f, 0.f, 0.f, 0.f, 1.f, 0.f, 0.f, 0.f, 1.f, 0.f}) PutF(want, f);
    PutU16(want, 0xFF40); // 192 * 31 in every field, overflowing in 16 bits
    EXPECT_EQ(got, want);
    EXPECT_EQ(CStlIo::PackColor(192.0f, 192.0f, 192.0f), 0xFF40);
}

TEST(StlWrite, ColoursFromChannelAndMaterial) {
    C3DScene scene;
    C3DMaterial* red = scene.CreateNewMaterial();
    red->diffuse = CRGBColor(255, 0, 0);
    C3DGeomObject* obj = AddMesh(scene, {0, 0, 0, 1, 0, 0, 0, 1, 0}, {{0, 1, 2}, {0, 2, 1}}, L"m", red->GetID());
    obj->ComputeFaceNormals();
    auto* vc = new CVCChannel();
    vc->GetVCPointList()->Add(CRGBColor(0, 0, 255));
    vc->GetVCFaceList()->AddTriangle(0, 0, 0);
    vc->GetVCFaceList()->AddTriangle(0, 0, 0, FACE_SKIP); // uncoloured: falls back to the material
    obj->AddChannel(vc);
    testsupport::TempDir dir;
    ASSERT_TRUE(SaveScene<CStlIo>(&scene, dir / "c.stl"));
    const std::string got = testsupport::ReadFile(dir / "c.stl");
    ASSERT_EQ(got.size(), 84u + 100u);
    EXPECT_EQ(GetU16(got, 84 + 48), 0x8000 | (31 << 10));
    EXPECT_EQ(GetU16(got, 134 + 48), 0x8000 | 31);

    // Read back: red stays in bits 0-4 and blue in bits 10-14 after a second write.
    auto r = ReadPath<CStlIo>(dir / "c.stl");
    ASSERT_TRUE(r.scene);
    C3DGeomObject* back = FirstMesh(*r.scene);
    back->ComputeFaceNormals();
    ASSERT_TRUE(SaveScene<CStlIo>(r.scene.get(), dir / "c2.stl"));
    const std::string again = testsupport::ReadFile(dir / "c2.stl");
    EXPECT_EQ(GetU16(again, 84 + 48) & 0x1F, 0);
    EXPECT_GT((GetU16(again, 84 + 48) >> 10) & 0x1F, 25);
    EXPECT_GT(GetU16(again, 134 + 48) & 0x1F, 25);
    EXPECT_EQ((GetU16(again, 134 + 48) >> 10) & 0x1F, 0);
}

TEST(StlWrite, NoMeshGivesHeaderOnlyAndSkipsFlaggedFaces) {
    C3DScene empty;
    testsupport::TempDir dir;
    ASSERT_TRUE(SaveScene<CStlIo>(&empty, dir / "e.stl"));
    EXPECT_EQ(testsupport::ReadFile(dir / "e.stl").size(), 80u);

    C3DScene scene;
    C3DGeomObject* obj = AddMesh(scene, {0, 0, 0, 1, 0, 0, 0, 1, 0}, {{0, 1, 2}, {0, 2, 1}, {0, 1, 2, 0}});
    obj->GetFaceList()->SetFaceFlag(0, FACE_SKIP);
    obj->ComputeFaceNormals();
    ASSERT_TRUE(SaveScene<CStlIo>(&scene, dir / "s.stl"));
    const std::string got = testsupport::ReadFile(dir / "s.stl");
    EXPECT_EQ(GetU32(got, 80), 1u); // the count equals the records written
    EXPECT_EQ(got.size(), 84u + 50u);

    int err = 0;
    EXPECT_FALSE(SaveScene<CStlIo>(&scene, dir / "missing" / "x.stl", &err));
    EXPECT_EQ(err, IO_ERR_OPEN);
    EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST(StlOptions, DefaultOptionWords) {
    CFileIo io;
    CStlIo p(io);
    CSceneExportOptions e;
    e.prepFlags2 = 7;
    p.SaveDefaultOptions(e);
    EXPECT_EQ(e.prepFlags, 0x00000004000C6403ull);
    EXPECT_EQ(e.prepFlags2, 0u);
    CSceneImportOptions i;
    p.LoadDefaultOptions(i);
    EXPECT_EQ(i.readerFlags, 2u);
}
