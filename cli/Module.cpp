#include "cli/Module.h"

#include <filesystem>

#include "plugin/host/GenericIo.h"

namespace fs = std::filesystem;

namespace {
fs::path ExecutableDir() {
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::path(".") : exe.parent_path();
}
} // namespace

bool LoadFormatModule(LoadedModule& out, std::string& error) {
    const fs::path dir = ExecutableDir();
    return CParserRegistry::Instance().LoadFormatModule({(dir.parent_path() / "lib").string(), dir.string()}, error,
                                                        &out.version, &out.path);
}
