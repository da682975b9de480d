// IoFile sequential read throughput against `cat file > /dev/null` on the same
// file in the same run (page cache warm for both), and the text scanner's float
// parsing against strtof. The input is generated deterministically on first use:
// OBJ-like "v x y z" lines, ~1 GiB unless --mb says otherwise.
//
//   bench_iofile [--mb N] [--file PATH] [--keep]
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <vector>

#include "plugin/host/IoFile.h"
#include "plugin/host/NumberFormat.h"
#include "plugin/host/TextScanner.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

// CPU seconds (user + system) of this process or of its finished children. The
// machine is shared, so wall time alone says little; both are printed.
double CpuSeconds(int who) {
    rusage ru;
    getrusage(who, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

struct Timing {
    double wall = 1e300, cpu = 1e300;
};

// Best wall and best CPU time of `runs` runs; `who` selects whose CPU time counts.
template <typename F> Timing Measure(int runs, int who, F&& f) {
    Timing t;
    for (int i = 0; i < runs; ++i) {
        double c0 = CpuSeconds(who);
        auto t0 = Clock::now();
        if (!f()) return Timing{};
        t.wall = std::min(t.wall, Seconds(t0, Clock::now()));
        t.cpu = std::min(t.cpu, CpuSeconds(who) - c0);
    }
    return t;
}

// Deterministic OBJ-like text: "v %f %f %f\n" from a 64-bit LCG.
bool Generate(const std::string& path, uint64_t bytes) {
    IoFile out(true);
    if (!out.OpenFile(path, false)) return false;
    uint64_t state = 0x9E3779B97F4A7C15ull, written = 0;
    std::string line;
    while (written < bytes) {
        line.clear();
        line += "v";
        for (int k = 0; k < 3; ++k) {
            state = state * 6364136223846793005ull + 1442695040888963407ull;
            double v = static_cast<double>(static_cast<int64_t>(state >> 33) % 2000000 - 1000000) / 1000.0;
            line += ' ';
            numfmt::AppendFixed(line, v);
        }
        line += '\n';
        if (!out.WriteString(std::string_view(line))) return false;
        written += line.size();
    }
    return out.CloseFile();
}

} // namespace

int main(int argc, char** argv) {
    uint64_t mb = 1024;
    std::string path = "/tmp/orbiscope-bench/iofile.txt";
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--mb") && i + 1 < argc) mb = std::strtoull(argv[++i], nullptr, 10);
        else if (!std::strcmp(argv[i], "--file") && i + 1 < argc) path = argv[++i];
        else if (!std::strcmp(argv[i], "--keep")) keep = true;
        else {
            std::fprintf(stderr, "usage: %s [--mb N] [--file PATH] [--keep]\n", argv[0]);
            return 2;
        }
    }
    const uint64_t want = mb << 20;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || static_cast<uint64_t>(st.st_size) < want ||
        static_cast<uint64_t>(st.st_size) > want + 4096) {
        std::string dir = path.substr(0, path.rfind('/'));
        std::system(("mkdir -p '" + dir + "'").c_str());
        std::printf("generating %s (%" PRIu64 " MiB)...\n", path.c_str(), mb);
        auto t0 = Clock::now();
        if (!Generate(path, want)) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
        double s = Seconds(t0, Clock::now());
        std::printf("  written in %.2f s (%.0f MB/s through IoFile writes + the number formatter)\n", s,
                    static_cast<double>(want) / 1e6 / s);
        stat(path.c_str(), &st);
    }
    const double sizeMB = static_cast<double>(st.st_size) / 1e6;

    // Warm the page cache so both sides read from memory.
    const std::string catCmd = "cat '" + path + "' > /dev/null";
    if (std::system(catCmd.c_str()) != 0) return 1;
    Timing cat = Measure(3, RUSAGE_CHILDREN, [&] { return std::system(catCmd.c_str()) == 0; });

    std::vector<char> buf(1 << 20);
    uint64_t sink = 0;
    Timing ioRead = Measure(3, RUSAGE_SELF, [&] {
        IoFile f(true);
        if (!f.OpenFile(path, true)) return false;
        while (!f.IsEOF()) {
            size_t n = static_cast<size_t>(
                std::min<int64_t>(static_cast<int64_t>(buf.size()), f.FileGetLength() - f.FileGetPosition()));
            f.FileRead(buf.data(), n);
            sink += static_cast<unsigned char>(buf[n / 2]);
        }
        return f.CloseFile();
    });
    uint64_t lines = 0;
    Timing ioLines = Measure(3, RUSAGE_SELF, [&] {
        IoFile f(true);
        if (!f.OpenFile(path, true)) return false;
        std::string_view l;
        lines = 0;
        while (f.ReadLine(l)) {
            ++lines;
            sink += l.size();
        }
        return f.CloseFile();
    });

    auto row = [&](const char* what, const Timing& t, const char* extra) {
        std::printf("%-24s: %7.0f MB/s wall (%.3f s), %7.0f MB/s CPU (%.3f s)%s\n", what, sizeMB / t.wall, t.wall,
                    sizeMB / t.cpu, t.cpu, extra);
    };
    std::printf("file: %s, %.1f MB\n", path.c_str(), sizeMB);
    row("cat > /dev/null", cat, "");
    char extra[128];
    std::snprintf(extra, sizeof(extra), "  ratio to cat: wall %.2f, CPU %.2f", cat.wall / ioRead.wall,
                  cat.cpu / ioRead.cpu);
    row("IoFile FileRead 1 MiB", ioRead, extra);
    std::snprintf(extra, sizeof(extra), "  ratio to cat: wall %.2f, CPU %.2f (%llu lines)", cat.wall / ioLines.wall,
                  cat.cpu / ioLines.cpu, static_cast<unsigned long long>(lines));
    row("IoFile ReadLine", ioLines, extra);

    // Float parsing over the first 256 MB of the same text: our cursor vs strtof.
    {
        IoFile f(true);
        f.OpenFile(path, true);
        auto data = f.GetData();
        size_t n = std::min<size_t>(data.size(), size_t(256) << 20);
        std::string text(reinterpret_cast<const char*>(data.data()), n);
        f.CloseFile();
        uint64_t count = 0;
        double sum = 0;
        Timing ours = Measure(3, RUSAGE_SELF, [&] {
            textscan::TextCursor c(text);
            count = 0;
            float v;
            while (!c.AtEnd()) {
                if (c.ReadFloat(v)) {
                    sum += v;
                    ++count;
                } else if (!c.SkipWord()) {
                    break;
                }
            }
            return true;
        });
        uint64_t count2 = 0;
        Timing libc = Measure(3, RUSAGE_SELF, [&] {
            const char* p = text.c_str();
            const char* end = p + text.size();
            count2 = 0;
            while (p < end) {
                char* stop;
                float v = std::strtof(p, &stop);
                if (stop != p) {
                    sum += v;
                    ++count2;
                    p = stop;
                } else {
                    while (p < end && *p != ' ' && *p != '\n') ++p; // skip the "v"
                    while (p < end && (*p == ' ' || *p == '\n')) ++p;
                }
            }
            return true;
        });
        double tmb = static_cast<double>(n) / 1e6;
        std::printf("TextCursor::ReadFloat   : %7.0f MB/s CPU, %.1f M floats/s CPU (%.3f s wall; %" PRIu64 " floats)\n",
                    tmb / ours.cpu, static_cast<double>(count) / ours.cpu / 1e6, ours.wall, count);
        std::printf("strtof (C library)      : %7.0f MB/s CPU, %.1f M floats/s CPU (%.3f s wall; %" PRIu64
                    " floats)  ratio ours/strtof: CPU %.2f, wall %.2f\n",
                    tmb / libc.cpu, static_cast<double>(count2) / libc.cpu / 1e6, libc.wall, count2,
                    libc.cpu / ours.cpu, libc.wall / ours.wall);
    }
    std::printf("(checksum %" PRIu64 ")\n", sink);
    if (!keep && path.rfind("/tmp/orbiscope-bench/", 0) == 0) std::remove(path.c_str());
    return 0;
}
