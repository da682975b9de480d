// convert of many files: the inputs are listed first (folders, patterns), then each file
// is converted by a worker process of its own (this same program, "convert IN OUT"), a
// few at a time. A worker that crashes or is killed costs its own file only. Each
// worker's output is caught in an anonymous memory file, read once it has ended.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <glob.h>
#include <map>
#include <set>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "cli/Cli.h"
#include "cli/Commands.h"
#include "cli/ExitCodes.h"
#include "cli/SceneSummary.h"
#include "cli/Signals.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"

namespace fs = std::filesystem;

namespace {
struct Job {
    std::string input, output;
    std::string problem; // known before any worker runs (no such file, a clash of outputs)
    int problemStatus = 0;
};

struct Done {
    int exit = 0;
    std::string status, message, result, errText;
    double seconds = 0;
};

bool HasPattern(const std::string& s) { return s.find_first_of("*?[") != std::string::npos; }

// True when some reader of the module claims the file's extension ("x.wrl.gz": ".wrl").
bool Readable(const fs::path& p) {
    CXStringW ext = fileGetExtension(Wide(p.string()));
    if (ext.CompareNoCase(L".gz") == 0) ext = fileGetExtension(Wide(p.stem().string()));
    return !ext.IsEmpty() && CParserRegistry::Instance().FindByExtension(ext, true) != nullptr;
}

// The output's name: the input's relative place under DIR, with the writer's extension.
fs::path OutputName(const fs::path& rel, const std::string& ext) {
    fs::path name = rel.filename();
    if (fileGetExtension(Wide(name.string())).CompareNoCase(L".gz") == 0) name = name.stem();
    name.replace_extension(ext);
    return rel.parent_path() / name;
}

// The inputs in the order given; a folder's files sorted by name.
std::vector<std::pair<fs::path, fs::path>> ListInputs(const BatchOptions& o, std::vector<Job>& failures) {
    std::vector<std::pair<fs::path, fs::path>> files; // (path, relative output place)
    for (const std::string& in : o.inputs) {
        std::error_code ec;
        if (fs::is_directory(in, ec)) {
            std::vector<std::pair<fs::path, fs::path>> found;
            auto take = [&](const fs::directory_entry& e) {
                std::error_code fec;
                if (e.is_regular_file(fec) && Readable(e.path()))
                    found.emplace_back(e.path(), e.path().lexically_relative(in));
            };
            if (o.recursive) {
                // The output folder inside an input folder is not an input (nor is a second run's output).
                std::error_code oec;
                const fs::path outDir = fs::weakly_canonical(o.outputDir, oec);
                for (auto it = fs::recursive_directory_iterator(in, fs::directory_options::skip_permission_denied, ec);
                     !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
                    std::error_code dec;
                    if (it->is_directory(dec) && fs::weakly_canonical(it->path(), dec) == outDir) {
                        it.disable_recursion_pending();
                        continue;
                    }
                    take(*it);
                }
            } else {
                for (auto it = fs::directory_iterator(in, ec); !ec && it != fs::directory_iterator(); it.increment(ec))
                    take(*it);
            }
            std::sort(found.begin(), found.end());
            files.insert(files.end(), found.begin(), found.end());
        } else if (!fs::exists(in, ec) && HasPattern(in)) {
            glob_t g{};
            if (glob(in.c_str(), 0, nullptr, &g) == 0)
                for (size_t i = 0; i < g.gl_pathc; ++i)
                    files.emplace_back(g.gl_pathv[i], fs::path(g.gl_pathv[i]).filename());
            else failures.push_back({in, "", "no file matches " + in + ".", EXIT_CANNOT_OPEN});
            globfree(&g);
        } else {
            files.emplace_back(in, fs::path(in).filename());
        }
    }
    return files;
}

std::string ReadAll(int fd) {
    std::string s;
    char buf[65536];
    off_t at = 0;
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, at)) > 0; at += n) s.append(buf, static_cast<size_t>(n));
    return s;
}

std::string LastLine(std::string s) {
    while (!s.empty() && s.back() == '\n') s.pop_back();
    const size_t nl = s.rfind('\n');
    s = nl == std::string::npos ? s : s.substr(nl + 1);
    if (s.rfind("orbiscope: ", 0) == 0) s = s.substr(11);
    return s;
}

struct Worker {
    pid_t pid = -1;
    size_t job = 0;
    int out = -1, err = -1;
    std::chrono::steady_clock::time_point start;
};

std::string Self() {
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("orbiscope") : exe.string();
}

