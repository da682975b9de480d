// LXO import throughput: CLxoIo::Read on a file, best of N runs, with the counts so a
// peer's figures can be checked against ours. Make the input with `bench_lxo gen FILE`.
// The CPU time of the best run is printed too: on a shared machine it moves less than
// the wall clock.
//   bench_lxoimport FILE [N]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>

#include "formats/lxo/CLxoIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_lxoimport FILE [N]\n");
        return 2;
    }
    const int repeat = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    const double mb = double(std::filesystem::file_size(argv[1])) / 1e6;
    double best = 1e30, bestCpu = 0;
    long long points = 0, faces = 0;
    auto cpu = [] {
        timespec t{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
        return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
    };
    for (int r = 0; r < repeat; ++r) {
        CFileIo io;
        CLxoIo parser(io);
        CSceneImportOptions options;
        const double c0 = cpu();
        const auto t0 = std::chrono::steady_clock::now();
        std::unique_ptr<C3DScene> scene(parser.Read(CXStringW(Utf8ToWide(argv[1])), options));
        const auto t1 = std::chrono::steady_clock::now();
        const double c1 = cpu();
        if (!scene) {
            std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
            return 1;
        }
        const double wall = std::chrono::duration<double>(t1 - t0).count();
        if (wall < best) {
            best = wall;
            bestCpu = c1 - c0;
        }
        points = faces = 0;
        C3DNodePos pos = scene->GetFirstNode();
        while (pos.IsValid()) {
            C3DSceneNode* n = scene->GetNextNode(pos);
            if (auto* g = n->GetGeomObject()) {
                if (g->GetPointList()) points += g->GetPointList()->GetSize();
                if (g->GetFaceList()) faces += g->GetFaceList()->GetNumberOfFaces();
            }
        }
    }
    std::printf("orbiscope points=%lld faces=%lld MB=%.1f seconds=%.3f MB/s=%.0f cpu-seconds=%.3f\n", points, faces, mb,
                best, mb / best, bestCpu);
    return 0;
}
