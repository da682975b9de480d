#include <gtest/gtest.h>

#include <vector>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/ChunkWalker.h"

TEST(BinaryCursor, EndianReadsAndStickyFailure) {
    const uint8_t b[] = {0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x80, 0x3F, 0x41, 0x00, 0x42};
    CBinaryCursor c(b, sizeof b);
    EXPECT_EQ(c.u16le(), 0x0201);
    EXPECT_EQ(c.u16be(), 0x0304);
    EXPECT_FLOAT_EQ(c.f32le(), 1.0f);
    std::string_view s;
    ASSERT_TRUE(c.cstring(s));
    EXPECT_EQ(s, "A");
    EXPECT_EQ(c.remaining(), 1u);
    // A read past the end fails, returns 0, and the failure sticks.
    EXPECT_EQ(c.u32le(), 0u);
    EXPECT_TRUE(c.failed());
    CBinaryCursor d(b, 4);
    EXPECT_EQ(d.u32be(), 0x01020304u);
    EXPECT_TRUE(d.ok());
    EXPECT_TRUE(d.atEnd());
    CBinaryCursor e(b, 4);
    EXPECT_EQ(e.i32le(), 0x04030201);
}

TEST(BinaryCursor, CountsAreCheckedWithoutOverflow) {
    std::vector<uint8_t> buf(64);
    CBinaryCursor c(buf.data(), buf.size());
    EXPECT_TRUE(c.canRead(16, 4));
    EXPECT_FALSE(c.canRead(17, 4));
    EXPECT_FALSE(c.canRead(0x4000000000000001ull, 4)); // count * size wraps in 64 bits
    EXPECT_FALSE(c.canRead(UINT64_MAX, 12));
    EXPECT_TRUE(c.canRead(0, 1000));
    EXPECT_FALSE(c.skip(65));
    EXPECT_TRUE(c.failed());
}

TEST(BinaryCursor, StringsNeedTheirTerminatorWithinTheLimit) {
    const uint8_t b[] = {'a', 'b', 'c', 'd', 0};
    CBinaryCursor c(b, sizeof b);
    std::string_view s;
    EXPECT_FALSE(c.cstring(s, 3)); // no NUL within 4 bytes
    CBinaryCursor d(b, sizeof b);
    EXPECT_TRUE(d.cstring(s, 4));
    EXPECT_EQ(s, "abcd");
    CBinaryCursor e(b, 4); // cut before the NUL
    EXPECT_FALSE(e.cstring(s));
}

TEST(BinaryCursor, SubCursorsAreFenced) {
    const uint8_t b[] = {1, 2, 3, 4, 5, 6};
    CBinaryCursor c(b, sizeof b);
    CBinaryCursor sub = c.sub(2);
    EXPECT_EQ(c.pos(), 2u);
    EXPECT_EQ(sub.u8(), 1);
    EXPECT_EQ(sub.u8(), 2);
    EXPECT_EQ(sub.u8(), 0); // does not run into the parent's bytes
    EXPECT_TRUE(sub.failed());
    EXPECT_TRUE(c.ok());
    EXPECT_EQ(c.u8(), 3);
    CBinaryCursor tooBig = c.sub(10);
    EXPECT_TRUE(tooBig.failed());
    EXPECT_TRUE(c.failed());
}

namespace {
std::vector<uint8_t> Chunk3ds(uint16_t id, std::vector<uint8_t> payload) {
    std::vector<uint8_t> out(6);
    PutU16le(out.data(), id);
    PutU32le(out.data() + 2, static_cast<uint32_t>(payload.size() + 6));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}
} // namespace

TEST(ChunkWalker, ThreeDsChunksContinueAtStartPlusLength) {
    std::vector<uint8_t> inner = Chunk3ds(0x4110, {1, 2, 3, 4});
    std::vector<uint8_t> file = Chunk3ds(0x4D4D, inner);
    std::vector<uint8_t> second = Chunk3ds(0x0002, {9});
    file.insert(file.end(), second.begin(), second.end());
    CBinaryCursor all(file.data(), file.size());
    CChunkWalker w(all, kChunk3DS);
    Chunk c;
    ASSERT_EQ(w.Next(c), ChunkStatus::Ok);
    EXPECT_EQ(c.id, 0x4D4Du);
    EXPECT_EQ(c.payloadSize, 10u);
    // The handler reads only part of the payload; the walk still lands on the next chunk.
    c.payload.u8();
    ASSERT_EQ(w.Next(c), ChunkStatus::Ok);
    EXPECT_EQ(c.id, 0x0002u);
    EXPECT_EQ(c.start, 16u);
    EXPECT_EQ(w.Next(c), ChunkStatus::End);
}

TEST(ChunkWalker, BadLengthsStopTheWalk) {
    struct Case {
        std::vector<uint8_t> bytes;
        ChunkStatus want;
    } cases[] = {
        {{0x4D, 0x4D, 0x00, 0x00, 0x00, 0x00}, ChunkStatus::BadSize},       // zero: would loop forever
        {{0x4D, 0x4D, 0x05, 0x00, 0x00, 0x00}, ChunkStatus::BadSize},       // below the header
        {{0x4D, 0x4D, 0xFF, 0x00, 0x00, 0x00, 1, 2}, ChunkStatus::BadSize}, // beyond the container
        {{0x4D, 0x4D, 0x06}, ChunkStatus::Truncated},
    };
    for (auto& c : cases) {
        CBinaryCursor cur(c.bytes.data(), c.bytes.size());
        CChunkWalker w(cur, kChunk3DS);
        Chunk ch;
        EXPECT_EQ(w.Next(ch), c.want);
    }
}

TEST(ChunkWalker, BigEndianLayoutsAndIffPadding) {
    // IFF: FORM-style id, big-endian size of the payload, odd payloads padded.
    std::vector<uint8_t> b = {'P', 'N', 'T', 'S', 0, 0, 0, 3, 1, 2, 3, 0, 'T', 'A', 'G', 'S', 0, 0, 0, 0};
    CBinaryCursor cur(b.data(), b.size());
    CChunkWalker w(cur, kChunkIFF);
    Chunk c;
    ASSERT_EQ(w.Next(c), ChunkStatus::Ok);
    EXPECT_EQ(c.id, 0x504E5453u);
    EXPECT_EQ(c.payloadSize, 3u);
    ASSERT_EQ(w.Next(c), ChunkStatus::Ok);
    EXPECT_EQ(c.id, 0x54414753u);
    EXPECT_EQ(w.Next(c), ChunkStatus::End);
    // LXO sub-chunks: u16 sizes, no padding.
    std::vector<uint8_t> s = {'V', 'R', 'S', 'N', 0, 1, 7, 'X', 'X', 'X', 'X', 0, 9};
    CBinaryCursor sc(s.data(), s.size());
    CChunkWalker sw(sc, kSubChunkLXO);
    ASSERT_EQ(sw.Next(c), ChunkStatus::Ok);
    EXPECT_EQ(c.payload.u8(), 7);
    EXPECT_EQ(sw.Next(c), ChunkStatus::BadSize);
}
