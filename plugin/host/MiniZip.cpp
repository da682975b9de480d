// gzip extraction on zlib. Concatenated members are inflated one after the other
// (as gzip -d does); bytes after the last member that do not start another member
// are ignored, as gzip does. The output is capped, and a failed extraction never
// leaves a partial target behind.
#include "plugin/host/MiniZip.h"

#include <algorithm>
#include <unistd.h>
#include <vector>
#include <zlib.h>

#include "plugin/host/Cancel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"

bool CMiniZip::IsGZipFile(const CXStringW& path) {
    IoFile f(true);
    if (!f.OpenFile(path, true)) return false;
    auto d = f.GetData();
    return d.size() >= 2 && d[0] == 0x1F && d[1] == 0x8B;
}

namespace {
// Hands every inflated block to sink(data, size), which returns false to stop.
// Fails on damaged or truncated input, when the sink stops, and when the output
// would go past maxBytes.
template <class Sink> bool Inflate(std::span<const uint8_t> in, uint64_t maxBytes, Sink&& sink) {
    if (in.size() < 2 || in[0] != 0x1F || in[1] != 0x8B) return false;
    z_stream zs{};
    if (inflateInit2(&zs, 16 + MAX_WBITS) != Z_OK) return false;
    std::vector<uint8_t> buf(1 << 18);
    uint64_t total = 0;
    size_t pos = 0;
    bool ok = true;
    while (ok) {
        // zlib counts in 32-bit units: feed at most 1 GiB at a time.
        size_t chunk = std::min<size_t>(in.size() - pos, size_t(1) << 30);
        zs.next_in = const_cast<Bytef*>(in.data() + pos);
        zs.avail_in = static_cast<uInt>(chunk);
        zs.next_out = buf.data();
        zs.avail_out = static_cast<uInt>(buf.size());
        int r = inflate(&zs, Z_NO_FLUSH);
        size_t used = chunk - zs.avail_in;
        pos += used;
        size_t produced = buf.size() - zs.avail_out;
        total += produced;
        if (total > maxBytes || (produced && !sink(buf.data(), produced))) {
            ok = false;
            break;
        }
        if (r == Z_STREAM_END) {
            // Another member follows only if its magic does.
            if (in.size() - pos >= 2 && in[pos] == 0x1F && in[pos + 1] == 0x8B) {
                if (inflateReset(&zs) != Z_OK) ok = false;
                continue;
            }
            break;
        }
        if (r == Z_OK) continue;
        if (r == Z_BUF_ERROR && produced == 0 && used == 0) {
            // No progress possible: the input ended inside a member.
            ok = false;
            break;
        }
        if (r != Z_BUF_ERROR) ok = false;
    }
    inflateEnd(&zs);
    return ok;
}
} // namespace

bool CMiniZip::ExtractGZip(const CXStringW& path, const CXStringW& target, uint64_t maxBytes, bool targetExists) {
    // The file is a reader's temporary: the reader checks for cancel once it is there and
    // says so with its own result, so the thread's cancel must not cut the file short (a
    // cancelled write would read as a damaged archive).
    struct NoCancel {
        std::atomic<bool>* token = GetThreadCancelToken();
        NoCancel() { SetThreadCancelToken(nullptr); }
        ~NoCancel() { SetThreadCancelToken(token); }
    } noCancel;
    IoFile in(true);
    if (!in.OpenFile(path, true)) return false;
    IoFile out(true);
    if (!(targetExists ? out.RewriteFile(target) : out.OpenFile(target, false))) return false;
    bool ok = Inflate(in.GetData(), maxBytes, [&out](const uint8_t* p, size_t n) { return out.FileWrite(p, n); });
    ok = out.CloseFile() && ok;
    if (!ok) fileDelete(target);
    return ok;
}

bool CMiniZip::InflateGZip(const CXStringW& path, std::string& out, uint64_t maxBytes) {
    out.clear();
    IoFile in(true);
    if (!in.OpenFile(path, true)) return false;
    return InflateGZip(in.GetData(), out, maxBytes);
}

bool CMiniZip::InflateGZip(std::span<const uint8_t> data, std::string& out, uint64_t maxBytes) {
    out.clear();
    // First pass: the size only. A bomb stops at the limit having stored nothing.
    uint64_t total = 0;
    if (!Inflate(data, maxBytes, [&total](const uint8_t*, size_t n) {
            total += n;
            return true;
        }))
        return false;
    if (total > out.max_size()) return false;
    out.reserve(static_cast<size_t>(total));
    bool ok = Inflate(data, total, [&out](const uint8_t* p, size_t n) {
        out.append(reinterpret_cast<const char*>(p), n);
        return true;
    });
    if (!ok || out.size() != total) {
        out.clear();
        out.shrink_to_fit();
        return false;
    }
    return true;
}

uint64_t CMiniZip::InflateLimit(uint64_t compressedBytes) {
    constexpr uint64_t kMin = 256ull << 20, kMax = 4ull << 30, kRatio = 200;
    uint64_t scaled = compressedBytes > kMax / kRatio ? kMax : compressedBytes * kRatio;
    return std::clamp(scaled, kMin, kMax);
}
