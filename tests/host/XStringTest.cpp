// CXTString Format/ScanS against the C library, the wide-format conventions, UTF-8.
#include "plugin/host/XString.h"
#include "plugin/host/TextHelpers.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

#include "plugin/host/SwitchLocale.h"
#include "tests/host/CommaLocale.h"

namespace {
std::string Snprintf(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char buf[512];
    std::vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}
} // namespace

TEST(XString, NarrowFormatMatchesSnprintf) {
    std::mt19937_64 rng(7);
    const char* dfmts[] = {"%f",  "%.4f",  "%10.3f", "%-12.2e|", "%g", "%.12g",
                           "%+e", "% .0f", "%08.3f", "%E",       "%G", "%a"};
    for (int it = 0; it < 20000; ++it) {
        uint64_t bits = rng();
        double d;
        std::memcpy(&d, &bits, 8);
        if (it % 3 == 0) d = static_cast<double>(static_cast<int64_t>(bits % 2000001) - 1000000) / 1000.0;
        const char* f = dfmts[it % 12];
        CXStringA s;
        s.Format(f, d);
        ASSERT_EQ(Snprintf(f, d), s.str()) << f;
    }
    CXStringA s;
    s.Format("%d|%5u|%-4x|%X|%lld|%llu|%c|%s|%.2s|%5s|%%|%hhd|%hu|%o", -42, 7u, 255u, 0xABCu, -1234567890123ll,
             18446744073709551615ull, 'q', "str", "abc", "r", 300, 70000, 8);
    EXPECT_EQ("-42|    7|ff  |ABC|-1234567890123|18446744073709551615|q|str|ab|    r|%|44|4464|10", s.str());
    s.Format("%*d|%-*d|%.*f", 5, 1, 4, 2, 2, 3.14159);
    EXPECT_EQ("    1|2   |3.14", s.str());
    s.Format("%ls", L"h\u00e9\U0001F600");
    EXPECT_EQ("h\xC3\xA9\xF0\x9F\x98\x80", s.str());
    s.Format("%f %f %f", -0.0, INFINITY, -NAN);
    EXPECT_EQ(Snprintf("%f %f %f", -0.0, INFINITY, -NAN), s.str());
}

TEST(XString, WideFormatTakesWideStrings) {
    // In a wide format "%s" is a wide string (the host runtime's rule), "%hs" narrow UTF-8.
    CXStringW w;
    w.Format(L"%s=%d;%hs;%c;%-4s|%5.1f", L"n\u00e4me", 3, "\xC3\xBC", L'\u00df', L"ab", 2.25);
    EXPECT_EQ(std::wstring(L"n\u00e4me=3;\u00fc;\u00df;ab  |  2.2"), w.str());
    w.Format(L"%ls|%.2s|%S", L"x", L"abc", L"W");
    EXPECT_EQ(std::wstring(L"x|ab|W"), w.str());
    w.Format(L"%s", static_cast<const wchar_t*>(nullptr));
    EXPECT_EQ(std::wstring(L"(null)"), w.str());
    // A lone percent at the end and an unknown conversion pass through.
    w.Format(L"50%");
    EXPECT_EQ(std::wstring(L"50%"), w.str());
}

TEST(XString, ScanSBothWidths) {
    CXStringA a("  12 3.5 word 0x1F");
    int i = 0, x = 0;
    float f = 0;
    char word[8];
    EXPECT_EQ(4, a.ScanS("%d %f %7s %x", &i, &f, word, &x));
    EXPECT_EQ(12, i);
    EXPECT_EQ(3.5f, f);
    EXPECT_STREQ("word", word);
    EXPECT_EQ(31, x);

    CXStringW w(L"n\u00e4me 42 1e3 rest");
    wchar_t name[16];
    char narrow[16];
    double d = 0;
    EXPECT_EQ(4, w.ScanS(L"%15s %d %lf %15hs", name, &i, &d, narrow));
    EXPECT_EQ(std::wstring(L"n\u00e4me"), name);
    EXPECT_EQ(42, i);
    EXPECT_EQ(1000.0, d);
    EXPECT_STREQ("rest", narrow);
    // Whole-string semantics: fields beyond the text are not assigned; EOF first gives -1.
    EXPECT_EQ(-1, CXStringW(L"   ").ScanS(L"%d", &i));
    EXPECT_EQ(0, CXStringW(L"x").ScanS(L"%d", &i));
    wchar_t set[8];
    EXPECT_EQ(1, CXStringW(L"\u00e4\u00e4b").ScanS(L"%[\u00e4]", set));
    EXPECT_EQ(std::wstring(L"\u00e4\u00e4"), set);
}

