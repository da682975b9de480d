// DXF reader: hand-written drawings with known geometry, one entity kind at a time,
// then blocks, layers, colours, units, the binary form and hostile input.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iostream>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "formats/classic/CDxfIo.h"
#include "formats/classic/DxfColors.h"
#include "formats/classic/DxfReader.h"
#include "formats/classic/DxfTags.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/Object.h"
#include "tests/classic/ClassicTestSupport.h"

using classictest::AllNodes;

namespace {

using Pairs = std::vector<std::pair<int, std::string>>;

std::string Text(const Pairs& pairs, const char* eol = "\n") {
    std::string s;
    for (auto& [c, v] : pairs) s += std::to_string(c) + eol + v + eol;
    return s;
}

// A drawing with ENTITIES only (and optional sections before it).
std::string Drawing(const Pairs& entities, const Pairs& before = {}) {
    Pairs all = before;
    all.push_back({0, "SECTION"});
    all.push_back({2, "ENTITIES"});
    all.insert(all.end(), entities.begin(), entities.end());
    all.push_back({0, "ENDSEC"});
    all.push_back({0, "EOF"});
    return Text(all);
}

struct Read {
    std::unique_ptr<C3DScene> scene;
    int error = 0;
    std::vector<IoLogInfo> log;
};

Read ReadBytes(const std::string& bytes) {
    CFileIo io;
    CDxfIo parser(io);
    CSceneImportOptions opt;
    Read r;
    r.scene.reset(parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, opt));
    r.error = io.GetIoError();
    r.log = opt.GetLog();
    return r;
}

// Geometry nodes of a kind, in tree order.
std::vector<C3DSceneNode*> OfKind(const C3DScene& s, uint32_t kind) {
    std::vector<C3DSceneNode*> out;
    for (C3DSceneNode* n : AllNodes(s))
        if (n->GetBaseObject() && n->GetKindOf() == kind) out.push_back(n);
    return out;
}

std::vector<C3DPoint> FacePoints(const C3DGeomObject& g, int f) {
    std::vector<C3DPoint> out;
    for (uint32_t i : g.GetFaceList()->Face(f)) out.push_back(g.GetPointList()->GetPoint(static_cast<int>(i)));
    return out;
}

void ExpectNear(const C3DPoint& p, float x, float y, float z, float eps = 1e-4f) {
    EXPECT_NEAR(p.x, x, eps);
    EXPECT_NEAR(p.y, y, eps);
    EXPECT_NEAR(p.z, z, eps);
}

uint32_t RgbOf(const C3DScene& s, uint32_t materialID) {
    const C3DMaterial* m = s.GetMaterialByID(materialID);
    if (!m) return 0xFFFFFFFFu;
    const CRGBColor& c = m->GetDiffuseColor();
    return (uint32_t(c.r) << 16) | (uint32_t(c.g) << 8) | c.b;
}

bool Logged(const Read& r, const std::wstring& part) {
    for (auto& l : r.log)
        if (std::wstring(l.text.view()).find(part) != std::wstring::npos) return true;
    return false;
}

} // namespace

TEST(DxfTags, LineEndsAlignedCodesAndBadCodes) {
    for (const char* eol : {"\n", "\r\n", "\r"}) {
        const std::string s = std::string("  0") + eol + "SECTION " + eol + " 10" + eol + "1.5e1" + eol;
        CDxfTagReader r({reinterpret_cast<const uint8_t*>(s.data()), s.size()});
        CDxfTag t;
        ASSERT_TRUE(r.Next(t)) << eol;
        EXPECT_EQ(t.code, 0);
        EXPECT_EQ(t.text, "SECTION");
        ASSERT_TRUE(r.Next(t));
        double d = 0;
        EXPECT_TRUE(CDxfTagReader::ToDouble(t, d));
        EXPECT_EQ(d, 15.0);
        EXPECT_FALSE(r.Next(t));
        EXPECT_FALSE(r.Failed());
    }
    // A code that is not a number stops reading and says so; a missing last value does not.
    const std::string bad = "0\nSECTION\nx1\nfoo\n";
    CDxfTagReader r1({reinterpret_cast<const uint8_t*>(bad.data()), bad.size()});
    CDxfTag t;
    EXPECT_TRUE(r1.Next(t));
    EXPECT_FALSE(r1.Next(t));
    EXPECT_TRUE(r1.Failed());
    const std::string cut = "0\nSECTION\n70";
    CDxfTagReader r2({reinterpret_cast<const uint8_t*>(cut.data()), cut.size()});
    EXPECT_TRUE(r2.Next(t));
    EXPECT_FALSE(r2.Next(t));
    EXPECT_FALSE(r2.Failed());
    // Numbers: lenient about "1.0" in integer codes, strict about junk.
    CDxfTag v;
    long long i = 0;
    v.text = "1.0";
    EXPECT_TRUE(CDxfTagReader::ToInt(v, i));
    EXPECT_EQ(i, 1);
    // The quick decimal path gives the same doubles as the full parse.
    uint64_t state = 12345;
    for (int n = 0; n < 20000; ++n) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        const int frac = static_cast<int>(state >> 60) % 9;
        std::string text = (state & 1 ? "-" : "") + std::to_string((state >> 20) % 100000000);
        if (frac) text.insert(text.size() - std::min<size_t>(text.size() - (state & 1), frac), ".");
        for (const std::string& s : {text, text + "e3", std::string("0.1000000000000000055511151231257827")}) {
            v.text = s;
            double mine = 0, full = 0;
            ASSERT_TRUE(CDxfTagReader::ToDouble(v, mine)) << s;
            std::from_chars(s.data(), s.data() + s.size(), full);
            ASSERT_EQ(mine, full) << s;
        }
    }
    v.text = "1,5";
    double d = 7;
    EXPECT_FALSE(CDxfTagReader::ToDouble(v, d));
    EXPECT_EQ(d, 7);
}

