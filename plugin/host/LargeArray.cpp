#include "plugin/host/LargeArray.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__linux__)
#include <sys/mman.h>
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

} // namespace hostmem
