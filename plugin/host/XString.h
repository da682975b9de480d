#pragma once
// CXTString: the host's string class. Wide strings at the parser interface,
// narrow ones for bytes read from files. A thin value type over std::basic_string.
#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

template <typename T> class CXTString {
public:
    using string_type = std::basic_string<T>;
    using view_type = std::basic_string_view<T>;

    CXTString() = default;
    CXTString(const T* s) : m_s(s ? s : empty()) {}
    CXTString(const T* s, size_t n) : m_s(s, n) {}
    CXTString(view_type v) : m_s(v) {}
    CXTString(const string_type& s) : m_s(s) {}
    CXTString(string_type&& s) : m_s(std::move(s)) {}
    CXTString(size_t n, T c) : m_s(n, c) {}

    int GetLength() const { return static_cast<int>(m_s.size()); }
    size_t size() const { return m_s.size(); }
    bool IsEmpty() const { return m_s.empty(); }
    void Empty() { m_s.clear(); }
    const T* GetString() const { return m_s.c_str(); }
    const T* c_str() const { return m_s.c_str(); }
    operator const T*() const { return m_s.c_str(); }
    operator view_type() const { return m_s; }
    view_type view() const { return m_s; }
    string_type& str() { return m_s; }
    const string_type& str() const { return m_s; }

    T GetAt(int i) const { return m_s[static_cast<size_t>(i)]; }
    void SetAt(int i, T c) { m_s[static_cast<size_t>(i)] = c; }
    T operator[](int i) const { return m_s[static_cast<size_t>(i)]; }

    CXTString& operator=(const T* s) {
        m_s = s ? s : empty();
        return *this;
    }
    CXTString& operator+=(const CXTString& o) {
        m_s += o.m_s;
        return *this;
    }
    CXTString& operator+=(const T* s) {
        if (s) m_s += s;
        return *this;
    }
    CXTString& operator+=(T c) {
        m_s += c;
        return *this;
    }
    friend CXTString operator+(CXTString a, const CXTString& b) {
        a += b;
        return a;
    }
    friend CXTString operator+(CXTString a, const T* b) {
        a += b;
        return a;
    }
    friend CXTString operator+(const T* a, const CXTString& b) {
        CXTString r(a);
        r += b;
        return r;
    }
    friend CXTString operator+(CXTString a, T c) {
        a += c;
        return a;
    }
    friend bool operator==(const CXTString& a, const CXTString& b) { return a.m_s == b.m_s; }
    friend bool operator==(const CXTString& a, const T* b) { return a.m_s == (b ? b : empty()); }
    friend bool operator<(const CXTString& a, const CXTString& b) { return a.m_s < b.m_s; }
    friend bool operator!=(const CXTString& a, const CXTString& b) { return a.m_s != b.m_s; }

    // Position of the first match at or after start, -1 when absent.
    int Find(view_type what, int start = 0) const {
        if (start < 0) start = 0;
        auto p = m_s.find(what, static_cast<size_t>(start));
        return p == string_type::npos ? -1 : static_cast<int>(p);
    }
    int Find(T c, int start = 0) const {
        if (start < 0) start = 0;
        auto p = m_s.find(c, static_cast<size_t>(start));
        return p == string_type::npos ? -1 : static_cast<int>(p);
    }
    int ReverseFind(T c) const {
        auto p = m_s.rfind(c);
        return p == string_type::npos ? -1 : static_cast<int>(p);
    }
    // Replaces every occurrence; returns how many were replaced.
    int Replace(view_type from, view_type to) {
        if (from.empty()) return 0;
        int n = 0;
        size_t p = 0;
        while ((p = m_s.find(from, p)) != string_type::npos) {
            m_s.replace(p, from.size(), to);
            p += to.size();
            ++n;
        }
        return n;
    }
    int Replace(T from, T to) {
        int n = 0;
        for (auto& c : m_s)
            if (c == from) {
                c = to;
                ++n;
            }
        return n;
    }
    CXTString Mid(int first, int count = -1) const {
        if (first < 0) first = 0;
        if (static_cast<size_t>(first) >= m_s.size()) return {};
        size_t n = count < 0 ? string_type::npos : static_cast<size_t>(count);
        return CXTString(m_s.substr(static_cast<size_t>(first), n));
    }
    CXTString Left(int count) const {
        if (count <= 0) return {};
        return CXTString(m_s.substr(0, static_cast<size_t>(count)));
    }
    CXTString Right(int count) const {
        if (count <= 0) return {};
        size_t n = std::min(m_s.size(), static_cast<size_t>(count));
        return CXTString(m_s.substr(m_s.size() - n));
    }
    static bool IsSpace(T c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }
    CXTString& TrimLeft() {
        size_t i = 0;
        while (i < m_s.size() && IsSpace(m_s[i])) ++i;
        m_s.erase(0, i);
        return *this;
    }
    CXTString& TrimRight() {
        size_t n = m_s.size();
        while (n > 0 && IsSpace(m_s[n - 1])) --n;
        m_s.resize(n);
        return *this;
    }
    CXTString& Trim() {
        TrimRight();
        return TrimLeft();
    }
    // ASCII case mapping only: the formats compare keywords, not prose.
    CXTString& MakeLower() {
        for (auto& c : m_s)
            if (c >= 'A' && c <= 'Z') c = static_cast<T>(c + 32);
        return *this;
    }
    CXTString& MakeUpper() {
        for (auto& c : m_s)
            if (c >= 'a' && c <= 'z') c = static_cast<T>(c - 32);
        return *this;
    }
    int CompareNoCase(view_type o) const {
        size_t n = std::min(m_s.size(), o.size());
        for (size_t i = 0; i < n; ++i) {
            T a = lower(m_s[i]), b = lower(o[i]);
            if (a != b) return a < b ? -1 : 1;
        }
        return m_s.size() == o.size() ? 0 : (m_s.size() < o.size() ? -1 : 1);
    }
    int Compare(view_type o) const { return view().compare(o); }

    // printf-style formatting in the C locale's rules for the formats used here.
    // In a wide format "%s"/"%c" take wide arguments and "%hs"/"%hc" narrow (UTF-8)
    // ones, as in the host's own runtime; in a narrow format they are C's.
    void Format(const T* fmt, ...);
    void FormatV(const T* fmt, va_list ap);
    // scanf-style parse of the whole string; returns the number of fields assigned.
    int ScanS(const T* fmt, ...) const;

private:
    static T lower(T c) { return (c >= 'A' && c <= 'Z') ? static_cast<T>(c + 32) : c; }
    static const T* empty() {
        static const T z[1] = {0};
        return z;
    }
    string_type m_s;
};

using CXStringW = CXTString<wchar_t>;
using CXStringA = CXTString<char>;

// UTF-8 <-> wide conversion (wchar_t holds UTF-32 on Linux). Invalid UTF-8 bytes map to U+FFFD.
std::wstring Utf8ToWide(std::string_view s);
// Appends the decoded text to `out` (reuses its capacity; the hot path of text reads).
void AppendUtf8ToWide(std::wstring& out, std::string_view s);
std::string WideToUtf8(std::wstring_view s);
// Latin-1 widening of plain ASCII/8-bit text, one character per byte.
std::wstring WidenBytes(std::string_view s);

// The host's wide-to-narrow helper: UTF-8 on this platform.
class XCW2A {
public:
    explicit XCW2A(std::wstring_view w) : m_s(WideToUtf8(w)) {}
    operator const char*() const { return m_s.c_str(); }
    const std::string& str() const { return m_s; }
private:
    std::string m_s;
};

template <typename T> struct std::hash<CXTString<T>> {
    size_t operator()(const CXTString<T>& s) const noexcept { return std::hash<std::basic_string<T>>()(s.str()); }
};
