// orbiscope: a thin command-line host. It loads the format module with dlopen and
// drives its parsers exactly as the browser does.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "cli/ExitCodes.h"
#include "cli/Module.h"
#include "cli/Preview.h"
#include "cli/SceneSummary.h"
#include "cli/Signals.h"
#include "cli/ToolCommands.h"
#include "plugin/FormatTable.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Scene.h"

namespace fs = std::filesystem;

namespace {
int g_verbosity = 1; // 0 quiet, 1 normal, 2 verbose
std::atomic<bool> g_cancel{false};

const char* kUsage =
    "usage: orbiscope [-q|-v] COMMAND ...\n"
    "\n"
    "commands:\n"
    "  formats                         list the formats the module offers\n"
    "  info FILE [--json]              read FILE and describe its scene\n"
    "  convert IN OUT [--from ID] [--to ID]\n"
    "                                  read IN and write OUT; formats by extension or type ID\n"
    "  lxo dump FILE [-v] [-o OUT]     dump the chunks of a Modo LXO file\n"
    "  lxo copy SRC DST                copy an LXO file chunk by chunk\n"
    "  lxo replace SRC DST --layer REFID MESHFILE\n"
    "                                  replace one mesh layer of an LXO file\n"
    "  vrml97 check FILE               parse a VRML97 world and report diagnostics\n"
    "  vrml97 print FILE               parse a VRML97 world and print it back\n"
    "%s"
    "\n"
    "options: -q quiet, -v verbose, --help, --version\n"
    "environment: ORBISCOPE_PLUGIN_PATH (the module file or its folder)\n"
    "\n"
    "exit status:\n"
    "  0 success              2 usage error            3 a file cannot be opened\n"
    "  4 not this format or damaged                    5 nothing to load (empty)\n"
    "  6 nothing to write     7 cancelled              8 format not available\n"
    "  9 the output cannot be written                 10 the format module cannot be loaded\n";

std::string Narrow(const CXStringW& w) { return WideToUtf8(w.view()); }
CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

int Fail(int code, const std::string& sentence) {
    std::fprintf(stderr, "orbiscope: %s\n", sentence.c_str());
    return code;
}

// Progress bar on stderr for reads that run longer than about a second, when stderr is a
// terminal (a log file or a pipe gets the messages only).
struct Progress {
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    bool terminal = isatty(STDERR_FILENO) != 0;
    bool shown = false;
    int lastPct = -1;
    static void Sink(int64_t done, int64_t total, void* user) {
        auto* p = static_cast<Progress*>(user);
        if (total <= 0 || g_verbosity == 0 || !p->terminal) return;
        auto el = std::chrono::steady_clock::now() - p->start;
        if (!p->shown && el < std::chrono::seconds(1)) return;
        int pct = static_cast<int>(done * 100 / total);
        if (pct == p->lastPct) return;
        p->lastPct = pct;
        p->shown = true;
        int bars = pct / 4;
        std::fprintf(stderr, "\r[%-25.*s] %3d%%", bars, "#########################", pct);
        std::fflush(stderr);
    }
    ~Progress() {
        if (shown) std::fprintf(stderr, "\r%40s\r", "");
    }
};

std::string ResultSentence(int result, const std::string& file, bool reading) {
    switch (result) {
    case IO_ERR_OPEN: return "cannot open " + file + (reading ? " for reading." : " for writing.");
    case IO_ERR_FORMAT: return file + " is not a file of this format, or it is damaged.";
    case IO_ERR_NOTHING_TO_WRITE: return "there is nothing in the scene that can be written to " + file + ".";
    case IO_ERR_EMPTY: return file + " holds nothing that can be loaded (empty scene).";
    case IO_ERR_CANCELLED: return "cancelled while reading " + file + ".";
    case IO_ERR_NOT_AVAILABLE: return "the format of " + file + " is not available yet.";
    default: return (reading ? "reading " : "writing ") + file + " failed (error " + std::to_string(result) + ").";
    }
}

int ResultExitCode(int result) {
    switch (result) {
    case IO_ERR_OPEN: return EXIT_CANNOT_OPEN;
    case IO_ERR_FORMAT: return EXIT_BAD_FORMAT;
    case IO_ERR_NOTHING_TO_WRITE: return EXIT_NOTHING_TO_WRITE;
    case IO_ERR_EMPTY: return EXIT_EMPTY;
    case IO_ERR_CANCELLED: return EXIT_CANCELLED;
    case IO_ERR_NOT_AVAILABLE: return EXIT_NOT_AVAILABLE;
    default: return EXIT_BAD_FORMAT;
    }
}

// Where several records claim the extension (".wrl"), the formats' content probes
// choose from the file's first bytes.
const CFormatEntry* PickReader(const std::string& path, const std::string& fromID, std::string& err) {
    auto& reg = CParserRegistry::Instance();
    if (!fromID.empty()) {
        const CFormatEntry* e = reg.FindByTypeID(TypeIDFromString(Wide(fromID)));
        if (!e) err = "there is no format with the type ID \"" + fromID + "\".";
        else if (!e->CanRead()) err = "the format " + Narrow(e->ext.description) + " cannot be read.";
        return err.empty() ? e : nullptr;
    }
    CXStringW ext = fileGetExtension(Wide(path));
    // "world.wrl.gz": the extension before ".gz" names the format.
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
    const CFormatEntry* e = reg.FindByExtension(ext, true);
    if (!e) {
        if (reg.FindByExtension(ext, false))
            err = "the format of " + path + " can be written but not read.";
        else
            err = "the extension of " + path + " (" + (ext.IsEmpty() ? std::string("none") : Narrow(ext)) +
                  ") is not a format the module reads.";
    }
    return e;
}

const CFormatEntry* PickWriter(const std::string& path, const std::string& toID, std::string& err) {
    auto& reg = CParserRegistry::Instance();
    if (!toID.empty()) {
        const CFormatEntry* e = reg.FindByTypeID(TypeIDFromString(Wide(toID)));
        if (!e) err = "there is no format with the type ID \"" + toID + "\".";
        else if (!e->CanWrite()) err = "the format " + Narrow(e->ext.description) + " cannot be written.";
        return err.empty() ? e : nullptr;
    }
    CXStringW ext = fileGetExtension(Wide(path));
    const CFormatEntry* e = reg.FindByExtension(ext, false);
    if (!e) {
        if (reg.FindByExtension(ext, true))
            err = "the format of " + path + " can be read but not written.";
        else
            err = "the extension of " + path + " (" + (ext.IsEmpty() ? std::string("none") : Narrow(ext)) +
                  ") is not a format the module writes.";
    }
    return e;
}

// Checks the input before a parser sees it, so the sentence names the real reason.
int CheckInput(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return Fail(EXIT_CANNOT_OPEN, "cannot open " + path + ": " + std::strerror(errno) + ".");
    if (S_ISDIR(st.st_mode)) return Fail(EXIT_CANNOT_OPEN, "cannot open " + path + ": it is a folder, not a file.");
    if (access(path.c_str(), R_OK) != 0)
        return Fail(EXIT_CANNOT_OPEN, "cannot open " + path + ": " + std::strerror(errno) + ".");
    if (st.st_size == 0) return Fail(EXIT_EMPTY, path + " is empty.");
    return EXIT_OK;
}

int ReadScene(const std::string& path, const std::string& fromID, std::unique_ptr<C3DScene>& scene,
              const CFormatEntry** used) {
    if (int rc = CheckInput(path)) return rc;
    std::string err;
    const CFormatEntry* entry = PickReader(path, fromID, err);
    if (!entry) return Fail(err.find("type ID") != std::string::npos ? EXIT_USAGE : EXIT_NOT_AVAILABLE, err);
    if (used) *used = entry;
    CFileIo io(Wide(path));
    io.SetSilentMode(true);
    io.SetClass(entry->ext.typeID);
    C3DParser* parser = CParserRegistry::CreateParser(*entry, io);
    if (!parser) return Fail(EXIT_NOT_AVAILABLE, "the module made no parser for " + Narrow(entry->ext.description) + ".");
    CSceneImportOptions options;
    parser->LoadDefaultOptions(options);
    Progress progress;
    SetThreadProgressSink(&Progress::Sink, &progress);
    SetThreadCancelToken(&g_cancel);
    scene.reset(parser->Read(Wide(path), options));
    SetThreadCancelToken(nullptr);
    SetThreadProgressSink(nullptr, nullptr);
    parser->ReleaseParser(false, nullptr);
    if (g_verbosity >= 2)
        for (auto& l : options.GetLog()) std::fprintf(stderr, "orbiscope: note: %s\n", Narrow(l.text).c_str());
    if (!scene) {
        int r = io.GetIoError();
        if (r == 0) r = IO_ERR_FORMAT;
        std::string s = ResultSentence(r, path, true);
        if (!io.GetIoErrorText().IsEmpty() && r != IO_ERR_CANCELLED) s += " (" + Narrow(io.GetIoErrorText()) + ")";
        return Fail(ResultExitCode(r), s);
    }
    return EXIT_OK;
}

// What really failed in a write that a writer reported as "cannot open".
std::string WriteFailureSentence(const IoWriteFailure& f, const std::string& out) {
    if (f.atOpen) return "cannot open " + out + " for writing: " + std::strerror(f.error) + ".";
    return "cannot write " + out + ": " + std::strerror(f.error) + ".";
}

bool SameFile(const std::string& a, const std::string& b) {
    struct stat sa, sb;
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// Writes into a fresh folder beside the target under the target's own name, then moves
// every file written into place: a failed save leaves what was there untouched.
int WriteScene(const C3DScene& scene, const std::string& out, const CFormatEntry& entry) {
    fs::path target = fs::absolute(fs::path(out));
    fs::path dir = target.parent_path();
    std::error_code ec;
    if (!fs::is_directory(dir, ec))
        return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": the folder " + dir.string() + " does not exist.");
    if (fs::is_directory(target, ec)) return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": it is a folder.");
    // Named after this process, so that a run killed outright leaves a folder the next
    // run here recognises as stale and removes.
    const CXStringW tmpName = fileCreateTmpFolder(Wide(dir.string()), L".orbiscope-");
    if (tmpName.IsEmpty())
        return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": " + std::strerror(errno) + ".");
    fs::path tmpDir(Narrow(tmpName));
    struct Cleanup {
        CXStringW p;
        ~Cleanup() { fileRemoveDirectory(p); }
    } cleanup{tmpName};

    CFileIo io(Wide(target.string()));
    io.SetSilentMode(true);
    io.SetClass(entry.ext.typeID);
    C3DParser* parser = CParserRegistry::CreateParser(entry, io);
    if (!parser) return Fail(EXIT_NOT_AVAILABLE, "the module made no writer for " + Narrow(entry.ext.description) + ".");
    CSceneExportOptions options;
    parser->SaveDefaultOptions(options);
    std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(scene, options.prepFlags, &options);
    if (!parser->CheckSaveOptions(prepared.get(), options)) {
        parser->ReleaseParser(false, nullptr);
        return Fail(EXIT_NOTHING_TO_WRITE, "there is nothing in the scene that can be written to " + out + ".");
    }
    fs::path tmpTarget = tmpDir / target.filename();
    IoFileClearWriteFailure();
    bool ok = parser->Save(Wide(tmpTarget.string()), prepared.get(), options);
    const IoWriteFailure failure = IoFileLastWriteFailure();
    parser->ReleaseParser(false, nullptr);
    if (g_verbosity >= 2)
        for (auto& l : options.GetLog()) std::fprintf(stderr, "orbiscope: note: %s\n", Narrow(l.text).c_str());
    if (!ok) {
        int r = io.GetIoError();
        if (r == 0) r = IO_ERR_OPEN;
        if (r == IO_ERR_OPEN && failure.error) return Fail(EXIT_CANNOT_WRITE, WriteFailureSentence(failure, out));
        return Fail(r == IO_ERR_OPEN ? EXIT_CANNOT_WRITE : ResultExitCode(r), ResultSentence(r, out, false));
    }
    // A Ctrl-C during the write: the writers do not poll, so the finished file is dropped here.
    if (g_cancel.load()) return Fail(EXIT_CANCELLED, "cancelled while writing " + out + ".");
    CommitSection commit;
    for (auto& e : fs::directory_iterator(tmpDir, ec)) {
        fs::path dest = dir / e.path().filename();
        if (std::rename(e.path().c_str(), dest.c_str()) != 0)
            return Fail(EXIT_CANNOT_WRITE, "cannot move the written file into place as " + dest.string() + ": " +
                                               std::strerror(errno) + ".");
    }
    return EXIT_OK;
}

