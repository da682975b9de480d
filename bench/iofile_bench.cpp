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
#include <sys/stat.h>
#include <vector>

#include "plugin/host/IoFile.h"
#include "plugin/host/NumberFormat.h"
#include "plugin/host/TextScanner.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

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

double TimeCommand(const std::string& cmd) {
    auto t0 = Clock::now();
    if (std::system(cmd.c_str()) != 0) return -1;
    return Seconds(t0, Clock::now());
}

template <typename F> double Best(int runs, F&& f) {
    double best = 1e300;
    for (int i = 0; i < runs; ++i) best = std::min(best, f());
    return best;
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
    TimeCommand("cat '" + path + "' > /dev/null");
    double cat = Best(3, [&] { return TimeCommand("cat '" + path + "' > /dev/null"); });

    std::vector<char> buf(1 << 20);
    uint64_t sink = 0;
    double ioRead = Best(3, [&] {
        auto t0 = Clock::now();
        IoFile f(true);
        if (!f.OpenFile(path, true)) return 1e300;
        while (!f.IsEOF()) {
            size_t n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(buf.size()), f.FileGetLength() - f.FileGetPosition()));
            f.FileRead(buf.data(), n);
            sink += static_cast<unsigned char>(buf[n / 2]);
        }
        f.CloseFile();
        return Seconds(t0, Clock::now());
    });
    uint64_t lines = 0;
    double ioLines = Best(3, [&] {
        auto t0 = Clock::now();
        IoFile f(true);
        if (!f.OpenFile(path, true)) return 1e300;
        std::string_view l;
        lines = 0;
        while (f.ReadLine(l)) {
            ++lines;
            sink += l.size();
        }
        f.CloseFile();
        return Seconds(t0, Clock::now());
    });

    std::printf("file: %s, %.1f MB\n", path.c_str(), sizeMB);
    std::printf("cat > /dev/null          : %8.0f MB/s (%.3f s)\n", sizeMB / cat, cat);
    std::printf("IoFile FileRead 1 MiB    : %8.0f MB/s (%.3f s)  ratio to cat %.2f\n", sizeMB / ioRead, ioRead, cat / ioRead);
    std::printf("IoFile ReadLine          : %8.0f MB/s (%.3f s, %" PRIu64 " lines)  ratio to cat %.2f\n", sizeMB / ioLines,
                ioLines, lines, cat / ioLines);

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
        double ours = Best(3, [&] {
            auto t0 = Clock::now();
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
            return Seconds(t0, Clock::now());
        });
        uint64_t count2 = 0;
        double libc = Best(3, [&] {
            auto t0 = Clock::now();
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
            return Seconds(t0, Clock::now());
        });
        double tmb = static_cast<double>(n) / 1e6;
        std::printf("TextCursor::ReadFloat    : %8.0f MB/s, %.1f M floats/s (%" PRIu64 " floats)\n", tmb / ours,
                    static_cast<double>(count) / ours / 1e6, count);
        std::printf("strtof (C library)       : %8.0f MB/s, %.1f M floats/s (%" PRIu64 " floats)  ratio ours/strtof %.2f\n",
                    tmb / libc, static_cast<double>(count2) / libc / 1e6, count2, libc / ours);
    }
    std::printf("(checksum %" PRIu64 ")\n", sink);
    if (!keep && path.rfind("/tmp/orbiscope-bench/", 0) == 0) std::remove(path.c_str());
    return 0;
}
