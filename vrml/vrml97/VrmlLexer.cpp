// VRML97 scanner. Reads through one 16 KiB buffer; between tokens white space,
// commas and '#' comments separate. When the parser has set the expected-token
// slot the scanner reads a whole field value (numbers with from_chars, integers
// the strtol way with base 0, so "010" is octal 8) and returns one value token.
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <sys/stat.h>

#include "vrml/vrml97/VrmlParser.h"

#include <cctype>

#include "vrml/vrml97/System.h"

namespace {

constexpr size_t kBufferSize = 16384;
constexpr size_t kNumberWindow = 320; // longest number text read in one piece

inline bool isSeparator(int c) { return c == ',' || (c >= 0 && c <= 0x20); }

inline bool isIdRest(int c) {
    if (c <= 0x20 || c == 0x7f) return false;
    switch (c) {
    case '"':
    case '#':
    case '\'':
    case ',':
    case '.':
    case '[':
    case '\\':
    case ']':
    case '{':
    case '}': return false;
    default: return true;
    }
}

inline bool isIdFirst(int c) {
    if (!isIdRest(c)) return false;
    return !(c >= '0' && c <= '9') && c != '+' && c != '-';
}

inline bool isDigit(int c) { return c >= '0' && c <= '9'; }

} // namespace

int vrmltok::tokenForFieldType(int t) {
    switch (t) {
    case VrmlField::SFBOOL: return SFBOOL;
    case VrmlField::SFCOLOR: return SFCOLOR;
    case VrmlField::SFFLOAT: return SFFLOAT;
    case VrmlField::SFINT32: return SFINT32;
    case VrmlField::SFROTATION: return SFROTATION;
    case VrmlField::SFTIME: return SFTIME;
    case VrmlField::SFVEC2F: return SFVEC2F;
    case VrmlField::SFVEC3F: return SFVEC3F;
    case VrmlField::SFIMAGE: return SFIMAGE;
    case VrmlField::SFSTRING: return SFSTRING;
    default:
        if (t >= VrmlField::MFCOLOR && t <= VrmlField::MFNODE) return MFCOLOR + (t - VrmlField::MFCOLOR);
        return 0;
    }
}

VrmlLexer::VrmlLexer(FILE* fp) : d_fp(fp), d_buffer(kBufferSize) {
    d_cur = d_end = d_buffer.data();
    struct stat st;
    if (fp && fstat(fileno(fp), &st) == 0 && S_ISREG(st.st_mode))
        d_totalSize = static_cast<unsigned long long>(st.st_size);
    if (!fp) d_eof = true;
}

VrmlLexer::VrmlLexer(const char* data, size_t size) : d_eof(true), d_totalSize(size) {
    d_cur = data;
    d_end = data + size;
}

bool VrmlLexer::fill(size_t need) {
    size_t have = static_cast<size_t>(d_end - d_cur);
    if (have >= need) return true;
    if (d_eof || !d_fp) return false;
    char* base = d_buffer.data();
    d_consumedBefore += static_cast<unsigned long long>(d_cur - base);
    if (have) std::memmove(base, d_cur, have);
    d_cur = base;
    d_end = base + have;
    while (have < need && !d_eof) {
        size_t n = std::fread(base + have, 1, d_buffer.size() - have, d_fp);
        if (n == 0) d_eof = true;
        have += n;
        d_end = base + have;
    }
    return have >= need;
}

int VrmlLexer::peekc(size_t ahead) {
    if (static_cast<size_t>(d_end - d_cur) <= ahead && !fill(ahead + 1)) return -1;
    return static_cast<unsigned char>(d_cur[ahead]);
}

// Scanner complaints read like the parser's own errors.
void VrmlLexer::report(const char* msg) {
    theSystem->error("Error near line %d: %s\n", d_line, msg);
    d_expectToken = 0;
}

