// Runs the built orbiscope binary the way a user does and checks exit statuses,
// messages and that a failed write never damages what was there.
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/cli/CliRunner.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

using namespace clitest;

namespace {
fs::path House() { return testsupport::SourceDir() / "examples" / "house.obj"; }

} // namespace

TEST(Cli, HelpVersionAndFormats) {
    CliRun h = Orbiscope("--help");
    EXPECT_EQ(h.status, 0);
    EXPECT_NE(h.out.find("exit status"), std::string::npos);
    CliRun none = Orbiscope("");
    EXPECT_EQ(none.status, 2);
    CliRun v = Orbiscope("--version");
    EXPECT_EQ(v.status, 0);
    EXPECT_NE(v.out.find("interface 5.0"), std::string::npos);
    CliRun f = Orbiscope("formats");
    EXPECT_EQ(f.status, 0);
    EXPECT_EQ(Lines(f.out), 15);
    EXPECT_NE(f.out.find("\"STL \" 0x53544C20"), std::string::npos);
    CliRun bad = Orbiscope("frobnicate");
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(Lines(bad.err), 1);
}

TEST(Cli, InputProblemsGetOneSentenceAndDistinctStatuses) {
    TempDir d;
    WriteFile(d / "empty.stl", "");
    WriteFile(d / "garbage.3ds", std::string("\x4d\x4d\xff\xff\xff\x7f", 6));
    WriteFile(d / "locked.obj", "v 0 0 0\n");
    chmod((d / "locked.obj").c_str(), 0);
    fs::create_directory(d / "dir.obj");
    WriteFile(d / "thing.xyz", "x");
    struct Case {
        std::string args;
        int status;
        const char* words;
    } cases[] = {
        {"info missing.obj", 3, "cannot open missing.obj"},
        {"info dir.obj", 3, "folder"},
        {"info empty.stl", 5, "empty"},
        {"info garbage.3ds", 4, "not a file of this format, or it is damaged"},
        {"info thing.xyz", 8, "not a format the module reads"},
        {"info", 2, "needs a file"},
        {"convert " + Quote(House().string()) + " out.xyz", 8, "not a format the module writes"},
        {"convert " + Quote(House().string()) + " out.a3d", 8, "can be read but not written"},
        {"convert " + Quote(House().string()) + " out.stl --to NOPE", 2, "type ID"},
    };
    for (auto& c : cases) {
        CliRun r = Orbiscope(c.args, d.path());
        EXPECT_EQ(r.status, c.status) << c.args << ": " << r.err;
        EXPECT_NE(r.err.find(c.words), std::string::npos) << c.args << ": " << r.err;
        EXPECT_EQ(Lines(r.err), 1) << c.args;
    }
    if (geteuid() != 0) { // root reads anything
        CliRun r = Orbiscope("info locked.obj", d.path());
        EXPECT_EQ(r.status, 3);
    }
}

TEST(Cli, ConvertWritesEveryFileIntoPlaceAndReadsBack) {
    TempDir d;
    // A folder with a blank and non-ASCII characters.
    fs::path sub = d / "dossier à vue";
    fs::create_directory(sub);
    CliRun r = Orbiscope("convert " + Quote(House().string()) + " " + Quote((sub / "maison é.obj").string()));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::exists(sub / "maison é.obj"));
    EXPECT_TRUE(fs::exists(sub / "maison é.mtl")); // the second file comes along
    int entries = 0;
    for (auto& e : fs::directory_iterator(sub)) {
        (void)e;
        ++entries;
    }
    EXPECT_EQ(entries, 2); // no temporary folder left behind
    CliRun i = Orbiscope("info " + Quote((sub / "maison é.obj").string()) + " --json");
    ASSERT_EQ(i.status, 0) << i.err;
    EXPECT_NE(i.out.find("\"meshes\": 2"), std::string::npos) << i.out;
    EXPECT_NE(i.out.find("\"faces\": 9"), std::string::npos) << i.out;
    CliRun stl =
        Orbiscope("convert " + Quote(House().string()) + " " + Quote((d / "h.stl").string()) + " --to \"STL \"");
    EXPECT_EQ(stl.status, 0) << stl.err;
}

