#include "tests/support/TestSupport.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace testsupport {
fs::path SourceDir() { return ORBISCOPE_SOURCE_DIR; }
fs::path BinaryDir() { return ORBISCOPE_BINARY_DIR; }

fs::path CorpusDir() {
    if (const char* env = std::getenv("ORBISCOPE_CORPUS"); env && *env) {
        std::error_code ec;
        if (fs::is_directory(env, ec)) return env;
        return {};
    }
    fs::path p = SourceDir().parent_path() / "shared" / "corpus";
    std::error_code ec;
    return fs::is_directory(p, ec) ? p : fs::path();
}

std::vector<fs::path> CorpusFiles(const std::string& sub, const std::string& ext) {
    std::vector<fs::path> out;
    fs::path dir = CorpusDir();
    if (dir.empty()) return out;
    dir /= sub;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) return out;
    for (auto& e : fs::directory_iterator(dir, ec)) {
        if (!e.is_regular_file()) continue;
        if (!ext.empty()) {
            std::string x = e.path().extension().string();
            std::transform(x.begin(), x.end(), x.begin(), [](unsigned char c) { return std::tolower(c); });
            if (x != ext) continue;
        }
        out.push_back(e.path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

TempDir::TempDir() {
    static std::atomic<int> counter{0};
    m_path =
        fs::temp_directory_path() / ("orbiscope-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    fs::remove_all(m_path);
    fs::create_directories(m_path);
}
TempDir::~TempDir() {
    std::error_code ec;
    fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(m_path, ec);
}

std::string ReadFile(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}
void WriteFile(const fs::path& p, const std::string& data) {
    std::ofstream f(p, std::ios::binary);
    f.write(data.data(), static_cast<std::streamsize>(data.size()));
}
} // namespace testsupport
