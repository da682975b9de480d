// The scanner against glibc's sscanf as the oracle, plus line splitting and the cursor.
#include "plugin/host/TextScanner.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "tests/host/CommaLocale.h"

using namespace textscan;

namespace {

struct Outcome {
    int ret = -7;
    alignas(16) unsigned char value[16];
    int n = -7;
    bool operator==(const Outcome& o) const { return ret == o.ret && n == o.n && std::memcmp(value, o.value, 16) == 0; }
};

// Runs one "<conversion>%n" both ways. The target is pre-filled so a store of
// the wrong width or an unexpected store shows.
template <typename Scan> Outcome Run(Scan&& scan, const char* fmt) {
    Outcome o;
    std::memset(o.value, 0xA5, sizeof(o.value));
    o.ret = scan(fmt, static_cast<void*>(o.value), &o.n);
    return o;
}

std::string Show(const Outcome& o) {
    char buf[128];
    std::snprintf(buf, sizeof(buf), "ret=%d n=%d bytes=%02x%02x%02x%02x%02x%02x%02x%02x", o.ret, o.n, o.value[0],
                  o.value[1], o.value[2], o.value[3], o.value[4], o.value[5], o.value[6], o.value[7]);
    return buf;
}

// NaN payloads and signs may legitimately differ only if glibc is inconsistent; we
// compare bits, so any difference is real.
void ExpectSameAsSscanf(const std::string& input, const char* fmt) {
    auto c = Run([&](const char* f, void* v, int* n) { return std::sscanf(input.c_str(), f, v, n); }, fmt);
    auto ours = Run([&](const char* f, void* v, int* n) { return ScanFormat(input, f, v, n); }, fmt);
    EXPECT_TRUE(c == ours) << "input '" << input << "' format " << fmt << "\n  libc: " << Show(c)
                           << "\n  ours: " << Show(ours);
}

} // namespace

TEST(TextScanner, RandomFieldsMatchSscanf) {
    // Short strings over the characters that matter to numbers: signs, dots,
    // exponents, hex prefixes, the letters of inf/nan, spaces.
    const char alphabet[] = "0123456789.eE+-xXpPinfatyINFATY \tabc";
    const char* formats[] = {"%f%n",    "%lf%n",      "%e%n",  "%g%n",  "%1f%n",  "%2f%n",  "%3f%n",  "%4f%n",
                             "%5lf%n",  "%d%n",       "%i%n",  "%x%n",  "%u%n",   "%o%n",   "%1d%n",  "%2d%n",
                             "%2i%n",   "%3i%n",      "%1x%n", "%3x%n", "%lld%n", "%llu%n", "%lli%n", "%hhd%n",
                             "%hd%n",   "%hu%n",      "%ld%n", "%3s%n", "%1s%n",  "%2c%n",  "%c%n",   "%[0-9]%n",
                             "%[^e]%n", "%3[a-f.]%n", "%*f%n", "%*d%n", "%*s%n"};
    std::mt19937 rng(12345);
    for (int it = 0; it < 400000; ++it) {
        std::string s;
        int len = static_cast<int>(rng() % 9);
        for (int k = 0; k < len; ++k) s += alphabet[rng() % (sizeof(alphabet) - 1)];
        const char* f = formats[rng() % (sizeof(formats) / sizeof(formats[0]))];
        // "%*x%n" forms take one fewer argument; the oracle call passes the same list.
        if (std::strncmp(f, "%*", 2) == 0) {
            int n1 = -7, n2 = -7;
            int r1 = std::sscanf(s.c_str(), f, &n1);
            int r2 = ScanFormat(s, f, &n2);
            ASSERT_EQ(r1, r2) << "'" << s << "' " << f;
            ASSERT_EQ(n1, n2) << "'" << s << "' " << f;
            continue;
        }
        ExpectSameAsSscanf(s, f);
        if (HasFailure()) break;
    }
}

