#pragma once
// gzip access on zlib (CMiniZip) with an output size limit.
#include <cstdint>

#include "plugin/host/XString.h"

class CMiniZip {
public:
    // True when the file starts with the gzip magic bytes 1F 8B.
    static bool IsGZipFile(const CXStringW& path);
    // Inflates `path` into `target`; fails (and removes `target`) on damaged input or when the
    // output would exceed `maxBytes`.
    static bool ExtractGZip(const CXStringW& path, const CXStringW& target, uint64_t maxBytes = 2ull << 30);
};
