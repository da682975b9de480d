#pragma once
// Small text helpers every format needs, written once: strict UTF-8 validation,
// Latin-1 narrowing and ASCII-only case folding (keywords never follow the locale).
#include <cstdint>
#include <string>
#include <string_view>

// Strict UTF-8: no overlong forms, surrogates or code points past U+10FFFF.
bool IsValidUtf8(std::string_view s);
// Latin-1 narrowing, one byte per character: '?' for a character beyond U+00FF.
inline char NarrowLatin1(wchar_t c) { return static_cast<uint32_t>(c) <= 0xFF ? static_cast<char>(c) : '?'; }
void AppendLatin1(std::string& out, std::wstring_view s);

// ASCII case folding for keywords and names of the formats (never the locale's).
inline char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }
inline bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (AsciiLower(s[i]) != AsciiLower(prefix[i])) return false;
    return true;
}
inline bool EqualsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && StartsWithNoCase(a, b);
}
