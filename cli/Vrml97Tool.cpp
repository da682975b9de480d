// orbiscope vrml97: the VRML97 engine on the command line. "check" reads a world
// and lists its nodes by type (the engine's own diagnostics go to stderr as it
// reads); "print" writes the world back out as VRML97 text on stdout.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/ExitCodes.h"
#include "cli/SceneSummary.h"
#include "cli/ToolCommands.h"
#include "plugin/host/MiniZip.h"
#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNodeKinds.h"
#include "vrml/vrml97/VrmlScene.h"
#include "vrml/vrml97/VrmlStats.h"

namespace {

int Usage() {
    std::fprintf(stderr, "usage: orbiscope vrml97 check FILE [--json]\n"
                         "       orbiscope vrml97 print FILE\n");
    return EXIT_USAGE;
}

enum class Loaded { World, Nothing, BadGzip };

// Loads the world. A gzip world is inflated in memory first, within the limit
// the import puts on its temporary file (relative to the compressed size).
Loaded LoadWorld(VrmlScene& scene, const char* path) {
    CXStringW wide(Utf8ToWide(path));
    if (!CMiniZip::IsGZipFile(wide)) return scene.load(path) ? Loaded::World : Loaded::Nothing;
    std::error_code ec;
    uint64_t size = std::filesystem::file_size(path, ec);
    std::string text;
    if (ec || !CMiniZip::InflateGZip(wide, text, CMiniZip::InflateLimit(size))) {
        std::fprintf(stderr, "orbiscope: cannot read '%s': it is a damaged gzip file or inflates past %llu bytes.\n",
                     path, static_cast<unsigned long long>(CMiniZip::InflateLimit(ec ? 0 : size)));
        return Loaded::BadGzip;
    }
    auto ns = std::make_shared<VrmlNamespace>();
    auto doc = std::make_unique<Doc>(path);
    VrmlMFNode* nodes = VrmlScene::readString(text.data(), text.size(), ns.get(), doc.get());
    if (!nodes) return Loaded::Nothing;
    scene.replaceWorld(*nodes, ns, doc.release(), nullptr);
    delete nodes;
    return Loaded::World;
}

} // namespace

int RunVrml97Command(int argc, char** argv) {
    // "--json" may stand anywhere; the rest are the two operands.
    bool json = false;
    std::vector<char*> words;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) json = true;
        else words.push_back(argv[i]);
    }
    argc = static_cast<int>(words.size());
    argv = words.data();
    if (argc != 2) return Usage();
    std::string cmd = argv[0];
    const char* path = argv[1];
    if (cmd != "check" && cmd != "print") return Usage();
    FILE* f = std::fopen(path, "rb");
    if (!f) {
        std::fprintf(stderr, "orbiscope: cannot open '%s': %s.\n", path, std::strerror(errno));
        return EXIT_CANNOT_OPEN;
    }
    std::fclose(f);

    VrmlScene scene;
    Loaded loaded = LoadWorld(scene, path);
    if (loaded == Loaded::BadGzip) return EXIT_BAD_FORMAT;
    std::map<std::string, size_t> counts;
    size_t total = loaded == Loaded::World ? VrmlCountNodes(scene.root()->children(), counts) : 0;
    if (total == 0) {
        std::fprintf(stderr, "orbiscope: cannot read '%s': it holds no VRML97 nodes.\n", path);
        return EXIT_BAD_FORMAT;
    }
    if (cmd == "print") {
        if (!scene.save(std::cout)) {
            std::fprintf(stderr, "orbiscope: cannot write the world of '%s' to standard output.\n", path);
            return EXIT_CANNOT_WRITE;
        }
        return EXIT_OK;
    }
    if (json) {
        std::string out = "{\"file\": " + JsonString(path) + ", \"nodes\": " + std::to_string(total) + ", \"types\": {";
        bool first = true;
        for (const auto& [type, n] : counts) {
            out += (first ? "" : ", ") + JsonString(type) + ": " + std::to_string(n);
            first = false;
        }
        std::printf("%s}}\n", out.c_str());
        return EXIT_OK;
    }
    std::printf("%s: %zu nodes\n", path, total);
    for (const auto& [type, n] : counts) std::printf("  %-24s %zu\n", type.c_str(), n);
    return EXIT_OK;
}
