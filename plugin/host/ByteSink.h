#pragma once
// The one byte sink of the writers. Bytes gather in a buffer and reach the target
// (an IoFile, a C stream, memory) in large pieces. Chunks mirror the chunk walker's
// layouts: BeginChunk writes the id and a zero size, EndChunk patches the size, in
// the buffer while the header is still there, else through the target's positioned write.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/ChunkLayout.h"

class IoFile;

// Where the bytes go. WriteAt rewrites bytes already appended and leaves the target
// ready to append at `resume`.
class CSinkTarget {
public:
    virtual ~CSinkTarget() = default;
    virtual bool Append(const void* data, size_t n) = 0;
    virtual bool WriteAt(uint64_t pos, const void* data, size_t n, uint64_t resume) = 0;
};

class CIoFileTarget final : public CSinkTarget {
public:
    explicit CIoFileTarget(IoFile& file) : m_file(file) {}
    bool Append(const void* data, size_t n) override;
    bool WriteAt(uint64_t pos, const void* data, size_t n, uint64_t resume) override;
private:
    IoFile& m_file;
};

// A C stream; a null stream fails every write.
class CStdioTarget final : public CSinkTarget {
public:
    explicit CStdioTarget(FILE* f = nullptr) : m_file(f) {}
    void Reset(FILE* f) { m_file = f; }
    bool Append(const void* data, size_t n) override;
    bool WriteAt(uint64_t pos, const void* data, size_t n, uint64_t resume) override;
private:
    FILE* m_file;
};

class CMemoryTarget final : public CSinkTarget {
public:
    explicit CMemoryTarget(std::vector<uint8_t>& out) : m_out(out) {}
    bool Append(const void* data, size_t n) override;
    bool WriteAt(uint64_t pos, const void* data, size_t n, uint64_t resume) override;
private:
    std::vector<uint8_t>& m_out;
};

class CByteSink {
public:
    // A chunk begun and not yet ended: where its header starts and how it is laid out.
    struct Mark {
        uint64_t start = 0;
        ChunkLayout layout = kChunk3DS;
    };

    explicit CByteSink(CSinkTarget& target, size_t bufferBytes = size_t(1) << 20);
    CByteSink(const CByteSink&) = delete;
    CByteSink& operator=(const CByteSink&) = delete;
    // Nothing is flushed here: the owner flushes and reports what failed.
    ~CByteSink() = default;

    // Room for `n` bytes at the end of the output; the buffer goes out first when it
    // has not that much room left (and grows for a piece larger than itself).
    uint8_t* Reserve(size_t n) {
        if (m_buf.size() - m_used < n) MakeRoom(n);
        uint8_t* p = m_buf.data() + m_used;
        m_used += n;
        return p;
    }
    // Blocks of half the buffer or more skip it.
    void Bytes(const void* data, size_t n);
    void U8(uint8_t v) { *Reserve(1) = v; }
    void U16le(uint16_t v) { PutU16le(Reserve(2), v); }
    void U32le(uint32_t v) { PutU32le(Reserve(4), v); }
    void F32le(float v) { PutF32le(Reserve(4), v); }
    void U16be(uint16_t v) { PutU16be(Reserve(2), v); }
    void U32be(uint32_t v) { PutU32be(Reserve(4), v); }
    void F32be(float v) { PutF32be(Reserve(4), v); }

    // Output offset of the next byte.
    uint64_t Tell() const { return m_flushed + m_used; }
    // Rewrites `n` bytes at `pos`, which must lie before Tell().
    void Patch(uint64_t pos, const void* bytes, size_t n);
    void PatchU16be(uint64_t pos, uint16_t v) {
        uint8_t b[2];
        PutU16be(b, v);
        Patch(pos, b, 2);
    }
    void PatchU32be(uint64_t pos, uint32_t v) {
        uint8_t b[4];
        PutU32be(b, v);
        Patch(pos, b, 4);
    }
    void PatchU32le(uint64_t pos, uint32_t v) {
        uint8_t b[4];
        PutU32le(b, v);
        Patch(pos, b, 4);
    }

    // Chunks end in the reverse order of their beginning (marks make any order legal,
    // but a size then counts whatever was written in between). EndChunk is false, and
    // leaves the size at 0, when the size does not fit the layout's size field.
    Mark BeginChunk(const ChunkLayout& layout, uint32_t id);
    bool EndChunk(const Mark& mark);

    // Hands the buffer to the target; false once any write has failed.
    bool Flush();
    // The caller appended `n` bytes to the target itself (after a Flush).
    void SkipAppended(uint64_t n) { m_flushed += n; }
    bool Failed() const { return m_failed; }
    size_t Buffered() const { return m_used; }

private:
    void MakeRoom(size_t n);
    CSinkTarget& m_target;
    std::vector<uint8_t> m_buf;
    size_t m_used = 0;
    uint64_t m_flushed = 0; // output offset of m_buf[0]
    bool m_failed = false;
};
