#pragma once
// Plain decimals from text, without the library's general parse: a mantissa of at most 15
// digits over an exact power of ten is rounded once, so the result equals the library's.
// PlainDecimal (doubles) reads its digits eight bytes at a time and refuses anything else
// for the caller's fallback; DecimalFloat (floats) falls back to the library by itself.
#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace decscan {

// Eight bytes as one little-endian word: digits are counted and combined a word at a time.
inline bool Word(const char* p, const char* e, uint64_t& w) {
    if constexpr (std::endian::native != std::endian::little) return false;
    if (e - p < 8) return false;
    std::memcpy(&w, p, 8);
    return true;
}

// How many of the word's bytes, from its first, are ASCII digits.
inline int DigitRun(uint64_t w) {
    const uint64_t highNibble = (w & 0xF0F0F0F0F0F0F0F0ull) ^ 0x3030303030303030ull;
    // Adding 6 pushes ':'..'?' out of the 0x3_ row; carries out of a byte start at a non-digit.
    const uint64_t lowNibble = ((w + 0x0606060606060606ull) & 0xF0F0F0F0F0F0F0F0ull) ^ 0x3030303030303030ull;
    const uint64_t y = highNibble | lowNibble; // zero bytes: digits (exact up to the first non-digit)
    const uint64_t flags = (((y & 0x7F7F7F7F7F7F7F7Full) + 0x7F7F7F7F7F7F7F7Full) | y) & 0x8080808080808080ull;
    return flags ? __builtin_ctzll(flags) >> 3 : 8;
}

// Value of the eight digits of w, first digit in the lowest byte; zero bytes read as
// zeros, so k digits shifted up by 8 - k bytes give their value: pairs, quads and octets
// are combined in place.
inline uint64_t DigitsValue(uint64_t w) {
    w &= 0x0F0F0F0F0F0F0F0Full;
    w = (w * 10 + (w >> 8)) & 0x00FF00FF00FF00FFull;
    w = (w * 100 + (w >> 16)) & 0x0000FFFF0000FFFFull;
    return (w * 10000 + (w >> 32)) & 0xFFFFFFFFull;
}

