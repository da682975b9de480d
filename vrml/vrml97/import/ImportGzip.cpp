// Inflating gzip worlds through the host's CMiniZip into a temporary file.
#include "vrml/vrml97/import/ImportGzip.h"

#include <algorithm>
#include <filesystem>

#include "plugin/host/MiniZip.h"
#include "vrml/vrml97/import/ImportConverter.h"

namespace vrml97import {

uint64_t GzipInflateLimit(uint64_t compressedBytes) {
    constexpr uint64_t kMin = 256ull << 20, kMax = 4ull << 30;
    uint64_t scaled = compressedBytes > kMax / 200 ? kMax : compressedBytes * 200;
    return std::clamp(scaled, kMin, kMax);
}

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
    if (!CMiniZip::ExtractGZip(path, tmp, GzipInflateLimit(size))) {
        guard.Reset(CXStringW()); // ExtractGZip already removed it; make sure
        return WorldFileState::Failed;
    }
    fileToParse = tmp;
    return WorldFileState::Inflated;
}

} // namespace vrml97import
