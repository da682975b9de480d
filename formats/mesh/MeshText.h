#pragma once
// Small text helpers shared by the mesh writers and readers: the maker's address,
// name cleaning for file syntax, a growable output chunk and byte/wide conversions.
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "plugin/host/IoFile.h"
#include "plugin/host/NumberFormat.h"
#include "plugin/host/TextHelpers.h"
#include "plugin/host/TextScanner.h"
#include "plugin/host/XString.h"

namespace meshio {

inline constexpr const char* kMakerUrl = "https://orbiscope.org";

// Characters that would break a line-oriented or quoted syntax become '_'.
inline CXStringW SanitizeName(const CXStringW& name) {
    std::wstring s = name.str();
    for (auto& c : s)
        if (c == L'"' || c == L'\\' || c < 0x20 || c == 0x7F || c == 0x2028 || c == 0x2029) c = L'_';
    return CXStringW(std::move(s));
}

// Bytes of a name as the text mode decodes them (8: Latin-1, else UTF-8).
inline CXStringW DecodeName(std::string_view bytes, int textMode) {
    if (textMode == TEXT_MODE_ANSI) return CXStringW(WidenBytes(bytes));
    return CXStringW(Utf8ToWide(bytes));
}

// Text of `data` as UTF-8 bytes ready for parsing: a UTF-8 BOM is skipped, UTF-16 (with
// its BOM, text mode 40 only) is converted through IoFile's decoder into `storage`.
std::string_view PrepareText(std::span<const uint8_t> data, int textMode, std::string& storage);

// Output text assembled in memory and handed to IoFile in large pieces. Numbers are
// written straight into the buffer; every call makes room for what it may write, so
// the hot loops pay one compare per item.
class COutText {
public:
    explicit COutText(IoFile& f, size_t chunk = size_t(1) << 18)
        : m_file(f), m_chunk(chunk < 1024 ? 1024 : chunk), m_buf(new char[m_chunk + kSlack]), m_p(m_buf.get()) {}
    ~COutText() { Flush(); }
    COutText(const COutText&) = delete;
    COutText& operator=(const COutText&) = delete;

    void Put(std::string_view s) {
        if (s.size() > Room()) {
            Flush();
            if (s.size() > m_chunk) {
                Write(s.data(), s.size());
                return;
            }
        }
        std::memcpy(m_p, s.data(), s.size());
        m_p += s.size();
    }
    void Put(char c) {
        Need(1);
        *m_p++ = c;
    }
    // "%f" of the C library (six decimals).
    void F6(double v) {
        Need(numfmt::kMaxFixed6);
        m_p = numfmt::WriteFixed6(m_p, v);
    }
    void Int(int64_t v) {
        Need(21);
        m_p = numfmt::WriteInt(m_p, v);
    }
    void UInt64(uint64_t v) {
        Need(21);
        m_p = numfmt::WriteUInt(m_p, v);
    }
    // A wide text in the file's encoding (UTF-8, or Latin-1 in ANSI mode).
    void Wide(const CXStringW& s) {
        if (m_file.GetTextMode() == TEXT_MODE_ANSI) {
            for (wchar_t c : s.view()) Put(NarrowLatin1(c));
        } else {
            Put(WideToUtf8(s.view()));
        }
    }
    void Tabs(int n) {
        for (; n > 0; --n) Put('\t');
    }
    bool Flush() {
        if (m_p != m_buf.get()) Write(m_buf.get(), static_cast<size_t>(m_p - m_buf.get()));
        m_p = m_buf.get();
        return m_ok;
    }
    bool ok() const { return m_ok; }
    // Hands a full chunk to the file; the appends do this themselves, so it is only a hint.
    void Check() {
        if (static_cast<size_t>(m_p - m_buf.get()) >= m_chunk) Flush();
    }

private:
    static constexpr size_t kSlack = 512; // room for any one number after a full chunk
    static_assert(kSlack > numfmt::kMaxFixed6);
    size_t Room() const { return m_chunk + kSlack - static_cast<size_t>(m_p - m_buf.get()); }
    void Need(size_t n) {
        if (n > Room()) [[unlikely]]
            Spill();
    }
    [[gnu::noinline]] void Spill() { Flush(); } // keeps Need small enough to inline
    void Write(const char* p, size_t n) {
        if (!m_file.FileWrite(p, n)) m_ok = false;
    }

    IoFile& m_file;
    size_t m_chunk;
    std::unique_ptr<char[]> m_buf;
    char* m_p;
    bool m_ok = true;
};

// Gives the pages of a mapped input back as a reader moves through it, every
// megabyte, so a read does not hold the whole file resident next to the scene (a text
// file is often larger than what it describes, so the resident part decides the peak).
class CPageReleaser {
public:
    CPageReleaser() = default;
    CPageReleaser(const IoFile* file, std::string_view text) : m_file(file) {
        auto d = file ? file->GetData() : std::span<const uint8_t>();
        const char* b = reinterpret_cast<const char*>(d.data());
        // Only text that is a view of the mapping itself (not a decoded copy).
        if (file && text.data() >= b && text.data() + text.size() <= b + d.size()) m_base = b;
        else m_file = nullptr;
    }
    void At(const char* p) {
        if (!m_file) return;
        const size_t off = static_cast<size_t>(p - m_base);
        if (off >= m_last + kStep) {
            m_file->ReleaseBefore(static_cast<int64_t>(off));
            m_last = off;
        }
    }
    void Reset() { m_last = 0; }

private:
    static constexpr size_t kStep = size_t(1) << 20;
    const IoFile* m_file = nullptr;
    const char* m_base = nullptr;
    size_t m_last = 0;
};

} // namespace meshio
