// orbiscope preview FILE: one picture of a scene. orbiscope thumbnails DIR --out DIR: a
// picture for every readable file under a folder, each made by a child process forked
// from this one once the module is loaded (a reader that crashes or hangs costs its own
// file only), with a JSON Lines report and an index.html contact sheet.
#include "cli/Preview.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <malloc.h>
#include <map>
#include <mutex>
#include <signal.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "cli/Cli.h"
#include "cli/ExitCodes.h"
#include "cli/SceneSummary.h"
#include "cli/Signals.h"
#include "plugin/host/ColladaIo.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/Image.h"
#include "plugin/host/Render.h"
#include "plugin/host/Scene.h"

namespace fs = std::filesystem;

const char* const kPreviewUsage =
    "  preview FILE [-o OUT.png] [--view V] [--size N | --width W --height H]\n"
    "          [--background RRGGBB] [--no-textures] [--no-grid] [--aa N]\n"
    "          [--shading auto|flat|smooth] [--up y|z] [--from ID] [--report OUT.json]\n"
    "                                  draw FILE into a PNG picture; views: iso front back\n"
    "                                  left right top bottom camera; up is +Z for 3D Studio,\n"
    "                                  trueSpace, DXF, KMZ and Z_UP Collada files, else +Y\n"
    "  thumbnails DIR --out DIR [-j N] [--timeout S] [preview options]\n"
    "                                  a picture for every readable file under DIR, with\n"
    "                                  report.jsonl and index.html in the output folder\n";

