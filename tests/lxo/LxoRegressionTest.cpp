#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "formats/lxo/LxoCopy.h"
#include "formats/lxo/LxoDump.h"
#include "tests/support/TestSupport.h"

// Replays every input kept from fuzzing as the fuzzer does: the verbose dump from memory,
// then the updater. Each must end with one of the reader's result codes.
TEST(LxoRegressions, ReplayEveryFile) {
    const auto dir = testsupport::SourceDir() / "tests/regressions/lxo";
    int count = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (!e.is_regular_file() || e.path().filename().string()[0] == '.') continue;
        std::string bytes = testsupport::ReadFile(e.path());
        if (bytes.empty()) continue;
        FILE* in = fmemopen(bytes.data(), bytes.size(), "rb");
        ASSERT_NE(in, nullptr);
        FILE* sink = std::fopen("/dev/null", "w");
        uint32_t r;
        {
            LxoDump dump(in, sink, true, "regression");
            r = dump.Read();
        }
        std::fclose(sink);
        EXPECT_TRUE(r == 0 || r == LXO_ERR_READ || r == LXO_ERR_UNSUPPORTED_TYPE) << e.path() << " " << r;
        testsupport::TempDir tmp;
        LxoUpdater up(e.path().string().c_str(), (tmp / "out.lxo").string().c_str());
        const uint32_t u = up.Read();
        EXPECT_TRUE(u == 0 || u == LXO_ERR_READ || u == LXO_ERR_UNSUPPORTED_TYPE) << e.path() << " " << u;
        ++count;
    }
    EXPECT_GT(count, 0);
}
