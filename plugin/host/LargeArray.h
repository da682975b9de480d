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
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>
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
// The same request at any size: for a thread that faults pages in for another, which is
// about to write there.
void PopulatePages(const void* p, size_t bytes);

// reserve() plus the advice, for arrays about to be filled.
template <class V> // std::vector or ZeroedArray
void ReserveLarge(V& v, size_t n) {
    if (n <= v.capacity()) return;
    v.reserve(n);
    AdviseLargeArray(v.data(), v.capacity() * sizeof(typename V::value_type));
}

// ReserveLarge for arrays that are then written whole straight away (sized with zeros, or
// filled to an exact count): their pages are populated at once.
template <class V> void ReserveFilled(V& v, size_t n) {
    if (n <= v.capacity()) return;
    ReserveLarge(v, n);
    PopulateNow(v.data(), v.capacity() * sizeof(typename V::value_type));
}

// A growable array of trivially copyable T (the std::vector operations the scene's lists
// use) that keeps what it has never written known to be zero: its blocks come from calloc,
// which hands fresh pages over from the kernel as they are, and it remembers how far it has
// ever written. Growing with zeros writes only below that mark, so a list sized to n but
// filled only in part never touches the pages of the rest until something writes there.
template <class T> class ZeroedArray {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_default_constructible_v<T>);
    static_assert(alignof(T) <= alignof(std::max_align_t));

public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    ZeroedArray() = default;
    explicit ZeroedArray(size_t n) { resize(n); }
    ZeroedArray(size_t n, const T& v) { assign(n, v); }
    ZeroedArray(std::initializer_list<T> l) { assign(l.begin(), l.end()); }
    ZeroedArray(const ZeroedArray& o) { assign(o.begin(), o.end()); }
    ZeroedArray(ZeroedArray&& o) noexcept { Swap(o); }
    ZeroedArray& operator=(const ZeroedArray& o) {
        if (this != &o) assign(o.begin(), o.end());
        return *this;
    }
    ZeroedArray& operator=(ZeroedArray&& o) noexcept {
        ZeroedArray(std::move(o)).Swap(*this);
        return *this;
    }
    ~ZeroedArray() { std::free(m_p); }

    size_t size() const { return m_size; }
    size_t capacity() const { return m_cap; }
    bool empty() const { return m_size == 0; }
    T* data() { return m_p; }
    const T* data() const { return m_p; }
    T* begin() { return m_p; }
    T* end() { return m_p + m_size; }
    const T* begin() const { return m_p; }
    const T* end() const { return m_p + m_size; }
    T& operator[](size_t i) { return m_p[i]; }
    const T& operator[](size_t i) const { return m_p[i]; }
    T& front() { return m_p[0]; }
    const T& front() const { return m_p[0]; }
    T& back() { return m_p[m_size - 1]; }
    const T& back() const { return m_p[m_size - 1]; }

    void reserve(size_t n) {
        if (n > m_cap) Reallocate(n);
    }
    // New elements are zero; only those below the written mark need writing.
    void resize(size_t n) {
        if (n > m_cap) Reallocate(std::max(n, Grown()));
        if (n > m_size && m_size < m_written)
            std::memset(m_p + m_size, 0, (std::min(n, m_written) - m_size) * sizeof(T));
        m_size = n;
        m_written = std::max(m_written, n);
    }
    void clear() { m_size = 0; }
    void shrink_to_fit() {
        if (m_cap > m_size) Reallocate(m_size);
    }
    void push_back(const T& v) {
        if (m_size == m_cap) {
            const T copy = v; // v may live in the old block
            Reallocate(Grown());
            Put(copy);
        } else {
            Put(v);
        }
    }
    // Copies [first, last) in at pos.
    template <std::input_iterator It> T* insert(const T* pos, It first, It last) {
        const size_t at = static_cast<size_t>(pos - m_p), n = static_cast<size_t>(std::distance(first, last));
        if constexpr (std::is_pointer_v<It>) {
            const std::less<const T*> before;
            if (n && before(first, m_p + m_size) && before(m_p, last)) { // a range of this array: copied first
                const std::vector<T> copy(first, last);
                return insert(pos, copy.data(), copy.data() + n);
            }
        }
        if (n > m_cap - m_size) Reallocate(std::max(m_size + n, Grown()));
        T* const dst = m_p + at;
        if (at < m_size) std::memmove(dst + n, dst, (m_size - at) * sizeof(T));
        std::copy(first, last, dst);
        m_size += n;
        m_written = std::max(m_written, m_size);
        return dst;
    }
    template <std::input_iterator It> void assign(It first, It last) {
        clear();
        insert(end(), first, last);
    }
    // n copies of v; zeros cost nothing over memory never written.
    void assign(size_t n, const T& v) {
        const T value = v; // v may live in the block that reserve() frees
        clear();
        if (IsZero(value)) {
            resize(n);
            return;
        }
        reserve(n);
        std::fill_n(m_p, n, value);
        m_size = n;
        m_written = std::max(m_written, n);
    }
    friend bool operator==(const ZeroedArray& a, const ZeroedArray& b) {
        return a.m_size == b.m_size && std::equal(a.begin(), a.end(), b.begin());
    }
    friend bool operator==(const ZeroedArray& a, const std::vector<T>& b) {
        return a.m_size == b.size() && std::equal(a.begin(), a.end(), b.begin());
    }

