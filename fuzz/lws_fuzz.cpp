// libFuzzer target: Lightwave scene text through CLightwaveSceneIo::ReadMemory (no folder, so
// no object file is ever opened), then every node's transform at a few times.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/classic/CLightwaveSceneIo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CLightwaveSceneIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) {
        C3DBaseObject* o;
        C4x4Matrix m;
        for (C3DNodePos p = scene->GetFirstNode(); C3DSceneNode* n = scene->GetNextNode(o, p);) {
            n->GetNodeTM(0, m);
            n->GetNodeTM(scene->GetAnimationEnd(), m);
        }
    }
    return 0;
}
