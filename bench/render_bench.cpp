// Preview renderer benchmark.
//   bench_render [TRIANGLES] [SIZE] [REPEATS]
// Builds a closed, bumpy sphere of about TRIANGLES triangles (default 1,000,000) in memory,
// then times RenderScene at SIZE x SIZE (default 512, two samples a side) REPEATS times
// (default 5) on one thread and prints the best and median; building the mesh is not timed.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "plugin/host/Image.h"
#include "plugin/host/Object.h"
#include "plugin/host/Render.h"
#include "plugin/host/Scene.h"
#include "plugin/host/SceneNode.h"

int main(int argc, char** argv) {
    const long tris = argc > 1 ? std::atol(argv[1]) : 1000000;
    const int size = argc > 2 ? std::atoi(argv[2]) : 512;
    const int repeats = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;
    // rings x segments quads, two triangles each.
    const int seg = std::max(8, int(std::sqrt(double(tris))));
    const int rings = std::max(4, int(tris / (2L * seg)));
    C3DScene scene;
    scene.GetMaterialByID(0, true)->diffuse = {200, 160, 90};
    auto* pts = new C3DPointList;
    pts->Reserve(size_t(rings + 1) * seg);
    for (int r = 0; r <= rings; ++r) {
        const double th = M_PI * r / rings;
        for (int s = 0; s < seg; ++s) {
            const double ph = 2 * M_PI * s / seg;
            const double rad = 1.0 + 0.05 * std::sin(7 * th) * std::cos(9 * ph);
            pts->Add(float(rad * std::sin(th) * std::cos(ph)), float(rad * std::cos(th)),
                     float(rad * std::sin(th) * std::sin(ph)));
        }
    }
    auto* faces = new C3DFaceList;
    faces->Reserve(size_t(rings) * seg * 2, size_t(rings) * seg * 6);
    faces->SetCurrentMaterial(0);
    for (int r = 0; r < rings; ++r)
        for (int s = 0; s < seg; ++s) {
            const uint32_t a = uint32_t(r * seg + s), b = uint32_t(r * seg + (s + 1) % seg);
            const uint32_t c = a + uint32_t(seg), d = b + uint32_t(seg);
            faces->AddTriangle(a, c, b);
            faces->AddTriangle(b, c, d);
        }
    auto* obj = new C3DObject;
    obj->SetPointList(pts);
    obj->SetFaceList(faces);
    scene.AddNode(nullptr, new C3DSceneNode(obj));

    CRenderOptions o;
    o.width = o.height = size;
    // Wall time and the thread's own CPU time: on a shared machine the second is the steadier.
    auto cpuNow = [] {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return double(ts.tv_sec) + ts.tv_nsec * 1e-9;
    };
    std::vector<double> times, cpu;
    CRenderStats stats;
    CImage img;
    for (int i = 0; i < repeats; ++i) {
        stats = CRenderStats{};
        const auto t0 = std::chrono::steady_clock::now();
        const double c0 = cpuNow();
        RenderScene(scene, o, img, &stats);
        cpu.push_back(cpuNow() - c0);
        times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    std::sort(times.begin(), times.end());
    std::sort(cpu.begin(), cpu.end());
    std::printf(
        "%llu triangles at %dx%d (x%d samples): best %.3f s, median %.3f s wall; best %.3f s, median %.3f s CPU\n",
        static_cast<unsigned long long>(stats.triangles), size, size, o.supersample * o.supersample, times[0],
        times[times.size() / 2], cpu[0], cpu[cpu.size() / 2]);
    if (argc > 4) SavePng(argv[4], img);
    return 0;
}
