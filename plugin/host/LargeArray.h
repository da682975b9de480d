#pragma once
// Readers size their big arrays once and then fill them front to back. On Linux the
// kernel can back such a range with 2 MiB pages when asked, which turns hundreds of
// page faults per MiB into one per 2 MiB; for a 100 MB mesh that is most of the time
// a binary read spends outside its own loop.
#include <cstddef>
#include <vector>

namespace hostmem {

// Asks for huge pages over the 2 MiB-aligned inside of [p, p + bytes). Small ranges
// (under 4 MiB) and systems without the facility are left alone; never fails.
void AdviseLargeArray(void* p, size_t bytes);

// reserve() plus the advice, for arrays about to be filled.
template <class T>
void ReserveLarge(std::vector<T>& v, size_t n) {
    if (n <= v.capacity()) return;
    v.reserve(n);
    AdviseLargeArray(v.data(), v.capacity() * sizeof(T));
}

} // namespace hostmem
