#pragma once
// The one number formatter for writers. Every function appends exactly the bytes
// printf gives in the C locale ("%f", "%.4f", "%d", "%u", "%g", "%e"; -0.0 prints
// "-0.000000", infinities "inf"/"-inf", NaNs "nan"/"-nan" as glibc prints them),
// without consulting the locale and without printf's per-call cost: numbers go
// through std::to_chars, whose floating-point output is defined as printf's.
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace numfmt {

// "%.<precision>f" (precision 6 is "%f").
void AppendFixed(std::string& out, double v, int precision = 6);
// "%.<precision>e".
void AppendExp(std::string& out, double v, int precision = 6);
// "%.<precision>g".
void AppendGeneral(std::string& out, double v, int precision = 6);
// "%d" / "%lld".
void AppendInt(std::string& out, long long v);
// "%u" / "%llu".
void AppendUInt(std::string& out, unsigned long long v);

// Buffer forms: write at most `cap` bytes (no terminator) and return the length
// printf would produce; when that exceeds `cap` the buffer holds a truncated copy.
size_t FormatFixed(char* buf, size_t cap, double v, int precision = 6);
size_t FormatInt(char* buf, size_t cap, long long v);

// Raw forms for writers' hot loops: write at `p` (no terminator) and return the end.
// The caller guarantees the room: kMaxFixed6 bytes for WriteFixed6, 21 for the integers.
inline constexpr size_t kMaxFixed6 = 330;
// "%f" of any double; the out-of-line general case of WriteFixed6.
char* WriteFixedSlow(char* p, double v);

namespace detail {
struct DigitPairs {
    char d[200];
    constexpr DigitPairs() : d() {
        for (int i = 0; i < 100; ++i) {
            d[2 * i] = static_cast<char>('0' + i / 10);
            d[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
inline constexpr DigitPairs kPairs{};

// Exactly two digits of x < 100.
inline char* Pair(char* p, uint32_t x) {
    p[0] = kPairs.d[2 * x];
    p[1] = kPairs.d[2 * x + 1];
    return p + 2;
}
// One or two digits of x < 100, no leading zero.
inline char* Lead(char* p, uint32_t x) {
    if (x < 10) {
        *p = static_cast<char>('0' + x);
        return p + 1;
    }
    return Pair(p, x);
}
} // namespace detail

// "%u" of a 32-bit value: the leading one or two digits, then fixed pairs, with
// no loop and no length pass.
inline char* WriteU32(char* p, uint32_t v) {
    using detail::Lead;
    using detail::Pair;
    if (v < 100) return Lead(p, v);
    if (v < 10000) return Pair(Lead(p, v / 100), v % 100);
    if (v < 1000000) {
        const uint32_t r = v % 10000;
        return Pair(Pair(Lead(p, v / 10000), r / 100), r % 100);
    }
    if (v < 100000000) {
        const uint32_t r = v % 1000000, r2 = r % 10000;
        return Pair(Pair(Pair(Lead(p, v / 1000000), r / 10000), r2 / 100), r2 % 100);
    }
    const uint32_t r = v % 100000000, r1 = r / 10000, r2 = r % 10000;
    return Pair(Pair(Pair(Pair(Lead(p, v / 100000000), r1 / 100), r1 % 100), r2 / 100), r2 % 100);
}

// "%f". Most numbers writers print are floats widened to double: for a float below
// 2^32 the product with 10^6 is exact (24-bit mantissa times 15625 * 2^6 fits 53 bits),
// so rounding it to an integer, ties to even as printf does by default, yields all the digits.
// Everything else (other doubles, huge values, inf, nan) goes the general way.
inline char* WriteFixed6(char* p, double v) {
    const double a = std::fabs(v);
    if (!(a < 4294967296.0) || static_cast<double>(static_cast<float>(a)) != a) return WriteFixedSlow(p, v);
    *p = '-';
    p += std::signbit(v) ? 1 : 0; // also "-0.000000" for -0.0 and tiny negatives
    // Ties to even by hand rather than through the FPU's rounding mode, so the output
    // never depends on the floating-point environment; t and t - u are both exact.
    const double t = a * 1e6;
    uint64_t u = static_cast<uint64_t>(static_cast<int64_t>(t)); // t < 2^52
    const double rest = t - static_cast<double>(u);
    u += (rest > 0.5 || (rest == 0.5 && (u & 1))) ? 1 : 0;
    const uint32_t ip = static_cast<uint32_t>(u / 1000000u);
    const uint32_t fp = static_cast<uint32_t>(u % 1000000u);
    p = WriteU32(p, ip);
    *p++ = '.';
    const uint32_t low = fp % 10000u;
    return detail::Pair(detail::Pair(detail::Pair(p, fp / 10000u), low / 100u), low % 100u);
}

inline char* WriteUInt(char* p, uint64_t v) {
    // Indices fit 32 bits; their digits come cheaper than 64-bit ones.
    if (v <= UINT32_MAX) return WriteU32(p, static_cast<uint32_t>(v));
    return std::to_chars(p, p + 20, v).ptr;
}

inline char* WriteInt(char* p, int64_t v) {
    if (v < 0) {
        *p++ = '-';
        return WriteUInt(p, 0ull - static_cast<uint64_t>(v));
    }
    return WriteUInt(p, static_cast<uint64_t>(v));
}

// printf in the C locale, appended to `out`: the one printf-style interpreter of the
// host (CXTString::Format runs on it too). Flags - + space 0, widths and precisions
// (also '*') and the conversions d i u x X o c s f F e E g G % take the fast path;
// the '#' flag, long doubles, %a and %p go to snprintf under the C locale. A narrow
// format takes "%ls"/"%lc"/"%S"/"%C" as wide text and writes it as UTF-8; a wide one
// takes "%s"/"%c" as wide and "%hs"/"%hc" as narrow UTF-8 text.
void AppendFormat(std::string& out, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;
void AppendFormatV(std::string& out, const char* fmt, va_list ap);
void AppendFormatV(std::wstring& out, const wchar_t* fmt, va_list ap);

} // namespace numfmt
