#pragma once
// The one text scanner: line splitting over bytes, trimming, tokenising, and
// scanf-compatible field scanning on string views. Numbers go through
// std::from_chars, so the process locale never matters, and the field rules are
// those of glibc's scanf in the C locale (what is consumed, what is assigned,
// what the call returns).
//
// Deliberate differences from C, all on paths the formats do not take:
//  - ScanFormat stops at the first NUL of its input, like sscanf; the cursor does
//    not: to TextCursor a NUL is an ordinary non-space character.
//  - The wide instance (CXTString<wchar_t>::ScanS) stores wchar_t for %s/%c/%[ as
//    the host's Windows runtime does, and bytes (low 8 bits, '?' beyond) for %hs/%hc;
//    the narrow one widens bytes one by one for %ls/%lc/%l[.
//  - %p is not supported (the call stops there, as on a matching failure).
#include <bit>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define TEXTSCAN_HAVE_AVX2_PATH 1
#endif

namespace textscan {

// isspace() of the C locale.
constexpr bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
// The same test without branches, for hot loops where the byte after a number is a
// space one time and a line break the next (a branch there is mispredicted often). It
// suits tests like that one; a branch-free step that moves the read position (a sign,
// a digit count) was measured slower, as every later load then waits on it.
constexpr bool IsSpaceNoBranch(char c) {
    const unsigned u = static_cast<unsigned char>(c);
    return (u <= 32u) & static_cast<bool>((0x100003E00ull >> (u & 63u)) & 1u);
}

std::string_view TrimLeft(std::string_view s);
std::string_view TrimRight(std::string_view s);
std::string_view Trim(std::string_view s);

// Splits bytes into lines ended by LF, CRLF or a lone CR; the line end is not part
// of the line. A final line without a line end is still a line; an empty input has
// no lines. Linear even for files that only use CR.
class LineSplitter {
public:
    explicit LineSplitter(std::string_view text) : m_text(text) {}
    bool Next(std::string_view& line);
    // Byte offset where the next line starts.
    size_t Position() const { return m_pos; }
    bool AtEnd() const { return m_pos >= m_text.size(); }

private:
    std::string_view m_text;
    size_t m_pos = 0;
    const char* m_nextLf = nullptr; // cached next '\n' (see FindLineEnd)
};

// End of the line that starts at p (within [p, end)) and the length of its line
// end (0, 1 or 2 bytes). `nextLf` caches the next '\n' between calls (start with
// nullptr) so files with lone CR line ends stay linear. Shared with IoFile.
const char* FindLineEnd(const char* p, const char* end, size_t& eolLen, const char*& nextLf);

// Splits on runs of C-locale spaces: the next token of `rest`, advancing it.
bool NextToken(std::string_view& rest, std::string_view& token);
// All tokens (allocates; for setup code, not hot loops).
std::vector<std::string_view> Tokenize(std::string_view s);

// A zero-allocation cursor over one piece of text. Each Read* skips leading spaces
// and consumes exactly what the matching scanf conversion would; on failure the
// cursor does not move.
class TextCursor {
public:
    TextCursor() = default;
    explicit TextCursor(std::string_view s) : m_p(s.data()), m_end(s.data() + s.size()), m_begin(s.data()) {}

    void SkipSpaces() {
        while (m_p < m_end && IsSpace(*m_p)) ++m_p;
    }
    bool AtEnd() const { return m_p >= m_end; }
    // True when only spaces remain.
    bool AtEndIgnoringSpaces() const;
    size_t Position() const { return static_cast<size_t>(m_p - m_begin); }
    std::string_view Remaining() const { return {m_p, static_cast<size_t>(m_end - m_p)}; }
    // Everything left up to (not including) the next line end; moves past the line end.
    std::string_view RestOfLine();
    char Peek() const { return m_p < m_end ? *m_p : '\0'; }
    void Advance(size_t n) { m_p += n < static_cast<size_t>(m_end - m_p) ? n : static_cast<size_t>(m_end - m_p); }

