#pragma once
// Builds a host scene from DXF group pairs. Entities are gathered per layer (top
// level) or per block; INSERTs are expanded last, as nodes carrying the placement,
// since a block may be defined after its first use.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

class C3DScene;
class CSceneImportOptions;

namespace dxf {

// Bounds on what hostile files can make us build.
constexpr int kMaxInsertDepth = 64;
constexpr size_t kMaxInstances = 100000;                // fewer for small files: 4096 + bytes / 16
constexpr size_t kIdleInsertsPerInstance = 64;          // inserts in blocks that place nothing
constexpr size_t kMaxInstancedValues = size_t(1) << 24; // floats + indices copied for instances
constexpr size_t kMaxGroupTags = size_t(1) << 22;       // pairs kept for one entity
constexpr int kSegmentsPerTurn = 64;                    // arcs, circles, ellipses
constexpr int kMaxSplinePoints = 4096;

struct ReadOutcome {
    std::unique_ptr<C3DScene> scene;
    int error = 0;       // IO_FILE_RESULT when scene is null
    bool halves = false; // the ENTITIES section was read in two halves at once
};

// Large text drawings have the second half of their ENTITIES section read on a second
// thread, joined where the first reaches it; the scene is the same as read in one go.
struct SplitTuning {
    size_t minBytes = size_t{16} << 20; // smaller drawings are read on one thread
    bool anyProcessors = false;         // split even with one core or ORBISCOPE_THREADS=1
};

// `cancelled` is polled between entities.
ReadOutcome ReadDxf(std::span<const uint8_t> data, CSceneImportOptions& options, const std::function<bool()>& cancelled,
                    const SplitTuning& split = SplitTuning());

} // namespace dxf
