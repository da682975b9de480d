#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

#include "plugin/host/Cancel.h"
#include "plugin/host/TextScanner.h"
#include "tests/mesh/MeshTestUtil.h"

using namespace meshtest;

namespace {

struct Tri {
    float n[3];
    float v[9];
    uint16_t attr;
};

std::string BinaryStl(const std::vector<Tri>& tris, const std::string& headerText = "test",
                      int64_t countOverride = -1) {
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

const char* kAscii = "solid part\n"
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

    // Lower-case marker is found too.
    auto lower = ReadBytes<CStlIo>(BinaryStl({kT0}, "x color=\x01\x02\x03\x04\x05"), "col2.stl");
    ASSERT_TRUE(lower.scene);
    EXPECT_TRUE(lower.scene->GetMaterialByID(0));

    // Late in the header: the marker counts while its four bytes fit. At 70 they fill the
    // header to its last byte and the colour is read; the transparency byte would be the
    // first byte of the count, and is not taken.
    std::string late(70, 'a');
    late += "COLOR=";
    late += std::string("\x01\x11\x22\x33", 4);
    auto atEnd = ReadBytes<CStlIo>(BinaryStl({kT0}, late), "col3.stl");
    ASSERT_TRUE(atEnd.scene);
    C3DMaterial* lm = atEnd.scene->GetMaterialByID(0);
    ASSERT_TRUE(lm);
    EXPECT_EQ(lm->diffuse, CRGBColor(0x11, 0x22, 0x33));
    EXPECT_EQ(lm->transparency, 0.0f);
    // One byte later the colour would run past the header: ignored.
    auto tooLate = ReadBytes<CStlIo>(BinaryStl({kT0}, "a" + late.substr(0, 79)), "col4.stl");
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

    // "endsolid name" does not end the count: the second solid's lines are counted, and read
    // seven at a time like any others, out of step: the facets behind it are read from the
    // wrong lines (a vertex line without numbers gives zeros), but none is dropped.
    std::string two =
        std::string(kAscii).substr(0, std::string(kAscii).find("  facet normal 0 0 1\n    outer loop\n      vertex 2"));
    two += "endsolid part\nsolid second\n";
    two += std::string(kAscii).substr(std::string("solid part\n").size());
    auto t = ReadBytes<CStlIo>(two, "two.stl");
    ASSERT_TRUE(t.scene);
    const C3DGeomObject* to = FirstMesh(*t.scene);
    ASSERT_EQ(to->GetFaceList()->GetNumberOfFaces(), 3);
    // Facet 2 takes "facet normal", "outer loop" and "vertex 0 0 0" as its vertex lines,
    // facet 3 "facet normal", "outer loop" and "vertex 2 0 0".
    for (int i = 3; i < 8; ++i) EXPECT_EQ(to->GetPointList()->GetPoint(i), C3DPoint(0, 0, 0)) << i;
    EXPECT_EQ(to->GetPointList()->GetPoint(8), C3DPoint(2, 0, 0));

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
    // Big enough to be read by two threads: both see the request and stop.
    auto big = ReadBytes<CStlIo>(BinaryStl(std::vector<Tri>(200000, kT1)), "c3.stl");
    SetThreadCancelToken(nullptr);
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_CANCELLED);
    EXPECT_EQ(r.level, LOG_INFO);
    EXPECT_FALSE(big.scene);
    EXPECT_EQ(big.error, IO_ERR_CANCELLED);
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
}

namespace {

// Everything an STL read produced, bit for bit: name, points, faces with flags, the
// normal channel and the colour channel.
std::string DescribeStl(C3DScene& s) {
    std::string out;
    C3DSceneNode* node = nullptr;
    C3DGeomObject* g = FirstMesh(s, &node);
    if (!g) return "no mesh";
    out += "node " + WideToUtf8(node->GetName().view()) + "\n";
    out += DumpPoints("points", *g->GetPointList());
    out += DumpFaces("faces", *g->GetFaceList());
    if (auto* sn = static_cast<CSpecNormalChannel*>(g->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL))) {
        out += DumpPoints("normals", *sn->GetNormalVectorList());
        out += DumpFaces("nfaces", *sn->GetNormalFaceList());
    }
    if (CVCChannel* vc = g->GetGlobalVCChannel()) {
        out += DumpFaces("colour faces", *vc->GetVCFaceList());
        for (const CRGBColor& c : vc->GetVCPointList()->Raw()) out += " " + std::to_string(c.GetRGBA());
    }
    return out;
}

} // namespace

