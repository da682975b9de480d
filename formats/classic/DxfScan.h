#pragma once
// Byte-level helpers of the ASCII tag reader, inline so the per-pair loop compiles as one
// piece: line ends and decimal digits are found a word (eight bytes) at a time (the number
// part is shared with other text readers).
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "plugin/host/DecimalScan.h"

namespace dxfscan {

// Length up to the first `eol` in [p, p + left), or `left` when there is none. Values are
// mostly a few bytes long: eight bytes at a time, then the library for long lines.
inline size_t LineLength(const char* p, size_t left, char eol) {
    size_t len = 0;
    constexpr uint64_t kOnes = 0x0101010101010101ull, kHighs = 0x8080808080808080ull;
    const uint64_t pattern = kOnes * static_cast<uint8_t>(eol);
    for (int round = 0; std::endian::native == std::endian::little && round < 4 && left - len >= 8; ++round, len += 8) {
        uint64_t w;
        std::memcpy(&w, p + len, 8);
        w ^= pattern;
        // The lowest flagged byte is the first zero byte (flags above it may be false).
        const uint64_t z = (w - kOnes) & ~w & kHighs;
        if (z) return len + static_cast<size_t>(__builtin_ctzll(z) >> 3);
    }
    if (left - len >= 8) {
        const void* end = std::memchr(p + len, eol, left - len);
        return end ? static_cast<size_t>(static_cast<const char*>(end) - p) : left;
    }
    while (len < left && p[len] != eol) ++len;
    return len;
}

using decscan::DigitRun;
using decscan::DigitsValue;
using decscan::kPow10;
using decscan::kPow10Int;
using decscan::PlainDecimal;
using decscan::Word;

} // namespace dxfscan