    bool ReadFloat(float& v);               // "%f"
    bool ReadDouble(double& v);             // "%lf"
    bool ReadInt(int& v);                   // "%d"
    bool ReadUInt(unsigned& v);             // "%u"
    bool ReadInt64(long long& v);           // "%lld"
    bool ReadUInt64(unsigned long long& v); // "%llu"
    // "%s" with an optional width: the next run of non-spaces, at most maxLen bytes.
    bool ReadWord(std::string_view& w, size_t maxLen = SIZE_MAX);
    bool SkipWord() {
        std::string_view w;
        return ReadWord(w);
    } // "%*s"
    // Skips spaces, then consumes `c` if it is next.
    bool Match(char c);
    // Consumes `s` if the text continues with it exactly (no space skipping).
    bool MatchLiteral(std::string_view s);

private:
    const char* m_p = nullptr;
    const char* m_end = nullptr;
    const char* m_begin = nullptr;
};

// sscanf over a string view in the C locale. Returns the number of fields assigned,
// or -1 (EOF) when the input ended before the first assignment.
int ScanFormat(std::string_view input, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(scanf, 2, 3)))
#endif
    ;
int ScanFormatV(std::string_view input, const char* fmt, va_list ap);
// The wide form behind CXTString<wchar_t>::ScanS (see the notes above).
int ScanFormatWideV(std::wstring_view input, const wchar_t* fmt, va_list ap);

// Scans the longest prefix of [p, end) that "%f"/"%lf" would consume (width limit
// `width`, SIZE_MAX for none; no space skipping) and converts it. Returns the number
// of bytes consumed, 0 when the field does not match.
size_t ParseFloatField(const char* p, const char* end, size_t width, float& v);
size_t ParseDoubleField(const char* p, const char* end, size_t width, double& v);

// --- Fast paths for the hot loops of big text readers --------------------------
// Each takes only the plain decimal form and returns nullptr for anything else, or
// when it cannot settle the exact result cheaply; the caller then uses the general
// scanner above, so a result never differs from "%f" / "%d". No space skipping.

#if defined(__SSE2__)
// The sixteen bytes at p, and masks of them (bit i for p[i]): line breaks ('\n', '\r')
// and C-locale spaces (line breaks included). The space test takes \t..\r by signed
// compares, where bytes from 0x80 up are negative and fall outside.
inline __m128i Load16(const char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline unsigned BreakMask16(__m128i x) {
    return static_cast<unsigned>(_mm_movemask_epi8(
        _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8('\n')), _mm_cmpeq_epi8(x, _mm_set1_epi8('\r')))));
}
inline unsigned SpaceMask16(__m128i x) {
    const __m128i ctl =
        _mm_and_si128(_mm_cmpgt_epi8(x, _mm_set1_epi8('\t' - 1)), _mm_cmplt_epi8(x, _mm_set1_epi8('\r' + 1)));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8(' ')), ctl)));
}
#endif

// First '\n' or '\r' in [p, end), or end. Sixteen bytes per step with SSE2, else eight.
inline const char* FindLineBreak(const char* p, const char* end) {
#if defined(__SSE2__)
    while (end - p >= 16) {
        const unsigned m = BreakMask16(Load16(p));
        if (m) return p + std::countr_zero(m);
        p += 16;
    }
#else
    if constexpr (std::endian::native == std::endian::little) {
        constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
        while (end - p >= 8) {
            uint64_t w;
            std::memcpy(&w, p, 8);
            const uint64_t a = w ^ (kOnes * '\n'), b = w ^ (kOnes * '\r');
            // The lowest flagged byte is always a real match (borrows only run upwards).
            const uint64_t z = ((a - kOnes) & ~a & kHigh) | ((b - kOnes) & ~b & kHigh);
            if (z) return p + (std::countr_zero(z) >> 3);
            p += 8;
        }
    }
#endif
    while (p < end && *p != '\n' && *p != '\r') ++p;
    return p;
}

