#pragma once
// Readers size their big arrays once and then fill them front to back; this is the one
// place that decides how such arrays are allocated.
//
// The kernel can back them with 2 MiB pages (one fault per 2 MiB instead of 512), which
// halves a binary STL read on a machine with memory to spare. On virtual machines that
// hand free memory back to their host, though, 2 MiB blocks are exactly what gets handed
// back, and the first touch of one costs more than all the small faults it saves: measured
// here, 0.07 s warm against 0.25-0.45 s cold for a 140 MB scene, where small pages give a
// steady 0.14 s. So huge pages are asked for only when ORBISCOPE_HUGE_PAGES=1.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

namespace hostmem {

// Asks for huge pages over the 2 MiB-aligned inside of [p, p + bytes) when enabled (see
// above). Small ranges (under 4 MiB) and systems without the facility are left alone.
void AdviseLargeArray(void* p, size_t bytes);

// Has the kernel back [p, p + bytes) with memory now, in one request (MADV_POPULATE_WRITE):
// measured here a quarter cheaper than taking the same first-touch faults one page at a
// time. Only for memory about to be written whole. Ranges under 1 MiB, and kernels without
// the request, are left to the faults.
void PopulateNow(void* p, size_t bytes);

// reserve() plus the advice, for arrays about to be filled.
template <class T>
void ReserveLarge(std::vector<T>& v, size_t n) {
    if (n <= v.capacity()) return;
    v.reserve(n);
    AdviseLargeArray(v.data(), v.capacity() * sizeof(T));
}

// ReserveLarge for arrays that are then written whole straight away (sized with zeros, or
// filled to an exact count): their pages are populated at once.
template <class T>
void ReserveFilled(std::vector<T>& v, size_t n) {
    if (n <= v.capacity()) return;
    ReserveLarge(v, n);
    PopulateNow(v.data(), v.capacity() * sizeof(T));
}

// Faults in the pages of big, freshly reserved arrays on a second thread while a reader
// fills them from the front. Where the first touch of memory is dear (virtual machines
// that hand free memory back to their host: 2-4 us a page here, most of a binary
// STL read), two threads take those faults about twice as fast as one. The helper walks
// the ranges from their ends backwards, a slice at a time, and stops where the reader
// has got to. It only asks the kernel to populate pages (MADV_POPULATE_WRITE), which
// never changes their contents, so it does not race with the reader's writes. The reader
// populates the slice in front of it itself, through Progress. With ORBISCOPE_PREFAULT=0,
// or on one core, there is no helper and the reader populates every slice; where the
// kernel lacks the request, nothing is done and the reader takes its own faults.
class CPopulateAhead {
public:
    CPopulateAhead() = default;
    CPopulateAhead(const CPopulateAhead&) = delete;
    CPopulateAhead& operator=(const CPopulateAhead&) = delete;
    ~CPopulateAhead() { Stop(); }

    // Before Start: a range the reader is about to fill front to back.
    void Add(const void* p, size_t bytes);
    // Starts the work when the ranges are big enough to be worth it: the helper thread,
    // where there is one, and the reader's own slices.
    void Start();
    // How far the reader has got, as a share of every range. Entering a new slice, the
    // reader also has the next one populated in one request, unless the helper has been
    // there (one request costs less than the same faults taken one at a time).
    void Progress(size_t done, size_t total) {
        if (!total) return;
        const uint32_t at = static_cast<uint32_t>(static_cast<uint64_t>(done) * kScale / total);
        m_done.store(at, std::memory_order_relaxed);
        if (at >= m_ownNext) PopulateOwn(at);
    }
    // Joins the helper; after this the ranges may be moved or freed.
    void Stop();
    bool Running() const { return m_thread.joinable(); }

private:
    static constexpr uint32_t kScale = 1u << 16;
    void Run();
    void PopulateOwn(uint32_t at);
    // Populates slice k of every range; false when the kernel does not know the request.
    bool PopulateSlice(size_t k) const;
    struct Range {
        uintptr_t b, e;
    };
    std::vector<Range> m_ranges;
    size_t m_bytes = 0;
    size_t m_slices = 0;
    uint32_t m_ownNext = UINT32_MAX; // where the reader next populates a slice itself
    std::atomic<uint32_t> m_done{0};
    std::atomic<size_t> m_helperLow{SIZE_MAX}; // lowest slice the helper has populated
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace hostmem
