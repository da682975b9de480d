// libFuzzer target: trueSpace bytes (binary or ASCII body) through CTruespaceIo::ReadMemory,
// and every scene that reads is written back in both encodings.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "formats/classic/CTruespaceIo.h"
#include "formats/classic/TruespaceWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CTruespaceIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) {
        C4x4Matrix tm;
        C3DNodePos pos = scene->GetFirstNode(KINDOF_ALL);
        while (C3DSceneNode* n = scene->GetNextNode(pos)) n->GetNodeTM(0, tm);
        std::string out;
        tsio::WriteScene(*scene, false, out);
        tsio::WriteScene(*scene, true, out);
    }
    return 0;
}
