#pragma once
// The module's format rows as data (no format code behind them), so that the CLI and the
// tests can use them without linking a reader: the record fields, the content probe, and
// the guess of a reader from a file's extension and first bytes.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "plugin/FormatProbe.h"
#include "plugin/host/HostTypes.h"

struct FormatRow {
    const char* description;
    const char* extensions; // ".a|.b", lower case
    uint32_t typeID;
    uint32_t flags;    // FORMAT_FLAGS
    FormatProbe probe; // null for formats that are only written

    bool CanRead() const { return (flags & FORMAT_READ) != 0; }
    bool CanWrite() const { return (flags & FORMAT_WRITE) != 0; }
    uint32_t ReadProvider() const;
    uint32_t WriteProvider() const;
    // `ext` with its dot, any case.
    bool ClaimsExtension(std::string_view ext) const;
};

extern const FormatRow kFormatTable[14];
constexpr size_t kFormatCount = sizeof kFormatTable / sizeof kFormatTable[0];

// Index of the row with `typeID`, or -1.
int FindFormatIndex(uint32_t typeID);

// The readable format for a file named with `ext` (dot included, any case) whose first
// bytes are `head` and whose length is `size`: among the rows that read the extension,
// the one whose probe is most sure, the table's order breaking ties. 0 when no row reads
// the extension.
uint32_t GuessReader(std::string_view ext, std::span<const uint8_t> head, uint64_t size);
