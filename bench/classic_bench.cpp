// 3DS benchmark: builds a large scene (many grid meshes near the format's 16-bit
// limits, with coordinates and banded materials), writes it with our writer (write
// throughput), then reads it back with our reader and with Assimp's, in the same run,
// each in a fresh process from the page cache. Peak memory of our read is compared
// with the bytes the scene's arrays hold.
//
//   bench_classic [--objects N] [--grid G] [--runs R] [--dir DIR] [--keep]
//   bench_classic read FILE      (child mode: one timed read, prints a result line)
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench/BenchUtil.h"
#include "formats/classic/C3DStudioIo.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {
using benchutil::Field;
using benchutil::Run;
using benchutil::StatusKB;

// Grid meshes side by side; each mesh has G*G points and 2*(G-1)^2 triangles.
std::unique_ptr<C3DScene> BuildScene(int objects, int grid) {
    auto scene = std::make_unique<C3DScene>();
    uint32_t mats[4];
    for (int m = 0; m < 4; ++m) {
        C3DMaterial* mat = scene->CreateNewMaterial();
        mat->SetName(CXStringW(std::wstring(L"Material") + std::to_wstring(m)));
        mat->diffuse = CRGBColor(uint8_t(60 * m), 128, uint8_t(255 - 60 * m));
        mats[m] = mat->GetID();
    }
    for (int o = 0; o < objects; ++o) {
        auto* mesh = new C3DObject();
        C3DPointList& pts = *mesh->GetPointList();
        pts.SetSize(grid * grid);
        float* p = pts.GetData();
        auto* uv = new CUVWChannel();
        uv->GetUVWPointList()->SetSize(grid * grid);
        float* t = uv->GetUVWPointList()->GetData();
        for (int y = 0; y < grid; ++y)
            for (int x = 0; x < grid; ++x) {
                const size_t i = size_t(y) * grid + x;
                p[i * 3] = float(x) * 0.1f;
                p[i * 3 + 1] = float(y) * 0.1f;
                p[i * 3 + 2] = 0.05f * std::sin(0.3f * float(x + o)) * std::cos(0.2f * float(y));
                t[i * 3] = float(x) / float(grid - 1);
                t[i * 3 + 1] = float(y) / float(grid - 1);
                t[i * 3 + 2] = 0;
            }
        C3DFaceList& faces = *mesh->GetFaceList();
        const size_t nf = size_t(2) * (grid - 1) * (grid - 1);
        faces.Reserve(nf, nf * 3);
        for (int y = 0; y + 1 < grid; ++y) {
            faces.SetCurrentMaterial(mats[(y * 4) / (grid - 1)]);
            for (int x = 0; x + 1 < grid; ++x) {
                uint32_t a = uint32_t(y * grid + x), b = a + 1, c = a + uint32_t(grid), d = c + 1;
                faces.AddTriangle(a, b, d);
                faces.AddTriangle(a, d, c);
            }
        }
        *uv->GetUVWFaceList() = static_cast<const CFaceList&>(faces);
        mesh->SetGlobalUVWChannel(mesh->AddChannel(uv));
        auto* node = new C3DSceneNode(mesh);
        node->SetName(CXStringW(std::wstring(L"Grid") + std::to_wstring(o)));
        node->SetNodeLocalTM(
            C4x4Matrix::Translation(float(o % 20) * float(grid) * 0.1f, float(o / 20) * float(grid) * 0.1f, 0));
        scene->AddNode(nullptr, node);
    }
    return scene;
}

int ReadChild(const char* path) {
    const long base = StatusKB("VmRSS:");
    { std::ofstream("/proc/self/clear_refs") << "5"; } // restart the peak count here
    CFileIo io;
    CSceneImportOptions opt;
    C3DStudioIo parser(io);
    auto t0 = Clock::now();
    std::unique_ptr<C3DScene> scene(parser.Read(CXStringW(Utf8ToWide(path)), opt));
    double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    if (!scene) {
        std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
        return 1;
    }
    const long peak = StatusKB("VmHWM:");
    size_t faces = 0, points = 0;
    C3DBaseObject* obj = nullptr;
    C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH);
    while (scene->GetNextNode(obj, pos)) {
        auto* g = static_cast<C3DGeomObject*>(obj);
        faces += size_t(g->GetFaceList()->GetNumberOfFaces());
        points += g->GetPointList()->size();
    }
    std::printf("orbiscope seconds=%.4f faces=%zu points=%zu arrays=%zu peak_delta=%ld\n", secs, faces, points,
                scene->MemoryBytes(), (peak - base) * 1024);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "read") == 0) return ReadChild(argv[2]);
    int objects = 200, grid = 181, runs = 3;
    bool keep = false;
    fs::path dir = fs::temp_directory_path();
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--objects" && i + 1 < argc) objects = std::atoi(argv[++i]);
        else if (a == "--grid" && i + 1 < argc) grid = std::atoi(argv[++i]);
        else if (a == "--runs" && i + 1 < argc) runs = std::atoi(argv[++i]);
        else if (a == "--dir" && i + 1 < argc) dir = argv[++i];
        else if (a == "--keep") keep = true;
        else {
            std::fprintf(stderr, "usage: bench_classic [--objects N] [--grid G] [--runs R] [--dir DIR] [--keep]\n");
            return 2;
        }
    }
    const fs::path file = dir / ("orbiscope-bench-" + std::to_string(getpid()) + ".3ds");
    auto scene = BuildScene(objects, grid);
    std::printf("scene: %d meshes of %d points and %d triangles\n", objects, grid * grid, 2 * (grid - 1) * (grid - 1));

    double bestWrite = 1e30;
    for (int r = 0; r < runs; ++r) {
        auto copy = scene->Clone(); // saving adds keys to key-less nodes
        CFileIo io;
        CSceneExportOptions opt;
        C3DStudioIo parser(io);
        auto t0 = Clock::now();
        if (!parser.Save(CXStringW(Utf8ToWide(file.string())), copy.get(), opt)) {
            std::fprintf(stderr, "save failed\n");
            return 1;
        }
        bestWrite = std::min(bestWrite, std::chrono::duration<double>(Clock::now() - t0).count());
    }
    const double mb = double(fs::file_size(file)) / 1e6;
    std::printf("write: %.1f MB in %.3f s = %.0f MB/s\n", mb, bestWrite, mb / bestWrite);
    scene.reset();

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
        std::string o = Run("'" + self + "' read '" + file.string() + "'");
        double s = Field(o, "seconds=");
        if (s > 0 && s < ours) {
            ours = s;
            ourLine = o;
        }
        if (fs::exists(peer)) {
            std::string p = Run("'" + peer + "' '" + file.string() + "'");
            double ps = Field(p, "seconds=");
            if (ps > 0 && ps < theirs) {
                theirs = ps;
                peerLine = p;
            }
        }
    }
    std::printf("%s", ourLine.c_str());
    std::printf("read: %.0f MB/s (orbiscope)\n", mb / ours);
    const double arrays = Field(ourLine, "arrays="), peak = Field(ourLine, "peak_delta=");
    if (arrays > 0)
        std::printf("peak memory: %.1f MB = %.2fx the scene's arrays (%.1f MB)\n", peak / 1e6, peak / arrays,
                    arrays / 1e6);
    if (theirs < 1e30) {
        std::printf("%s", peerLine.c_str());
        std::printf("read: %.0f MB/s (assimp); orbiscope / assimp speed ratio = %.2f\n", mb / theirs, theirs / ours);
    } else {
        std::printf("assimp peer not built (peer_assimp_read); no ratio\n");
    }
    if (!keep) fs::remove(file);
    return 0;
}
