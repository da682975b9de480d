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

#if defined(__linux__)
uintptr_t PageSize() {
    static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    return page;
}

// madvise over the whole `unit`-aligned blocks inside [b, e) (nothing when there are
// none). False when the kernel does not know the request; other failures are left alone,
// as every advice here is only a hint.
bool AdviseInside(uintptr_t b, uintptr_t e, uintptr_t unit, int advice) {
    b = (b + unit - 1) & ~(unit - 1);
    e &= ~(unit - 1);
    return e <= b || madvise(reinterpret_cast<void*>(b), e - b, advice) == 0 || errno != EINVAL;
}
#endif
} // namespace

void AdviseLargeArray(void* p, size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr uintptr_t kHuge = uintptr_t(2) << 20;
    if (!p || bytes < 2 * kHuge || !HugePagesWanted()) return;
    AdviseInside(reinterpret_cast<uintptr_t>(p), reinterpret_cast<uintptr_t>(p) + bytes, kHuge, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}

void PopulateNow(void* p, size_t bytes) {
#if defined(__linux__)
    if (!p || bytes < (size_t(1) << 20)) return;
    AdviseInside(reinterpret_cast<uintptr_t>(p), reinterpret_cast<uintptr_t>(p) + bytes, PageSize(),
                 MADV_POPULATE_WRITE); // a failure just leaves the faults
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

namespace {
constexpr size_t kSlice = size_t(1) << 20; // of all ranges together
}

void CPopulateAhead::Start() {
#if defined(__linux__)
    constexpr size_t kWorthIt = size_t(32) << 20; // below this a thread costs more than it saves
    static const bool enabled = [] {
        const char* v = std::getenv("ORBISCOPE_PREFAULT");
        return !(v && std::strcmp(v, "0") == 0) && std::thread::hardware_concurrency() >= 2;
    }();
    if (Running() || m_slices || m_bytes < kWorthIt) return;
    m_slices = m_bytes / kSlice + 1;
    m_ownNext = 0;
    if (!enabled) return;
    m_stop.store(false);
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (...) { // no thread to be had: the reader populates its own slices
    }
#endif
}

void CPopulateAhead::Stop() {
    m_stop.store(true, std::memory_order_relaxed);
    if (m_thread.joinable()) m_thread.join();
    m_ownNext = UINT32_MAX;
}

bool CPopulateAhead::PopulateSlice(size_t k) const {
#if defined(__linux__)
    for (const Range& r : m_ranges) {
        const uintptr_t len = r.e - r.b;
        const uintptr_t a = r.b + static_cast<uintptr_t>(static_cast<uint64_t>(len) * k / m_slices);
        const uintptr_t z = r.b + static_cast<uintptr_t>(static_cast<uint64_t>(len) * (k + 1) / m_slices);
        if (!AdviseInside(a, z, PageSize(), MADV_POPULATE_WRITE)) return false;
    }
    return true;
#else
    (void)k;
    return false;
#endif
}

void CPopulateAhead::PopulateOwn(uint32_t at) {
    const size_t s = static_cast<size_t>(static_cast<uint64_t>(at) * m_slices / kScale);
    m_ownNext = s + 1 < m_slices ? static_cast<uint32_t>((static_cast<uint64_t>(s) + 1) * kScale / m_slices) : UINT32_MAX;
    if (m_ownNext == UINT32_MAX || s + 1 >= m_helperLow.load(std::memory_order_relaxed)) return;
    if (!PopulateSlice(s + 1)) m_ownNext = UINT32_MAX;
}

void CPopulateAhead::Run() {
    // Leaves a slice of room in front of the reader, which populates that one itself.
    const uint64_t margin = kScale / m_slices + 1;
    for (size_t k = m_slices; k-- > 0;) {
        if (m_stop.load(std::memory_order_relaxed)) return;
        const uint64_t from = static_cast<uint64_t>(k) * kScale / m_slices;
        if (from <= m_done.load(std::memory_order_relaxed) + margin) return;
        if (!PopulateSlice(k)) return;
        m_helperLow.store(k, std::memory_order_relaxed);
    }
}

} // namespace hostmem
