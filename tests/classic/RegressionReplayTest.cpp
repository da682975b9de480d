// Replays every kept input of tests/regressions/classic (fuzzer crashers and hostile
// files found while building the readers): each must read without a crash, and a
// scene that comes back must be walkable.
#include <gtest/gtest.h>

#include "formats/classic/C3DStudioIo.h"
#include "formats/classic/CAmapiIo.h"
#include "formats/classic/CDxfIo.h"
#include "tests/classic/ClassicTestSupport.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

TEST(ClassicRegressions, EveryKeptInputReadsWithoutACrash) {
    const fs::path dir = testsupport::SourceDir() / "tests" / "regressions" / "classic";
    if (!fs::is_directory(dir)) GTEST_SKIP() << "no regression folder";
    int replayed = 0;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (!e.is_regular_file()) continue;
        const std::string name = e.path().filename().string();
        const std::string bytes = testsupport::ReadFile(e.path());
        CFileIo io;
        CSceneImportOptions opt;
        std::unique_ptr<C3DScene> scene;
        if (name.rfind("3ds_", 0) == 0) {
            C3DStudioIo parser(io);
            parser.SetReadShapes(true);
            scene.reset(parser.ReadMemory(bytes.data(), bytes.size(), opt));
            if (!scene) { EXPECT_TRUE(io.GetIoError() == IO_ERR_FORMAT || io.GetIoError() == IO_ERR_OPEN) << name; }
        } else if (name.rfind("amapi_", 0) == 0) {
            CAmapiIo parser(io);
            scene.reset(parser.ReadMemory(bytes.data(), bytes.size(), opt));
        } else if (name.rfind("dxf_", 0) == 0) {
            CDxfIo parser(io);
            scene.reset(parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, opt));
            if (!scene) { EXPECT_TRUE(io.GetIoError() == IO_ERR_FORMAT || io.GetIoError() == IO_ERR_EMPTY) << name; }
        } else {
            continue;
        }
        if (scene) {
            C4x4Matrix tm;
            for (C3DSceneNode* n : classictest::AllNodes(*scene)) n->GetNodeTM(0, tm);
        }
        ++replayed;
    }
    EXPECT_GT(replayed, 0);
}
