// The read and write paths of the Python module; the choices and the sentences are the
// command line's, so a script and a shell user are told the same thing.
#include "python/Session.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "plugin/FormatTable.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Scene.h"

namespace fs = std::filesystem;

namespace pyorbiscope {
namespace {
constexpr const char* kModuleName = "orbiscope-formats.so";

std::string Narrow(const CXStringW& w) { return WideToUtf8(w.view()); }
CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

bool Fail(Outcome& out, int result, int exitCode, std::string sentence) {
    out.result = result;
    out.exitCode = exitCode;
    out.message = std::move(sentence);
    return false;
}

std::string ResultSentence(int result, const std::string& file, bool reading) {
    switch (result) {
    case IO_ERR_OPEN: return "cannot open " + file + (reading ? " for reading." : " for writing.");
    case IO_ERR_FORMAT: return file + " is not a file of this format, or it is damaged.";
    case IO_ERR_NOTHING_TO_WRITE: return "there is nothing in the scene that can be written to " + file + ".";
    case IO_ERR_EMPTY: return file + " holds nothing that can be loaded (empty scene).";
    case IO_ERR_CANCELLED: return std::string("cancelled while ") + (reading ? "reading " : "writing ") + file + ".";
    case IO_ERR_NOT_AVAILABLE: return "the format of " + file + " is not available yet.";
    default: return (reading ? "reading " : "writing ") + file + " failed (error " + std::to_string(result) + ").";
    }
}

int ExitCodeOf(int result) {
    switch (result) {
    case IO_ERR_OPEN: return 3;
    case IO_ERR_FORMAT: return 4;
    case IO_ERR_EMPTY: return 5;
    case IO_ERR_NOTHING_TO_WRITE: return 6;
    case IO_ERR_CANCELLED: return 7;
    case IO_ERR_NOT_AVAILABLE: return 8;
    case RESULT_USAGE: return 2;
    case RESULT_CANNOT_WRITE: return 9;
    default: return 4;
    }
}

bool FailWith(Outcome& out, int result, std::string sentence) {
    return Fail(out, result, ExitCodeOf(result), std::move(sentence));
}

const CFormatEntry* ByTypeID(const std::string& id, bool reading, Outcome& out) {
    const CFormatEntry* e = CParserRegistry::Instance().FindByTypeID(TypeIDFromString(Wide(id)));
    if (!e) FailWith(out, RESULT_USAGE, "there is no format with the type ID \"" + id + "\".");
    else if (reading ? !e->CanRead() : !e->CanWrite())
        FailWith(out, RESULT_USAGE,
                 "the format " + Narrow(e->ext.description) + (reading ? " cannot be read." : " cannot be written."));
    else return e;
    return nullptr;
}

// Where several records claim the extension (".wrl"), the content probes choose.
const CFormatEntry* PickReader(const std::string& path, const std::string& typeID, Outcome& out) {
    if (!typeID.empty()) return ByTypeID(typeID, true, out);
    auto& reg = CParserRegistry::Instance();
    CXStringW ext = fileGetExtension(Wide(path));
    if (ext.CompareNoCase(L".gz") == 0) ext = fileGetExtension(fileRemoveExtension(Wide(path)));
    uint8_t head[kProbeBytes];
    size_t n = 0;
    std::error_code ec;
    const uint64_t size = fs::file_size(path, ec);
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        n = std::fread(head, 1, sizeof head, f);
        std::fclose(f);
    }
    if (const uint32_t id = GuessReader(Narrow(ext), {head, n}, ec ? 0 : size))
        if (const CFormatEntry* e = reg.FindByTypeID(id)) return e;
    if (const CFormatEntry* e = reg.FindByExtension(ext, true)) return e;
    if (reg.FindByExtension(ext, false))
        FailWith(out, IO_ERR_NOT_AVAILABLE, "the format of " + path + " can be written but not read.");
    else
        FailWith(out, IO_ERR_NOT_AVAILABLE,
                 "the extension of " + path + " (" + (ext.IsEmpty() ? std::string("none") : Narrow(ext)) +
                     ") is not a format the module reads.");
    return nullptr;
}

const CFormatEntry* PickWriter(const std::string& path, const std::string& typeID, Outcome& out) {
    if (!typeID.empty()) return ByTypeID(typeID, false, out);
    auto& reg = CParserRegistry::Instance();
    const CXStringW ext = fileGetExtension(Wide(path));
    if (const CFormatEntry* e = reg.FindByExtension(ext, false)) return e;
    if (reg.FindByExtension(ext, true))
        FailWith(out, IO_ERR_NOT_AVAILABLE, "the format of " + path + " can be read but not written.");
    else
        FailWith(out, IO_ERR_NOT_AVAILABLE,
                 "the extension of " + path + " (" + (ext.IsEmpty() ? std::string("none") : Narrow(ext)) +
                     ") is not a format the module writes.");
    return nullptr;
}

// The input's own trouble, named before a parser sees it.
bool CheckInput(const std::string& path, Outcome& out) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0)
        return FailWith(out, IO_ERR_OPEN, "cannot open " + path + ": " + std::strerror(errno) + ".");
    if (S_ISDIR(st.st_mode)) return FailWith(out, IO_ERR_OPEN, "cannot open " + path + ": it is a folder, not a file.");
    if (st.st_size == 0 && S_ISREG(st.st_mode)) return FailWith(out, IO_ERR_EMPTY, path + " is empty.");
    return true;
}

