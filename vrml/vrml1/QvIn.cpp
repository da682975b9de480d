#include "vrml/vrml1/QvIn.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <limits>

#include "plugin/host/NumberFormat.h"
#include "vrml/vrml1/QvNode.h"

std::string QvFormat(const char* fmt, ...) {
    std::string s;
    va_list ap;
    va_start(ap, fmt);
    numfmt::AppendFormatV(s, fmt, ap);
    va_end(ap);
    return s;
}

namespace {

// Characters that end a name: white space, the punctuation of the grammar, quotes, comments.
struct NameTable {
    bool stop[256];
    constexpr NameTable() : stop() {
        for (int c = 0; c <= ' '; ++c) stop[c] = true;
        stop[127] = true;
        for (char c : {'{', '}', '[', ']', '(', ')', '|', ',', '"', '#', '\\', '\''})
            stop[static_cast<uint8_t>(c)] = true;
    }
};
constexpr NameTable kNames;

constexpr const char* kHeaders[] = {"#VRML V1.0 ascii", "#Inventor V2.1 ascii", "#Inventor V2.0 ascii"};

bool IsDigit(uint8_t c) { return static_cast<unsigned>(c - '0') < 10u; }

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

} // namespace

QvIn::QvIn(std::span<const uint8_t> data) : m_data(data) {
    m_sink = [](const std::string& s) { std::fputs(s.c_str(), stderr); };
}

QvIn::~QvIn() {
    for (auto& [name, node] : m_dict) node->unref();
}

void QvIn::fireProgress() {
    constexpr size_t kStep = 4u << 20;
    m_nextTick = m_pos + kStep;
    if (m_progress) m_progress(m_pos);
}

bool QvIn::readHeader() {
    m_headerRead = true;
    char c;
    if (!get(c) || c != '#') {
        readError("File does not have a valid header string");
        return false;
    }
    std::string line = "#";
    while (get(c) && c != '\n') line += c;
    if (c == '\n') putBack(c); // a bad header is reported on its own line
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) line.pop_back();
    for (const char* h : kHeaders) {
        if (line == h) {
            m_version = 1.0f;
            return true;
        }
    }
    readError("File does not have a valid header string");
    return false;
}

bool QvIn::skipWhiteSlow(bool commas) {
    for (;;) {
        while (m_pos < m_data.size()) {
            char c = static_cast<char>(m_data[m_pos]);
            if (c == '\n') ++m_line;
            else if (!(IsSpace(c) || (commas && c == ','))) break;
            ++m_pos;
        }
        char c;
        if (!get(c)) return false;
        if (IsSpace(c) || (commas && c == ',')) continue;
        if (c == '#') {
            for (;;) {
                if (!get(c)) {
                    readError("EOF reached before end of comment");
                    return false;
                }
                if (c == '\n') break;
            }
            continue;
        }
        putBack(c);
        return true;
    }
}

std::string_view QvIn::readName() {
    m_scratch.clear();
    if (!skipWhite()) return {};
    char c;
    while (get(c)) {
        if (kNames.stop[static_cast<uint8_t>(c)]) {
            putBack(c);
            break;
        }
        m_scratch += c;
    }
    return m_scratch;
}

bool QvIn::readString(std::string& out) {
    out.clear();
    char c;
    if (!skipWhite() || !get(c)) return false;
    if (c != '"') {
        // A bare word.
        putBack(c);
        std::string_view w = readName();
        if (w.empty()) return false;
        out.assign(w);
        return true;
    }
    while (get(c)) {
        if (c == '"') return true;
        if (c == '\\') {
            if (!get(c)) return false;
        }
        out += c;
    }
    return false;
}

namespace {
// A number read in place from the buffer: from_chars finds its own end, so there is no
// separate scan for the token. Out-of-range values saturate as strtod's do.
template <typename T> bool ReadReal(const uint8_t* data, size_t size, size_t& pos, T& v) {
    const char* b = reinterpret_cast<const char*>(data) + pos;
    const char* e = reinterpret_cast<const char*>(data) + size;
    const char* p = b < e && *b == '+' ? b + 1 : b;
    auto r = std::from_chars(p, e, v);
    if (r.ec == std::errc::result_out_of_range) {
        v = *p == '-' ? -std::numeric_limits<T>::infinity() : std::numeric_limits<T>::infinity();
    } else if (r.ec != std::errc()) {
        return false;
    }
    pos = static_cast<size_t>(r.ptr - reinterpret_cast<const char*>(data));
    return true;
}

constexpr float kPow10f[] = {1e0f, 1e1f, 1e2f, 1e3f, 1e4f, 1e5f, 1e6f, 1e7f, 1e8f, 1e9f, 1e10f};

// The common plain decimal ("-12.34567"): when its digits make an integer of at most 2^24
// and at most ten of them follow the point, both that integer and the power of ten are
// exact floats and one division rounds correctly, the value from_chars would give.
// False (nothing consumed) for anything else, which goes the general way.
bool ReadPlainFloat(const uint8_t* data, size_t size, size_t& pos, float& v) {
    size_t p = pos;
    const bool neg = p < size && data[p] == '-';
    p += neg ? 1 : 0;
    uint32_t m = 0;
    int digits = 0, frac = 0;
    for (; p < size && IsDigit(data[p]); ++p, ++digits) m = m * 10 + static_cast<uint32_t>(data[p] - '0');
    if (digits > 9) return false; // may not fit, leave it to the general reader
    if (p < size && data[p] == '.') {
        for (++p; p < size && IsDigit(data[p]); ++p, ++frac) {
            if (digits + frac >= 9) return false;
            m = m * 10 + static_cast<uint32_t>(data[p] - '0');
        }
    }
    if (digits + frac == 0 || frac > 10 || m > (1u << 24)) return false;
    if (p < size && (data[p] == 'e' || data[p] == 'E' || data[p] == '.')) return false;
    const float f = static_cast<float>(m) / kPow10f[frac];
    v = neg ? -f : f;
    pos = p;
    return true;
}
} // namespace

