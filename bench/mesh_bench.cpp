// Mesh benchmark driver.
//   bench_mesh read FILE            time one read (.obj or .stl), print MB/s, counts and
//                                   the scene's own array bytes (C3DScene::MemoryBytes)
//   bench_mesh reread FILE N        N reads in one process, scenes freed in between; prints
//                                   the best and median times. With the allocator keeping
//                                   its memory (GLIBC_TUNABLES=glibc.malloc.mmap_max=0) this
//                                   times the reader's own work without first-touch faults
//   bench_mesh memread FILE N       N reads of the file's bytes already in memory (no file
//                                   mapping): the steadiest figure for the parsers' own work,
//                                   best of N (use with the GLIBC_TUNABLES setting above)
//   bench_mesh write IN OUT         read IN, prepare the scene the way OUT's writer asks
//                                   (.obj .stl .ply .ma), time the Save, print output MB/s
//   bench_mesh floor FILE BYTES     what any reader of FILE that builds BYTES of arrays
//                                   pays before parsing anything, in a fresh process:
//                                   mapping and reading FILE, getting BYTES of new pages
//                                   (one thread, then two) and writing them once
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "formats/mesh/CMayaAsciiIo.h"
#include "formats/mesh/CPlyIo.h"
#include "formats/mesh/CStlIo.h"
#include "formats/mesh/CWavefrontIo.h"
#include "formats/mesh/ObjReader.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"

