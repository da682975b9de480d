// Inflating gzip worlds through the host's CMiniZip into a temporary file.
#include "vrml/vrml97/import/ImportGzip.h"

#include <filesystem>

#include "plugin/host/MiniZip.h"
#include "vrml/vrml97/import/ImportConverter.h"

namespace vrml97import {

WorldFileState PrepareWorldFile(const CXStringW& path, CTempFileGuard& guard, CXStringW& fileToParse) {
    fileToParse = path;
    if (!CMiniZip::IsGZipFile(path)) return WorldFileState::Plain;
    CXStringW folder = fileStripName(path);
    if (folder.IsEmpty()) folder = L"./";
    CXStringW tmp = fileCreateTmpName(folder, L"~vrml97", L".wrl");
    if (tmp.IsEmpty()) tmp = fileCreateTmpName(CXStringW(), L"~vrml97", L".wrl");
    if (tmp.IsEmpty()) return WorldFileState::Failed;
    guard.Reset(tmp);
    std::error_code ec;
    uint64_t size = std::filesystem::file_size(PathToUtf8(path), ec);
    if (ec) size = 0;
    if (!CMiniZip::ExtractGZip(path, tmp, CMiniZip::InflateLimit(size), true)) {
        guard.Reset(CXStringW()); // ExtractGZip already removed it; make sure
        return WorldFileState::Failed;
    }
    fileToParse = tmp;
    return WorldFileState::Inflated;
}

} // namespace vrml97import