namespace {

// The top-level string and number fields of one flat JSON object as we write it (the
// report lines); arrays are skipped. Malformed text gives false.
bool ReadJsonFields(const std::string& s, std::map<std::string, std::string>& out) {
    size_t i = 0;
    auto ws = [&] {
        while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    };
    auto str = [&](std::string& v) {
        if (i >= s.size() || s[i] != '"') return false;
        ++i;
        v.clear();
        while (i < s.size() && s[i] != '"') {
            if (s[i] == '\\' && i + 1 < s.size()) {
                const char e = s[++i];
                if (e == 'n') v += '\n';
                else if (e == 't') v += '\t';
                else if (e == 'r') v += '\r';
                else if (e == 'u' && i + 4 < s.size()) {
                    v += '?';
                    i += 4;
                } else v += e;
            } else {
                v += s[i];
            }
            ++i;
        }
        if (i >= s.size()) return false;
        ++i;
        return true;
    };
    ws();
    if (i >= s.size() || s[i++] != '{') return false;
    for (;;) {
        ws();
        if (i < s.size() && s[i] == '}') return true;
        std::string key, value;
        if (!str(key)) return false;
        ws();
        if (i >= s.size() || s[i++] != ':') return false;
        ws();
        if (i >= s.size()) return false;
        if (s[i] == '"') {
            if (!str(value)) return false;
        } else if (s[i] == '[') {
            int depth = 0;
            bool inStr = false;
            for (; i < s.size(); ++i) {
                if (inStr) {
                    if (s[i] == '\\') ++i;
                    else if (s[i] == '"') inStr = false;
                    continue;
                }
                if (s[i] == '"') inStr = true;
                else if (s[i] == '[') ++depth;
                else if (s[i] == ']' && --depth == 0) {
                    ++i;
                    break;
                }
            }
            if (depth != 0) return false;
            value = "[]";
        } else {
            while (i < s.size() && s[i] != ',' && s[i] != '}') value += s[i++];
            while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.pop_back();
        }
        out[key] = value;
        ws();
        if (i < s.size() && s[i] == ',') {
            ++i;
            continue;
        }
        if (i < s.size() && s[i] == '}') return true;
        return false;
    }
}

bool ParseColor(const std::string& text, uint32_t& rgba) {
    std::string t = text;
    if (!t.empty() && t[0] == '#') t.erase(0, 1);
    if (t.size() != 6 || t.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
    rgba = (static_cast<uint32_t>(std::stoul(t, nullptr, 16)) << 8) | 0xFF;
    return true;
}

bool ParseInt(const std::string& text, int lo, int hi, int& out) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    const int v = std::stoi(text);
    if (v < lo || v > hi) return false;
    out = v;
    return true;
}

// Options shared by both commands; `forward` keeps them as given for the child processes.
struct PictureOptions {
    CRenderOptions render;
    bool upGiven = false; // else the format decides (see ZUpFormat)
    std::string from;
    std::vector<std::string> forward;
};

// Consumes one picture option at args[i]; returns 1 when taken, 0 when not one, -1 after
// printing a usage error.
int TakePictureOption(const std::vector<std::string>& args, size_t& i, PictureOptions& o) {
    const std::string& a = args[i];
    auto value = [&](std::string& v) {
        if (i + 1 >= args.size()) return false;
        v = args[++i];
        return true;
    };
    std::string v;
    if (a == "--no-textures") o.render.textures = false;
    else if (a == "--no-grid") o.render.grid = false;
    else if (a == "--view") {
        if (!value(v) || !ParseRenderView(v, o.render.view))
            return Fail(EXIT_USAGE, "--view takes iso, front, back, left, right, top, bottom or camera."), -1;
    } else if (a == "--size") {
        int n = 0;
        if (!value(v) || !ParseInt(v, 1, kMaxRenderSide, n))
            return Fail(EXIT_USAGE,
                        "--size takes a number of pixels from 1 to " + std::to_string(kMaxRenderSide) + "."),
                   -1;
        o.render.width = o.render.height = n;
    } else if (a == "--width" || a == "--height") {
        int n = 0;
        if (!value(v) || !ParseInt(v, 1, kMaxRenderSide, n))
            return Fail(EXIT_USAGE, a + " takes a number of pixels from 1 to " + std::to_string(kMaxRenderSide) + "."),
                   -1;
        (a == "--width" ? o.render.width : o.render.height) = n;
    } else if (a == "--background") {
        if (!value(v) || !ParseColor(v, o.render.background))
            return Fail(EXIT_USAGE, "--background takes a colour as six hexadecimal digits (RRGGBB)."), -1;
    } else if (a == "--aa") {
        if (!value(v) || !ParseInt(v, 1, 4, o.render.supersample))
            return Fail(EXIT_USAGE, "--aa takes 1 to 4 (samples per pixel along each side)."), -1;
    } else if (a == "--shading") {
        if (!value(v)) v.clear();
        if (v == "auto") o.render.shading = RenderShading::Auto;
        else if (v == "flat") o.render.shading = RenderShading::Flat;
        else if (v == "smooth") o.render.shading = RenderShading::Smooth;
        else return Fail(EXIT_USAGE, "--shading takes auto, flat or smooth."), -1;
    } else if (a == "--up") {
        if (!value(v) || (v != "y" && v != "z")) return Fail(EXIT_USAGE, "--up takes y or z."), -1;
        o.render.zUp = v == "z";
        o.upGiven = true;
    } else if (a == "--from") {
        if (!value(o.from)) return Fail(EXIT_USAGE, "--from needs a type ID."), -1;
    } else {
        return 0;
    }
    // Kept for the children of `thumbnails`, exactly as given.
    const size_t first = (a == "--no-textures" || a == "--no-grid") ? i : i - 1;
    for (size_t k = first; k <= i; ++k) o.forward.push_back(args[k]);
    return 1;
}

std::string JoinNotes(const std::vector<std::string>& v) {
    std::string s = "[";
    for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + JsonString(v[i]);
    return s + "]";
}

// Formats whose programs stand models on the XY plane with +Z up (the readers keep the file's
// axes). Collada says so in its header.
bool ZUpFormat(const std::string& format, C3DScene& scene) {
    if (format == "3D Studio files" || format == "Truespace files" || format == "Dxf 14 files" || format == "KMZ files")
        return true;
    return format.rfind("Collada", 0) == 0 && scene.GetCustomData().GetInt(COLLADA_UP_AXIS, 1) == 2;
}

int CmdPreview(const std::vector<std::string>& args, int verbosity, const PreviewSceneReader& read) {
    PictureOptions o;
    std::string file, out, report;
    for (size_t i = 0; i < args.size(); ++i) {
        const int taken = TakePictureOption(args, i, o);
        if (taken < 0) return EXIT_USAGE;
        if (taken) continue;
        const std::string& a = args[i];
        if ((a == "-o" || a == "--out") && i + 1 < args.size()) out = args[++i];
        else if (a == "--report" && i + 1 < args.size()) report = args[++i];
        else if (a.size() > 1 && a[0] == '-') return Fail(EXIT_USAGE, "unknown option " + a + " (see --help).");
        else if (file.empty()) file = a;
        else return Fail(EXIT_USAGE, "preview takes one file (see --help).");
    }
    if (file.empty()) return Fail(EXIT_USAGE, "preview needs a file (see --help).");
    if (out.empty()) out = fs::path(file).filename().string() + ".png";
    {
        std::error_code ec;
        const fs::path dir = fs::absolute(fs::path(out), ec).parent_path();
        if (!fs::is_directory(dir, ec))
            return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": the folder " + dir.string() + " does not exist.");
        if (fs::is_directory(fs::path(out), ec))
            return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": it is a folder.");
    }
    std::unique_ptr<C3DScene> scene;
    std::string format;
    if (int rc = read(file, o.from, scene, format)) return rc;
    if (!o.upGiven) o.render.zUp = ZUpFormat(format, *scene);
    o.render.sceneFolder = fs::path(file).parent_path().string();
    if (o.render.sceneFolder.empty()) o.render.sceneFolder = ".";
    CImage picture;
    CRenderStats stats;
    const RenderResult r = RenderScene(*scene, o.render, picture, &stats);
    if (r == RenderResult::Empty)
        return Fail(EXIT_EMPTY, file + " has nothing to draw (no faces, lines or points); no picture was made.");
    if (r != RenderResult::Ok) return Fail(EXIT_USAGE, "the picture size is out of range.");
    for (const std::string& t : stats.missingTextures)
        if (verbosity >= 1)
            std::fprintf(stderr,
                         "orbiscope: note: the texture \"%s\" of %s is missing or unreadable; its material's colour is "
                         "drawn instead.\n",
                         t.c_str(), file.c_str());
    for (const std::string& n : stats.notes)
        if (verbosity >= 1) std::fprintf(stderr, "orbiscope: note: %s (%s).\n", n.c_str(), file.c_str());
    std::string err;
    if (!SavePng(out, picture, &err)) return Fail(EXIT_CANNOT_WRITE, "cannot write " + out + ": " + err + ".");
    const SceneTotals t = CountScene(*scene);
    if (!report.empty()) {
        std::string line =
            "{\"file\": " + JsonString(file) + ", \"format\": " + JsonString(format) +
            ", \"status\": \"ok\", \"picture\": " + JsonString(out) + ", \"width\": " + std::to_string(picture.width) +
            ", \"height\": " + std::to_string(picture.height) + ", \"nodes\": " + std::to_string(t.nodes) +
            ", \"meshes\": " + std::to_string(t.meshes) + ", \"curves\": " + std::to_string(t.curves) +
            ", \"points\": " + std::to_string(t.points) + ", \"faces\": " + std::to_string(t.faces) +
            ", \"materials\": " + std::to_string(t.materials) + ", \"triangles\": " + std::to_string(stats.triangles) +
            ", \"lines\": " + std::to_string(stats.lines) + ", \"textures\": " + std::to_string(stats.texturesLoaded) +
            ", \"missing_textures\": " + JoinNotes(stats.missingTextures) + ", \"notes\": " + JoinNotes(stats.notes) +
            "}\n";
        FILE* f = std::fopen(report.c_str(), "wb");
        const bool ok = f && std::fwrite(line.data(), 1, line.size(), f) == line.size();
        if (f && std::fclose(f) != 0)
            return Fail(EXIT_CANNOT_WRITE, "cannot write " + report + ": " + std::strerror(errno) + ".");
        if (!ok) return Fail(EXIT_CANNOT_WRITE, "cannot write " + report + ": " + std::strerror(errno) + ".");
    }
    if (verbosity >= 1)
        std::printf("%s -> %s: %dx%d, %llu triangles, %llu lines, %llu points (%s)\n", file.c_str(), out.c_str(),
                    picture.width, picture.height, static_cast<unsigned long long>(stats.triangles),
                    static_cast<unsigned long long>(stats.lines), static_cast<unsigned long long>(stats.points),
                    format.c_str());
    return EXIT_OK;
}

