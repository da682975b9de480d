// Path helpers and temporary files. Paths are wide at the interface and UTF-8 on
// disk. Names taken from files written on Windows carry backslashes, so the
// splitting helpers treat '\' as a separator too; temporary names are created with
// O_EXCL semantics (mkstemps / mkdtemp), never guessed and then opened.
#include "plugin/host/FileHelpers.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
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
        if (r < 0) { ok = false; break; }
        if (r == 0) break;
        for (ssize_t done = 0; done < r;) {
            ssize_t w = ::write(out, buf.data() + done, static_cast<size_t>(r - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) { ok = false; break; }
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

bool fileDelete(const CXStringW& path) { return !path.IsEmpty() && ::unlink(PathToUtf8(path).c_str()) == 0; }

bool fileRename(const CXStringW& from, const CXStringW& to) {
    if (from.IsEmpty() || to.IsEmpty()) return false;
    std::string f = PathToUtf8(from), t = PathToUtf8(to);
    if (::rename(f.c_str(), t.c_str()) == 0) return true;
    // Across file systems rename cannot work: copy, then remove the source.
    if (errno != EXDEV) return false;
    struct stat st;
    if (::stat(f.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (!CopyFileBytes(f, t)) return false;
    ::unlink(f.c_str());
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
    std::string suffix = PathToUtf8(ext);
    std::string tmpl = FolderOrTemp(folder) + PathToUtf8(prefix) + "XXXXXX" + suffix;
    int fd = mkostemps(tmpl.data(), static_cast<int>(suffix.size()), O_CLOEXEC);
    if (fd < 0) return CXStringW();
    ::close(fd);
    return CXStringW(Utf8ToWide(tmpl));
}

CXStringW fileCreateTmpFolder(const CXStringW& parent, const CXStringW& prefix) {
    std::string tmpl = FolderOrTemp(parent) + PathToUtf8(prefix) + "XXXXXX";
    if (!mkdtemp(tmpl.data())) return CXStringW();
    return CXStringW(Utf8ToWide(tmpl));
}

bool fileRemoveDirectory(const CXStringW& path) {
    if (path.IsEmpty()) return false;
    std::filesystem::path p(PathToUtf8(path));
    std::error_code ec;
    // symlink_status: a link to a folder is removed as a link, its target untouched.
    if (!std::filesystem::is_directory(std::filesystem::symlink_status(p, ec))) return false;
    std::filesystem::remove_all(p, ec);
    return !ec;
}

CXStringW GetUniqueName(CHashTable<CXStringW>& taken, const CXStringW& base, int maxLen) {
    auto fit = [&](const CXStringW& suffix) {
        CXStringW b = base;
        if (maxLen > 0 && b.GetLength() + suffix.GetLength() > maxLen)
            b = b.Left(std::max(0, maxLen - suffix.GetLength()));
        return b + suffix;
    };
    CXStringW name = fit(CXStringW());
    for (unsigned n = 1; taken.Contains(name); ++n) name = fit(CXStringW(std::to_wstring(n)));
    taken.Add(name);
    return name;
}