TEST(XString, Utf8Conversions) {
    EXPECT_EQ(std::wstring(L"a\u00e9\u20ac\U0001F600"), Utf8ToWide("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
    // Each broken sequence gives one U+FFFD for its longest valid beginning.
    EXPECT_EQ(std::wstring(L"\uFFFDx"), Utf8ToWide("\xE2\x82x"));
    EXPECT_EQ(std::wstring(L"\uFFFD\uFFFD"), Utf8ToWide("\xC0\xAF"));           // overlong
    EXPECT_EQ(std::wstring(L"\uFFFD\uFFFD\uFFFD"), Utf8ToWide("\xED\xA0\x80")); // surrogate
    EXPECT_EQ(std::wstring(L"\uFFFD\uFFFD"), Utf8ToWide("\xF4\x90"));           // past U+10FFFF
    EXPECT_EQ(std::wstring(L"\uFFFD"), Utf8ToWide("\xF0\x9F\x98"));             // truncated at the end
    EXPECT_EQ(std::wstring(L"\uFFFDA"), Utf8ToWide("\xFF"
                                                   "A"));
    // Round trip of every scalar value class, and what cannot be encoded.
    std::wstring all;
    for (wchar_t c : {L'\x01', L'\x7F', L'\x80', L'\x7FF', L'\x800', L'\xFFFF', L'\U00010000', L'\U0010FFFF'}) all += c;
    EXPECT_EQ(all, Utf8ToWide(WideToUtf8(all)));
    EXPECT_EQ("\xEF\xBF\xBD", WideToUtf8(std::wstring(1, static_cast<wchar_t>(0xD800))));
    EXPECT_EQ("\xEF\xBF\xBD", WideToUtf8(std::wstring(1, static_cast<wchar_t>(0x110000))));
    EXPECT_EQ(std::wstring(L"\u00ff\u0080A"), WidenBytes("\xFF\x80"
                                                         "A"));
    EXPECT_STREQ("\xC3\xA4", XCW2A(L"\u00e4"));
}

TEST(XString, CommaLocaleNeitherFormatsNorScans) {
    testsupport::CommaLocaleScope loc;
    if (!loc.ok()) GTEST_SKIP() << "no comma-decimal locale available";
    ASSERT_EQ("1,500000", Snprintf("%f", 1.5)) << "the locale switch did not take effect";
    CXStringA a;
    a.Format("%f %.2e %g", 1.5, 12345.0, 0.25);
    EXPECT_EQ("1.500000 1.23e+04 0.25", a.str());
    CXStringW w;
    w.Format(L"%.3f", -2.5);
    EXPECT_EQ(std::wstring(L"-2.500"), w.str());
    float f = 0;
    EXPECT_EQ(1, CXStringW(L"3.75").ScanS(L"%f", &f));
    EXPECT_EQ(3.75f, f);
    // CSwitchLocale("English") gives the C library the point back for this thread only.
    {
        CSwitchLocale sw(LC_NUMERIC, "English");
        EXPECT_EQ("1.500000", Snprintf("%f", 1.5));
    }
    EXPECT_EQ("1,500000", Snprintf("%f", 1.5));
}

TEST(XString, SharedTextHelpers) {
    // Strict UTF-8: overlong forms, surrogates, code points past U+10FFFF and cut
    // sequences are not UTF-8; long ASCII runs (the 8-byte path) around them change nothing.
    const std::string ascii(37, 'a');
    for (const char* good : {"", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF", "\xED\x9F\xBF"})
        EXPECT_TRUE(IsValidUtf8(ascii + good + ascii)) << good;
    for (const char* bad : {"\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xC3",
                            "\xE2\x82", "\x80", "\xFF"}) {
        EXPECT_FALSE(IsValidUtf8(ascii + bad + ascii)) << bad;
        EXPECT_FALSE(IsValidUtf8(ascii + bad)) << bad;
    }
    std::string narrow = "x";
    AppendLatin1(narrow, L"\u00e9\u00ff\u0100\u20ac\U0001F600");
    EXPECT_EQ(narrow, "x\xE9\xFF???");
    EXPECT_EQ(NarrowLatin1(static_cast<wchar_t>(-1)), '?');
    EXPECT_TRUE(EqualsNoCase("SoLiD", "solid"));
    EXPECT_FALSE(EqualsNoCase("solid", "solids"));
    EXPECT_FALSE(EqualsNoCase("\xC9", "\xE9")); // ASCII folding only
    EXPECT_TRUE(StartsWithNoCase("NEWMTL red", "newmtl"));
    EXPECT_FALSE(StartsWithNoCase("new", "newmtl"));
}
