#include "plugin/host/TextHelpers.h"

#include <cstring>

// Whole-buffer UTF-8 check with an 8-bytes-at-a-time ASCII path.
bool IsValidUtf8(std::string_view s) {
    const auto* p = reinterpret_cast<const uint8_t*>(s.data());
    const size_t n = s.size();
    size_t i = 0;
    while (i < n) {
        if (i + 8 <= n) {
            uint64_t w;
            std::memcpy(&w, p + i, 8);
            if ((w & 0x8080808080808080ull) == 0) {
                i += 8;
                continue;
            }
        }
        uint8_t b = p[i];
        if (b < 0x80) {
            ++i;
            continue;
        }
        int need;
        uint8_t lo = 0x80, hi = 0xBF;
        if (b >= 0xC2 && b <= 0xDF) need = 1;
        else if (b == 0xE0) {
            need = 2;
            lo = 0xA0;
        } else if ((b >= 0xE1 && b <= 0xEC) || b == 0xEE || b == 0xEF) need = 2;
        else if (b == 0xED) {
            need = 2;
            hi = 0x9F;
        } else if (b == 0xF0) {
            need = 3;
            lo = 0x90;
        } else if (b >= 0xF1 && b <= 0xF3) need = 3;
        else if (b == 0xF4) {
            need = 3;
            hi = 0x8F;
        } else return false;
        if (n - i - 1 < static_cast<size_t>(need)) return false;
        if (p[i + 1] < lo || p[i + 1] > hi) return false;
        for (int k = 2; k <= need; ++k)
            if ((p[i + static_cast<size_t>(k)] & 0xC0) != 0x80) return false;
        i += static_cast<size_t>(need) + 1;
    }
    return true;
}
void AppendLatin1(std::string& out, std::wstring_view s) {
    out.reserve(out.size() + s.size());
    for (wchar_t c : s) out += NarrowLatin1(c);
}
