#pragma once
// Zip archives (read only) on libzip. Entry names are checked before anything touches
// the file system: "..", absolute paths, drive letters and backslash roots are refused,
// symbolic links and encrypted entries are never extracted, and extraction stops at a
// total size and at a compression ratio no honest entry reaches (zip bombs).
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

struct zip;

class CIoOptions;

class CZip {
public:
    enum OpenMode : int { OPEN_READ = 0 };
    enum ExtractResult : int { EXTRACT_FAILED = 0, EXTRACT_REFUSED = 1, EXTRACT_OK = 2 };
    static constexpr uint32_t kNotFound = 0xFFFFFFFFu;

    CZip();
    ~CZip();
    CZip(const CZip&) = delete;
    CZip& operator=(const CZip&) = delete;

    // Opens the archive at `path` (or held in memory, kept alive by the caller).
    bool Open(const CXStringW& path, int mode = OPEN_READ, CIoOptions* log = nullptr);
    bool OpenMemory(std::span<const uint8_t> data, CIoOptions* log = nullptr);
    void Close(bool force = false);
    bool IsOpen() const { return m_zip != nullptr; }
    uint32_t GetCount() const { return static_cast<uint32_t>(m_names.size()); }
    // The entry's name as stored (UTF-8, '/' separated).
    const std::string& GetName(uint32_t index) const { return m_names[index]; }

    // The index of the entry called `name` ('/' or '\' separated), kNotFound when absent.
    // `caseSensitive` false compares without regard to ASCII case; `ignorePath` compares
    // file names only.
    uint32_t FindFile(const CXStringW& name, bool caseSensitive = false, bool ignorePath = false) const;
    // Indices of the entries whose name matches `pattern` ('*' any run, '?' one character,
    // '\' escapes the next one). With `withPath` the whole name is matched, else the file name.
    int FindMatchingFiles(CXArray<uint32_t>& indices, const CXStringW& pattern, bool withPath,
                          bool caseInsensitive = true) const;
    // Extracts an entry into `folder`, keeping its folders or not. Returns EXTRACT_OK (2) on
    // success; EXTRACT_REFUSED for unsafe, encrypted or oversized entries (logged).
    int ExtractFile(uint32_t index, const CXStringW& folder, bool keepFolders, const void* reserved = nullptr,
                    bool overwrite = true);
    // Reads a whole entry into memory (same checks as extraction).
    bool ReadFile(uint32_t index, std::vector<uint8_t>& out);

    // Bytes extracted so far and the limits (total, and per entry: 1 MiB + ratio x compressed).
    uint64_t ExtractedBytes() const { return m_extracted; }
    void SetLimits(uint64_t totalBytes, uint64_t ratio) {
        m_totalLimit = totalBytes;
        m_ratio = ratio;
    }

    // Whether a stored name may reach the file system.
    static bool IsSafeName(const std::string& name);

private:
    bool Load(struct zip* z);
    bool Check(uint32_t index, uint64_t& size);
    void Log(const std::string& text) const;

    struct zip* m_zip = nullptr;
    std::vector<std::string> m_names;
    std::vector<uint8_t> m_memoryCopy;
    CIoOptions* m_log = nullptr;
    uint64_t m_extracted = 0;
    uint64_t m_totalLimit = 4ull << 30;
    uint64_t m_ratio = 1000;
};

// Wildcard match ('*', '?', '\' escape); ASCII case folded when `fold`.
bool WildcardMatch(std::string_view pattern, std::string_view text, bool fold);
