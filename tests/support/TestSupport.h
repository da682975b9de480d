#pragma once
// Shared test helpers: fixture paths, the corpus folder, temporary folders.
#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {
// ../shared/corpus beside the checkout, or $ORBISCOPE_CORPUS; empty path when absent.
std::filesystem::path CorpusDir();
// Files of a corpus subfolder (sorted); empty when the corpus is absent.
std::vector<std::filesystem::path> CorpusFiles(const std::string& sub, const std::string& ext = "");
std::filesystem::path SourceDir();
std::filesystem::path BinaryDir();
// A fresh folder, removed when the object dies.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
private:
    std::filesystem::path m_path;
};
std::string ReadFile(const std::filesystem::path& p);
void WriteFile(const std::filesystem::path& p, const std::string& data);
} // namespace testsupport

// Skips the current test when the corpus is absent.
#define SKIP_WITHOUT_CORPUS()                                                                                          \
    do {                                                                                                               \
        if (testsupport::CorpusDir().empty()) GTEST_SKIP() << "corpus folder not present";                             \
    } while (0)
