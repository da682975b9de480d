// LXO import throughput: CLxoIo::Read on a file, best of N runs, with the counts so a
// peer's figures can be checked against ours. Make the input with `bench_lxo gen FILE`.
//   bench_lxoimport FILE [N]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
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
    double best = 1e30;
    long long points = 0, faces = 0;
    for (int r = 0; r < repeat; ++r) {
        CFileIo io;
        CLxoIo parser(io);
        CSceneImportOptions options;
        const auto t0 = std::chrono::steady_clock::now();
        std::unique_ptr<C3DScene> scene(parser.Read(CXStringW(Utf8ToWide(argv[1])), options));
        const auto t1 = std::chrono::steady_clock::now();
        if (!scene) {
            std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
            return 1;
        }
        best = std::min(best, std::chrono::duration<double>(t1 - t0).count());
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
    std::printf("orbiscope points=%lld faces=%lld MB=%.1f seconds=%.3f MB/s=%.0f\n", points, faces, mb, best,
                mb / best);
    return 0;
}
