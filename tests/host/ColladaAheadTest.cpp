// The largest float list read from both ends at once: whatever its text, the scene must be
// the one a read on one thread makes, to the bit.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "plugin/host/Channel.h"
#include "plugin/host/ColladaIo.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "tests/support/TestSupport.h"

namespace {

template <class Array> void Append(std::string& out, const Array& a) {
    out += std::to_string(a.size()) + ':';
    out.append(reinterpret_cast<const char*>(a.data()), a.size() * sizeof(a[0]));
}

// Error, log and every mesh's arrays, bytes as they are.
std::string Outcome(const std::string& text, const collada::AheadTuning& tuning) {
    CFileIo io;
    CSceneImportOptions opt;
    CColladaIo parser(io);
    parser.SetAheadTuning(tuning);
    std::unique_ptr<C3DScene> s(
        parser.ReadMemory(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()), opt));
    std::string out = "error " + std::to_string(io.GetIoError()) + '\n';
    for (const IoLogInfo& l : opt.GetLog()) out += std::to_string(l.level) + ' ' + WideToUtf8(l.text.str()) + '\n';
    if (!s) return out;
    C3DNodePos pos = s->GetFirstNode(KINDOF_MESH);
    while (C3DSceneNode* n = s->GetNextNode(pos)) {
        const C3DGeomObject* g = n->GetGeomObject();
        Append(out, g->GetPointList()->Raw());
        Append(out, g->GetFaceList()->GetIndexes());
        if (auto* ch = static_cast<const CSpecNormalChannel*>(g->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL))) {
            Append(out, ch->GetNormalVectorList()->Raw());
            Append(out, ch->GetNormalFaceList()->GetIndexes());
        }
        if (const CUVWChannel* uv = g->GetGlobalUVWChannel()) Append(out, uv->GetUVWPointList()->Raw());
    }
    return out;
}

const collada::AheadTuning kOneThread{std::numeric_limits<size_t>::max(), 1};

// Reads `text` on one thread and from both ends with chunks of several sizes.
void ExpectSameRead(const std::string& text, const std::string& what) {
    const std::string want = Outcome(text, kOneThread);
    for (size_t chunk : {size_t{1}, size_t{5}, size_t{64}, size_t{4096}, size_t{1} << 20})
        EXPECT_EQ(Outcome(text, collada::AheadTuning{1, chunk, 1}), want) << what << ", chunks of " << chunk;
}

// Corner indices of the strip of triangles Doc makes: point, then normal.
std::string Corners(int points) {
    std::string p;
    for (int i = 0; i + 2 < points; ++i)
        for (int k = 0; k < 3; ++k) p += std::to_string(i + k) + ' ' + std::to_string(3 * i + k) + ' ';
    return p;
}

// A mesh of `points` whose normals (one per corner, the largest list) are `normals`,
// declared as `count`; its corners are `p` (by default, Corners).
std::string Doc(int points, const std::string& normals, const std::string& count, std::string p = {}) {
    std::string pos;
    for (int i = 0; i < points; ++i) pos += std::to_string(i % 7) + " " + std::to_string(i / 7) + " 0.5 ";
    if (p.empty()) p = Corners(points);
    return "<?xml version=\"1.0\"?><COLLADA version=\"1.4.1\"><library_geometries><geometry id=\"g\"><mesh>"
           "<source id=\"p\"><float_array id=\"pa\" count=\"" +
           std::to_string(3 * points) + "\">" + pos +
           "</float_array><technique_common><accessor source=\"#pa\" count=\"" + std::to_string(points) +
           "\" stride=\"3\"/></technique_common></source>"
           "<source id=\"n\"><float_array id=\"na\"" +
           count + ">" + normals + "</float_array><technique_common><accessor source=\"#na\" count=\"" +
           std::to_string(3 * points) +
           "\" stride=\"3\"/></technique_common></source>"
           "<vertices id=\"v\"><input semantic=\"POSITION\" source=\"#p\"/></vertices><triangles count=\"" +
           std::to_string(points - 2) +
           "\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
           "<input semantic=\"NORMAL\" source=\"#n\" offset=\"1\"/><p>" +
           p +
           "</p></triangles></mesh></geometry></library_geometries><library_visual_scenes><visual_scene id=\"s\">"
           "<node><instance_geometry url=\"#g\"/></node></visual_scene></library_visual_scenes>"
           "<scene><instance_visual_scene url=\"#s\"/></scene></COLLADA>";
}

std::string Normals(int values, std::mt19937& rng) {
    static const char* const kForms[] = {"0", "1", "-0.202383", "0.976838", "-1", "12.5", "3.0e-2", "0.1234567"};
    std::string out;
    for (int i = 0; i < values; ++i) out += std::string(kForms[rng() % 8]) + (rng() % 9 ? " " : "\n\t ");
    return out;
}

TEST(ColladaAhead, ListsWithTheirCountsRight) {
    std::mt19937 rng(7);
    const int points = 300;
    const std::string n = Normals(9 * points, rng);
    const std::string count = " count=\"" + std::to_string(9 * points) + "\"";
    ExpectSameRead(Doc(points, n, count), "plain numbers");
    ExpectSameRead(Doc(points, "\r\n  " + n + "\r\n", count), "blanks around the list");
    ExpectSameRead(Doc(points, n, " name=\"count\"" + count), "another attribute named count");
    ExpectSameRead(Doc(points, n, ""), "no count");
}

