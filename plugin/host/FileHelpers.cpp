// Path helpers and temporary files. Paths are wide at the interface and UTF-8 on
// disk. Names taken from files written on Windows carry backslashes, so the
// splitting helpers treat '\' as a separator too; temporary names are created with
// O_EXCL semantics (mkstemps / mkdtemp), never guessed and then opened. A temporary
// name carries its owner ("p<pid>h<host hash>-"), so a process killed outright leaves
// nothing that the next one in that folder cannot recognise and remove; names still in
// use are remembered so that a host ending on a signal can remove them.
#include "plugin/host/FileHelpers.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <set>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
bool IsSep(wchar_t c) { return c == L'/' || c == L'\\'; }

int LastSep(const CXStringW& p) {
    for (int i = p.GetLength() - 1; i >= 0; --i)
        if (IsSep(p[i])) return i;
    return -1;
}

bool CopyFileBytes(const std::string& from, const std::string& to) {
    int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    struct stat st;
    if (fstat(in, &st) != 0) {
        ::close(in);
        return false;
    }
    int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 0777);
    if (out < 0) {
        ::close(in);
        return false;
    }
    std::vector<char> buf(1 << 20);
    bool ok = true;
    for (;;) {
        ssize_t r = ::read(in, buf.data(), buf.size());
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            ok = false;
            break;
        }
        if (r == 0) break;
        for (ssize_t done = 0; done < r;) {
            ssize_t w = ::write(out, buf.data() + done, static_cast<size_t>(r - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                ok = false;
                break;
            }
            done += w;
        }
        if (!ok) break;
    }
    ::close(in);
    if (::close(out) != 0) ok = false;
    if (!ok) ::unlink(to.c_str());
    return ok;
}

std::string FolderOrTemp(const CXStringW& folder) {
    std::string f = PathToUtf8(folder.IsEmpty() ? fileGetTempDirectory() : folder);
    if (f.empty() || f.back() != '/') f += '/';
    return f;
}

// Temporary names made by this process and not deleted yet. Never destroyed: a signal
// watcher may still use them while the process runs its exit handlers.
std::mutex& LiveLock() {
    static auto* m = new std::mutex;
    return *m;
}
std::set<std::string>& Live() {
    static auto* s = new std::set<std::string>;
    return *s;
}
void Forget(const std::string& path) {
    std::lock_guard<std::mutex> lock(LiveLock());
    Live().erase(path);
}

// The host part of the owner tag: one folder may be shared between machines, where a
// pid says nothing.
uint32_t HostHash() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) name[0] = 0;
    uint32_t h = 2166136261u;
    for (const char* c = name; *c; ++c) h = (h ^ static_cast<unsigned char>(*c)) * 16777619u;
    return h;
}

std::string OwnerTag(long pid) {
    char tag[48];
    std::snprintf(tag, sizeof tag, "p%ldh%08x-", pid, HostHash());
    return tag;
}

// Parses `name` as prefix + owner tag + six characters + ext; the owner's pid, or 0.
long StaleOwner(const std::string& name, const std::string& prefix, const std::string& ext, uint32_t host) {
    if (name.size() < prefix.size() + ext.size() || name.compare(0, prefix.size(), prefix) != 0) return 0;
    if (name.compare(name.size() - ext.size(), ext.size(), ext) != 0) return 0;
    const std::string mid = name.substr(prefix.size(), name.size() - prefix.size() - ext.size());
    size_t i = 0;
    if (mid.size() < 2 || mid[i++] != 'p') return 0;
    long pid = 0;
    const size_t digits = i;
    while (i < mid.size() && mid[i] >= '0' && mid[i] <= '9' && i - digits < 9) pid = pid * 10 + (mid[i++] - '0');
    if (i == digits || i >= mid.size() || mid[i++] != 'h') return 0;
    uint32_t h = 0;
    for (int k = 0; k < 8; ++k, ++i) {
        if (i >= mid.size()) return 0;
        const char c = mid[i];
        const int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (v < 0) return 0;
        h = (h << 4) | uint32_t(v);
    }
    if (i >= mid.size() || mid[i++] != '-' || mid.size() - i != 6 || h != host) return 0;
    for (; i < mid.size(); ++i)
        if (!std::isalnum(static_cast<unsigned char>(mid[i]))) return 0;
    return pid;
}