// Vertex lines of plain decimals take a quick path, everything else the general scanner.
// A vertical tab before a line's numbers is a space to the scanner but sends the line
// down the general path, so each random file is read both ways and must give the same scene.
TEST(StlRead, QuickAndGeneralPathsAgree) {
    std::mt19937 rng(2024);
    auto num = [&] { return RandomDecimal(rng); };
    int read = 0;
    for (int round = 0; round < 60; ++round) {
        std::vector<std::pair<std::string, std::string>> lines; // keyword, numbers
        lines.push_back({"solid", "r" + std::to_string(round)});
        const int facets = 1 + static_cast<int>(rng() % 12);
        for (int f = 0; f < facets; ++f) {
            lines.push_back({"facet", "normal " + num() + " " + num() + " " + num()});
            lines.push_back({"outer", "loop"});
            for (int v = 0; v < 3; ++v) {
                std::string xyz = num() + (rng() % 2 ? " " : "\t") + num() + " " + num();
                if (rng() % 25 == 0) xyz = num() + " " + num(); // too few numbers: the read ends here
                if (rng() % 25 == 0) xyz += "x";                // text behind the numbers
                if (rng() % 25 == 0) xyz = num() + "," + num() + " " + num();
                lines.push_back({"vertex", xyz + (rng() % 6 == 0 ? " 1.0" : "")});
            }
            lines.push_back({"endloop", ""});
            lines.push_back({"endfacet", ""});
            if (rng() % 20 == 0) lines.push_back({"", ""});
        }
        lines.push_back({"endsolid", ""});
        const char* ends[] = {"\n", "\r\n", "\r"};
        const std::string eol = ends[round % 3];
        std::string quick, general;
        for (const auto& [key, rest] : lines) {
            const std::string lead(rng() % 4, ' ');
            quick += lead + key + (rest.empty() ? "" : " " + rest) + eol;
            general += lead + key + (key == "vertex" ? " \v" : rest.empty() ? "" : " ") + rest + eol;
        }
        if (round % 5 == 4) { // the last facet's last line ends the data, without a line end
            for (std::string* s : {&quick, &general}) {
                size_t at = s->rfind("endsolid");
                while (at > 0 && textscan::IsSpace((*s)[at - 1])) --at;
                s->resize(at);
            }
        }
        auto a = ReadBytes<CStlIo>(quick, "q.stl");
        auto b = ReadBytes<CStlIo>(general, "g.stl");
        ASSERT_EQ(a.scene != nullptr, b.scene != nullptr) << round << "\n" << quick;
        if (!a.scene) continue;
        ++read;
        ASSERT_EQ(DescribeStl(*a.scene), DescribeStl(*b.scene)) << "round " << round << "\n" << quick;
    }
    EXPECT_GT(read, 30);
}

