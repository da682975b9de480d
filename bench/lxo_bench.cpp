// LXO throughput: generates a large scene with our own writer (deterministic, never
// committed), then times the terse and verbose dump, a parse-only walk and the copy.
//   bench_lxo                     generate into /tmp and run every measurement
//   bench_lxo gen FILE [LAYERS]   write the scene (LAYERS mesh layers of ~23 MB each)
//   bench_lxo dump FILE [-v]      terse (or verbose) dump to /dev/null
//   bench_lxo walk FILE           parse every chunk, no output
//   bench_lxo copy SRC DST [N]    the CLI's copy (updater, empty table), best of N timed
// Run a single mode under /usr/bin/time -v for the peak resident memory.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "formats/lxo/LxoCopy.h"
#include "formats/lxo/LxoDump.h"
#include "formats/lxo/LxoReader.h"
#include "formats/lxo/LxoWriter.h"

namespace {

// A small deterministic generator (xorshift), so every run writes the same bytes.
struct Rng {
    uint32_t s = 0x12345678u;
    uint32_t Next() {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return s;
    }
    float Unit() { return float(Next() & 0xFFFFFF) / float(0x1000000); }
};

void Generate(const std::string& path, int layers, uint32_t gridSide) {
    using namespace lxoid;
    LxoWriter w(path.c_str());
    LxoFileChunk form(w);
    { LxoVersionChunk c(w, 2, 1, "orbiscope bench"); }
    { LxoTagsChunk c(w, {"Default", "Metal", "Glass"}); }
    Rng rng;
    const uint32_t n = gridSide * gridSide;
    std::vector<float> pts(size_t(n) * 3);
    for (int l = 0; l < layers; ++l) {
        LxoLayerInfo info;
        info.index = uint16_t(l + 1);
        info.referenceID = uint32_t(l);
        info.flags = 0x105;
        { LxoLayerChunk c(w, info); }
        for (uint32_t i = 0; i < n; ++i) {
            pts[3 * i] = float(i % gridSide) + rng.Unit() * 0.1f;
            pts[3 * i + 1] = float(i / gridSide);
            pts[3 * i + 2] = rng.Unit();
        }
        { LxoPointsChunk c(w, pts.data(), n); }
        {
            LxoChunk c(w, BBOX);
            const float b[6] = {0, 0, 0, float(gridSide), float(gridSide), 1};
            w.WriteF4(b, 6);
        }
        {
            LxoChunk c(w, VMPA);
            w.WriteU4(1);
            w.WriteU4(6);
        }
        {
            LxoVertexMapChunk c(w, TXUV, 2, "Texture");
            for (uint32_t i = 0; i < n; ++i) {
                const float uv[2] = {float(i % gridSide) / gridSide, float(i / gridSide) / gridSide};
                c.Add(i, uv);
            }
        }
        uint32_t faces = 0;
        {
            LxoPolygonsChunk c(w, FACE);
            for (uint32_t y = 0; y + 1 < gridSide; ++y)
                for (uint32_t x = 0; x + 1 < gridSide; ++x) {
                    const uint32_t q[4] = {y * gridSide + x, y * gridSide + x + 1, (y + 1) * gridSide + x + 1,
                                           (y + 1) * gridSide + x};
                    c.AddPolygon(q, 4);
                    ++faces;
                }
        }
        {
            LxoPolyTagChunk c(w, MATR);
            for (uint32_t f = 0; f < faces; ++f) c.Add(f, rng.Next() % 3);
        }
    }
    { LxoChannelNamesChunk c(w, {"unknown", "size", "pos", "rot", "visible"}); }
    for (int l = 0; l < layers; ++l) {
        LxoChunk c(w, ITEM);
        uint32_t ref = uint32_t(l);
        w.WriteItemHeader("mesh", "", ref, false);
        { LxoUniqueSubChunk s(w, "mesh" + std::to_string(l)); }
        { LxoLayerSubChunk s(w, uint32_t(l + 1), 5, 0xc8c8c8ff); }
        { LxoChannelValueSubChunk s(w, "size", 1.0f); }
        { LxoChannelValueSubChunk s(w, "visible", int32_t(1)); }
    }
    if (uint32_t r = w.Finish()) std::fprintf(stderr, "generation failed: 0x%08x\n", r);
}

double Seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

uint32_t RunDump(const std::string& file, bool verbose) {
    LxoDump d(file.c_str(), "/dev/null", verbose);
    return d.Read();
}

uint32_t RunWalk(const std::string& file) {
    LxoReader r(file.c_str());
    return r.Read();
}

uint32_t RunCopy(const std::string& src, const std::string& dst) {
    LxoUpdater up(src.c_str(), dst.c_str());
    const uint32_t r = up.Read();
    const uint32_t w = up.Writer() ? up.Writer()->Finish() : LXO_ERR_WRITE;
    return r ? r : w;
}

template <typename F> void Measure(const char* what, double mb, F f, int runs = 3) {
    double best = 1e30;
    uint32_t r = 0;
    for (int i = 0; i < runs; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        r = f();
        best = std::min(best, Seconds(t0));
    }
    std::printf("%-22s %8.3f s  %8.1f MB/s  (result 0x%x)\n", what, best, mb / best, r);
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "gen" && argc >= 3) {
        Generate(argv[2], argc >= 4 ? std::atoi(argv[3]) : 5, 708);
        return 0;
    }
    if (mode == "dump" && argc >= 3) return RunDump(argv[2], argc >= 4 && !std::strcmp(argv[3], "-v")) ? 1 : 0;
    if (mode == "walk" && argc >= 3) return RunWalk(argv[2]) ? 1 : 0;
    if (mode == "copy" && argc >= 4) {
        if (argc < 5) return RunCopy(argv[2], argv[3]) ? 1 : 0;
        const double mb = double(std::filesystem::file_size(argv[2])) / 1e6;
        Measure(
            "copy (updater)", mb, [&] { return RunCopy(argv[2], argv[3]); }, std::max(1, std::atoi(argv[4])));
        return 0;
    }
    if (!mode.empty()) {
        std::fprintf(stderr, "usage: bench_lxo [gen FILE [LAYERS] | dump FILE [-v] | walk FILE | copy SRC DST [N]]\n");
        return 2;
    }

    const std::string dir = (std::filesystem::temp_directory_path() / "orbiscope-lxo-bench").string();
    std::filesystem::create_directories(dir);
    const std::string file = dir + "/big.lxo", copy = dir + "/copy.lxo";
    auto t0 = std::chrono::steady_clock::now();
    Generate(file, 5, 708);
    const double mb = double(std::filesystem::file_size(file)) / 1e6;
    std::printf("generated %s: %.1f MB in %.2f s (written by LxoWriter: %.1f MB/s)\n", file.c_str(), mb, Seconds(t0),
                mb / Seconds(t0));
    RunWalk(file); // warm the page cache
    Measure("walk (parse only)", mb, [&] { return RunWalk(file); });
    Measure("dump terse", mb, [&] { return RunDump(file, false); });
    Measure("copy (updater)", mb, [&] { return RunCopy(file, copy); });
    Measure("dump verbose", mb, [&] { return RunDump(file, true); });
    const bool same = std::filesystem::file_size(copy) == std::filesystem::file_size(file);
    std::printf("copy size matches source: %s\n", same ? "yes" : "no");
    std::filesystem::remove_all(dir);
    return 0;
}
