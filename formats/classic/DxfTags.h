#pragma once
// DXF group pairs from the raw bytes: ASCII (two lines per pair, LF, CRLF or CR line
// ends, codes may be right-aligned) or binary (sentinel, then one- or two-byte codes
// with typed values). Values stay views into the input; numbers are parsed on demand.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "formats/classic/DxfLineEnds.h"
#include "formats/classic/DxfScan.h"

struct CDxfTag {
    int code = 0;
    std::string_view text;  // string value (ASCII: every value; binary: strings only)
    double number = 0;      // numeric value, when hasNumber
    bool hasNumber = false; // binary numbers, and ASCII values that are plain decimals
};

class CDxfTagReader {
public:
    // Text is read with its line ends found a block at a time where the target has the
    // instructions for it; `lineByLine` reads it a line at a time instead, as elsewhere.
    explicit CDxfTagReader(std::span<const uint8_t> data, bool lineByLine = false);

    static bool IsBinary(std::span<const uint8_t> data);

    // The next pair; false at the end of the data or at a pair that cannot be read.
    [[gnu::always_inline]] bool Next(CDxfTag& tag) {
        switch (m_mode) {
        case Mode::Blocks:
#if DXF_BLOCK_LINES
            return NextBlocks(tag);
#endif
        case Mode::Lines: return NextAscii(tag);
        case Mode::Binary: {
            // Through a copy: the caller's tag never has its address taken, so it can
            // live in registers (a tag in memory is stored in halves and read back whole,
            // which the processor cannot forward).
            CDxfTag b;
            const bool more = NextBinary(b);
            tag = b;
            return more;
        }
        case Mode::Stopped: break;
        }
        return false;
    }
    // True when reading stopped on a bad pair rather than at the end of the data.
    bool Failed() const { return m_failed; }
    bool IsBinaryStream() const { return m_binary; }
    // Where reading stopped (only meaningful once Next has returned false); between
    // pairs, the start of the next one.
    size_t Position() const { return m_pos; }
    // Text whose lines end in LF (or CRLF).
    bool IsLfText() const { return !m_binary && !m_crOnly; }
    // From here on only [begin, end) is read, pair by pair as the whole reader would from
    // `begin`: begin starts a pair and end a line. Not for a reader that has failed.
    void Restrict(size_t begin, size_t end);

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
    bool SlowCode(int& code); // a code line of any other shape, or a bad one
    bool CodeLine(std::string_view line, int& code);
    std::string_view SlowValue(); // a value line that is not a plain decimal
    bool NextBinary(CDxfTag& tag);
    bool Line(std::string_view& line);

    const char* m_data;
    size_t m_size;
    size_t m_pos = 0;
    bool m_binary = false;
    bool m_oneByteCodes = false;
    bool m_crOnly = false;
    bool m_failed = false;
    enum class Mode : uint8_t { Blocks, Lines, Binary, Stopped } m_mode = Mode::Lines;
    void Fail() {
        m_failed = true;
        m_mode = Mode::Stopped;
    }
#if DXF_BLOCK_LINES
    inline bool NextBlocks(CDxfTag& tag);
    dxfscan::CLineEnds m_lines;
#endif
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
    tag.text = SlowValue();
    return true;
}

#if DXF_BLOCK_LINES
// The same pairs as NextAscii, from lines whose ends are already known.
[[gnu::always_inline]] inline bool CDxfTagReader::NextBlocks(CDxfTag& tag) {
    // Members are read once into locals and the tag written last: stores through the
    // tag's fields could otherwise alias them and force reloads on every pair.
    size_t e, le;
    if (!m_lines.Next(e)) return false;
    const char* const data = m_data;
    const size_t size = m_size, a = m_pos;
    m_pos = e + (e < size);
    // The usual code line: blanks and a few digits (and a CR). Lines after the first have
    // a byte before them, so the CR test needs no length test.
    int code = 0;
    if (!(a > 0 && size - a >= 32 && dxfscan::LineCode(data + a, e - a - (data[e - 1] == '\r'), code)) &&
        !CodeLine(std::string_view(data + a, e - a), code))
        return false;
    if (!m_lines.Next(le)) return false; // a code without its value ends the data
    const size_t b = e + 1;
    m_pos = le + (le < size);
    const size_t len = le - b - (data[le - 1] == '\r');
    double v;
    if (le >= 32 && dxfscan::LineDecimal(data + b, len, v)) {
        tag.code = code;
        tag.number = v;
        tag.hasNumber = true;
        tag.text = std::string_view(data + b, len);
        return true;
    }
    tag.code = code;
    tag.hasNumber = false;
    tag.number = 0;
    // Names and the like: a short line with nothing to trim that the block check did not
    // take is no number for the general parse either.
    if (le >= 32 && len - 1 < 16) {
        const char first = data[b], last = data[b + len - 1];
        if (first != ' ' && first != '\t' && first != '+' && last != ' ' && last != '\t' && last != '\r') {
            tag.text = std::string_view(data + b, len);
            return true;
        }
    }
    const char* const lineEnd = data + le;
    const char* q = data + b;
    while (q != lineEnd && (*q == ' ' || *q == '\t')) ++q;
    const char* const start = q;
    if (dxfscan::PlainDecimal(q, data + size, v)) {
        const char* const stop = q;
        while (q != lineEnd && (*q == ' ' || *q == '\t' || *q == '\r')) ++q;
        if (q == lineEnd) {
            tag.hasNumber = true;
            tag.number = v;
            tag.text = std::string_view(start, static_cast<size_t>(stop - start));
            return true;
        }
    }
    const char* t = lineEnd;
    while (t != start && (t[-1] == ' ' || t[-1] == '\t' || t[-1] == '\r')) --t;
    tag.text = std::string_view(start, static_cast<size_t>(t - start));
    return true;
}
#endif

enum class DxfValueKind { String, Double, Int16, Int32, Int64, Bool, Byte, Chunk };
DxfValueKind DxfValueKindOf(int code);
