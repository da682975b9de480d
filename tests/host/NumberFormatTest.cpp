// The writers' number formatter against snprintf in the C locale.
#include "plugin/host/NumberFormat.h"

#include <gtest/gtest.h>

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
    std::vector<double> v = {0.0, -0.0, 0.5, 1.5, 2.5, -0.5, 0.125, 0.375, 1e-7, 5e-7, 4.9999995e-7, 0.0000005,
                             1e15, 1e16, 1e17, 1e22, 1e300, 1.7976931348623157e308, 4.9e-324, 2.2250738585072014e-308,
                             123456.7890125, 0.1, 0.2, 0.3, 9.9999995, 99999.9999995, -1e-300,
                             std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN()};
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
    const char* fmts[] = {"Ka %f %f %f\n", "10\n%f\n20\n%f\n30\n%f\n", " %15.6f", "%+.3f|%-10.2f|", "%08.2f|% f",
                          "%e|%E|%G", "%.0f %.0e", "%#.0f %#x %#o", "%10.4g|%-8e|", "%a %A"};
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