// Bits set in a 16-bit mask, without relying on a popcount instruction.
inline unsigned PopCount16(unsigned x) {
    x = x - ((x >> 1) & 0x5555u);
    x = (x & 0x3333u) + ((x >> 2) & 0x3333u);
    x = (x + (x >> 4)) & 0x0F0Fu;
    return (x + (x >> 8)) & 0x1Fu;
}

// Bits set in a 64-bit mask, inline (without a popcount instruction in the baseline
// instruction set, std::popcount is a library call).
inline unsigned PopCount64(uint64_t x) {
    x = x - ((x >> 1) & 0x5555555555555555ull);
    x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    return static_cast<unsigned>((x * 0x0101010101010101ull) >> 56);
}

// Number of runs of non-space characters (C-locale spaces) in [p, line break), found in
// the same sweep that finds the break, as a token count for sizing arrays; `lineEnd` gets
// FindLineBreak(p, end). Sixteen bytes per step where SSE2 is there.
inline size_t CountTokensToLineBreak(const char* p, const char* end, const char*& lineEnd) {
    size_t n = 0;
    bool prevSpace = true;
#if defined(__SSE2__)
    while (end - p >= 16) {
        const __m128i x = Load16(p);
        const unsigned s = SpaceMask16(x);
        const unsigned b = BreakMask16(x);
        unsigned starts = ~s & ((s << 1) | (prevSpace ? 1u : 0u)) & 0xFFFFu;
        if (b) {
            starts &= (b & (0u - b)) - 1; // only what lies before the break
            lineEnd = p + std::countr_zero(b);
            return n + PopCount16(starts);
        }
        n += PopCount16(starts);
        prevSpace = (s >> 15) & 1u;
        p += 16;
    }
#endif
    for (; p < end && *p != '\n' && *p != '\r'; ++p) {
        const bool s = IsSpace(*p);
        n += static_cast<size_t>(!s && prevSpace);
        prevSpace = s;
    }
    lineEnd = p;
    return n;
}

// Bit i of `breaks` is set when p[i] is '\n' or '\r', bit i of `spaces` when p[i] is a
// C-locale space (line breaks included), for the 64 bytes at p: the masks behind
// block-wise line scans.
inline void ClassifyBlock64(const char* p, uint64_t& breaks, uint64_t& spaces) {
    uint64_t b = 0, s = 0;
#if defined(__SSE2__)
    for (int k = 0; k < 4; ++k) {
        const __m128i x = Load16(p + 16 * k);
        s |= uint64_t(SpaceMask16(x)) << (16 * k);
        b |= uint64_t(BreakMask16(x)) << (16 * k);
    }
#else
    for (int i = 0; i < 64; ++i) {
        b |= uint64_t(p[i] == '\n' || p[i] == '\r') << i;
        s |= uint64_t(IsSpace(p[i])) << i;
    }
#endif
    breaks = b;
    spaces = s;
}

#if defined(TEXTSCAN_HAVE_AVX2_PATH)
// ClassifyBlock64 in two 32-byte steps, for callers built for AVX2 (a function with the
// same target that has checked the processor: HaveAvx2()).
[[gnu::target("avx2")]] inline void ClassifyBlock64Avx2(const char* p, uint64_t& breaks, uint64_t& spaces) {
    uint64_t b = 0, s = 0;
    for (int k = 0; k < 2; ++k) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32 * k));
        const __m256i br =
            _mm256_or_si256(_mm256_cmpeq_epi8(x, _mm256_set1_epi8('\n')), _mm256_cmpeq_epi8(x, _mm256_set1_epi8('\r')));
        const __m256i ctl = _mm256_and_si256(_mm256_cmpgt_epi8(x, _mm256_set1_epi8('\t' - 1)),
                                             _mm256_cmpgt_epi8(_mm256_set1_epi8('\r' + 1), x));
        const __m256i sp = _mm256_or_si256(_mm256_cmpeq_epi8(x, _mm256_set1_epi8(' ')), ctl);
        b |= uint64_t(static_cast<uint32_t>(_mm256_movemask_epi8(br))) << (32 * k);
        s |= uint64_t(static_cast<uint32_t>(_mm256_movemask_epi8(sp))) << (32 * k);
    }
    breaks = b;
    spaces = s;
}
[[gnu::target("popcnt")]] inline unsigned PopCount64Hw(uint64_t x) {
    return static_cast<unsigned>(__builtin_popcountll(x));
}
// True when the processor runs AVX2, POPCNT and BMI1 code.
inline bool HaveAvx2() {
    static const bool have =
        __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt") && __builtin_cpu_supports("bmi");
    return have;
}
#endif

