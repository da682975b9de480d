#pragma once
// Small text helpers shared by the mesh writers and readers: the maker's address,
// name cleaning for file syntax, a growable output chunk and byte/wide conversions.
#include <charconv>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "plugin/host/IoFile.h"
#include "plugin/host/NumberFormat.h"
#include "plugin/host/TextScanner.h"
#include "plugin/host/XString.h"

namespace meshio {

inline constexpr const char* kMakerUrl = "https://orbiscope.org";

// "%f" on a cursor, for vertex data. Plain decimal numbers (optional sign, digits, point,
// exponent) ending at a space or the end go straight to from_chars, which rounds exactly
// as scanf does; everything else (inf, nan, hex, trailing text) takes the scanner.
inline bool ReadCoord(textscan::TextCursor& c, float& v) {
    const std::string_view r = c.Remaining();
    const size_t n = r.size();
    size_t i = 0;
    while (i < n && textscan::IsSpace(r[i])) ++i;
    if (i < n && r[i] == '+') ++i;
    const size_t start = i;
    if (i < n && r[i] == '-') ++i;
    auto digit = [&](size_t k) { return k < n && static_cast<unsigned>(r[k] - '0') < 10u; };
    bool any = false;
    while (digit(i)) { ++i; any = true; }
    if (i < n && r[i] == '.') {
        ++i;
        while (digit(i)) { ++i; any = true; }
    }
    if (any && i < n && (r[i] == 'e' || r[i] == 'E')) {
        size_t k = i + 1;
        if (k < n && (r[k] == '-' || r[k] == '+')) ++k;
        if (digit(k)) {
            while (digit(k)) ++k;
            i = k;
        }
    }
    if (!any || (i < n && !textscan::IsSpace(r[i])) || (start > 0 && r[start - 1] == '+' && r[start] == '-'))
        return c.ReadFloat(v);
    const auto res = std::from_chars(r.data() + start, r.data() + i, v);
    if (res.ec != std::errc() || res.ptr != r.data() + i) return c.ReadFloat(v);
    c.Advance(i);
    return true;
}

// Characters that would break a line-oriented or quoted syntax become '_'.
inline CXStringW SanitizeName(const CXStringW& name) {
    std::wstring s = name.str();
    for (auto& c : s)
        if (c == L'"' || c == L'\\' || c < 0x20 || c == 0x7F || c == 0x2028 || c == 0x2029) c = L'_';
    return CXStringW(std::move(s));
}

// Bytes of a name as the text mode decodes them (8: Latin-1, else UTF-8).
inline CXStringW DecodeName(std::string_view bytes, int textMode) {
    if (textMode == TEXT_MODE_ANSI) return CXStringW(WidenBytes(bytes));
    return CXStringW(Utf8ToWide(bytes));
}

// Output text assembled in memory and handed to IoFile in large pieces.
class COutText {
public:
    explicit COutText(IoFile& f, size_t chunk = 1 << 16) : m_file(f), m_chunk(chunk) { m_buf.reserve(chunk + 256); }
    ~COutText() { Flush(); }
    COutText(const COutText&) = delete;
    COutText& operator=(const COutText&) = delete;

    void Put(std::string_view s) { m_buf.append(s); Check(); }
    void Put(char c) { m_buf.push_back(c); }
    // "%f" of the C library (six decimals).
    void F6(double v) { numfmt::AppendFixed(m_buf, v, 6); Check(); }
    void Int(int64_t v) { numfmt::AppendInt(m_buf, v); }
    void UInt64(uint64_t v) { numfmt::AppendUInt(m_buf, v); }
    // A wide text in the file's encoding (UTF-8, or Latin-1 in ANSI mode).
    void Wide(const CXStringW& s) {
        if (m_file.GetTextMode() == TEXT_MODE_ANSI) {
            for (wchar_t c : s.view()) m_buf.push_back(c < 256 ? static_cast<char>(c) : '?');
        } else {
            m_buf += WideToUtf8(s.view());
        }
        Check();
    }
    void Tabs(int n) { if (n > 0) m_buf.append(static_cast<size_t>(n), '\t'); }
    bool Flush() {
        if (m_buf.empty()) return m_ok;
        if (!m_file.FileWrite(m_buf.data(), m_buf.size())) m_ok = false;
        m_buf.clear();
        return m_ok;
    }
    bool ok() const { return m_ok; }
    void Check() { if (m_buf.size() >= m_chunk) Flush(); }

private:
    IoFile& m_file;
    size_t m_chunk;
    std::string m_buf;
    bool m_ok = true;
};

// Gives the pages of a mapped input back as a reader moves through it, every few
// megabytes, so a read does not hold the whole file resident next to the scene.
class CPageReleaser {
public:
    CPageReleaser() = default;
    CPageReleaser(const IoFile* file, std::string_view text) : m_file(file) {
        auto d = file ? file->GetData() : std::span<const uint8_t>();
        const char* b = reinterpret_cast<const char*>(d.data());
        // Only text that is a view of the mapping itself (not a decoded copy).
        if (file && text.data() >= b && text.data() + text.size() <= b + d.size()) m_base = b;
        else m_file = nullptr;
    }
    void At(const char* p) {
        if (!m_file) return;
        const size_t off = static_cast<size_t>(p - m_base);
        if (off >= m_last + kStep) {
            m_file->ReleaseBefore(static_cast<int64_t>(off));
            m_last = off;
        }
    }
    void Reset() { m_last = 0; }

private:
    static constexpr size_t kStep = size_t(4) << 20;
    const IoFile* m_file = nullptr;
    const char* m_base = nullptr;
    size_t m_last = 0;
};

} // namespace meshio
