// Fuzz target for the text layer: the scanf engine (narrow and wide, format strings
// from the input too), the cursor, line splitting, and IoFile text reads in every
// mode. Numeric fields are also checked against glibc's sscanf; a difference aborts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "plugin/host/IoFile.h"
#include "plugin/host/TextScanner.h"
#include "plugin/host/XString.h"

namespace {

constexpr int kArgs = 16;

// Arguments for any format with at most kArgs conversions: every pointer has room
// for the whole input (as wide characters) plus a terminator, and for long double.
struct Targets {
    std::vector<std::vector<unsigned char>> bufs;
    void* p[kArgs];
    explicit Targets(size_t inputLen) {
        size_t n = (inputLen + 2) * sizeof(wchar_t) + 16;
        bufs.assign(kArgs, std::vector<unsigned char>(n));
        for (int i = 0; i < kArgs; ++i) p[i] = bufs[static_cast<size_t>(i)].data();
    }
};

template <typename Fmt> bool FewConversions(const Fmt& fmt) {
    int n = 0;
    for (auto c : fmt)
        if (c == '%') ++n;
    return n <= kArgs;
}

void Oracle(const std::string& in, int pick) {
    static const char* const formats[] = {"%f%n", "%lf%n", "%3f%n", "%d%n",   "%i%n",
                                          "%x%n", "%u%n",  "%2i%n", "%lld%n", "%llu%n"};
    const char* f = formats[static_cast<size_t>(pick) % (sizeof(formats) / sizeof(formats[0]))];
    alignas(16) unsigned char a[16];
    alignas(16) unsigned char b[16];
    std::memset(a, 0x5A, sizeof(a));
    std::memset(b, 0x5A, sizeof(b));
    int na = -3, nb = -3;
    int ra = std::sscanf(in.c_str(), f, a, &na);
    int rb = textscan::ScanFormat(in, f, b, &nb);
    if (ra != rb || na != nb || std::memcmp(a, b, sizeof(a)) != 0) {
        std::fprintf(stderr, "scanner differs from sscanf on \"%s\" with %s: %d/%d vs %d/%d\n", in.c_str(), f, ra, na,
                     rb, nb);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    const char* text = reinterpret_cast<const char*>(data);
    std::string_view all(text, size);

    // First line: a format string; the rest: the input it scans.
    size_t nl = all.find('\n');
    std::string fmt(all.substr(0, nl == std::string_view::npos ? 0 : std::min<size_t>(nl, 64)));
    std::string_view input = nl == std::string_view::npos ? all : all.substr(nl + 1);
    if (FewConversions(fmt)) {
        Targets t(input.size());
        textscan::ScanFormat(input, fmt.c_str(), t.p[0], t.p[1], t.p[2], t.p[3], t.p[4], t.p[5], t.p[6], t.p[7], t.p[8],
                             t.p[9], t.p[10], t.p[11], t.p[12], t.p[13], t.p[14], t.p[15]);
        CXStringW wf(WidenBytes(fmt)), wi(Utf8ToWide(input));
        Targets u(wi.size());
        wi.ScanS(wf.c_str(), u.p[0], u.p[1], u.p[2], u.p[3], u.p[4], u.p[5], u.p[6], u.p[7], u.p[8], u.p[9], u.p[10],
                 u.p[11], u.p[12], u.p[13], u.p[14], u.p[15]);
    }

    // The C library as the oracle for number fields (it stops at a NUL, so do we).
    if (size > 0) Oracle(std::string(input.substr(0, input.find('\0'))), data[0]);

    // Cursor: every reader over the whole text, making progress or stopping.
    textscan::TextCursor c(all);
    for (int guard = 0; !c.AtEnd() && guard < 100000; ++guard) {
        float f;
        double d;
        int i;
        long long ll;
        unsigned long long ull;
        std::string_view w;
        size_t before = c.Position();
        switch ((before + guard) % 6) {
        case 0: c.ReadFloat(f); break;
        case 1: c.ReadDouble(d); break;
        case 2: c.ReadInt(i); break;
        case 3: c.ReadInt64(ll); break;
        case 4: c.ReadUInt64(ull); break;
        default: c.ReadWord(w, 1 + before % 7); break;
        }
        if (c.Position() == before && !c.SkipWord()) c.RestOfLine();
        if (c.Position() < before) std::abort();
    }

    // Lines: they and their ends cover the input exactly.
    textscan::LineSplitter sp(all);
    std::string_view line;
    size_t covered = 0;
    while (sp.Next(line)) {
        if (line.data() != text + covered) std::abort();
        covered = sp.Position();
    }
    if (covered != size) std::abort();

    // IoFile text reads over memory in every mode.
    for (int mode : {TEXT_MODE_BINARY, TEXT_MODE_ANSI, TEXT_MODE_UTF8, TEXT_MODE_AUTO}) {
        IoFile f(true, mode);
        f.OpenMemory(data, size);
        CXStringW s;
        size_t lines = 0;
        while (f.ReadString(s))
            if (++lines > size + 1) std::abort();
        f.FileSeek(0, 0);
        std::string_view raw;
        while (f.ReadLine(raw)) {}
    }
    return 0;
}