struct HookScope {
    explicit HookScope(const Hooks& h) {
        SetThreadCancelToken(h.cancel);
        SetThreadProgressSink(h.progress, h.user);
    }
    ~HookScope() {
        SetThreadCancelToken(nullptr);
        SetThreadProgressSink(nullptr, nullptr);
    }
};
} // namespace

bool LoadFormats(const std::vector<std::string>& anchorDirs, std::string& error) {
    static std::mutex lock;
    static bool loaded = false;
    static std::string firstError;
    std::lock_guard<std::mutex> guard(lock);
    if (loaded) return true;
    std::vector<fs::path> candidates;
    if (const char* env = std::getenv("ORBISCOPE_PLUGIN_PATH"); env && *env) {
        std::error_code ec;
        candidates.push_back(fs::is_directory(env, ec) ? fs::path(env) / kModuleName : fs::path(env));
    } else {
        for (const std::string& d : anchorDirs) candidates.push_back(fs::path(d) / kModuleName);
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
        if (!init) {
            error = "the file " + p.string() + " is not an Orbiscope format module";
            dlclose(h);
            continue;
        }
        CParserRegistry::Instance().AddModule(init);
        loaded = true; // the module stays loaded for the life of the process
        return true;
    }
    if (candidates.empty()) error = "no folder to look for the format module in";
    return false;
}

std::unique_ptr<C3DScene> ReadFile(const std::string& path, const std::string& typeID, const Hooks& hooks,
                                   Outcome& out) {
    out = Outcome();
    if (!CheckInput(path, out)) return nullptr;
    const CFormatEntry* entry = PickReader(path, typeID, out);
    if (!entry) return nullptr;
    out.format = Narrow(entry->ext.description);
    CFileIo io(Wide(path));
    io.SetSilentMode(true);
    io.SetClass(entry->ext.typeID);
    C3DParser* parser = CParserRegistry::CreateParser(*entry, io);
    if (!parser) {
        FailWith(out, IO_ERR_NOT_AVAILABLE, "the module made no parser for " + out.format + ".");
        return nullptr;
    }
    CSceneImportOptions options;
    parser->LoadDefaultOptions(options);
    std::unique_ptr<C3DScene> scene;
    {
        HookScope scope(hooks);
        scene.reset(parser->Read(Wide(path), options));
    }
    parser->ReleaseParser(false, nullptr);
    out.log = options.GetLog();
    if (!scene) {
        int r = io.GetIoError();
        if (r == 0) r = IO_ERR_FORMAT;
        std::string s = ResultSentence(r, path, true);
        if (!io.GetIoErrorText().IsEmpty() && r != IO_ERR_CANCELLED) s += " (" + Narrow(io.GetIoErrorText()) + ")";
        FailWith(out, r, s);
    }
    return scene;
}

