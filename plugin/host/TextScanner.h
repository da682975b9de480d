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
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace textscan {

// isspace() of the C locale.
constexpr bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

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

    bool ReadFloat(float& v);          // "%f"
    bool ReadDouble(double& v);        // "%lf"
    bool ReadInt(int& v);              // "%d"
    bool ReadUInt(unsigned& v);        // "%u"
    bool ReadInt64(long long& v);      // "%lld"
    bool ReadUInt64(unsigned long long& v); // "%llu"
    // "%s" with an optional width: the next run of non-spaces, at most maxLen bytes.
    bool ReadWord(std::string_view& w, size_t maxLen = SIZE_MAX);
    bool SkipWord() { std::string_view w; return ReadWord(w); } // "%*s"
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

} // namespace textscan