void VrmlLexer::skipSeparators() {
    for (;;) {
        while (d_cur < d_end) {
            unsigned char c = static_cast<unsigned char>(*d_cur);
            if (c == '\n') {
                ++d_line;
                ++d_cur;
            } else if (isSeparator(c)) {
                ++d_cur;
            } else if (c == '#') {
                // Comment to the end of the line (the newline is counted above).
                for (;;) {
                    const void* nl = std::memchr(d_cur, '\n', static_cast<size_t>(d_end - d_cur));
                    if (nl) {
                        d_cur = static_cast<const char*>(nl);
                        break;
                    }
                    d_cur = d_end;
                    if (!fill(1)) return;
                }
            } else {
                return;
            }
        }
        if (!fill(1)) return;
    }
}

bool VrmlLexer::atWord(const char* w) {
    size_t n = std::strlen(w);
    fill(n + 1);
    if (static_cast<size_t>(d_end - d_cur) < n || std::memcmp(d_cur, w, n) != 0) return false;
    int after = peekc(n);
    return after < 0 || !isIdRest(after);
}

bool VrmlLexer::readWord(std::string& out) {
    out.clear();
    for (;;) {
        const char* p = d_cur;
        while (p < d_end && isIdRest(static_cast<unsigned char>(*p))) ++p;
        out.append(d_cur, p);
        d_cur = p;
        if (p < d_end || !fill(1)) break;
    }
    return !out.empty();
}

bool VrmlLexer::readString(std::string& out) {
    // Opening quote already checked by the caller.
    out.clear();
    ++d_cur;
    for (;;) {
        if (d_cur == d_end && !fill(1)) return true; // unterminated at end of input
        char c = *d_cur++;
        if (c == '"') return true;
        if (c == '\\') {
            if (d_cur == d_end && !fill(1)) return true;
            c = *d_cur++;
        }
        if (c == '\n') ++d_line;
        out.push_back(c);
    }
}

bool VrmlLexer::readFloat(float& out) {
    fill(kNumberWindow);
    const char* p = d_cur;
    if (p < d_end && *p == '+') ++p;
    auto r = std::from_chars(p, d_end, out);
    if (r.ec == std::errc::invalid_argument) return false;
    if (r.ec == std::errc::result_out_of_range) {
        double d = 0;
        auto r2 = std::from_chars(p, d_end, d);
        if (r2.ec == std::errc()) {
            out = static_cast<float>(d);
        } else {
            bool tiny = false;
            for (const char* q = p; q < r.ptr; ++q)
                if ((*q == 'e' || *q == 'E') && q + 1 < r.ptr && q[1] == '-') tiny = true;
            out = tiny ? 0.0f : (*p == '-' ? -HUGE_VALF : HUGE_VALF);
        }
    }
    d_cur = r.ptr;
    return true;
}

bool VrmlLexer::readDouble(double& out) {
    fill(kNumberWindow);
    const char* p = d_cur;
    if (p < d_end && *p == '+') ++p;
    auto r = std::from_chars(p, d_end, out);
    if (r.ec == std::errc::invalid_argument) return false;
    if (r.ec == std::errc::result_out_of_range) out = (*p == '-') ? -HUGE_VAL : HUGE_VAL;
    d_cur = r.ptr;
    return true;
}

// strtol(s, 0, 0) semantics with a 32-bit long: sign, then 0x hex, a leading 0
// octal, else decimal; out-of-range values saturate at the 32-bit limits (never
// wrap), so 4294967295 and 0xFFFFFFFF read as 2147483647.
bool VrmlLexer::readInt(int32_t& out) {
    fill(kNumberWindow);
    const char* p = d_cur;
    bool neg = false;
    if (p < d_end && (*p == '+' || *p == '-')) neg = *p++ == '-';
    int base = 10;
    if (p < d_end && *p == '0') {
        if (p + 2 < d_end + 0 && (p[1] == 'x' || p[1] == 'X') && std::isxdigit(static_cast<unsigned char>(p[2]))) {
            base = 16;
            p += 2;
        } else {
            base = 8;
        }
    } else if (p >= d_end || !isDigit(*p)) {
        return false;
    }
    unsigned long long v = 0;
    const unsigned long long limit = neg ? 2147483648ull : 2147483647ull;
    bool over = false;
    for (; p < d_end; ++p) {
        int c = static_cast<unsigned char>(*p), d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else break;
        if (d >= base) break;
        if (!over) {
            if (v > (limit - static_cast<unsigned long long>(d)) / static_cast<unsigned long long>(base)) {
                over = true;
                v = limit;
            } else {
                v = v * static_cast<unsigned long long>(base) + static_cast<unsigned long long>(d);
            }
        }
    }
    d_cur = p;
    long long sv = neg ? -static_cast<long long>(v) : static_cast<long long>(v);
    out = static_cast<int32_t>(sv);
    return true;
}