bool Launch(const std::string& self, const Job& job, const BatchOptions& o, const std::string& toID, Worker& w) {
    w.out = memfd_create("orbiscope-out", MFD_CLOEXEC);
    w.err = memfd_create("orbiscope-err", MFD_CLOEXEC);
    if (w.out < 0 || w.err < 0) return false;
    std::vector<std::string> args{self, "convert", "--json", "--to", toID};
    if (!o.from.empty()) {
        args.push_back("--from");
        args.push_back(o.from);
    }
    if (g_verbosity == 0) args.push_back("-q");
    if (g_verbosity == 2) args.push_back("-v");
    args.push_back("--");
    args.push_back(job.input);
    args.push_back(job.output);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    w.start = std::chrono::steady_clock::now();
    w.pid = fork();
    if (w.pid < 0) return false;
    if (w.pid == 0) {
        // A group of its own: a Ctrl-C at the terminal reaches the batch only, which passes
        // it on once (a second would end the worker before it cleans up).
        setpgid(0, 0);
        dup2(w.out, STDOUT_FILENO);
        dup2(w.err, STDERR_FILENO);
        execv(self.c_str(), argv.data());
        _exit(127);
    }
    AddChildProcess(w.pid);
    if (g_cancel.load()) kill(w.pid, SIGINT); // cancelled while it was being started
    return true;
}

Done Finish(Worker& w, int status) {
    Done d;
    d.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - w.start).count();
    std::string out = ReadAll(w.out);
    d.errText = ReadAll(w.err);
    close(w.out);
    close(w.err);
    if (WIFSIGNALED(status)) {
        d.exit = 128 + WTERMSIG(status);
        d.status = g_cancel.load() ? "cancelled" : "crashed";
        d.message = std::string("the worker ended by signal ") + std::to_string(WTERMSIG(status)) + " (" +
                    strsignal(WTERMSIG(status)) + ").";
        return d;
    }
    d.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    d.status = d.exit == EXIT_OK ? "ok" : d.exit == EXIT_CANCELLED ? "cancelled" : "failed";
    if (d.exit != EXIT_OK) d.message = LastLine(d.errText);
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    if (d.exit == EXIT_OK && !out.empty() && out.front() == '{') d.result = out;
    return d;
}

std::string Seconds(double s) {
    char b[32];
    std::snprintf(b, sizeof b, "%.3f", s);
    return b;
}

std::string Record(const Job& j, const Done& d) {
    return "{\"input\": " + JsonString(j.input) + ", \"output\": " + JsonString(j.output) + ", \"status\": \"" +
           d.status + "\", \"exit\": " + std::to_string(d.exit) + ", \"message\": " + JsonString(d.message) +
           ", \"seconds\": " + Seconds(d.seconds) + ", \"result\": " + (d.result.empty() ? "null" : d.result) + "}";
}

// The report is written beside its final name and moved there at the end, so a report
// that was there stays whole until the new one is. Its temporary name is one the next
// run recognises as a leftover when this one is killed outright.
struct Report {
    std::string path;
    CXStringW tmp;
    FILE* f = nullptr;
    bool toStdout = false;
    bool Open(const std::string& p, std::string& err) {
        path = p;
        if (p == "-") {
            toStdout = true;
            f = stdout;
            return true;
        }
        const fs::path target = fs::absolute(p);
        tmp = fileCreateTmpName(Wide(target.parent_path().string()), L".orbiscope-report-", L".tmp");
        if (!tmp.IsEmpty()) f = std::fopen(Narrow(tmp).c_str(), "w");
        if (!f) err = "cannot write the report " + p + ": " + std::strerror(errno) + ".";
        return f != nullptr;
    }
    void Add(const std::string& line) {
        if (!f) return;
        std::fputs((line + "\n").c_str(), f);
        std::fflush(f); // a reader following the report sees whole lines
    }
    bool Close(std::string& err) {
        if (!f || toStdout) return true;
        const bool ok = std::fflush(f) == 0 && !std::ferror(f);
        const int e = errno;
        std::fclose(f);
        f = nullptr;
        if (!ok || !fileRename(tmp, Wide(fs::absolute(path).string()))) {
            err = "cannot write the report " + path + ": " + std::strerror(ok ? errno : e) + ".";
            fileDelete(tmp);
            return false;
        }
        return true;
    }
    ~Report() {
        if (f && !toStdout) {
            std::fclose(f);
            fileDelete(tmp);
        }
    }
};
} // namespace

