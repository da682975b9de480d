#pragma once
// The PLY writer's record buffer: a byte buffer that starts at 512 bytes and
// doubles (as often as needed) before an append would reach its capacity.
#include <cstddef>
#include <cstdint>
#include <memory>

class IoFile;

class CPlyBuffer {
public:
    CPlyBuffer();
    ~CPlyBuffer();
    CPlyBuffer(const CPlyBuffer&) = delete;
    CPlyBuffer& operator=(const CPlyBuffer&) = delete;

    void AppendBytes(const void* p, uint32_t n);
    void AppendFloat(float v);
    void AppendUInt(uint32_t v);
    void AppendByte(uint8_t v);
    // Writes the buffered bytes and empties the buffer; false when the write failed.
    bool Flush(IoFile& file);

    uint32_t GetLength() const { return m_length; }
    uint32_t GetCapacity() const { return m_capacity; }
    const uint8_t* GetData() const { return m_data.get(); }

private:
    void Reserve(uint32_t n);
    std::unique_ptr<uint8_t[]> m_data;
    uint32_t m_capacity = 512;
    uint32_t m_length = 0;
};