// ---- thumbnails ----

struct Entry {
    fs::path source; // as found under the input folder
    std::string rel; // relative to the input folder
    fs::path picture, sidecar;
    int errors = -1;  // the worker's standard error, an anonymous memory file
    std::string line; // the report line
    enum { Pending, Fresh, Made, Failed } state = Pending;
    std::string message;
    int exitCode = 0;
};

bool Readable(const fs::path& p) {
    auto& reg = CParserRegistry::Instance();
    CXStringW ext(Utf8ToWide(p.extension().string()));
    if (ext.CompareNoCase(L".gz") == 0) ext = CXStringW(Utf8ToWide(p.stem().extension().string()));
    return !ext.IsEmpty() && reg.FindByExtension(ext, true) != nullptr;
}

std::string HtmlEscape(const std::string& s) {
    std::string o;
    for (char c : s) {
        switch (c) {
        case '&': o += "&amp;"; break;
        case '<': o += "&lt;"; break;
        case '>': o += "&gt;"; break;
        case '"': o += "&quot;"; break;
        default: o += c;
        }
    }
    return o;
}

// A relative path as a URL: every byte but unreserved ones and '/' percent-encoded.
std::string UrlPath(const std::string& s) {
    std::string o;
    for (unsigned char c : s) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || c == '/') o += static_cast<char>(c);
        else {
            char b[4];
            std::snprintf(b, sizeof b, "%%%02X", c);
            o += b;
        }
    }
    return o;
}