TEST(TextScanner, FloatValuesRoundLikeStrtof) {
    // Printed values of random bit patterns, in several spellings, must read back to
    // the identical float and double as glibc gives.
    std::mt19937_64 rng(99);
    char buf[64];
    for (int it = 0; it < 200000; ++it) {
        uint64_t bits = rng();
        double d;
        std::memcpy(&d, &bits, 8);
        if (!std::isfinite(d)) continue;
        const char* fmts[] = {"%.17g", "%.9g", "%.3e", "%f", "%.1f", "%a"};
        std::snprintf(buf, sizeof(buf), fmts[it % 6], (it & 1) ? d : static_cast<double>(static_cast<float>(d)));
        std::string s = buf;
        float fc = 0, fo = 0;
        double dc = 0, dd = 0;
        int rc = std::sscanf(buf, "%f", &fc), ro = ScanFormat(s, "%f", &fo);
        ASSERT_EQ(rc, ro) << s;
        ASSERT_EQ(0, std::memcmp(&fc, &fo, 4)) << s << " libc " << fc << " ours " << fo;
        rc = std::sscanf(buf, "%lf", &dc);
        ro = ScanFormat(s, "%lf", &dd);
        ASSERT_EQ(rc, ro) << s;
        ASSERT_EQ(0, std::memcmp(&dc, &dd, 8)) << s;
    }
    // Denormals, out of range, long mantissas.
    for (const char* s : {"1e-40", "1e-45", "7e-46", "1e-400", "-1e-400", "3.4028235e38", "3.5e38", "1e39", "-1e5000",
                          "0x1p-149", "0x1p-150", "0x1.fffffep127", "0x1p128", "000000000000000000000000000001.5",
                          "0.0000000000000000000000000000000000000000000001", "123456789012345678901234567890e-10",
                          "2.4703282292062328e-324", "1.7976931348623159e308"}) {
        float fc = 1, fo = 2;
        double dc = 1, dd = 2;
        EXPECT_EQ(std::sscanf(s, "%f", &fc), ScanFormat(s, "%f", &fo)) << s;
        EXPECT_EQ(0, std::memcmp(&fc, &fo, 4)) << s;
        EXPECT_EQ(std::sscanf(s, "%lf", &dc), ScanFormat(s, "%lf", &dd)) << s;
        EXPECT_EQ(0, std::memcmp(&dc, &dd, 8)) << s;
    }
}

TEST(TextScanner, PinnedFloatQuirks) {
    // glibc swallows an exponent marker without digits ("1e" reads 1 and consumes
    // two characters), takes "inf" out of "infx" but fails a partial "infin", reads
    // "nan(" as "nan", and fails a bare "0x".
    struct Case {
        const char* in;
        int ret;
        float v;
        int n;
    };
    const Case cases[] = {{"1e", 1, 1.0f, 2},    {"1e+", 1, 1.0f, 3},      {"100ergs", 1, 100.0f, 4},
                          {"+.5", 1, 0.5f, 3},   {"infx", 1, INFINITY, 3}, {"infinity", 1, INFINITY, 8},
                          {"infinit", 0, 0, -1}, {"nan(", 1, NAN, 3},      {"0x", 0, 0, -1},
                          {"0x.", 1, 0.0f, 3},   {"0x1p3", 1, 8.0f, 5},    {"1e2.5", 1, 100.0f, 3},
                          {".", 0, 0, -1},       {"-", 0, 0, -1},          {"", -1, 0, -1},
                          {"   ", -1, 0, -1},    {"  12", 1, 12.0f, 4}};
    for (const auto& c : cases) {
        float v = 0;
        int n = -1;
        int r = ScanFormat(c.in, "%f%n", &v, &n);
        EXPECT_EQ(c.ret, r) << c.in;
        EXPECT_EQ(c.n, n) << c.in;
        if (c.ret == 1) {
            if (std::isnan(c.v)) EXPECT_TRUE(std::isnan(v)) << c.in;
            else EXPECT_EQ(c.v, v) << c.in;
        }
    }
    float v = 0;
    EXPECT_EQ(1, ScanFormat("-0", "%f", &v));
    EXPECT_TRUE(std::signbit(v));
    // The cursor's fast path for plain decimals must hand over exactly where from_chars
    // and scanf disagree.
    for (const char* s :
         {"-infinit", "-infinity", "-nan(12)", "-inf",  "1e",  "1E+", "0x1p3", "-0x.", "-.5", "1.e5", "5e-50",
          "-7e39",    "12.5.6",    "3-4",      "1e5e6", "007", "-",   "-.",    "+1.5", "1,5", "0X1",  "9e+9x"}) {
        float c = -99, o = -99;
        int n = -1;
        int r = std::sscanf(s, "%f%n", &c, &n);
        TextCursor cur(s);
        bool ok = cur.ReadFloat(o);
        EXPECT_EQ(r == 1, ok) << s;
        if (r == 1 && ok) {
            EXPECT_EQ(static_cast<size_t>(n), cur.Position()) << s;
            EXPECT_EQ(0, std::memcmp(&c, &o, 4)) << s;
        }
    }
}