bool WriteFile(const C3DScene& scene, const std::string& path, const std::string& typeID, const Hooks& hooks,
               Outcome& out) {
    out = Outcome();
    const CFormatEntry* entry = PickWriter(path, typeID, out);
    if (!entry) return false;
    out.format = Narrow(entry->ext.description);
    std::error_code ec;
    const fs::path target = fs::absolute(fs::path(path), ec);
    const fs::path dir = target.parent_path();
    if (ec || !fs::is_directory(dir, ec))
        return FailWith(out, RESULT_CANNOT_WRITE,
                        "cannot write " + path + ": the folder " + dir.string() + " does not exist.");
    if (fs::is_directory(target, ec))
        return FailWith(out, RESULT_CANNOT_WRITE, "cannot write " + path + ": it is a folder.");
    const CXStringW tmpName = fileCreateTmpFolder(Wide(dir.string()), L".orbiscope-");
    if (tmpName.IsEmpty())
        return FailWith(out, RESULT_CANNOT_WRITE, "cannot write " + path + ": " + std::strerror(errno) + ".");
    struct Cleanup {
        CXStringW p;
        ~Cleanup() { fileRemoveDirectory(p); }
    } cleanup{tmpName};
    const fs::path tmpDir(Narrow(tmpName));

    CFileIo io(Wide(target.string()));
    io.SetSilentMode(true);
    io.SetClass(entry->ext.typeID);
    C3DParser* parser = CParserRegistry::CreateParser(*entry, io);
    if (!parser) return FailWith(out, IO_ERR_NOT_AVAILABLE, "the module made no writer for " + out.format + ".");
    CSceneExportOptions options;
    parser->SaveDefaultOptions(options);
    bool ok = false;
    IoWriteFailure failure{};
    {
        HookScope scope(hooks);
        std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(scene, options.prepFlags, &options);
        if (!parser->CheckSaveOptions(prepared.get(), options)) {
            parser->ReleaseParser(false, nullptr);
            out.log = options.GetLog();
            return FailWith(out, IO_ERR_NOTHING_TO_WRITE, ResultSentence(IO_ERR_NOTHING_TO_WRITE, path, false));
        }
        IoFileClearWriteFailure();
        ok = parser->Save(Wide((tmpDir / target.filename()).string()), prepared.get(), options);
        failure = IoFileLastWriteFailure();
    }
    parser->ReleaseParser(false, nullptr);
    out.log = options.GetLog();
    if (!ok) {
        int r = io.GetIoError();
        if (r == 0) r = IO_ERR_OPEN;
        if (r == IO_ERR_OPEN && failure.error)
            return FailWith(
                out, RESULT_CANNOT_WRITE,
                (failure.atOpen ? "cannot open " + path + " for writing: " : "cannot write " + path + ": ") +
                    std::strerror(failure.error) + ".");
        return FailWith(out, r == IO_ERR_OPEN ? RESULT_CANNOT_WRITE : r, ResultSentence(r, path, false));
    }
    // The writers finish what they started; a cancel during the write drops the result here.
    if (hooks.cancel && hooks.cancel->load())
        return FailWith(out, IO_ERR_CANCELLED, ResultSentence(IO_ERR_CANCELLED, path, false));
    for (auto& e : fs::directory_iterator(tmpDir, ec)) {
        const fs::path dest = dir / e.path().filename();
        if (std::rename(e.path().c_str(), dest.c_str()) != 0)
            return FailWith(out, RESULT_CANNOT_WRITE,
                            "cannot move the written file into place as " + dest.string() + ": " +
                                std::strerror(errno) + ".");
    }
    return true;
}

} // namespace pyorbiscope
