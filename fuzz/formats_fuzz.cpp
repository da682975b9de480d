// Every reader through the format table, as the host drives it: the first byte picks a
// readable format, the rest is the file. A scene that reads is then prepared and written
// by the writers that take it, so damaged scenes reach the writers too.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <unistd.h>

#include "plugin/ParserFactory.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"

namespace {
struct Format {
    uint32_t id;
    const char* ext;
};
const Format kReaders[] = {{FourCC("3DST"), ".3ds"}, {FourCC("LIGT"), ".lwo"}, {FourCC("LIGS"), ".lws"},
                           {FourCC("AMAP"), ".a3d"}, {FourCC("DXF4"), ".dxf"}, {FourCC("WAVF"), ".obj"},
                           {FourCC("TRUE"), ".cob"}, {FourCC("VRML"), ".wrl"}, {FourCC("VR97"), ".wrl"},
                           {FourCC("STL "), ".stl"}, {FourCC("KMZI"), ".kmz"}, {FourCC("LXOI"), ".lxo"}};
const Format kWriters[] = {{FourCC("STL "), ".stl"}, {FourCC("WAVF"), ".obj"}, {FourCC("PLYY"), ".ply"},
                           {FourCC("MYAS"), ".ma"},  {FourCC("3DST"), ".3ds"}, {FourCC("DXF4"), ".dxf"}};

std::string TempPath(const char* ext) {
    return "/tmp/orbiscope-fuzz-" + std::to_string(getpid()) + ext;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const Format& f = kReaders[data[0] % (sizeof kReaders / sizeof kReaders[0])];
    std::string path = TempPath(f.ext);
    if (FILE* fp = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data + 1, 1, size - 1, fp);
        std::fclose(fp);
    } else {
        return 0;
    }
    CXStringW wpath(Utf8ToWide(path));
    CFileIo io(wpath);
    bool known = false;
    C3DParser* parser = CreateParserForType(f.id, io, known);
    std::unique_ptr<C3DScene> scene;
    if (parser) {
        CSceneImportOptions options;
        parser->LoadDefaultOptions(options);
        scene.reset(parser->Read(wpath, options));
        parser->ReleaseParser(false, nullptr);
    }
    std::remove(path.c_str());
    if (!scene) return 0;
    for (const Format& w : kWriters) {
        CFileIo wio;
        C3DParser* writer = CreateParserForType(w.id, wio, known);
        if (!writer) continue;
        CSceneExportOptions options;
        writer->SaveDefaultOptions(options);
        auto prepared = PrepareSceneForExport(*scene, options.prepFlags, &options);
        std::string out = TempPath(w.ext);
        if (writer->CheckSaveOptions(prepared.get(), options)) writer->Save(CXStringW(Utf8ToWide(out)), prepared.get(), options);
        writer->ReleaseParser(false, nullptr);
        std::remove(out.c_str());
        std::remove(TempPath(".mtl").c_str());
    }
    return 0;
}