TEST(TextScanner, ReturnValuesAndLiterals) {
    int a = 0, b = 0, n = -1;
    char s[8];
    EXPECT_EQ(-1, ScanFormat("abc", "%*s%d", &a)); // input ends before any assignment
    EXPECT_EQ(1, ScanFormat("5 x", "%d %d", &a, &b));
    EXPECT_EQ(0, ScanFormat("x", "%d", &a));
    EXPECT_EQ(0, ScanFormat("", "%n", &n));
    EXPECT_EQ(0, n);
    EXPECT_EQ(1, ScanFormat("  %5", "%%%d", &a));
    EXPECT_EQ(5, a);
    EXPECT_EQ(0, ScanFormat("a b", "a%nb", &n)); // the literal does not skip the space
    EXPECT_EQ(1, n);
    EXPECT_EQ(1, ScanFormat("12 ", "%d %n", &a, &n));
    EXPECT_EQ(3, n);
    EXPECT_EQ(1, ScanFormat("]abc]", "%[]a]%n", s, &n));
    EXPECT_STREQ("]a", s);
    EXPECT_EQ(1, ScanFormat("a-z", "%[a-]", s));
    EXPECT_STREQ("a-", s);
    // Input stops at a NUL, as a C string would.
    EXPECT_EQ(1, ScanFormat(std::string_view("7\0 8", 4), "%d %d", &a, &b));
    // The facet line of an ASCII STL file, both ways the reader scans it.
    char w1[16], w2[16];
    float x = 0, y = 0, z = 0;
    EXPECT_EQ(5, ScanFormat("  facet normal 0 -1 2.5e-1", "%s %s %f %f %f", w1, w2, &x, &y, &z));
    EXPECT_STREQ("normal", w2);
    EXPECT_EQ(0.25f, z);
    EXPECT_EQ(3, ScanFormat("facet normal 1 2 3", "%*s %*s %f %f %f", &x, &y, &z));
    unsigned long long id = 0;
    EXPECT_EQ(1, ScanFormat("# TVL:NODEID:18446744073709551615", "# TVL:NODEID:%llu", &id));
    EXPECT_EQ(~0ull, id);
}

TEST(TextScanner, IntegerOverflowMatchesGlibc) {
    const char* inputs[] = {"2147483647", "2147483648", "-2147483649", "4294967296",           "99999999999999999999",
                            "-1",         "0x7fffffff", "-0x80000001", "18446744073709551616", "-9223372036854775809"};
    for (const char* in : inputs)
        for (const char* f : {"%d%n", "%u%n", "%i%n", "%x%n", "%lld%n", "%llu%n", "%hd%n", "%hhu%n"})
            ExpectSameAsSscanf(in, f);
}

TEST(TextScanner, LineSplitting) {
    auto lines = [](std::string_view text) {
        std::vector<std::string> out;
        LineSplitter sp(text);
        std::string_view l;
        while (sp.Next(l)) out.emplace_back(l);
        return out;
    };
    using V = std::vector<std::string>;
    EXPECT_EQ(V({"a", "b", "c"}), lines("a\nb\r\nc"));
    EXPECT_EQ(V({"a", "", "b"}), lines("a\r\rb\n"));
    EXPECT_EQ(V({"", ""}), lines("\n\r\n"));
    EXPECT_EQ(V({"x", ""}), lines("x\n\n"));
    EXPECT_EQ(V(), lines(""));
    EXPECT_EQ(V({"one"}), lines("one"));
    EXPECT_EQ(V({"a", "b", "", "c"}), lines("a\rb\n\rc"));
    // Only-CR text with many lines must stay linear: a million lines quickly.
    std::string cr(2000000, '\r');
    for (size_t i = 0; i < cr.size(); i += 2) cr[i] = 'x';
    LineSplitter sp(cr);
    std::string_view l;
    size_t count = 0;
    while (sp.Next(l)) {
        ASSERT_EQ("x", l);
        ++count;
    }
    EXPECT_EQ(1000000u, count);
}