bool QvIn::readDouble(double& v) {
    if (!skipWhite()) return false;
    return ReadReal(m_data.data(), m_data.size(), m_pos, v);
}

bool QvIn::readFloat(float& v) {
    if (!skipWhite()) return false;
    return ReadPlainFloat(m_data.data(), m_data.size(), m_pos, v) || ReadReal(m_data.data(), m_data.size(), m_pos, v);
}

namespace {
// strtol with base 0 semantics; saturates instead of wrapping.
bool ParseInteger(std::string_view t, int64_t& out, size_t& used) {
    const char* b = t.data();
    const char* e = b + t.size();
    const char* p = b;
    bool neg = false;
    if (p < e && (*p == '+' || *p == '-')) neg = *p++ == '-';
    int base = 10;
    if (e - p >= 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    } else if (e - p >= 2 && p[0] == '0') {
        base = 8;
    }
    uint64_t mag = 0;
    auto r = std::from_chars(p, e, mag, base);
    if (r.ptr == p) {
        if (base == 16) { // "0x" with no digits: the 0 alone
            mag = 0;
            r.ptr = p - 1;
        } else {
            return false;
        }
    } else if (r.ec == std::errc::result_out_of_range) {
        mag = std::numeric_limits<uint64_t>::max();
        while (r.ptr < e &&
               ((*r.ptr >= '0' && *r.ptr <= '9') || (base == 16 && std::isxdigit(static_cast<unsigned char>(*r.ptr)))))
            ++r.ptr;
    }
    const uint64_t lim = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (mag > lim) mag = neg ? lim + 1 : lim;
    out = neg ? static_cast<int64_t>(0 - mag) : static_cast<int64_t>(mag);
    used = static_cast<size_t>(r.ptr - b);
    return true;
}
} // namespace

// An integer read in place (ParseInteger finds its own end).
bool QvIn::readInteger(int64_t& x) {
    if (!skipWhite()) return false;
    {
        // Plain decimals (no leading zero that would make them octal) of up to 18 digits.
        const uint8_t* d = m_data.data();
        const size_t n = m_data.size();
        size_t p = m_pos;
        const bool neg = p < n && d[p] == '-';
        p += neg ? 1 : 0;
        const size_t first = p;
        int64_t mag = 0;
        for (; p < n && IsDigit(d[p]) && p - first < 18; ++p) mag = mag * 10 + (d[p] - '0');
        const bool octalOrHex = p - first > 1 && d[first] == '0';
        const bool more = p < n && (IsDigit(d[p]) || d[p] == 'x' || d[p] == 'X');
        if (p > first && !octalOrHex && !more) {
            x = neg ? -mag : mag;
            m_pos = p;
            return true;
        }
    }
    std::string_view t(reinterpret_cast<const char*>(m_data.data()) + m_pos, m_data.size() - m_pos);
    size_t used;
    if (!ParseInteger(t, x, used)) return false;
    m_pos += used;
    return true;
}

bool QvIn::readInt(int32_t& v) {
    int64_t x;
    if (!readInteger(x)) return false;
    v = static_cast<int32_t>(
        std::clamp<int64_t>(x, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
    return true;
}

bool QvIn::readUInt(uint32_t& v) {
    int64_t x;
    if (!readInteger(x)) return false;
    // Negative values wrap as an unsigned conversion does; large ones saturate.
    v = x < 0 ? static_cast<uint32_t>(std::max<int64_t>(x, -0xFFFFFFFFll))
              : static_cast<uint32_t>(std::min<int64_t>(x, 0xFFFFFFFFll));
    return true;
}

void QvIn::addName(const std::string& name, QvNode* node) {
    node->ref();
    auto [it, fresh] = m_dict.try_emplace(name, node);
    if (!fresh) {
        it->second->unref();
        it->second = node;
    }
}

QvNode* QvIn::findName(const std::string& name) const {
    auto it = m_dict.find(name);
    return it == m_dict.end() ? nullptr : it->second;
}

void QvIn::removeName(const std::string& name, const QvNode* node) {
    auto it = m_dict.find(name);
    if (it == m_dict.end() || it->second != node) {
        debugError("QvNode::removeName", QvFormat("Name \"%s\" (node %p) is not in dictionary", name.c_str(),
                                                  static_cast<const void*>(node)));
        return;
    }
    it->second->unref();
    m_dict.erase(it);
}

void QvIn::readError(const std::string& message) {
    m_error = true;
    m_sink(QvFormat("VRML read error: %s\n%s\n", message.c_str(), QvFormat("\tOccurred at line %3d", m_line).c_str()));
}

void QvIn::debugError(const char* function, const std::string& message) {
    m_sink(QvFormat("VRML error in %s(): %s\n", function, message.c_str()));
}
