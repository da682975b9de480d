// Large drawings have their ENTITIES section read in two halves at once. The scene and the
// log must be exactly those of one read, wherever the cut falls and whatever the file holds.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <random>
#include <span>
#include <string>

#include "formats/classic/DxfReader.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "tests/classic/TruespaceTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

struct Read {
    int error = 0;
    bool halves = false;
    std::string scene, log;
};

// The scene as text (nodes with their flags, geometry, materials) and the log lines.
Read ReadWith(const std::string& bytes, bool split) {
    CSceneImportOptions options;
    const std::function<bool()> never = [] { return false; };
    dxf::SplitTuning tuning;
    if (split) tuning = {0, true};
    else tuning.minBytes = SIZE_MAX;
    dxf::ReadOutcome r =
        dxf::ReadDxf({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, options, never, tuning);
    Read out;
    out.error = r.error;
    out.halves = r.halves;
    if (r.scene) {
        out.scene = cobtest::Describe(*r.scene);
        for (const C3DSceneNode* n : cobtest::Nodes(*r.scene)) out.scene += std::to_string(n->GetFlags()) + " ";
        C3DNodePos pos = r.scene->GetFirstNode(KINDOF_ALL);
        C3DBaseObject* obj = nullptr;
        while (r.scene->GetNextNode(obj, pos))
            if (obj) out.scene += " kind " + std::to_string(obj->GetKindOf());
    }
    for (const IoLogInfo& l : options.GetLog()) out.log += WideToUtf8(l.text.str()) + "\n";
    return out;
}

// Pairs of a drawing, written as most programs write them (codes right-aligned in three).
class Drawing {
public:
    Drawing& Pair(int code, const std::string& value) {
        char c[16];
        std::snprintf(c, sizeof c, "%3d\n", code);
        m_s += c;
        m_s += value;
        m_s += '\n';
        return *this;
    }
    Drawing& Num(int code, double v) {
        char b[32];
        std::snprintf(b, sizeof b, "%.6f", v);
        return Pair(code, b);
    }
    Drawing& Face(const std::string& layer, int i, int color = -1) {
        Pair(0, "3DFACE").Pair(8, layer);
        if (color >= 0) Pair(62, std::to_string(color));
        for (int k = 0; k < 4; ++k) Num(10 + k, i + k % 2).Num(20 + k, i * 0.5 + k / 2).Num(30 + k, k == 3 ? 1 : 0);
        return *this;
    }
    // A polyface mesh of two faces; `end` writes its SEQEND.
    Drawing& Polyface(const std::string& layer, int i, bool end = true) {
        Pair(0, "POLYLINE").Pair(8, layer).Pair(66, "1").Pair(70, "64").Pair(71, "4").Pair(72, "2");
        for (int k = 0; k < 4; ++k)
            Pair(0, "VERTEX").Pair(8, layer).Num(10, i + k).Num(20, k % 2).Num(30, 0).Pair(70, "192");
        Pair(0, "VERTEX").Pair(8, layer).Num(10, 0).Num(20, 0).Num(30, 0).Pair(70, "128");
        Pair(71, "1").Pair(72, "2").Pair(73, "3");
        Pair(0, "VERTEX").Pair(8, layer).Num(10, 0).Num(20, 0).Num(30, 0).Pair(70, "128").Pair(62, "3");
        Pair(71, "2").Pair(72, "3").Pair(73, "-4").Pair(74, "9"); // an index past the mesh: dropped
        if (end) Pair(0, "SEQEND");
        return *this;
    }
    // A bit of everything else, on layers that the header may not name.
    Drawing& Mixed(const std::string& layer, int i) {
        Pair(0, "LINE").Pair(8, layer).Num(10, i).Num(20, 0).Num(30, 0).Num(11, i + 1).Num(21, 1).Num(31, 0);
        Pair(0, "POINT").Pair(8, layer).Pair(420, std::to_string(0x102030 + i)).Num(10, i).Num(20, 2).Num(30, 0);
        Pair(0, "CIRCLE").Pair(8, layer).Num(10, i).Num(20, 0).Num(30, 0).Num(40, 2).Pair(62, "0");
        Pair(0, "LWPOLYLINE").Pair(8, layer).Pair(90, "3").Pair(70, "1");
        Num(10, 0).Num(20, 0).Num(42, 0.5).Num(10, 1).Num(20, 0).Num(10, 1).Num(20, 1);
        Pair(0, "INSERT").Pair(8, layer).Pair(2, "Part").Num(10, i).Num(20, 0).Num(30, 0).Pair(62, "256");
        Pair(0, "3DFACE").Pair(8, layer).Num(10, 0).Pair(20, "not a number").Num(30, 0).Num(11, 1).Num(12, 1);
        Num(22, 1).Num(13, 0).Num(23, 1);
        return *this;
    }
    std::string& Text() { return m_s; }

private:
    std::string m_s;
};

// Header, two layers in the table (one frozen), a block, then the entities `body` writes.
std::string Whole(const std::function<void(Drawing&)>& body, bool close = true) {
    Drawing d;
    d.Pair(0, "SECTION").Pair(2, "HEADER").Pair(9, "$INSUNITS").Pair(70, "6").Pair(0, "ENDSEC");
    d.Pair(0, "SECTION").Pair(2, "TABLES").Pair(0, "TABLE").Pair(2, "LAYER");
    d.Pair(0, "LAYER").Pair(2, "Walls").Pair(70, "0").Pair(62, "5");
    d.Pair(0, "LAYER").Pair(2, "Frozen").Pair(70, "1").Pair(62, "2");
    d.Pair(0, "ENDTAB").Pair(0, "ENDSEC");
    d.Pair(0, "SECTION").Pair(2, "BLOCKS").Pair(0, "BLOCK").Pair(2, "Part").Num(10, 0).Num(20, 0).Num(30, 0);
    d.Face("0", 0, 0).Pair(0, "ENDBLK").Pair(0, "ENDSEC");
    d.Pair(0, "SECTION").Pair(2, "ENTITIES");
    body(d);
    if (close) d.Pair(0, "ENDSEC").Pair(0, "EOF");
    return d.Text();
}

// Layers, colours and entities of every kind on both sides of the middle, with layers met
// first after it (in an order of their own) and ByLayer colours on them.
void Busy(Drawing& d) {
    for (int i = 0; i < 150; ++i) {
        d.Face(i % 3 ? "Walls" : "Frozen", i, i % 4 == 0 ? 1 : -1);
        if (i % 10 == 0) d.Polyface("Walls", i).Mixed("Walls", i);
    }
    for (int i = 0; i < 150; ++i) {
        const std::string late = i % 2 ? "Late-B" : "late-a";
        d.Face(i % 5 ? late : "Walls", i, i % 7 == 0 ? 6 : -1);
        if (i % 10 == 0) d.Polyface(late, i).Mixed(i % 20 ? late : "LATE-A", i);
    }
}

void ExpectSame(const std::string& bytes, bool wantHalves, const char* what) {
    const Read one = ReadWith(bytes, false), two = ReadWith(bytes, true);
    EXPECT_FALSE(one.halves) << what;
    if (wantHalves) { EXPECT_TRUE(two.halves) << what; }
    EXPECT_EQ(one.error, two.error) << what;
    EXPECT_EQ(one.scene, two.scene) << what;
    EXPECT_EQ(one.log, two.log) << what;
}

} // namespace

