#pragma once
// ASCII DXF lines read in SSE2 blocks: line ends found 64 bytes at a time (a compare per
// 16 bytes, a bit per byte), and code and value lines whose ends are known checked and
// converted 16 bytes at a time. Targets without SSE2 read a line at a time instead.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <immintrin.h>
#define DXF_BLOCK_LINES 1
#else
#define DXF_BLOCK_LINES 0
#endif

namespace dxfscan {

constexpr size_t kBlock = 64;

#if DXF_BLOCK_LINES
// Bit i set where p[i] == eol, for the 64 bytes at p.
inline uint64_t EolMask(const char* p, char eol) {
    const __m128i pattern = _mm_set1_epi8(eol);
    const auto part = [&](int i) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
        return static_cast<uint64_t>(static_cast<uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, pattern))));
    };
    return part(0) | part(1) << 16 | part(2) << 32 | part(3) << 48;
}

// Line ends in order, taken straight from the bit mask of the current block: a line costs
// a bit scan, and a block its four compares.
class CLineEnds {
public:
    void Reset(const char* data, size_t size, char eol) {
        m_data = data;
        m_size = size;
        m_eol = eol;
        m_next = 0;
        m_base = 0;
        m_mask = 0;
        m_lastLine = size > 0 && data[size - 1] != eol;
    }
    // Scanning starts at `from` (a line start) instead of the data's first byte.
    void Start(size_t from) {
        m_next = m_base = from;
        m_mask = 0;
    }
    // The next line end (the data's size for a last line without one); false past the end.
    [[gnu::always_inline]] bool Next(size_t& end) {
        if (m_mask == 0 && !Refill()) return false;
        end = m_base + static_cast<size_t>(__builtin_ctzll(m_mask));
        m_mask &= m_mask - 1;
        return true;
    }

private:
    bool Refill() {
        while (m_next < m_size) {
            m_base = m_next;
            if (m_size - m_next >= kBlock) {
                m_mask = EolMask(m_data + m_next, m_eol);
            } else {
                m_mask = 0;
                for (size_t i = 0; i < m_size - m_next; ++i)
                    if (m_data[m_next + i] == m_eol) m_mask |= uint64_t(1) << i;
            }
            m_next += kBlock;
            if (m_mask) return true;
        }
        if (!m_lastLine) return false;
        m_lastLine = false;
        m_base = m_size;
        m_mask = 1;
        return true;
    }

    const char* m_data = nullptr;
    size_t m_size = 0;
    char m_eol = '\n';
    size_t m_next = 0; // first byte of the next block to scan
    size_t m_base = 0; // first byte of the block m_mask covers
    uint64_t m_mask = 0;
    bool m_lastLine = false; // a last line without a line end is still to be reported
};

// Lines whose ends are known are classified 16 bytes at a time: a bit per byte for
// digits (and for the byte given), so a whole line is checked at once.
struct CByteClasses {
    unsigned digits, other;
    [[gnu::always_inline]] CByteClasses(const char* p, char c) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i nine = _mm_set1_epi8(9);
        const __m128i d = _mm_max_epu8(_mm_sub_epi8(v, _mm_set1_epi8('0')), nine);
        digits = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(d, nine)));
        other = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(c))));
    }
};

// A code line [p, p + len) of blanks and one to four digits; false for any other shape.
// Sixteen bytes from p must be readable.
[[gnu::always_inline]] inline bool LineCode(const char* p, size_t len, int& code) {
    if (len - 1 < 3) {
        // One to three digits, no blanks (most codes): checked and combined in a word.
        uint32_t w;
        std::memcpy(&w, p, 4);
        w <<= 8 * (4 - len); // the digits in the top bytes, zeros below
        const uint32_t keep = ~0u << 8 * (4 - len);
        const uint32_t x = (w & keep) | (0x30303030u & ~keep); // zeros read as '0'
        // A byte is a digit when its high nibble is 3 and stays 3 with 6 added (a carry
        // into it comes only from a byte that fails itself).
        if ((((x & 0xF0F0F0F0u) ^ 0x30303030u) | (((x + 0x06060606u) & 0xF0F0F0F0u) ^ 0x30303030u)) == 0) {
            w &= 0x0F0F0F0Fu;
            w = (w * 10 + (w >> 8)) & 0x00FF00FFu;
            code = static_cast<int>((w * 100 + (w >> 16)) & 0xFFFFu);
            return true;
        }
    }
    if (len - 1 > 7) return false;
    const CByteClasses c(p, ' ');
    const unsigned all = (1u << len) - 1;
    const unsigned blanks = static_cast<unsigned>(__builtin_ctz(~c.other));
    const unsigned want = all >> blanks << blanks; // digits from the first non-blank on
    if (want == 0 || (c.digits & all) != want || len - blanks > 4) return false;
    uint32_t w;
    std::memcpy(&w, p + blanks, 4);
    w <<= 8 * (4 - (len - blanks)); // k digits moved to the top bytes
    w &= 0x0F0F0F0Fu;
    w = (w * 10 + (w >> 8)) & 0x00FF00FFu;
    code = static_cast<int>((w * 100 + (w >> 16)) & 0xFFFFu);
    return true;
}

