// libFuzzer target: LXO bytes through CLxoIo::ReadMemory (the whole scene build); a scene
// that comes out is written back as LXO and read again, so the export meets whatever
// shapes a hostile file can give a scene.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "formats/lxo/CLxoIo.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/XString.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (!scene) return 0;
    (void)scene->MemoryBytes();
    static const std::string out = "/tmp/lxoimport-fuzz-" + std::to_string(::getpid()) + ".lxo";
    CSceneExportOptions eopts;
    parser.SaveDefaultOptions(eopts);
    std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(*scene, eopts.prepFlags, &eopts);
    if (prepared && parser.Save(CXStringW(Utf8ToWide(out)), prepared.get(), eopts)) {
        CSceneImportOptions again;
        std::unique_ptr<C3DScene> back(parser.Read(CXStringW(Utf8ToWide(out)), again));
        if (!back) __builtin_trap(); // what the export writes must read back
    }
    return 0;
}