std::string ContactSheet(const std::vector<Entry>& entries, const std::string& title) {
    int ok = 0, failed = 0;
    for (const Entry& e : entries)
        if (e.state != Entry::Pending) (e.state == Entry::Failed ? failed : ok)++;
    std::string h = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" +
                    HtmlEscape(title) +
                    "</title>\n<style>\n"
                    "body{font-family:sans-serif;margin:16px;background:#fafafa;color:#222}\n"
                    ".grid{display:grid;grid-template-columns:repeat(auto-fill,minmax(220px,1fr));gap:12px}\n"
                    ".card{background:#fff;border:1px solid #ddd;border-radius:6px;padding:8px;overflow:hidden}\n"
                    ".card img{width:100%;height:auto;display:block;background:#eee}\n"
                    ".name{font-weight:bold;word-break:break-all;margin-top:6px}\n"
                    ".meta{font-size:12px;color:#555}\n.failed{border-color:#d66}\n.failed .meta{color:#a33}\n"
                    "</style>\n</head>\n<body>\n<h1>" +
                    HtmlEscape(title) + "</h1>\n<p>" + std::to_string(ok) + " pictures, " + std::to_string(failed) +
                    " files without a picture.</p>\n<div class=\"grid\">\n";
    for (const Entry& e : entries) {
        if (e.state == Entry::Pending) continue; // a cancelled run never reached it
        std::map<std::string, std::string> f;
        ReadJsonFields(e.line, f);
        if (e.state == Entry::Failed) {
            h += "<div class=\"card failed\"><div class=\"name\">" + HtmlEscape(e.rel) + "</div><div class=\"meta\">" +
                 HtmlEscape(e.message) + "</div></div>\n";
            continue;
        }
        const std::string pic = e.rel + ".png";
        h += "<div class=\"card\"><a href=\"" + UrlPath(pic) + "\"><img src=\"" + UrlPath(pic) + "\" alt=\"" +
             HtmlEscape(e.rel) + "\" loading=\"lazy\"></a><div class=\"name\">" + HtmlEscape(e.rel) +
             "</div><div class=\"meta\">" + HtmlEscape(f["format"]) + "<br>" + HtmlEscape(f["meshes"]) + " meshes, " +
             HtmlEscape(f["points"]) + " points, " + HtmlEscape(f["faces"]) + " faces, " + HtmlEscape(f["materials"]) +
             " materials</div></div>\n";
    }
    return h + "</div>\n</body>\n</html>\n";
}

