// printf-identical number output on std::to_chars. The C++ library defines the
// floating-point forms with an explicit precision as printf's in the C locale; what
// to_chars does not cover (signs of NaN, flags, padding) is done here the way glibc
// does it.
#include "plugin/host/NumberFormat.h"

#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <locale.h>
#include <string_view>
#include <type_traits>

#include "plugin/host/XString.h"

namespace numfmt {

namespace {

// Enough for any double in %e/%g and for %f of values below 1e17 at any sane precision.
constexpr size_t kStack = 384;

// to_chars into a stack buffer, or a heap string for huge %f output.
template <typename F> void AppendChars(std::string& out, size_t guess, F&& fn) {
    char buf[kStack];
    if (guess <= sizeof(buf)) {
        auto r = fn(buf, buf + sizeof(buf));
        if (r.ec == std::errc()) {
            out.append(buf, static_cast<size_t>(r.ptr - buf));
            return;
        }
    }
    std::string big(guess + 16, '\0');
    auto r = fn(big.data(), big.data() + big.size());
    out.append(big.data(), r.ec == std::errc() ? static_cast<size_t>(r.ptr - big.data()) : 0);
}

size_t FixedGuess(double v, int precision) {
    // Digits before the point: up to 309 for the largest doubles.
    int e = 0;
    if (std::isfinite(v) && v != 0) std::frexp(v, &e);
    size_t intDigits = e > 0 ? static_cast<size_t>(e) * 30103 / 100000 + 2 : 1;
    return intDigits + static_cast<size_t>(precision) + 4;
}

// glibc prints the sign bit of a NaN ("-nan"); to_chars may not agree, so NaN and
// infinity are spelled here.
bool AppendSpecial(std::string& out, double v, bool upper) {
    if (std::isfinite(v)) return false;
    if (std::signbit(v)) out += '-';
    if (std::isnan(v)) out += upper ? "NAN" : "nan";
    else out += upper ? "INF" : "inf";
    return true;
}

locale_t CLocale() {
    static locale_t loc = newlocale(LC_ALL_MASK, "C", nullptr);
    return loc;
}

} // namespace

char* WriteFixedSlow(char* p, double v) {
    if (!std::isfinite(v)) {
        if (std::signbit(v)) *p++ = '-';
        std::memcpy(p, std::isnan(v) ? "nan" : "inf", 3);
        return p + 3;
    }
    // The longest "%f" of a double is 309 digits, a sign, a point and six decimals.
    return std::to_chars(p, p + kMaxFixed6, v, std::chars_format::fixed, 6).ptr;
}

void AppendFixed(std::string& out, double v, int precision) {
    if (precision < 0) precision = 6;
    if (precision == 6) {
        char buf[kMaxFixed6];
        out.append(buf, static_cast<size_t>(WriteFixed6(buf, v) - buf));
        return;
    }
    if (AppendSpecial(out, v, false)) return;
    AppendChars(out, FixedGuess(v, precision),
                [&](char* b, char* e) { return std::to_chars(b, e, v, std::chars_format::fixed, precision); });
}

void AppendExp(std::string& out, double v, int precision) {
    if (precision < 0) precision = 6;
    if (AppendSpecial(out, v, false)) return;
    AppendChars(out, static_cast<size_t>(precision) + 16,
                [&](char* b, char* e) { return std::to_chars(b, e, v, std::chars_format::scientific, precision); });
}

void AppendGeneral(std::string& out, double v, int precision) {
    if (precision < 0) precision = 6;
    if (AppendSpecial(out, v, false)) return;
    AppendChars(out, static_cast<size_t>(precision) + 16, [&](char* b, char* e) {
        return std::to_chars(b, e, v, std::chars_format::general, precision == 0 ? 1 : precision);
    });
}

void AppendInt(std::string& out, long long v) {
    char buf[24];
    out.append(buf, static_cast<size_t>(WriteInt(buf, v) - buf));
}

void AppendUInt(std::string& out, unsigned long long v) {
    char buf[24];
    out.append(buf, static_cast<size_t>(WriteUInt(buf, v) - buf));
}

size_t FormatFixed(char* buf, size_t cap, double v, int precision) {
    if (precision < 0) precision = 6;
    if (precision == 6 && cap >= kMaxFixed6) return static_cast<size_t>(WriteFixed6(buf, v) - buf);
    if (std::isfinite(v) && cap >= FixedGuess(v, precision)) {
        auto r = std::to_chars(buf, buf + cap, v, std::chars_format::fixed, precision);
        if (r.ec == std::errc()) return static_cast<size_t>(r.ptr - buf);
    }
    std::string s;
    AppendFixed(s, v, precision);
    std::memcpy(buf, s.data(), std::min(cap, s.size()));
    return s.size();
}

size_t FormatInt(char* buf, size_t cap, long long v) {
    char tmp[24];
    auto r = std::to_chars(tmp, tmp + sizeof(tmp), v);
    size_t n = static_cast<size_t>(r.ptr - tmp);
    std::memcpy(buf, tmp, std::min(cap, n));
    return n;
}

namespace {

struct FieldFormat {
    bool left = false, plus = false, space = false, zero = false;
    int width = -1, prec = -1;
};

// Pads a formatted number: `body` may start with a sign; zero padding goes after it.
void AppendNumber(std::string& out, std::string_view body, const FieldFormat& s, bool zeroAllowed) {
    size_t w = s.width > 0 ? static_cast<size_t>(s.width) : 0;
    if (body.size() >= w) {
        out.append(body);
        return;
    }
    size_t pad = w - body.size();
    if (s.left) {
        out.append(body);
        out.append(pad, ' ');
    } else if (s.zero && zeroAllowed) {
        size_t signLen = (!body.empty() && (body[0] == '-' || body[0] == '+' || body[0] == ' ')) ? 1 : 0;
        out.append(body.substr(0, signLen));
        out.append(pad, '0');
        out.append(body.substr(signLen));
    } else {
        out.append(pad, ' ');
        out.append(body);
    }
}

void AppendIntegerField(std::string& out, unsigned long long mag, bool neg, int base, bool upper, const FieldFormat& s,
                        bool isSigned) {
    char digits[72];
    char* e = std::to_chars(digits, digits + 64, mag, base).ptr;
    size_t n = static_cast<size_t>(e - digits);
    if (upper)
        for (size_t i = 0; i < n; ++i)
            if (digits[i] >= 'a' && digits[i] <= 'f') digits[i] = static_cast<char>(digits[i] - 32);
    std::string body;
    if (neg) body += '-';
    else if (isSigned && s.plus) body += '+';
    else if (isSigned && s.space) body += ' ';
    // Precision: minimum digit count; "%.0d" of 0 prints no digits.
    if (s.prec >= 0) {
        if (s.prec == 0 && mag == 0) n = 0;
        if (static_cast<size_t>(s.prec) > n) body.append(static_cast<size_t>(s.prec) - n, '0');
    }
    body.append(digits, n);
    AppendNumber(out, body, s, s.prec < 0);
}

void AppendFloatField(std::string& out, double v, char conv, const FieldFormat& s) {
    bool upper = conv == 'F' || conv == 'E' || conv == 'G';
    std::string body;
    if (!std::signbit(v)) {
        if (s.plus) body += '+';
        else if (s.space) body += ' ';
    }
    int prec = s.prec < 0 ? 6 : s.prec;
    bool finite = std::isfinite(v);
    if (!finite) {
        AppendSpecial(body, v, upper);
    } else if (conv == 'f' || conv == 'F') {
        AppendFixed(body, v, prec);
    } else if (conv == 'e' || conv == 'E') {
        AppendExp(body, v, prec);
    } else {
        AppendGeneral(body, v, prec);
    }
    if (upper && finite)
        for (auto& c : body)
            if (c == 'e') c = 'E';
    // glibc pads inf and nan with spaces even under the 0 flag.
    AppendNumber(out, body, s, finite);
}

// One conversion the fast path does not handle, through vsnprintf in the C locale.
template <typename T> void AppendSlow(std::string& out, std::string_view conversion, T value) {
    std::string f(conversion);
    locale_t old = uselocale(CLocale());
    char buf[256];
    int n = std::snprintf(buf, sizeof(buf), f.c_str(), value);
    if (n >= 0 && static_cast<size_t>(n) < sizeof(buf)) {
        out.append(buf, static_cast<size_t>(n));
    } else if (n >= 0) {
        std::string big(static_cast<size_t>(n) + 1, '\0');
        std::snprintf(big.data(), big.size(), f.c_str(), value);
        out.append(big.data(), static_cast<size_t>(n));
    }
    uselocale(old);
}

} // namespace

namespace {

// Appends ASCII or UTF-8 text produced by the narrow field functions: as is into a
// narrow string, byte by byte (numbers are ASCII) into a wide one.
template <typename T, typename F> void Narrowed(std::basic_string<T>& out, F&& fn) {
    if constexpr (std::is_same_v<T, char>) {
        fn(out);
    } else {
        std::string tmp;
        fn(tmp);
        for (char c : tmp) out += static_cast<T>(static_cast<unsigned char>(c));
    }
}

template <typename T>
void AppendPadded(std::basic_string<T>& out, std::basic_string_view<T> body, const FieldFormat& s) {
    const size_t w = s.width > 0 ? static_cast<size_t>(s.width) : 0;
    const size_t pad = body.size() < w ? w - body.size() : 0;
    if (!s.left) out.append(pad, T(' '));
    out.append(body);
    if (s.left) out.append(pad, T(' '));
}

// The one interpreter behind both flavours. Numbers take the to_chars path; in a
// wide format "%s"/"%c" take wide arguments and "%hs"/"%hc" narrow UTF-8 ones (the
// convention the host's wide strings come from); in a narrow one it is the other way
// round, as in C, and wide text is written as UTF-8.
template <typename T> void FormatCore(std::basic_string<T>& out, const T* fmt, va_list apIn) {
    constexpr bool kWide = std::is_same_v<T, wchar_t>;
    va_list ap;
    va_copy(ap, apIn);
    const size_t startSize = out.size();
    while (*fmt) {
        if (*fmt != T('%')) {
            const T* run = fmt;
            while (*fmt && *fmt != T('%')) ++fmt;
            out.append(run, static_cast<size_t>(fmt - run));
            continue;
        }
        const T* pct = fmt;
        const T* p = pct + 1;
        if (*p == T('%')) {
            out += T('%');
            fmt = p + 1;
            continue;
        }
        FieldFormat s;
        bool alt = false;
        for (;; ++p) {
            if (*p == T('-')) s.left = true;
            else if (*p == T('+')) s.plus = true;
            else if (*p == T(' ')) s.space = true;
            else if (*p == T('0')) s.zero = true;
            else if (*p == T('#')) alt = true;
            else if (*p == T('\'')) {
            } // grouping is a locale matter; the C locale has none
            else
                break;
        }
        if (*p == T('*')) {
            s.width = va_arg(ap, int);
            if (s.width < 0) {
                s.left = true;
                s.width = s.width == -2147483647 - 1 ? 0 : -s.width;
            }
            ++p;
        } else {
            while (*p >= T('0') && *p <= T('9')) {
                if (s.width < 0) s.width = 0;
                if (s.width < 100000) s.width = s.width * 10 + static_cast<int>(*p - T('0'));
                ++p;
            }
        }
        if (*p == T('.')) {
            ++p;
            s.prec = 0;
            if (*p == T('*')) {
                s.prec = va_arg(ap, int);
                if (s.prec < 0) s.prec = -1;
                ++p;
            } else {
                while (*p >= T('0') && *p <= T('9')) {
                    if (s.prec < 100000) s.prec = s.prec * 10 + static_cast<int>(*p - T('0'));
                    ++p;
                }
            }
        }
        int lenL = 0; // 1: l, 2: ll/j/z/t/q/L (L and q also mean long double)
        int lenH = 0; // 1: h, 2: hh
        bool longDouble = false;
        if (*p == T('h')) {
            lenH = 1;
            if (*++p == T('h')) {
                lenH = 2;
                ++p;
            }
        } else if (*p == T('l')) {
            lenL = 1;
            if (*++p == T('l')) {
                lenL = 2;
                ++p;
            }
        } else if (*p == T('j') || *p == T('z') || *p == T('t')) {
            lenL = 2;
            ++p;
        } else if (*p == T('L') || *p == T('q')) {
            lenL = 2;
            longDouble = true;
            ++p;
        }
        const T convT = *p;
        if (!convT) {
            // A lone '%' at the end: printed as is.
            out.append(pct);
            break;
        }
        fmt = p + 1;
        const char conv = static_cast<uint32_t>(convT) < 0x80 ? static_cast<char>(convT) : '\0';
        // The slow path rebuilds the conversion with resolved '*' values.
        auto slowSpec = [&](const char* lenMod) {
            std::string f = "%";
            if (s.left) f += '-';
            if (s.plus) f += '+';
            if (s.space) f += ' ';
            if (s.zero) f += '0';
            if (alt) f += '#';
            if (s.width >= 0) f += std::to_string(s.width);
            if (s.prec >= 0) f += "." + std::to_string(s.prec);
            f += lenMod;
            f += conv;
            return f;
        };
        switch (conv) {
        case 'd':
        case 'i': {
            long long v = lenL ? va_arg(ap, long long) : va_arg(ap, int);
            if (lenL == 1) v = static_cast<long>(v);
            if (lenH == 2) v = static_cast<signed char>(v);
            else if (lenH == 1) v = static_cast<short>(v);
            unsigned long long mag =
                v < 0 ? 0ull - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
            Narrowed(out, [&](std::string& o) { AppendIntegerField(o, mag, v < 0, 10, false, s, true); });
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            unsigned long long v = lenL ? va_arg(ap, unsigned long long) : va_arg(ap, unsigned);
            if (lenH == 2) v = static_cast<unsigned char>(v);
            else if (lenH == 1) v = static_cast<unsigned short>(v);
            if (alt) {
                Narrowed(out, [&](std::string& o) { AppendSlow(o, slowSpec("ll"), v); });
                break;
            }
            int base = conv == 'u' ? 10 : (conv == 'o' ? 8 : 16);
            Narrowed(out, [&](std::string& o) { AppendIntegerField(o, v, false, base, conv == 'X', s, false); });
            break;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G': {
            if (longDouble) {
                long double v = va_arg(ap, long double);
                Narrowed(out, [&](std::string& o) { AppendSlow(o, slowSpec("L"), v); });
                break;
            }
            double v = va_arg(ap, double);
            if (alt) Narrowed(out, [&](std::string& o) { AppendSlow(o, slowSpec(""), v); });
            else Narrowed(out, [&](std::string& o) { AppendFloatField(o, v, conv, s); });
            break;
        }
        case 'a':
        case 'A':
            if (longDouble) {
                long double v = va_arg(ap, long double);
                Narrowed(out, [&](std::string& o) { AppendSlow(o, slowSpec("L"), v); });
            } else {
                double v = va_arg(ap, double);
                Narrowed(out, [&](std::string& o) { AppendSlow(o, slowSpec(""), v); });
            }
            break;
        case 'c':
        case 'C': {
            FieldFormat t = s;
            t.prec = -1;
            const bool wideArg = conv == 'C' || (kWide ? lenH == 0 : lenL == 1);
            if (wideArg) {
                const auto w = static_cast<wchar_t>(va_arg(ap, wint_t));
                if constexpr (kWide) AppendPadded(out, std::wstring_view(&w, 1), t);
                else AppendPadded(out, std::string_view(WideToUtf8(std::wstring_view(&w, 1))), t);
            } else {
                const T c = static_cast<T>(static_cast<unsigned char>(va_arg(ap, int)));
                AppendPadded(out, std::basic_string_view<T>(&c, 1), t);
            }
            break;
        }
        case 's':
        case 'S': {
            FieldFormat t = s;
            t.prec = -1;
            const bool wideArg = conv == 'S' || (kWide ? lenH == 0 : lenL == 1);
            const void* arg = va_arg(ap, const void*);
            if (!arg) {
                // glibc prints "(null)" unless the precision cuts it.
                static constexpr T kNull[] = {T('('), T('n'), T('u'), T('l'), T('l'), T(')')};
                AppendPadded(out, std::basic_string_view<T>(kNull, (s.prec < 0 || s.prec >= 6) ? 6 : 0), t);
                break;
            }
            if (wideArg) {
                const auto* w = static_cast<const wchar_t*>(arg);
                if constexpr (kWide) {
                    size_t n = 0;
                    while ((s.prec < 0 || n < static_cast<size_t>(s.prec)) && w[n]) ++n;
                    AppendPadded(out, std::wstring_view(w, n), t);
                } else {
                    // Precision counts output bytes and never splits a character.
                    std::string u;
                    for (size_t k = 0; w[k]; ++k) {
                        std::string one = WideToUtf8(std::wstring_view(w + k, 1));
                        if (s.prec >= 0 && u.size() + one.size() > static_cast<size_t>(s.prec)) break;
                        u += one;
                    }
                    AppendPadded(out, std::string_view(u), t);
                }
            } else {
                const auto* str = static_cast<const char*>(arg);
                const size_t n = s.prec < 0 ? std::strlen(str) : strnlen(str, static_cast<size_t>(s.prec));
                if constexpr (kWide) AppendPadded(out, std::wstring_view(Utf8ToWide(std::string_view(str, n))), t);
                else AppendPadded(out, std::string_view(str, n), t);
            }
            break;
        }
        case 'p': {
            void* v = va_arg(ap, void*);
            Narrowed(out, [&](std::string& o) { AppendSlow(o, slowSpec(""), v); });
            break;
        }
        case 'n': *va_arg(ap, int*) = static_cast<int>(out.size() - startSize); break;
        default:
            // Unknown conversion: copied through, as glibc does.
            out.append(pct, static_cast<size_t>(fmt - pct));
            break;
        }
    }
    va_end(ap);
}

} // namespace

void AppendFormatV(std::string& out, const char* fmt, va_list ap) { FormatCore(out, fmt, ap); }
void AppendFormatV(std::wstring& out, const wchar_t* fmt, va_list ap) { FormatCore(out, fmt, ap); }

void AppendFormat(std::string& out, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    AppendFormatV(out, fmt, ap);
    va_end(ap);
}

} // namespace numfmt
