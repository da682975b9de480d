#pragma once
// The one chunk walker of the chunked formats. A chunk is an id and a size
// followed by its payload; the layouts differ per format (3DS: u16 id + u32 size
// LE, size including the 6-byte header; LXO: 4-byte id + u32 size BE, payload
// size, with u16-size sub-chunks; IFF: 4-byte id + u32 BE, padded to even).
// The walker yields each chunk as a fenced cursor and always continues at chunk
// start + size, whatever the handler read; a size the container cannot hold stops the walk
// with an error.
#include <cstdint>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/ChunkLayout.h"

struct Chunk {
    uint32_t id = 0;
    uint64_t start = 0;       // offset of the header within the parent cursor
    uint64_t payloadSize = 0; // bytes after the header
    CBinaryCursor payload;    // fenced to the payload
};

enum class ChunkStatus { Ok, End, Truncated, BadSize };

class CChunkWalker {
public:
    CChunkWalker(CBinaryCursor& parent, const ChunkLayout& layout) : m_cur(parent), m_layout(layout) {}
    // Next chunk, or End when the container is exhausted. Fewer bytes than a header
    // left over gives Truncated; a size below the header (3DS) or beyond the container gives BadSize.
    ChunkStatus Next(Chunk& out) {
        if (m_cur.atEnd()) return ChunkStatus::End;
        const uint32_t hdr = m_layout.HeaderBytes();
        if (m_cur.remaining() < hdr) return ChunkStatus::Truncated;
        out.start = m_cur.pos();
        out.id = m_layout.id == ChunkLayout::ID_U16LE ? m_cur.u16le() : m_cur.u32be();
        uint64_t sz = 0;
        switch (m_layout.size) {
        case ChunkLayout::SIZE_U32LE: sz = m_cur.u32le(); break;
        case ChunkLayout::SIZE_U32BE: sz = m_cur.u32be(); break;
        case ChunkLayout::SIZE_U16BE: sz = m_cur.u16be(); break;
        }
        if (m_layout.sizeIncludesHeader) {
            if (sz < hdr) return ChunkStatus::BadSize;
            sz -= hdr;
        }
        if (sz > m_cur.remaining()) return ChunkStatus::BadSize;
        out.payloadSize = sz;
        out.payload = m_cur.sub(sz);
        if (m_layout.padToEven && (sz & 1) && !m_cur.atEnd()) m_cur.skip(1);
        return ChunkStatus::Ok;
    }
private:
    CBinaryCursor& m_cur;
    ChunkLayout m_layout;
};
