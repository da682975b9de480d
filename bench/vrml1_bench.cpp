// VRML 1.0 / Inventor benchmark: the whole CVrmlIo::Read (parse plus import into the
// host scene) of one large generated file, then the writer on the scene it gave.
// usage: bench_vrml1 FILE.iv
// Prints read MB/s, the geometry's binary size, and the writer's MB/s of output.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "vrml/vrml1/CVrmlIo.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bench_vrml1 FILE.iv\n");
        return 2;
    }
    std::filesystem::path path(argv[1]);
    const double mb = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
    CXStringW wpath(path.wstring());
    CFileIo io(wpath);
    CVrmlIo parser(io);
    CSceneImportOptions options;
    auto t0 = std::chrono::steady_clock::now();
    std::unique_ptr<C3DScene> scene(parser.Read(wpath, options));
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
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
    std::printf("read %.1f MB in %.3f s: %.1f MB/s; %llu points, %llu faces, geometry %.1f MB\n", mb, secs, mb / secs,
                static_cast<unsigned long long>(points), static_cast<unsigned long long>(faces), bytes / 1e6);
    auto t1 = std::chrono::steady_clock::now();
    std::string text = CVrmlIo::FormatScene(*scene);
    const double wsecs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t1).count();
    std::printf("write %.1f MB in %.3f s: %.1f MB/s\n", text.size() / 1e6, wsecs, text.size() / 1e6 / wsecs);
    return 0;
}
