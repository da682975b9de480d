// Every reader of the format table, from memory: the first byte picks a readable row,
// the rest is the file. A scene that reads is then prepared and written by every writer
// of the table, so damaged scenes reach the writers too. Readers touch no file; writers
// still write files (they have no memory sink yet), into one private folder.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "plugin/FormatTable.h"
#include "plugin/ParserFactory.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"

namespace {
std::vector<uint32_t> Rows(bool readers) {
    std::vector<uint32_t> ids;
    for (const FormatRow& row : kFormatTable)
        if (readers ? row.CanRead() : row.CanWrite()) ids.push_back(row.typeID);
    return ids;
}

const std::string& OutFolder() {
    static const std::string dir = PathToUtf8(fileCreateTmpFolder(CXStringW(), L"formats-fuzz-"));
    return dir;
}

std::string FirstExtension(const FormatRow& row) {
    std::string e(row.extensions);
    return e.substr(0, e.find('|'));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::vector<uint32_t> readers = Rows(true), writers = Rows(false);
    if (size < 1) return 0;
    CFileIo io;
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(
        ReadFormatFromMemory(readers[data[0] % readers.size()], io, {data + 1, size - 1}, options));
    if (!scene) return 0;
    for (uint32_t id : writers) {
        const FormatRow& row = kFormatTable[FindFormatIndex(id)];
        CFileIo wio;
        bool known = false;
        C3DParser* writer = CreateParserForType(id, wio, known);
        if (!writer) continue;
        CSceneExportOptions wopt;
        writer->SaveDefaultOptions(wopt);
        auto prepared = PrepareSceneForExport(*scene, wopt.prepFlags, &wopt);
        const std::string out = OutFolder() + "/out" + FirstExtension(row);
        if (writer->CheckSaveOptions(prepared.get(), wopt))
            writer->Save(CXStringW(Utf8ToWide(out)), prepared.get(), wopt);
        writer->ReleaseParser(false, nullptr);
    }
    return 0;
}
