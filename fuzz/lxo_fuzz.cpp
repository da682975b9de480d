// Fuzzes the LXO reader through the verbose dump (every handler prints), reading from memory.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "formats/lxo/LxoDump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (!in) return 0;
    static FILE* sink = std::fopen("/dev/null", "w");
    LxoDump dump(in, sink, true, "fuzz");
    dump.Read();
    return 0;
}
