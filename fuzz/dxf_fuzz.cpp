// libFuzzer target: DXF bytes (ASCII or binary) through CDxfIo::ReadMemory, then through
// the reader again with the ENTITIES section cut in two halves read at once: both reads
// must give the same outcome.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "formats/classic/CDxfIo.h"
#include "formats/classic/DxfReader.h"
#include "plugin/host/Object.h"
#include "plugin/host/XString.h"

namespace {

std::string Outcome(std::span<const uint8_t> data, const dxf::SplitTuning& tuning) {
    CSceneImportOptions options;
    const std::function<bool()> never = [] { return false; };
    const dxf::ReadOutcome r = dxf::ReadDxf(data, options, never, tuning);
    std::string out = std::to_string(r.error);
    if (r.scene) {
        C3DNodePos pos = r.scene->GetFirstNode(KINDOF_ALL);
        C3DBaseObject* obj = nullptr;
        while (C3DSceneNode* n = r.scene->GetNextNode(obj, pos)) {
            out += "|" + WideToUtf8(n->GetName().str()) + " " + std::to_string(n->GetFlags());
            if (const C3DGeomObject* g = n->GetGeomObject())
                out += " " + std::to_string(g->GetPointList()->size()) + " " +
                       std::to_string(g->GetFaceList()->GetNumberOfIndices());
        }
    }
    for (const IoLogInfo& l : options.GetLog()) out += "|" + WideToUtf8(l.text.str());
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CDxfIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) (void)scene->MemoryBytes();
    dxf::SplitTuning one, two{0, true};
    one.minBytes = SIZE_MAX;
    if (Outcome({data, size}, one) != Outcome({data, size}, two)) __builtin_trap();
    return 0;
}
