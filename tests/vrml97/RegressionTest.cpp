// Replays every saved fuzzer finding: each must read without crashing.
#include <gtest/gtest.h>

#include <filesystem>

#include "VrmlTestUtil.h"
#include "tests/support/TestSupport.h"

TEST(VrmlRegressions, EverySavedInputReads) {
    std::filesystem::path dir = testsupport::SourceDir() / "tests" / "regressions" / "vrml97";
    if (!std::filesystem::exists(dir)) GTEST_SKIP();
    size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (!e.is_regular_file()) continue;
        std::string data = testsupport::ReadFile(e.path());
        auto p = ParseVrml(data);
        VrmlScene scene;
        if (p.nodes) {
            CaptureDiagnostics([&] {
                AdoptWorld(scene, p);
                std::ostringstream os;
                scene.save(os);
            });
        }
        ++n;
    }
    SUCCEED() << n << " inputs";
}