// Pairs are read in place a word at a time; a plain line-by-line reading (trim, then the
// library's parse) must see the same codes, texts and numbers, near the end of the data too.
TEST(DxfTags, InPlaceReadingAgreesWithLineByLine) {
    uint64_t state = 777;
    auto next = [&state](uint64_t n) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return (state >> 33) % n;
    };
    auto digits = [&](uint64_t n) {
        std::string d;
        for (uint64_t i = 0; i < n; ++i) d += static_cast<char>('0' + next(10));
        return d;
    };
    for (int round = 0; round < 3000; ++round) {
        const char* eol = next(4) == 0 ? "\r\n" : next(8) == 0 ? "\r" : "\n";
        std::vector<std::pair<int, std::string>> pairs;
        std::string s;
        const int count = 1 + static_cast<int>(next(round % 2 ? 3 : 12)); // short streams test the tail
        for (int k = 0; k < count; ++k) {
            const int code = static_cast<int>(next(10) == 0 ? next(100000000) : next(1100));
            std::string value;
            switch (next(6)) {
            case 0: value = "LAYER" + digits(next(12)); break;
            case 1: value = digits(1 + next(9)); break;
            default: {
                value = (next(5) == 0 ? "-" : next(9) == 0 ? "+" : "") + digits(next(11));
                if (next(4)) value += "." + digits(next(11));
                if (next(10) == 0) value += "e" + digits(1 + next(2));
            }
            }
            pairs.push_back({code, value});
            s += std::string(next(4) == 0 ? next(4) : 0, ' ') + std::to_string(code) + (next(6) == 0 ? " " : "") + eol;
            s += (next(8) == 0 ? " " : "") + value + (next(8) == 0 ? "\t" : "") + eol;
        }
        if (next(3) == 0 && !pairs.back().second.empty())
            s.resize(s.size() - std::strlen(eol)); // no line end after the last value
        CDxfTagReader r({reinterpret_cast<const uint8_t*>(s.data()), s.size()});
        CDxfTag t;
        for (const auto& [code, value] : pairs) {
            ASSERT_TRUE(r.Next(t)) << s;
            ASSERT_EQ(t.code, code) << s;
            ASSERT_EQ(t.text, value) << s;
            const char* b = value.data() + (value[0] == '+' ? 1 : 0);
            double full = 0, mine = 0;
            const auto [end, ec] = std::from_chars(b, value.data() + value.size(), full);
            const bool number = ec == std::errc() && end == value.data() + value.size() && b != end;
            ASSERT_EQ(CDxfTagReader::ToDouble(t, mine), number) << value;
            if (number) { ASSERT_EQ(mine, full) << value; }
        }
        EXPECT_FALSE(r.Next(t));
        EXPECT_FALSE(r.Failed()) << s;
    }
}

// Text is read in 64-byte blocks (line ends from bit masks, lines checked 16 bytes at a
// time) where SSE2 is there, and a line at a time elsewhere: on random streams (LF, CRLF
// or CR, stray CRs, blanks, long lines across block ends, bad codes, numbers of every
// length, no final line end) both must give the same pairs, stop at the same byte and
// fail alike.
TEST(DxfTags, BlockReadingAgreesWithLineByLine) {
#if !DXF_BLOCK_LINES
    GTEST_SKIP() << "no block reading on this target";
#endif
    uint64_t state = 4242;
    auto next = [&state](uint64_t n) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return (state >> 33) % n;
    };
    auto digits = [&](uint64_t n) {
        std::string d;
        for (uint64_t i = 0; i < n; ++i) d += static_cast<char>('0' + next(10));
        return d;
    };
    auto blanks = [&] { return std::string(next(5) == 0 ? 1 + next(3) : 0, next(3) == 0 ? '\t' : ' '); };
    size_t pairsSeen = 0, numbersSeen = 0, failures = 0;
    for (int round = 0; round < 4000; ++round) {
        const uint64_t kind = next(8);
        const std::string eol = kind < 4 ? "\n" : kind < 6 ? "\r\n" : "\r";
        std::string s = next(4) == 0 ? std::string(next(70), ' ') + "999" + eol + "padding" + eol : "";
        const int count = 1 + static_cast<int>(next(round % 3 ? 40 : 4));
        for (int k = 0; k < count; ++k) {
            std::string code;
            switch (next(12)) {
            case 0: code = blanks() + std::to_string(next(100000)) + blanks(); break;
            case 1: code = std::string(next(9), ' ') + std::to_string(next(1100)); break; // right-aligned
            case 2: code = (next(2) ? "-" : "+") + std::to_string(next(1000)); break;
            case 3: code = next(40) == 0 ? "x" + digits(1) : digits(1 + next(10)); break; // rarely not a code
            case 4:
                if (next(20) == 0) // digits and any other bytes: rarely a code
                    for (uint64_t n = 1 + next(3); n; --n)
                        code += static_cast<char>(next(2) ? 48 + next(10) : 1 + next(255));
                else code = std::to_string(next(1000));
                break;
            default: code = std::to_string(next(400));
            }
            std::string value;
            switch (next(10)) {
            case 0: value = "LAYER" + digits(next(4)); break;
            case 1: value = std::string(40 + next(100), 'a' + static_cast<char>(next(26))); break; // across blocks
            case 2:
                value = blanks() + (next(2) ? "-" : "") + digits(next(3)) + "." + digits(next(18)) + blanks();
                break;
            case 3: value = digits(next(20)) + (next(3) == 0 ? "e-" + digits(1 + next(2)) : ""); break;
            case 4: value = next(2) ? "" : next(2) ? "-" : next(2) ? "." : "-."; break;
            case 5: value = "1.5" + std::string(next(2) ? "\r" : "\r\r") + "x"; break; // a CR inside the line
            default: {
                value = (next(3) == 0 ? "-" : next(12) == 0 ? "+" : "") + digits(next(9));
                if (next(4)) value += "." + digits(next(9));
            }
            }
            s += code + (next(10) == 0 ? "\r" : "") + eol + value + eol;
        }
        switch (next(4)) {
        case 0: s.resize(s.size() - eol.size()); break; // no line end after the last value
        case 1: s += blanks() + eol; break;             // a blank line at the end
        default: break;
        }
        if (next(3) == 0) s.resize(next(s.size() + 1)); // cut anywhere, mid-line included
        const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(s.data()), s.size());
        CDxfTagReader blocks(bytes), lines(bytes, true);
        CDxfTag a, b;
        for (;;) {
            const bool more = blocks.Next(a);
            ASSERT_EQ(more, lines.Next(b)) << s;
            if (!more) break;
            ++pairsSeen;
            ASSERT_EQ(a.code, b.code) << s;
            ASSERT_EQ(a.text, b.text) << s;
            ASSERT_EQ(a.hasNumber, b.hasNumber) << a.text;
            if (a.hasNumber) {
                ++numbersSeen;
                ASSERT_EQ(std::bit_cast<uint64_t>(a.number), std::bit_cast<uint64_t>(b.number)) << a.text;
            }
        }
        ASSERT_EQ(blocks.Failed(), lines.Failed()) << s;
        ASSERT_EQ(blocks.Position(), lines.Position()) << s;
        failures += blocks.Failed();
    }
    // The streams reached what they were made for.
    EXPECT_GT(pairsSeen, 30000u);
    EXPECT_GT(numbersSeen, 10000u);
    EXPECT_GT(failures, 50u);
}

TEST(DxfColors, IndexTable) {
    EXPECT_EQ(DxfAciToRgb(1), 0xFF0000u);
    EXPECT_EQ(DxfAciToRgb(7), 0xFFFFFFu);
    EXPECT_EQ(DxfAciToRgb(-5), 0x0000FFu); // a layer that is off keeps its colour
    EXPECT_EQ(DxfAciToRgb(30), 0xFF7F00u);
    EXPECT_EQ(DxfAciToRgb(254), 0xD6D6D6u);
    EXPECT_EQ(DxfAciToRgb(0), 0xFFFFFFu);
    EXPECT_EQ(DxfAciToRgb(256), 0xFFFFFFu);
}

