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
#include <cstddef>
#include <cstdint>
#include <functional>
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

// Runs `a` on the calling thread and `b` at the same time on a second one, when
// `parallel` is set and there is a second core (and ORBISCOPE_THREADS is not 1);
// otherwise `b` after `a` (and not at all once `a` has thrown). Returns when both have
// finished; an exception thrown by either is passed on to the caller then.
void RunPair(const std::function<void()>& a, const std::function<void()>& b, bool parallel);

} // namespace hostmem