TEST(Cli, FailedWritesLeaveExistingFilesAlone) {
    TempDir d;
    WriteFile(d / "keep.stl", "precious");
    // Same file as input and output.
    CliRun same = Orbiscope("convert keep.stl ./keep.stl", d.path());
    EXPECT_EQ(same.status, 2);
    EXPECT_EQ(ReadFile(d / "keep.stl"), "precious");
    // A reader failure before the writer runs.
    WriteFile(d / "bad.3ds", std::string("\x4d\x4d\x06\x00\x00\x00", 6));
    CliRun bad = Orbiscope("convert bad.3ds keep.stl", d.path());
    EXPECT_NE(bad.status, 0);
    EXPECT_EQ(ReadFile(d / "keep.stl"), "precious");
    // A folder that does not exist, and a read-only folder.
    CliRun nofolder = Orbiscope("convert " + Quote(House().string()) + " nowhere/x.stl", d.path());
    EXPECT_EQ(nofolder.status, 9);
    EXPECT_NE(nofolder.err.find("does not exist"), std::string::npos);
    fs::create_directory(d / "ro");
    WriteFile(d / "ro" / "x.stl", "old");
    chmod((d / "ro").c_str(), 0555);
    CliRun ro = Orbiscope("convert " + Quote(House().string()) + " ro/x.stl", d.path());
    if (geteuid() != 0) {
        EXPECT_EQ(ro.status, 9);
        EXPECT_EQ(ReadFile(d / "ro" / "x.stl"), "old");
    }
    chmod((d / "ro").c_str(), 0755);
    // A writer that finds nothing: a scene of a camera only cannot be written as STL,
    // but writers for which an empty file is valid still succeed. Here: an OBJ of points only.
    WriteFile(d / "points.obj", "v 0 0 0\nv 1 0 0\n");
    CliRun pts = Orbiscope("convert points.obj p.ma", d.path());
    EXPECT_TRUE(pts.status == 0 || pts.status == 5 || pts.status == 6) << pts.err;
}

TEST(Cli, ModuleThatCannotBeLoadedIsReported) {
    TempDir d;
    WriteFile(d / "orbiscope-formats.so", "not a module");
    std::string env = "ORBISCOPE_PLUGIN_PATH=" + Quote(d.path().string()) + " ";
    std::string cmd = env + Quote((testsupport::BinaryDir() / "bin" / "orbiscope").string()) +
                      " formats >/dev/null 2>" + Quote((d / "err").string());
    int rc = std::system(cmd.c_str());
    EXPECT_EQ(WEXITSTATUS(rc), 10);
    EXPECT_NE(ReadFile(d / "err").find("cannot be loaded"), std::string::npos);
}