namespace {

using Clock = std::chrono::steady_clock;

// CPU seconds of this process: steadier than wall time on a shared machine.
double CpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

std::string Ext(const std::string& p) {
    std::string e = std::filesystem::path(p).extension().string();
    for (auto& c : e) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return e;
}

CXStringW W(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

std::unique_ptr<C3DScene> Load(const std::string& path, double& seconds) {
    CFileIo io(W(path));
    CSceneImportOptions opts;
    std::unique_ptr<C3DParser> parser;
    if (Ext(path) == ".obj") parser = std::make_unique<CWavefrontIo>(io);
    else parser = std::make_unique<CStlIo>(io);
    parser->LoadDefaultOptions(opts);
    auto t0 = Clock::now();
    std::unique_ptr<C3DScene> scene(parser->Read(W(path), opts));
    seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    if (!scene) std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
    return scene;
}

void Counts(const C3DScene& s, unsigned long long& nodes, unsigned long long& points, unsigned long long& faces) {
    nodes = points = faces = 0;
    C3DNodePos pos = s.GetFirstNode(KINDOF_MESH);
    C3DBaseObject* o = nullptr;
    while (s.GetNextNode(o, pos)) {
        auto* g = static_cast<C3DGeomObject*>(o);
        ++nodes;
        if (g->GetPointList()) points += static_cast<unsigned long long>(g->GetPointList()->GetSize());
        if (g->GetFaceList()) faces += static_cast<unsigned long long>(g->GetFaceList()->GetNumberOfFaces());
    }
}

double MsSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

// The fixed costs behind a read, measured with the calls the readers use (a private
// read-only mapping of the file; one MADV_POPULATE_WRITE request per range).
int MemoryFloor(const char* file, size_t bytes) {
#ifndef MADV_POPULATE_WRITE
    constexpr int MADV_POPULATE_WRITE = 23;
#endif
    const int fd = open(file, O_RDONLY);
    if (fd < 0) return 1;
    const size_t len = static_cast<size_t>(std::filesystem::file_size(file));
    auto t0 = Clock::now();
    void* map = mmap(nullptr, len, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (map == MAP_FAILED) return 1;
    madvise(map, len, MADV_SEQUENTIAL);
    unsigned sum = 0;
    for (size_t o = 0; o < len; o += 64) sum += static_cast<const unsigned char*>(map)[o];
    const double fileMs = MsSince(t0);
    munmap(map, len);

    auto fresh = [&] {
        void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return p == MAP_FAILED ? nullptr : static_cast<char*>(p);
    };
    char* a = fresh();
    char* b = fresh();
    if (!a || !b) return 1;
    const size_t half = bytes / 2 & ~size_t(4095);
    t0 = Clock::now();
    std::thread helper([&] { madvise(a + half, bytes - half, MADV_POPULATE_WRITE); });
    madvise(a, half, MADV_POPULATE_WRITE);
    helper.join();
    const double twoMs = MsSince(t0);
    t0 = Clock::now();
    std::memset(a, static_cast<int>(sum & 1) + 1, bytes);
    const double writeMs = MsSince(t0);
    t0 = Clock::now();
    madvise(b, bytes, MADV_POPULATE_WRITE);
    const double oneMs = MsSince(t0);
    munmap(a, bytes);
    munmap(b, bytes);
    std::printf("floor %s: file %.1f MB mapped and read %.1f ms; %.1f MB of new pages: one thread %.1f ms, "
                "two threads %.1f ms; written once %.1f ms\n",
                file, static_cast<double>(len) / 1e6, fileMs, static_cast<double>(bytes) / 1e6, oneMs, twoMs, writeMs);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench_mesh read FILE | bench_mesh write IN OUT\n");
        return 2;
    }
    const std::string mode = argv[1];
    double secs = 0;
    if (mode == "floor") return argc > 3 ? MemoryFloor(argv[2], std::strtoull(argv[3], nullptr, 10)) : 2;
    if (mode == "memread") {
        const int n = argc > 3 ? std::max(1, std::atoi(argv[3])) : 20;
        std::ifstream in(argv[2], std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const std::span<const uint8_t> data(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        const bool obj = Ext(argv[2]) == ".obj";
        double best = 1e30;
        for (int i = 0; i < n; ++i) {
            CFileIo io(W(argv[2]));
            CSceneImportOptions opts;
            CStlIo stl(io);
            stl.LoadDefaultOptions(opts);
            const auto t0 = Clock::now();
            std::unique_ptr<C3DScene> scene(obj ? meshio::ReadObj(data, TEXT_MODE_AUTO, nullptr, io, opts).scene
                                                : stl.ReadMemory(data, opts));
            best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
            if (!scene) return 1;
        }
        std::printf("orbiscope memread %s x%d: best %.4f s (%.1f MB/s)\n", argv[2], n, best,
                    static_cast<double>(bytes.size()) / 1e6 / best);
        return 0;
    }
    if (mode == "reread") {
        const int n = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;
        std::vector<double> t;
        for (int i = 0; i < n; ++i) {
            if (!Load(argv[2], secs)) return 1;
            t.push_back(secs);
        }
        std::sort(t.begin(), t.end());
        const double mb = static_cast<double>(std::filesystem::file_size(argv[2])) / 1e6;
        std::printf("orbiscope reread %s x%d: best %.4f s (%.1f MB/s) median %.4f s\n", argv[2], n, t[0], mb / t[0],
                    t[t.size() / 2]);
        return 0;
    }
    auto scene = Load(argv[2], secs);
    if (!scene) return 1;
    if (mode == "read") {
        const double mb = static_cast<double>(std::filesystem::file_size(argv[2])) / 1e6;
        unsigned long long nodes, points, faces;
        Counts(*scene, nodes, points, faces);
        std::printf("orbiscope read %s: %.1f MB in %.3f s = %.1f MB/s; nodes=%llu points=%llu faces=%llu "
                    "scene_bytes=%zu\n",
                    argv[2], mb, secs, mb / secs, nodes, points, faces, scene->MemoryBytes());
        return 0;
    }
    if (mode != "write" || argc < 4) return 2;
    const std::string out = argv[3];
    CFileIo io(W(out));
    std::unique_ptr<C3DParser> writer;
    const std::string ext = Ext(out);
    if (ext == ".obj") writer = std::make_unique<CWavefrontIo>(io);
    else if (ext == ".stl") writer = std::make_unique<CStlIo>(io);
    else if (ext == ".ply") writer = std::make_unique<CPlyIo>(io);
    else writer = std::make_unique<CMayaAsciiIo>(io);
    CSceneExportOptions opts;
    writer->SaveDefaultOptions(opts);
    auto prepared = PrepareSceneForExport(*scene, opts.prepFlags, &opts);
    auto t0 = Clock::now();
    const double c0 = CpuSeconds();
    const bool ok = writer->Save(W(out), prepared.get(), opts);
    const double cs = CpuSeconds() - c0;
    const double ws = std::chrono::duration<double>(Clock::now() - t0).count();
    if (!ok) {
        std::fprintf(stderr, "write failed: %d\n", io.GetIoError());
        return 1;
    }
    const double mb = static_cast<double>(std::filesystem::file_size(out)) / 1e6;
    std::printf("orbiscope write %s: %.1f MB in %.3f s = %.1f MB/s wall; cpu %.3f s = %.1f MB/s\n", out.c_str(), mb, ws,
                mb / ws, cs, mb / cs);
    return 0;
}