// The leading run of ASCII digits in the eight bytes at p: its length n (0-8) and its
// value. A byte b is a digit when neither b - '0' nor b + 0x46 sets its top bit; carries
// and borrows only run towards later bytes, and none starts in a digit, so the bytes up
// to the first non-digit are judged right. The digits are then combined pairwise (2, 4,
// 8 digits), each step one multiply that adds the pair's high part times its weight.
[[gnu::always_inline]] inline uint64_t DigitRun8(const char* p, unsigned& n) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    const uint64_t d = w - 0x3030303030303030ull;
    const uint64_t nd = (d | (w + 0x4646464646464646ull)) & 0x8080808080808080ull;
    n = nd ? static_cast<unsigned>(std::countr_zero(nd)) >> 3 : 8u;
    if (n == 0) return 0;
    uint64_t v = d << (8 * (8 - n)); // the run's digits, led by zeros
    v = ((v * (1 + (10 << 8))) >> 8) & 0x00FF00FF00FF00FFull;
    v = ((v * (1 + (100 << 16))) >> 16) & 0x0000FFFF0000FFFFull;
    return (v * (1 + (uint64_t(10000) << 32))) >> 32;
}

// "%d" on [sign] up to 9 digits.
[[gnu::always_inline]] inline const char* ParsePlainInt(const char* p, const char* end, int& v) {
    bool neg = false;
    if (p < end && (*p == '-' || *p == '+')) neg = *p++ == '-';
    uint32_t x = 0;
    unsigned n = 8;
    if constexpr (std::endian::native == std::endian::little) {
        if (end - p >= 8) {
            x = static_cast<uint32_t>(DigitRun8(p, n));
            if (n == 0) return nullptr;
            if (n < 8) p += n; // the byte after the run is not a digit
        }
    }
    if (n == 8) { // near the end of the text, or a long number
        const char* s = p;
        const char* lim = end - p > 9 ? p + 9 : end;
        x = 0;
        while (p < lim && static_cast<unsigned>(*p - '0') < 10u) x = x * 10 + static_cast<uint32_t>(*p++ - '0');
        if (p == s || (p < end && static_cast<unsigned>(*p - '0') < 10u)) return nullptr;
    }
    v = neg ? -static_cast<int>(x) : static_cast<int>(x);
    return p;
}

// m * 10^k + (the k digits at p), for the run of digits at p; returns the end of the run.
inline const char* AccumulateDigits(const char* p, const char* end, uint64_t& m) {
    if constexpr (std::endian::native == std::endian::little) {
        static constexpr uint64_t kScale[9] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};
        while (end - p >= 8) {
            unsigned n;
            const uint64_t run = DigitRun8(p, n);
            m = m * kScale[n] + run;
            p += n;
            if (n < 8) return p;
        }
    }
    while (p < end && static_cast<unsigned>(*p - '0') < 10u) m = m * 10 + static_cast<uint64_t>(*p++ - '0');
    return p;
}

// -f when `neg`, as a flip of the sign bit rather than a branch.
inline float Negated(float f, bool neg) {
    return std::bit_cast<float>(std::bit_cast<uint32_t>(f) ^ (static_cast<uint32_t>(neg) << 31));
}

