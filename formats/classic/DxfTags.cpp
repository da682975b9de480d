#include "formats/classic/DxfTags.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "formats/classic/DxfScan.h"
#include "plugin/host/BinaryCursor.h"

namespace {

constexpr char kSentinel[] = "AutoCAD Binary DXF\r\n\x1a";
constexpr size_t kSentinelSize = 22; // with its final NUL

std::string_view TrimBlanks(std::string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
    while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r')) --e;
    return s.substr(b, e - b);
}

} // namespace

DxfValueKind DxfValueKindOf(int code) {
    if (code < 0) return DxfValueKind::String;
    if (code <= 9) return DxfValueKind::String;
    if (code <= 59) return DxfValueKind::Double;
    if (code <= 79) return DxfValueKind::Int16;
    if (code >= 90 && code <= 99) return DxfValueKind::Int32;
    if (code >= 110 && code <= 149) return DxfValueKind::Double;
    if (code >= 160 && code <= 169) return DxfValueKind::Int64;
    if (code >= 170 && code <= 179) return DxfValueKind::Int16;
    if (code >= 210 && code <= 239) return DxfValueKind::Double;
    if (code >= 270 && code <= 279) return DxfValueKind::Int16;
    if (code >= 280 && code <= 289) return DxfValueKind::Byte;
    if (code >= 290 && code <= 299) return DxfValueKind::Bool;
    if (code >= 310 && code <= 319) return DxfValueKind::Chunk;
    if (code >= 370 && code <= 389) return DxfValueKind::Int16;
    if (code >= 400 && code <= 409) return DxfValueKind::Int16;
    if (code >= 420 && code <= 429) return DxfValueKind::Int32;
    if (code >= 440 && code <= 459) return DxfValueKind::Int32;
    if (code >= 460 && code <= 469) return DxfValueKind::Double;
    if (code == 1004) return DxfValueKind::Chunk;
    if (code >= 1010 && code <= 1059) return DxfValueKind::Double;
    if (code >= 1060 && code <= 1070) return DxfValueKind::Int16;
    if (code == 1071) return DxfValueKind::Int32;
    return DxfValueKind::String;
}

CDxfTagReader::CDxfTagReader(std::span<const uint8_t> data, bool lineByLine)
    : m_data(reinterpret_cast<const char*>(data.data())), m_size(data.size()) {
    if (IsBinary(data)) {
        m_binary = true;
        m_mode = Mode::Binary;
        m_pos = kSentinelSize;
        // Before release 13 codes are one byte: the first pair (0, "SECTION") then
        // shows 'S' where a two-byte code would have its high byte.
        m_oneByteCodes = m_size >= m_pos + 2 && static_cast<uint8_t>(m_data[m_pos]) == 0 &&
                         static_cast<uint8_t>(m_data[m_pos + 1]) != 0;
    } else {
        // Lines end in LF or CRLF, or (old files) in a lone CR: the first break tells.
        const size_t look = std::min<size_t>(m_size, 4096);
        // memchr must not see the null pointer of empty input.
        const void* lf = look ? std::memchr(m_data, '\n', look) : nullptr;
        const void* cr = look ? std::memchr(m_data, '\r', look) : nullptr;
        m_crOnly = !lf && cr;
#if DXF_BLOCK_LINES
        m_lines.Reset(m_data, m_size, m_crOnly ? '\r' : '\n');
        if (!lineByLine) m_mode = Mode::Blocks;
#else
        (void)lineByLine;
#endif
    }
}

void CDxfTagReader::Restrict(size_t begin, size_t end) {
    m_size = end;
    m_pos = std::min(begin, end);
#if DXF_BLOCK_LINES
    m_lines.Reset(m_data, m_size, m_crOnly ? '\r' : '\n');
    m_lines.Start(m_pos);
#endif
}

bool CDxfTagReader::IsBinary(std::span<const uint8_t> data) {
    return data.size() >= kSentinelSize && std::memcmp(data.data(), kSentinel, kSentinelSize) == 0;
}

bool CDxfTagReader::Line(std::string_view& line) {
    if (m_pos >= m_size) return false;
    const char* p = m_data + m_pos;
    const size_t left = m_size - m_pos;
    const char eol = m_crOnly ? '\r' : '\n';
    const size_t len = dxfscan::LineLength(p, left, eol);
    line = std::string_view(p, len); // a CR before the LF is trimmed with the blanks
    m_pos += len < left ? len + 1 : len;
    return true;
}

