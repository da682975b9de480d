// 3D Studio reader on arbitrary bytes (from memory). With the shape switch on every second
// run, so the project-file shape path is reached too.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/classic/C3DStudioIo.h"
#include "plugin/host/Scene.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CSceneImportOptions opt;
    C3DStudioIo parser(io);
    parser.SetReadShapes(size > 0 && (data[size - 1] & 1));
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, opt));
    if (scene) {
        // Walk what was built, as a writer would.
        C3DNodePos pos = scene->GetFirstNode();
        C4x4Matrix tm;
        while (C3DSceneNode* n = scene->GetNextNode(pos)) n->GetNodeTM(0, tm);
    }
    return 0;
}
