// The writers' byte sink: chunk headers read back by the chunk walker, sizes patched
// whether the header is still buffered or already out, and the size-field limits.
#include "plugin/host/ByteSink.h"
#include "plugin/host/ChunkWalker.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// Two nested 3DS chunks and a trailing sibling, written through a sink whose buffer
// is `buffer` bytes: small buffers force the headers out before their sizes are known.
std::vector<uint8_t> Nested3ds(size_t buffer) {
    std::vector<uint8_t> out;
    CMemoryTarget target(out);
    CByteSink sink(target, buffer);
    const auto outer = sink.BeginChunk(kChunk3DS, 0x4D4D);
    const auto inner = sink.BeginChunk(kChunk3DS, 0x0002);
    for (uint32_t i = 0; i < 100; ++i) sink.U32le(i);
    EXPECT_TRUE(sink.EndChunk(inner));
    std::vector<uint8_t> block(300, 0xAB); // half the buffer or more goes around it
    sink.Bytes(block.data(), block.size());
    EXPECT_TRUE(sink.EndChunk(outer));
    const auto tail = sink.BeginChunk(kChunk3DS, 0x3D3D);
    sink.F32le(1.5f);
    EXPECT_TRUE(sink.EndChunk(tail));
    EXPECT_TRUE(sink.Flush());
    EXPECT_EQ(sink.Tell(), out.size());
    return out;
}

} // namespace

TEST(ByteSink, ChunksReadBackThroughTheWalkerWhereverTheBufferWasCut) {
    const std::vector<uint8_t> whole = Nested3ds(1 << 20);
    ASSERT_EQ(whole.size(), 6u + 6 + 400 + 300 + 6 + 4);
    for (size_t buffer : {64, 100, 333}) EXPECT_EQ(Nested3ds(buffer), whole) << buffer;

    CBinaryCursor top(whole.data(), whole.size());
    CChunkWalker walk(top, kChunk3DS);
    Chunk c;
    ASSERT_EQ(walk.Next(c), ChunkStatus::Ok);
    EXPECT_EQ(c.id, 0x4D4Du);
    EXPECT_EQ(c.payloadSize, 706u);
    CChunkWalker sub(c.payload, kChunk3DS);
    Chunk s;
    ASSERT_EQ(sub.Next(s), ChunkStatus::Ok);
    EXPECT_EQ(s.id, 0x0002u);
    EXPECT_EQ(s.payloadSize, 400u);
    ASSERT_EQ(walk.Next(c), ChunkStatus::Ok);
    EXPECT_EQ(c.id, 0x3D3Du);
    EXPECT_EQ(c.payload.f32le(), 1.5f);
    EXPECT_EQ(walk.Next(c), ChunkStatus::End);
}

TEST(ByteSink, BigEndianLayoutsCountThePayloadAndPadWhereTheLayoutSays) {
    std::vector<uint8_t> out;
    CMemoryTarget target(out);
    CByteSink sink(target, 64);
    const auto form = sink.BeginChunk(kChunkLXO, 0x464F524Du); // FORM
    const auto sub = sink.BeginChunk(kSubChunkLXO, 0x4E414D45u);
    sink.U8(7);
    EXPECT_TRUE(sink.EndChunk(sub));
    const auto iff = sink.BeginChunk(kSubChunkIFF, 0x4F444421u);
    sink.U8(9); // odd payload: IFF adds a pad byte after it, not counted in the size
    EXPECT_TRUE(sink.EndChunk(iff));
    EXPECT_TRUE(sink.EndChunk(form));
    ASSERT_TRUE(sink.Flush());
    const std::vector<uint8_t> expect = {'F', 'O', 'R', 'M', 0,   0,   0,   15, 'N', 'A', 'M', 'E',
                                         0,   1,   7,   'O', 'D', 'D', '!', 0,  1,   9,   0};
    EXPECT_EQ(out, expect);
}

TEST(ByteSink, ASizeItsFieldCannotHoldIsRefusedAndLeftAtZero) {
    std::vector<uint8_t> out;
    CMemoryTarget target(out);
    CByteSink sink(target, 1 << 10);
    const auto sub = sink.BeginChunk(kSubChunkLXO, 0x41424344u);
    std::vector<uint8_t> big(0x10000, 1);
    sink.Bytes(big.data(), big.size());
    EXPECT_FALSE(sink.EndChunk(sub));
    EXPECT_FALSE(sink.Failed()); // refusing a size is not a failed write
    ASSERT_TRUE(sink.Flush());
    ASSERT_EQ(out.size(), 6u + 0x10000);
    EXPECT_EQ(out[4], 0);
    EXPECT_EQ(out[5], 0);
}

TEST(ByteSink, AFailedTargetIsReportedAndStaysFailed) {
    CStdioTarget none; // no stream: every write fails
    CByteSink sink(none, 64);
    sink.U32be(1);
    EXPECT_FALSE(sink.Failed()); // still buffered
    EXPECT_FALSE(sink.Flush());
    sink.U8(2);
    EXPECT_FALSE(sink.Flush());
    EXPECT_TRUE(sink.Failed());
}
