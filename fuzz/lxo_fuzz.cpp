// Fuzzes the LXO reader through the verbose dump (every handler prints), reading from
// memory, then the updater (raw copies and the item sub-chunk path) between two
// in-memory files reached through /proc/self/fd.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "formats/lxo/LxoCopy.h"
#include "formats/lxo/LxoDump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (!in) return 0;
    static FILE* sink = std::fopen("/dev/null", "w");
    {
        LxoDump dump(in, sink, true, "fuzz");
        dump.Read();
    }

    static int src = memfd_create("lxo-src", 0);
    static int dst = memfd_create("lxo-dst", 0);
    if (src < 0 || dst < 0) return 0;
    if (ftruncate(src, 0) != 0 || pwrite(src, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    const std::string srcPath = "/proc/self/fd/" + std::to_string(src);
    const std::string dstPath = "/proc/self/fd/" + std::to_string(dst);
    LxoUpdater up(srcPath.c_str(), dstPath.c_str());
    up.Read();
    return 0;
}