// Counts that are wrong, and text whose values and words differ: the reader must fall back
// to one read of the whole list, never place a value where another belongs.
TEST(ColladaAhead, ListsThatAreNotWhatTheySay) {
    std::mt19937 rng(11);
    const int points = 200;
    const int values = 9 * points;
    const std::string n = Normals(values, rng);
    for (int declared : {values - 1, values + 1, values / 2, 2 * values, 1})
        ExpectSameRead(Doc(points, n, " count=\"" + std::to_string(declared) + "\""),
                       "declared " + std::to_string(declared));
    const std::string count = " count=\"" + std::to_string(values) + "\"";
    for (const char* odd : {"1.5x", "nan", "-", "+2", "1.5-2", "inf", "0x10", "\xC3\xA9", "1e99999", "\x01"}) {
        for (size_t at : {size_t{0}, n.size() / 2, n.size()}) {
            std::string text = n;
            while (at < text.size() && text[at] != ' ') ++at;
            text.insert(at, std::string(" ") + odd + ' ');
            ExpectSameRead(Doc(points, text, count), std::string("with ") + odd);
        }
    }
    ExpectSameRead(Doc(points, std::string(5000, '7'), count), "one long word");
}

TEST(ColladaAhead, DamagedListsReadAlike) {
    std::mt19937 rng(3);
    const int points = 120;
    const std::string base = Doc(points, Normals(9 * points, rng), " count=\"" + std::to_string(9 * points) + "\"");
    const size_t from = base.find("id=\"na\""), to = base.find("</float_array>", from);
    ASSERT_NE(to, std::string::npos);
    static const char kBytes[] = "0123456789 .-+eE\t\nx";
    for (int round = 0; round < 60; ++round) {
        std::string text = base;
        for (int k = 0, n = 1 + static_cast<int>(rng() % 6); k < n; ++k)
            text[from + 10 + rng() % (to - from - 10)] = kBytes[rng() % (sizeof kBytes - 1)];
        ExpectSameRead(text, "damaged copy " + std::to_string(round));
    }
}

// Index lists end at their first word that is not an index: read ahead, the faces kept must
// be those before it, wherever the chunks are cut.
TEST(ColladaAhead, IndexListsThatEndEarly) {
    std::mt19937 rng(5);
    const int points = 150;
    const std::string n = Normals(9 * points, rng);
    const std::string count = " count=\"" + std::to_string(9 * points) + "\"";
    const std::string p = Corners(points);
    for (const char* odd : {"x", "-1", "+3", "99999999999", "1-2", "3x", "2.5", "\x01", "\xC3\xA9", "0x1"}) {
        for (size_t at : {size_t{0}, size_t{1}, p.size() / 3, p.size() - 1}) {
            std::string text = p;
            while (at < text.size() && text[at] != ' ') ++at;
            text.insert(at, std::string(" ") + odd + ' ');
            ExpectSameRead(Doc(points, n, count, text), std::string("corners with ") + odd);
        }
        // The odd word glued to the last index, so that it ends a chunk's text.
        ExpectSameRead(Doc(points, n, count, p + odd), std::string("corners ending in ") + odd);
    }
    ExpectSameRead(Doc(points, n, count, "\n\t" + p + "\r\n"), "corners among blanks");
    ExpectSameRead(Doc(points, n, count, p.substr(0, p.size() / 2 + 1)), "corners cut short");
}

// Polygons (one list per face), two geometries of which only the larger is read ahead, and
// lists shared by two primitives.
TEST(ColladaAhead, ListsOfOtherShapes) {
    std::string polys;
    for (int i = 0; i < 40; ++i) {
        std::string p;
        for (int k = 0; k < 3 + i % 4; ++k) p += std::to_string((i + k) % 30) + ' ';
        polys += "<p>" + p + "</p>";
    }
    std::string pos;
    for (int i = 0; i < 30; ++i) pos += std::to_string(i) + " " + std::to_string(i % 5) + " 1 ";
    std::string big;
    for (int i = 0; i < 3000; ++i) big += std::to_string(i % 30) + ' ';
    const std::string source = "<source id=\"P\"><float_array id=\"PA\" count=\"90\">" + pos +
                               "</float_array><technique_common><accessor source=\"#PA\" count=\"30\" "
                               "stride=\"3\"/></technique_common></source><vertices id=\"V\"><input "
                               "semantic=\"POSITION\" source=\"#P\"/></vertices>";
    const std::string text =
        "<?xml version=\"1.0\"?><COLLADA version=\"1.4.1\"><library_geometries>"
        "<geometry id=\"a\"><mesh>" +
        source + "<polygons count=\"40\"><input semantic=\"VERTEX\" source=\"#V\" offset=\"0\"/>" + polys +
        "</polygons></mesh></geometry><geometry id=\"b\"><mesh>" + source +
        "<triangles count=\"1000\"><input semantic=\"VERTEX\" source=\"#V\" offset=\"0\"/><p>" + big +
        "</p></triangles><triangles count=\"1000\"><input semantic=\"VERTEX\" source=\"#V\" offset=\"0\"/><p>" +
        big.substr(0, big.size() / 2) +
        "</p></triangles></mesh></geometry></library_geometries><library_visual_scenes><visual_scene id=\"s\">"
        "<node><instance_geometry url=\"#a\"/></node><node><instance_geometry url=\"#b\"/></node></visual_scene>"
        "</library_visual_scenes><scene><instance_visual_scene url=\"#s\"/></scene></COLLADA>";
    ExpectSameRead(text, "polygons and two geometries");
}

TEST(ColladaAheadCorpus, EveryDocumentReadsAlike) {
    SKIP_WITHOUT_CORPUS();
    for (const auto& f : testsupport::CorpusFiles("dae")) ExpectSameRead(testsupport::ReadFile(f), f.string());
}

} // namespace
