#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "plugin/host/LargeArray.h"

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

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

// Random edits applied to a ZeroedArray and to a std::vector side by side must leave the
// same contents: in particular, elements that come back after a shrink, or after a clear and
// an assign of zeros, are zero again.
TEST(ZeroedArray, BehavesLikeAVectorOfZeroInitialisedFloats) {
    hostmem::ZeroedArray<float> z;
    std::vector<float> v;
    uint32_t seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u, seed >> 8; };
    for (int step = 0; step < 4000; ++step) {
        const uint32_t op = next() % 11, r = next();
        const float x = static_cast<float>(r % 1000) + 0.5f;
        switch (op) {
        case 0:
        case 1:
            z.push_back(x);
            v.push_back(x);
            break;
        case 2: {
            const size_t n = r % 300;
            z.resize(n);
            v.resize(n);
            break;
        }
        case 3: { // insert anywhere
            const float src[3] = {x, x + 1, x + 2};
            const size_t at = v.empty() ? 0 : r % (v.size() + 1), n = r % 4;
            z.insert(z.begin() + at, src, src + n);
            v.insert(v.begin() + static_cast<std::ptrdiff_t>(at), src, src + n);
            break;
        }
        case 4:
            if (r % 8 == 0) {
                z.clear();
                v.clear();
            } else if (!v.empty()) { // a piece of itself, copied in (the array may move meanwhile)
                const size_t from = r % v.size(), n = std::min<size_t>(v.size() - from, 1 + r % 5),
                             at = r % (v.size() + 1);
                const std::vector<float> piece(v.begin() + static_cast<std::ptrdiff_t>(from),
                                               v.begin() + static_cast<std::ptrdiff_t>(from + n));
                z.insert(z.begin() + at, z.begin() + from, z.begin() + from + n);
                v.insert(v.begin() + static_cast<std::ptrdiff_t>(at), piece.begin(), piece.end());
            }
            break;
        case 5:
            if (r % 4 == 0) {
                z.shrink_to_fit();
                v.shrink_to_fit();
            }
            break;
        case 6: z.reserve(r % 600); break;
        case 7:
            if (!v.empty()) {
                const size_t i = r % v.size();
                z[i] = x;
                v[i] = x;
            }
            break;
        case 8: {
            hostmem::ZeroedArray<float> c(z);
            z = r % 2 ? c : std::move(c);
            break;
        }
        case 9: { // n copies, zeros half the time, or copies of its own first element
            const size_t n = r % 400;
            const bool own = r % 5 == 1 && !v.empty();
            const float fill = own ? v[0] : r % 2 ? 0.0f : x;
            if (own) z.assign(n, z[0]);
            else if (r % 3 == 0) z = hostmem::ZeroedArray<float>(n, fill);
            else z.assign(n, fill);
            v.assign(n, fill);
            break;
        }
        case 10:
            if (r % 4 == 0) {
                z = hostmem::ZeroedArray<float>(r % 50);
                v.assign(r % 50, 0.0f);
            }
            break;
        }
        ASSERT_EQ(z.size(), v.size()) << "step " << step;
        if (!v.empty()) { ASSERT_EQ(z.back(), v.back()) << "step " << step; }
        ASSERT_GE(z.capacity(), z.size());
        ASSERT_TRUE(std::equal(v.begin(), v.end(), z.begin())) << "step " << step << " op " << op;
    }
}

#if defined(__linux__)
// Sizing up a freshly reserved array writes nothing: the pages behind what was written are
// not even taken from the kernel, and they read as zero.
TEST(ZeroedArray, GrowingOverFreshMemoryLeavesItsPagesUntouched) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE)), n = (size_t(64) << 20) / sizeof(float);
    hostmem::ZeroedArray<float> z;
    z.reserve(n);
    auto resident = [&](size_t fromByte, size_t toByte) {
        const uintptr_t b = (reinterpret_cast<uintptr_t>(z.data()) + fromByte + page - 1) / page * page;
        const uintptr_t e = (reinterpret_cast<uintptr_t>(z.data()) + toByte) / page * page;
        std::vector<unsigned char> in((e - b) / page);
        EXPECT_EQ(mincore(reinterpret_cast<void*>(b), e - b, in.data()), 0);
        return static_cast<size_t>(std::count_if(in.begin(), in.end(), [](unsigned char c) { return c & 1; }));
    };
    if (resident(0, n * sizeof(float)) != 0) GTEST_SKIP() << "the allocator handed out memory already in use";
    z.resize(n / 4);
    std::fill(z.begin(), z.end(), 1.0f);
    z.resize(n);
    EXPECT_EQ(resident(n * sizeof(float) / 4 + page, n * sizeof(float)), 0u);
    EXPECT_TRUE(
        std::all_of(z.begin() + static_cast<std::ptrdiff_t>(n / 4), z.end(), [](float f) { return f == 0.0f; }));
    EXPECT_EQ(z[n / 4 - 1], 1.0f);
}
#endif
