// The steps every command shares: the command-line parser, format look-up, the read and
// the write with progress and cancel, and the options' log as the user sees it.
#include "cli/Cli.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

#include "cli/ExitCodes.h"
#include "cli/Signals.h"
#include "plugin/FormatChoice.h"
#include "plugin/FormatTable.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"

namespace fs = std::filesystem;

int g_verbosity = 1;
std::atomic<bool> g_cancel{false};

std::string Narrow(const CXStringW& w) { return WideToUtf8(w.view()); }
CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

int Fail(int code, const std::string& sentence) {
    std::fprintf(stderr, "orbiscope: %s\n", sentence.c_str());
    return code;
}

// ----------------------------------------------------------------------------------
// Command line

namespace {
const std::vector<OptionDef> kGlobalOptions = {
    {"--quiet", 'q', false}, {"--verbose", 'v', false}, {"--help", 'h', false},
    {"--json", 0, false},    {"--format", 0, true},
};

size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diag = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diag = up;
        }
    }
    return row[b.size()];
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return s;
}
} // namespace

std::string ClosestWord(const std::string& word, const std::vector<std::string>& known) {
    std::string best;
    size_t bestDistance = std::string::npos;
    for (const std::string& k : known) {
        // A prefix long enough to be meant ("--verb") counts as near.
        const size_t d = k.size() > word.size() && word.size() >= 4 && k.compare(0, word.size(), word) == 0
                             ? 1
                             : EditDistance(Lower(word), Lower(k));
        if (d < bestDistance) {
            bestDistance = d;
            best = k;
        }
    }
    // Slips of one or two characters; more than that is another word.
    const size_t limit = word.size() <= 4 ? 1 : 2;
    return bestDistance <= limit ? best : std::string();
}

bool ParseCommandLine(const std::string& cmd, const std::vector<std::string>& args, const std::vector<OptionDef>& defs,
                      ParsedArgs& out, std::string& error) {
    std::vector<OptionDef> all = kGlobalOptions;
    all.insert(all.end(), defs.begin(), defs.end());
    auto byLong = [&](const std::string& n) -> const OptionDef* {
        for (const auto& s : all)
            if (n == s.name) return &s;
        return nullptr;
    };
    auto byShort = [&](char c) -> const OptionDef* {
        for (const auto& s : all)
            if (s.shortName == c) return &s;
        return nullptr;
    };
    const std::string see = " (see orbiscope help " + cmd + ").";
    bool operandsOnly = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (operandsOnly || a.size() < 2 || a[0] != '-') {
            out.operands.push_back(a);
            continue;
        }
        if (a == "--") {
            operandsOnly = true;
            continue;
        }
        const OptionDef* def = nullptr;
        std::string value;
        bool hasInlineValue = false;
        if (a[1] == '-') {
            const size_t eq = a.find('=');
            def = byLong(a.substr(0, eq));
            if (eq != std::string::npos) {
                value = a.substr(eq + 1);
                hasInlineValue = true;
            }
        } else if (a.size() == 2 || (byShort(a[1]) && byShort(a[1])->takesValue)) {
            def = byShort(a[1]);
            if (def && a.size() > 2) {
                value = a.substr(2); // "-j4"
                hasInlineValue = true;
            }
        }
        if (!def) {
            std::vector<std::string> names;
            for (const auto& s : all) names.emplace_back(s.name);
            const std::string near = ClosestWord(a.substr(0, a.find('=')), names);
            error = "unknown option " + a + " for " + cmd + (near.empty() ? "" : "; did you mean " + near + "?") + see;
            return false;
        }
        if (def->takesValue && !hasInlineValue) {
            if (i + 1 >= args.size()) {
                error = "the option " + std::string(def->name) + " needs a value" + see;
                return false;
            }
            value = args[++i];
        } else if (!def->takesValue && hasInlineValue) {
            error = "the option " + std::string(def->name) + " takes no value" + see;
            return false;
        }
        out.values[def->name].push_back(value);
    }
    return true;
}