TEST(DxfRead, FacesSolidsAndTheirCornerOrder) {
    Read r = ReadBytes(Drawing({
        // Corners written last to first; the fourth equals the third: a triangle.
        {0, "3DFACE"},
        {8, "F"},
        {13, "1"},
        {23, "1"},
        {33, "0"},
        {12, "1"},
        {22, "1"},
        {32, "0"},
        {11, "1"},
        {21, "0"},
        {31, "0"},
        {10, "0"},
        {20, "0"},
        {30, "0"},
        {0, "3DFACE"},
        {8, "F"},
        {10, "0"},
        {20, "0"},
        {30, "1"},
        {11, "1"},
        {21, "0"},
        {31, "1"},
        {12, "1"},
        {22, "1"},
        {32, "1"},
        {13, "0"},
        {23, "1"},
        {33, "1"},
        // All corners equal: nothing.
        {0, "3DFACE"},
        {8, "F"},
        {10, "2"},
        {11, "2"},
        {12, "2"},
        {13, "2"},
        // SOLID: drawn 1, 2, 4, 3 at the elevation of 30.
        {0, "SOLID"},
        {8, "F"},
        {10, "0"},
        {20, "0"},
        {30, "5"},
        {11, "1"},
        {21, "0"},
        {12, "0"},
        {22, "1"},
        {13, "1"},
        {23, "1"},
    }));
    ASSERT_TRUE(r.scene);
    auto meshes = OfKind(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 1u);
    const C3DGeomObject& g = *meshes[0]->GetGeomObject();
    ASSERT_EQ(g.GetFaceList()->GetNumberOfFaces(), 3);
    auto tri = FacePoints(g, 0);
    ASSERT_EQ(tri.size(), 3u);
    ExpectNear(tri[0], 0, 0, 0);
    ExpectNear(tri[2], 1, 1, 0);
    EXPECT_EQ(FacePoints(g, 1).size(), 4u);
    auto solid = FacePoints(g, 2);
    ASSERT_EQ(solid.size(), 4u);
    ExpectNear(solid[0], 0, 0, 5);
    ExpectNear(solid[1], 1, 0, 5);
    ExpectNear(solid[2], 1, 1, 5);
    ExpectNear(solid[3], 0, 1, 5);
    // The layer is a node holding the mesh.
    ASSERT_TRUE(meshes[0]->GetParent());
    EXPECT_EQ(meshes[0]->GetParent()->GetName(), CXStringW(L"F"));
}

TEST(DxfRead, PolyfaceMeshWithBadIndices) {
    Pairs e = {{0, "POLYLINE"}, {8, "P"}, {66, "1"}, {70, "64"}, {71, "99"}, {72, "1"}};
    const char* xyz[4][3] = {{"0", "0", "0"}, {"1", "0", "0"}, {"1", "1", "0"}, {"0", "1", "0"}};
    for (auto& v : xyz) {
        Pairs p = {{0, "VERTEX"}, {8, "P"}, {10, v[0]}, {20, v[1]}, {30, v[2]}, {70, "192"}};
        e.insert(e.end(), p.begin(), p.end());
    }
    auto face = [&](std::vector<const char*> idx) {
        e.push_back({0, "VERTEX"});
        e.push_back({70, "128"});
        for (size_t k = 0; k < idx.size(); ++k) e.push_back({71 + static_cast<int>(k), idx[k]});
    };
    face({"1", "-2", "3", "4"}); // negative: invisible edge, same vertex
    face({"1", "2", "3", "0"});  // 0 ends the list: a triangle
    face({"1", "2", "9"});       // beyond the vertices: dropped
    face({"1", "1", "2"});       // two distinct corners: dropped
    e.push_back({0, "SEQEND"});
    Read r = ReadBytes(Drawing(e));
    ASSERT_TRUE(r.scene);
    auto meshes = OfKind(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 1u);
    const C3DGeomObject& g = *meshes[0]->GetGeomObject();
    ASSERT_EQ(g.GetFaceList()->GetNumberOfFaces(), 2);
    auto q = FacePoints(g, 0);
    ASSERT_EQ(q.size(), 4u);
    ExpectNear(q[1], 1, 0, 0);
    EXPECT_EQ(FacePoints(g, 1).size(), 3u);
    EXPECT_TRUE(Logged(r, L"out of range"));
}

TEST(DxfRead, PolygonMeshClosedEitherWay) {
    auto mesh = [](int flags) {
        Pairs e = {{0, "POLYLINE"}, {70, std::to_string(16 | flags)}, {71, "3"}, {72, "4"}};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j) {
                Pairs p = {{0, "VERTEX"}, {70, "64"}, {10, std::to_string(j)}, {20, std::to_string(i)}, {30, "0"}};
                e.insert(e.end(), p.begin(), p.end());
            }
        e.push_back({0, "SEQEND"});
        Read r = ReadBytes(Drawing(e));
        auto meshes = OfKind(*r.scene, KINDOF_MESH);
        return meshes.size() == 1 ? meshes[0]->GetGeomObject()->GetFaceList()->GetNumberOfFaces() : -1;
    };
    EXPECT_EQ(mesh(0), 2 * 3);
    EXPECT_EQ(mesh(1), 3 * 3);  // closed in M: the last row joins the first
    EXPECT_EQ(mesh(32), 2 * 4); // closed in N
    EXPECT_EQ(mesh(33), 3 * 4);
}