inline constexpr double kPow10[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                    1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
inline constexpr uint64_t kPow10Int[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};
// Powers of ten that floats hold exactly (5^10 < 2^24).
inline constexpr float kPow10Float[] = {1e0f, 1e1f, 1e2f, 1e3f, 1e4f, 1e5f, 1e6f, 1e7f, 1e8f, 1e9f, 1e10f};

// A plain decimal ("-12.500000", "7", ".5") from q, stopping at the first other byte.
// An exact integer of at most 15 digits over an exact power of ten is rounded once, so
// the result equals the full parse; false (q moved) for anything else.
[[gnu::always_inline]] inline bool PlainDecimal(const char*& q, const char* e, double& out) {
    if (q != e && *q == '+') ++q;
    const bool neg = q != e && *q == '-';
    if (neg) ++q;
    uint64_t m = 0;
    ptrdiff_t whole = 0, frac = 0;
    uint64_t w;
    const char* const digits = q;
    bool done = false;
    if (Word(q, e, w)) {
        // Up to seven digits, a point and up to seven more: a word for each side.
        const int k = DigitRun(w);
        if (k < 8) {
            m = k ? DigitsValue(w << (8 * (8 - k))) : 0;
            whole = k;
            q += k;
            done = true;
            if (*q == '.') {
                const int f = Word(q + 1, e, w) ? DigitRun(w) : 8;
                if (f < 8) {
                    if (f) m = m * kPow10Int[f] + DigitsValue(w << (8 * (8 - f)));
                    frac = f;
                    q += 1 + f;
                } else {
                    done = false;
                }
            }
        }
    }
    if (!done) {
        q = digits;
        m = 0;
        while (q != e && static_cast<unsigned>(*q - '0') < 10u) m = m * 10 + static_cast<uint64_t>(*q++ - '0');
        whole = q - digits;
        frac = 0;
        if (q != e && *q == '.') {
            const char* const f = ++q;
            while (q != e && static_cast<unsigned>(*q - '0') < 10u) m = m * 10 + static_cast<uint64_t>(*q++ - '0');
            frac = q - f;
        }
    }
    // Long digit runs wrap the mantissa: they are never used.
    if (whole + frac == 0 || whole + frac > 15) return false;
    const double v = frac ? static_cast<double>(m) / kPow10[frac] : static_cast<double>(m);
    out = neg ? -v : v;
    return true;
}

// std::from_chars<float> after an optional '+'; the text is left unread when it holds no number.
[[gnu::noinline]] inline std::from_chars_result DecimalFloatSlow(const char* first, const char* last, float& value) {
    const char* s = first != last && *first == '+' ? first + 1 : first;
    const std::from_chars_result r = std::from_chars(s, last, value);
    return r.ec == std::errc::invalid_argument ? std::from_chars_result{first, r.ec} : r;
}

// std::from_chars<float> (general format), quicker on plain decimals, and taking a leading
// '+' as well. Up to 2^24 over 10^10, both sides are exact floats and one division rounds
// right. Up to 15 digits, the exact double rounds to the same float unless it sits exactly
// halfway between two floats (it may have rounded onto the midpoint from either side).
// Short exponents fold into the power of ten. Those midpoints, other exponents, longer
// digit runs and words go to the library. A byte loop: measured here, it beats the
// word-at-a-time digits above on the short numbers lists hold.
[[gnu::always_inline]] inline std::from_chars_result DecimalFloat(const char* first, const char* last, float& value) {
    const char* q = first;
    if (q != last && *q == '+') ++q;
    const bool neg = q != last && *q == '-';
    q += neg;
    // One tight loop for each side of the point; a run too long for the quick path wraps
    // the mantissa harmlessly and is counted out below.
    uint64_t m = 0;
    unsigned digit;
    const char* const whole = q;
    while (q != last && (digit = static_cast<unsigned>(*q - '0')) < 10u) {
        m = m * 10 + digit;
        ++q;
    }
    ptrdiff_t digits = q - whole, f = 0;
    if (q != last && *q == '.') {
        const char* const fraction = ++q;
        while (q != last && (digit = static_cast<unsigned>(*q - '0')) < 10u) {
            m = m * 10 + digit;
            ++q;
        }
        f = q - fraction;
        digits += f;
    }
    if (digits != 0 && digits <= 15) [[likely]] {
        if (q != last && (*q | 0x20) == 'e') {
            // A short exponent ("1e-006", as some exporters write near-zeros) folds into the
            // power of ten; a long, empty or out-of-range one goes to the library.
            const char* x = q + 1;
            const bool down = x != last && *x == '-';
            x += x != last && (*x == '-' || *x == '+');
            const char* const power = x;
            ptrdiff_t e = 0;
            while (x != last && x - power < 4 && (digit = static_cast<unsigned>(*x - '0')) < 10u) {
                e = e * 10 + digit;
                ++x;
            }
            f += down ? e : -e;
            if (x == power || (x != last && static_cast<unsigned>(*x - '0') < 10u) || f < 0 || f > 15)
                return DecimalFloatSlow(first, last, value);
            q = x;
        }
        if (m <= (uint64_t{1} << 24) && f <= 10) [[likely]] {
            // The sign goes in as a bit: in lists it is a coin toss, too costly as a branch.
            const float v = static_cast<float>(m) / kPow10Float[f];
            value = std::bit_cast<float>(std::bit_cast<uint32_t>(v) | static_cast<uint32_t>(neg) << 31);
            return {q, std::errc()};
        }
        const double d = static_cast<double>(m) / kPow10[f];
        constexpr uint64_t kLow = (uint64_t{1} << 29) - 1, kHalf = uint64_t{1} << 28;
        if ((std::bit_cast<uint64_t>(d) & kLow) != kHalf) {
            value =
                std::bit_cast<float>(std::bit_cast<uint32_t>(static_cast<float>(d)) | static_cast<uint32_t>(neg) << 31);
            return {q, std::errc()};
        }
    }
    return DecimalFloatSlow(first, last, value);
}

} // namespace decscan
