// CXTString formatting, scanning and UTF conversions.
// Format walks the format string itself: numeric fields go to snprintf under a
// thread-local C locale (so a comma-decimal process locale never shows), string
// and character fields are copied here. That is also where the wide flavour
// differs from glibc's vswprintf: the host's code comes from a runtime where "%s"
// in a wide format takes a wide string, so here it does ("%hs" takes a narrow
// UTF-8 one). In narrow formats "%s" is narrow and "%ls" wide, as in C.
#include "plugin/host/XString.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <locale.h>

#include "plugin/host/TextScanner.h"

namespace {

locale_t CNumericLocale() {
    static locale_t loc = newlocale(LC_ALL_MASK, "C", nullptr);
    return loc;
}

// Switches this thread to the C locale for the duration of one Format call.
class CLocaleScope {
public:
    CLocaleScope() : m_old(CNumericLocale() ? uselocale(CNumericLocale()) : nullptr) {}
    ~CLocaleScope() {
        if (m_old) uselocale(m_old);
    }
    CLocaleScope(const CLocaleScope&) = delete;
    CLocaleScope& operator=(const CLocaleScope&) = delete;
private:
    locale_t m_old;
};

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

template <typename T> void AppendAscii(std::basic_string<T>& out, const char* s, size_t n) {
    if constexpr (std::is_same_v<T, char>) {
        out.append(s, n);
    } else {
        for (size_t i = 0; i < n; ++i) out += static_cast<T>(static_cast<unsigned char>(s[i]));
    }
}

template <typename T> void Pad(std::basic_string<T>& out, size_t n, T c) { out.append(n, c); }

// Appends `body` padded to `width` (left-justified when asked).
template <typename T> void AppendPadded(std::basic_string<T>& out, std::basic_string_view<T> body, int width, bool left) {
    size_t w = width > 0 ? static_cast<size_t>(width) : 0;
    size_t pad = body.size() < w ? w - body.size() : 0;
    if (!left) Pad(out, pad, T(' '));
    out.append(body);
    if (left) Pad(out, pad, T(' '));
}

template <typename T> void FormatInto(std::basic_string<T>& out, const T* fmt, va_list ap) {
    CLocaleScope cLocale;
    char narrowFmt[64];
    std::string num;
    num.resize(128);
    auto runSnprintf = [&](auto value) {
        for (;;) {
            int n = std::snprintf(num.data(), num.size(), narrowFmt, value);
            if (n < 0) {
                num.clear();
                return;
            }
            if (static_cast<size_t>(n) < num.size()) {
                AppendAscii(out, num.data(), static_cast<size_t>(n));
                return;
            }
            num.resize(static_cast<size_t>(n) + 1);
        }
    };
    while (*fmt) {
        if (*fmt != '%') {
            out += *fmt++;
            continue;
        }
        const T* convStart = fmt++;
        if (*fmt == '%') {
            out += T('%');
            ++fmt;
            continue;
        }
        std::string flags;
        bool left = false;
        while (*fmt == '-' || *fmt == '+' || *fmt == ' ' || *fmt == '#' || *fmt == '0' || *fmt == '\'') {
            if (*fmt == '-') left = true;
            if (*fmt != '\'') flags += static_cast<char>(*fmt); // grouping would consult the locale
            ++fmt;
        }
        int width = -1;
        if (*fmt == '*') {
            width = va_arg(ap, int);
            if (width < 0) {
                left = true;
                flags += '-';
                width = width == -2147483647 - 1 ? 0 : -width;
            }
            ++fmt;
        } else if (*fmt >= '0' && *fmt <= '9') {
            width = 0;
            while (*fmt >= '0' && *fmt <= '9') {
                if (width < 100000) width = width * 10 + (*fmt - '0');
                ++fmt;
            }
        }
        int prec = -1;
        if (*fmt == '.') {
            ++fmt;
            prec = 0;
            if (*fmt == '*') {
                prec = va_arg(ap, int);
                if (prec < 0) prec = -1;
                ++fmt;
            } else {
                while (*fmt >= '0' && *fmt <= '9') {
                    if (prec < 100000) prec = prec * 10 + (*fmt - '0');
                    ++fmt;
                }
            }
        }
        char len[3] = {0, 0, 0};
        if (*fmt == 'h' || *fmt == 'l') {
            len[0] = static_cast<char>(*fmt++);
            if (*fmt == len[0]) len[1] = static_cast<char>(*fmt++);
        } else if (*fmt == 'L' || *fmt == 'j' || *fmt == 'z' || *fmt == 't' || *fmt == 'q') {
            len[0] = static_cast<char>(*fmt == 'q' ? 'L' : *fmt);
            ++fmt;
        }
        T conv = *fmt;
        if (!conv) {
            // A lone '%' at the end: printed as is.
            out.append(convStart, fmt);
            break;
        }
        ++fmt;
        auto makeSpec = [&](const char* lenMod, char c) {
            std::string s = "%" + flags;
            if (width >= 0) s += std::to_string(width);
            if (prec >= 0) s += "." + std::to_string(prec);
            s += lenMod;
            s += c;
            std::snprintf(narrowFmt, sizeof(narrowFmt), "%s", s.c_str());
        };
        const bool ll = len[0] == 'l' && len[1] == 'l';
        const bool l = len[0] == 'l' && !len[1];
        switch (conv) {
        case 'd': case 'i': {
            long long v;
            if (ll || len[0] == 'j' || len[0] == 'L') v = va_arg(ap, long long);
            else if (l || len[0] == 'z' || len[0] == 't') v = va_arg(ap, long);
            else v = va_arg(ap, int);
            if (len[0] == 'h' && len[1]) v = static_cast<signed char>(v);
            else if (len[0] == 'h') v = static_cast<short>(v);
            makeSpec("ll", static_cast<char>(conv));
            runSnprintf(v);
            break;
        }
        case 'u': case 'o': case 'x': case 'X': {
            unsigned long long v;
            if (ll || len[0] == 'j' || len[0] == 'L') v = va_arg(ap, unsigned long long);
            else if (l || len[0] == 'z' || len[0] == 't') v = va_arg(ap, unsigned long);
            else v = va_arg(ap, unsigned);
            if (len[0] == 'h' && len[1]) v = static_cast<unsigned char>(v);
            else if (len[0] == 'h') v = static_cast<unsigned short>(v);
            makeSpec("ll", static_cast<char>(conv));
            runSnprintf(v);
            break;
        }
        case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
            if (len[0] == 'L') {
                makeSpec("L", static_cast<char>(conv));
                runSnprintf(va_arg(ap, long double));
            } else {
                makeSpec("", static_cast<char>(conv));
                runSnprintf(va_arg(ap, double));
            }
            break;
        case 'p':
            makeSpec("", 'p');
            runSnprintf(va_arg(ap, void*));
            break;
        case 'c': case 'C': {
            T c[4];
            std::basic_string_view<T> body;
            std::string utf8;
            bool wideArg = std::is_same_v<T, wchar_t> ? (len[0] != 'h') : (l || conv == 'C');
            if (conv == 'C') wideArg = true;
            if (wideArg) {
                auto w = static_cast<wchar_t>(va_arg(ap, wint_t));
                if constexpr (std::is_same_v<T, wchar_t>) {
                    c[0] = w;
                    body = std::basic_string_view<T>(c, 1);
                } else {
                    AppendUtf8(utf8, static_cast<uint32_t>(w));
                    body = utf8;
                }
            } else {
                int v = va_arg(ap, int);
                c[0] = static_cast<T>(static_cast<unsigned char>(v));
                body = std::basic_string_view<T>(c, 1);
            }
            AppendPadded(out, body, width, left);
            break;
        }
        case 's': case 'S': {
            bool wideArg = std::is_same_v<T, wchar_t> ? (len[0] != 'h') : (l || conv == 'S');
            if (conv == 'S') wideArg = true;
            std::basic_string<T> tmp;
            std::basic_string_view<T> body;
            const void* arg = va_arg(ap, const void*);
            if (!arg) {
                // glibc prints "(null)" unless the precision cuts it.
                static const char nul[] = "(null)";
                if (prec < 0 || prec >= 6) AppendAscii(tmp, nul, 6);
                body = tmp;
                AppendPadded(out, body, width, left);
                break;
            }
            if (wideArg) {
                const auto* w = static_cast<const wchar_t*>(arg);
                if constexpr (std::is_same_v<T, wchar_t>) {
                    size_t n = 0;
                    while ((prec < 0 || n < static_cast<size_t>(prec)) && w[n]) ++n;
                    body = std::basic_string_view<T>(w, n);
                } else {
                    // Precision counts output bytes and never splits a character.
                    for (size_t k = 0; w[k]; ++k) {
                        std::string one;
                        AppendUtf8(one, static_cast<uint32_t>(w[k]));
                        if (prec >= 0 && tmp.size() + one.size() > static_cast<size_t>(prec)) break;
                        tmp += one;
                    }
                    body = tmp;
                }
            } else {
                const auto* s = static_cast<const char*>(arg);
                size_t n = 0;
                while ((prec < 0 || n < static_cast<size_t>(prec)) && s[n]) ++n;
                if constexpr (std::is_same_v<T, char>) {
                    body = std::string_view(s, n);
                } else {
                    tmp = Utf8ToWide(std::string_view(s, n));
                    body = tmp;
                }
            }
            AppendPadded(out, body, width, left);
            break;
        }
        case 'n':
            *va_arg(ap, int*) = static_cast<int>(out.size());
            break;
        default:
            // Unknown conversion: copied through untouched.
            out.append(convStart, fmt);
            break;
        }
    }
}

} // namespace

