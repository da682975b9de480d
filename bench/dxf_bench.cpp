// DXF read benchmark: reads a drawing (make one with bench/gen_dxf.py) with our reader
// in this process and with Assimp's (peer_assimp_read beside this program, when built)
// in a child, from the page cache, and prints both times and the ratio. Peak memory
// of our read is compared with the bytes the scene's arrays hold.
//
//   bench_dxf FILE [RUNS]
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "bench/BenchUtil.h"
#include "formats/classic/CDxfIo.h"
#include "plugin/host/Object.h"

namespace fs = std::filesystem;

namespace {
using benchutil::StatusKB;

double CpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double ChildCpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_CHILDREN, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_dxf FILE [RUNS]\n");
        return 2;
    }
    const std::string path = argv[1];
    const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    const double mb = static_cast<double>(fs::file_size(path)) / 1e6;
    // Memory first, on a read from memory: the input is counted before the read starts, so
    // the growth of the peak is the reader's own (a mapped file's pages would count in it).
    long readerPeakKB = -1;
    size_t sceneBytes = 0;
    {
        std::string buf(static_cast<size_t>(fs::file_size(path)), '\0');
        std::ifstream(path, std::ios::binary).read(buf.data(), static_cast<std::streamsize>(buf.size()));
        std::ofstream("/proc/self/clear_refs") << "5";
        const long base = StatusKB("VmHWM:");
        CFileIo io;
        CDxfIo parser(io);
        CSceneImportOptions opt;
        std::unique_ptr<C3DScene> scene(
            parser.ReadMemory({reinterpret_cast<const uint8_t*>(buf.data()), buf.size()}, opt));
        readerPeakKB = StatusKB("VmHWM:") - base;
        if (scene) sceneBytes = scene->MemoryBytes();
    }
    std::ofstream("/proc/self/clear_refs") << "5"; // the peak starts again from here
    const long rssBefore = StatusKB("VmRSS:");
    double best = 1e30, bestCpu = 1e30;
    size_t points = 0, faces = 0, bytes = 0;
    for (int r = 0; r < runs; ++r) {
        CFileIo io;
        CDxfIo parser(io);
        CSceneImportOptions opt;
        const auto t0 = std::chrono::steady_clock::now();
        const double c0 = CpuSeconds();
        std::unique_ptr<C3DScene> scene(parser.Read(CXStringW(Utf8ToWide(path)), opt));
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        bestCpu = std::min(bestCpu, CpuSeconds() - c0);
        if (!scene) {
            std::fprintf(stderr, "ours: read failed (%d)\n", io.GetIoError());
            return 1;
        }
        best = std::min(best, s);
        points = faces = 0;
        C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH);
        while (C3DSceneNode* n = scene->GetNextNode(pos)) {
            points += n->GetGeomObject()->GetPointList()->size();
            faces += static_cast<size_t>(n->GetGeomObject()->GetFaceList()->GetNumberOfFaces());
        }
        bytes = scene->MemoryBytes();
    }
    const long peak = StatusKB("VmHWM:");
    std::printf("memory: reader's peak growth from memory %.1f MB for a scene of %.1f MB (%.2fx)\n",
                readerPeakKB / 1024.0, sceneBytes / 1e6, readerPeakKB * 1024.0 / std::max<double>(1, sceneBytes));
    std::printf("ours   %.1f MB  points=%zu faces=%zu seconds=%.3f cpu=%.3f  %.1f MB/s (cpu)  peak-rss-growth=%.1f MB "
                "(mapped file included) "
                "scene=%.1f MB\n",
                mb, points, faces, best, bestCpu, mb / bestCpu, (peak - rssBefore) / 1024.0, bytes / 1e6);
    const fs::path peer = fs::path(argv[0]).parent_path() / "peer_assimp_read";
    if (fs::exists(peer)) {
        const std::string cmd = peer.string() + " '" + path + "' " + std::to_string(runs);
        std::fflush(stdout);
        // The peer's CPU time per read: all of the child's, over the runs (its load time included).
        const double c0 = ChildCpuSeconds();
        if (std::system(cmd.c_str()) != 0) std::printf("assimp: failed\n");
        const double peerCpu = (ChildCpuSeconds() - c0) / runs;
        std::printf("assimp cpu per read (whole child / runs) = %.3f  ratio cpu = %.2f\n", peerCpu, peerCpu / bestCpu);
    } else {
        std::printf("assimp: peer_assimp_read not built\n");
    }
    return 0;
}
