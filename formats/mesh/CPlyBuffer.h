#pragma once
// The PLY writer's record buffer: a byte buffer that starts at 512 bytes and
// doubles (as often as needed) before an append would reach its capacity.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "plugin/host/BinaryCursor.h"

class IoFile;

class CPlyBuffer {
public:
    CPlyBuffer();
    ~CPlyBuffer();
    CPlyBuffer(const CPlyBuffer&) = delete;
    CPlyBuffer& operator=(const CPlyBuffer&) = delete;

    // Inline: the PLY writer appends a handful of values per record, millions of times.
    void AppendBytes(const void* p, uint32_t n) {
        Reserve(n);
        std::memcpy(m_data.get() + m_length, p, n);
        m_length += n;
    }
    void AppendFloat(float v) { AppendU32(std::bit_cast<uint32_t>(v)); }
    void AppendUInt(uint32_t v) { AppendU32(v); }
    void AppendByte(uint8_t v) {
        Reserve(1);
        m_data[m_length++] = v;
    }
    // Writes the buffered bytes and empties the buffer; false when the write failed.
    bool Flush(IoFile& file);

    uint32_t GetLength() const { return m_length; }
    uint32_t GetCapacity() const { return m_capacity; }
    const uint8_t* GetData() const { return m_data.get(); }

private:
    void Reserve(uint32_t n) {
        if (uint64_t(m_length) + n >= m_capacity) Grow(n);
    }
    void Grow(uint32_t n);
    void AppendU32(uint32_t v) {
        Reserve(4);
        // One store on little-endian hosts; the byte-wise form elsewhere.
        if constexpr (std::endian::native == std::endian::little) std::memcpy(m_data.get() + m_length, &v, 4);
        else PutU32le(m_data.get() + m_length, v);
        m_length += 4;
    }
    std::unique_ptr<uint8_t[]> m_data;
    uint32_t m_capacity = 512;
    uint32_t m_length = 0;
};
