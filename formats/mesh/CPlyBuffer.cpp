#include "formats/mesh/CPlyBuffer.h"

#include <cstring>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/IoFile.h"

CPlyBuffer::CPlyBuffer() : m_data(new uint8_t[512]) {}
CPlyBuffer::~CPlyBuffer() = default;

void CPlyBuffer::Reserve(uint32_t n) {
    if (uint64_t(m_length) + n < m_capacity) return;
    uint64_t cap = m_capacity;
    while (uint64_t(m_length) + n >= cap) cap *= 2;
    std::unique_ptr<uint8_t[]> d(new uint8_t[cap]);
    std::memcpy(d.get(), m_data.get(), m_length);
    m_data = std::move(d);
    m_capacity = static_cast<uint32_t>(cap);
}

void CPlyBuffer::AppendBytes(const void* p, uint32_t n) {
    Reserve(n);
    std::memcpy(m_data.get() + m_length, p, n);
    m_length += n;
}

void CPlyBuffer::AppendFloat(float v) {
    Reserve(4);
    PutF32le(m_data.get() + m_length, v);
    m_length += 4;
}

void CPlyBuffer::AppendUInt(uint32_t v) {
    Reserve(4);
    PutU32le(m_data.get() + m_length, v);
    m_length += 4;
}

void CPlyBuffer::AppendByte(uint8_t v) {
    Reserve(1);
    m_data[m_length++] = v;
}

bool CPlyBuffer::Flush(IoFile& file) {
    const bool ok = m_length == 0 || file.FileWrite(m_data.get(), m_length);
    m_length = 0;
    return ok;
}
