#include "plugin/host/LargeArray.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>
#include <utility>

#if defined(__linux__)
#include <pthread.h>
#include <sched.h>
#endif

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
    if (bytes >= (size_t(1) << 20)) PopulatePages(p, bytes);
}

void PopulatePages(const void* p, size_t bytes) {
#if defined(__linux__)
    if (!p) return;
    AdviseInside(reinterpret_cast<uintptr_t>(p), reinterpret_cast<uintptr_t>(p) + bytes, PageSize(),
                 MADV_POPULATE_WRITE); // a failure just leaves the faults
#else
    (void)p;
    (void)bytes;
#endif
}

bool SecondThreadAllowed() {
    static const bool allowed = [] {
        const char* v = std::getenv("ORBISCOPE_THREADS");
        return !(v && std::strcmp(v, "1") == 0) && std::thread::hardware_concurrency() >= 2;
    }();
    return allowed;
}

void RunPair(const std::function<void()>& a, const std::function<void()>& b, bool parallel) {
    std::exception_ptr errA, errB;
    auto runB = [&] {
        try {
            b();
        } catch (...) { errB = std::current_exception(); }
    };
    std::thread t;
    if (parallel && SecondThreadAllowed()) {
        try {
            t = std::thread(runB);
        } catch (...) { // no thread to be had: b runs after a
        }
    }
    try {
        a();
    } catch (...) { errA = std::current_exception(); }
    if (t.joinable()) t.join();
    else if (!errA) runB();
    if (errA) std::rethrow_exception(errA);
    if (errB) std::rethrow_exception(errB);
}

#if defined(__linux__)
static_assert(sizeof(pthread_t) <= sizeof(unsigned long));
#endif

bool SideThread::Start(std::function<void()> work) {
    if (m_running || !SecondThreadAllowed()) return false;
#if defined(__linux__)
    cpu_set_t cores;
    const int here = sched_getcpu();
    if (here < 0 || sched_getaffinity(0, sizeof cores, &cores) != 0) return false;
    CPU_CLR(here, &cores);
    if (CPU_COUNT(&cores) == 0) return false;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return false;
    // Small work, small stack: less to map in a fresh process.
    pthread_attr_setstacksize(&attr, size_t(256) << 10);
    const bool placed = pthread_attr_setaffinity_np(&attr, sizeof cores, &cores) == 0;
    m_work = std::move(work);
    pthread_t t{};
    const bool made = placed && pthread_create(
                                    &t, &attr,
                                    [](void* self) -> void* {
                                        static_cast<SideThread*>(self)->m_work();
                                        return nullptr;
                                    },
                                    this) == 0;
    pthread_attr_destroy(&attr);
    if (!made) {
        m_work = nullptr;
        return false;
    }
    m_handle = static_cast<unsigned long>(t);
    m_running = true;
    return true;
#else
    (void)work;
    return false;
#endif
}

void SideThread::Join() {
#if defined(__linux__)
    if (!m_running) return;
    pthread_join(static_cast<pthread_t>(m_handle), nullptr);
    m_running = false;
    m_work = nullptr;
#endif
}

} // namespace hostmem
