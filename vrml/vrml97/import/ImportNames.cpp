// Host names made by the VRML97 import: the shared counter, sanitising, texture paths.
#include "vrml/vrml97/import/ImportNames.h"

#include <atomic>
#include <string>

namespace vrml97import {

namespace {
// One counter for the whole process. Reads are serialised by the module's VRML97
// lock; the atomic only keeps a stray caller from tearing it.
std::atomic<uint32_t> g_nameCounter{0};
constexpr int kMaxNameLength = 255;
constexpr int kMaxPathLength = 4096;
} // namespace

uint32_t NextNameNumber() { return ++g_nameCounter; }

CXStringW NumberedName(const wchar_t* prefix) {
    return CXStringW(std::wstring(prefix) + std::to_wstring(NextNameNumber()));
}

CXStringW SanitizeName(std::string_view defName) {
    std::wstring w = Utf8ToWide(defName);
    if (w.size() > static_cast<size_t>(kMaxNameLength)) w.resize(kMaxNameLength);
    for (wchar_t& c : w)
        if (c == L'#' || c == L'-' || c == L':') c = L'_';
    return CXStringW(std::move(w));
}

CXStringW JoinPath(const CXStringW& parent, const CXStringW& name) {
    std::wstring p = parent.str();
    p += L'|';
    p += name.str();
    if (p.size() > static_cast<size_t>(kMaxPathLength)) p.resize(kMaxPathLength);
    return CXStringW(std::move(p));
}

CXStringW RewriteTexturePath(const CXStringW& url) {
    CXStringW p = url;
    p.Replace(L"\\\\", L"\\");
    p.Replace(L"asset:", L".\\");
    if (p.Find(L':') >= 0) p.Replace(L":", L":\\"); // a drive path keeps a doubled separator after the colon
    else p = L".\\" + p;
    p.Replace(L'/', L'\\');
    return p;
}

bool IsGeneratedName(std::string_view name) {
    if (name.size() < 3 || name[0] != '0' || name[1] != 'x') return false;
    for (size_t i = 2; i < name.size(); ++i) {
        char c = name[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return false;
    }
    return true;
}

} // namespace vrml97import