bool ApplyGlobalOptions(const ParsedArgs& a, std::string& error) {
    if (a.Has("--quiet")) g_verbosity = 0;
    if (a.Has("--verbose")) g_verbosity = 2;
    const std::string f = Lower(a.Get("--format", "text"));
    if (f != "text" && f != "json") {
        error = "unknown output format \"" + a.Get("--format") + "\"; use text or json.";
        return false;
    }
    return a.Has("--json") || f == "json";
}

// ----------------------------------------------------------------------------------
// Formats

std::string PrimaryExtension(const CFormatEntry& entry) {
    // The record's list reads like "*.stl;*.stla": the first one names the files written.
    std::string list = Narrow(entry.ext.extensions);
    const size_t dot = list.find('.');
    if (dot == std::string::npos) return "";
    const size_t end = list.find_first_of(";, ", dot);
    return Lower(list.substr(dot, end == std::string::npos ? std::string::npos : end - dot));
}

// ----------------------------------------------------------------------------------
// Log, progress

void ShowLog(const CIoOptions& options, const std::string& file) {
    if (g_verbosity == 0) return;
    // Once per text, in the order first seen, with how often it came.
    std::vector<std::pair<const IoLogInfo*, int>> seen;
    std::unordered_map<std::wstring, size_t> where;
    for (const IoLogInfo& l : options.GetLog()) {
        std::wstring key = std::to_wstring(l.level) + L":" + std::wstring(l.text.view());
        auto [it, fresh] = where.emplace(std::move(key), seen.size());
        if (fresh) seen.emplace_back(&l, 1);
        else ++seen[it->second].second;
    }
    for (auto& [l, count] : seen) {
        std::string line =
            "orbiscope: " + file + ": " + (l->level >= LOG_ERROR ? "error: " : "warning: ") + Narrow(l->text);
        if (count > 1) line += " (" + std::to_string(count) + " times)";
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

void Note(const std::string& text) {
    if (g_verbosity >= 2) std::fprintf(stderr, "orbiscope: %s\n", text.c_str());
}

namespace {
// Progress bar on stderr for phases that run longer than about a second, only when
// stderr is a terminal: a log file or a pipe gets the messages only.
struct Progress {
    const char* phase;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    bool terminal = isatty(STDERR_FILENO) != 0;
    bool shown = false;
    int64_t lastShown = -1;

    explicit Progress(const char* p) : phase(p) {}
    static void Sink(int64_t done, int64_t total, void* user) { static_cast<Progress*>(user)->Update(done, total); }
    void Update(int64_t done, int64_t total) {
        if (g_verbosity == 0 || !terminal) return;
        if (!shown && std::chrono::steady_clock::now() - start < std::chrono::seconds(1)) return;
        if (total > 0) {
            const int pct = static_cast<int>(std::min<int64_t>(done, total) * 100 / total);
            if (pct == lastShown) return;
            lastShown = pct;
            std::fprintf(stderr, "\r%-9s [%-25.*s] %3d%%", phase, pct / 4, "#########################", pct);
        } else {
            // A write does not know its size beforehand: the bytes so far.
            const int64_t mb = done >> 20;
            if (mb == lastShown) return;
            lastShown = mb;
            std::fprintf(stderr, "\r%-9s %lld MB", phase, static_cast<long long>(mb));
        }
        shown = true;
        std::fflush(stderr);
    }
    void Label() { // a phase without steps of its own
        if (g_verbosity == 0 || !terminal) return;
        std::fprintf(stderr, "\r%-9s ...", phase);
        std::fflush(stderr);
        shown = true;
    }
    ~Progress() {
        if (shown) std::fprintf(stderr, "\r%50s\r", "");
    }
};

// Installs the cancel token and a progress sink for one phase on this thread.
struct Phase {
    Progress progress;
    explicit Phase(const char* name) : progress(name) {
        SetThreadProgressSink(&Progress::Sink, &progress);
        SetThreadCancelToken(&g_cancel);
    }
    ~Phase() {
        SetThreadCancelToken(nullptr);
        SetThreadProgressSink(nullptr, nullptr);
    }
};

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

// Checks the input before a parser sees it, so the sentence names the real reason.
int CheckInput(const std::string& path) {
    int result = 0;
    const std::string problem = InputProblem(path, result);
    if (problem.empty()) return EXIT_OK;
    return Fail(result == IO_ERR_EMPTY ? EXIT_EMPTY : EXIT_CANNOT_OPEN, problem);
}

double SecondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}
} // namespace

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
    if (!parser)
        return Fail(EXIT_NOT_AVAILABLE, "the module made no parser for " + Narrow(entry->ext.description) + ".");
    CSceneImportOptions options;
    parser->LoadDefaultOptions(options);
    const auto start = std::chrono::steady_clock::now();
    {
        Phase phase("reading");
        scene.reset(parser->Read(Wide(path), options));
    }
    parser->ReleaseParser(false, nullptr);
    if (!scene) {
        if (g_verbosity >= 2) ShowLog(options, path);
        int r = io.GetIoError();
        if (r == 0) r = IO_ERR_FORMAT;
        if (g_cancel.load()) r = IO_ERR_CANCELLED; // whatever the reader made of being stopped
        std::string s = ResultSentence(r, path, true);
        if (!io.GetIoErrorText().IsEmpty() && r != IO_ERR_CANCELLED) s += " (" + Narrow(io.GetIoErrorText()) + ")";
        return Fail(ResultExitCode(r), s);
    }
    ShowLog(options, path);
    char t[64];
    std::snprintf(t, sizeof t, " in %.3f s", SecondsSince(start));
    Note("read " + path + " as " + Narrow(entry->ext.description) + t + ".");
    return EXIT_OK;
}

