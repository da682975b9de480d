// Real worlds: every file of the corpus reads; valid ones without a parse error.
// Gzip worlds are inflated by the test (the engine reads plain text).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>

#include "VrmlTestUtil.h"
#include "plugin/host/MiniZip.h"
#include "tests/support/TestSupport.h"
#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/VrmlNodeKinds.h"
#include "vrml/vrml97/VrmlStats.h"

namespace fs = std::filesystem;

namespace {

struct Outcome {
    size_t nodes = 0;
    std::string diagnostics;
};

Outcome ReadWorld(const fs::path& file, const fs::path& scratch) {
    Outcome o;
    fs::path path = file;
    CXStringW wide(Utf8ToWide(file.string()));
    if (CMiniZip::IsGZipFile(wide)) {
        std::string text;
        EXPECT_TRUE(CMiniZip::InflateGZip(wide, text, CMiniZip::InflateLimit(fs::file_size(file)))) << file;
        // Beside nothing: relative EXTERNPROTOs of a gzip world resolve from the scratch folder.
        path = scratch / file.filename().replace_extension("");
        testsupport::WriteFile(path, text);
    }
    VrmlScene* scene = nullptr;
    o.diagnostics = CaptureDiagnostics([&] { scene = new VrmlScene(path.c_str()); });
    std::map<std::string, size_t> counts;
    o.nodes = VrmlCountNodes(scene->root()->children(), counts);
    delete scene;
    return o;
}

std::vector<fs::path> Worlds(const fs::path& root) {
    std::vector<fs::path> out;
    for (const auto& e : fs::recursive_directory_iterator(root)) {
        if (!e.is_regular_file()) continue;
        std::string name = e.path().filename().string();
        std::string lower;
        for (char c : name) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        auto ends = [&lower](const char* s) {
            size_t n = std::strlen(s);
            return lower.size() >= n && lower.compare(lower.size() - n, n, s) == 0;
        };
        if (ends(".wrl") || ends(".wrl.gz") || ends(".wrz") || ends(".vrml")) out.push_back(e.path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace

TEST(VrmlCorpus, EveryWorldReads) {
    SKIP_WITHOUT_CORPUS();
    fs::path root = testsupport::CorpusDir() / "wrl97";
    if (!fs::exists(root)) GTEST_SKIP() << "no wrl97 corpus";
    testsupport::TempDir scratch;
    size_t files = 0, total = 0;
    for (const fs::path& f : Worlds(root)) {
        ++files;
        Outcome o = ReadWorld(f, scratch.path());
        bool invalid = f.string().find("/invalid/") != std::string::npos;
        std::string rel = fs::relative(f, root).string();
        // The record: node count and any diagnostics, per file.
        std::printf("[corpus] %-70s %6zu nodes%s\n", rel.c_str(), o.nodes,
                    o.diagnostics.empty() ? "" : "  (diagnostics below)");
        if (!o.diagnostics.empty()) std::printf("%s", o.diagnostics.c_str());
        if (invalid) continue;
        total += o.nodes;
        EXPECT_EQ(o.diagnostics.find("parse error"), std::string::npos) << rel << "\n" << o.diagnostics;
        EXPECT_EQ(o.diagnostics.find("parser stack overflow"), std::string::npos) << rel;
        // Worlds made only of PROTO libraries have no nodes of their own.
        if (rel.find("_proto") == std::string::npos) { EXPECT_GT(o.nodes, 0u) << rel; }
    }
    EXPECT_GT(files, 40u);
    EXPECT_GT(total, 2000u);
}

TEST(VrmlCorpus, LargeMotionCaptureWorldKeepsItsAnimation) {
    SKIP_WITHOUT_CORPUS();
    fs::path f = testsupport::CorpusDir() / "wrl97" / "MotionCaptureROM.WRL";
    if (!fs::exists(f)) GTEST_SKIP();
    VrmlScene scene(f.c_str());
    std::map<std::string, size_t> counts;
    VrmlCountNodes(scene.root()->children(), counts);
    EXPECT_GT(counts["OrientationInterpolator"] + counts["PositionInterpolator"], 10u);
}
