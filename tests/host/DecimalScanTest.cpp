// The quick float reader against the library's: same value (bit for bit), same end, same
// error, on edge strings, on decimals whose exact double is a float midpoint, and on
// random ones of every length.
#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "plugin/host/DecimalScan.h"

namespace {

// Compares DecimalFloat with from_chars on `text` (a leading '+' is dropped for the library).
void ExpectSame(const std::string& text) {
    const char* b = text.data();
    const char* e = b + text.size();
    float got = -1234.5f, want = -1234.5f;
    const auto r = decscan::DecimalFloat(b, e, got);
    const char* lb = !text.empty() && text[0] == '+' ? b + 1 : b;
    const auto w = std::from_chars(lb, e, want);
    ASSERT_EQ(r.ec, w.ec) << '"' << text << '"';
    if (w.ec == std::errc::invalid_argument) {
        EXPECT_EQ(r.ptr, b) << '"' << text << '"';
        return;
    }
    EXPECT_EQ(r.ptr, w.ptr) << '"' << text << '"';
    if (w.ec == std::errc()) {
        EXPECT_EQ(std::bit_cast<uint32_t>(got), std::bit_cast<uint32_t>(want))
            << '"' << text << "\" read as " << got << ", not " << want;
    }
}

TEST(DecimalFloat, EdgeStringsMatchTheLibrary) {
    const char* cases[] = {"0",
                           "-0",
                           "+0",
                           "7",
                           "7.",
                           ".5",
                           "-.5",
                           "+2.25",
                           ".",
                           "-",
                           "+",
                           "",
                           "-.",
                           "e5",
                           "1e5",
                           "1.5E-3",
                           "1.5e",
                           "1.2.3",
                           "12abc",
                           "0x1p3",
                           "inf",
                           "-INF",
                           "nan",
                           "NaN(1)",
                           "16777216",
                           "16777217",
                           "16777217.0",
                           "16777218.5",
                           "33554431",
                           "99999999",
                           "0.1",
                           "0.3333333",
                           "-8.12345",
                           "123456789012345",
                           "1234567890123456",
                           "0.000000000000001",
                           "0.0000000000000001",
                           "0.1000000000000000055511151231257827",
                           "3.4028235e38",
                           "3.4028236e38",
                           "1e39",
                           "1e-38",
                           "1.4e-45",
                           "7e-46",
                           "1e-50",
                           "-1e-40",
                           "123.456e-2",
                           "1 2",
                           "5\t",
                           "9999999999.5",
                           "0.00000123",
                           "340282346638528859811704183484516925440",
                           "1.00000005960464477539062500000000001"};
    for (const char* c : cases) ExpectSame(c);
}

// Decimals of at most 15 digits whose nearest double is exactly halfway between two
// floats, though the decimal itself is not: rounding through the double would pick the
// even neighbour whichever side the decimal lies on.
TEST(DecimalFloat, DecimalsRoundingOntoAFloatMidpoint) {
    std::mt19937 rng(20);
    std::uniform_real_distribution<float> mag(1.0f, 8.0f); // midpoints of 25 bits after the point
    int found = 0, differ = 0;
    char buf[64];
    for (int i = 0; i < 400000 && found < 400; ++i) {
        const float f = mag(rng);
        const double mid = (static_cast<double>(f) + std::nextafter(f, 16.0f)) / 2;
        int whole = 1;
        for (double p = 10; p <= mid; p *= 10) ++whole;
        const auto r = std::to_chars(buf, buf + sizeof buf, mid, std::chars_format::fixed, 15 - whole);
        const std::string text(buf, r.ptr);
        double back = 0;
        std::from_chars(text.data(), text.data() + text.size(), back);
        if (back != mid) continue;
        ++found;
        float viaDouble = static_cast<float>(back), exact = 0;
        std::from_chars(text.data(), text.data() + text.size(), exact);
        differ += viaDouble != exact;
        ExpectSame(text);
        ExpectSame("-" + text);
    }
    // The search must have met the case that matters.
    EXPECT_GT(found, 100);
    EXPECT_GT(differ, 10);
}

TEST(DecimalFloat, RandomDecimalsMatchTheLibrary) {
    std::mt19937 rng(7);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const std::string tails[] = {"", " ", "e", "e-7", "E+12", "x", ".", "-"};
    for (int i = 0; i < 200000; ++i) {
        std::string s;
        if (pick(3) == 0) s += '-';
        const int whole = pick(12), frac = pick(4) == 0 ? -1 : pick(12);
        for (int k = 0; k < whole; ++k) s += static_cast<char>('0' + (k == 0 && pick(4) ? 1 + pick(9) : pick(10)));
        if (frac >= 0) {
            s += '.';
            for (int k = 0; k < frac; ++k) s += static_cast<char>('0' + pick(10));
        }
        if (pick(8) == 0) s += tails[pick(8)];
        // Exponents of every length and sign, some folded into the quick path, some not.
        if (pick(6) == 0) {
            s += pick(2) ? 'e' : 'E';
            if (const int sign = pick(3)) s += sign == 1 ? '-' : '+';
            for (int k = pick(6); k > 0; --k) s += static_cast<char>('0' + pick(10));
        }
        ExpectSame(s);
        if (HasFailure()) return;
    }
}

} // namespace
