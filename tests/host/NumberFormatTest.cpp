// The writers' number formatter against snprintf in the C locale.
#include "plugin/host/NumberFormat.h"
#include "plugin/host/XString.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>

#include "tests/host/CommaLocale.h"

using namespace numfmt;

namespace {
std::string C(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    std::string s(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(s.data(), s.size(), fmt, ap2);
    va_end(ap2);
    va_end(ap);
    s.resize(static_cast<size_t>(n));
    return s;
}

// A non-literal format through the va_list entry point.
void AppendFormatV3(std::string& out, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    AppendFormatV(out, fmt, ap);
    va_end(ap);
}

// Values that stress rounding: random bit patterns, decimal fractions, exact ties
// in binary (x.5, x.125), huge and tiny magnitudes.
std::vector<double> Values() {
    std::vector<double> v = {0.0,
                             -0.0,
                             0.5,
                             1.5,
                             2.5,
                             -0.5,
                             0.125,
                             0.375,
                             1e-7,
                             5e-7,
                             4.9999995e-7,
                             0.0000005,
                             1e15,
                             1e16,
                             1e17,
                             1e22,
                             1e300,
                             1.7976931348623157e308,
                             4.9e-324,
                             2.2250738585072014e-308,
                             123456.7890125,
                             0.1,
                             0.2,
                             0.3,
                             9.9999995,
                             99999.9999995,
                             -1e-300,
                             std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN(),
                             -std::numeric_limits<double>::quiet_NaN()};
    std::mt19937_64 rng(2024);
    for (int i = 0; i < 12000; ++i) {
        uint64_t b = rng();
        double d;
        std::memcpy(&d, &b, 8);
        v.push_back(d);
        v.push_back(static_cast<double>(static_cast<float>(static_cast<int64_t>(b % 20000001) - 10000000) / 1024.0f));
        v.push_back(static_cast<double>(static_cast<int64_t>(b % 2000000001) - 1000000000) / 1e6);
    }
    return v;
}
} // namespace

TEST(NumberFormat, FixedExpGeneralMatchPrintf) {
    for (double d : Values()) {
        for (int p : {0, 1, 4, 6, 9}) {
            std::string s;
            AppendFixed(s, d, p);
            ASSERT_EQ(C("%.*f", p, d), s) << p;
            s.clear();
            AppendExp(s, d, p);
            ASSERT_EQ(C("%.*e", p, d), s) << p;
            s.clear();
            AppendGeneral(s, d, p);
            ASSERT_EQ(C("%.*g", p, d), s) << p;
        }
        char buf[32];
        size_t n = FormatFixed(buf, sizeof(buf), d);
        std::string want = C("%f", d);
        ASSERT_EQ(want.size(), n);
        ASSERT_EQ(want.substr(0, std::min(n, sizeof(buf))), std::string(buf, std::min(n, sizeof(buf))));
    }
}

// The writers' "%f" fast path works on floats widened to double; a wrong digit there
// would change every OBJ and Maya file, so it is held against snprintf on millions of
// float bit patterns: a fixed stride over all 2^32 (both signs, subnormals, inf, nan),
// every exact rounding tie (odd multiples of 1/128) below 512 and a sample above, the
// floats either side of each tie, and dense runs where digits roll over.
TEST(NumberFormat, Fixed6MatchesPrintfOnFloats) {
    size_t checked = 0;
    char buf[kMaxFixed6 + 1];
    char ref[400];
    auto check = [&](float f) {
        const double d = f;
        const size_t n = static_cast<size_t>(WriteFixed6(buf, d) - buf);
        const int m = std::snprintf(ref, sizeof(ref), "%f", d);
        ++checked;
        if (n != static_cast<size_t>(m) || std::memcmp(buf, ref, n) != 0) {
            uint32_t bits;
            std::memcpy(&bits, &f, 4);
            ADD_FAILURE() << "bits 0x" << std::hex << bits << ": printf " << ref << ", got " << std::string(buf, n);
            return false;
        }
        return true;
    };
    auto fromBits = [](uint32_t b) {
        float f;
        std::memcpy(&f, &b, 4);
        return f;
    };
    auto run = [&](uint32_t first, uint32_t count) {
        for (uint32_t b = first; b - first < count; ++b)
            if (!check(fromBits(b)) || !check(fromBits(b | 0x80000000u))) return false;
        return true;
    };

    // The whole range with an odd stride, so every exponent and low mantissa bits vary.
    // Above 2^32 the general path takes over (checked on doubles elsewhere) and printf
    // is slow on 39-digit numbers, so that part is sampled thinly.
    for (uint32_t b = 0; b < 0x4F802000u; b += 2749) ASSERT_TRUE(run(b, 1));
    for (uint32_t b = 0x4F802000u; b < 0x80000000u; b += 65521) ASSERT_TRUE(run(b, 1));
    // Ties at the sixth decimal: x * 1e6 ends in exactly .5 only for odd multiples of
    // 2^-7; they must round to even, and their neighbours must not be taken for ties.
    for (uint32_t k = 1; k < (1u << 24); k += k < (1u << 16) ? 2 : 390) {
        const float t = static_cast<float>(k) / 128.0f;
        for (float f : {t, std::nextafter(t, 0.0f), std::nextafter(t, 1e30f)}) {
            ASSERT_TRUE(check(f));
            ASSERT_TRUE(check(-f));
        }
    }
    ASSERT_TRUE(run(0, 1u << 14));                        // the smallest subnormals: 0.000000
    ASSERT_TRUE(run(0x350637BDu - (1u << 14), 1u << 15)); // around 5e-7, the first rounding step
    ASSERT_TRUE(run(0x3F800000u - (1u << 15), 1u << 16)); // around 1.0
    ASSERT_TRUE(run(0x497423F0u, 1u << 14));              // 999999.x up to 1000000 and beyond
    ASSERT_TRUE(run(0x4B800000u - (1u << 13), 1u << 14)); // the 2^24 neighbourhood
    ASSERT_TRUE(run(0x4F800000u - 4096, 8192));           // around 2^32, where the fast path ends
    ASSERT_TRUE(run(0x7F7FF800u, 0x800));                 // the largest floats
    // Doubles that are not floats take the general path.
    for (double d : {0.1, -0.1, 1e-7, 0.0000005, 2.5e-7 + 1e-20, 4294967296.5, 1e20}) {
        const size_t n = static_cast<size_t>(WriteFixed6(buf, d) - buf);
        EXPECT_EQ(C("%f", d), std::string(buf, n));
    }
    EXPECT_EQ("-0.000000", std::string(buf, static_cast<size_t>(WriteFixed6(buf, -0.0) - buf)));
    EXPECT_EQ("-0.000000", std::string(buf, static_cast<size_t>(WriteFixed6(buf, -1e-9f) - buf)));
    EXPECT_EQ("0.007812", std::string(buf, static_cast<size_t>(WriteFixed6(buf, 1.0f / 128) - buf)));
    EXPECT_EQ("0.023438", std::string(buf, static_cast<size_t>(WriteFixed6(buf, 3.0f / 128) - buf)));
    EXPECT_GT(checked, 1700000u);
    // The digits never depend on the FPU's rounding mode (the general path ignores it too).
    const int mode = std::fegetround();
    std::fesetround(FE_UPWARD);
    const std::string up(buf, static_cast<size_t>(WriteFixed6(buf, 1.0f / 128) - buf));
    const std::string up2(buf, static_cast<size_t>(WriteFixed6(buf, 0.1f) - buf));
    std::fesetround(FE_DOWNWARD);
    const std::string down(buf, static_cast<size_t>(WriteFixed6(buf, 3.0f / 128) - buf));
    std::fesetround(mode);
    EXPECT_EQ("0.007812", up);
    EXPECT_EQ("0.100000", up2);
    EXPECT_EQ("0.023438", down);
}

TEST(NumberFormat, IntegersMatchPrintf) {
    std::mt19937_64 rng(5);
    for (int i = 0; i < 100000; ++i) {
        long long v = static_cast<long long>(rng()) >> (rng() % 64);
        std::string s;
        AppendInt(s, v);
        ASSERT_EQ(C("%lld", v), s);
        s.clear();
        AppendUInt(s, static_cast<unsigned long long>(v));
        ASSERT_EQ(C("%llu", static_cast<unsigned long long>(v)), s);
    }
    // Every digit count, at its edges: 10^k - 1, 10^k, 10^k + 1, and the 32-bit limit.
    for (unsigned long long p = 1; p <= 10000000000000000000ull; p *= 10) {
        for (unsigned long long v : {p - 1, p, p + 1, 4294967295ull, 4294967296ull, p * 7 / 3}) {
            char buf[24];
            ASSERT_EQ(C("%llu", v), std::string(buf, static_cast<size_t>(WriteUInt(buf, v) - buf)));
            const long long sv = -static_cast<long long>(v & 0x7FFFFFFFFFFFFFFFull);
            ASSERT_EQ(C("%lld", sv), std::string(buf, static_cast<size_t>(WriteInt(buf, sv) - buf)));
        }
        if (p == 10000000000000000000ull) break;
    }
    std::string s;
    AppendInt(s, std::numeric_limits<long long>::min());
    EXPECT_EQ("-9223372036854775808", s);
    char buf[4];
    EXPECT_EQ(5u, FormatInt(buf, sizeof(buf), -1234));
    EXPECT_EQ("-123", std::string(buf, 4));
}

TEST(NumberFormat, AppendFormatMatchesPrintf) {
    // The writers' own format strings, then flags, widths and the slow-path conversions.
    std::mt19937_64 rng(77);
    const char* fmts[] = {"Ka %f %f %f\n", "10\n%f\n20\n%f\n30\n%f\n",
                          " %15.6f",       "%+.3f|%-10.2f|",
                          "%08.2f|% f",    "%e|%E|%G",
                          "%.0f %.0e",     "%#.0f %#x %#o",
                          "%10.4g|%-8e|",  "%a %A"};
    for (int it = 0; it < 30000; ++it) {
        double a, b, c;
        uint64_t bits = rng();
        std::memcpy(&a, &bits, 8);
        b = static_cast<double>(static_cast<int64_t>(rng() % 20001) - 10000) / 8.0;
        c = static_cast<double>(static_cast<int64_t>(rng() % 2000001) - 1000000) / 1000.0;
        const char* f = fmts[it % 10];
        std::string s;
        if (std::strstr(f, "%#x")) {
            AppendFormat(s, "%#.0f %#x %#o", a, static_cast<unsigned>(bits), static_cast<unsigned>(bits >> 7));
            ASSERT_EQ(C("%#.0f %#x %#o", a, static_cast<unsigned>(bits), static_cast<unsigned>(bits >> 7)), s);
            continue;
        }
        s = "prefix:";
        AppendFormatV3(s, f, a, b, c);
        ASSERT_EQ("prefix:" + C(f, a, b, c), s) << f;
    }
    std::string s;
    AppendFormat(s, "%d|%5d|%-5d|%05d|%+d|% d|%.3d|%.0d|%x|%X|%o|%u|%hhd|%hd|%ld|%llu|%zu", -42, 7, 7, -7, 3, 3, 5, 0,
                 255u, 255u, 8u, 4000000000u, 300, 70000, -5L, 18446744073709551615ull, size_t(9));
    EXPECT_EQ(C("%d|%5d|%-5d|%05d|%+d|% d|%.3d|%.0d|%x|%X|%o|%u|%hhd|%hd|%ld|%llu|%zu", -42, 7, 7, -7, 3, 3, 5, 0, 255u,
                255u, 8u, 4000000000u, 300, 70000, -5L, 18446744073709551615ull, size_t(9)),
              s);
    s.clear();
    AppendFormat(s, "<%-21s>|%.2s|%5s|%c|%-3c|%%|%*d|%-*d|%.*f|", "Chan", "abc", "r", 'q', 'z', 4, 1, 3, 2, 2, 3.14159);
    EXPECT_EQ(C("<%-21s>|%.2s|%5s|%c|%-3c|%%|%*d|%-*d|%.*f|", "Chan", "abc", "r", 'q', 'z', 4, 1, 3, 2, 2, 3.14159), s);
    // glibc prints a null string as "(null)".
    const char* volatile none = nullptr;
    s.clear();
    AppendFormat(s, "%s|%8s", none, none);
    EXPECT_EQ("(null)|  (null)", s);
    s.clear();
    AppendFormat(s, "%08.3f|%010f|%-8f|%+f|%05.1f", -INFINITY, NAN, 1.0, -0.0, -2.25);
    EXPECT_EQ(C("%08.3f|%010f|%-8f|%+f|%05.1f", -INFINITY, NAN, 1.0, -0.0, -2.25), s);
    s.clear();
    AppendFormat(s, "%ls|%.3ls", L"\u00e9t\u00e9", L"\u00e9t\u00e9");
    EXPECT_EQ("\xC3\xA9t\xC3\xA9|\xC3\xA9t", s);
}

TEST(NumberFormat, CommaLocaleIsIgnored) {
    testsupport::CommaLocaleScope loc;
    if (!loc.ok()) GTEST_SKIP() << "no comma-decimal locale available";
    ASSERT_EQ("0,500000", C("%f", 0.5)) << "the locale switch did not take effect";
    std::string s;
    AppendFixed(s, 0.5);
    AppendFormat(s, " %.2f %g %#.1f %a", 1.25, 2.5, 3.0, 1.0);
    EXPECT_EQ("0.500000 1.25 2.5 3.0 0x1p+0", s);
}

TEST(NumberFormat, NarrowAndWideFormatsAreOneInterpreter) {
    // CXTString::Format and AppendFormat share the interpreter: the wide form of a number
    // is the narrow one widened, and the conversions glibc knows for wide text in a narrow
    // format (%S, %C) and long long under L are taken, not copied through.
    const char* fmts[] = {"%f", "%.3e", "%10.4g", "%-8.2f|", "%+.0f", "%#.1f", "%a"};
    const wchar_t* wfmts[] = {L"%f", L"%.3e", L"%10.4g", L"%-8.2f|", L"%+.0f", L"%#.1f", L"%a"};
    for (double d : {0.0, -0.0, 1.0 / 3, -2.5e-7, 123456789.125, 1e300}) {
        for (size_t i = 0; i < std::size(fmts); ++i) {
            std::string n;
            AppendFormatV3(n, fmts[i], d);
            CXStringW w;
            w.Format(wfmts[i], d);
            EXPECT_EQ(std::wstring(n.begin(), n.end()), w.str()) << fmts[i];
        }
    }
    CXStringW w;
    w.Format(L"%05d|%-4x|%llu|%hhd", -42, 255u, 18446744073709551615ull, 300);
    EXPECT_EQ(std::wstring(L"-0042|ff  |18446744073709551615|44"), w.str());
    std::string s;
    AppendFormatV3(s, "%S|%C|%Ld", L"\u00e9t\u00e9", static_cast<wint_t>(L'\u00df'), 1234567890123ll);
    EXPECT_EQ("\xC3\xA9t\xC3\xA9|\xC3\x9F|1234567890123", s);
}