// Byte masks by count: kTail[k] selects the last k of sixteen bytes.
struct CTailMasks {
    alignas(16) uint8_t m[17][16];
    constexpr CTailMasks() : m{} {
        for (int k = 0; k <= 16; ++k)
            for (int i = 0; i < 16; ++i) m[k][i] = i >= 16 - k ? 0xFF : 0;
    }
};
inline constexpr CTailMasks kTail{};

// A value line [p, p + len) that is exactly a plain decimal ("-12.500000", "7", ".5") of
// at most fifteen digits, as PlainDecimal reads it; false for any other shape. The sixteen
// bytes before the line's end are read (the line's own and those of the lines before), so
// the line must not start in the data's first seventeen bytes.
[[gnu::always_inline]] inline bool LineDecimal(const char* p, size_t len, double& out) {
    const bool neg = *p == '-';
    const unsigned n = static_cast<unsigned>(len) - neg; // digits and the point
    if (len - 1 > 16 || n - 1 > 15) return false;
    // The number right-aligned in a register, and again one byte later: there the digits
    // before the point have moved up over it.
    const char* const end = p + len;
    const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(end - 16));
    const __m128i shifted = _mm_loadu_si128(reinterpret_cast<const __m128i*>(end - 17));
    const CByteClasses c(end - 16, '.');
    const unsigned all = 0xFFFFu << (16 - n) & 0xFFFFu;
    const unsigned dot = c.other & all;
    if (((c.digits | dot) & all) != all || (dot & (dot - 1)) != 0) return false;
    const unsigned point = static_cast<unsigned>(31 - __builtin_clz(dot | 1)); // its byte, when there is one
    const unsigned frac = dot ? 15 - point : 0;
    const unsigned digits = n - (dot != 0);
    if (digits - 1 > 14) return false;
    // Digits after the point from r, those before it from the shifted copy; then only the
    // number's own digits are kept.
    const __m128i after = _mm_load_si128(reinterpret_cast<const __m128i*>(kTail.m[dot ? frac : 16]));
    const __m128i joined = _mm_or_si128(_mm_and_si128(r, after), _mm_andnot_si128(after, shifted));
    const __m128i keep = _mm_load_si128(reinterpret_cast<const __m128i*>(kTail.m[digits]));
    const __m128i d = _mm_and_si128(_mm_sub_epi8(joined, _mm_set1_epi8('0')), keep);
    // Sixteen digits to two eight-digit halves: pairs, quads, octets.
    const __m128i zero = _mm_setzero_si128();
    const __m128i tens = _mm_set1_epi32(0x0001000A);
    const __m128i pairs = _mm_packs_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(d, zero), tens),
                                          _mm_madd_epi16(_mm_unpackhi_epi8(d, zero), tens));
    const __m128i quads = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00010064));
    const __m128i octets = _mm_madd_epi16(_mm_packs_epi32(quads, quads), _mm_set1_epi32(0x00012710));
    const auto high = static_cast<uint32_t>(_mm_cvtsi128_si32(octets));
    const auto low = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(octets, 4)));
    const auto m = static_cast<int64_t>(uint64_t(high) * 100000000u + low);
    static constexpr double kDiv[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    // An exact integer over an exact power of ten, rounded once: the full parse's double.
    const double v = static_cast<double>(m) / kDiv[frac];
    out = std::bit_cast<double>(std::bit_cast<uint64_t>(v) | uint64_t(neg) << 63);
    return true;
}
#endif

} // namespace dxfscan
