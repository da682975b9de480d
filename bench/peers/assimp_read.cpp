// Peer reader for the benchmarks: loads a file with Assimp (no post-processing)
// and prints what it found, so the run can check both sides read the same data.
// An optional count N repeats the read in the same process and reports the best time
// (warm memory: see bench_mesh reread).
#include <assimp/Importer.hpp>
#include <assimp/scene.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: peer_assimp_read FILE\n");
        return 2;
    }
    const int repeat = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    double best = 1e30;
    Assimp::Importer importer;
    const aiScene* scene = nullptr;
    for (int r = 0; r < repeat; ++r) {
        importer.FreeScene();
        auto t0 = std::chrono::steady_clock::now();
        scene = importer.ReadFile(argv[1], 0);
        auto t1 = std::chrono::steady_clock::now();
        best = std::min(best, std::chrono::duration<double>(t1 - t0).count());
        if (!scene) break;
    }
    if (!scene) {
        std::fprintf(stderr, "assimp: %s\n", importer.GetErrorString());
        return 1;
    }
    unsigned long long verts = 0, faces = 0;
    for (unsigned i = 0; i < scene->mNumMeshes; ++i) {
        verts += scene->mMeshes[i]->mNumVertices;
        faces += scene->mMeshes[i]->mNumFaces;
    }
    std::printf("assimp meshes=%u vertices=%llu faces=%llu seconds=%.6f\n", scene->mNumMeshes, verts, faces, best);
    return 0;
}