template <typename T> void CXTString<T>::FormatV(const T* fmt, va_list ap) {
    string_type out;
    if (fmt) {
        va_list copy;
        va_copy(copy, ap);
        FormatInto(out, fmt, copy);
        va_end(copy);
    }
    m_s = std::move(out);
}

template <typename T> void CXTString<T>::Format(const T* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    FormatV(fmt, ap);
    va_end(ap);
}

template <typename T> int CXTString<T>::ScanS(const T* fmt, ...) const {
    if (!fmt) return 0;
    va_list ap;
    va_start(ap, fmt);
    int r;
    if constexpr (std::is_same_v<T, char>) r = textscan::ScanFormatV(m_s, fmt, ap);
    else r = textscan::ScanFormatWideV(m_s, fmt, ap);
    va_end(ap);
    return r;
}

template class CXTString<char>;
template class CXTString<wchar_t>;

std::wstring Utf8ToWide(std::string_view s) {
    std::wstring out;
    AppendUtf8ToWide(out, s);
    return out;
}

void AppendUtf8ToWide(std::wstring& out, std::string_view s) {
    out.reserve(out.size() + s.size());
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    const size_t n = s.size();
    size_t i = 0;
    while (i < n) {
        unsigned char b = p[i];
        if (b < 0x80) {
            out += static_cast<wchar_t>(b);
            ++i;
            continue;
        }
        // Length and the valid range of the second byte (no overlongs, no surrogates,
        // nothing past U+10FFFF); a broken sequence gives one U+FFFD for its maximal
        // valid prefix.
        int need;
        unsigned char lo = 0x80, hi = 0xBF;
        uint32_t cp;
        if (b >= 0xC2 && b <= 0xDF) { need = 1; cp = b & 0x1F; }
        else if (b == 0xE0) { need = 2; cp = 0; lo = 0xA0; }
        else if (b >= 0xE1 && b <= 0xEC) { need = 2; cp = b & 0x0F; }
        else if (b == 0xED) { need = 2; cp = 0xD; hi = 0x9F; }
        else if (b >= 0xEE && b <= 0xEF) { need = 2; cp = b & 0x0F; }
        else if (b == 0xF0) { need = 3; cp = 0; lo = 0x90; }
        else if (b >= 0xF1 && b <= 0xF3) { need = 3; cp = b & 0x07; }
        else if (b == 0xF4) { need = 3; cp = 4; hi = 0x8F; }
        else {
            out += L'\xFFFD';
            ++i;
            continue;
        }
        size_t j = i + 1;
        bool ok = true;
        for (int k = 0; k < need; ++k, ++j) {
            unsigned char lower = k == 0 ? lo : 0x80, upper = k == 0 ? hi : 0xBF;
            if (j >= n || p[j] < lower || p[j] > upper) {
                ok = false;
                break;
            }
            cp = (cp << 6) | (p[j] & 0x3F);
        }
        out += ok ? static_cast<wchar_t>(cp) : L'\xFFFD';
        i = j;
    }
}

std::string WideToUtf8(std::wstring_view s) {
    std::string out;
    out.reserve(s.size());
    for (wchar_t c : s) AppendUtf8(out, static_cast<uint32_t>(c));
    return out;
}

std::wstring WidenBytes(std::string_view s) {
    std::wstring out(s.size(), L'\0');
    for (size_t i = 0; i < s.size(); ++i) out[i] = static_cast<wchar_t>(static_cast<unsigned char>(s[i]));
    return out;
}
