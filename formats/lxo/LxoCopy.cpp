// LXO copy and update. Raw copies go through one fixed buffer, so memory stays flat
// whatever the chunk sizes; CHNM, ITEM headers, LAYR and 3GRP are rewritten from
// their parsed fields.
#include "formats/lxo/LxoCopy.h"

#include <algorithm>
#include <new>
#include <unistd.h>

namespace {
constexpr size_t kCopyBuffer = size_t(1) << 20;
}

LxoCopy::LxoCopy(const char* srcPath, const char* dstPath) : LxoReader(srcPath) {
    m_writer = std::make_unique<LxoWriter>(dstPath);
    if (!m_writer->IsOpen()) {
        m_writer.reset();
        return;
    }
    LxoFileChunk form(*m_writer);
}

LxoCopy::~LxoCopy() {
    m_item.reset();
    if (m_ownsWriter) m_writer.reset();
    else m_writer.release();
}

uint32_t LxoCopy::ParseChunk(int context) {
    if (context == 0) return DispatchChunk();
    if (context == 2) return CopyChunk();
    return LXO_OK; // dropped: the read loop skips it
}

uint32_t LxoCopy::ParseItemSubChunk(int context) {
    if (context == 0) return DispatchItemSubChunk();
    if (context == 2) return CopySubChunk();
    return LXO_OK;
}

uint32_t LxoCopy::CopyBytes(uint64_t n) {
    // Big chunks still on disk are copied inside the kernel; whatever that cannot do
    // goes through the buffer below.
    uint64_t inOff = 0;
    int in = n >= (uint64_t(1) << 16) && !InSubChunk() ? UnreadDescriptor(inOff) : -1;
    int out = in >= 0 ? m_writer->AppendDescriptor() : -1;
    if (in >= 0 && out >= 0) {
        loff_t src = static_cast<loff_t>(inOff), dst = static_cast<loff_t>(m_writer->Tell());
        uint64_t moved = 0;
        while (moved < n) {
            const ssize_t k = copy_file_range(in, &src, out, &dst, static_cast<size_t>(n - moved), 0);
            if (k <= 0) break;
            moved += static_cast<uint64_t>(k);
        }
        TookUnread(moved);
        m_writer->Appended(moved);
        n -= moved;
    }
    if (!m_copyBuf) {
        m_copyBuf.reset(new (std::nothrow) uint8_t[kCopyBuffer]);
        if (!m_copyBuf) return Result(LXO_ERR_OUT_OF_MEMORY);
    }
    while (n > 0) {
        const size_t step = static_cast<size_t>(std::min<uint64_t>(n, kCopyBuffer));
        if (ReadBytes(m_copyBuf.get(), step)) return Result(LXO_ERR_READ);
        if (m_writer->WriteBytes(m_copyBuf.get(), step)) return Result(LXO_ERR_WRITE);
        n -= step;
    }
    return Result(LXO_OK);
}

uint32_t LxoCopy::CopyChunk() {
    // Channel names are registered again, and item headers rewritten, by the base decoders.
    if (ChunkID() == lxoid::CHNM || ChunkID() == lxoid::ITEM) return DispatchChunk();
    if (!m_writer) return Result(LXO_ERR_WRITE);
    // The payload is copied whole or not at all: a chunk cut by the end of the file is a short read.
    if (ChunkMissing()) return Result(LXO_ERR_READ);
    LxoChunk chunk(*m_writer, ChunkID());
    if (uint32_t r = CopyBytes(ChunkUnread())) return r;
    return Result(chunk.Close() ? LXO_ERR_WRITE : LXO_OK);
}

uint32_t LxoCopy::CopySubChunk() {
    if (!m_writer) return Result(LXO_ERR_WRITE);
    LxoSubChunk sub(*m_writer, SubChunkID());
    if (uint32_t r = CopyBytes(SubChunkUnread())) return r;
    return Result(sub.Close() ? LXO_ERR_WRITE : LXO_OK);
}

uint32_t LxoCopy::OnChannelNames(uint32_t, const LxoStringList& names) {
    if (!m_writer) return Result(LXO_ERR_WRITE);
    LxoChannelNamesChunk chunk(*m_writer, names);
    return Result(chunk.Close() ? LXO_ERR_WRITE : LXO_OK);
}

uint32_t LxoCopy::OnItemBegin(const char* type, const char* name, uint32_t referenceID) {
    if (!m_writer) return Result(LXO_ERR_WRITE);
    m_item = std::make_unique<LxoChunk>(*m_writer, lxoid::ITEM);
    // A copied item keeps its reference ID, 0 included.
    return Result(m_writer->WriteItemHeader(type, name, referenceID, false));
}

uint32_t LxoCopy::OnItemEnd() {
    if (!m_item) return LXO_OK;
    const uint32_t r = m_item->Close();
    m_item.reset();
    return Result(r ? LXO_ERR_WRITE : LXO_OK);
}

// ---------------------------------------------------------------------------

LxoUpdater::LxoUpdater(const char* srcPath, const char* dstPath) : LxoCopy(srcPath, dstPath) {}

int LxoUpdater::NestingContext() {
    using namespace lxoid;
    switch (ChunkID()) {
    case LAYR:
    case GRP3: return 0;
    case TAGS:
    case PART:
    case SRF3:
    case PNTS:
    case POLS:
    case PTAG:
    case VMAP:
    case TRIS:
    case TTGS:
    case VMAD:
    case VMED:
    case VRTS:
    case VVEC: return m_replacedID != -2 ? 1 : 2;
    // BBOX and VMPA are not geometry data here: they stay, even after a replaced layer.
    default: return 2;
    }
}

uint32_t LxoUpdater::OnLayer(const LxoLayerInfo& layer) {
    if (!m_writer) return Result(LXO_ERR_WRITE);
    m_replacedID = -2;
    m_layerIndex = layer.index;
    const LxoLayerMesh* mesh = nullptr;
    const bool found = m_replacements.Lookup(layer.referenceID, mesh) && mesh;
    {
        LxoLayerChunk chunk(*m_writer, layer);
        if (chunk.Close()) return Result(LXO_ERR_WRITE);
    }
    if (!found) return Result(LXO_OK);
    m_replacedID = layer.referenceID;
    m_replacedChunk = lxoid::LAYR;
    ++m_replacedCount;
    if (uint32_t r = LxoWriteLayerData(*m_writer, *mesh)) return Result(r);
    SkipRestOfChunk();
    return Result(LXO_OK);
}

uint32_t LxoUpdater::OnGroup(uint32_t surfaces, uint32_t referenceWord, uint32_t unused) {
    if (!m_writer) return Result(LXO_ERR_WRITE);
    m_replacedID = -2;
    const uint32_t ref = referenceWord & 0x7FFFFFFFu;
    const LxoLayerMesh* mesh = nullptr;
    const bool found = m_replacements.Lookup(ref, mesh) && mesh;
    {
        Lxo3dGroupChunk chunk(*m_writer, surfaces, referenceWord, unused);
        if (chunk.Close()) return Result(LXO_ERR_WRITE);
    }
    if (!found) return Result(LXO_OK);
    m_replacedID = ref;
    m_replacedChunk = lxoid::GRP3;
    ++m_replacedCount;
    if (uint32_t r = LxoWriteLayerData(*m_writer, *mesh)) return Result(r);
    SkipRestOfChunk();
    return Result(LXO_OK);
}
