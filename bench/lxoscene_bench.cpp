// LXO scene export and update throughput, and the import's peak memory against the
// scene's own arrays. Make the input with `bench_lxo gen FILE 4` (about 100 MB).
//   bench_lxoscene import FILE            peak resident memory of one import
//   bench_lxoscene export FILE OUT [N]    import once, then the best of N exports (MB written/s)
//   bench_lxoscene update FILE OUT [N]    the best of N updates replacing every mesh layer
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>

#include "formats/lxo/CLxoIo.h"
#include "formats/lxo/LxoSaver.h"
#include "plugin/host/Channel.h"
#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"

namespace {

std::unique_ptr<C3DScene> Load(const char* path) {
    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions options;
    return std::unique_ptr<C3DScene>(parser.Read(CXStringW(Utf8ToWide(path)), options));
}

// Bytes held by the meshes' arrays (points, faces, channels).
double ArrayBytes(const C3DScene& scene) {
    double bytes = 0;
    C3DNodePos pos = scene.GetFirstNode();
    while (pos.IsValid()) {
        C3DSceneNode* n = scene.GetNextNode(pos);
        const C3DGeomObject* g = n ? n->GetGeomObject() : nullptr;
        if (!g) continue;
        if (g->GetPointList()) bytes += double(g->GetPointList()->size()) * 12;
        if (g->GetFaceList()) bytes += double(g->GetFaceList()->MemoryBytes());
        for (const auto& ch : g->GetChannels()) bytes += double(ch->MemoryBytes());
    }
    return bytes;
}

double CpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

double PeakMB() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_maxrss) / 1024.0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench_lxoscene import FILE | export FILE OUT [N] | update FILE OUT [N]\n");
        return 2;
    }
    const std::string mode = argv[1];
    const double before = PeakMB();
    std::unique_ptr<C3DScene> scene = Load(argv[2]);
    if (!scene) {
        std::fprintf(stderr, "read failed\n");
        return 1;
    }
    if (mode == "import") {
        const double arrays = ArrayBytes(*scene) / 1048576.0;
        std::printf("arrays=%.1f MB peak=%.1f MB (before %.1f) ratio=%.2f\n", arrays, PeakMB(), before,
                    (PeakMB() - before) / arrays);
        return 0;
    }
    if (argc < 4) return 2;
    const int repeat = argc > 4 ? std::max(1, std::atoi(argv[4])) : 3;
    double best = 1e30, bestCpu = 0;
    for (int r = 0; r < repeat; ++r) {
        const double c0 = CpuSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        bool ok = false;
        if (mode == "export") {
            CFileIo io;
            CLxoIo parser(io);
            CSceneExportOptions options;
            parser.SaveDefaultOptions(options);
            ok = parser.Save(CXStringW(Utf8ToWide(argv[3])), scene.get(), options);
        } else {
            std::FILE* f = std::fopen(argv[3], "wb");
            if (f) std::fclose(f);
            const LxoUpdateResult u = LxoUpdateFile(argv[2], argv[3], *scene);
            ok = !u.read && !u.write && u.replaced > 0;
        }
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (!ok) {
            std::fprintf(stderr, "%s failed\n", mode.c_str());
            return 1;
        }
        if (s < best) {
            best = s;
            bestCpu = CpuSeconds() - c0;
        }
    }
    const double mb = double(std::filesystem::file_size(argv[3])) / 1e6;
    std::printf("%s MB=%.1f seconds=%.3f MB/s=%.0f cpu-seconds=%.3f peak=%.1f MB\n", mode.c_str(), mb, best, mb / best,
                bestCpu, PeakMB());
    return 0;
}
