// Collada benchmark: the host's CColladaIo::Read of one document, best of N reads, with
// the scene's geometry size. The peer is run separately (peer_assimp_read FILE N).
// usage: bench_collada FILE.dae [RUNS]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include <sys/resource.h>

#include "plugin/host/ColladaIo.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_collada FILE.dae [RUNS]\n");
        return 2;
    }
    const std::filesystem::path path(argv[1]);
    const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    const double mb = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
    const CXStringW wpath(path.wstring());
    double best = 1e30;
    uint64_t points = 0, faces = 0, bytes = 0, sceneBytes = 0;
    for (int r = 0; r < runs; ++r) {
        CFileIo io(wpath);
        CColladaIo parser(io);
        CSceneImportOptions options;
        auto t0 = std::chrono::steady_clock::now();
        std::unique_ptr<C3DScene> scene(parser.Read(wpath, options));
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        if (!scene) {
            std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
            return 1;
        }
        points = faces = bytes = 0;
        sceneBytes = scene->MemoryBytes();
        C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH);
        C3DBaseObject* obj = nullptr;
        while (scene->GetNextNode(obj, pos)) {
            const auto* g = static_cast<const C3DGeomObject*>(obj);
            points += g->GetPointList()->size();
            faces += static_cast<uint64_t>(g->GetFaceList()->GetNumberOfFaces());
            bytes += g->GetPointList()->Raw().size() * 4 + g->GetFaceList()->GetNumberOfIndices() * 4;
        }
    }
    // Peak resident memory of the whole run (one scene alive at a time) beside the scene's arrays.
    struct rusage ru {};
    getrusage(RUSAGE_SELF, &ru);
    std::printf("read %.1f MB, best of %d: %.6f s = %.1f MB/s; %llu points, %llu faces, geometry %.1f MB, "
                "scene arrays %.1f MB, peak RSS %.1f MB\n",
                mb, runs, best, mb / best, static_cast<unsigned long long>(points),
                static_cast<unsigned long long>(faces), bytes / 1e6, sceneBytes / 1e6, ru.ru_maxrss / 1e3);
    return 0;
}
