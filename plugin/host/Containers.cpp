// Out-of-line pieces of the host containers.
#include "plugin/host/XArray.h"

namespace {
bool IsPrime(uint32_t n) {
    if (n < 2) return false;
    if (n < 4) return true;
    if (n % 2 == 0 || n % 3 == 0) return false;
    for (uint64_t d = 5; d * d <= n; d += 6)
        if (n % d == 0 || n % (d + 2) == 0) return false;
    return true;
}
} // namespace

uint32_t NextPrime(uint32_t n) {
    if (n <= 2) return 2;
    // 4294967291 is the largest 32-bit prime; past it there is none to give.
    if (n > 4294967291u) throw CXInvalidArgException();
    uint32_t c = n | 1u;
    while (!IsPrime(c)) c += 2;
    return c;
}