// Removes this user's leftovers named like ours (same prefix and ext) whose process has ended.
void RemoveStale(const std::string& folder, const std::string& prefix, const std::string& ext, bool folders) {
    if (prefix.empty()) return; // without a prefix the names would not be ours to judge
    DIR* d = ::opendir(folder.c_str());
    if (!d) return;
    const uint32_t host = HostHash();
    std::vector<std::string> gone;
    while (const dirent* e = ::readdir(d)) {
        const long pid = StaleOwner(e->d_name, prefix, ext, host);
        if (pid <= 0 || pid == static_cast<long>(::getpid())) continue;
        if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue; // alive, or not ours to ask
        gone.push_back(folder + e->d_name);
    }
    ::closedir(d);
    for (const auto& path : gone) {
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0 || st.st_uid != ::geteuid()) continue;
        if (folders && S_ISDIR(st.st_mode)) {
            std::error_code ec;
            std::filesystem::remove_all(path, ec);
        } else if (!folders && S_ISREG(st.st_mode)) {
            ::unlink(path.c_str());
        }
    }
}
} // namespace

std::string PathToUtf8(const CXStringW& p) { return WideToUtf8(p.view()); }

bool fileExists(const CXStringW& path) {
    struct stat st;
    return !path.IsEmpty() && ::stat(PathToUtf8(path).c_str(), &st) == 0;
}

