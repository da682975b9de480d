#pragma once
// The module's fourteen file type records, in the order the host lists them.
#include <cstdint>

struct FormatRow {
    const char* description;
    const char* extensions;
    uint32_t typeID;
    uint32_t flags;
    uint32_t readProvider;
    uint32_t writeProvider;
};

extern const FormatRow kFormatTable[14];