TEST(DxfRead, CurvesFromLinesArcsAndPolylines) {
    Read r = ReadBytes(Drawing({
        {0, "LINE"},
        {10, "0"},
        {20, "0"},
        {30, "0"},
        {11, "3"},
        {21, "4"},
        {31, "5"},
        // Quarter arc from (7.5,0) to (5,2.5).
        {0, "ARC"},
        {10, "5"},
        {20, "0"},
        {30, "0"},
        {40, "2.5"},
        {50, "0"},
        {51, "90"},
        // Bulge 1 from (0,0) to (2,0): a half circle through (1,-1).
        {0, "LWPOLYLINE"},
        {90, "2"},
        {70, "0"},
        {38, "2"},
        {10, "0"},
        {20, "0"},
        {42, "1"},
        {10, "2"},
        {20, "0"},
        // A circle seen from below: its OCS x axis points the other way.
        {0, "CIRCLE"},
        {10, "1"},
        {20, "0"},
        {30, "0"},
        {40, "1"},
        {210, "0"},
        {220, "0"},
        {230, "-1"},
        // Ellipse, major (4,0,0), ratio 0.5: t = pi/2 gives (0,2,0).
        {0, "ELLIPSE"},
        {10, "0"},
        {20, "0"},
        {30, "0"},
        {11, "4"},
        {21, "0"},
        {31, "0"},
        {40, "0.5"},
        {41, "0"},
        {42, "1.5707963267948966"},
        // Degree 1 spline: exactly its control polygon.
        {0, "SPLINE"},
        {70, "0"},
        {71, "1"},
        {72, "4"},
        {73, "2"},
        {40, "0"},
        {40, "0"},
        {40, "1"},
        {40, "1"},
        {10, "0"},
        {20, "0"},
        {30, "0"},
        {10, "10"},
        {20, "0"},
        {30, "0"},
        {0, "POINT"},
        {10, "1"},
        {20, "2"},
        {30, "3"},
    }));
    ASSERT_TRUE(r.scene);
    auto curves = OfKind(*r.scene, KINDOF_CURVE);
    ASSERT_EQ(curves.size(), 1u);
    const C3DGeomObject& g = *curves[0]->GetGeomObject();
    ASSERT_EQ(g.GetFaceList()->GetNumberOfFaces(), 6);
    auto line = FacePoints(g, 0);
    ASSERT_EQ(line.size(), 2u);
    ExpectNear(line[1], 3, 4, 5);
    auto arc = FacePoints(g, 1);
    ASSERT_EQ(arc.size(), static_cast<size_t>(dxf::kSegmentsPerTurn / 4 + 1));
    ExpectNear(arc.front(), 7.5f, 0, 0);
    ExpectNear(arc.back(), 5, 2.5f, 0);
    auto bulge = FacePoints(g, 2);
    ExpectNear(bulge[bulge.size() / 2], 1, -1, 2);
    ExpectNear(bulge.back(), 2, 0, 2);
    auto circle = FacePoints(g, 3);
    EXPECT_EQ(circle.front().x, circle.back().x); // closed: the first index again
    ExpectNear(circle[0], -2, 0, 0);              // OCS x is world -x: centre (-1,0,0), angle 0 at x = -2
    ExpectNear(circle[dxf::kSegmentsPerTurn / 4], -1, 1, 0);
    auto ellipse = FacePoints(g, 4);
    ExpectNear(ellipse.back(), 0, 2, 0);
    auto spline = FacePoints(g, 5);
    ExpectNear(spline.front(), 0, 0, 0);
    ExpectNear(spline.back(), 10, 0, 0);
    ExpectNear(spline[spline.size() / 2], 5, 0, 0);
    auto points = OfKind(*r.scene, KINDOF_POINTCLOUD);
    ASSERT_EQ(points.size(), 1u);
    ExpectNear(points[0]->GetGeomObject()->GetPointList()->GetPoint(0), 1, 2, 3);
}

TEST(DxfRead, LayersColoursAndUnits) {
    const Pairs header = {{0, "SECTION"}, {2, "HEADER"}, {9, "$ACADVER"}, {1, "AC1015"}, {9, "$INSUNITS"},
                          {70, "4"},      {0, "ENDSEC"}, {0, "SECTION"},  {2, "TABLES"}, {0, "TABLE"},
                          {2, "LAYER"},   {0, "LAYER"},  {2, "Red"},      {70, "0"},     {62, "1"},
                          {0, "LAYER"},   {2, "Off"},    {70, "0"},       {62, "-5"},    {0, "LAYER"},
                          {2, "Frozen"},  {70, "1"},     {62, "3"},       {0, "LAYER"},  {2, "red"},
                          {70, "0"},      {62, "2"}, // same name: the first wins
                          {0, "ENDTAB"},  {0, "ENDSEC"}};
    auto face = [](const char* layer, std::vector<std::pair<int, std::string>> extra) {
        Pairs p = {{0, "3DFACE"}, {8, layer}, {10, "0"}, {11, "1"}, {12, "1"}, {22, "1"}, {13, "0"}, {23, "1"}};
        p.insert(p.end(), extra.begin(), extra.end());
        return p;
    };
    Pairs e;
    for (auto p : {face("RED", {}), face("Red", {{62, "3"}}), face("Red", {{420, "16744448"}}), face("Off", {}),
                   face("Frozen", {}), face("Nowhere", {})})
        e.insert(e.end(), p.begin(), p.end());
    Read r = ReadBytes(Drawing(e, header));
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetUnit(), UNIT_MILLIMETER);
    EXPECT_DOUBLE_EQ(r.scene->GetScaleFactor(), 0.1);
    C3DSceneNode* red = r.scene->FindNodeByName(CXStringW(L"Red"));
    ASSERT_TRUE(red && red->GetChildNode());
    const C3DGeomObject& g = *red->GetChildNode()->GetGeomObject();
    ASSERT_EQ(g.GetFaceList()->GetNumberOfFaces(), 3);
    EXPECT_EQ(RgbOf(*r.scene, g.GetFaceList()->GetMaterialID(0)), 0xFF0000u); // by layer
    EXPECT_EQ(RgbOf(*r.scene, g.GetFaceList()->GetMaterialID(1)), 0x00FF00u); // own colour number
    EXPECT_EQ(RgbOf(*r.scene, g.GetFaceList()->GetMaterialID(2)), 0xFF8000u); // true colour
    C3DSceneNode* off = r.scene->FindNodeByName(CXStringW(L"Off"));
    C3DSceneNode* frozen = r.scene->FindNodeByName(CXStringW(L"Frozen"));
    ASSERT_TRUE(off && frozen);
    EXPECT_TRUE(off->IsFlagSet(NODE_HIDDEN));
    EXPECT_TRUE(frozen->IsFlagSet(NODE_HIDDEN));
    EXPECT_TRUE(frozen->IsFlagSet(NODE_FROZEN));
    EXPECT_FALSE(red->IsFlagSet(NODE_HIDDEN));
    EXPECT_EQ(RgbOf(*r.scene, off->GetChildNode()->GetGeomObject()->GetFaceList()->GetMaterialID(0)), 0x0000FFu);
    // A layer nobody defined: white.
    C3DSceneNode* nowhere = r.scene->FindNodeByName(CXStringW(L"Nowhere"));
    ASSERT_TRUE(nowhere);
    EXPECT_EQ(RgbOf(*r.scene, nowhere->GetChildNode()->GetGeomObject()->GetFaceList()->GetMaterialID(0)), 0xFFFFFFu);
}

namespace {

Pairs Block(const std::string& name, double bx, double by, const Pairs& content) {
    Pairs p = {{0, "BLOCK"}, {8, "0"}, {2, name}, {70, "0"}, {10, std::to_string(bx)}, {20, std::to_string(by)},
               {30, "0"},    {3, name}};
    p.insert(p.end(), content.begin(), content.end());
    p.push_back({0, "ENDBLK"});
    return p;
}

Pairs Blocks(const std::vector<Pairs>& blocks) {
    Pairs p = {{0, "SECTION"}, {2, "BLOCKS"}};
    for (auto& b : blocks) p.insert(p.end(), b.begin(), b.end());
    p.push_back({0, "ENDSEC"});
    return p;
}

const Pairs kUnitFace = {{0, "3DFACE"}, {8, "0"},  {62, "0"}, {10, "1"}, {20, "0"}, {30, "0"}, {11, "2"}, {21, "0"},
                         {31, "0"},     {12, "2"}, {22, "1"}, {32, "0"}, {13, "2"}, {23, "1"}, {33, "0"}};

C3DPoint World(const C3DSceneNode& n, const C3DPoint& p) {
    C4x4Matrix tm;
    n.GetNodeTM(0, tm);
    return tm.TransformPoint(p);
}

} // namespace