private:
    static bool IsZero(const T& v) {
        const T zero{};
        return std::memcmp(&v, &zero, sizeof(T)) == 0;
    }
    size_t Grown() const { return m_cap < 8 ? 8 : (m_cap > PTRDIFF_MAX / 2 / sizeof(T) ? m_cap + 1 : m_cap * 2); }
    void Put(const T& v) {
        m_p[m_size++] = v;
        m_written = std::max(m_written, m_size);
    }
    void Reallocate(size_t cap) {
        T* p = nullptr;
        if (cap) {
            if (cap > PTRDIFF_MAX / sizeof(T)) throw std::bad_array_new_length();
            p = static_cast<T*>(std::calloc(cap, sizeof(T)));
            if (!p) throw std::bad_alloc();
            if (m_size) std::memcpy(p, m_p, m_size * sizeof(T));
        }
        std::free(m_p);
        m_p = p;
        m_cap = cap;
        m_written = m_size;
    }
    void Swap(ZeroedArray& o) noexcept {
        std::swap(m_p, o.m_p);
        std::swap(m_size, o.m_size);
        std::swap(m_cap, o.m_cap);
        std::swap(m_written, o.m_written);
    }

    T* m_p = nullptr;
    size_t m_size = 0, m_cap = 0;
    size_t m_written = 0; // [m_written, m_cap) has not been written since allocation: zero
};

// Whether a reader may put work on a second thread: there is a second core, and
// ORBISCOPE_THREADS is not 1.
bool SecondThreadAllowed();

// Runs `a` on the calling thread and `b` at the same time on a second one, when
// `parallel` is set and there is a second core (and ORBISCOPE_THREADS is not 1);
// otherwise `b` after `a` (and not at all once `a` has thrown). Returns when both have
// finished; an exception thrown by either is passed on to the caller then.
void RunPair(const std::function<void()>& a, const std::function<void()>& b, bool parallel);

// A thread for sub-millisecond work beside the caller's: it is placed on another core
// than the caller's from its start. A new thread otherwise tends to wait behind its
// creator on the same core (measured here on a virtual machine: often until the creator
// blocked, hundreds of microseconds later). `work` must not throw; Join (or the
// destructor) waits for it.
class SideThread {
public:
    SideThread() = default;
    SideThread(const SideThread&) = delete;
    SideThread& operator=(const SideThread&) = delete;
    ~SideThread() { Join(); }
    // False (and `work` never runs) when threads are not allowed, there is no other core
    // the process may use, or no thread could be made.
    bool Start(std::function<void()> work);
    void Join();

private:
    std::function<void()> m_work;
    unsigned long m_handle = 0;
    bool m_running = false;
};

} // namespace hostmem
