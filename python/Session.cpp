// The read and write paths of the Python module; the choices and the sentences are the
// command line's, so a script and a shell user are told the same thing.
#include "python/Session.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "plugin/FormatChoice.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Scene.h"

namespace fs = std::filesystem;

namespace pyorbiscope {
namespace {
std::string Narrow(const CXStringW& w) { return WideToUtf8(w.view()); }
CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

bool Fail(Outcome& out, int result, int exitCode, std::string sentence) {
    out.result = result;
    out.exitCode = exitCode;
    out.message = std::move(sentence);
    return false;
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

// A format that does not exist or does not fit is a usage error; an extension no format
// claims means the format is not available.
const CFormatEntry* Chosen(const CFormatEntry* entry, const std::string& typeID, const std::string& error,
                           Outcome& out) {
    if (!entry) FailWith(out, typeID.empty() ? IO_ERR_NOT_AVAILABLE : RESULT_USAGE, error);
    return entry;
}

bool CheckInput(const std::string& path, Outcome& out) {
    int result = 0;
    const std::string problem = InputProblem(path, result);
    return problem.empty() || FailWith(out, result, problem);
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
    std::lock_guard<std::mutex> guard(lock);
    if (!loaded) loaded = CParserRegistry::Instance().LoadFormatModule(anchorDirs, error);
    return loaded;
}

std::unique_ptr<C3DScene> ReadFile(const std::string& path, const std::string& typeID, const Hooks& hooks,
                                   Outcome& out) {
    out = Outcome();
    if (!CheckInput(path, out)) return nullptr;
    std::string error;
    const CFormatEntry* entry = Chosen(PickReader(path, typeID, error), typeID, error, out);
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
    std::string error;
    const CFormatEntry* entry = Chosen(PickWriter(path, typeID, error), typeID, error, out);
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
        if (hooks.cancel && hooks.cancel->load()) { // the preparation stopped part way
            parser->ReleaseParser(false, nullptr);
            return FailWith(out, IO_ERR_CANCELLED, ResultSentence(IO_ERR_CANCELLED, path, false));
        }
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
