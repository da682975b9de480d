#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "LxoTestFiles.h"
#include "formats/lxo/LxoReader.h"
#include "formats/lxo/LxoWriter.h"
#include "tests/support/TestSupport.h"

using namespace lxotest;
using testsupport::TempDir;

namespace {

// What the reader hands over.
struct Recording {
    std::vector<uint32_t> headers;
    std::vector<std::vector<uint32_t>> polygons;
    std::vector<uint32_t> polygonFlags;
    std::vector<std::string> strings;
    std::vector<LxoChannelValue> values;
    uint32_t skipChunk = 0; // chunk ID whose payload is left unread
};

class Recorder : public LxoReader {
public:
    Recorder(const char* path, Recording& out) : LxoReader(path), m(out) {}
    uint32_t OnChunkHeader(uint32_t id, uint32_t) override {
        m.headers.push_back(id);
        return 0;
    }
    int NestingContext() override { return ChunkID() == m.skipChunk ? 1 : 0; }
    uint32_t OnPolygon(uint32_t, uint32_t count, const uint32_t* idx, uint32_t flags) override {
        m.polygons.emplace_back(idx, idx + count);
        m.polygonFlags.push_back(flags);
        return 0;
    }
    uint32_t OnVersion(uint32_t, uint32_t, const char* text) override {
        m.strings.push_back(text);
        return 0;
    }
    uint32_t OnTags(const LxoStringList& tags) override {
        m.strings.insert(m.strings.end(), tags.begin(), tags.end());
        return 0;
    }
    uint32_t OnChannel(const char*, const LxoChannelValue& v) override {
        m.values.push_back(v);
        return 0;
    }
    uint32_t OnChannelEnvelope(int, const char*, const LxoChannelValue& v) override {
        m.values.push_back(v);
        return 0;
    }

private:
    Recording& m;
};

uint32_t ReadBytes(const std::string& bytes, Recording* rec = nullptr) {
    TempDir tmp;
    const std::string f = (tmp / "t.lxo").string();
    testsupport::WriteFile(f, bytes);
    if (rec) {
        const uint32_t skip = rec->skipChunk;
        *rec = Recording{};
        rec->skipChunk = skip;
        Recorder r(f.c_str(), *rec);
        return r.Read();
    }
    LxoReader r(f.c_str());
    return r.Read();
}

std::string Vrsn(const std::string& text) { return Chunk("VRSN", U4(2) + U4(1) + text); }

} // namespace

TEST(LxoWriter, S0PaddingAndChunkSizes) {
    TempDir tmp;
    const std::string f = (tmp / "w.lxo").string();
    {
        LxoWriter w(f.c_str());
        LxoFileChunk form(w);
        LxoChunk c(w, LxoId('T', 'E', 'S', 'T'));
        w.WriteS0("ab");  // 3 bytes with NUL: padded with 'a'
        w.WriteS0("abc"); // 4 bytes: no pad
        w.WriteS0("");    // NUL + NUL pad
        {
            LxoSubChunk s(w, LxoId('S', 'U', 'B', ' '));
            w.WriteVX(0xFEFF);
            w.WriteVX(0xFF00);
            w.WriteVX(0xFFFFFF);
        }
        EXPECT_EQ(w.WriteVX(0x1000000), LXO_ERR_WRITE);
    }
    const std::string b = testsupport::ReadFile(f);
    const std::string payload = std::string("ab\0a", 4) + std::string("abc\0", 4) + std::string("\0\0", 2) + "SUB " +
                                U2(10) + "\xFE\xFF" + std::string("\xFF\x00\xFF\x00", 4) + "\xFF\xFF\xFF\xFF";
    const std::string expect =
        "FORM" + U4(uint32_t(12 + 8 + payload.size() - 8)) + "LXOB" + "TEST" + U4(uint32_t(payload.size())) + payload;
    EXPECT_EQ(b, expect);
}

TEST(LxoWriter, FormSizeIsFourUntilFinished) {
    TempDir tmp;
    const std::string f = (tmp / "w.lxo").string();
    LxoWriter w(f.c_str());
    { LxoFileChunk form(w); }
    { LxoVersionChunk v(w, 2, 1, "x"); }
    // Push the buffer out without finishing: the form size still reads 4.
    std::string big(1 << 20, 'z');
    w.WriteBytes(big.data(), big.size());
    const std::string partial = testsupport::ReadFile(f);
    ASSERT_GE(partial.size(), 12u);
    EXPECT_EQ(partial.substr(4, 4), U4(4));
    EXPECT_EQ(w.Finish(), 0u);
    const std::string done = testsupport::ReadFile(f);
    EXPECT_EQ(done.substr(4, 4), U4(uint32_t(done.size() - 8)));
}