int CmdFormats() {
    std::printf("%-26s %-26s %-6s %-10s %s\n", "description", "extensions", "ID", "hex", "read/write");
    for (auto& f : CParserRegistry::Instance().Formats()) {
        std::string rw = std::string(f.CanRead() ? "read" : "") + (f.CanRead() && f.CanWrite() ? "+" : "") +
                         (f.CanWrite() ? "write" : "");
        std::printf("%-26s %-26s %-6s 0x%08X %s\n", Narrow(f.ext.description).c_str(),
                    Narrow(f.ext.extensions).c_str(), ("\"" + Narrow(TypeIDToString(f.ext.typeID)) + "\"").c_str(),
                    f.ext.typeID, rw.c_str());
    }
    return EXIT_OK;
}

int CmdInfo(const std::vector<std::string>& args) {
    std::string file;
    bool json = false;
    std::string from;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") json = true;
        else if (args[i] == "--from" && i + 1 < args.size()) from = args[++i];
        else if (file.empty()) file = args[i];
        else return Fail(EXIT_USAGE, "info takes one file (see --help).");
    }
    if (file.empty()) return Fail(EXIT_USAGE, "info needs a file (see --help).");
    std::unique_ptr<C3DScene> scene;
    const CFormatEntry* entry = nullptr;
    if (int rc = ReadScene(file, from, scene, &entry)) return rc;
    std::string fmt = Narrow(entry->ext.description);
    if (json) {
        std::fputs(DescribeSceneJson(*scene, file, fmt).c_str(), stdout);
    } else {
        std::printf("file: %s (%s)\n", file.c_str(), fmt.c_str());
        std::fputs(DescribeScene(*scene).c_str(), stdout);
    }
    return EXIT_OK;
}

