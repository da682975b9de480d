#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "formats/lxo/CLxoIo.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/XString.h"
#include "tests/support/TestSupport.h"

// Replays every input kept from fuzzing as the import fuzzer does: the scene build from
// memory, then, for a scene that comes out, its export and a second read of that file.
TEST(LxoSceneRegressions, ImportExportAndReadAgain) {
    const auto dir = testsupport::SourceDir() / "tests/regressions/lxo";
    testsupport::TempDir tmp;
    const CXStringW out(Utf8ToWide((tmp / "again.lxo").string()));
    int count = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (!e.is_regular_file() || e.path().filename().string()[0] == '.') continue;
        SCOPED_TRACE(e.path().string());
        const std::string bytes = testsupport::ReadFile(e.path());
        CFileIo io;
        CLxoIo parser(io);
        CSceneImportOptions options;
        std::unique_ptr<C3DScene> scene(
            parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, options));
        ++count;
        if (!scene) {
            EXPECT_NE(io.GetIoError(), 0);
            continue;
        }
        CSceneExportOptions eopts;
        parser.SaveDefaultOptions(eopts);
        std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(*scene, eopts.prepFlags, &eopts);
        if (!parser.Save(out, prepared.get(), eopts)) {
            EXPECT_EQ(io.GetIoError(), IO_ERR_NOTHING_TO_WRITE);
            continue;
        }
        CSceneImportOptions again;
        EXPECT_TRUE(std::unique_ptr<C3DScene>(parser.Read(out, again)));
    }
    EXPECT_GT(count, 0);
}
