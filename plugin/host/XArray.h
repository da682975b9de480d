#pragma once
// Host containers: CXArray (growable array with the host's growth rule),
// CStack, CHashMap and CHashTable (created with an explicit bucket count).
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

// Raised where the host raises its invalid-argument exception.
class CXInvalidArgException : public std::invalid_argument {
public:
    CXInvalidArgException() : std::invalid_argument("invalid argument") {}
};

template <typename T> class CXArray {
public:
    // growStep 0: a quarter of the count, clamped to [4, 1024]; -2: double the capacity.
    explicit CXArray(int growStep = 0) : m_grow(growStep) {}

    int GetSize() const { return static_cast<int>(m_data.size()); }
    int GetCount() const { return GetSize(); }
    bool IsEmpty() const { return m_data.empty(); }
    int GetCapacity() const { return m_capacity; }
    void SetGrowStep(int g) { m_grow = g; }

    T& operator[](int i) { return m_data[static_cast<size_t>(i)]; }
    const T& operator[](int i) const { return m_data[static_cast<size_t>(i)]; }
    T& GetAt(int i) { return m_data[static_cast<size_t>(i)]; }
    const T& GetAt(int i) const { return m_data[static_cast<size_t>(i)]; }
    T* GetData() { return m_data.data(); }
    const T* GetData() const { return m_data.data(); }
    auto begin() { return m_data.begin(); }
    auto end() { return m_data.end(); }
    auto begin() const { return m_data.begin(); }
    auto end() const { return m_data.end(); }

    // Appends at index = count and returns that index.
    int Add(const T& v) {
        int index = GetSize();
        SetAtGrow(index, v);
        return index;
    }
    void SetAtGrow(int index, const T& v) {
        if (index < 0) throw CXInvalidArgException();
        EnsureCount(index + 1);
        m_data[static_cast<size_t>(index)] = v;
    }
    void SetSize(int count) {
        if (count < 0) throw CXInvalidArgException();
        EnsureCount(count);
        m_data.resize(static_cast<size_t>(count));
    }
    void RemoveAt(int i, int n = 1) { m_data.erase(m_data.begin() + i, m_data.begin() + i + n); }
    void InsertAt(int i, const T& v) {
        EnsureCount(GetSize() + 1);
        m_data.insert(m_data.begin() + i, v);
    }
    void RemoveAll() {
        m_data.clear();
        m_data.shrink_to_fit();
        m_capacity = 0;
    }
    void FreeExtra() {
        m_data.shrink_to_fit();
        m_capacity = GetSize();
    }

    // The host's growth rule, exposed for tests: the capacity after growing to hold `needed`.
    static int NextCapacity(int capacity, int count, int grow, int needed) {
        if (needed <= capacity) return capacity;
        int step = grow;
        if (grow == 0) {
            step = count / 4;
            if (step < 4) step = 4;
            if (step > 1024) step = 1024;
        } else if (grow == -2) {
            step = capacity;
        } else if (grow < 0) {
            step = 4;
        }
        int64_t sum = static_cast<int64_t>(capacity) + step;
        if (sum > std::numeric_limits<int>::max()) throw CXInvalidArgException();
        int cap = static_cast<int>(sum);
        if (cap < needed) cap = needed;
        return cap;
    }

private:
    void EnsureCount(int needed) {
        if (needed > m_capacity) {
            m_capacity = NextCapacity(m_capacity, GetSize(), m_grow, needed);
            m_data.reserve(static_cast<size_t>(m_capacity));
        }
        if (static_cast<int>(m_data.size()) < needed) m_data.resize(static_cast<size_t>(needed));
    }
    std::vector<T> m_data;
    int m_capacity = 0;
    int m_grow = 0;
};

template <typename T> class CStack {
public:
    explicit CStack(int growStep = 5) { m_data.reserve(static_cast<size_t>(growStep > 0 ? growStep : 0)); }
    void Push(const T& v) { m_data.push_back(v); }
    T Pop() {
        T v = std::move(m_data.back());
        m_data.pop_back();
        return v;
    }
    T& Top() { return m_data.back(); }
    bool IsEmpty() const { return m_data.empty(); }
    int GetSize() const { return static_cast<int>(m_data.size()); }
    int GetCapacity() const { return static_cast<int>(m_data.capacity()); }
    void RemoveAll() { m_data.clear(); }
    T& operator[](int i) { return m_data[static_cast<size_t>(i)]; }
private:
    std::vector<T> m_data;
};

// Smallest prime >= n; the hash containers grow to it.
uint32_t NextPrime(uint32_t n);

template <typename K, typename V, typename H = std::hash<K>> class CHashMap {
public:
    explicit CHashMap(uint32_t buckets = 23) : m_map(buckets) {}
    bool Lookup(const K& k, V& out) const {
        auto it = m_map.find(k);
        if (it == m_map.end()) return false;
        out = it->second;
        return true;
    }
    V* Find(const K& k) {
        auto it = m_map.find(k);
        return it == m_map.end() ? nullptr : &it->second;
    }
    void SetAt(const K& k, const V& v) { m_map[k] = v; }
    V& operator[](const K& k) { return m_map[k]; }
    bool RemoveKey(const K& k) { return m_map.erase(k) != 0; }
    void RemoveAll() { m_map.clear(); }
    int GetCount() const { return static_cast<int>(m_map.size()); }
    size_t GetBucketCount() const { return m_map.bucket_count(); }
    bool IsEmpty() const { return m_map.empty(); }
    auto begin() { return m_map.begin(); }
    auto end() { return m_map.end(); }
    auto begin() const { return m_map.begin(); }
    auto end() const { return m_map.end(); }
private:
    std::unordered_map<K, V, H> m_map;
};

template <typename K, typename H = std::hash<K>> class CHashTable {
public:
    explicit CHashTable(uint32_t buckets = 23) : m_set(buckets) {}
    bool Add(const K& k) { return m_set.insert(k).second; }
    bool Contains(const K& k) const { return m_set.count(k) != 0; }
    bool Remove(const K& k) { return m_set.erase(k) != 0; }
    void RemoveAll() { m_set.clear(); }
    int GetCount() const { return static_cast<int>(m_set.size()); }
    size_t GetBucketCount() const { return m_set.bucket_count(); }
    auto begin() const { return m_set.begin(); }
    auto end() const { return m_set.end(); }
private:
    std::unordered_set<K, H> m_set;
};