TEST(DxfRead, InsertPlacementArraysAndNesting) {
    // Block A: one triangle from (1,0) with base point (1,0). Inserted at (10,0), rotated 90,
    // scaled 2: block (2,0) goes to 10 + R90(2*(1,0)) = (10,2).
    const Pairs blocks =
        Blocks({Block("A", 1, 0, kUnitFace),
                Block("B", 0, 0, {{0, "INSERT"}, {8, "0"}, {2, "a"}, {10, "0"}, {20, "0"}, {30, "5"}})});
    Read r = ReadBytes(Drawing({{0, "INSERT"},
                                {8, "L"},
                                {62, "1"},
                                {2, "A"},
                                {10, "10"},
                                {20, "0"},
                                {30, "0"},
                                {41, "2"},
                                {42, "2"},
                                {43, "2"},
                                {50, "90"},
                                {0, "INSERT"},
                                {8, "L"},
                                {2, "B"},
                                {70, "3"},
                                {71, "2"},
                                {44, "100"},
                                {45, "1000"}},
                               blocks));
    ASSERT_TRUE(r.scene);
    auto meshes = OfKind(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 1u + 6u); // one instance, then 3 x 2 of the nested one
    const C3DGeomObject& g = *meshes[0]->GetGeomObject();
    ExpectNear(World(*meshes[0], g.GetPointList()->GetPoint(1)), 10, 2, 0);
    // BYBLOCK content takes the INSERT's colour.
    EXPECT_EQ(RgbOf(*r.scene, g.GetFaceList()->GetMaterialID(0)), 0xFF0000u);
    EXPECT_EQ(meshes[0]->GetParent()->GetName(), CXStringW(L"A"));
    // The array: columns along x every 100, rows along y every 1000; nested z of 5.
    std::vector<C3DPoint> origins;
    for (size_t i = 1; i < meshes.size(); ++i) origins.push_back(World(*meshes[i], {1, 0, 0}));
    ExpectNear(origins[0], 0, 0, 5);
    ExpectNear(origins[2], 200, 0, 5);
    ExpectNear(origins[5], 200, 1000, 5);
    // BYBLOCK at the top level: white.
    EXPECT_EQ(RgbOf(*r.scene, meshes[1]->GetGeomObject()->GetFaceList()->GetMaterialID(0)), 0xFFFFFFu);
}

TEST(DxfRead, MirroredInsertTurnsFacesOver) {
    const Pairs blocks = Blocks({Block("A", 0, 0, kUnitFace)});
    Read r = ReadBytes(Drawing({{0, "INSERT"}, {2, "A"}, {41, "-1"}, {0, "INSERT"}, {2, "A"}}, blocks));
    auto meshes = OfKind(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 2u);
    auto a = meshes[0]->GetGeomObject()->GetFaceList()->Face(0);
    auto b = meshes[1]->GetGeomObject()->GetFaceList()->Face(0);
    EXPECT_EQ(a[0], b[2]);
    EXPECT_EQ(a[2], b[0]);
}

TEST(DxfRead, HostileBlocksAreBounded) {
    // A block that inserts itself, twice: expanded once, then the cycle is cut.
    {
        const Pairs blocks = Blocks({Block("S", 0, 0, {kUnitFace.begin(), kUnitFace.end()})});
        Pairs self = blocks;
        self.insert(self.end() - 2, {{0, "INSERT"}, {2, "S"}});
        Read r = ReadBytes(Drawing({{0, "INSERT"}, {2, "S"}}, self));
        ASSERT_TRUE(r.scene);
        EXPECT_EQ(OfKind(*r.scene, KINDOF_MESH).size(), 1u);
        EXPECT_TRUE(Logged(r, L"inserts itself"));
    }
    // Each block inserts the next one twice, 60 deep: 2^60 instances unless capped.
    {
        std::vector<Pairs> chain;
        for (int i = 0; i < 60; ++i) {
            Pairs c = kUnitFace;
            const std::string next = "B" + std::to_string(i + 1);
            c.insert(c.end(), {{0, "INSERT"}, {2, next}, {0, "INSERT"}, {2, next}});
            chain.push_back(Block("B" + std::to_string(i), 0, 0, c));
        }
        Read r = ReadBytes(Drawing({{0, "INSERT"}, {2, "B0"}}, Blocks(chain)));
        ASSERT_TRUE(r.scene);
        EXPECT_LE(static_cast<size_t>(r.scene->GetNodeCount()), 2 * dxf::kMaxInstances + 2);
        EXPECT_TRUE(Logged(r, L"Too many block insertions"));
    }
    // A million nested INSERTs: depth is cut, no deep recursion.
    {
        std::string s = "0\nSECTION\n2\nBLOCKS\n";
        for (int i = 0; i < 1000000; ++i)
            s += "0\nBLOCK\n2\nN" + std::to_string(i) + "\n0\nINSERT\n2\nN" + std::to_string(i + 1) + "\n0\nENDBLK\n";
        s += "0\nENDSEC\n" + Drawing({{0, "INSERT"}, {2, "N0"}, {0, "POINT"}});
        Read r = ReadBytes(s);
        ASSERT_TRUE(r.scene);
        EXPECT_TRUE(Logged(r, L"nest too deeply"));
        EXPECT_LE(r.scene->GetNodeCount(), dxf::kMaxInsertDepth + 4);
    }
    // 32767 x 32767 array.
    {
        const Pairs blocks = Blocks({Block("A", 0, 0, kUnitFace)});
        const std::string bytes = Drawing({{0, "INSERT"}, {2, "A"}, {70, "32767"}, {71, "32767"}}, blocks);
        Read r = ReadBytes(bytes);
        ASSERT_TRUE(r.scene);
        // A small file gets few placements: a few bytes must not buy a huge scene.
        EXPECT_LE(OfKind(*r.scene, KINDOF_MESH).size(), 4096 + bytes.size() / 16);
        EXPECT_TRUE(Logged(r, L"Too many block insertions"));
    }
}