// "%d" for the SFImage header: decimal only.
bool VrmlLexer::readDecimalInt(int64_t& out) {
    fill(kNumberWindow);
    const char* p = d_cur;
    bool neg = false;
    if (p < d_end && (*p == '+' || *p == '-')) neg = *p++ == '-';
    if (p >= d_end || !isDigit(*p)) return false;
    int64_t v = 0;
    for (; p < d_end && isDigit(*p); ++p)
        if (v < (int64_t{1} << 40)) v = v * 10 + (*p - '0');
    d_cur = p;
    out = neg ? -v : v;
    return true;
}

template <class T, class Read> bool VrmlLexer::readList(std::vector<T>& out, int width, Read read, bool& bracketed) {
    skipSeparators();
    bracketed = peekc() == '[';
    if (!bracketed) {
        for (int i = 0; i < width; ++i) {
            if (i) skipSeparators();
            T v;
            if (!read(v)) return false;
            out.push_back(v);
        }
        return true;
    }
    ++d_cur;
    for (;;) {
        skipSeparators();
        int c = peekc();
        if (c == ']') {
            ++d_cur;
            return true;
        }
        if (c < 0) return true; // unterminated list at end of input
        T v;
        if (!read(v)) return false;
        out.push_back(v);
    }
}

std::unique_ptr<VrmlField> VrmlLexer::scanImage() {
    int64_t w = 0, h = 0, nc = 0;
    skipSeparators();
    if (!readDecimalInt(w)) return nullptr;
    skipSeparators();
    if (!readDecimalInt(h)) return nullptr;
    skipSeparators();
    if (!readDecimalInt(nc)) return nullptr;
    unsigned long long consumed =
        d_consumedBefore + static_cast<unsigned long long>(d_cur - (d_fp ? d_buffer.data() : d_cur));
    unsigned long long remaining = d_totalSize > consumed ? d_totalSize - consumed : 0;
    if (!d_fp) remaining = static_cast<unsigned long long>(d_end - d_cur);
    if (d_fp && d_totalSize == 0) remaining = 1ull << 26; // a pipe: unknown length
    // Each pixel needs at least one character of text, so the input bounds the size.
    // 0 components is PixelTexture's own empty default ("0 0 0").
    if (w < 0 || h < 0 || nc < 0 || nc > 4 ||
        (w && h > static_cast<int64_t>(remaining / static_cast<unsigned long long>(w))) ||
        static_cast<unsigned long long>(w * h) > remaining || w * h * nc > std::numeric_limits<int32_t>::max()) {
        report("invalid SFImage size");
        // Step over the pixel numbers so the rest of the node still reads.
        for (;;) {
            skipSeparators();
            int c = peekc();
            if (c < 0 || !(isDigit(c) || c == '+' || c == '-' || c == 'x' || c == 'X' || (c >= 'a' && c <= 'f') ||
                           (c >= 'A' && c <= 'F')))
                break;
            if (!isDigit(c) && c != '+' && c != '-') break;
            while ((c = peekc()) >= 0 && (std::isxdigit(c) || c == 'x' || c == 'X' || c == '+' || c == '-')) ++d_cur;
        }
        return nullptr;
    }
    size_t pixels = static_cast<size_t>(w * h);
    size_t size = pixels * static_cast<size_t>(nc);
    std::unique_ptr<unsigned char[]> bytes(size ? new unsigned char[size] : nullptr);
    for (size_t i = 0; i < pixels; ++i) {
        skipSeparators();
        int32_t v;
        if (!readInt(v)) return nullptr;
        if (!size) continue;
        // First byte of each pixel gets the low byte of the value; the others
        // come out 0 (the historical 8-bit extraction), kept on purpose.
        unsigned char* px = bytes.get() + i * static_cast<size_t>(nc);
        px[0] = static_cast<unsigned char>(v & 0xFF);
        for (int64_t k = 1; k < nc; ++k) px[k] = 0;
    }
    auto img = std::make_unique<VrmlSFImage>();
    if (size) img->adopt(static_cast<int32_t>(w), static_cast<int32_t>(h), static_cast<int32_t>(nc), bytes.release());
    else img->set(static_cast<int32_t>(w), static_cast<int32_t>(h), static_cast<int32_t>(nc), nullptr);
    return img;
}