TEST(Cli, GzipWorldsAreReadByTheirInnerExtension) {
    TempDir d;
    WriteFile(d / "box.wrl", "#VRML V2.0 utf8\nShape { geometry Box { size 1 2 3 } }\n");
    ASSERT_EQ(std::system(
                  ("gzip -c " + Quote((d / "box.wrl").string()) + " > " + Quote((d / "box.wrl.gz").string())).c_str()),
              0);
    CliRun r = Orbiscope("info box.wrl.gz", d.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("VRML97 files"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1 meshes"), std::string::npos) << r.out;
    CliRun plain = Orbiscope("info box.wrl", d.path());
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_NE(plain.out.find("VRML97 files"), std::string::npos);
}

TEST(Cli, CtrlCCancelsAReadCleanly) {
    TempDir d;
    // A large OBJ, so the read is still running when the signal arrives.
    std::string obj;
    obj.reserve(64u << 20);
    char line[96];
    for (int i = 0; i < 1500000; ++i) {
        int n = std::snprintf(line, sizeof line, "v %d.125 %d.5 -%d.25\n", i, i % 977, i % 13);
        obj.append(line, static_cast<size_t>(n));
    }
    for (int i = 1; i + 2 <= 1500000; i += 3) {
        int n = std::snprintf(line, sizeof line, "f %d %d %d\n", i, i + 1, i + 2);
        obj.append(line, static_cast<size_t>(n));
    }
    WriteFile(d / "big.obj", obj);
    std::string bin = (testsupport::BinaryDir() / "bin" / "orbiscope").string();
    std::string big = (d / "big.obj").string();
    std::string errPath = (d / "err").string();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        FILE* e = std::freopen(errPath.c_str(), "w", stderr);
        (void)e;
        execl(bin.c_str(), bin.c_str(), "info", big.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    // Signal once the file is mapped, i.e. the read has begun (and the handler is installed).
    for (int i = 0; i < 400; ++i) {
        if (ReadFile("/proc/" + std::to_string(pid) + "/maps").find("big.obj") != std::string::npos) break;
        usleep(25000);
    }
    kill(pid, SIGINT);
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_TRUE(WIFEXITED(st)) << "the process died of its signal instead of cancelling";
    if (WEXITSTATUS(st) == 0) GTEST_SKIP() << "the read finished before the signal arrived";
    EXPECT_EQ(WEXITSTATUS(st), 7);
    std::string err = ReadFile(errPath);
    EXPECT_NE(err.find("cancelled while reading"), std::string::npos) << err;
    EXPECT_EQ(Lines(err), 1);
}

// ---------------------------------------------------------------------------
// Signals, temporary files and failed writes

namespace {
// A large OBJ: the read and the write both take long enough to be caught in the act.
void WriteBigObj(const fs::path& path, int vertices) {
    std::string obj;
    obj.reserve(static_cast<size_t>(vertices) * 40);
    char line[96];
    for (int i = 0; i < vertices; ++i) {
        int n = std::snprintf(line, sizeof line, "v %d.125 %d.5 -%d.25\n", i, i % 977, i % 13);
        obj.append(line, static_cast<size_t>(n));
    }
    for (int i = 1; i + 2 <= vertices; i += 3) {
        int n = std::snprintf(line, sizeof line, "f %d %d %d\n", i, i + 1, i + 2);
        obj.append(line, static_cast<size_t>(n));
    }
    WriteFile(path, obj);
}

// A running orbiscope with its output in files.
struct Running {
    pid_t pid = -1;
    int status = 0;
    bool ended = false;
    fs::path out, err;

    // `fileSizeLimit` > 0 runs it under that RLIMIT_FSIZE.
    Running(const std::vector<std::string>& args, const fs::path& cwd, const fs::path& io, rlim_t fileSizeLimit = 0)
        : out(io / "out"), err(io / "err") {
        const std::string bin = (testsupport::BinaryDir() / "bin" / "orbiscope").string();
        pid = fork();
        if (pid != 0) return;
        if (chdir(cwd.c_str()) != 0) _exit(126);
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
        if (fileSizeLimit) {
            struct rlimit lim = {fileSizeLimit, fileSizeLimit};
            setrlimit(RLIMIT_FSIZE, &lim);
        }
        std::vector<char*> argv{const_cast<char*>(bin.c_str())};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    ~Running() {
        if (!ended && pid > 0) {
            kill(pid, SIGKILL);
            Wait();
        }
    }
    bool Poll() {
        if (!ended && waitpid(pid, &status, WNOHANG) == pid) ended = true;
        return ended;
    }
    void Wait() {
        if (!ended && waitpid(pid, &status, 0) == pid) ended = true;
    }
    // Polls `ready` every millisecond for up to 20 s; false when the process ended first.
    template <class F> bool Until(F ready) {
        for (int i = 0; i < 20000; ++i) {
            if (ready()) return true;
            if (Poll()) return false;
            usleep(1000);
        }
        return false;
    }
};

// Entries of `dir` whose names start with `prefix`.
std::vector<fs::path> Entries(const fs::path& dir, const std::string& prefix) {
    std::vector<fs::path> v;
    std::error_code ec;
    for (auto& e : fs::directory_iterator(dir, ec))
        if (e.path().filename().string().rfind(prefix, 0) == 0) v.push_back(e.path());
    return v;
}

// True while a temporary output folder in `dir` holds a file that is being written.
bool WriteUnderWay(const fs::path& dir) {
    for (const auto& t : Entries(dir, ".orbiscope-")) {
        std::error_code ec;
        for (auto& f : fs::directory_iterator(t, ec))
            if (fs::file_size(f.path(), ec) > 0) return true;
    }
    return false;
}
} // namespace

// SIGTERM and SIGHUP in the middle of a write end the process by that signal (the parent
// sees the usual 128+N), and nothing is left beside the target: no temporary folder, no
// partial file, no target.
TEST(CliSignals, TerminationDuringAWriteLeavesNothingBehind) {
    TempDir d;
    WriteBigObj(d / "big.obj", 1500000);
    for (int sig : {SIGTERM, SIGHUP}) {
        TempDir io;
        fs::path outDir = d / ("out" + std::to_string(sig));
        fs::create_directory(outDir);
        Running r({"convert", (d / "big.obj").string(), (outDir / "big.ma").string()}, d.path(), io.path());
        if (!r.Until([&] { return WriteUnderWay(outDir); }))
            GTEST_SKIP() << "the write ended before it could be caught: " << ReadFile(r.err);
        kill(r.pid, sig);
        r.Wait();
        ASSERT_TRUE(WIFSIGNALED(r.status)) << "status " << r.status << ": " << ReadFile(r.err);
        EXPECT_EQ(WTERMSIG(r.status), sig);
        EXPECT_TRUE(fs::is_empty(outDir)) << Entries(outDir, "").front();
    }
}

// Ctrl-C during a write: the first cancels (the finished file is not moved into place,
// status 7), a second ends the run at once like SIGTERM. Nothing is left either way.
TEST(CliSignals, CtrlCDuringAWrite) {
    TempDir d;
    WriteBigObj(d / "big.obj", 1500000);
    for (int presses : {1, 2}) {
        TempDir io;
        fs::path outDir = d / ("out" + std::to_string(presses));
        fs::create_directory(outDir);
        Running r({"convert", (d / "big.obj").string(), (outDir / "big.ma").string()}, d.path(), io.path());
        if (!r.Until([&] { return WriteUnderWay(outDir); }))
            GTEST_SKIP() << "the write ended before it could be caught";
        for (int i = 0; i < presses; ++i) {
            kill(r.pid, SIGINT);
            usleep(20000);
        }
        r.Wait();
        if (presses == 1) {
            ASSERT_TRUE(WIFEXITED(r.status)) << "killed by signal " << WTERMSIG(r.status);
            EXPECT_EQ(WEXITSTATUS(r.status), 7);
            EXPECT_EQ(ReadFile(r.err), "orbiscope: cancelled while writing " + (outDir / "big.ma").string() + ".\n");
        } else {
            ASSERT_TRUE(WIFSIGNALED(r.status)) << "status " << r.status;
            EXPECT_EQ(WTERMSIG(r.status), SIGINT);
        }
        EXPECT_TRUE(fs::is_empty(outDir)) << presses;
    }
}

// The unpacked copy of a gzip world is removed when the read is ended by a signal; SIGPIPE
// from outside is ignored (the read goes on and cleans up as usual).
TEST(CliSignals, GzipWorldTemporaryIsRemovedOnTermination) {
    TempDir d;
    std::string world = "#VRML V2.0 utf8\nShape { geometry IndexedFaceSet { coord Coordinate { point [\n";
    char line[96];
    for (int i = 0; i < 900000; ++i) {
        int n = std::snprintf(line, sizeof line, "%d.5 %d.25 %d,\n", i, i % 101, i % 7);
        world.append(line, static_cast<size_t>(n));
    }
    world += "] } coordIndex [ 0 1 2 -1 ] } }\n";
    WriteFile(d / "big.wrl", world);
    ASSERT_EQ(
        std::system(
            ("gzip -1 -c " + Quote((d / "big.wrl").string()) + " > " + Quote((d / "big.wrl.gz").string())).c_str()),
        0);
    fs::remove(d / "big.wrl");
    for (int sig : {SIGTERM, SIGPIPE}) {
        TempDir io;
        Running r({"info", "big.wrl.gz"}, d.path(), io.path());
        // This run's own copy (its pid is in the name), not a leftover of the one before.
        const std::string own = "~vrml97p" + std::to_string(r.pid) + "h";
        if (!r.Until([&] { return !Entries(d.path(), own).empty(); }))
            GTEST_SKIP() << "the read ended before it could be caught: " << ReadFile(r.err);
        kill(r.pid, sig);
        r.Wait();
        if (sig == SIGPIPE) {
            ASSERT_TRUE(WIFEXITED(r.status)) << "died of SIGPIPE";
            EXPECT_EQ(WEXITSTATUS(r.status), 0) << ReadFile(r.err);
        } else {
            ASSERT_TRUE(WIFSIGNALED(r.status)) << ReadFile(r.err);
            EXPECT_EQ(WTERMSIG(r.status), sig);
        }
        EXPECT_TRUE(Entries(d.path(), "~vrml97").empty());
    }
}

// A run killed outright leaves its temporary folder; the next run writing into that folder
// removes it, while the folder of a run that is still alive (here: stopped) stays.
TEST(CliSignals, NextRunRemovesTheLeftoversOfKilledRuns) {
    TempDir d;
    WriteBigObj(d / "big.obj", 1500000);
    fs::path outDir = d / "out";
    fs::create_directory(outDir);
    TempDir io1, io2;
    // The live run first: a run's start sweeps the folders of dead runs, so the live run
    // must not start after the kill.
    Running alive({"convert", (d / "big.obj").string(), (outDir / "b.ma").string()}, d.path(), io1.path());
    if (!alive.Until([&] { return !Entries(outDir, ".orbiscope-").empty(); })) GTEST_SKIP() << "ended too soon";
    kill(alive.pid, SIGSTOP);
    const fs::path aliveTmp = Entries(outDir, ".orbiscope-").front();

    Running killed({"convert", (d / "big.obj").string(), (outDir / "a.ma").string()}, d.path(), io2.path());
    fs::path killedTmp;
    auto underWay = [&] {
        for (const auto& t : Entries(outDir, ".orbiscope-")) {
            std::error_code ec;
            if (t != aliveTmp && fs::file_size(t / "a.ma", ec) > 0 && !ec) {
                killedTmp = t;
                return true;
            }
        }
        return false;
    };
    if (!killed.Until(underWay)) GTEST_SKIP() << "the write ended too soon";
    kill(killed.pid, SIGKILL);
    killed.Wait();
    ASSERT_TRUE(fs::exists(killedTmp)); // a kill leaves it: nothing runs in the process

    CliRun small = Orbiscope("convert " + Quote(House().string()) + " " + Quote((outDir / "h.stl").string()));
    EXPECT_EQ(small.status, 0) << small.err;
    EXPECT_FALSE(fs::exists(killedTmp));
    EXPECT_TRUE(fs::exists(aliveTmp));
    EXPECT_TRUE(fs::exists(outDir / "h.stl"));
    kill(alive.pid, SIGTERM);
    kill(alive.pid, SIGCONT);
    alive.Wait();
    EXPECT_TRUE(WIFSIGNALED(alive.status));
    EXPECT_FALSE(fs::exists(aliveTmp));
}

// A write cut short by the file-size limit names the real reason, and leaves nothing.
TEST(CliWriteFailures, FileSizeLimitIsReportedAsSuch) {
    TempDir d, io;
    WriteBigObj(d / "mid.obj", 60000);
    fs::path outDir = d / "out";
    fs::create_directory(outDir);
    Running r({"convert", "mid.obj", "out/mid.stl"}, d.path(), io.path(), 200000);
    r.Wait();
    ASSERT_TRUE(WIFEXITED(r.status)) << "killed by signal " << WTERMSIG(r.status);
    EXPECT_EQ(WEXITSTATUS(r.status), 9);
    const std::string err = ReadFile(r.err);
    EXPECT_EQ(err, "orbiscope: cannot write out/mid.stl: File too large.\n");
    EXPECT_TRUE(fs::is_empty(outDir));
}

// Standard output that cannot take the listing: a full disk is an error with its reason;
// a reader that went away ends the run quietly with 128 + SIGPIPE instead of killing it.
TEST(CliWriteFailures, StandardOutputFailures) {
    TempDir d;
    if (access("/dev/full", W_OK) == 0) {
        std::string cmd = Quote((testsupport::BinaryDir() / "bin" / "orbiscope").string()) + " info " +
                          Quote(House().string()) + " >/dev/full 2>" + Quote((d / "err").string());
        int rc = std::system(cmd.c_str());
        EXPECT_EQ(WEXITSTATUS(rc), 9);
        EXPECT_EQ(ReadFile(d / "err"), "orbiscope: cannot write the standard output: No space left on device.\n");
    }
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]); // nobody will read
    const std::string bin = (testsupport::BinaryDir() / "bin" / "orbiscope").string();
    const std::string house = House().string();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        signal(SIGPIPE, SIG_DFL);
        dup2(fds[1], 1);
        int e = open((d / "err2").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(e, 2);
        execl(bin.c_str(), bin.c_str(), "info", house.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_TRUE(WIFEXITED(st)) << "killed by signal " << WTERMSIG(st);
    EXPECT_EQ(WEXITSTATUS(st), 128 + SIGPIPE);
    EXPECT_EQ(ReadFile(d / "err2"), "");
}

TEST(Cli, InfoListsTheFilesASceneNeedsFoundOrMissing) {
    TempDir d;
    testsupport::WriteFile(d / "here.png", "png");
    testsupport::WriteFile(
        d / "model.wrl",
        "#VRML V1.0 ascii\nSeparator {\n"
        " Coordinate3 { point [ 0 0 0, 1 0 0, 0 1 0 ] }\n"
        " Separator { Texture2 { filename \"here.png\" } IndexedFaceSet { coordIndex [ 0, 1, 2 ] } }\n"
        " Separator { Texture2 { filename \"gone.png\" } IndexedFaceSet { coordIndex [ 0, 2, 1 ] } }\n}\n");
    CliRun r = Orbiscope("info " + Quote((d / "model.wrl").string()));
    ASSERT_EQ(r.status, 0) << r.err;
    const size_t files = r.out.find("files:\n");
    ASSERT_NE(files, std::string::npos) << r.out;
    const std::string list = r.out.substr(files);
    EXPECT_NE(list.find("here.png\" found"), std::string::npos) << list;
    EXPECT_NE(list.find("gone.png\" missing"), std::string::npos) << list;
}

TEST(Cli, KmzPackagesListTheirModelsAndConvertWithTheirTextures) {
    SKIP_WITHOUT_CORPUS();
    const fs::path kmz = testsupport::CorpusDir() / "kmz" / "shared-textures.kmz";
    CliRun info = Orbiscope("info " + Quote(kmz.string()));
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("models:\n  \"geometry\\bldg.dae\"\n  \"geometry\\wall.dae\"\n"), std::string::npos)
        << info.out;
    // The unpacked folder goes when the command ends: the textures travel with the output.
    TempDir d;
    CliRun conv = Orbiscope("convert " + Quote(kmz.string()) + " out.obj", d.path());
    ASSERT_EQ(conv.status, 0) << conv.err;
    const std::string mtl = ReadFile(d / "out.mtl");
    int maps = 0;
    for (size_t at = mtl.find("map_Kd "); at != std::string::npos; at = mtl.find("map_Kd ", at + 1), ++maps) {
        const std::string name = mtl.substr(at + 7, mtl.find('\n', at) - at - 7);
        EXPECT_TRUE(fs::exists(fs::path(name).is_absolute() ? fs::path(name) : d / name)) << name;
    }
    EXPECT_GT(maps, 0) << mtl;
}