TEST(DxfRead, InsertsInsideBlocksKeepTheirCountsAndOrder) {
    // A names blocks that do not exist, the paper space, and B twice (once in another
    // case); B is defined after A, and again later (the first definition wins).
    const Pairs ins = {{0, "INSERT"}, {2, "X"}, {0, "INSERT"}, {2, "b"}, {0, "INSERT"}, {2, "*Paper_Space"},
                       {0, "INSERT"}, {2, "x"}, {0, "INSERT"}, {2, "B"}, {10, "5"}};
    Pairs inB = kUnitFace;
    inB.insert(inB.end(), {{0, "INSERT"}, {2, "Y"}});
    const Pairs blocks = Blocks({Block("A", 0, 0, ins), Block("*Paper_Space", 0, 0, kUnitFace), Block("B", 0, 0, inB),
                                 Block("b", 0, 0, {{0, "LINE"}, {10, "0"}, {11, "1"}})});
    Read r = ReadBytes(Drawing(
        {{0, "INSERT"}, {2, "A"}, {70, "2"}, {44, "100"}, {0, "INSERT"}, {2, "Z"}, {0, "INSERT"}, {2, "A"}, {20, "50"}},
        blocks));
    ASSERT_TRUE(r.scene);
    // Three placements of A, each with two of B; each placement of A skips two missing
    // names and each of B one: 3 * (2 + 2) + the one at the top.
    EXPECT_TRUE(Logged(r, L"13 insertions of blocks that are not defined were skipped."));
    EXPECT_TRUE(OfKind(*r.scene, KINDOF_CURVE).empty());
    auto meshes = OfKind(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 6u);
    const float at[6][2] = {{1, 0}, {6, 0}, {101, 0}, {106, 0}, {1, 50}, {6, 50}};
    for (size_t i = 0; i < meshes.size(); ++i) {
        EXPECT_EQ(meshes[i]->GetName(), CXStringW(L"B"));
        ExpectNear(World(*meshes[i], {1, 0, 0}), at[i][0], at[i][1], 0);
    }
}

TEST(DxfRead, PlacedBlocksMakeMaterialsOnlyForTheColoursTheyDraw) {
    // A text's colour makes no material; the face is BYBLOCK, so each placement has its own.
    Pairs content = {{0, "TEXT"}, {62, "1"}, {0, "LINE"}, {62, "3"}, {10, "0"}, {11, "1"}};
    content.insert(content.end(), kUnitFace.begin(), kUnitFace.end());
    content.insert(content.end(), {{0, "LINE"}, {420, "1193046"}, {10, "0"}, {11, "2"}});
    Read r = ReadBytes(Drawing({{0, "INSERT"}, {2, "A"}, {62, "5"}, {0, "INSERT"}, {2, "A"}, {62, "6"}},
                               Blocks({Block("A", 0, 0, content)})));
    ASSERT_TRUE(r.scene);
    auto meshes = OfKind(*r.scene, KINDOF_MESH);
    auto curves = OfKind(*r.scene, KINDOF_CURVE);
    ASSERT_EQ(meshes.size(), 2u);
    ASSERT_EQ(curves.size(), 2u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(RgbOf(*r.scene, meshes[i]->GetGeomObject()->GetFaceList()->GetMaterialID(0)), DxfAciToRgb(5 + i));
        const C3DFaceList& lines = *curves[i]->GetGeomObject()->GetFaceList();
        ASSERT_EQ(lines.GetNumberOfFaces(), 2);
        EXPECT_EQ(RgbOf(*r.scene, lines.GetMaterialID(0)), DxfAciToRgb(3));
        EXPECT_EQ(RgbOf(*r.scene, lines.GetMaterialID(1)), 0x123456u);
    }
    EXPECT_EQ(r.scene->GetMaterialNumber(), 4);
}

TEST(DxfRead, RepeatedInsertsThatPlaceNothingAreBounded) {
    // B holds A, which holds B: each of B's many inserts of A is a cycle, cut alike, and
    // every top-level A is still placed.
    auto cycle = [](int inside, int top, bool alternate) {
        Pairs inB = kUnitFace;
        for (int i = 0; i < inside; ++i) inB.insert(inB.end(), {{0, "INSERT"}, {2, alternate && i % 2 ? "B" : "A"}});
        Pairs entities;
        for (int i = 0; i < top; ++i) entities.insert(entities.end(), {{0, "INSERT"}, {2, "A"}});
        return ReadBytes(
            Drawing(entities, Blocks({Block("A", 0, 0, {{0, "INSERT"}, {2, "B"}}), Block("B", 0, 0, inB)})));
    };
    {
        Read r = cycle(1500, 1500, false);
        ASSERT_TRUE(r.scene);
        EXPECT_EQ(OfKind(*r.scene, KINDOF_MESH).size(), 1500u);
        EXPECT_TRUE(Logged(r, L"inserts itself"));
        EXPECT_FALSE(Logged(r, L"Too many block insertions"));
    }
    // Cycles to two blocks in turn: a visit each, until the drawing is cut off.
    {
        Read r = cycle(1500, 1500, true);
        ASSERT_TRUE(r.scene);
        EXPECT_LT(OfKind(*r.scene, KINDOF_MESH).size(), 1500u);
        EXPECT_TRUE(Logged(r, L"Too many block insertions"));
    }
}

// Face arrays are sized ahead from the rate of the bytes read so far: a drawing whose
// faces stop early (here a long tail of comments) must not keep the room it never used.
TEST(DxfRead, FacesSizedAheadGiveBackUnusedRoom) {
    Pairs faces;
    for (int i = 0; i < 20000; ++i) {
        faces.push_back({0, "3DFACE"});
        faces.push_back({8, "A"});
        for (int c = 0; c < 4; ++c) {
            faces.push_back({10 + c, std::to_string(i + c % 2)});
            faces.push_back({20 + c, std::to_string(c / 2)});
            faces.push_back({30 + c, "0.5"});
        }
    }
    for (int i = 0; i < 8; ++i) faces.push_back({999, std::string(1 << 20, 'c')});
    const Read r = ReadBytes(Drawing(faces));
    ASSERT_TRUE(r.scene) << r.error;
    const auto meshes = OfKind(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 1u);
    const C3DGeomObject& g = *meshes[0]->GetGeomObject();
    EXPECT_EQ(g.GetFaceList()->GetNumberOfFaces(), 20000);
    const auto& pts = g.GetPointList()->Raw();
    EXPECT_EQ(pts.size(), 20000u * 4 * 3);
    EXPECT_LE(pts.capacity(), pts.size() + pts.size() / 2);
}

TEST(DxfRead, WhatIsNotADrawing) {
    EXPECT_EQ(ReadBytes("").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadBytes("solid x\nfacet normal 0 0 1\n").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadBytes("999\ncomment\n10\n1.0\n").error, IO_ERR_FORMAT);
    // A drawing without geometry is empty, not damaged.
    EXPECT_EQ(ReadBytes(Drawing({})).error, IO_ERR_EMPTY);
    // Only paper space and ACIS solids: empty too, and the solids are mentioned.
    Read r = ReadBytes(Drawing({{0, "3DSOLID"}, {1, "acis"}, {0, "LINE"}, {67, "1"}, {11, "1"}}));
    EXPECT_EQ(r.error, IO_ERR_EMPTY);
    EXPECT_TRUE(Logged(r, L"3DSOLID"));
}

