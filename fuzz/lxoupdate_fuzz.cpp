// libFuzzer target: LXO bytes as the file an update rewrites, with the scene read from the
// same bytes replacing every mesh layer it can. An update that succeeds must leave a file
// that reads back.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "formats/lxo/CLxoIo.h"
#include "formats/lxo/LxoSaver.h"
#include "plugin/host/XString.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    std::unique_ptr<C3DScene> scene(parser.ReadMemory({data, size}, options));
    if (!scene) return 0;
    static const std::string stem = "/tmp/lxoupdate-fuzz-" + std::to_string(::getpid());
    static const std::string src = stem + "-src.lxo", dst = stem + "-dst.lxo";
    for (const std::string* path : {&src, &dst}) {
        std::FILE* f = std::fopen(path->c_str(), "wb");
        if (!f) return 0;
        if (path == &src && size) std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    const LxoUpdateResult r = LxoUpdateFile(src.c_str(), dst.c_str(), *scene);
    if (!r.read && !r.write && r.replaced > 0) {
        CSceneImportOptions again;
        std::unique_ptr<C3DScene> back(parser.Read(CXStringW(Utf8ToWide(dst)), again));
        if (!back) __builtin_trap(); // an update that succeeded must read back
    }
    return 0;
}