// "%f" on [sign] digits [. digits] [e [sign] digits] that ends at a space or at `end`.
// The decimal is converted in one correctly rounded double operation (mantissa below
// 2^53, power of ten up to 22, both exact); the float taken from that double is exact
// unless the double sits exactly between two floats or outside the normal float range,
// and those cases are left to the caller.
[[gnu::always_inline]] inline const char* ParsePlainFloat(const char* p, const char* end, float& v) {
    static constexpr double kPow10[23] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                          1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    // The sign without branches: in real data it follows no pattern a predictor could learn.
    bool neg = false;
    if (p < end) {
        const char c = *p;
        neg = c == '-';
        p += neg | (c == '+');
    }
    uint64_t m = 0;
    long digits;
    int e10 = 0;
    if (end - p >= 40) {
        // Far from the end: the integer digits one by one without end checks (they are few
        // in practice), the fraction eight at a time. Longer runs go to the caller. (Eight
        // at a time for the integer part too was measured slower: the read position then
        // waits on the digit count instead of running ahead on a predicted branch.)
        const char* s = p;
        unsigned d;
        while ((d = static_cast<unsigned>(*p - '0')) < 10u) {
            m = m * 10 + d;
            if (++p - s > 19) return nullptr;
        }
        digits = p - s;
        if (*p == '.') {
            static constexpr uint64_t kScale[9] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};
            const char* f = ++p;
            unsigned n;
            const uint64_t run = DigitRun8(p, n);
            m = m * kScale[n] + run;
            p += n;
            if (n == 8) p = AccumulateDigits(p, end, m);
            digits += p - f;
            e10 = -static_cast<int>(p - f);
        }
    } else {
        const char* s = p;
        p = AccumulateDigits(p, end, m);
        digits = p - s;
        if (p < end && *p == '.') {
            const char* f = ++p;
            p = AccumulateDigits(p, end, m);
            digits += p - f;
            e10 = -static_cast<int>(p - f);
        }
    }
    if (digits == 0 || digits > 19) return nullptr; // beyond 19 digits m has wrapped
    if (p < end && !IsSpaceNoBranch(*p)) {          // most numbers end here, without an exponent
        if (*p != 'e' && *p != 'E') return nullptr;
        ++p;
        bool eneg = false;
        if (p < end && (*p == '-' || *p == '+')) eneg = *p++ == '-';
        const char* es = p;
        int x = 0;
        while (p < end && p - es < 4 && static_cast<unsigned>(*p - '0') < 10u) x = x * 10 + (*p++ - '0');
        if (p == es || (p < end && static_cast<unsigned>(*p - '0') < 10u)) return nullptr;
        e10 += eneg ? -x : x;
        if (p < end && !IsSpaceNoBranch(*p)) return nullptr;
    }
    if (m == 0) {
        v = neg ? -0.0f : 0.0f;
        return p;
    }
    if (m <= (uint64_t(1) << 24) && e10 >= -10 && e10 <= 10) {
        // Both operands exact in float: one float operation rounds correctly by itself.
        static constexpr float kPow10f[11] = {1e0f, 1e1f, 1e2f, 1e3f, 1e4f, 1e5f, 1e6f, 1e7f, 1e8f, 1e9f, 1e10f};
        const float f = e10 < 0 ? static_cast<float>(m) / kPow10f[-e10] : static_cast<float>(m) * kPow10f[e10];
        v = Negated(f, neg);
        return p;
    }
    if (m > (uint64_t(1) << 53) || e10 < -22 || e10 > 22) return nullptr;
    const double d = e10 < 0 ? static_cast<double>(m) / kPow10[-e10] : static_cast<double>(m) * kPow10[e10];
    const uint64_t bits = std::bit_cast<uint64_t>(d);
    const int exp = static_cast<int>((bits >> 52) & 0x7FF) - 1023;
    if (exp < -126 || exp > 127 || (bits & 0x1FFFFFFFu) == 0x10000000u) return nullptr;
    const float f = static_cast<float>(d);
    if (std::isinf(f)) return nullptr;
    v = Negated(f, neg);
    return p;
}

} // namespace textscan