int CmdConvert(const std::vector<std::string>& args) {
    std::vector<std::string> files;
    std::string from, to;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--from" && i + 1 < args.size()) from = args[++i];
        else if (args[i] == "--to" && i + 1 < args.size()) to = args[++i];
        else if (!args[i].empty() && args[i][0] == '-' && args[i].size() > 1)
            return Fail(EXIT_USAGE, "unknown option " + args[i] + " (see --help).");
        else files.push_back(args[i]);
    }
    if (files.size() != 2) return Fail(EXIT_USAGE, "convert needs an input and an output file (see --help).");
    const std::string& in = files[0];
    const std::string& out = files[1];
    if (in == out || SameFile(in, out))
        return Fail(EXIT_USAGE, "the input and the output are the same file (" + out + "); choose another output.");
    std::string err;
    const CFormatEntry* writer = PickWriter(out, to, err);
    if (!writer) return Fail(err.find("type ID") != std::string::npos ? EXIT_USAGE : EXIT_NOT_AVAILABLE, err);
    std::unique_ptr<C3DScene> scene;
    if (int rc = ReadScene(in, from, scene, nullptr)) return rc;
    if (int rc = WriteScene(*scene, out, *writer)) return rc;
    if (g_verbosity >= 1) std::printf("%s -> %s: %s\n", in.c_str(), out.c_str(), SummaryLine(*scene).c_str());
    return EXIT_OK;
}
} // namespace

