// Field scanning mirrors glibc's vfscanf in the C locale: which characters a
// conversion swallows (even ones the number does not use, as in "1e"), when the
// result is a matching failure and when EOF. The oracle tests compare it with
// sscanf on generated input; from_chars does the conversions.
#include "plugin/host/TextScanner.h"
#include "plugin/host/TextHelpers.h"

#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale.h>
#include <string>

namespace textscan {

std::string_view TrimLeft(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && IsSpace(s[i])) ++i;
    return s.substr(i);
}

std::string_view TrimRight(std::string_view s) {
    size_t n = s.size();
    while (n > 0 && IsSpace(s[n - 1])) --n;
    return s.substr(0, n);
}

std::string_view Trim(std::string_view s) { return TrimRight(TrimLeft(s)); }

const char* FindLineEnd(const char* p, const char* end, size_t& eolLen, const char*& nextLf) {
    if (!nextLf || nextLf < p) {
        const void* lf = std::memchr(p, '\n', static_cast<size_t>(end - p));
        nextLf = lf ? static_cast<const char*>(lf) : end;
    }
    if (const void* crv = std::memchr(p, '\r', static_cast<size_t>(nextLf - p))) {
        const char* cr = static_cast<const char*>(crv);
        eolLen = (cr + 1 < end && cr[1] == '\n') ? 2 : 1;
        return cr;
    }
    eolLen = nextLf < end ? 1 : 0;
    return nextLf;
}

bool LineSplitter::Next(std::string_view& line) {
    if (m_pos >= m_text.size()) return false;
    const char* base = m_text.data();
    const char* p = base + m_pos;
    size_t eol;
    const char* e = FindLineEnd(p, base + m_text.size(), eol, m_nextLf);
    line = std::string_view(p, static_cast<size_t>(e - p));
    m_pos = static_cast<size_t>(e - base) + eol;
    return true;
}

bool NextToken(std::string_view& rest, std::string_view& token) {
    size_t i = 0;
    while (i < rest.size() && IsSpace(rest[i])) ++i;
    if (i == rest.size()) {
        rest = {};
        return false;
    }
    size_t j = i;
    while (j < rest.size() && !IsSpace(rest[j])) ++j;
    token = rest.substr(i, j - i);
    rest.remove_prefix(j);
    return true;
}

std::vector<std::string_view> Tokenize(std::string_view s) {
    std::vector<std::string_view> out;
    std::string_view t;
    while (NextToken(s, t)) out.push_back(t);
    return out;
}

