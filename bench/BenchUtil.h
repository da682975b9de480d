#pragma once
// What the benchmark programs share: the process's memory figures and running a child
// (a peer or ourselves in a fresh process) to read its "key=value" report.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace benchutil {

// A "Vm...:" field of /proc/self/status, in kB (-1 when absent).
inline long StatusKB(const char* key) {
    std::ifstream f("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(key);
    while (std::getline(f, line))
        if (line.compare(0, n, key) == 0) return std::atol(line.c_str() + n + 1);
    return -1;
}

// The standard output of a shell command.
inline std::string Run(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[512];
        while (std::fgets(buf, sizeof buf, p)) out += buf;
        pclose(p);
    }
    return out;
}

// The number after `key` ("seconds=") in a report line, -1 when absent.
inline double Field(const std::string& s, const char* key) {
    const size_t at = s.find(key);
    return at == std::string::npos ? -1 : std::atof(s.c_str() + at + std::strlen(key));
}

} // namespace benchutil
