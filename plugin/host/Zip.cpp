#include "plugin/host/Zip.h"
#include "plugin/host/TextHelpers.h"

#include <sys/stat.h>
#include <zip.h>

#include <cstdio>
#include <filesystem>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Options.h"

namespace {

std::string FileNameOf(std::string_view s) {
    size_t slash = s.find_last_of("/\\");
    return std::string(slash == std::string_view::npos ? s : s.substr(slash + 1));
}

std::string Slashes(std::string s) {
    for (char& c : s)
        if (c == '\\') c = '/';
    return s;
}

} // namespace

bool WildcardMatch(std::string_view p, std::string_view t, bool fold) {
    // Iterative matching with one back-track point per '*': linear in practice, never exponential.
    size_t pi = 0, ti = 0, star = std::string_view::npos, mark = 0;
    while (ti < t.size()) {
        if (pi < p.size() && p[pi] == '*') {
            star = pi++;
            mark = ti;
            continue;
        }
        if (pi < p.size()) {
            char pc = p[pi];
            size_t step = 1;
            bool literal = false;
            if (pc == '\\' && pi + 1 < p.size()) {
                pc = p[pi + 1];
                step = 2;
                literal = true;
            }
            if ((!literal && pc == '?') || (fold ? AsciiLower(pc) == AsciiLower(t[ti]) : pc == t[ti])) {
                pi += step;
                ++ti;
                continue;
            }
        }
        if (star == std::string_view::npos) return false;
        pi = star + 1;
        ti = ++mark;
    }
    while (pi < p.size() && p[pi] == '*') ++pi;
    return pi == p.size();
}

CZip::CZip() = default;
CZip::~CZip() { Close(true); }

void CZip::Log(const std::string& text) const {
    if (m_log) m_log->AddLogInfo(LOG_INFO, CXStringW(Utf8ToWide(text)));
}

bool CZip::Open(const CXStringW& path, int mode, CIoOptions* log) {
    (void)mode; // read only
    Close(true);
    m_log = log;
    int err = 0;
    struct zip* z = zip_open(PathToUtf8(path).c_str(), ZIP_RDONLY, &err);
    return z && Load(z);
}

bool CZip::OpenMemory(std::span<const uint8_t> data, CIoOptions* log) {
    Close(true);
    m_log = log;
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* src = zip_source_buffer_create(data.data(), data.size(), 0, &error);
    if (!src) {
        zip_error_fini(&error);
        return false;
    }
    struct zip* z = zip_open_from_source(src, ZIP_RDONLY, &error);
    zip_error_fini(&error);
    if (!z) {
        zip_source_free(src);
        return false;
    }
    return Load(z);
}

bool CZip::Load(struct zip* z) {
    m_zip = z;
    zip_int64_t n = zip_get_num_entries(z, 0);
    if (n < 0) n = 0;
    m_names.reserve(static_cast<size_t>(n));
    for (zip_int64_t i = 0; i < n; ++i) {
        const char* name = zip_get_name(z, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_GUESS);
        m_names.emplace_back(name ? name : "");
    }
    return true;
}

void CZip::Close(bool force) {
    (void)force;
    if (m_zip) zip_discard(m_zip);
    m_zip = nullptr;
    m_names.clear();
}

bool CZip::IsSafeName(const std::string& name) {
    if (name.empty()) return false;
    const std::string s = Slashes(name);
    if (s[0] == '/') return false;                  // absolute or backslash root
    if (s.size() >= 2 && s[1] == ':') return false; // drive letter
    if (s.find('\0') != std::string::npos) return false;
    size_t start = 0;
    while (start <= s.size()) {
        size_t slash = s.find('/', start);
        if (slash == std::string::npos) slash = s.size();
        std::string_view part(s.data() + start, slash - start);
        if (part == "..") return false;
        start = slash + 1;
    }
    return true;
}

uint32_t CZip::FindFile(const CXStringW& name, bool caseSensitive, bool ignorePath) const {
    std::string want = Slashes(PathToUtf8(name));
    if (ignorePath) want = FileNameOf(want);
    for (uint32_t i = 0; i < m_names.size(); ++i) {
        std::string have = Slashes(m_names[i]);
        if (ignorePath) have = FileNameOf(have);
        if (have.size() != want.size()) continue;
        bool same = true;
        for (size_t k = 0; k < have.size() && same; ++k)
            same = caseSensitive ? have[k] == want[k] : AsciiLower(have[k]) == AsciiLower(want[k]);
        if (same) return i;
    }
    return kNotFound;
}

int CZip::FindMatchingFiles(CXArray<uint32_t>& indices, const CXStringW& pattern, bool withPath,
                            bool caseInsensitive) const {
    std::string p = PathToUtf8(pattern);
    // '\' separates folders in the names the KMZ reader builds and also escapes: only before a wildcard.
    std::string norm;
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i] == '\\' && !(i + 1 < p.size() && (p[i + 1] == '*' || p[i + 1] == '?' || p[i + 1] == '\\')))
            norm += '/';
        else norm += p[i];
    }
    int found = 0;
    for (uint32_t i = 0; i < m_names.size(); ++i) {
        std::string have = Slashes(m_names[i]);
        if (!withPath) have = FileNameOf(have);
        if (WildcardMatch(norm, have, caseInsensitive)) {
            indices.Add(i);
            ++found;
        }
    }
    return found;
}