int RunBatch(const BatchOptions& o) {
    std::string err;
    const CFormatEntry* writer = FindFormat(o.to, true, err);
    if (!writer) return Fail(err.find("type ID") != std::string::npos ? EXIT_USAGE : EXIT_NOT_AVAILABLE, err);
    if (!o.from.empty() && !FindFormat(o.from, false, err)) return Fail(EXIT_USAGE, err);
    const std::string toID = Narrow(TypeIDToString(writer->ext.typeID));
    const std::string ext = PrimaryExtension(*writer);
    std::error_code ec;
    fs::create_directories(o.outputDir, ec);
    if (!fs::is_directory(o.outputDir, ec))
        return Fail(EXIT_CANNOT_WRITE, "cannot make the output folder " + o.outputDir + ": " + ec.message() + ".");

    std::vector<Job> jobs;
    for (auto& [path, rel] : ListInputs(o, jobs)) {
        Job j{path.string(), (fs::path(o.outputDir) / OutputName(rel, ext)).string(), "", 0};
        jobs.push_back(j);
    }
    // Two inputs that would write the same file: the second is refused, not lost.
    std::map<std::string, std::string> owner;
    for (Job& j : jobs) {
        if (!j.problem.empty()) continue;
        const std::string key = fs::absolute(j.output).lexically_normal().string();
        auto [it, fresh] = owner.emplace(key, j.input);
        if (!fresh) {
            j.problem = "the output " + j.output + " is already the output of " + it->second + ".";
            j.problemStatus = EXIT_USAGE;
        } else {
            fs::create_directories(fs::path(j.output).parent_path(), ec);
        }
    }
    if (jobs.empty()) return Fail(EXIT_USAGE, "there is no file to convert in what was given.");

    Report report;
    if (!o.report.empty() && !report.Open(o.report, err)) return Fail(EXIT_CANNOT_WRITE, err);
    int slots = o.jobs > 0 ? o.jobs : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const std::string self = Self();
    const auto start = std::chrono::steady_clock::now();
    std::map<pid_t, Worker> running;
    size_t next = 0;
    int ok = 0, failed = 0, cancelled = 0;
    // On a terminal, a counter of the inputs done, rewritten in place.
    const bool counter = g_verbosity >= 1 && isatty(STDERR_FILENO) != 0;
    size_t finished = 0;
    auto clearCounter = [&] {
        if (counter && finished) std::fprintf(stderr, "\r%40s\r", "");
    };
    auto record = [&](const Job& j, const Done& d) {
        if (d.status == "ok") ++ok;
        else if (d.status == "cancelled") ++cancelled;
        else ++failed;
        clearCounter();
        // Warnings pass through as the worker said them; a failure gets its one line.
        if (g_verbosity >= 1 && !d.errText.empty() && d.status == "ok") std::fputs(d.errText.c_str(), stderr);
        // A failure's sentence mostly names its file already.
        if (d.status != "ok" && d.status != "cancelled" && g_verbosity >= 1)
            std::fprintf(stderr, "orbiscope: %s%s\n",
                         d.message.find(j.input) == std::string::npos ? (j.input + ": ").c_str() : "",
                         d.message.c_str());
        if (g_verbosity >= 2 && d.status == "ok")
            std::fprintf(stderr, "orbiscope: %s -> %s (%s s)\n", j.input.c_str(), j.output.c_str(),
                         Seconds(d.seconds).c_str());
        report.Add(Record(j, d));
        ++finished;
        if (counter) {
            std::fprintf(stderr, "\r[%zu/%zu] converted", finished, jobs.size());
            std::fflush(stderr);
        }
    };
    while (next < jobs.size() || !running.empty()) {
        while (next < jobs.size() && static_cast<int>(running.size()) < slots) {
            const Job& j = jobs[next];
            const size_t index = next++;
            if (g_cancel.load()) {
                record(j, {EXIT_CANCELLED, "cancelled", "not started: the batch was cancelled.", "", "", 0});
                continue;
            }
            if (!j.problem.empty()) {
                record(j, {j.problemStatus, "failed", j.problem, "", "", 0});
                continue;
            }
            Worker w;
            w.job = index;
            if (!Launch(self, j, o, toID, w)) {
                record(j, {EXIT_CANNOT_WRITE, "failed",
                           std::string("cannot start a worker: ") + std::strerror(errno) + ".", "", "", 0});
                if (w.out >= 0) close(w.out);
                if (w.err >= 0) close(w.err);
                continue;
            }
            running[w.pid] = w;
        }
        if (running.empty()) continue;
        int status = 0;
        const pid_t pid = waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR) continue;
            break; // no children left that we know of
        }
        auto it = running.find(pid);
        if (it == running.end()) continue;
        RemoveChildProcess(pid);
        Worker w = it->second;
        running.erase(it);
        record(jobs[w.job], Finish(w, status));
    }
    clearCounter();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double rate = seconds > 0 ? static_cast<double>(jobs.size()) / seconds : 0;
    std::string reportErr;
    const bool reportOk = report.Close(reportErr);
    char line[256];
    if (o.json && !report.toStdout) {
        std::snprintf(line, sizeof line,
                      "{\"files\": %zu, \"ok\": %d, \"failed\": %d, \"cancelled\": %d, \"seconds\": %.3f, "
                      "\"filesPerSecond\": %.2f}\n",
                      jobs.size(), ok, failed, cancelled, seconds, rate);
        std::fputs(line, stdout);
    } else if (g_verbosity >= 1 || failed || cancelled) {
        std::snprintf(line, sizeof line, "converted %d of %zu files in %.2f s (%.1f files/s)", ok, jobs.size(), seconds,
                      rate);
        std::string s = line;
        if (failed) s += ", " + std::to_string(failed) + " failed";
        if (cancelled) s += ", " + std::to_string(cancelled) + " cancelled";
        std::fprintf(report.toStdout ? stderr : stdout, "%s\n", s.c_str());
    }
    if (!reportOk) return Fail(EXIT_CANNOT_WRITE, reportErr);
    if (cancelled) return EXIT_CANCELLED;
    return failed ? EXIT_SOME_FAILED : EXIT_OK;
}
