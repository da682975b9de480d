#include "cli/Module.h"

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <unistd.h>
#include <vector>

#include "plugin/host/GenericIo.h"

namespace fs = std::filesystem;

namespace {
constexpr const char* kModuleName = "orbiscope-formats.so";

fs::path ExecutableDir() {
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::path(".") : exe.parent_path();
}
} // namespace

bool LoadFormatModule(LoadedModule& out, std::string& error) {
    std::vector<fs::path> candidates;
    if (const char* env = std::getenv("ORBISCOPE_PLUGIN_PATH"); env && *env) {
        fs::path p(env);
        std::error_code ec;
        candidates.push_back(fs::is_directory(p, ec) ? p / kModuleName : p);
    } else {
        fs::path dir = ExecutableDir();
        candidates.push_back(dir.parent_path() / "lib" / kModuleName);
        candidates.push_back(dir / kModuleName);
    }
    error.clear();
    for (const fs::path& p : candidates) {
        std::error_code ec;
        if (!fs::exists(p, ec)) {
            if (error.empty()) error = "the format module " + p.string() + " does not exist";
            continue;
        }
        void* h = dlopen(p.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!h) {
            const char* why = dlerror();
            error = "the format module " + p.string() + " cannot be loaded: " + (why ? why : "unknown reason");
            continue;
        }
        auto init = reinterpret_cast<bool (*)(int, void*)>(dlsym(h, "Init3DParser"));
        auto ver = reinterpret_cast<uint32_t (*)()>(dlsym(h, "TarnvaleGetPluginVersion"));
        if (!init || !ver) {
            error = "the file " + p.string() + " is not an Orbiscope format module";
            dlclose(h);
            continue;
        }
        out.handle = h;
        out.init = init;
        out.version = ver;
        out.path = p.string();
        CParserRegistry::Instance().AddModule(init);
        return true;
    }
    return false;
}