TEST(DxfRead, DamagedTextKeepsWhatCameBefore) {
    const std::string good = Drawing({{0, "LINE"}, {11, "1"}, {0, "POINT"}, {10, "oops"}, {20, "2"}});
    Read r = ReadBytes(good);
    ASSERT_TRUE(r.scene);
    EXPECT_TRUE(Logged(r, L"not numbers"));
    ExpectNear(OfKind(*r.scene, KINDOF_POINTCLOUD)[0]->GetGeomObject()->GetPointList()->GetPoint(0), 0, 2, 0);
    // Missing ENDSEC, EOF and SEQEND: the polyline still counts.
    Read open = ReadBytes("0\nSECTION\n2\nENTITIES\n0\nPOLYLINE\n70\n8\n0\nVERTEX\n10\n1\n0\nVERTEX\n10\n2\n");
    ASSERT_TRUE(open.scene);
    EXPECT_EQ(OfKind(*open.scene, KINDOF_CURVE).size(), 1u);
    // A code line that is not a number ends reading there.
    Read cut = ReadBytes("0\nSECTION\n2\nENTITIES\n0\nLINE\n11\n1\nxx\n0\n0\nLINE\n11\n2\n");
    ASSERT_TRUE(cut.scene);
    EXPECT_EQ(OfKind(*cut.scene, KINDOF_CURVE)[0]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);
    EXPECT_TRUE(Logged(cut, L"damaged"));
    // Every prefix of a drawing with all entity kinds reads or fails cleanly.
    const std::string all =
        Drawing({{0, "3DFACE"}, {10, "0"},       {11, "1"},         {12, "1"},     {22, "1"},    {0, "ARC"},
                 {40, "1"},     {51, "90"},      {0, "LWPOLYLINE"}, {10, "0"},     {20, "0"},    {42, "0.5"},
                 {10, "1"},     {0, "POLYLINE"}, {70, "64"},        {0, "VERTEX"}, {70, "192"},  {0, "VERTEX"},
                 {70, "128"},   {71, "1"},       {72, "1"},         {73, "1"},     {0, "SEQEND"}},
                Blocks({Block("A", 0, 0, kUnitFace)}));
    for (size_t n = 0; n < all.size(); n += 3) {
        Read p = ReadBytes(all.substr(0, n));
        if (!p.scene) { EXPECT_TRUE(p.error == IO_ERR_FORMAT || p.error == IO_ERR_EMPTY) << n; }
    }
}

namespace {

// Binary pairs: two-byte codes (release 13 on) or one-byte codes (before).
class BinaryDxf {
public:
    explicit BinaryDxf(bool oneByte) : m_one(oneByte) { m_b.assign("AutoCAD Binary DXF\r\n\x1a", 22); }
    BinaryDxf& Code(int c) {
        if (m_one && c < 255) m_b += static_cast<char>(c);
        else {
            if (m_one) m_b += '\xff';
            m_b += static_cast<char>(c & 0xFF);
            m_b += static_cast<char>(c >> 8);
        }
        return *this;
    }
    BinaryDxf& Str(int c, const std::string& s) {
        Code(c);
        m_b += s;
        m_b += '\0';
        return *this;
    }
    BinaryDxf& Dbl(int c, double v) {
        Code(c);
        m_b.append(reinterpret_cast<const char*>(&v), 8);
        return *this;
    }
    BinaryDxf& I16(int c, int16_t v) {
        Code(c);
        m_b.append(reinterpret_cast<const char*>(&v), 2);
        return *this;
    }
    BinaryDxf& Byte(int c, uint8_t v) {
        Code(c);
        m_b += static_cast<char>(v);
        return *this;
    }
    const std::string& Bytes() const { return m_b; }
private:
    bool m_one;
    std::string m_b;
};

std::string BinaryDrawing(bool oneByte) {
    BinaryDxf b(oneByte);
    b.Str(0, "SECTION").Str(2, "HEADER").Str(9, "$INSUNITS").I16(70, 6).Str(0, "ENDSEC");
    b.Str(0, "SECTION").Str(2, "ENTITIES");
    b.Str(0, "3DFACE").Str(8, "L").I16(62, 1).Dbl(10, 0).Dbl(20, 0).Dbl(30, 0).Dbl(11, 1).Dbl(21, 0).Dbl(31, 0);
    b.Dbl(12, 1).Dbl(22, 1).Dbl(32, 0).Dbl(13, 1).Dbl(23, 1).Dbl(33, 0);
    if (!oneByte) b.Byte(280, 1).Byte(290, 1);
    b.Str(1001, "APP").I16(1070, 3); // extended data: a two-byte code either way
    b.Str(0, "LINE").Dbl(10, 0).Dbl(20, 0).Dbl(30, 0).Dbl(11, 4).Dbl(21, 5).Dbl(31, 6);
    b.Str(0, "ENDSEC").Str(0, "EOF");
    return b.Bytes();
}

} // namespace

TEST(DxfRead, BinaryWithOneAndTwoByteCodes) {
    for (bool one : {false, true}) {
        const std::string bytes = BinaryDrawing(one);
        Read r = ReadBytes(bytes);
        ASSERT_TRUE(r.scene) << one;
        EXPECT_EQ(r.scene->GetUnit(), UNIT_METER);
        auto meshes = OfKind(*r.scene, KINDOF_MESH);
        ASSERT_EQ(meshes.size(), 1u);
        const C3DGeomObject& g = *meshes[0]->GetGeomObject();
        EXPECT_EQ(FacePoints(g, 0).size(), 3u);
        EXPECT_EQ(RgbOf(*r.scene, g.GetFaceList()->GetMaterialID(0)), 0xFF0000u);
        auto curves = OfKind(*r.scene, KINDOF_CURVE);
        ASSERT_EQ(curves.size(), 1u);
        ExpectNear(curves[0]->GetGeomObject()->GetPointList()->GetPoint(1), 4, 5, 6);
        EXPECT_TRUE(r.log.empty());
        // Cut anywhere: no crash; a cut after the face keeps the face.
        for (size_t n = 0; n < bytes.size(); ++n) {
            Read p = ReadBytes(bytes.substr(0, n));
            if (!p.scene) { EXPECT_TRUE(p.error == IO_ERR_FORMAT || p.error == IO_ERR_EMPTY) << n; }
        }
        Read cut = ReadBytes(bytes.substr(0, bytes.size() - 30));
        ASSERT_TRUE(cut.scene);
        EXPECT_EQ(OfKind(*cut.scene, KINDOF_MESH).size(), 1u);
        EXPECT_TRUE(Logged(cut, L"damaged"));
    }
}