namespace {

template <typename C> constexpr bool Space(C c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
template <typename C> constexpr C Lower(C c) { return (c >= 'A' && c <= 'Z') ? static_cast<C>(c + 32) : c; }
template <typename C> constexpr bool Digit(C c) { return c >= '0' && c <= '9'; }
template <typename C> constexpr bool XDigit(C c) {
    return Digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

locale_t CLocale() {
    static locale_t loc = newlocale(LC_ALL_MASK, "C", nullptr);
    return loc;
}

// How far "%f" reads at p (glibc's rules), 0 on a matching failure. `hexOut` tells
// whether a hex float was seen.
template <typename C> size_t CollectFloat(const C* p, const C* end, size_t width, bool& hexOut) {
    const size_t avail = static_cast<size_t>(end - p);
    const size_t lim = width < avail ? width : avail;
    size_t i = 0;
    hexOut = false;
    if (lim == 0) return 0;
    if (p[0] == '-' || p[0] == '+') {
        ++i;
        if (i >= lim) return 0;
    }
    const size_t signLen = i;
    // "nan" and "inf"/"infinity": all or nothing (a partial "infin" is a failure).
    auto word = [&](const char* w) {
        for (; *w; ++w, ++i)
            if (i >= lim || Lower(p[i]) != static_cast<C>(*w)) return false;
        return true;
    };
    if (Lower(p[i]) == 'n') return word("nan") ? i : 0;
    if (Lower(p[i]) == 'i') {
        if (!word("inf")) return 0;
        if (i < lim && Lower(p[i]) == 'i') return word("inity") ? i : 0;
        return i;
    }
    bool hex = false, gotDigit = false, gotDot = false, gotE = false;
    C expChar = 'e';
    if (p[i] == '0') {
        ++i;
        // The 'x' is only taken when the width leaves room for a digit after it.
        if (i < avail && Lower(p[i]) == 'x' && (width == SIZE_MAX || width - i >= 2)) {
            hex = true;
            expChar = 'p';
            ++i;
        } else {
            gotDigit = true;
        }
    }
    while (i < lim) {
        C c = p[i];
        if (Digit(c) || (hex && !gotE && XDigit(c))) {
            gotDigit = true;
        } else if (gotE && Lower(p[i - 1]) == expChar && (c == '-' || c == '+')) {
        } else if (gotDigit && !gotE && Lower(c) == expChar) {
            gotE = gotDot = true;
        } else if (c == '.' && !gotDot) {
            gotDot = true;
        } else {
            break;
        }
        ++i;
    }
    if (hex && i == signLen + 2) return 0; // a bare "0x"
    hexOut = hex;
    return i;
}

template <typename T> bool FromCharsFallback(const char* b, const char* e, T& v) {
    // Out of range for from_chars: let strto* of the C locale give the saturated or
    // underflowed value that scanf stores.
    std::string tmp(b, e);
    char* stop = nullptr;
    if constexpr (std::is_same_v<T, float>) v = strtof_l(tmp.c_str(), &stop, CLocale());
    else if constexpr (std::is_same_v<T, double>) v = strtod_l(tmp.c_str(), &stop, CLocale());
    else v = strtold_l(tmp.c_str(), &stop, CLocale());
    return stop != tmp.c_str();
}

// Converts the collected text the way strtod would read its prefix. False when no
// number is there at all (".", "-.", "+").
template <typename T> bool ConvertFloat(const char* b, const char* e, bool hex, T& v) {
    bool neg = false;
    const char* s = b;
    if (s < e && (*s == '-' || *s == '+')) {
        neg = *s == '-';
        ++s;
    }
    if (s == e) return false;
    if constexpr (std::is_same_v<T, long double>) {
        return FromCharsFallback(b, e, v);
    } else {
        T r;
        if (Lower(*s) == 'n') {
            r = std::numeric_limits<T>::quiet_NaN();
        } else if (Lower(*s) == 'i') {
            r = std::numeric_limits<T>::infinity();
        } else if (hex) {
            auto res = std::from_chars(s + 2, e, r, std::chars_format::hex);
            if (res.ec == std::errc::result_out_of_range) return FromCharsFallback(b, e, v);
            if (res.ec != std::errc()) r = 0; // "0x." reads as the 0 before the x
        } else {
            auto res = std::from_chars(s, e, r, std::chars_format::general);
            if (res.ec == std::errc::result_out_of_range) return FromCharsFallback(b, e, v);
            if (res.ec != std::errc()) return false;
        }
        v = neg ? -r : r;
        return true;
    }
}

template <typename T, typename C> size_t FloatField(const C* p, const C* end, size_t width, T& v) {
    if constexpr (std::is_same_v<C, char> && !std::is_same_v<T, long double>) {
        // Plain decimals (the bulk of any file): from_chars alone consumes exactly what
        // scanf would, unless it stops at an 'e' (an exponent scanf swallows without
        // digits) or an 'x' (hex); those, signs '+', inf/nan (from_chars reads "-infin"
        // and "nan(x)" differently) and range errors take the full path below.
        if (width == SIZE_MAX && p < end &&
            (Digit(*p) || *p == '.' || (*p == '-' && p + 1 < end && (Digit(p[1]) || p[1] == '.')))) {
            T r;
            auto res = std::from_chars(p, end, r, std::chars_format::general);
            if (res.ec == std::errc() &&
                (res.ptr == end || (*res.ptr != 'e' && *res.ptr != 'E' && *res.ptr != 'x' && *res.ptr != 'X'))) {
                v = r;
                return static_cast<size_t>(res.ptr - p);
            }
        }
    }
    bool hex;
    size_t n = CollectFloat(p, end, width, hex);
    if (n == 0) return 0;
    if constexpr (std::is_same_v<C, char>) {
        return ConvertFloat(p, p + n, hex, v) ? n : 0;
    } else {
        // Only ASCII gets collected; narrow it for from_chars.
        char small[128];
        std::string big;
        char* buf = small;
        if (n > sizeof(small)) {
            big.resize(n);
            buf = big.data();
        }
        for (size_t k = 0; k < n; ++k) buf[k] = static_cast<char>(p[k]);
        return ConvertFloat(buf, buf + n, hex, v) ? n : 0;
    }
}

struct IntResult {
    unsigned long long mag = 0;
    bool neg = false;
    bool overflow = false;
};

template <typename C> int DigitValue(C c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 99;
}

// How far an integer conversion of `base` (0: %i) reads at p; 0 on a matching failure.
template <typename C> size_t CollectInt(const C* p, const C* end, size_t width, int base, IntResult& r) {
    const size_t avail = static_cast<size_t>(end - p);
    const size_t lim = width < avail ? width : avail;
    size_t i = 0;
    r = IntResult();
    if (lim == 0) return 0;
    if (p[0] == '-' || p[0] == '+') {
        r.neg = p[0] == '-';
        ++i;
    }
    bool any = false;
    if (i < lim && p[i] == '0') {
        ++i;
        any = true;
        if (i < lim && Lower(p[i]) == 'x') {
            if (base == 0) base = 16;
            if (base == 16) ++i; // consumed, not a digit
        } else if (base == 0) {
            base = 8;
        }
    }
    if (base == 0) base = 10;
    const unsigned long long maxv = std::numeric_limits<unsigned long long>::max();
    for (; i < lim; ++i) {
        int d = DigitValue(p[i]);
        if (d >= base) break;
        any = true;
        if (r.mag > (maxv - static_cast<unsigned>(d)) / static_cast<unsigned>(base)) r.overflow = true;
        else r.mag = r.mag * static_cast<unsigned>(base) + static_cast<unsigned>(d);
    }
    return any ? i : 0;
}

// strtol / strtoul of the collected text, on a 64-bit long.
long long AsSigned(const IntResult& r) {
    const unsigned long long lim = 1ull << 63;
    if (r.neg)
        return (r.overflow || r.mag > lim) ? std::numeric_limits<long long>::min() : static_cast<long long>(0 - r.mag);
    return (r.overflow || r.mag >= lim) ? std::numeric_limits<long long>::max() : static_cast<long long>(r.mag);
}
unsigned long long AsUnsigned(const IntResult& r) {
    if (r.overflow) return std::numeric_limits<unsigned long long>::max();
    return r.neg ? 0 - r.mag : r.mag;
}

enum Length { LEN_NONE, LEN_HH, LEN_H, LEN_L, LEN_LL, LEN_BIGL, LEN_J, LEN_Z, LEN_T };

template <typename C> bool WideTarget(Length len) {
    if constexpr (std::is_same_v<C, wchar_t>) return len != LEN_H;
    else return len == LEN_L;
}

// Stores n characters (plus a terminator when asked) into a char* or wchar_t* target.
template <typename C> void StoreChars(void* dst, bool wide, const C* s, size_t n, bool terminate) {
    if (wide) {
        auto* d = static_cast<wchar_t*>(dst);
        for (size_t k = 0; k < n; ++k) d[k] = static_cast<wchar_t>(static_cast<std::make_unsigned_t<C>>(s[k]));
        if (terminate) d[n] = 0;
    } else {
        auto* d = static_cast<char*>(dst);
        if constexpr (std::is_same_v<C, char>) {
            std::memcpy(d, s, n);
        } else {
            for (size_t k = 0; k < n; ++k) { d[k] = NarrowLatin1(s[k]); }
        }
        if (terminate) d[n] = 0;
    }
}

template <typename C> void StoreSigned(va_list& ap, Length len, long long v) {
    switch (len) {
    case LEN_HH: *va_arg(ap, signed char*) = static_cast<signed char>(v); break;
    case LEN_H: *va_arg(ap, short*) = static_cast<short>(v); break;
    case LEN_L: *va_arg(ap, long*) = static_cast<long>(v); break;
    case LEN_LL:
    case LEN_BIGL: *va_arg(ap, long long*) = v; break;
    case LEN_J: *va_arg(ap, intmax_t*) = v; break;
    case LEN_Z: *va_arg(ap, ptrdiff_t*) = static_cast<ptrdiff_t>(v); break;
    case LEN_T: *va_arg(ap, ptrdiff_t*) = static_cast<ptrdiff_t>(v); break;
    default: *va_arg(ap, int*) = static_cast<int>(v); break;
    }
}

template <typename C> void StoreUnsigned(va_list& ap, Length len, unsigned long long v) {
    switch (len) {
    case LEN_HH: *va_arg(ap, unsigned char*) = static_cast<unsigned char>(v); break;
    case LEN_H: *va_arg(ap, unsigned short*) = static_cast<unsigned short>(v); break;
    case LEN_L: *va_arg(ap, unsigned long*) = static_cast<unsigned long>(v); break;
    case LEN_LL:
    case LEN_BIGL: *va_arg(ap, unsigned long long*) = v; break;
    case LEN_J: *va_arg(ap, uintmax_t*) = v; break;
    case LEN_Z: *va_arg(ap, size_t*) = static_cast<size_t>(v); break;
    case LEN_T: *va_arg(ap, size_t*) = static_cast<size_t>(v); break;
    default: *va_arg(ap, unsigned*) = static_cast<unsigned>(v); break;
    }
}

// The vfscanf loop. `ap` is taken by reference so va_arg works through the helpers.
template <typename C> int ScanEngine(const C* in, const C* end, const C* fmt, va_list& ap) {
    const C* const start = in;
    int done = 0;
    auto inputFailure = [&] { return done == 0 ? -1 : done; };
    auto skipSpaces = [&] {
        while (in < end && Space(*in)) ++in;
    };
    while (*fmt) {
        C fc = *fmt;
        if (Space(fc)) {
            while (Space(*fmt)) ++fmt;
            skipSpaces();
            continue;
        }
        if (fc != '%') {
            ++fmt;
            if (in >= end) return inputFailure();
            if (*in != fc) return done;
            ++in;
            continue;
        }
        ++fmt;
        if (*fmt == '%') {
            ++fmt;
            skipSpaces();
            if (in >= end) return inputFailure();
            if (*in != '%') return done;
            ++in;
            continue;
        }
        bool suppress = false;
        if (*fmt == '*') {
            suppress = true;
            ++fmt;
        }
        size_t width = SIZE_MAX;
        if (Digit(*fmt)) {
            width = 0;
            while (Digit(*fmt)) {
                if (width < 100000000) width = width * 10 + static_cast<size_t>(*fmt - '0');
                ++fmt;
            }
            if (width == 0) width = SIZE_MAX; // "%0d": glibc treats a zero width as none
        }
        Length len = LEN_NONE;
        switch (*fmt) {
        case 'h':
            ++fmt;
            if (*fmt == 'h') {
                ++fmt;
                len = LEN_HH;
            } else len = LEN_H;
            break;
        case 'l':
            ++fmt;
            if (*fmt == 'l') {
                ++fmt;
                len = LEN_LL;
            } else len = LEN_L;
            break;
        case 'q':
            ++fmt;
            len = LEN_LL;
            break;
        case 'L':
            ++fmt;
            len = LEN_BIGL;
            break;
        case 'j':
            ++fmt;
            len = LEN_J;
            break;
        case 'z':
            ++fmt;
            len = LEN_Z;
            break;
        case 't':
            ++fmt;
            len = LEN_T;
            break;
        default: break;
        }
        C conv = *fmt;
        if (!conv) return done;
        ++fmt;
        switch (conv) {
        case 'n':
            if (!suppress) StoreSigned<C>(ap, len, static_cast<long long>(in - start));
            break;
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            skipSpaces();
            if (in >= end) return inputFailure();
            int base = conv == 'i' ? 0 : (conv == 'o' ? 8 : ((conv == 'x' || conv == 'X') ? 16 : 10));
            IntResult r;
            size_t n = CollectInt(in, end, width, base, r);
            if (n == 0) return done;
            in += n;
            if (!suppress) {
                if (conv == 'd' || conv == 'i') StoreSigned<C>(ap, len, AsSigned(r));
                else StoreUnsigned<C>(ap, len, AsUnsigned(r));
                ++done;
            }
            break;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A': {
            skipSpaces();
            if (in >= end) return inputFailure();
            size_t n;
            if (len == LEN_BIGL) {
                long double v;
                n = FloatField(in, end, width, v);
                if (n && !suppress) *va_arg(ap, long double*) = v;
            } else if (len == LEN_L || len == LEN_LL) {
                double v;
                n = FloatField(in, end, width, v);
                if (n && !suppress) *va_arg(ap, double*) = v;
            } else {
                float v;
                n = FloatField(in, end, width, v);
                if (n && !suppress) *va_arg(ap, float*) = v;
            }
            if (n == 0) return done;
            in += n;
            if (!suppress) ++done;
            break;
        }
        case 's':
        case 'S': {
            skipSpaces();
            if (in >= end) return inputFailure();
            const C* b = in;
            while (in < end && !Space(*in) && static_cast<size_t>(in - b) < width) ++in;
            if (!suppress) {
                bool wide = conv == 'S' ? true : WideTarget<C>(len);
                StoreChars(va_arg(ap, void*), wide, b, static_cast<size_t>(in - b), true);
                ++done;
            }
            break;
        }
        case 'c':
        case 'C': {
            if (width == SIZE_MAX) width = 1;
            if (in >= end) return inputFailure();
            const C* b = in;
            while (in < end && static_cast<size_t>(in - b) < width) ++in;
            if (!suppress) {
                bool wide = conv == 'C' ? true : WideTarget<C>(len);
                StoreChars(va_arg(ap, void*), wide, b, static_cast<size_t>(in - b), false);
                ++done;
            }
            break;
        }
        case '[': {
            // The set: a leading '^' negates, a leading ']' is a member, a-z is a range
            // unless '-' is first or last.
            bool negate = false;
            if (*fmt == '^') {
                negate = true;
                ++fmt;
            }
            const C* setBegin = fmt;
            if (*fmt == ']') ++fmt;
            while (*fmt && *fmt != ']') ++fmt;
            if (!*fmt) return done; // unterminated set: glibc fails the conversion
            const C* setEnd = fmt++;
            auto inSet = [&](C c) {
                const size_t n = static_cast<size_t>(setEnd - setBegin);
                for (size_t k = 0; k < n;) {
                    if (k + 2 < n && setBegin[k + 1] == '-') {
                        if (c >= setBegin[k] && c <= setBegin[k + 2]) return !negate;
                        k += 3;
                    } else {
                        if (c == setBegin[k]) return !negate;
                        ++k;
                    }
                }
                return negate;
            };
            if (in >= end) return inputFailure();
            const C* b = in;
            while (in < end && static_cast<size_t>(in - b) < width && inSet(*in)) ++in;
            if (in == b) return done;
            if (!suppress) {
                StoreChars(va_arg(ap, void*), WideTarget<C>(len), b, static_cast<size_t>(in - b), true);
                ++done;
            }
            break;
        }
        default: return done; // %p and unknown conversions stop the scan
        }
    }
    return done;
}

} // namespace

size_t ParseFloatField(const char* p, const char* end, size_t width, float& v) { return FloatField(p, end, width, v); }
size_t ParseDoubleField(const char* p, const char* end, size_t width, double& v) {
    return FloatField(p, end, width, v);
}

int ScanFormatV(std::string_view input, const char* fmt, va_list ap) {
    if (const void* z = std::memchr(input.data(), 0, input.size()))
        input = input.substr(0, static_cast<size_t>(static_cast<const char*>(z) - input.data()));
    va_list copy;
    va_copy(copy, ap);
    int r = ScanEngine<char>(input.data(), input.data() + input.size(), fmt, copy);
    va_end(copy);
    return r;
}

int ScanFormat(std::string_view input, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = ScanFormatV(input, fmt, ap);
    va_end(ap);
    return r;
}

int ScanFormatWideV(std::wstring_view input, const wchar_t* fmt, va_list ap) {
    size_t z = input.find(L'\0');
    if (z != std::wstring_view::npos) input = input.substr(0, z);
    va_list copy;
    va_copy(copy, ap);
    int r = ScanEngine<wchar_t>(input.data(), input.data() + input.size(), fmt, copy);
    va_end(copy);
    return r;
}

bool TextCursor::AtEndIgnoringSpaces() const {
    for (const char* p = m_p; p < m_end; ++p)
        if (!IsSpace(*p)) return false;
    return true;
}

std::string_view TextCursor::RestOfLine() {
    const char* nextLf = nullptr;
    size_t eol;
    const char* e = FindLineEnd(m_p, m_end, eol, nextLf);
    std::string_view r(m_p, static_cast<size_t>(e - m_p));
    m_p = e + eol;
    return r;
}

bool TextCursor::ReadFloat(float& v) {
    const char* p = m_p;
    while (p < m_end && IsSpace(*p)) ++p;
    size_t n = FloatField(p, m_end, SIZE_MAX, v);
    if (n == 0) return false;
    m_p = p + n;
    return true;
}

bool TextCursor::ReadDouble(double& v) {
    const char* p = m_p;
    while (p < m_end && IsSpace(*p)) ++p;
    size_t n = FloatField(p, m_end, SIZE_MAX, v);
    if (n == 0) return false;
    m_p = p + n;
    return true;
}

namespace {
template <typename F> bool CursorInt(const char*& cur, const char* end, int base, F&& store) {
    const char* p = cur;
    while (p < end && IsSpace(*p)) ++p;
    IntResult r;
    size_t n = CollectInt(p, end, SIZE_MAX, base, r);
    if (n == 0) return false;
    store(r);
    cur = p + n;
    return true;
}
} // namespace

bool TextCursor::ReadInt(int& v) {
    return CursorInt(m_p, m_end, 10, [&](const IntResult& r) { v = static_cast<int>(AsSigned(r)); });
}
bool TextCursor::ReadUInt(unsigned& v) {
    return CursorInt(m_p, m_end, 10, [&](const IntResult& r) { v = static_cast<unsigned>(AsUnsigned(r)); });
}
bool TextCursor::ReadInt64(long long& v) {
    return CursorInt(m_p, m_end, 10, [&](const IntResult& r) { v = AsSigned(r); });
}
bool TextCursor::ReadUInt64(unsigned long long& v) {
    return CursorInt(m_p, m_end, 10, [&](const IntResult& r) { v = AsUnsigned(r); });
}

bool TextCursor::ReadWord(std::string_view& w, size_t maxLen) {
    const char* p = m_p;
    while (p < m_end && IsSpace(*p)) ++p;
    if (p >= m_end || maxLen == 0) return false;
    const char* b = p;
    while (p < m_end && !IsSpace(*p) && static_cast<size_t>(p - b) < maxLen) ++p;
    w = std::string_view(b, static_cast<size_t>(p - b));
    m_p = p;
    return true;
}

bool TextCursor::Match(char c) {
    const char* p = m_p;
    while (p < m_end && IsSpace(*p)) ++p;
    if (p < m_end && *p == c) {
        m_p = p + 1;
        return true;
    }
    return false;
}

bool TextCursor::MatchLiteral(std::string_view s) {
    if (static_cast<size_t>(m_end - m_p) < s.size() || std::memcmp(m_p, s.data(), s.size()) != 0) return false;
    m_p += s.size();
    return true;
}

} // namespace textscan
