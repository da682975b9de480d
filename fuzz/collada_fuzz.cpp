// libFuzzer target: Collada documents through the host's CColladaIo::ReadMemory, read once
// on one thread and once with the largest float list read from both ends in small chunks;
// the two must agree.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "plugin/host/ColladaIo.h"
#include "plugin/host/Object.h"

namespace {
struct Outcome {
    int error = 0;
    std::vector<float> points;
    std::vector<uint32_t> indices;
};

Outcome Read(const uint8_t* data, size_t size, const collada::AheadTuning& tuning) {
    CFileIo io;
    CColladaIo parser(io);
    parser.SetAheadTuning(tuning);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    Outcome out;
    out.error = io.GetIoError();
    if (!scene) return out;
    (void)scene->MemoryBytes();
    C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH);
    while (C3DSceneNode* n = scene->GetNextNode(pos)) {
        const C3DGeomObject* g = n->GetGeomObject();
        const auto& raw = g->GetPointList()->Raw();
        out.points.insert(out.points.end(), raw.begin(), raw.end());
        const auto& idx = g->GetFaceList()->GetIndexes();
        out.indices.insert(out.indices.end(), idx.begin(), idx.end());
    }
    return out;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Outcome one = Read(data, size, collada::AheadTuning{std::numeric_limits<size_t>::max(), 1});
    const Outcome both = Read(data, size, collada::AheadTuning{1, 16, 1});
    // Compared as bits: NaN never reaches the scene, but -0 and 0 must not be confused.
    if (one.error != both.error || one.indices != both.indices || one.points.size() != both.points.size() ||
        std::memcmp(one.points.data(), both.points.data(), one.points.size() * sizeof(float)) != 0)
        std::abort();
    return 0;
}
