// VRML97 engine benchmark: parse throughput on a large generated world
// (bench/gen_vrml97.py) and peak memory against the binary size of the numbers.
// usage: bench_vrml97 WORLD.wrl [repeats]
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNode.h"
#include "vrml/vrml97/VrmlNodeKinds.h"
#include "vrml/vrml97/VrmlScene.h"
#include "vrml/vrml97/VrmlStats.h"

namespace {

// Bytes of the numbers held in numeric lists, counted once per shared block.
size_t NumberBytes(const VrmlMFNode& roots) {
    std::unordered_set<VrmlNode*> seen;
    std::unordered_set<const void*> blocks;
    std::vector<VrmlNode*> stack;
    size_t bytes = 0;
    for (size_t i = 0; i < roots.size(); ++i) stack.push_back(roots[i]);
    while (!stack.empty()) {
        VrmlNode* n = stack.back();
        stack.pop_back();
        if (!n || !seen.insert(n).second) continue;
        n->visitFields([&](const char*, VrmlField& f) {
            auto count = [&](const void* p, size_t b) {
                if (p && blocks.insert(p).second) bytes += b;
            };
            if (auto* v = f.asMFVec3f()) count(v->get(), v->size() * 12);
            if (auto* v = f.asMFVec2f()) count(v->get(), v->size() * 8);
            if (auto* v = f.asMFInt()) count(v->get(), v->size() * 4);
            if (auto* v = f.asMFFloat()) count(v->get(), v->size() * 4);
            if (auto* v = f.asMFColor()) count(v->get(), v->size() * 12);
            if (auto* v = f.asMFRotation()) count(v->get(), v->size() * 16);
        });
        n->visitChildren([&](VrmlNode* c) { stack.push_back(c); });
    }
    return bytes;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s WORLD.wrl [repeats]\n", argv[0]);
        return 2;
    }
    const char* path = argv[1];
    int repeats = argc > 2 ? std::atoi(argv[2]) : 3;
    double mb = static_cast<double>(std::filesystem::file_size(path)) / (1024.0 * 1024.0);
    double best = 1e30;
    size_t nodes = 0, numbers = 0;
    for (int r = 0; r < repeats; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        auto ns = std::make_shared<VrmlNamespace>();
        Doc doc(path);
        VrmlMFNode* top = VrmlScene::readWRL(&doc, ns.get());
        auto t1 = std::chrono::steady_clock::now();
        best = std::min(best, std::chrono::duration<double>(t1 - t0).count());
        if (top && r == 0) {
            std::map<std::string, size_t> counts;
            nodes = VrmlCountNodes(*top, counts);
            numbers = NumberBytes(*top);
        }
        delete top;
    }
    // A whole load as the import does it: parse, scene, PROTO instances.
    auto t2 = std::chrono::steady_clock::now();
    { VrmlScene scene(path); }
    auto t3 = std::chrono::steady_clock::now();
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    double peakMb = static_cast<double>(ru.ru_maxrss) / 1024.0;
    std::printf("file            %.1f MB\n", mb);
    std::printf("nodes           %zu\n", nodes);
    std::printf("parse (best of %d) %.3f s  %.1f MB/s\n", repeats, best, mb / best);
    std::printf("scene load      %.3f s  %.1f MB/s\n", std::chrono::duration<double>(t3 - t2).count(),
                mb / std::chrono::duration<double>(t3 - t2).count());
    std::printf("numbers held    %.1f MB (binary)\n", static_cast<double>(numbers) / (1024.0 * 1024.0));
    std::printf("peak RSS        %.1f MB (%.2fx the numbers)\n", peakMb,
                numbers ? peakMb / (static_cast<double>(numbers) / (1024.0 * 1024.0)) : 0.0);
    return 0;
}