TEST(DxfHalves, SameSceneAndLogAsOneRead) {
    const std::string busy = Whole(Busy);
    ExpectSame(busy, true, "busy drawing");
    const Read r = ReadWith(busy, true);
    ASSERT_FALSE(r.scene.empty());
    // The late layers were met first after the middle, yet keep their order and their colours.
    EXPECT_LT(r.scene.find("node late-a"), r.scene.find("node Late-B"));
    EXPECT_NE(r.log.find("values that are not numbers"), std::string::npos);
    EXPECT_NE(r.log.find("polyface faces with vertex numbers out of range"), std::string::npos);

    // Line ends of CRLF, and the cut right inside a polyline whose SEQEND is missing: the
    // entity after it ends it, in whichever half that entity falls.
    std::string crlf;
    for (char c : busy) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    ExpectSame(crlf, true, "CRLF");
    const std::string open = Whole([](Drawing& d) {
        for (int i = 0; i < 60; ++i) d.Face("Walls", i);
        d.Polyface("Walls", 0, false);
        for (int i = 0; i < 400; ++i) d.Pair(0, "VERTEX").Pair(8, "Walls").Num(10, i).Num(20, 0).Num(30, 0);
        for (int i = 0; i < 60; ++i) d.Face("Walls", i);
        d.Polyface("Walls", 1, false); // ended by the section's end
    });
    ExpectSame(open, true, "cut inside a polyline without SEQEND");
}

