#pragma once
// gzip access on zlib (CMiniZip) with an output size limit.
#include <cstdint>
#include <span>
#include <string>

#include "plugin/host/XString.h"

class CMiniZip {
public:
    // True when the file starts with the gzip magic bytes 1F 8B.
    static bool IsGZipFile(const CXStringW& path);
    // Inflates `path` into `target`; fails (and removes `target`) on damaged input or when the
    // output would exceed `maxBytes`. With `targetExists` the target is a temporary name
    // made beforehand and is never created again (a signal's clean-up may have removed it).
    static bool ExtractGZip(const CXStringW& path, const CXStringW& target, uint64_t maxBytes = 2ull << 30,
                            bool targetExists = false);
    // Inflates `path` into memory. Fails, leaving `out` empty, on damaged or truncated input and
    // when the output would exceed `maxBytes` (a cut-off output is never a success). The size
    // is measured before anything is stored, so memory never goes beyond the inflated size and a
    // file that inflates past the limit costs no memory at all.
    static bool InflateGZip(const CXStringW& path, std::string& out, uint64_t maxBytes);
    static bool InflateGZip(std::span<const uint8_t> data, std::string& out, uint64_t maxBytes);
    // True when `data` starts with the gzip magic bytes.
    static bool IsGZipData(std::span<const uint8_t> data) {
        return data.size() >= 2 && data[0] == 0x1F && data[1] == 0x8B;
    }
    // What a gzip file of `compressedBytes` may inflate to: 200 times its size, at least
    // 256 MiB, at most 4 GiB (deflate's best ratio is about 1000:1, real files stay far below).
    static uint64_t InflateLimit(uint64_t compressedBytes);
};
