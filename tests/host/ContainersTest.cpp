// CXArray's growth rule, the hash containers' prime bucket counts.
#include "plugin/host/XArray.h"

#include <gtest/gtest.h>

TEST(Containers, ArrayGrowthRule) {
    // Default step: a quarter of the count, at least 4, at most 1024.
    CXArray<int> a;
    std::vector<int> caps;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(i, a.Add(i));
        if (caps.empty() || caps.back() != a.GetCapacity()) caps.push_back(a.GetCapacity());
    }
    EXPECT_EQ(std::vector<int>({4, 8, 12, 16, 20}), caps);
    for (int i = 20; i < 100; ++i) a.Add(i);
    EXPECT_EQ(100, a.GetSize());
    EXPECT_EQ(99, a[99]);
    EXPECT_EQ(CXArray<int>::NextCapacity(100, 100, 0, 101), 125);
    EXPECT_EQ(CXArray<int>::NextCapacity(100000, 100000, 0, 100001), 101024);
    EXPECT_EQ(CXArray<int>::NextCapacity(8, 8, -2, 9), 16);   // doubling
    EXPECT_EQ(CXArray<int>::NextCapacity(10, 10, 3, 11), 13); // explicit step
    EXPECT_EQ(CXArray<int>::NextCapacity(10, 10, 3, 50), 50); // never less than needed
    EXPECT_EQ(CXArray<int>::NextCapacity(10, 5, 0, 7), 10);   // fits already
    EXPECT_THROW(CXArray<int>::NextCapacity(2147483000, 2147483000, 0, 2147483001), CXInvalidArgException);
    CXArray<int> d(-2);
    for (int i = 0; i < 9; ++i) d.Add(i);
    EXPECT_EQ(16, d.GetCapacity());
    // SetAtGrow fills the gap with value-initialised elements.
    CXArray<int> g;
    g.SetAtGrow(5, 7);
    EXPECT_EQ(6, g.GetSize());
    EXPECT_EQ(0, g[4]);
    EXPECT_THROW(g.SetAtGrow(-1, 0), CXInvalidArgException);
    g.FreeExtra();
    EXPECT_EQ(6, g.GetCapacity());
}

TEST(Containers, NextPrime) {
    EXPECT_EQ(2u, NextPrime(0));
    EXPECT_EQ(2u, NextPrime(2));
    EXPECT_EQ(3u, NextPrime(3));
    EXPECT_EQ(5u, NextPrime(4));
    EXPECT_EQ(23u, NextPrime(23));
    EXPECT_EQ(29u, NextPrime(24));
    EXPECT_EQ(47u, NextPrime(46));
    EXPECT_EQ(65537u, NextPrime(65536));
    EXPECT_EQ(2147483659u, NextPrime(2147483648u));
    EXPECT_EQ(4294967291u, NextPrime(4294967280u));
    EXPECT_THROW(NextPrime(4294967292u), CXInvalidArgException);
    // Against trial division for every value up to 5000.
    for (uint32_t n = 0; n < 5000; ++n) {
        uint32_t p = NextPrime(n);
        ASSERT_GE(p, n);
        for (uint32_t d = 2; d * d <= p; ++d) ASSERT_NE(0u, p % d) << n;
        for (uint32_t q = std::max(n, 2u); q < p; ++q) {
            bool prime = true;
            for (uint32_t d = 2; d * d <= q; ++d)
                if (q % d == 0) prime = false;
            ASSERT_FALSE(prime) << q;
        }
    }
    CHashMap<int, int> m(23);
    EXPECT_GE(m.GetBucketCount(), 23u);
}