TEST(DxfHalves, CutsThatCannotJoinFallBackToOneRead) {
    // The middle in a large BLOCKS section: the second half stops at the block's end and the
    // first reads on alone.
    Drawing d;
    d.Pair(0, "SECTION").Pair(2, "BLOCKS").Pair(0, "BLOCK").Pair(2, "Big").Num(10, 0).Num(20, 0).Num(30, 0);
    for (int i = 0; i < 300; ++i) d.Face("0", i);
    d.Pair(0, "ENDBLK").Pair(0, "ENDSEC").Pair(0, "SECTION").Pair(2, "ENTITIES");
    d.Pair(0, "INSERT").Pair(8, "0").Pair(2, "Big").Num(10, 0).Num(20, 0).Num(30, 0);
    d.Pair(0, "ENDSEC").Pair(0, "EOF");
    ExpectSame(d.Text(), false, "middle in BLOCKS");
    EXPECT_FALSE(ReadWith(d.Text(), true).halves);
    // The same block without its ENDBLK: the second half reads entities up to an ENDSEC
    // as if they were the drawing's, but the first half stands in BLOCKS there.
    std::string noEnd = d.Text();
    noEnd.erase(noEnd.find("  0\nENDBLK\n"), 11);
    ExpectSame(noEnd, false, "block without ENDBLK");

    // No ENDSEC after the middle, a damaged pair after it, and a drawing cut inside a pair.
    const std::string busy = Whole(Busy);
    const std::string unclosed = Whole(Busy, false);
    ExpectSame(unclosed, false, "no ENDSEC");
    EXPECT_FALSE(ReadWith(unclosed, true).halves);
    std::string damaged = busy;
    damaged.replace(damaged.size() * 3 / 4, 1, "\nX");
    ExpectSame(damaged, false, "damaged after the middle");
    EXPECT_NE(ReadWith(damaged, true).log.find("damaged after byte"), std::string::npos);
    ExpectSame(busy.substr(0, busy.size() - 7), false, "cut inside the last pair");
}

TEST(DxfHalves, DamagedDrawingsReadAlikeEitherWay) {
    // Random damage anywhere: cuts, flipped bytes, lines dropped or doubled.
    const std::string busy = Whole(Busy);
    std::mt19937 rng(7);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    int joined = 0;
    for (int round = 0; round < 120; ++round) {
        std::string s = busy;
        const int edits = 1 + static_cast<int>(pick(2));
        for (int e = 0; e < edits; ++e) {
            const size_t at = pick(s.size());
            switch (pick(8)) {
            case 0: s.resize(at); break;
            case 1:
            case 2: s[at] = static_cast<char>(pick(256)); break;
            case 3:
            case 4: s.erase(at, s.find('\n', at) == std::string::npos ? 0 : s.find('\n', at) - at + 1); break;
            default: s.insert(at, s.substr(at, std::min<size_t>(40, s.size() - at))); break;
            }
            if (s.empty()) s = "0";
        }
        const Read one = ReadWith(s, false), two = ReadWith(s, true);
        joined += two.halves;
        ASSERT_EQ(one.error, two.error) << round;
        ASSERT_EQ(one.scene, two.scene) << round;
        ASSERT_EQ(one.log, two.log) << round;
    }
    // Most damage leaves the cut joinable: the halves were really exercised.
    EXPECT_GT(joined, 20);
}

TEST(DxfHalves, CorpusDrawingsReadAlikeInHalves) {
    SKIP_WITHOUT_CORPUS();
    int joined = 0;
    for (const auto& f : testsupport::CorpusFiles("dxf", ".dxf")) {
        const std::string bytes = testsupport::ReadFile(f);
        ExpectSame(bytes, false, f.filename().c_str());
        joined += ReadWith(bytes, true).halves;
    }
    EXPECT_GT(joined, 0); // at least one real drawing was cut in its ENTITIES section
}
