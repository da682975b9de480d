#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

#include "plugin/host/LargeArray.h"

namespace {

uint32_t Pattern(size_t i) { return static_cast<uint32_t>(i * 2654435761u) ^ 0x5A5A5A5Au; }

} // namespace

// The helper may only ever bring pages in: data already in the ranges, and data the
// reader writes while the helper runs, must come out unchanged.
TEST(PopulateAhead, NeverChangesWhatIsInTheRanges) {
    const size_t n = size_t(24) << 20; // 96 MB of uint32_t over two arrays: above the helper's threshold
    std::vector<uint32_t> filled(n / 2), filling;
    for (size_t i = 0; i < filled.size(); ++i) filled[i] = Pattern(i);
    filling.reserve(n / 2);
    {
        hostmem::CPopulateAhead populate;
        populate.Add(filled.data(), filled.size() * sizeof(uint32_t));
        populate.Add(filling.data(), filling.capacity() * sizeof(uint32_t));
        populate.Start();
        if (std::thread::hardware_concurrency() >= 2 && !std::getenv("ORBISCOPE_PREFAULT")) {
            EXPECT_TRUE(populate.Running()); // else this test would prove nothing
        }
        // Give the helper time to work through much of the ranges while nothing is
        // reported done, then fill the second array front to back as a reader would.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const size_t block = 1 << 16;
        for (size_t i = 0; i < n / 2; i += block) {
            for (size_t j = i; j < i + block && j < n / 2; ++j) filling.push_back(Pattern(j) + 1);
            populate.Progress(filling.size(), n / 2);
        }
        populate.Stop();
        EXPECT_FALSE(populate.Running());
    }
    ASSERT_EQ(filling.size(), n / 2);
    for (size_t i = 0; i < n / 2; ++i) {
        ASSERT_EQ(filled[i], Pattern(i)) << i;
        ASSERT_EQ(filling[i], Pattern(i) + 1) << i;
    }
}

// Small ranges are not worth a thread; a stopped helper can be stopped again and ranges
// added after the start are ignored rather than raced on.
TEST(PopulateAhead, SmallRangesStartNoThreadAndStopIsIdempotent) {
    std::vector<char> small(1 << 20);
    hostmem::CPopulateAhead populate;
    populate.Add(small.data(), small.size());
    populate.Start();
    EXPECT_FALSE(populate.Running());
    populate.Stop();
    populate.Stop();
    EXPECT_FALSE(populate.Running());
}

// Populating up front is only a request for pages: what the array already holds, and
// its size, stay as they were.
TEST(PopulateNow, LeavesContentsAndSizeAlone) {
    std::vector<uint32_t> v(size_t(1) << 20);
    for (size_t i = 0; i < v.size(); ++i) v[i] = Pattern(i);
    hostmem::ReserveFilled(v, size_t(4) << 20);
    EXPECT_EQ(v.size(), size_t(1) << 20);
    EXPECT_GE(v.capacity(), size_t(4) << 20);
    hostmem::PopulateNow(v.data(), v.capacity() * sizeof(uint32_t));
    for (size_t i = 0; i < v.size(); ++i) ASSERT_EQ(v[i], Pattern(i)) << i;
}