bool WriteText(const fs::path& p, const std::string& text) {
    const fs::path tmp = p.parent_path() / (".~" + p.filename().string() + "." + std::to_string(getpid()));
    FILE* f = std::fopen(tmp.c_str(), "wb");
    if (!f) return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = std::fclose(f) == 0 && ok;
    if (ok && std::rename(tmp.c_str(), p.c_str()) != 0) ok = false;
    if (!ok) ::unlink(tmp.c_str());
    return ok;
}

std::string FirstLine(const std::string& s) {
    std::string t = s.substr(0, s.find('\n'));
    const std::string prefix = "orbiscope: ";
    if (t.compare(0, prefix.size(), prefix) == 0) t.erase(0, prefix.size());
    return t;
}

std::string ReadWhole(int fd, size_t cap = 1 << 16) {
    std::string s(cap, '\0');
    size_t got = 0;
    for (ssize_t n; got < cap && (n = ::pread(fd, s.data() + got, cap - got, static_cast<off_t>(got))) > 0;)
        got += static_cast<size_t>(n);
    s.resize(got);
    return s;
}

std::string ReadWhole(const fs::path& p, size_t cap = 1 << 16) {
    std::string s;
    if (FILE* f = std::fopen(p.c_str(), "rb")) {
        s.resize(cap);
        s.resize(std::fread(s.data(), 1, cap, f));
        std::fclose(f);
    }
    return s;
}

bool UpToDate(Entry& e) {
    std::error_code ec;
    const auto src = fs::last_write_time(e.source, ec);
    if (ec) return false;
    const auto pic = fs::last_write_time(e.picture, ec);
    if (ec || !(pic > src)) return false;
    std::string line = ReadWhole(e.sidecar);
    std::map<std::string, std::string> f;
    if (line.empty() || !ReadJsonFields(line, f) || f["status"] != "ok") return false;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    e.line = line;
    return true;
}

// The child of one file: `preview` run in this forked copy of the process, which skips the
// start of a new program (its dynamic linking and the module's loading cost more than most
// pictures). It starts as a fresh `orbiscope preview` would: default verbosity, its own
// signal watcher (the parent's thread did not come along), nothing on stdin and stdout.
// An exception ends it through terminate, as it would end that program; it never unwinds
// into the parent's loop.
[[noreturn]] void PictureWorker(int errFd, const std::vector<std::string>& args,
                                const PreviewSceneReader& read) noexcept {
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(errFd, STDERR_FILENO);
    if (null >= 0) {
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDIN_FILENO);
    }
    g_verbosity = 1;
    // Big blocks come from the heap and stay there once freed, so the PNG stage writes into
    // the pages the renderer has already faulted in instead of fresh mappings of its own.
    mallopt(M_MMAP_THRESHOLD, 64 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
    InstallSignalHandling(&g_cancel);
    const int rc = FinishStandardOutput(CmdPreview(args, 1, read));
    std::fflush(nullptr);
    ::_exit(rc);
}

