#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "plugin/host/LargeArray.h"

namespace {

uint32_t Pattern(size_t i) { return static_cast<uint32_t>(i * 2654435761u) ^ 0x5A5A5A5Au; }

} // namespace

// Both halves run and finish before RunPair returns; asked to, with a second core, they
// run at the same time (the first waits, up to two seconds, to see the second start).
TEST(RunPair, RunsBothAndWaitsForBoth) {
    const bool twoCores = std::thread::hardware_concurrency() >= 2 && !std::getenv("ORBISCOPE_THREADS");
    for (bool parallel : {false, true}) {
        std::vector<uint32_t> x, y;
        std::atomic<bool> bStarted{false};
        bool sawB = false;
        auto fill = [](std::vector<uint32_t>& v, uint32_t salt) {
            for (size_t i = 0; i < (size_t(1) << 20); ++i) v.push_back(Pattern(i) ^ salt);
        };
        auto a = [&] {
            const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
            while (parallel && twoCores && !bStarted && std::chrono::steady_clock::now() < until)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            sawB = bStarted;
            fill(x, 1);
        };
        auto b = [&] {
            bStarted = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            fill(y, 2);
        };
        hostmem::RunPair(a, b, parallel);
        ASSERT_EQ(x.size(), size_t(1) << 20);
        ASSERT_EQ(y.size(), size_t(1) << 20);
        for (size_t i = 0; i < x.size(); i += 4099) {
            ASSERT_EQ(x[i], Pattern(i) ^ 1);
            ASSERT_EQ(y[i], Pattern(i) ^ 2);
        }
        EXPECT_EQ(sawB, parallel && twoCores) << parallel;
    }
}

// An exception on either side reaches the caller, and only after the other side is done
// with what it shares with the caller.
TEST(RunPair, PassesExceptionsOnAfterBothFinish) {
    for (bool parallel : {false, true}) {
        bool otherDone = false;
        EXPECT_THROW(hostmem::RunPair(
                         [&] {
                             std::this_thread::sleep_for(std::chrono::milliseconds(30));
                             otherDone = true;
                         },
                         [] { throw std::runtime_error("b"); }, parallel),
                     std::runtime_error);
        EXPECT_TRUE(otherDone);
        otherDone = false;
        EXPECT_THROW(hostmem::RunPair([] { throw std::bad_alloc(); },
                                      [&] {
                                          std::this_thread::sleep_for(std::chrono::milliseconds(30));
                                          otherDone = true;
                                      },
                                      parallel),
                     std::bad_alloc);
        // Run beside a, b has finished; run after a, it is not started once a has failed.
        if (!parallel) {
            EXPECT_FALSE(otherDone);
        } else if (std::thread::hardware_concurrency() >= 2 && !std::getenv("ORBISCOPE_THREADS")) {
            EXPECT_TRUE(otherDone);
        }
    }
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