TEST(StlRead, AsciiLineEndsAndEndsolidForms) {
    // Lone CR, blank lines of assorted spaces, no line end at all after the last facet.
    std::string cr = kAscii;
    for (char& c : cr)
        if (c == '\n') c = '\r';
    cr.insert(cr.find("  facet"), " \t\v\f\r\r\n\n");
    cr.resize(cr.find("endsolid part") - 1);
    auto r = ReadBytes<CStlIo>(cr, "cr.stl");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(FirstMesh(*r.scene)->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(DescribeStl(*r.scene), DescribeStl(*ReadBytes<CStlIo>(kAscii, "lf.stl").scene));

    // A bare "endsolid" with trailing spaces ends the count even inside a facet, so the
    // second facet is not read although its vertex lines are complete.
    auto stopsAt = [](const std::string& replacement) {
        std::string s = kAscii;
        s.replace(s.rfind("endloop"), 7, replacement);
        auto r2 = ReadBytes<CStlIo>(s, "e.stl");
        return r2.scene ? FirstMesh(*r2.scene)->GetFaceList()->GetNumberOfFaces() : -1;
    };
    EXPECT_EQ(stopsAt("EndSolid \t\v\f"), 1);
    EXPECT_EQ(stopsAt("endsolid"), 1);
    EXPECT_EQ(stopsAt("endsolidx"), 2);
    EXPECT_EQ(stopsAt("endsolid x"), 2);
    EXPECT_EQ(stopsAt(std::string("endsolid\0", 9)), 2);
    EXPECT_EQ(stopsAt("endsoli"), 2);

    // A facet line that is "endsolid" stops the read at once; the last line may be it.
    std::string early = kAscii;
    early.replace(early.rfind("  facet normal 0 0 1"), 20, "endsolid");
    auto e = ReadBytes<CStlIo>(early, "early.stl");
    ASSERT_TRUE(e.scene);
    EXPECT_EQ(FirstMesh(*e.scene)->GetFaceList()->GetNumberOfFaces(), 1);

    // Numbers the quick path leaves to the scanner still read as "%f" reads them.
    std::string odd = kAscii;
    odd.replace(odd.find("vertex 1 0 0"), 12, "vertex 0x1p1 -inf 1e-50");
    auto o = ReadBytes<CStlIo>(odd, "odd.stl");
    ASSERT_TRUE(o.scene);
    const C3DPoint p1 = FirstMesh(*o.scene)->GetPointList()->GetPoint(1);
    EXPECT_EQ(p1.x, 2.0f);
    EXPECT_TRUE(std::isinf(p1.y) && p1.y < 0);
    EXPECT_EQ(p1.z, 0.0f);
}

// Binary records keep the file's order, one normal and one colour face per triangle (uncoloured
// ones flagged), colours stored as bytes: (attr * 8) mod 256, ((attr >> 5) * 8) mod 256,
// (attr >> 7) & 0x1F8. Records are converted in blocks: a file shorter than a block, and files
// longer than one with the first colour well inside a later block, must come out as if read
// one record at a time.
// From 65,536 records the read runs on two threads (points and faces on one, normals and
// colours on the other, the normals' indices by turns), asking for pages 131,072 records at
// a time; the colours start inside the first slice or well past it. Every value is checked.
class StlBinaryBlocks : public testing::TestWithParam<std::pair<int, int>> {};
INSTANTIATE_TEST_SUITE_P(Sizes, StlBinaryBlocks,
                         testing::Values(std::pair(7, 0), std::pair(2500, 1500), std::pair(400000, 1500),
                                         std::pair(400000, 200000)));

TEST_P(StlBinaryBlocks, AcrossBlocksWithLateColours) {
    const int n = GetParam().first;
    const int firstColour = GetParam().second;
    std::vector<Tri> tris(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        Tri& t = tris[static_cast<size_t>(i)];
        for (int k = 0; k < 3; ++k) t.n[k] = static_cast<float>(i) + 0.25f * static_cast<float>(k);
        for (int k = 0; k < 9; ++k) t.v[k] = static_cast<float>(i * 9 + k);
        t.attr = (i >= firstColour && i % 7 == 3) ? static_cast<uint16_t>(0x8000 | (i & 0x7FFF))
                                                  : static_cast<uint16_t>(i & 0x7FFF);
    }
    auto r = ReadBytes<CStlIo>(BinaryStl(tris), "blocks.stl");
    ASSERT_TRUE(r.scene);
    C3DGeomObject* obj = FirstMesh(*r.scene);
    const C3DPointList& pts = *obj->GetPointList();
    const C3DFaceList& fl = *obj->GetFaceList();
    auto* sn = static_cast<CSpecNormalChannel*>(obj->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
    CVCChannel* vc = obj->GetGlobalVCChannel();
    ASSERT_TRUE(sn && vc);
    ASSERT_EQ(pts.GetSize(), 3 * n);
    ASSERT_EQ(fl.GetNumberOfFaces(), n);
    ASSERT_EQ(sn->GetNormalVectorList()->GetSize(), 3 * n); // three per triangle, the rest zero
    ASSERT_EQ(sn->GetNormalFaceList()->GetNumberOfFaces(), n);
    ASSERT_EQ(vc->GetVCFaceList()->GetNumberOfFaces(), n);
    uint32_t k = 0;
    for (int i = 0; i < n; ++i) {
        ASSERT_EQ(pts.GetData()[size_t(i) * 9 + 4], static_cast<float>(i * 9 + 4)) << i;
        const uint32_t b3 = static_cast<uint32_t>(i) * 3;
        ASSERT_EQ(FaceOf(fl, i), (std::vector<uint32_t>{b3, b3 + 1, b3 + 2})) << i;
        ASSERT_EQ(fl.GetMaterialID(i), NO_MATERIAL);
        ASSERT_EQ(fl.GetFaceFlags(i) | sn->GetNormalFaceList()->GetFaceFlags(i), 0u) << i;
        ASSERT_EQ(sn->GetNormalVectorList()->GetPoint(i).z, static_cast<float>(i) + 0.5f) << i;
        ASSERT_EQ(sn->GetNormalVectorList()->GetPoint(n + i).z, 0.0f) << i;
        const uint32_t u = static_cast<uint32_t>(i);
        ASSERT_EQ(FaceOf(*sn->GetNormalFaceList(), i), (std::vector<uint32_t>{u, u, u})) << i;
        const bool coloured = i >= firstColour && i % 7 == 3;
        ASSERT_EQ(vc->GetVCFaceList()->IsFaceFlagSet(i, FACE_SKIP), !coloured) << i;
        const uint32_t c = coloured ? k++ : 0;
        ASSERT_EQ(FaceOf(*vc->GetVCFaceList(), i), (std::vector<uint32_t>{c, c, c})) << i;
    }
    ASSERT_EQ(vc->GetVCPointList()->GetSize(), static_cast<int>(k));
    const CRGBColor last = (*vc->GetVCPointList())[static_cast<int>(k) - 1];
    const int lastI = n - 1 - ((n - 1 - 3) % 7); // the last i with i % 7 == 3
    EXPECT_EQ(last.r, static_cast<uint8_t>(lastI * 8));
    EXPECT_EQ(last.g, static_cast<uint8_t>((lastI >> 5) * 8));
    EXPECT_EQ(last.b, static_cast<uint8_t>(((0x8000 | lastI) >> 7) & 0x1F8));
    EXPECT_EQ(last.a, 255);
}

// A vertex line short of numbers is read as scanf reads it (the numbers there are taken,
// the missing ones stay 0) and the read goes on: no facet after it is lost.
TEST(StlRead, ShortVertexLinesDoNotEndTheRead) {
    std::string text = kAscii;
    text.replace(text.find("vertex 3 0 0"), 12, "vertex 3 7");
    text.replace(text.find("vertex 2 1 0"), 12, "vertex");
    text.replace(text.find("vertex 1 0 0"), 12, "vertex 9 x 4");
    auto r = ReadBytes<CStlIo>(text, "sv.stl");
    ASSERT_TRUE(r.scene) << r.error;
    const C3DGeomObject* obj = FirstMesh(*r.scene);
    ASSERT_EQ(obj->GetFaceList()->GetNumberOfFaces(), 2);
    ASSERT_EQ(obj->GetPointList()->GetSize(), 6);
    EXPECT_EQ(obj->GetPointList()->GetPoint(1), C3DPoint(9, 0, 0)); // stops at "x": 4 is not read
    EXPECT_EQ(obj->GetPointList()->GetPoint(3), C3DPoint(2, 0, 0));
    EXPECT_EQ(obj->GetPointList()->GetPoint(4), C3DPoint(3, 7, 0));
    EXPECT_EQ(obj->GetPointList()->GetPoint(5), C3DPoint(0, 0, 0));
    EXPECT_EQ(FaceOf(*obj->GetFaceList(), 1), (std::vector<uint32_t>{5, 4, 3}));
    ASSERT_EQ(r.log.size(), 1u);
    EXPECT_EQ(r.log[0].text, L"3 vertex line(s) with fewer than three numbers; the missing coordinates read as 0");

    // A short line in the middle of many facets: every facet is there.
    std::string many = "solid m\n";
    for (int f = 0; f < 100; ++f) {
        many += "facet normal 0 0 1\nouter loop\n";
        many += f == 10 ? "vertex 1\n" : "vertex 0 0 " + std::to_string(f) + "\n";
        many += "vertex 1 0 0\nvertex 0 1 0\nendloop\nendfacet\n";
    }
    many += "endsolid m\n";
    auto m = ReadBytes<CStlIo>(many, "many.stl");
    ASSERT_TRUE(m.scene);
    const C3DGeomObject* mo = FirstMesh(*m.scene);
    ASSERT_EQ(mo->GetFaceList()->GetNumberOfFaces(), 100);
    EXPECT_EQ(mo->GetPointList()->GetPoint(30), C3DPoint(1, 0, 0));
    EXPECT_EQ(mo->GetPointList()->GetPoint(297), C3DPoint(0, 0, 99));
}

// ASCII files saved with a byte order mark: UTF-8, and UTF-16 in either byte order.
TEST(StlRead, AsciiWithByteOrderMarks) {
    auto utf16 = [](const std::string& ascii, bool bigEndian) {
        std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
        for (char c : ascii) {
            if (bigEndian) out.push_back('\0');
            out.push_back(c);
            if (!bigEndian) out.push_back('\0');
        }
        return out;
    };
    const std::string named = std::string(kAscii).replace(6, 4, "p\xC3\xA4rt"); // "solid pärt"
    const std::vector<std::string> files = {"\xEF\xBB\xBF" + named,
                                            utf16("solid p\xE4rt" + std::string(kAscii).substr(10), false),
                                            utf16("solid p\xE4rt" + std::string(kAscii).substr(10), true)};
    for (size_t i = 0; i < files.size(); ++i) {
        auto r = ReadBytes<CStlIo>(files[i], "bom.stl");
        ASSERT_TRUE(r.scene) << i << " error " << r.error;
        C3DSceneNode* node = nullptr;
        const C3DGeomObject* obj = FirstMesh(*r.scene, &node);
        EXPECT_EQ(node->GetName(), L"p\u00E4rt") << i;
        ASSERT_EQ(obj->GetFaceList()->GetNumberOfFaces(), 2) << i;
        EXPECT_EQ(obj->GetPointList()->GetPoint(5), C3DPoint(2, 1, 0)) << i;
    }
}