bool SameFile(const std::string& a, const std::string& b) {
    struct stat sa, sb;
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

namespace {
// Copies the one file written for standard output to it.
int StreamOut(const fs::path& file) {
    FILE* f = std::fopen(file.c_str(), "rb");
    if (!f) return Fail(EXIT_CANNOT_WRITE, "cannot read back " + file.string() + ": " + std::strerror(errno) + ".");
    char buf[1 << 16];
    size_t n;
    bool ok = true;
    while (ok && (n = std::fread(buf, 1, sizeof buf, f)) > 0) ok = std::fwrite(buf, 1, n, stdout) == n;
    std::fclose(f);
    // A reader that went away or a full disk: FinishStandardOutput tells which.
    return EXIT_OK;
}

// Textures a scene unpacked into a folder it owns (a KMZ's) go with the scene: they are
// copied beside the output (into the folder that is moved into place) and the maps name
// them there, so that the written file's references still resolve afterwards.
void CopyOwnedTextures(const C3DScene& scene, C3DScene& prepared, const fs::path& tmpDir) {
    std::vector<std::string> owned;
    for (const CXStringW& f : scene.GetOwnedFolders()) owned.push_back(PathToUtf8(f) + "/");
    if (owned.empty()) return;
    CMaterialPos pos;
    for (C3DMaterial* m = prepared.GetFirstMaterial(pos); m; m = prepared.GetNextMaterial(pos))
        for (int i = 0; i < m->GetMaterialMapCount(); ++i) {
            CMaterialMap* map = m->GetMaterialMapByIndex(i);
            const std::string file = PathToUtf8(map->GetFileName());
            if (std::none_of(owned.begin(), owned.end(), [&](const std::string& o) { return file.rfind(o, 0) == 0; }))
                continue;
            const fs::path src(file), dst = tmpDir / src.filename();
            std::error_code ec;
            if (!fs::exists(dst, ec)) fs::copy_file(src, dst, ec);
            if (!ec && fs::exists(dst, ec)) map->SetFileName(Wide(src.filename().string()));
        }
}
} // namespace

// Writes into a fresh folder beside the target under the target's own name, then moves
// every file written into place: a failed save leaves what was there untouched.
int WriteScene(const C3DScene& scene, const std::string& out, const CFormatEntry& entry, WriteResult& result) {
    const bool toStdout = out == "-";
    fs::path target;
    fs::path dir;
    std::error_code ec;
    if (toStdout) {
        const char* tmp = std::getenv("TMPDIR");
        dir = fs::path(tmp && *tmp ? tmp : "/tmp");
        target = dir / ("stdout" + PrimaryExtension(entry));
    } else {
        target = fs::absolute(fs::path(out));
        dir = target.parent_path();
        if (!fs::is_directory(dir, ec))
            return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": the folder " + dir.string() + " does not exist.");
        if (fs::is_directory(target, ec)) return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": it is a folder.");
    }
    // Named after this process, so that a run killed outright leaves a folder the next
    // run here recognises as stale and removes.
    const CXStringW tmpName = fileCreateTmpFolder(Wide(dir.string()), L".orbiscope-");
    if (tmpName.IsEmpty()) return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": " + std::strerror(errno) + ".");
    fs::path tmpDir(Narrow(tmpName));
    struct Cleanup {
        CXStringW p;
        ~Cleanup() { fileRemoveDirectory(p); }
    } cleanup{tmpName};

    CFileIo io(Wide(target.string()));
    io.SetSilentMode(true);
    io.SetClass(entry.ext.typeID);
    C3DParser* parser = CParserRegistry::CreateParser(entry, io);
    if (!parser)
        return Fail(EXIT_NOT_AVAILABLE, "the module made no writer for " + Narrow(entry.ext.description) + ".");
    CSceneExportOptions options;
    parser->SaveDefaultOptions(options);
    const auto start = std::chrono::steady_clock::now();
    {
        Phase phase("preparing");
        phase.progress.Label();
        result.prepared = PrepareSceneForExport(scene, options.prepFlags, &options);
    }
    if (g_cancel.load()) {
        parser->ReleaseParser(false, nullptr);
        return Fail(EXIT_CANCELLED, "cancelled while writing " + out + ".");
    }
    if (!parser->CheckSaveOptions(result.prepared.get(), options)) {
        parser->ReleaseParser(false, nullptr);
        if (g_verbosity >= 2) ShowLog(options, out);
        return Fail(EXIT_NOTHING_TO_WRITE, "there is nothing in the scene that can be written to " + out + ".");
    }
    CopyOwnedTextures(scene, *result.prepared, tmpDir);
    fs::path tmpTarget = tmpDir / target.filename();
    IoFileClearWriteFailure();
    bool ok;
    {
        Phase phase("writing");
        ok = parser->Save(Wide(tmpTarget.string()), result.prepared.get(), options);
    }
    const IoWriteFailure failure = IoFileLastWriteFailure();
    parser->ReleaseParser(false, nullptr);
    // A Ctrl-C during the write: the writer stops at its next buffer, and whatever it
    // finished is dropped with the temporary folder.
    if (g_cancel.load() || failure.error == ECANCELED)
        return Fail(EXIT_CANCELLED, "cancelled while writing " + out + ".");
    if (!ok) {
        if (g_verbosity >= 2) ShowLog(options, out);
        int r = io.GetIoError();
        if (r == 0) r = IO_ERR_OPEN;
        if (r == IO_ERR_OPEN && failure.error) return Fail(EXIT_CANNOT_WRITE, WriteFailureSentence(failure, out));
        return Fail(r == IO_ERR_OPEN ? EXIT_CANNOT_WRITE : ResultExitCode(r), ResultSentence(r, out, false));
    }
    ShowLog(options, out);
    std::vector<fs::path> written;
    for (auto& e : fs::directory_iterator(tmpDir, ec)) written.push_back(e.path());
    std::sort(written.begin(), written.end());
    if (toStdout) {
        if (written.size() != 1)
            return Fail(EXIT_USAGE, "the format " + Narrow(entry.ext.description) +
                                        " writes more than one file here; it cannot go to the standard output.");
        result.files.push_back({"-", static_cast<unsigned long long>(fs::file_size(written[0], ec))});
        return StreamOut(written[0]);
    }
    CommitSection commit;
    for (const fs::path& p : written) {
        fs::path dest = dir / p.filename();
        const unsigned long long bytes = fs::file_size(p, ec);
        if (std::rename(p.c_str(), dest.c_str()) != 0)
            return Fail(EXIT_CANNOT_WRITE, "cannot move the written file into place as " + dest.string() + ": " +
                                               std::strerror(errno) + ".");
        // The target under the name the user gave; the files beside it under their own.
        result.files.push_back(
            {p.filename() == target.filename() ? out : (fs::path(out).parent_path() / p.filename()).string(), bytes});
    }
    char t[64];
    std::snprintf(t, sizeof t, " in %.3f s", SecondsSince(start));
    Note("wrote " + out + " as " + Narrow(entry.ext.description) + t + ".");
    return EXIT_OK;
}