int VrmlLexer::scanValue(int token) {
    using namespace vrmltok;
    d_value.reset();
    skipSeparators();
    d_tokenLine = d_line;
    if (atWord("IS")) {
        d_cur += 2;
        return IS;
    }
    auto floats = [this](int width, std::vector<float>& v, bool& br) {
        return readList(
            v, width, [this](float& f) { return readFloat(f); }, br);
    };
    bool br = false;
    switch (token) {
    case SFBOOL:
        if (atWord("TRUE")) {
            d_cur += 4;
            d_value = std::make_unique<VrmlSFBool>(true);
        } else if (atWord("FALSE")) {
            d_cur += 5;
            d_value = std::make_unique<VrmlSFBool>(false);
        }
        return token;
    case SFCOLOR:
    case SFFLOAT:
    case SFROTATION:
    case SFVEC2F:
    case SFVEC3F: {
        int n = token == SFFLOAT ? 1 : token == SFVEC2F ? 2 : token == SFROTATION ? 4 : 3;
        float v[4];
        for (int i = 0; i < n; ++i) {
            if (i) skipSeparators();
            if (!readFloat(v[i])) return token;
        }
        switch (token) {
        case SFCOLOR: d_value = std::make_unique<VrmlSFColor>(v[0], v[1], v[2]); break;
        case SFFLOAT: d_value = std::make_unique<VrmlSFFloat>(v[0]); break;
        case SFROTATION: d_value = std::make_unique<VrmlSFRotation>(v[0], v[1], v[2], v[3]); break;
        case SFVEC2F: d_value = std::make_unique<VrmlSFVec2f>(v[0], v[1]); break;
        default: d_value = std::make_unique<VrmlSFVec3f>(v[0], v[1], v[2]); break;
        }
        return token;
    }
    case SFINT32: {
        int32_t v;
        if (readInt(v)) d_value = std::make_unique<VrmlSFInt>(v);
        return token;
    }
    case SFTIME: {
        double v;
        if (readDouble(v)) d_value = std::make_unique<VrmlSFTime>(v);
        return token;
    }
    case SFSTRING: {
        if (peekc() != '"') {
            report("SFString missing open-quote");
            return token;
        }
        readString(d_text);
        d_value = std::make_unique<VrmlSFString>(d_text.c_str());
        return token;
    }
    case SFIMAGE: d_value = scanImage(); return token;
    case MFSTRING: {
        auto mf = std::make_unique<VrmlMFString>();
        bool bracketed = peekc() == '[';
        if (bracketed) ++d_cur;
        for (;;) {
            skipSeparators();
            int c = peekc();
            if (bracketed && (c == ']' || c < 0)) {
                if (c == ']') ++d_cur;
                break;
            }
            if (c != '"') {
                report("MFString missing open-quote");
                return token;
            }
            readString(d_text);
            mf->append(d_text.c_str());
            if (!bracketed) break;
        }
        d_value = std::move(mf);
        return token;
    }
    case MFINT32: {
        std::vector<int32_t> v;
        if (!readList(
                v, 1, [this](int32_t& i) { return readInt(i); }, br)) {
            if (br) return OTHER;
            return token;
        }
        // An IndexedFaceSet written without the closing -1 keeps its last face.
        if (d_coordIndex && !v.empty() && v.back() != -1) v.push_back(-1);
        if (v.capacity() > v.size() + v.size() / 8) v.shrink_to_fit();
        d_value = std::make_unique<VrmlMFInt>(std::move(v));
        return token;
    }
    case MFCOLOR:
    case MFFLOAT:
    case MFROTATION:
    case MFVEC2F:
    case MFVEC3F: {
        int width = token == MFFLOAT ? 1 : token == MFVEC2F ? 2 : token == MFROTATION ? 4 : 3;
        std::vector<float> v;
        if (!floats(width, v, br)) {
            if (br) return OTHER;
            return token;
        }
        v.resize(v.size() / static_cast<size_t>(width) * static_cast<size_t>(width)); // a partial element is dropped
        if (v.capacity() > v.size() + v.size() / 8) v.shrink_to_fit(); // growth slack would outlive the parse
        switch (token) {
        case MFCOLOR: d_value = std::make_unique<VrmlMFColor>(std::move(v)); break;
        case MFFLOAT: d_value = std::make_unique<VrmlMFFloat>(std::move(v)); break;
        case MFROTATION: d_value = std::make_unique<VrmlMFRotation>(std::move(v)); break;
        case MFVEC2F: d_value = std::make_unique<VrmlMFVec2f>(std::move(v)); break;
        default: d_value = std::make_unique<VrmlMFVec3f>(std::move(v)); break;
        }
        return token;
    }
    default: return token;
    }
}

