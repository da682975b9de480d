// Peer reader for the benchmarks: loads an OBJ file with tinyobjloader (no
// triangulation) and prints its counts. An optional count N repeats the read in the
// same process and reports the best time (warm memory: see bench_mesh reread).
#include <tiny_obj_loader.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: peer_tinyobj_read FILE.obj\n");
        return 2;
    }
    std::string path = argv[1];
    std::string dir = path.substr(0, path.find_last_of('/') + 1);
    const int repeat = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;
    double best = 1e30;
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn, err;
    bool ok = false;
    for (int r = 0; r < repeat; ++r) {
        attrib = {};
        shapes.clear();
        shapes.shrink_to_fit();
        materials.clear();
        auto t0 = std::chrono::steady_clock::now();
        ok = tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, path.c_str(), dir.c_str(), false);
        auto t1 = std::chrono::steady_clock::now();
        best = std::min(best, std::chrono::duration<double>(t1 - t0).count());
        if (!ok) break;
    }
    if (!ok) {
        std::fprintf(stderr, "tinyobj: %s\n", err.c_str());
        return 1;
    }
    unsigned long long faces = 0;
    for (auto& s : shapes) faces += s.mesh.num_face_vertices.size();
    std::printf("tinyobj shapes=%zu positions=%zu texcoords=%zu normals=%zu faces=%llu seconds=%.3f\n", shapes.size(),
                attrib.vertices.size() / 3, attrib.texcoords.size() / 2, attrib.normals.size() / 3, faces, best);
    return 0;
}