TEST(TextScanner, TrimAndTokens) {
    EXPECT_EQ("a b", Trim(" \t a b\r\n\v\f"));
    EXPECT_EQ("", Trim(" \t "));
    EXPECT_EQ("x ", TrimLeft("  x "));
    EXPECT_EQ("  x", TrimRight("  x \r"));
    auto t = Tokenize("  v 1.0\t2 \t -3  ");
    ASSERT_EQ(4u, t.size());
    EXPECT_EQ("v", t[0]);
    EXPECT_EQ("-3", t[3]);
    EXPECT_TRUE(Tokenize(" \t").empty());
}

TEST(TextScanner, CursorMatchesScanfAndDoesNotMoveOnFailure) {
    TextCursor c("v 1.5 -2e1 3 # rest\nnext");
    std::string_view w;
    ASSERT_TRUE(c.ReadWord(w));
    EXPECT_EQ("v", w);
    float a, b;
    int i;
    ASSERT_TRUE(c.ReadFloat(a));
    ASSERT_TRUE(c.ReadFloat(b));
    ASSERT_TRUE(c.ReadInt(i));
    EXPECT_EQ(1.5f, a);
    EXPECT_EQ(-20.0f, b);
    EXPECT_EQ(3, i);
    size_t pos = c.Position();
    EXPECT_FALSE(c.ReadFloat(a));
    EXPECT_FALSE(c.ReadInt(i));
    EXPECT_EQ(pos, c.Position());
    EXPECT_TRUE(c.Match('#'));
    EXPECT_EQ(" rest", c.RestOfLine());
    EXPECT_EQ("next", c.Remaining());
    // Width-limited words, as "%4s" would read them.
    TextCursor d("abcdefg h");
    ASSERT_TRUE(d.ReadWord(w, 4));
    EXPECT_EQ("abcd", w);
    ASSERT_TRUE(d.ReadWord(w));
    EXPECT_EQ("efg", w);
    EXPECT_TRUE(d.SkipWord());
    EXPECT_FALSE(d.SkipWord());
    EXPECT_TRUE(d.AtEndIgnoringSpaces());
    // "1e" consumes the 'e' as scanf does, so the next word starts after it.
    TextCursor e("1ex");
    ASSERT_TRUE(e.ReadFloat(a));
    EXPECT_EQ("x", e.Remaining());
    // 64-bit values.
    TextCursor g("18446744073709551615 -9223372036854775808");
    unsigned long long u;
    long long s;
    ASSERT_TRUE(g.ReadUInt64(u));
    ASSERT_TRUE(g.ReadInt64(s));
    EXPECT_EQ(~0ull, u);
    EXPECT_EQ(INT64_MIN, s);
}

TEST(TextScanner, CommaLocaleDoesNotMatter) {
    testsupport::CommaLocaleScope loc;
    if (!loc.ok()) GTEST_SKIP() << "no comma-decimal locale available";
    // The C library now reads "1,5" as a number; we keep to the point.
    float libc = 0;
    ASSERT_EQ(1, std::sscanf("1,5", "%f", &libc));
    EXPECT_EQ(1.5f, libc) << "the locale switch did not take effect";
    float v = 0;
    int n = 0;
    EXPECT_EQ(1, ScanFormat("1,5", "%f%n", &v, &n));
    EXPECT_EQ(1.0f, v);
    EXPECT_EQ(1, n);
    EXPECT_EQ(1, ScanFormat("2.25", "%f", &v));
    EXPECT_EQ(2.25f, v);
    TextCursor c("  -0.125");
    ASSERT_TRUE(c.ReadFloat(v));
    EXPECT_EQ(-0.125f, v);
}