TEST(LxoWriter, CannotCreate) {
    TempDir tmp;
    const std::string bad = (tmp / "missing/x.lxo").string();
    testing::internal::CaptureStdout();
    LxoWriter w(bad.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error creating LXO file <" + bad + ">\n");
    EXPECT_FALSE(w.IsOpen());
    EXPECT_EQ(w.WriteU4(1u), LXO_ERR_WRITE);
}

TEST(LxoReader, NoFile) {
    TempDir tmp;
    const std::string missing = (tmp / "none.lxo").string();
    testing::internal::CaptureStdout();
    LxoReader r(missing.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error reading LXO file <" + missing + ">\n");
    EXPECT_EQ(r.Read(), LXO_ERR_NO_FILE);
}

TEST(LxoReader, ChunkBoundariesAndTruncation) {
    const std::string chunks = Vrsn(std::string("abc\0", 4)) + Chunk("ZZZZ", "12345") + Vrsn(std::string("a\0b", 3));
    const std::string file = Form(chunks);
    // Every prefix: success at chunk boundaries; a cut header, or a field cut short, is the
    // read error. A chunk cut where nothing decodes it (the form type, the unknown ZZZZ)
    // is skipped past the end of the file, where the walk ends as after the last chunk; so
    // is the last VRSN without the byte after its string, which no field needs.
    const std::vector<size_t> ends = {12, 12 + 20, 12 + 20 + 13, file.size()};
    for (size_t n = 0; n <= file.size(); ++n) {
        const bool atEnd = n == 0 || std::find(ends.begin(), ends.end(), n) != ends.end();
        const bool skipped = (n >= 8 && n < 12) || (n >= 12 + 20 + 8 && n < 12 + 20 + 13) || n == file.size() - 1;
        EXPECT_EQ(ReadBytes(file.substr(0, n)), atEnd || skipped ? 0u : LXO_ERR_READ) << n;
    }
    // Trailing garbage that does not make a chunk header fails; a whole header whose size
    // runs past the end of the file is skipped like the rest.
    EXPECT_EQ(ReadBytes(file + "XY"), LXO_ERR_READ);
    EXPECT_EQ(ReadBytes(file + "XXXX" + U4(100) + "abc"), 0u);
}

TEST(LxoReader, SkipsWhatHandlersLeaveUnread) {
    Recording rec;
    rec.skipChunk = lxoid::VRSN;
    const std::string file = Form(Vrsn(std::string("one\0", 4)) + Chunk("TAGS", std::string("t1\0xt\0", 6)));
    EXPECT_EQ(ReadBytes(file, &rec), 0u);
    EXPECT_EQ(rec.headers, (std::vector<uint32_t>{lxoid::FORM, lxoid::VRSN, lxoid::TAGS}));
    EXPECT_EQ(rec.strings, (std::vector<std::string>{"t1", "t"}));
}

TEST(LxoReader, FormTypeIsNotChecked) {
    const std::string file = "FORM" + U4(999) + "ABCD" + Vrsn(std::string("v\0", 2));
    Recording rec;
    EXPECT_EQ(ReadBytes(file, &rec), 0u);
    EXPECT_EQ(rec.strings, std::vector<std::string>{"v"});
}

TEST(LxoReader, StringsAndIndices) {
    // 0xFF inside a string reads as end of file.
    EXPECT_EQ(ReadBytes(Form(Vrsn(std::string("a\xFF"
                                              "b\0",
                                              4)))),
              LXO_ERR_READ);
    // A string with no NUL before the chunk ends.
    EXPECT_EQ(ReadBytes(Form(Vrsn("abcd"))), LXO_ERR_READ);
    // The pad byte of an odd-length string must be present.
    EXPECT_EQ(ReadBytes(Form(Vrsn(std::string("a\0", 2)) + Chunk("TAGS", std::string("ab\0", 3)))), LXO_ERR_READ);

    // VX: 2-byte and 4-byte forms, the 24-bit maximum; CURV packs flags into the count word.
    const std::string face = U4(lxoid::FACE) + U2(3) + U2(5) + "\xFF\x01\x02\x03" + "\xFF\xFF\xFF\xFF";
    const std::string curv = U4(lxoid::CURV) + U2(0x0C03) + U2(1) + U2(2) + U2(3);
    const std::string hcrv = U4(lxoid::HCRV) + U2(2) + U4(0x77) + U2(4) + U2(5);
    Recording rec;
    EXPECT_EQ(ReadBytes(Form(Chunk("POLS", face) + Chunk("POLS", curv) + Chunk("POLS", hcrv)), &rec), 0u);
    ASSERT_EQ(rec.polygons.size(), 3u);
    EXPECT_EQ(rec.polygons[0], (std::vector<uint32_t>{5, 0x010203, 0xFFFFFF}));
    EXPECT_EQ(rec.polygons[1], (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_EQ(rec.polygonFlags[1], 3u);
    EXPECT_EQ(rec.polygons[2], (std::vector<uint32_t>{4, 5}));
    EXPECT_EQ(rec.polygonFlags[2], 0x77u);
    // A VX cut after its 0xFF marker.
    EXPECT_EQ(ReadBytes(Form(Chunk("POLS", U4(lxoid::FACE) + U2(1) + "\xFF\x01"))), LXO_ERR_READ);
}

TEST(LxoReader, ChannelValueTypes) {
    auto item = [](uint16_t type, const std::string& value) {
        return Form(
            Chunk("ITEM", std::string("t\0n\0", 4) + U4(0) + Sub("CHAN", std::string("c\0", 2) + U2(type) + value)));
    };
    Recording rec;
    EXPECT_EQ(ReadBytes(item(0x4E56, F4(2.5f)), &rec), 0u);
    ASSERT_EQ(rec.values.size(), 1u);
    EXPECT_EQ(rec.values[0].kind, 2);
    EXPECT_EQ(rec.values[0].f, 2.5f);
    EXPECT_EQ(ReadBytes(item(0x611, U4(uint32_t(-7))), &rec), 0u); // interpolation bits do not matter
    EXPECT_EQ(rec.values.at(0).i, -7);
    EXPECT_EQ(ReadBytes(item(0x23, std::string("hi\0h", 4)), &rec), 0u); // bit 0x20 is ignored
    EXPECT_STREQ(rec.values.at(0).text, "hi");
    EXPECT_EQ(ReadBytes(item(0x05, U4(1))), LXO_ERR_UNSUPPORTED_TYPE);
    EXPECT_EQ(ReadBytes(item(0x10, U4(1))), LXO_ERR_UNSUPPORTED_TYPE);
    // Var-length data longer than the sub-chunk.
    EXPECT_EQ(ReadBytes(item(0x04, U4(50) + "ab")), LXO_ERR_READ);
    // Hint strings are cut to 1023 characters but consumed whole.
    std::string longText(1500, 'x');
    longText += std::string("\0\0", 2);
    const std::string two =
        Form(Chunk("ITEM", std::string("t\0n\0", 4) + U4(0) + Sub("CHAN", std::string("c\0", 2) + U2(3) + longText) +
                               Sub("CHAN", std::string("d\0", 2) + U2(1) + U4(9))));
    EXPECT_EQ(ReadBytes(two, &rec), 0u);
    ASSERT_EQ(rec.values.size(), 2u);
    EXPECT_EQ(std::string(rec.values[0].text), std::string(1023, 'x'));
    EXPECT_EQ(rec.values[1].i, 9);
}

TEST(LxoReader, SizesBeyondTheirContainer) {
    const std::string head = std::string("t\0n\0", 4) + U4(0);
    // A sub-chunk claiming more than its chunk holds.
    EXPECT_EQ(ReadBytes(Form(Chunk("ITEM", head + "UNIQ" + U2(200) + std::string("ab\0a", 4)))), LXO_ERR_READ);
    // A sub-chunk header cut short.
    EXPECT_EQ(ReadBytes(Form(Chunk("ITEM", head + "UNI"))), LXO_ERR_READ);
    // Reading past the sub-chunk is caught even when the chunk has bytes left.
    EXPECT_EQ(ReadBytes(Form(Chunk("ITEM", head + Sub("UIDX", "ab") + Sub("UIDX", U4(1))))), LXO_ERR_READ);
    // Counts that the chunk cannot hold are refused before anything is allocated.
    EXPECT_EQ(ReadBytes(Form(Chunk("CHNM", U4(0xFFFFFFFF) + std::string("a\0", 2)))), LXO_ERR_READ);
    EXPECT_EQ(ReadBytes(Form(Chunk("REFS", U4(0x7FFFFFFF)))), LXO_ERR_READ);
    EXPECT_EQ(ReadBytes(Form(Chunk("ITEM", head + Sub("PAKG", std::string("p\0", 2) + U4(0xFFFFFF00))))), LXO_ERR_READ);
    // A chunk size of 4 GB in a small file.
    EXPECT_EQ(ReadBytes(Form("PNTS" + U4(0xFFFFFFF0) + F4(1))), LXO_ERR_READ);
    // A vertex map of huge dimension with no entries is fine; a cut entry is not.
    EXPECT_EQ(ReadBytes(Form(Chunk("VMAP", U4(lxoid::TXUV) + U2(0xFFFF) + std::string("m\0", 2)))), 0u);
    EXPECT_EQ(ReadBytes(Form(Chunk("VMAP", U4(lxoid::TXUV) + U2(2) + std::string("m\0", 2) + U2(1) + F4(1)))),
              LXO_ERR_READ);
    // Vector dimension 0 is no division by zero.
    EXPECT_EQ(ReadBytes(Form(Chunk("VVEC", U4(1) + U4(0) + std::string("v\0", 2) + F4(1)))), 0u);
}
