#pragma once
// Path helpers (wide paths, UTF-8 on disk) and temporary files and folders.
#include <cstdint>
#include <string>

#include "plugin/host/XString.h"

bool fileExists(const CXStringW& path);
bool fileIsDirectory(const CXStringW& path);
bool fileDelete(const CXStringW& path);
bool fileRename(const CXStringW& from, const CXStringW& to);
bool fileIsPathRelative(const CXStringW& path);
CXStringW fileMakeAbsolutePath(const CXStringW& base, const CXStringW& relative);
CXStringW fileStripPath(const CXStringW& path); // "a/b/c.obj" -> "c.obj"
CXStringW fileStripName(const CXStringW& path); // "a/b/c.obj" -> "a/b/"
CXStringW fileRemoveExtension(const CXStringW& path);
CXStringW fileGetExtension(const CXStringW& path); // with its dot, "" when none
// A new empty file in `folder` (empty: the system's temporary folder) named prefix + owner
// + unique part + ext; the owner part names this process and host. Leftovers of the same
// prefix and ext in that folder whose process is gone (killed outright) are removed first.
CXStringW fileCreateTmpName(const CXStringW& folder, const CXStringW& prefix, const CXStringW& ext = L"");
// A new empty folder named the same way (stale folders of dead processes go first); empty
// string on failure.
CXStringW fileCreateTmpFolder(const CXStringW& parent, const CXStringW& prefix);
// Removes every temporary file and folder this process made and has not deleted (through
// fileDelete, fileRemoveDirectory or fileRename) yet: for a host that ends on a signal.
// Takes a lock, so it is for a normal thread, not for a signal handler.
void fileRemoveTmpOfThisProcess();
// Removes a folder and everything in it.
bool fileRemoveDirectory(const CXStringW& path);
CXStringW fileGetTempDirectory();
std::string PathToUtf8(const CXStringW& p);

class CFileNameSpec {
public:
    explicit CFileNameSpec(const CXStringW& path) : m_path(path) {}
    CXStringW GetName() const { return fileStripPath(m_path); }
    CXStringW GetNameWithoutExt() const { return fileRemoveExtension(fileStripPath(m_path)); }
    CXStringW GetExtension() const { return fileGetExtension(m_path); }
    CXStringW GetParentDirectory() const { return fileStripName(m_path); }
    CXStringW GetPath() const { return m_path; }
    CXStringW GetRoot() const { return m_path.GetLength() && m_path[0] == L'/' ? CXStringW(L"/") : CXStringW(); }
private:
    CXStringW m_path;
};
using CFileInfo = CFileNameSpec;

// Deletes the file when it goes out of scope (temporary files on every path).
class CTempFileGuard {
public:
    explicit CTempFileGuard(CXStringW path = {}) : m_path(std::move(path)) {}
    ~CTempFileGuard() {
        if (!m_path.IsEmpty()) fileDelete(m_path);
    }
    CTempFileGuard(const CTempFileGuard&) = delete;
    CTempFileGuard& operator=(const CTempFileGuard&) = delete;
    void Reset(CXStringW p) {
        if (!m_path.IsEmpty()) fileDelete(m_path);
        m_path = std::move(p);
    }
    const CXStringW& Path() const { return m_path; }
private:
    CXStringW m_path;
};

// GetUniqueName: `base` if not in `taken`, else base + "1", "2", ... (width-limited to maxLen chars
// by cutting the base); the result is added to `taken`.
#include "plugin/host/XArray.h"
CXStringW GetUniqueName(CHashTable<CXStringW>& taken, const CXStringW& base, int maxLen = 0);
// The same, trying suffixes from where the last call for `base` stopped: `next` goes with a
// `taken` that only grows and one maxLen, so many equal names cost one try each.
CXStringW GetUniqueName(CHashTable<CXStringW>& taken, CHashMap<CXStringW, unsigned>& next, const CXStringW& base,
                        int maxLen = 0);
