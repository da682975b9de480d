#include "formats/mesh/CPlyBuffer.h"

#include <cstring>

#include "plugin/host/IoFile.h"

CPlyBuffer::CPlyBuffer() : m_data(new uint8_t[512]) {}
CPlyBuffer::~CPlyBuffer() = default;

// Doubles until the value fits (a single doubling may not be enough for a long run of bytes).
void CPlyBuffer::Grow(uint32_t n) {
    uint64_t cap = m_capacity;
    while (uint64_t(m_length) + n >= cap) cap *= 2;
    std::unique_ptr<uint8_t[]> d(new uint8_t[cap]);
    std::memcpy(d.get(), m_data.get(), m_length);
    m_data = std::move(d);
    m_capacity = static_cast<uint32_t>(cap);
}

bool CPlyBuffer::Flush(IoFile& file) {
    const bool ok = m_length == 0 || file.FileWrite(m_data.get(), m_length);
    m_length = 0;
    return ok;
}