bool CZip::Check(uint32_t index, uint64_t& size) {
    if (!m_zip || index >= m_names.size()) return false;
    const std::string& name = m_names[index];
    if (!IsSafeName(name)) {
        Log("Archive entry \"" + name + "\" has an unsafe name; it was not extracted.");
        return false;
    }
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(m_zip, index, 0, &st) != 0) return false;
    if ((st.valid & ZIP_STAT_ENCRYPTION_METHOD) && st.encryption_method != ZIP_EM_NONE) {
        Log("Archive entry \"" + name + "\" is encrypted; it was not extracted.");
        return false;
    }
    zip_uint8_t opsys = 0;
    zip_uint32_t attr = 0;
    if (zip_file_get_external_attributes(m_zip, index, 0, &opsys, &attr) == 0 && opsys == ZIP_OPSYS_UNIX &&
        ((attr >> 16) & S_IFMT) == S_IFLNK) {
        Log("Archive entry \"" + name + "\" is a symbolic link; it was not extracted.");
        return false;
    }
    size = (st.valid & ZIP_STAT_SIZE) ? st.size : 0;
    return true;
}

namespace {
// Copies an entry through `sink`, stopping at `limit` bytes; false on a read error or when the
// entry grows past its limit.
template <typename Sink> bool Stream(struct zip* z, uint32_t index, uint64_t limit, uint64_t& done, Sink&& sink) {
    zip_file_t* f = zip_fopen_index(z, index, 0);
    if (!f) return false;
    char buf[1 << 16];
    bool ok = true;
    for (;;) {
        zip_int64_t n = zip_fread(f, buf, sizeof buf);
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0) break;
        done += static_cast<uint64_t>(n);
        if (done > limit || !sink(buf, static_cast<size_t>(n))) {
            ok = false;
            break;
        }
    }
    zip_fclose(f);
    return ok;
}
} // namespace

bool CZip::ReadFile(uint32_t index, std::vector<uint8_t>& out) {
    out.clear();
    uint64_t size = 0;
    if (!Check(index, size)) return false;
    zip_stat_t st;
    zip_stat_init(&st);
    zip_stat_index(m_zip, index, 0, &st);
    const uint64_t entryLimit = (1ull << 20) + m_ratio * ((st.valid & ZIP_STAT_COMP_SIZE) ? st.comp_size : 0);
    const uint64_t left = m_totalLimit > m_extracted ? m_totalLimit - m_extracted : 0;
    uint64_t done = 0;
    bool ok = Stream(m_zip, index, std::min(entryLimit, left), done, [&](const char* p, size_t n) {
        out.insert(out.end(), p, p + n);
        return true;
    });
    m_extracted += done;
    if (!ok) {
        Log("Archive entry \"" + m_names[index] + "\" could not be read or is larger than allowed.");
        out.clear();
    }
    return ok;
}

int CZip::ExtractFile(uint32_t index, const CXStringW& folder, bool keepFolders, const void*, bool overwrite) {
    uint64_t size = 0;
    if (!Check(index, size)) return EXTRACT_REFUSED;
    const std::string name = Slashes(m_names[index]);
    std::filesystem::path dir(PathToUtf8(folder));
    std::filesystem::path target = dir / (keepFolders ? name : FileNameOf(name));
    std::error_code ec;
    if (!name.empty() && name.back() == '/') {
        if (keepFolders) std::filesystem::create_directories(target, ec);
        return ec ? EXTRACT_FAILED : EXTRACT_OK;
    }
    if (FileNameOf(name).empty()) return EXTRACT_FAILED;
    std::filesystem::create_directories(target.parent_path(), ec);
    if (ec) return EXTRACT_FAILED;
    if (!overwrite && std::filesystem::exists(target, ec)) return EXTRACT_FAILED;
    // Never write through a link someone left in the folder.
    if (std::filesystem::is_symlink(target, ec)) std::filesystem::remove(target, ec);
    std::FILE* out = std::fopen(target.c_str(), "wb");
    if (!out) return EXTRACT_FAILED;
    zip_stat_t st;
    zip_stat_init(&st);
    zip_stat_index(m_zip, index, 0, &st);
    const uint64_t entryLimit = (1ull << 20) + m_ratio * ((st.valid & ZIP_STAT_COMP_SIZE) ? st.comp_size : 0);
    const uint64_t left = m_totalLimit > m_extracted ? m_totalLimit - m_extracted : 0;
    uint64_t done = 0;
    bool ok = Stream(m_zip, index, std::min(entryLimit, left), done,
                     [&](const char* p, size_t n) { return std::fwrite(p, 1, n, out) == n; });
    m_extracted += done;
    ok = std::fclose(out) == 0 && ok;
    if (!ok) {
        std::filesystem::remove(target, ec);
        Log("Archive entry \"" + m_names[index] + "\" could not be extracted (damaged, or larger than allowed).");
        return EXTRACT_FAILED;
    }
    return EXTRACT_OK;
}