bool fileIsDirectory(const CXStringW& path) {
    struct stat st;
    return !path.IsEmpty() && ::stat(PathToUtf8(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool fileDelete(const CXStringW& path) {
    if (path.IsEmpty()) return false;
    const std::string p = PathToUtf8(path);
    const bool ok = ::unlink(p.c_str()) == 0;
    if (ok || errno == ENOENT) Forget(p);
    return ok;
}

bool fileRename(const CXStringW& from, const CXStringW& to) {
    if (from.IsEmpty() || to.IsEmpty()) return false;
    std::string f = PathToUtf8(from), t = PathToUtf8(to);
    if (::rename(f.c_str(), t.c_str()) == 0) {
        Forget(f);
        return true;
    }
    // Across file systems rename cannot work: copy, then remove the source.
    if (errno != EXDEV) return false;
    struct stat st;
    if (::stat(f.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (!CopyFileBytes(f, t)) return false;
    ::unlink(f.c_str());
    Forget(f);
    return true;
}

bool fileIsPathRelative(const CXStringW& path) { return path.IsEmpty() || path[0] != L'/'; }

CXStringW fileMakeAbsolutePath(const CXStringW& base, const CXStringW& relative) {
    std::wstring rel = relative.str();
    for (auto& c : rel)
        if (c == L'\\') c = L'/';
    std::wstring joined;
    if (!rel.empty() && rel[0] == L'/') {
        joined = rel;
    } else {
        std::wstring b = base.str();
        if (b.empty() || b[0] != L'/') {
            std::error_code ec;
            auto cwd = std::filesystem::current_path(ec);
            std::wstring c = ec ? std::wstring(L"/") : Utf8ToWide(cwd.string());
            b = b.empty() ? c : c + L"/" + b;
        }
        joined = b + L"/" + rel;
    }
    // Lexical clean-up: drop "." and empty parts, let ".." climb (never above the root).
    std::vector<std::wstring> parts;
    size_t i = 0;
    while (i <= joined.size()) {
        size_t j = joined.find(L'/', i);
        if (j == std::wstring::npos) j = joined.size();
        std::wstring part = joined.substr(i, j - i);
        if (part == L"..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != L".") {
            parts.push_back(std::move(part));
        }
        i = j + 1;
    }
    std::wstring out;
    for (const auto& p : parts) out += L"/" + p;
    if (out.empty()) out = L"/";
    return CXStringW(out);
}

CXStringW fileStripPath(const CXStringW& path) {
    int s = LastSep(path);
    return s < 0 ? path : path.Mid(s + 1);
}

CXStringW fileStripName(const CXStringW& path) {
    int s = LastSep(path);
    return s < 0 ? CXStringW() : path.Left(s + 1);
}

CXStringW fileRemoveExtension(const CXStringW& path) {
    int s = LastSep(path);
    int d = path.ReverseFind(L'.');
    // A dot that starts the name (".hidden") is not an extension.
    if (d <= s + 1) return path;
    return path.Left(d);
}

CXStringW fileGetExtension(const CXStringW& path) {
    int s = LastSep(path);
    int d = path.ReverseFind(L'.');
    if (d <= s + 1) return CXStringW();
    return path.Mid(d);
}

CXStringW fileGetTempDirectory() {
    const char* t = std::getenv("TMPDIR");
    if (t && t[0] == '/') {
        struct stat st;
        if (::stat(t, &st) == 0 && S_ISDIR(st.st_mode)) {
            std::string s = t;
            while (s.size() > 1 && s.back() == '/') s.pop_back();
            return CXStringW(Utf8ToWide(s));
        }
    }
    return CXStringW(L"/tmp");
}

CXStringW fileCreateTmpName(const CXStringW& folder, const CXStringW& prefix, const CXStringW& ext) {
    const std::string suffix = PathToUtf8(ext), dir = FolderOrTemp(folder), pre = PathToUtf8(prefix);
    RemoveStale(dir, pre, suffix, false);
    std::string tmpl = dir + pre + OwnerTag(::getpid()) + "XXXXXX" + suffix;
    // Created and remembered under the lock: a signal's clean-up never runs in between.
    std::lock_guard<std::mutex> lock(LiveLock());
    int fd = mkostemps(tmpl.data(), static_cast<int>(suffix.size()), O_CLOEXEC);
    if (fd < 0) return CXStringW();
    ::close(fd);
    Live().insert(tmpl);
    return CXStringW(Utf8ToWide(tmpl));
}

CXStringW fileCreateTmpFolder(const CXStringW& parent, const CXStringW& prefix) {
    const std::string dir = FolderOrTemp(parent), pre = PathToUtf8(prefix);
    RemoveStale(dir, pre, "", true);
    std::string tmpl = dir + pre + OwnerTag(::getpid()) + "XXXXXX";
    std::lock_guard<std::mutex> lock(LiveLock());
    if (!mkdtemp(tmpl.data())) return CXStringW();
    Live().insert(tmpl);
    return CXStringW(Utf8ToWide(tmpl));
}

bool fileRemoveDirectory(const CXStringW& path) {
    if (path.IsEmpty()) return false;
    std::filesystem::path p(PathToUtf8(path));
    std::error_code ec;
    // symlink_status: a link to a folder is removed as a link, its target untouched.
    const auto st = std::filesystem::symlink_status(p, ec);
    if (st.type() == std::filesystem::file_type::not_found) Forget(p.string());
    if (!std::filesystem::is_directory(st)) return false;
    std::filesystem::remove_all(p, ec);
    if (!ec) Forget(p.string());
    return !ec;
}

void fileRemoveTmpOfThisProcess() {
    std::lock_guard<std::mutex> lock(LiveLock());
    for (const auto& path : Live()) {
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            // A writer may still be adding files: retry until the folder itself is gone,
            // after which nothing can be created in it.
            std::error_code ec;
            for (int tries = 0; tries < 20 && std::filesystem::remove_all(path, ec) == static_cast<std::uintmax_t>(-1);)
                ++tries;
        } else {
            ::unlink(path.c_str());
        }
    }
    Live().clear();
}

namespace {
CXStringW FitName(const CXStringW& base, const CXStringW& suffix, int maxLen) {
    CXStringW b = base;
    if (maxLen > 0 && b.GetLength() + suffix.GetLength() > maxLen) b = b.Left(std::max(0, maxLen - suffix.GetLength()));
    return b + suffix;
}
} // namespace

CXStringW GetUniqueName(CHashTable<CXStringW>& taken, const CXStringW& base, int maxLen) {
    CXStringW name = FitName(base, CXStringW(), maxLen);
    for (unsigned n = 1; taken.Contains(name); ++n) name = FitName(base, CXStringW(std::to_wstring(n)), maxLen);
    taken.Add(name);
    return name;
}

CXStringW GetUniqueName(CHashTable<CXStringW>& taken, CHashMap<CXStringW, unsigned>& next, const CXStringW& base,
                        int maxLen) {
    CXStringW name = FitName(base, CXStringW(), maxLen);
    if (taken.Contains(name)) {
        const unsigned* from = next.Find(base);
        unsigned n = from ? *from : 1;
        do name = FitName(base, CXStringW(std::to_wstring(n++)), maxLen);
        while (taken.Contains(name));
        next.SetAt(base, n);
    }
    taken.Add(name);
    return name;
}