int CmdThumbnails(const std::vector<std::string>& args, int verbosity, const std::atomic<bool>* cancel,
                  const PreviewSceneReader& read) {
    PictureOptions o;
    o.render.width = o.render.height = 256;
    o.forward = {"--size", "256"}; // a --size or --width given later overrides it in the workers
    std::string in, out;
    int jobs = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    int timeout = 300;
    for (size_t i = 0; i < args.size(); ++i) {
        const int taken = TakePictureOption(args, i, o);
        if (taken < 0) return EXIT_USAGE;
        if (taken) continue;
        const std::string& a = args[i];
        if ((a == "--out" || a == "-o") && i + 1 < args.size()) out = args[++i];
        else if (a == "-j" || a == "--jobs") {
            if (i + 1 >= args.size() || !ParseInt(args[++i], 1, 256, jobs))
                return Fail(EXIT_USAGE, "-j takes a number of processes from 1 to 256.");
        } else if (a.size() > 2 && a.compare(0, 2, "-j") == 0) {
            if (!ParseInt(a.substr(2), 1, 256, jobs))
                return Fail(EXIT_USAGE, "-j takes a number of processes from 1 to 256.");
        } else if (a == "--timeout") {
            if (i + 1 >= args.size() || !ParseInt(args[++i], 1, 86400, timeout))
                return Fail(EXIT_USAGE, "--timeout takes a number of seconds.");
        } else if (a.size() > 1 && a[0] == '-') return Fail(EXIT_USAGE, "unknown option " + a + " (see --help).");
        else if (in.empty()) in = a;
        else return Fail(EXIT_USAGE, "thumbnails takes one folder (see --help).");
    }
    if (in.empty() || out.empty()) return Fail(EXIT_USAGE, "thumbnails needs a folder and --out FOLDER (see --help).");
    std::error_code ec;
    if (!fs::is_directory(in, ec)) return Fail(EXIT_CANNOT_OPEN, "cannot open " + in + ": it is not a folder.");
    fs::create_directories(out, ec);
    if (!fs::is_directory(out, ec))
        return Fail(EXIT_CANNOT_WRITE, "cannot write into " + out + ": " + ec.message() + ".");
    const fs::path outAbs = fs::weakly_canonical(fs::absolute(out), ec);

    // The files, in a stable order; the output folder is left out when it lies inside.
    std::vector<Entry> entries;
    for (fs::recursive_directory_iterator it(in, fs::directory_options::skip_permission_denied, ec), end;
         !ec && it != end; it.increment(ec)) {
        if (it->is_directory(ec)) {
            if (fs::weakly_canonical(it->path(), ec) == outAbs) it.disable_recursion_pending();
            continue;
        }
        if (!it->is_regular_file(ec) || !Readable(it->path())) continue;
        Entry e;
        e.source = it->path();
        e.rel = fs::relative(it->path(), in, ec).generic_string();
        if (ec || e.rel.empty()) continue;
        e.picture = fs::path(out) / (e.rel + ".png");
        e.sidecar = fs::path(out) / (e.rel + ".json");
        entries.push_back(std::move(e));
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.rel < b.rel; });

    const bool bar = verbosity >= 1 && isatty(STDERR_FILENO);
    size_t done = 0, made = 0, fresh = 0, failed = 0;
    auto progress = [&](const std::string& name) {
        if (!bar) return;
        const size_t pct = entries.empty() ? 100 : done * 100 / entries.size();
        std::fprintf(stderr, "\r[%-25.*s] %zu/%zu %-40.40s", int(pct / 4), "#########################", done,
                     entries.size(), name.c_str());
        std::fflush(stderr);
    };

    struct Running {
        pid_t pid;
        size_t index;
        std::chrono::steady_clock::time_point start;
        bool killed = false;
    };
    std::vector<Running> running;
    size_t next = 0;
    auto finish = [&](size_t idx, int status, bool killed) {
        Entry& e = entries[idx];
        const std::string err = e.errors >= 0 ? ReadWhole(e.errors) : std::string();
        if (e.errors >= 0) ::close(e.errors);
        e.errors = -1;
        if (!killed && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            std::string line = ReadWhole(e.sidecar);
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
            std::map<std::string, std::string> f;
            if (ReadJsonFields(line, f)) {
                e.state = Entry::Made;
                e.line = line;
                ++made;
            } else {
                e.state = Entry::Failed;
                e.message = "the worker wrote no report";
            }
        } else {
            e.state = Entry::Failed;
            if (killed) e.message = "took longer than " + std::to_string(timeout) + " s and was stopped";
            else if (WIFSIGNALED(status))
                e.message = "the reader crashed (signal " + std::to_string(WTERMSIG(status)) + ")";
            else e.message = FirstLine(err);
            e.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            if (e.message.empty()) e.message = "failed (exit status " + std::to_string(e.exitCode) + ")";
        }
        if (e.state == Entry::Failed) {
            ++failed;
            e.line = "{\"file\": " + JsonString(e.source.string()) +
                     ", \"status\": \"failed\", \"exit\": " + std::to_string(e.exitCode) +
                     ", \"message\": " + JsonString(e.message) + "}";
            if (bar) std::fprintf(stderr, "\r%80s\r", "");
            if (verbosity >= 1) std::fprintf(stderr, "orbiscope: %s: %s\n", e.rel.c_str(), e.message.c_str());
        }
        ++done;
        progress(e.rel);
    };

    // Children are reaped with a blocking wait; a watchdog thread stops those past the timeout.
    std::mutex mu;
    std::condition_variable wake;
    bool stopWatch = false;
    std::thread watchdog([&] {
        std::unique_lock lock(mu);
        while (!stopWatch) {
            wake.wait_for(lock, std::chrono::milliseconds(200));
            const auto now = std::chrono::steady_clock::now();
            for (Running& r : running)
                if (!r.killed && now - r.start > std::chrono::seconds(timeout)) {
                    ::kill(r.pid, SIGKILL);
                    r.killed = true;
                }
        }
    });
    while (next < entries.size() || !running.empty()) {
        // After a Ctrl-C no file is started; the running ones end on the same signal.
        if (cancel && cancel->load()) next = entries.size();
        while (running.size() < size_t(jobs) && next < entries.size()) {
            const size_t idx = next++;
            Entry& e = entries[idx];
            if (UpToDate(e)) {
                e.state = Entry::Fresh;
                ++fresh;
                ++done;
                progress(e.rel);
                continue;
            }
            fs::create_directories(e.picture.parent_path(), ec);
            std::vector<std::string> argv = {e.source.string(), "-o", e.picture.string(), "--report",
                                             e.sidecar.string()};
            argv.insert(argv.end(), o.forward.begin(), o.forward.end());
            if (!o.from.empty()) {
                argv.push_back("--from");
                argv.push_back(o.from);
            }
            ::unlink(e.sidecar.c_str());
            e.errors = memfd_create("orbiscope-err", MFD_CLOEXEC);
            if (e.errors < 0) {
                finish(idx, 127 << 8, false);
                continue;
            }
            std::fflush(nullptr);
            std::lock_guard lock(mu);
            const pid_t pid = fork();
            if (pid == 0) PictureWorker(e.errors, argv, read);
            if (pid < 0) {
                finish(idx, 127 << 8, false);
                continue;
            }
            running.push_back({pid, idx, std::chrono::steady_clock::now()});
        }
        if (running.empty()) continue;
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR) continue;
            break;
        }
        std::unique_lock lock(mu);
        auto it = std::find_if(running.begin(), running.end(), [&](const Running& r) { return r.pid == pid; });
        if (it == running.end()) continue;
        const Running r = *it;
        running.erase(it);
        lock.unlock();
        finish(r.index, status, r.killed);
    }
    {
        std::lock_guard lock(mu);
        stopWatch = true;
    }
    wake.notify_all();
    watchdog.join();
    if (bar) std::fprintf(stderr, "\r%80s\r", "");

    std::string report;
    for (const Entry& e : entries)
        if (e.state != Entry::Pending) report += e.line + "\n";
    if (!WriteText(fs::path(out) / "report.jsonl", report))
        return Fail(EXIT_CANNOT_WRITE, "cannot write " + (fs::path(out) / "report.jsonl").string() + ".");
    if (!WriteText(fs::path(out) / "index.html",
                   ContactSheet(entries, "Pictures of " + fs::path(in).filename().string())))
        return Fail(EXIT_CANNOT_WRITE, "cannot write " + (fs::path(out) / "index.html").string() + ".");
    if (cancel && cancel->load())
        return Fail(EXIT_CANCELLED, "cancelled after " + std::to_string(done) + " of " +
                                        std::to_string(entries.size()) +
                                        " files; report.jsonl and index.html list those.");
    if (verbosity >= 1)
        std::printf("%zu files: %zu pictures made, %zu up to date, %zu without a picture; %s\n", entries.size(), made,
                    fresh, failed, (fs::path(out) / "index.html").string().c_str());
    return failed ? EXIT_BAD_FORMAT : EXIT_OK;
}

} // namespace

int RunPreviewCommand(const std::string& command, const std::vector<std::string>& args, int verbosity,
                      const std::atomic<bool>* cancel, const PreviewSceneReader& read) {
    if (command == "thumbnails") return CmdThumbnails(args, verbosity, cancel, read);
    return CmdPreview(args, verbosity, read);
}
