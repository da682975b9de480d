#include "plugin/host/ByteSink.h"

#include <sys/types.h>

#include "plugin/host/IoFile.h"

bool CIoFileTarget::Append(const void* data, size_t n) { return m_file.FileWrite(data, n); }

bool CIoFileTarget::WriteAt(uint64_t pos, const void* data, size_t n, uint64_t resume) {
    return m_file.FileSeek(static_cast<int64_t>(pos), 0) && m_file.FileWrite(data, n) &&
           m_file.FileSeek(static_cast<int64_t>(resume), 0);
}

bool CStdioTarget::Append(const void* data, size_t n) {
    return m_file && (n == 0 || std::fwrite(data, 1, n, m_file) == n);
}

bool CStdioTarget::WriteAt(uint64_t pos, const void* data, size_t n, uint64_t resume) {
    return m_file && fseeko(m_file, static_cast<off_t>(pos), SEEK_SET) == 0 && std::fwrite(data, 1, n, m_file) == n &&
           fseeko(m_file, static_cast<off_t>(resume), SEEK_SET) == 0;
}

bool CMemoryTarget::Append(const void* data, size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    m_out.insert(m_out.end(), p, p + n);
    return true;
}

bool CMemoryTarget::WriteAt(uint64_t pos, const void* data, size_t n, uint64_t) {
    if (pos > m_out.size() || n > m_out.size() - pos) return false;
    std::memcpy(m_out.data() + pos, data, n);
    return true;
}

CByteSink::CByteSink(CSinkTarget& target, size_t bufferBytes)
    : m_target(target), m_buf(bufferBytes < 64 ? 64 : bufferBytes) {}

void CByteSink::MakeRoom(size_t n) {
    Flush();
    if (n > m_buf.size()) m_buf.resize(n);
}

void CByteSink::Bytes(const void* data, size_t n) {
    if (n >= m_buf.size() / 2) {
        Flush();
        if (n && !m_target.Append(data, n)) m_failed = true;
        m_flushed += n;
        return;
    }
    if (n) std::memcpy(Reserve(n), data, n);
}

void CByteSink::Patch(uint64_t pos, const void* bytes, size_t n) {
    if (pos >= m_flushed && pos + n <= Tell()) {
        std::memcpy(m_buf.data() + (pos - m_flushed), bytes, n);
        return;
    }
    // At least part of it went out already: send the rest too, then rewrite in place.
    Flush();
    if (!m_target.WriteAt(pos, bytes, n, m_flushed)) m_failed = true;
}

CByteSink::Mark CByteSink::BeginChunk(const ChunkLayout& layout, uint32_t id) {
    Mark m{Tell(), layout};
    uint8_t* p = Reserve(layout.HeaderBytes());
    if (layout.id == ChunkLayout::ID_U16LE) {
        PutU16le(p, static_cast<uint16_t>(id));
        p += 2;
    } else {
        PutU32be(p, id);
        p += 4;
    }
    std::memset(p, 0, layout.size == ChunkLayout::SIZE_U16BE ? 2 : 4);
    return m;
}

bool CByteSink::EndChunk(const Mark& m) {
    const uint32_t hdr = m.layout.HeaderBytes();
    const uint64_t payload = Tell() - m.start - hdr;
    const uint64_t size = m.layout.sizeIncludesHeader ? payload + hdr : payload;
    const uint64_t limit = m.layout.size == ChunkLayout::SIZE_U16BE ? 0xFFFFu : 0xFFFFFFFFu;
    if (size > limit) return false;
    const uint64_t at = m.start + (m.layout.id == ChunkLayout::ID_U16LE ? 2 : 4);
    switch (m.layout.size) {
    case ChunkLayout::SIZE_U32LE: PatchU32le(at, static_cast<uint32_t>(size)); break;
    case ChunkLayout::SIZE_U32BE: PatchU32be(at, static_cast<uint32_t>(size)); break;
    case ChunkLayout::SIZE_U16BE: PatchU16be(at, static_cast<uint16_t>(size)); break;
    }
    if (m.layout.padToEven && (payload & 1)) U8(0);
    return true;
}

bool CByteSink::Flush() {
    if (m_used) {
        if (!m_target.Append(m_buf.data(), m_used)) m_failed = true;
        m_flushed += m_used;
        m_used = 0;
    }
    return !m_failed;
}