// The reader fast paths: whenever they answer, the answer is strtof's / sscanf's, and
// the number ends where "%f%n" / "%d%n" end. Decimals are drawn to hit the awkward
// spots: 6-9 significant digits, ties between floats, exponents at the fast-path edge,
// values near the float range limits.
TEST(TextScannerFastPaths, PlainFloatAgreesWithStrtofWheneverItAnswers) {
    std::mt19937_64 rng(20261122);
    std::setlocale(LC_NUMERIC, "C");
    size_t answered = 0, total = 0;
    char buf[64];
    // Each text is tried at the very end of the input and with a long tail of spaces after
    // it, since the parser takes a different route when it is far from the end.
    auto check = [&](const std::string& text) {
        for (const std::string& s : {text, text + std::string(48, ' ')}) {
            ++total;
            float fast = -1.0f;
            const char* e = ParsePlainFloat(s.data(), s.data() + s.size(), fast);
            if (!e) continue;
            ++answered;
            char* se = nullptr;
            const float ref = std::strtof(s.c_str(), &se);
            ASSERT_EQ(std::memcmp(&fast, &ref, 4), 0) << s << " fast " << fast << " strtof " << ref;
            ASSERT_EQ(e - s.data(), se - s.c_str()) << s;
        }
    };
    for (int i = 0; i < 400000; ++i) {
        const int kind = static_cast<int>(rng() % 5);
        if (kind == 0) { // "%f"-style output of a random float
            uint32_t bits = static_cast<uint32_t>(rng());
            float f;
            std::memcpy(&f, &bits, 4);
            if (!std::isfinite(f)) continue;
            std::snprintf(buf, sizeof buf, "%.*f", static_cast<int>(rng() % 10), static_cast<double>(f));
        } else if (kind == 1) { // exact midpoint between two neighbouring floats, printed in full
            const float a = std::ldexp(static_cast<float>(rng() % (1u << 24)), static_cast<int>(rng() % 40) - 30);
            const double mid = (static_cast<double>(a) + static_cast<double>(std::nextafter(a, 2.0f * a + 1))) / 2;
            std::snprintf(buf, sizeof buf, "%.17g", mid);
        } else if (kind == 2) { // random digits with a point somewhere
            std::string d;
            const int n = 1 + static_cast<int>(rng() % 20);
            for (int k = 0; k < n; ++k) d += static_cast<char>('0' + rng() % 10);
            d.insert(rng() % (d.size() + 1), ".");
            if (rng() % 2) d = "-" + d;
            std::snprintf(buf, sizeof buf, "%s", d.c_str());
        } else if (kind == 3) { // mantissa and exponent near the limits
            std::snprintf(buf, sizeof buf, "%llue%d", static_cast<unsigned long long>(rng() % 100000000000ull),
                          static_cast<int>(rng() % 90) - 60);
        } else { // near FLT_MAX and FLT_MIN
            const double base = (rng() % 2) ? 3.4028234e38 : 1.1754944e-38;
            std::snprintf(buf, sizeof buf, "%.8e", base * (1.0 + (static_cast<double>(rng() % 2001) - 1000.0) * 1e-7));
        }
        check(buf);
    }
    EXPECT_GT(answered, total / 4);
    // The shapes real files are made of must take the fast path, or it buys nothing.
    for (const char* s :
         {"0.000000", "-0.151489", "123.456789", "1e5", "1.", ".5", "-0", "+2.5", "0.1", "-1234.5678e-3"}) {
        float f;
        EXPECT_NE(ParsePlainFloat(s, s + std::strlen(s), f), nullptr) << s;
        const std::string padded = std::string(s) + std::string(48, ' ');
        EXPECT_NE(ParsePlainFloat(padded.data(), padded.data() + padded.size(), f), nullptr) << s;
        check(s);
    }
    for (const char* s : {"16777217", "3.4028235e38", "1e-38"}) check(s);
    float v = 7;
    EXPECT_EQ(ParsePlainFloat("-0.0", std::strchr("-0.0", 0), v) != nullptr, true);
    EXPECT_TRUE(std::signbit(v));
}

