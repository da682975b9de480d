#pragma once
// VRML 1.0 / Inventor ascii input: the bytes of one file, the line counter, a
// one-character push-back, the header version and the DEF dictionary. Read errors
// go to a sink (standard error by default) as "VRML read error: ..." with the line.
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

class QvNode;

namespace qvdetail {
// White space other than the line feed (which the line counter sees).
struct BlankTable {
    bool t[256];
    constexpr BlankTable() : t() {
        for (char c : {' ', '\t', '\r', '\f', '\v'}) t[static_cast<uint8_t>(c)] = true;
    }
    constexpr bool operator[](uint8_t c) const { return t[c]; }
};
inline constexpr BlankTable kBlank{};
} // namespace qvdetail

class QvIn {
public:
    using Sink = std::function<void(const std::string&)>;

    explicit QvIn(std::span<const uint8_t> data);
    ~QvIn();
    QvIn(const QvIn&) = delete;
    QvIn& operator=(const QvIn&) = delete;

    // Where messages go; the default writes them to the standard error stream.
    void setSink(Sink sink) { m_sink = std::move(sink); }
    // Called with the reading position every few megabytes (progress, giving back pages).
    void setProgress(std::function<void(size_t)> progress) { m_progress = std::move(progress); }
    // Readers of long runs call this now and then.
    void tick() {
        if (m_pos >= m_nextTick) fireProgress();
    }

    // Checks the first line; reports "File does not have a valid header string" when it is not ours.
    bool readHeader();
    float getVersion() const { return m_version; }
    bool isHeaderRead() const { return m_headerRead; }
    int getLineNum() const { return m_line; }

    // Characters. get() is false at the end of the input; '\n' counts a line.
    bool get(char& c) {
        if (m_pos >= m_data.size()) return false;
        c = static_cast<char>(m_data[m_pos++]);
        if (c == '\n') ++m_line;
        return true;
    }
    // The whole input is in memory, so pushing back is stepping back.
    void putBack(char c) {
        if (m_pos == 0) return;
        --m_pos;
        if (c == '\n') --m_line;
    }
    bool eof() const { return m_pos >= m_data.size(); }
    size_t remaining() const { return m_data.size() - m_pos; }
    // A reading position to come back to (look-ahead of a whole name).
    struct Mark {
        size_t pos;
        int line;
    };
    Mark mark() const { return {m_pos, m_line}; }
    void reset(const Mark& m) {
        m_pos = m.pos;
        m_line = m.line;
    }
    // Skips white space, commas (unless `commas` is false) and comments. False at the end
    // of the input (or when a comment runs into it, which is also reported).
    bool skipWhite(bool commas = true) {
        const uint8_t* d = m_data.data();
        const size_t n = m_data.size();
        size_t p = m_pos;
        for (; p < n; ++p) {
            const uint8_t c = d[p];
            if (c == '\n') ++m_line;
            else if (!(qvdetail::kBlank[c] || (commas && c == ','))) break;
        }
        m_pos = p;
        if (p < n && d[p] != '#') return true;
        return skipWhiteSlow(commas); // the end of the input, or a comment
    }
    // Reads the next character after white space without consuming it.
    bool peek(char& c, bool commas = true) {
        if (!skipWhite(commas)) return false;
        c = static_cast<char>(m_data[m_pos]); // skipWhite leaves a character there
        return true;
    }

    // A name: a run of name characters after white space (empty when none).
    std::string_view readName();
    // A quoted (with \" and \\ escapes) or bare string.
    bool readString(std::string& out);
    bool readFloat(float& v);
    bool readDouble(double& v);
    // Integers: decimal, 0x hex or 0 octal, optionally signed. readInt saturates to 32-bit
    // signed values; readUInt (packed colours, image pixels) to 32-bit unsigned ones.
    bool readInt(int32_t& v);
    bool readUInt(uint32_t& v);

    // DEF dictionary.
    void addName(const std::string& name, QvNode* node);
    QvNode* findName(const std::string& name) const;
    // Removes a name; reports through the programming-error channel when it is not there.
    void removeName(const std::string& name, const QvNode* node);

    // "VRML read error: <message>\n\tOccurred at line %3d\n"; marks the read failed.
    void readError(const std::string& message);
    // "VRML error in <function>(): <message>\n".
    void debugError(const char* function, const std::string& message);
    bool hasError() const { return m_error; }

    // Guards for the recursive reader.
    int depth = 0;
    static constexpr int kMaxDepth = 512;

private:
    bool skipWhiteSlow(bool commas);
    bool readInteger(int64_t& x);
    void fireProgress();

    std::span<const uint8_t> m_data;
    size_t m_pos = 0;
    int m_line = 1;
    float m_version = 0;
    bool m_headerRead = false;
    bool m_error = false;
    std::string m_scratch;
    std::unordered_map<std::string, QvNode*> m_dict;
    Sink m_sink;
    std::function<void(size_t)> m_progress;
    size_t m_nextTick = 0;
};

// printf-style formatting (the host's C-locale formatter) into a new string, for messages.
std::string QvFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
