#pragma once
// DXF group pairs from the raw bytes: ASCII (two lines per pair, LF, CRLF or CR line
// ends, codes may be right-aligned) or binary (sentinel, then one- or two-byte codes
// with typed values). Values stay views into the input; numbers are parsed on demand.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

struct CDxfTag {
    int code = 0;
    std::string_view text; // string value (ASCII: every value; binary: strings only)
    double number = 0;     // binary numeric value
    bool binary = false;   // number holds the value
};

class CDxfTagReader {
public:
    explicit CDxfTagReader(std::span<const uint8_t> data);

    static bool IsBinary(std::span<const uint8_t> data);

    // The next pair; false at the end of the data or at a pair that cannot be read.
    bool Next(CDxfTag& tag);
    // True when reading stopped on a bad pair rather than at the end of the data.
    bool Failed() const { return m_failed; }
    bool IsBinaryStream() const { return m_binary; }
    size_t Position() const { return m_pos; }

    // Value as a number; false (and `out` untouched) when it is not one.
    static bool ToDouble(const CDxfTag& tag, double& out);
    static bool ToInt(const CDxfTag& tag, long long& out);

private:
    bool NextAscii(CDxfTag& tag);
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
enum class DxfValueKind { String, Double, Int16, Int32, Int64, Bool, Byte, Chunk };
DxfValueKind DxfValueKindOf(int code);
