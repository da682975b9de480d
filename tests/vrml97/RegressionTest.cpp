// Replays every saved fuzzer finding: each must read without crashing.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TestSupport.h"
#include "VrmlTestUtil.h"

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
            VrmlMFNode* nodes = p.nodes.release();
            CaptureDiagnostics([&] {
                scene.replaceWorld(*nodes, p.ns, nullptr, nullptr);
                std::ostringstream os;
                scene.save(os);
            });
            delete nodes;
        }
        ++n;
    }
    SUCCEED() << n << " inputs";
}
