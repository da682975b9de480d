#pragma once
// Running the built orbiscope from the tests: its exit status, standard output and error.
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>

#include "tests/support/TestSupport.h"

namespace clitest {

struct CliRun {
    int status = -1;
    std::string out, err;
};

// `s` as one word of a shell command line.
inline std::string Quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

inline std::string Binary() { return (testsupport::BinaryDir() / "bin" / "orbiscope").string(); }

// Runs `orbiscope ARGS` (quoted as the shell needs) in `cwd`, with nothing on its input.
inline CliRun Orbiscope(const std::string& args, const std::filesystem::path& cwd = std::filesystem::current_path()) {
    testsupport::TempDir io;
    const std::string cmd = "cd " + Quote(cwd.string()) + " && " + Quote(Binary()) + " " + args + " >" +
                            Quote((io / "out").string()) + " 2>" + Quote((io / "err").string()) + " </dev/null";
    const int rc = std::system(cmd.c_str());
    CliRun r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = testsupport::ReadFile(io / "out");
    r.err = testsupport::ReadFile(io / "err");
    return r;
}

inline int Lines(const std::string& s) {
    int n = 0;
    for (char c : s) n += c == '\n';
    return n;
}

} // namespace clitest
