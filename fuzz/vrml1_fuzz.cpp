// libFuzzer target: VRML 1.0 / Inventor text through CVrmlIo::ReadMemory (parse and
// import; nothing is inlined from memory). Parser messages are silenced by the sink only
// in the parse-only half; the import's go to the options' log.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "vrml/vrml1/CVrmlIo.h"
#include "vrml/vrml1/QvIn.h"
#include "vrml/vrml1/QvNode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        QvIn in({data, size});
        in.setSink([](const std::string&) {});
        QvFileContents contents;
        (void)QvReadFile(in, contents);
    }
    CFileIo io;
    CVrmlIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (scene) {
        (void)scene->MemoryBytes();
        (void)CVrmlIo::FormatScene(*scene);
    }
    return 0;
}