namespace {
int Run(int argc, char** argv) {
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) args.emplace_back(argv[i]);
    while (!args.empty() && (args[0] == "-q" || args[0] == "-v")) {
        g_verbosity = args[0] == "-q" ? 0 : 2;
        args.erase(args.begin());
    }
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        std::fprintf(args.empty() ? stderr : stdout, kUsage, kPreviewUsage);
        return args.empty() ? EXIT_USAGE : EXIT_OK;
    }
    LoadedModule module;
    std::string err;
    if (!LoadFormatModule(module, err)) return Fail(EXIT_MODULE, err + ".");
    if (args[0] == "--version") {
        uint32_t v = module.version();
        std::printf("orbiscope 0.5.0 (format module interface %u.%u, %s)\n", v >> 16, v & 0xFFFF, module.path.c_str());
        return EXIT_OK;
    }
    std::vector<std::string> rest(args.begin() + 1, args.end());
    const std::string& cmd = args[0];
    if (cmd == "formats") return CmdFormats();
    if (cmd == "info") return CmdInfo(rest);
    if (cmd == "convert") return CmdConvert(rest);
    if (cmd == "preview" || cmd == "thumbnails")
        return RunPreviewCommand(cmd, rest, g_verbosity, &g_cancel, [](const std::string& file, const std::string& from,
                                                            std::unique_ptr<C3DScene>& scene, std::string& format) {
            const CFormatEntry* entry = nullptr;
            const int rc = ReadScene(file, from, scene, &entry);
            if (entry) format = Narrow(entry->ext.description);
            return rc;
        });
    if (cmd == "lxo" || cmd == "vrml97") {
        std::vector<char*> sub;
        for (int i = 0; i < argc; ++i)
            if (std::strcmp(argv[i], cmd.c_str()) == 0) {
                for (int j = i + 1; j < argc; ++j) sub.push_back(argv[j]);
                break;
            }
        sub.push_back(nullptr);
        int n = static_cast<int>(sub.size()) - 1;
        return cmd == "lxo" ? RunLxoCommand(n, sub.data()) : RunVrml97Command(n, sub.data());
    }
    return Fail(EXIT_USAGE, "unknown command \"" + cmd + "\" (see --help).");
}
} // namespace

int main(int argc, char** argv) {
    InstallSignalHandling(&g_cancel);
    return FinishStandardOutput(Run(argc, argv));
}
