#include "plugin/host/LargeArray.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#if !defined(MADV_POPULATE_WRITE)
#define MADV_POPULATE_WRITE 23 // Linux 5.14
#endif
#endif

namespace hostmem {

namespace {
bool HugePagesWanted() {
    static const bool wanted = [] {
        const char* v = std::getenv("ORBISCOPE_HUGE_PAGES");
        return v && std::strcmp(v, "1") == 0;
    }();
    return wanted;
}
} // namespace

void AdviseLargeArray(void* p, size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr uintptr_t kHuge = uintptr_t(2) << 20;
    if (!p || bytes < 2 * kHuge || !HugePagesWanted()) return;
    const uintptr_t b = (reinterpret_cast<uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t e = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(kHuge - 1);
    if (e > b) madvise(reinterpret_cast<void*>(b), e - b, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}

void PopulateNow(void* p, size_t bytes) {
#if defined(__linux__)
    static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    if (!p || bytes < (size_t(1) << 20)) return;
    const uintptr_t b = (reinterpret_cast<uintptr_t>(p) + page - 1) & ~(page - 1);
    const uintptr_t e = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(page - 1);
    if (e > b) madvise(reinterpret_cast<void*>(b), e - b, MADV_POPULATE_WRITE); // a failure just leaves the faults
#else
    (void)p;
    (void)bytes;
#endif
}

void CPopulateAhead::Add(const void* p, size_t bytes) {
    if (!p || bytes == 0 || Running()) return;
    const uintptr_t b = reinterpret_cast<uintptr_t>(p);
    m_ranges.push_back({b, b + bytes});
    m_bytes += bytes;
}

void CPopulateAhead::Start() {
#if defined(__linux__)
    constexpr size_t kWorthIt = size_t(32) << 20; // below this a thread costs more than it saves
    static const bool enabled = [] {
        const char* v = std::getenv("ORBISCOPE_PREFAULT");
        return !(v && std::strcmp(v, "0") == 0) && std::thread::hardware_concurrency() >= 2;
    }();
    if (Running() || !enabled || m_bytes < kWorthIt) return;
    m_stop.store(false);
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (...) { // no thread to be had: the reader just takes its own faults
    }
#endif
}

void CPopulateAhead::Stop() {
    m_stop.store(true, std::memory_order_relaxed);
    if (m_thread.joinable()) m_thread.join();
}

void CPopulateAhead::Run() {
#if defined(__linux__)
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    constexpr size_t kSlice = size_t(1) << 20; // of all ranges together
    const size_t slices = m_bytes / kSlice + 1;
    // Leaves a slice of room in front of the reader, where it would fault the pages itself
    // before the helper got there.
    const uint64_t margin = kScale / slices + 1;
    for (size_t k = slices; k-- > 0;) {
        if (m_stop.load(std::memory_order_relaxed)) return;
        const uint64_t from = static_cast<uint64_t>(k) * kScale / slices;
        if (from <= m_done.load(std::memory_order_relaxed) + margin) return;
        for (const Range& r : m_ranges) {
            const uintptr_t len = r.e - r.b;
            uintptr_t a = r.b + static_cast<uintptr_t>(static_cast<uint64_t>(len) * k / slices);
            uintptr_t z = r.b + static_cast<uintptr_t>(static_cast<uint64_t>(len) * (k + 1) / slices);
            a = (a + page - 1) & ~(page - 1);
            z &= ~(page - 1);
            if (z <= a) continue;
            if (madvise(reinterpret_cast<void*>(a), z - a, MADV_POPULATE_WRITE) != 0 && errno == EINVAL)
                return; // the kernel does not know the request
        }
    }
#endif
}

} // namespace hostmem
