// trueSpace read benchmark: reads a big binary file (made by bench/cob_gen.py) with our
// reader and with Assimp's, each in a fresh process from the page cache, in the same
// run; reports MB/s, the speed ratio and our peak memory against the scene's arrays.
//
//   bench_cob FILE [--runs R]
//   bench_cob read FILE      (child mode: one timed read, prints a result line)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/BenchUtil.h"
#include "formats/classic/CTruespaceIo.h"
#include "plugin/host/Object.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {
using benchutil::Field;
using benchutil::Run;
using benchutil::StatusKB;

int ReadChild(const char* path) {
    const long base = StatusKB("VmRSS:");
    { std::ofstream("/proc/self/clear_refs") << "5"; }
    CFileIo io;
    CSceneImportOptions opt;
    CTruespaceIo parser(io);
    auto t0 = Clock::now();
    std::unique_ptr<C3DScene> scene(parser.Read(CXStringW(Utf8ToWide(path)), opt));
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    if (!scene) {
        std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
        return 1;
    }
    const long peak = StatusKB("VmHWM:");
    size_t faces = 0, points = 0, meshes = 0;
    C3DBaseObject* obj = nullptr;
    C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH);
    while (scene->GetNextNode(obj, pos)) {
        auto* g = static_cast<C3DGeomObject*>(obj);
        faces += size_t(g->GetFaceList()->GetNumberOfFaces());
        points += g->GetPointList()->size();
        ++meshes;
    }
    std::printf("orbiscope meshes=%zu vertices=%zu faces=%zu seconds=%.4f arrays=%zu peak_delta=%ld\n", meshes, points,
                faces, secs, scene->MemoryBytes(), (peak - base) * 1024);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "read") == 0) return ReadChild(argv[2]);
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_cob FILE [--runs R]   (FILE from bench/cob_gen.py)\n");
        return 2;
    }
    const fs::path file = argv[1];
    int runs = 3;
    for (int i = 2; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--runs") == 0) runs = std::max(1, std::atoi(argv[++i]));
    const double mb = double(fs::file_size(file)) / 1e6;
    {
        std::ifstream warm(file, std::ios::binary);
        std::vector<char> b(1 << 20);
        while (warm.read(b.data(), b.size())) {}
    }
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    const std::string peer = (fs::path(self).parent_path() / "peer_assimp_read").string();
    double ours = 1e30, theirs = 1e30;
    std::string ourLine, peerLine;
    for (int r = 0; r < runs; ++r) {
        const std::string o = Run("'" + self + "' read '" + file.string() + "'");
        const double s = Field(o, "seconds=");
        if (s > 0 && s < ours) {
            ours = s;
            ourLine = o;
        }
        if (fs::exists(peer)) {
            const std::string p = Run("'" + peer + "' '" + file.string() + "'");
            const double ps = Field(p, "seconds=");
            if (ps > 0 && ps < theirs) {
                theirs = ps;
                peerLine = p;
            }
        }
    }
    std::printf("file: %.1f MB\n%s", mb, ourLine.c_str());
    std::printf("read: %.0f MB/s (orbiscope)\n", mb / ours);
    const double arrays = Field(ourLine, "arrays="), peak = Field(ourLine, "peak_delta=");
    if (arrays > 0)
        std::printf("peak memory: %.1f MB = %.2fx the scene's arrays (%.1f MB)\n", peak / 1e6, peak / arrays,
                    arrays / 1e6);
    if (theirs < 1e30) {
        std::printf("%sread: %.0f MB/s (assimp); orbiscope / assimp speed ratio = %.2f\n", peerLine.c_str(),
                    mb / theirs, theirs / ours);
    } else {
        std::printf("assimp peer not built (peer_assimp_read); no ratio\n");
    }
    return 0;
}
