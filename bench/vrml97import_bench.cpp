// VRML97 import benchmark: the whole CVrml97Io::Read (engine parse plus conversion
// into the host scene) on a large generated world, once per run so that the peak
// memory seen by /usr/bin/time belongs to one import.
// usage: bench_vrml97import WORLD.wrl
// Prints MB/s and the binary size of the scene's geometry (points as 3 floats,
// face and channel indices as 32-bit integers, channel points as stored).
#include <chrono>
#include <cstdio>
#include <filesystem>

#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "vrml/vrml97/CVrml97Io.h"
#include "vrml/vrml97/System.h"

namespace {
class QuietSystem : public System {
public:
    void error(const char*, ...) override {}
    void warn(const char*, ...) override {}
    void inform(const char*, ...) override {}
};

uint64_t GeometryBinaryBytes(const C3DScene& s, uint64_t& points, uint64_t& faces) {
    uint64_t bytes = 0;
    C3DNodePos pos = s.GetFirstNode(KINDOF_MESH | KINDOF_CURVE);
    C3DBaseObject* obj = nullptr;
    while (s.GetNextNode(obj, pos)) {
        auto* g = obj && obj->IsGeomObject() ? static_cast<C3DGeomObject*>(obj) : nullptr;
        if (!g) continue;
        points += g->GetPointList()->size();
        faces += static_cast<uint64_t>(g->GetFaceList()->GetNumberOfFaces());
        bytes += g->GetPointList()->Raw().size() * 4 + g->GetFaceList()->GetNumberOfIndices() * 4;
        for (const auto& ch : g->GetChannels()) {
            if (const CFaceList* f = ch->GetFaceList()) bytes += f->GetNumberOfIndices() * 4;
            if (ch->GetType() == CHANNEL_UVW)
                bytes += static_cast<CUVWChannel&>(*ch).GetUVWPointList()->Raw().size() * 4;
            if (ch->GetType() == CHANNEL_VC) bytes += static_cast<CVCChannel&>(*ch).GetVCPointList()->Raw().size() * 4;
        }
    }
    return bytes;
}
} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bench_vrml97import WORLD.wrl\n");
        return 2;
    }
    QuietSystem quiet;
    theSystem = &quiet;
    std::filesystem::path path(argv[1]);
    double mb = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
    CXStringW wpath(path.wstring());
    CFileIo io(wpath);
    CVrml97Io parser(io);
    CSceneImportOptions options;
    auto t0 = std::chrono::steady_clock::now();
    C3DScene* scene = parser.Read(wpath, options);
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (!scene) {
        std::fprintf(stderr, "read failed: %d\n", io.GetIoError());
        return 1;
    }
    uint64_t points = 0, faces = 0;
    uint64_t geo = GeometryBinaryBytes(*scene, points, faces);
    std::printf("read %.1f MB in %.3f s = %.1f MB/s; %d nodes, %llu points, %llu faces, %d materials; "
                "geometry_bytes=%llu\n",
                mb, secs, mb / secs, scene->GetNodeCount(), static_cast<unsigned long long>(points),
                static_cast<unsigned long long>(faces), scene->GetMaterialNumber(),
                static_cast<unsigned long long>(geo));
    for (const auto& l : options.GetLog()) std::printf("log: %ls\n", l.text.c_str());
    delete scene;
    return 0;
}