namespace {

// Group code: optional blanks, optional sign, digits, optional blanks (and a CR).
bool ParseCode(std::string_view s, int& code) {
    size_t i = 0;
    const size_t n = s.size();
    while (i < n && (s[i] == ' ' || s[i] == '\t')) ++i;
    bool neg = false;
    if (i < n && (s[i] == '-' || s[i] == '+')) neg = s[i++] == '-';
    const size_t start = i;
    long v = 0;
    while (i < n && s[i] >= '0' && s[i] <= '9' && i - start < 9) v = v * 10 + (s[i++] - '0');
    if (i == start) return false;
    while (i < n && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r')) ++i;
    if (i != n) return false;
    code = static_cast<int>(neg ? -v : v);
    return true;
}

} // namespace

bool CDxfTagReader::SlowCode(int& code) {
    std::string_view codeLine;
    if (!Line(codeLine)) return false;
    return CodeLine(codeLine, code);
}

// A code line already taken (m_pos past it).
bool CDxfTagReader::CodeLine(std::string_view codeLine, int& code) {
    if (!ParseCode(codeLine, code)) {
        // A blank line at the very end is no error.
        if (!(TrimBlanks(codeLine).empty() && m_pos >= m_size)) Fail();
        return false;
    }
    return true;
}

std::string_view CDxfTagReader::SlowValue() {
    const char* p = m_data + m_pos;
    const size_t left = m_size - m_pos;
    size_t len = dxfscan::LineLength(p, left, m_crOnly ? '\r' : '\n');
    m_pos += len < left ? len + 1 : len;
    // Trim blanks (and the CR of a CRLF).
    size_t b = 0;
    while (b < len && (p[b] == ' ' || p[b] == '\t')) ++b;
    while (len > b && (p[len - 1] == ' ' || p[len - 1] == '\t' || p[len - 1] == '\r')) --len;
    return std::string_view(p + b, len - b);
}

bool CDxfTagReader::NextBinary(CDxfTag& tag) {
    if (m_pos >= m_size) return false;
    CBinaryCursor c(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(m_data), m_size));
    c.seek(m_pos);
    int code;
    if (m_oneByteCodes) {
        code = c.u8();
        if (code == 255) code = c.u16le();
    } else {
        code = c.u16le();
    }
    if (c.failed()) {
        Fail();
        return false;
    }
    tag.code = code;
    tag.hasNumber = true;
    tag.text = {};
    tag.number = 0;
    switch (DxfValueKindOf(code)) {
    case DxfValueKind::String: {
        const size_t start = c.pos();
        const void* nul = std::memchr(m_data + start, 0, m_size - start);
        if (!nul) {
            Fail();
            return false;
        }
        const size_t len = static_cast<size_t>(static_cast<const char*>(nul) - (m_data + start));
        tag.text = std::string_view(m_data + start, len);
        tag.hasNumber = false; // strings read as text
        m_pos = start + len + 1;
        return true;
    }
    case DxfValueKind::Double: tag.number = c.f64le(); break;
    case DxfValueKind::Int16: tag.number = c.i16le(); break;
    case DxfValueKind::Int32: tag.number = c.i32le(); break;
    case DxfValueKind::Int64: tag.number = static_cast<double>(static_cast<int64_t>(c.u64le())); break;
    case DxfValueKind::Bool:
    case DxfValueKind::Byte: tag.number = c.u8(); break;
    case DxfValueKind::Chunk: {
        const size_t n = c.u8();
        if (!c.skip(n)) {
            Fail();
            return false;
        }
        tag.hasNumber = false;
        break;
    }
    }
    if (c.failed()) {
        Fail();
        return false;
    }
    m_pos = c.pos();
    return true;
}

bool CDxfTagReader::TextToDouble(std::string_view text, double& out) {
    const char* b = text.data();
    const char* e = b + text.size();
    {
        const char* q = b;
        double v;
        if (dxfscan::PlainDecimal(q, e, v) && q == e) {
            out = v;
            return true;
        }
    }
    if (b != e && *b == '+') ++b;
    double v = 0;
    auto [p, ec] = std::from_chars(b, e, v);
    if (ec != std::errc() || p != e || b == e) return false;
    out = v;
    return true;
}

bool CDxfTagReader::TextToInt(std::string_view text, long long& out) {
    const char* b = text.data();
    const char* e = b + text.size();
    if (b != e && *b == '+') ++b;
    long long v = 0;
    auto [p, ec] = std::from_chars(b, e, v);
    if (ec == std::errc() && p == e && b != e) {
        out = v;
        return true;
    }
    // Some writers put "1.0" where an integer belongs.
    double d;
    if (!TextToDouble(text, d) || !(d > -9.2e18 && d < 9.2e18)) return false;
    out = static_cast<long long>(d);
    return true;
}
