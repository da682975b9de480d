// VRML 1.0 / Inventor benchmark: the whole CVrmlIo::Read (parse plus import into the
// host scene) of one large generated file and, with --write, the writer on the scene it
// gave. Times are the process's CPU time (the machine is shared; wall time is printed
// beside it), so that a run's peak memory belongs to the read alone without --write.
// usage: bench_vrml1 FILE.iv [--write]
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>

#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "vrml/vrml1/CVrmlIo.h"

namespace {
struct Clock {
    double cpu, wall;
    static Clock Now() {
        timespec c{}, w{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &c);
        clock_gettime(CLOCK_MONOTONIC, &w);
        return {c.tv_sec + c.tv_nsec * 1e-9, w.tv_sec + w.tv_nsec * 1e-9};
    }
};
} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3 || (argc == 3 && std::strcmp(argv[2], "--write") != 0)) {
        std::fprintf(stderr, "usage: bench_vrml1 FILE.iv [--write]\n");
        return 2;
    }
    std::filesystem::path path(argv[1]);
    const double mb = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
    CXStringW wpath(path.wstring());
    CFileIo io(wpath);
    CVrmlIo parser(io);
    CSceneImportOptions options;
    const Clock t0 = Clock::Now();
    std::unique_ptr<C3DScene> scene(parser.Read(wpath, options));
    const Clock t1 = Clock::Now();
    if (!scene) {
        std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
        return 1;
    }
    uint64_t points = 0, faces = 0, bytes = 0;
    C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH);
    C3DBaseObject* obj = nullptr;
    while (scene->GetNextNode(obj, pos)) {
        const auto* g = static_cast<const C3DGeomObject*>(obj);
        points += g->GetPointList()->size();
        faces += static_cast<uint64_t>(g->GetFaceList()->GetNumberOfFaces());
        bytes += g->GetPointList()->Raw().size() * 4 + g->GetFaceList()->GetNumberOfIndices() * 4;
    }
    const double cpu = t1.cpu - t0.cpu;
    std::printf("read %.1f MB: cpu %.3f s = %.1f MB/s (wall %.3f s); %llu points, %llu faces; geometry_bytes=%llu\n",
                mb, cpu, mb / cpu, t1.wall - t0.wall, static_cast<unsigned long long>(points),
                static_cast<unsigned long long>(faces), static_cast<unsigned long long>(bytes));
    if (argc == 3) {
        const Clock w0 = Clock::Now();
        std::string text = CVrmlIo::FormatScene(*scene);
        const Clock w1 = Clock::Now();
        const double wcpu = w1.cpu - w0.cpu;
        std::printf("write %.1f MB: cpu %.3f s = %.1f MB/s (wall %.3f s)\n", text.size() / 1e6, wcpu,
                    text.size() / 1e6 / wcpu, w1.wall - w0.wall);
    }
    return 0;
}
