#pragma once
// A bounds-checked cursor over a byte span. Every read checks that enough bytes
// remain; a failed read sets the cursor's error state, returns 0 and moves nothing,
// so a parser can read a whole record and test ok() once. Sub-cursors fence nested chunks.
#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

class CBinaryCursor {
public:
    CBinaryCursor() = default;
    CBinaryCursor(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    explicit CBinaryCursor(std::span<const uint8_t> s) : m_data(s.data()), m_size(s.size()) {}

    size_t size() const { return m_size; }
    size_t pos() const { return m_pos; }
    size_t remaining() const { return m_size - m_pos; }
    bool ok() const { return !m_failed; }
    bool failed() const { return m_failed; }
    bool atEnd() const { return m_pos >= m_size; }
    void fail() { m_failed = true; }
    const uint8_t* data() const { return m_data; }
    const uint8_t* current() const { return m_data + m_pos; }

    // True when `count` elements of `elemSize` bytes fit in what remains (overflow-safe).
    bool canRead(uint64_t count, uint64_t elemSize = 1) const {
        if (elemSize != 0 && count > UINT64_MAX / elemSize) return false;
        return count * elemSize <= remaining();
    }
    bool seek(size_t p) {
        if (p > m_size) {
            m_failed = true;
            return false;
        }
        m_pos = p;
        return true;
    }
    bool skip(uint64_t n) {
        if (n > remaining()) {
            m_failed = true;
            return false;
        }
        m_pos += static_cast<size_t>(n);
        return true;
    }
    bool read(void* out, size_t n) {
        if (n > remaining()) {
            m_failed = true;
            return false;
        }
        std::memcpy(out, m_data + m_pos, n);
        m_pos += n;
        return true;
    }
    // A cursor over the next n bytes (this cursor advances past them); a failed cursor when short.
    CBinaryCursor sub(uint64_t n) {
        if (n > remaining()) {
            m_failed = true;
            CBinaryCursor c;
            c.m_failed = true;
            return c;
        }
        CBinaryCursor c(m_data + m_pos, static_cast<size_t>(n));
        m_pos += static_cast<size_t>(n);
        return c;
    }
    std::span<const uint8_t> bytes(uint64_t n) {
        if (n > remaining()) {
            m_failed = true;
            return {};
        }
        std::span<const uint8_t> s(m_data + m_pos, static_cast<size_t>(n));
        m_pos += static_cast<size_t>(n);
        return s;
    }

    uint8_t u8() { return get<uint8_t, false>(); }
    int8_t i8() { return static_cast<int8_t>(u8()); }
    uint16_t u16le() { return get<uint16_t, false>(); }
    uint16_t u16be() { return get<uint16_t, true>(); }
    uint32_t u32le() { return get<uint32_t, false>(); }
    uint32_t u32be() { return get<uint32_t, true>(); }
    uint64_t u64le() { return get<uint64_t, false>(); }
    uint64_t u64be() { return get<uint64_t, true>(); }
    int16_t i16le() { return static_cast<int16_t>(u16le()); }
    int16_t i16be() { return static_cast<int16_t>(u16be()); }
    int32_t i32le() { return static_cast<int32_t>(u32le()); }
    int32_t i32be() { return static_cast<int32_t>(u32be()); }
    float f32le() { return std::bit_cast<float>(u32le()); }
    float f32be() { return std::bit_cast<float>(u32be()); }
    double f64le() { return std::bit_cast<double>(u64le()); }
    double f64be() { return std::bit_cast<double>(u64be()); }

    // A NUL-terminated string of at most maxLen bytes before the NUL; fails when no NUL is found
    // within maxLen + 1 bytes. The NUL is consumed.
    bool cstring(std::string_view& out, size_t maxLen = SIZE_MAX) {
        size_t lim = remaining();
        if (maxLen != SIZE_MAX && maxLen + 1 < lim) lim = maxLen + 1;
        const void* z = std::memchr(m_data + m_pos, 0, lim);
        if (!z) {
            m_failed = true;
            return false;
        }
        size_t n = static_cast<const uint8_t*>(z) - (m_data + m_pos);
        out = std::string_view(reinterpret_cast<const char*>(m_data + m_pos), n);
        m_pos += n + 1;
        return true;
    }

private:
    template <typename T, bool BigEndian> T get() {
        if (sizeof(T) > remaining()) {
            m_failed = true;
            m_pos = m_size;
            return 0;
        }
        T v;
        std::memcpy(&v, m_data + m_pos, sizeof(T));
        m_pos += sizeof(T);
        if constexpr (sizeof(T) > 1) {
            if constexpr (BigEndian == (std::endian::native == std::endian::little)) v = byteswap(v);
        }
        return v;
    }
    template <typename T> static T byteswap(T v) {
        if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(v));
        else if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(v));
        else return static_cast<T>(__builtin_bswap64(v));
    }
    const uint8_t* m_data = nullptr;
    size_t m_size = 0;
    size_t m_pos = 0;
    bool m_failed = false;
};

// Little-/big-endian stores into a byte buffer (writers).
inline void PutU16le(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
inline void PutU32le(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}
inline void PutU16be(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void PutU32be(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (24 - 8 * i));
}
inline void PutF32le(uint8_t* p, float f) { PutU32le(p, std::bit_cast<uint32_t>(f)); }
inline void PutF32be(uint8_t* p, float f) { PutU32be(p, std::bit_cast<uint32_t>(f)); }
