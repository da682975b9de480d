#pragma once
// How a chunked format lays out a chunk header: shared by the chunk walker (reading)
// and the byte sink (writing), so both sides agree on ids, size fields and padding.
#include <cstdint>

struct ChunkLayout {
    enum IdKind : uint8_t { ID_U16LE, ID_FOURCC } id;
    enum SizeKind : uint8_t { SIZE_U32LE, SIZE_U32BE, SIZE_U16BE } size;
    bool sizeIncludesHeader; // 3DS counts the header in the length
    bool padToEven;          // IFF pads odd payloads with one byte
    uint32_t HeaderBytes() const { return (id == ID_U16LE ? 2u : 4u) + (size == SIZE_U16BE ? 2u : 4u); }
};

inline constexpr ChunkLayout kChunk3DS{ChunkLayout::ID_U16LE, ChunkLayout::SIZE_U32LE, true, false};
inline constexpr ChunkLayout kChunkIFF{ChunkLayout::ID_FOURCC, ChunkLayout::SIZE_U32BE, false, true};
inline constexpr ChunkLayout kChunkLXO{ChunkLayout::ID_FOURCC, ChunkLayout::SIZE_U32BE, false, false};
inline constexpr ChunkLayout kSubChunkLXO{ChunkLayout::ID_FOURCC, ChunkLayout::SIZE_U16BE, false, false};
inline constexpr ChunkLayout kSubChunkIFF{ChunkLayout::ID_FOURCC, ChunkLayout::SIZE_U16BE, false, true};
