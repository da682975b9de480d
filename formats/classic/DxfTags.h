#pragma once
// DXF group pairs from the raw bytes: ASCII (two lines per pair, LF, CRLF or CR line
// ends, codes may be right-aligned) or binary (sentinel, then one- or two-byte codes
// with typed values). Values stay views into the input; numbers are parsed on demand.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "formats/classic/DxfScan.h"

struct CDxfTag {
    int code = 0;
    std::string_view text;  // string value (ASCII: every value; binary: strings only)
    double number = 0;      // numeric value, when hasNumber
    bool hasNumber = false; // binary numbers, and ASCII values that are plain decimals
};

class CDxfTagReader {
public:
    explicit CDxfTagReader(std::span<const uint8_t> data);

    static bool IsBinary(std::span<const uint8_t> data);

    // The next pair; false at the end of the data or at a pair that cannot be read.
    bool Next(CDxfTag& tag) {
        if (m_failed) return false;
        return m_binary ? NextBinary(tag) : NextAscii(tag);
    }
    // True when reading stopped on a bad pair rather than at the end of the data.
    bool Failed() const { return m_failed; }
    bool IsBinaryStream() const { return m_binary; }
    size_t Position() const { return m_pos; }

    // Value as a number; false (and `out` untouched) when it is not one.
    static bool ToDouble(const CDxfTag& tag, double& out) {
        if (!tag.hasNumber) return TextToDouble(tag.text, out);
        out = tag.number;
        return true;
    }
    static bool ToInt(const CDxfTag& tag, long long& out) {
        if (!tag.hasNumber) return TextToInt(tag.text, out);
        if (!(tag.number > -9.2e18 && tag.number < 9.2e18)) return false;
        out = static_cast<long long>(tag.number);
        return true;
    }

private:
    static bool TextToDouble(std::string_view text, double& out);
    static bool TextToInt(std::string_view text, long long& out);
    inline bool NextAscii(CDxfTag& tag);
    bool SlowCode(int& code);     // a code line of any other shape, or a bad one
    void SlowValue(CDxfTag& tag); // a value line that is not a plain decimal
    bool NextBinary(CDxfTag& tag);
    bool Line(std::string_view& line);

    const char* m_data;
    size_t m_size;
    size_t m_pos = 0;
    bool m_binary = false;
    bool m_oneByteCodes = false;
    bool m_crOnly = false;
    bool m_failed = false;
};

// Kind of value a group code carries (shared by the binary reader and the tests).
// Inline: the reader's per-pair loop is built around it.
[[gnu::always_inline]] inline bool CDxfTagReader::NextAscii(CDxfTag& tag) {
    int code = 0;
    // The usual code line, up to eight digits between blanks and a line feed, is read in
    // place; any other shape goes through the general line parse.
    size_t i = m_pos;
    if (!m_crOnly) {
        while (i < m_size && m_data[i] == ' ') ++i;
        uint64_t w;
        const int k = dxfscan::Word(m_data + i, m_data + m_size, w) ? dxfscan::DigitRun(w) : 0;
        if (k > 0 && k < 8) {
            code = static_cast<int>(dxfscan::DigitsValue(w << (8 * (8 - k))));
            i += static_cast<size_t>(k);
            while (i < m_size && (m_data[i] == ' ' || m_data[i] == '\t' || m_data[i] == '\r')) ++i;
            if (!(i < m_size && m_data[i] == '\n')) i = m_pos;
        } else {
            i = m_pos;
        }
    }
    if (i != m_pos) {
        m_pos = i + 1;
    } else if (!SlowCode(code)) {
        return false;
    }
    if (m_pos >= m_size) return false; // a code without its value ends the data
    tag.code = code;
    tag.hasNumber = false;
    tag.number = 0;
    // Most values are plain decimals: read as numbers on the way to the line end.
    const char* const end = m_data + m_size;
    const char eol = m_crOnly ? '\r' : '\n';
    const char* q = m_data + m_pos;
    while (q != end && (*q == ' ' || *q == '\t')) ++q;
    const char* const start = q;
    double v;
    if (dxfscan::PlainDecimal(q, end, v)) {
        const char* const stop = q;
        while (q != end && (*q == ' ' || *q == '\t' || (*q == '\r' && eol == '\n'))) ++q;
        if (q == end || *q == eol) {
            tag.hasNumber = true;
            tag.number = v;
            tag.text = std::string_view(start, static_cast<size_t>(stop - start));
            m_pos = q == end ? m_size : static_cast<size_t>(q - m_data) + 1;
            return true;
        }
    }
    SlowValue(tag);
    return true;
}

enum class DxfValueKind { String, Double, Int16, Int32, Int64, Bool, Byte, Chunk };
DxfValueKind DxfValueKindOf(int code);
