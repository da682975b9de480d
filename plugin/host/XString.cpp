// CXTString formatting, scanning and UTF conversions. Format runs on the host's one
// printf-style interpreter (NumberFormat.h), which never consults the process locale.
// The wide flavour differs from glibc's vswprintf there: the host's code comes from a
// runtime where "%s" in a wide format takes a wide string ("%hs" a narrow UTF-8 one).
#include "plugin/host/XString.h"

#include <cstdio>
#include <cstring>

#include "plugin/host/NumberFormat.h"

#include "plugin/host/TextScanner.h"

namespace {

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

} // namespace

template <typename T> void CXTString<T>::FormatV(const T* fmt, va_list ap) {
    string_type out;
    if (fmt) {
        va_list copy;
        va_copy(copy, ap);
        numfmt::AppendFormatV(out, fmt, copy);
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
        if (b >= 0xC2 && b <= 0xDF) {
            need = 1;
            cp = b & 0x1F;
        } else if (b == 0xE0) {
            need = 2;
            cp = 0;
            lo = 0xA0;
        } else if (b >= 0xE1 && b <= 0xEC) {
            need = 2;
            cp = b & 0x0F;
        } else if (b == 0xED) {
            need = 2;
            cp = 0xD;
            hi = 0x9F;
        } else if (b >= 0xEE && b <= 0xEF) {
            need = 2;
            cp = b & 0x0F;
        } else if (b == 0xF0) {
            need = 3;
            cp = 0;
            lo = 0x90;
        } else if (b >= 0xF1 && b <= 0xF3) {
            need = 3;
            cp = b & 0x07;
        } else if (b == 0xF4) {
            need = 3;
            cp = 4;
            hi = 0x8F;
        } else {
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