int VrmlLexer::scanNormal() {
    using namespace vrmltok;
    skipSeparators();
    d_tokenLine = d_line;
    int c = peekc();
    if (c < 0) return END;
    switch (c) {
    case '{':
    case '}':
    case '[':
    case ']': ++d_cur; return c;
    case '"': readString(d_text); return STRING;
    default: break;
    }
    if (isDigit(c) || c == '+' || c == '-' || (c == '.' && isDigit(peekc(1)))) {
        d_text.clear();
        for (;;) {
            int d = peekc();
            if (d < 0 ||
                !(isDigit(d) || (d >= 'a' && d <= 'z') || (d >= 'A' && d <= 'Z') || d == '.' || d == '+' || d == '-'))
                break;
            d_text.push_back(static_cast<char>(d));
            ++d_cur;
        }
        return NUMBER;
    }
    if (c == '.') {
        ++d_cur;
        return '.';
    }
    if (!isIdFirst(c)) {
        ++d_cur;
        return OTHER;
    }
    readWord(d_text);
    struct Kw {
        const char* word;
        int token;
    };
    static const Kw kKeywords[] = {{"DEF", DEF},         {"USE", USE},
                                   {"PROTO", PROTO},     {"EXTERNPROTO", EXTERNPROTO},
                                   {"TO", TO},           {"IS", IS},
                                   {"ROUTE", ROUTE},     {"NULL", SFN_NULL},
                                   {"eventIn", EVENTIN}, {"eventOut", EVENTOUT},
                                   {"field", FIELD},     {"exposedField", EXPOSEDFIELD}};
    for (const Kw& k : kKeywords)
        if (d_text == k.word) return k.token;
    return IDENTIFIER;
}

int VrmlLexer::next() {
    using namespace vrmltok;
    int slot = d_expectToken;
    if (slot) {
        d_expectToken = 0;
        if (slot == SFNODE || slot == MFNODE) {
            // The grammar reads the node itself; only IS is taken here.
            skipSeparators();
            d_tokenLine = d_line;
            if (atWord("IS")) {
                d_cur += 2;
                return IS;
            }
            return slot;
        }
        if (slot < SFBOOL || slot > MFVEC3F) {
            report("ACK: Bad expectToken");
            return scanNormal();
        }
        int t = scanValue(slot);
        d_coordIndex = false;
        return t;
    }
    return scanNormal();
}
