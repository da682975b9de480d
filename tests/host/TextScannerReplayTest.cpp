// Replays every file under tests/regressions/textscanner through the fuzz target's
// own body (crashers the fuzzer found, and seeds), so ASan runs see them all.
#define LLVMFuzzerTestOneInput TextScannerFuzzOneInput
#include "fuzz/textscanner_fuzz.cpp"
#undef LLVMFuzzerTestOneInput

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TestSupport.h"

TEST(TextScannerRegressions, ReplayEveryFile) {
    auto dir = testsupport::SourceDir() / "tests" / "regressions" / "textscanner";
    ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
    int n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (!e.is_regular_file()) continue;
        std::string bytes = testsupport::ReadFile(e.path());
        SCOPED_TRACE(e.path().filename().string());
        EXPECT_EQ(0, TextScannerFuzzOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
        ++n;
    }
    EXPECT_GT(n, 0);
}