TEST(TextScannerFastPaths, PlainFloatDeclinesWhatItCannotSettle) {
    for (const char* text : {"", "-", ".", "e5", "1e", "1e+", "1.5x", "1.5/", "+-1", "inf", "nan", "0x10", "1e99999",
                             "12345678901234567890", "0.12345678901234567890", "3.5e38", "1e-45", "1,5"}) {
        for (const std::string& s : {std::string(text), std::string(text) + std::string(48, ' ')}) {
            float v = 42;
            EXPECT_EQ(ParsePlainFloat(s.data(), s.data() + s.size(), v), nullptr) << s;
            EXPECT_EQ(v, 42) << s;
        }
    }
    // A number cut by the end of the text is still a number; one followed by a space ends there.
    const char* t = "2.5 7";
    float v = 0;
    EXPECT_EQ(ParsePlainFloat(t, t + 3, v), t + 3);
    EXPECT_EQ(v, 2.5f);
    EXPECT_EQ(ParsePlainFloat(t, t + 5, v), t + 3);
}

TEST(TextScannerFastPaths, PlainIntLineBreaksAndTokenCounts) {
    int v = 0;
    for (const char* s : {"0", "-1", "+7", "12", "123", "1234", "12345", "123456", "1234567", "12345678", "123456789",
                          "-999999999", "0009"}) {
        ASSERT_EQ(ParsePlainInt(s, s + std::strlen(s), v), s + std::strlen(s)) << s;
        EXPECT_EQ(v, static_cast<int>(std::strtol(s, nullptr, 10))) << s;
        for (const char* tail : {"/4/5 ", " 6 7 8 9 10", "\n           "}) { // far from the end of the text
            const std::string t = std::string(s) + tail;
            ASSERT_EQ(ParsePlainInt(t.data(), t.data() + t.size(), v), t.data() + std::strlen(s)) << t;
            EXPECT_EQ(v, static_cast<int>(std::strtol(s, nullptr, 10))) << t;
        }
    }
    const char* slash = "12/5";
    EXPECT_EQ(ParsePlainInt(slash, slash + 4, v), slash + 2);
    EXPECT_EQ(v, 12);
    for (const char* s : {"", "-", "/1", "1234567890", "+-3", "1234567890         ", "-/2         ", ":9        "})
        EXPECT_EQ(ParsePlainInt(s, s + std::strlen(s), v), nullptr) << s;

    // The eight-byte digit run under every byte that can follow or break it: bytes next to
    // '0' and '9', the top-bit bytes and NUL, in every position.
    std::mt19937 bytes(11);
    const unsigned char edges[] = {'/', ':', ' ', '.', '-', 0x00, 0x7f, 0x80, 0xaf, 0xb0, 0xb9, 0xba, 0xc6, 0xff};
    for (int round = 0; round < 200000; ++round) {
        char w[8];
        for (char& c : w) c = static_cast<char>(bytes() % 3 ? '0' + bytes() % 10 : edges[bytes() % sizeof edges]);
        unsigned n = 99, want = 0;
        uint64_t value = 0;
        while (want < 8 && w[want] >= '0' && w[want] <= '9')
            value = value * 10 + static_cast<unsigned>(w[want++] - '0');
        ASSERT_EQ(DigitRun8(w, n), value) << std::string(w, 8);
        ASSERT_EQ(n, want) << std::string(w, 8);
    }

    // Line breaks and token counts over every offset and length of texts longer than one
    // 8- or 16-byte step, against plain loops.
    std::mt19937 rng(5);
    const char alphabet[] = {'a', '1', '/', ' ', '\t', '\n', '\r', '\v', '\f', '\x80', '\xff', '\0'};
    for (int round = 0; round < 3000; ++round) {
        std::string text(static_cast<size_t>(rng() % 70), 'x');
        for (auto& c : text) c = alphabet[rng() % sizeof alphabet];
        const char* b = text.data();
        const char* e = b + text.size();
        const char* ref = b;
        while (ref < e && *ref != '\n' && *ref != '\r') ++ref;
        ASSERT_EQ(FindLineBreak(b, e), ref) << round;
        size_t lineTokens = 0;
        for (const char* q = b; q < ref; ++q) lineTokens += !IsSpace(*q) && (q == b || IsSpace(q[-1]));
        const char* lineEnd = nullptr;
        ASSERT_EQ(CountTokensToLineBreak(b, e, lineEnd), lineTokens) << round;
        ASSERT_EQ(lineEnd, ref) << round;
    }
}