TEST(DxfRead, WriteThenReadKeepsMeshesAndCurves) {
    C3DScene scene;
    auto* mesh = new C3DObject();
    const float xyz[] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0.5f, 0.5f, 1};
    for (int i = 0; i < 5; ++i) mesh->GetPointList()->Add(xyz[i * 3], xyz[i * 3 + 1], xyz[i * 3 + 2]);
    const uint32_t quad[] = {0, 1, 2, 3}, tri[] = {0, 1, 4};
    mesh->GetFaceList()->AddFace(quad, 4);
    mesh->GetFaceList()->AddFace(tri, 3);
    auto* mn = new C3DSceneNode(mesh);
    mn->SetName(CXStringW(L"Mesh"));
    scene.AddNode(nullptr, mn);
    auto* curve = new C3DCurve();
    curve->GetPointList()->Add(0, 0, 0);
    curve->GetPointList()->Add(3, 2, 1);
    curve->GetPointList()->Add(5, 0, 0);
    const uint32_t line[] = {0, 1, 2};
    curve->GetFaceList()->AddFace(line, 3);
    auto* cn = new C3DSceneNode(curve);
    cn->SetName(CXStringW(L"Curve"));
    scene.AddNode(nullptr, cn);

    const std::string text = CDxfIo::FormatScene(scene);
    Read r = ReadBytes(text);
    ASSERT_TRUE(r.scene) << text;
    C3DSceneNode* m = r.scene->FindNodeByName(CXStringW(L"Mesh"));
    ASSERT_TRUE(m && m->GetChildNode());
    const C3DGeomObject& g = *m->GetChildNode()->GetGeomObject();
    EXPECT_EQ(g.GetPointList()->GetSize(), 5);
    ASSERT_EQ(g.GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(g.GetFaceList()->GetFaceSize(0), 4);
    ExpectNear(FacePoints(g, 1)[2], 0.5f, 0.5f, 1);
    if (HasFailure()) std::cout << text;
    C3DSceneNode* c = r.scene->FindNodeByName(CXStringW(L"Curve"));
    ASSERT_TRUE(c && c->GetChildNode());
    const C3DGeomObject& cg = *c->GetChildNode()->GetGeomObject();
    EXPECT_EQ(c->GetChildNode()->GetKindOf(), uint32_t(KINDOF_CURVE));
    ASSERT_EQ(cg.GetFaceList()->GetNumberOfFaces(), 1);
    ExpectNear(FacePoints(cg, 0)[1], 3, 2, 1);
}

TEST(DxfRead, ReadWriteReadKeepsPlacedMeshesAndEveryLine) {
    // Two lines and a closed square on one layer, and a block placed twice.
    const Pairs blocks = Blocks({Block("A", 0, 0, kUnitFace)});
    Read first = ReadBytes(
        Drawing({{0, "LINE"},       {8, "L"},      {11, "1"}, {0, "LINE"}, {8, "L"},      {10, "5"}, {11, "6"},
                 {0, "LWPOLYLINE"}, {8, "L"},      {70, "1"}, {10, "0"},   {20, "0"},     {10, "1"}, {20, "0"},
                 {10, "1"},         {20, "1"},     {10, "0"}, {20, "1"},   {0, "INSERT"}, {8, "M"},  {2, "A"},
                 {10, "100"},       {0, "INSERT"}, {8, "M"},  {2, "A"},    {10, "200"},   {50, "90"}},
                blocks));
    ASSERT_TRUE(first.scene);
    CFileIo io;
    CDxfIo writer(io);
    CSceneExportOptions opt;
    writer.SaveDefaultOptions(opt);
    std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(*first.scene, opt.prepFlags, &opt);
    Read second = ReadBytes(CDxfIo::FormatScene(*prepared));
    ASSERT_TRUE(second.scene);

    auto lines = [](const C3DScene& s) {
        std::vector<std::vector<C3DPoint>> out;
        for (C3DSceneNode* n : OfKind(s, KINDOF_CURVE))
            for (int f = 0; f < n->GetGeomObject()->GetFaceList()->GetNumberOfFaces(); ++f)
                out.push_back(FacePoints(*n->GetGeomObject(), f));
        return out;
    };
    auto a = lines(*first.scene), b = lines(*second.scene);
    ASSERT_EQ(a.size(), 3u);
    ASSERT_EQ(b.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(a[i].size(), b[i].size()) << i;
        for (size_t k = 0; k < a[i].size(); ++k) ExpectNear(b[i][k], a[i][k].x, a[i][k].y, a[i][k].z);
    }
    EXPECT_EQ(b[2].size(), 5u); // the closed square comes back closed
    // The placed triangles come back where the placements put them.
    // (Both placements sit on layers named after the block, so they come back as one mesh.)
    auto corners = [](const C3DScene& s) {
        std::vector<C3DPoint> out;
        for (C3DSceneNode* n : OfKind(s, KINDOF_MESH))
            for (int f = 0; f < n->GetGeomObject()->GetFaceList()->GetNumberOfFaces(); ++f)
                out.push_back(World(*n, FacePoints(*n->GetGeomObject(), f)[1]));
        return out;
    };
    const std::vector<C3DPoint> wa = corners(*first.scene), wb = corners(*second.scene);
    ASSERT_EQ(wa.size(), 2u);
    ASSERT_EQ(wb.size(), 2u);
    ExpectNear(wb[0], wa[0].x, wa[0].y, wa[0].z);
    ExpectNear(wb[1], 200, 2, 0);
    ExpectNear(wa[1], 200, 2, 0);
}

TEST(DxfRead, LayerNamesDecodeEscapesUtf8AndSingleBytes) {
    Read r = ReadBytes(
        Drawing({{0, "POINT"}, {8, "A\\U+00C4b"}, {0, "POINT"}, {8, "Gr\xC3\xBCn"}, {0, "POINT"}, {8, "Gr\xFCn2"}}));
    ASSERT_TRUE(r.scene);
    EXPECT_TRUE(r.scene->FindNodeByName(CXStringW(L"A\u00C4b")));
    EXPECT_TRUE(r.scene->FindNodeByName(CXStringW(L"Gr\u00FCn")));
    EXPECT_TRUE(r.scene->FindNodeByName(CXStringW(L"Gr\u00FCn2")));
    // A drawing that names its code page: single bytes go through it; UTF-8 stays UTF-8.
    const Pairs header = {{0, "SECTION"}, {2, "HEADER"}, {9, "$DWGCODEPAGE"}, {3, "ansi_1251"}, {0, "ENDSEC"}};
    Read cyr = ReadBytes(Drawing({{0, "POINT"}, {8, "\xCF\xF0\xE8"}, {0, "POINT"}, {8, "\xD0\x96"}}, header));
    ASSERT_TRUE(cyr.scene);
    EXPECT_TRUE(cyr.scene->FindNodeByName(CXStringW(L"\u041F\u0440\u0438")));
    EXPECT_TRUE(cyr.scene->FindNodeByName(CXStringW(L"\u0416")));
    // A page we do not know: Latin-1, as without one.
    const Pairs dos = {{0, "SECTION"}, {2, "HEADER"}, {9, "$DWGCODEPAGE"}, {3, "DOS437"}, {0, "ENDSEC"}};
    Read lat = ReadBytes(Drawing({{0, "POINT"}, {8, "\xCF"}}, dos));
    ASSERT_TRUE(lat.scene);
    EXPECT_TRUE(lat.scene->FindNodeByName(CXStringW(L"\u00CF")));
}
