// The command line as a new user meets it: help for every command, options anywhere,
// mistakes named with the option meant, formats in any case, standard output, JSON
// that validates against the documented schemas, the options' log, and the batch form
// of convert over a folder with a damaged file.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "plugin/host/Cancel.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/MiniZip.h"
#include "tests/cli/CliRunner.h"
#include "tests/support/TestSupport.h"
#include <orbiscope/Version.h>

namespace fs = std::filesystem;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {
using Outcome = clitest::CliRun;
using clitest::Lines;
using clitest::Orbiscope;
std::string Q(const std::string& s) { return clitest::Quote(s); }
std::string Bin() { return clitest::Binary(); }

std::string House() { return Q((testsupport::SourceDir() / "examples" / "house.obj").string()); }

// 0 valid; 1 invalid (the reasons in `why`); 77 no validator on this machine.
int Validate(const std::string& json, const std::string& schema, bool lines, std::string* why = nullptr) {
    TempDir d;
    WriteFile(d / "doc", json);
    const std::string cmd = "python3 " + Q((testsupport::SourceDir() / "tests" / "cli" / "validate_json.py").string()) +
                            " " + Q((testsupport::SourceDir() / "docs" / "json-schema").string()) + " " + schema +
                            (lines ? " --lines" : "") + " <" + Q((d / "doc").string()) + " 2>" +
                            Q((d / "why").string());
    const int rc = std::system(cmd.c_str());
    if (why) *why = ReadFile(d / "why");
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : 1;
}

#define EXPECT_VALID(json, schema, lines)                                                                              \
    do {                                                                                                               \
        std::string why_;                                                                                              \
        const int v_ = Validate(json, schema, lines, &why_);                                                           \
        if (v_ == 77) GTEST_SKIP() << "python3-jsonschema is not installed";                                           \
        EXPECT_EQ(v_, 0) << why_ << "\n" << (json);                                                                    \
    } while (0)
} // namespace

TEST(CliUsage, EveryCommandHasItsHelpAndTheVersionHasThreeSpellings) {
    for (const char* cmd : {"formats", "info", "convert", "lxo", "vrml97", "version", "help"}) {
        Outcome h = Orbiscope(std::string("help ") + cmd);
        EXPECT_EQ(h.status, 0) << cmd << ": " << h.err;
        EXPECT_EQ(h.out.rfind(std::string("usage: orbiscope ") + cmd, 0), 0u) << h.out;
        Outcome flag = Orbiscope(std::string(cmd) + " --help");
        EXPECT_EQ(flag.status, 0) << cmd << ": " << flag.err;
        EXPECT_EQ(flag.out, h.out) << cmd;
    }
    EXPECT_NE(Orbiscope("convert -h").out.find("--jobs"), std::string::npos);
    Outcome general = Orbiscope("help");
    EXPECT_NE(general.out.find("exit status"), std::string::npos);
    EXPECT_EQ(Orbiscope("help frobnicate").status, 2);
    const std::string expected = std::string("orbiscope ") + ORBISCOPE_VERSION + " (format module interface";
    for (const char* v : {"version", "--version", "-V"}) {
        Outcome r = Orbiscope(v);
        EXPECT_EQ(r.status, 0) << v;
        EXPECT_EQ(r.out.rfind(expected, 0), 0u) << v << ": " << r.out;
    }
}

TEST(CliUsage, OptionsGoAnywhereAndMistakesNameTheOptionMeant) {
    Outcome before = Orbiscope("info --json " + House());
    Outcome after = Orbiscope("info " + House() + " --json");
    Outcome leading = Orbiscope("--json info " + House());
    ASSERT_EQ(before.status, 0) << before.err;
    EXPECT_EQ(before.out, after.out);
    EXPECT_EQ(before.out, leading.out);
    EXPECT_EQ(Orbiscope("info " + House() + " --format json").out, before.out);
    // -q and -v after the command.
    Outcome verbose = Orbiscope("info " + House() + " -v");
    EXPECT_NE(verbose.err.find("read "), std::string::npos) << verbose.err;
    Outcome quiet = Orbiscope("convert " + House() + " - --to stl -q");
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");

    struct Case {
        std::string args, words;
    } cases[] = {
        {"info --jsn " + House(), "unknown option --jsn for info; did you mean --json?"},
        {"convert " + House() + " x.stl --too stl", "unknown option --too for convert; did you mean --to?"},
        {"convert " + House() + " x.stl --jobs", "the option --jobs needs a value"},
        {"convert " + House() + " -o out --to stl -j zero", "--jobs takes a number"},
        {"conver " + House(), "did you mean convert?"},
        {"--verbsoe info " + House(), "did you mean --verbose?"},
        {"info " + House() + " --format yaml", "unknown output format"},
    };
    TempDir d;
    for (const Case& c : cases) {
        Outcome r = Orbiscope(c.args, d.path());
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_NE(r.err.find(c.words), std::string::npos) << c.args << ": " << r.err;
        EXPECT_EQ(Lines(r.err), 1) << c.args << ": " << r.err;
    }
    EXPECT_TRUE(fs::is_empty(d.path()));
}

TEST(CliUsage, FormatsAreNamedInAnyCaseAndStandardOutputTakesOneFileFormats) {
    TempDir d;
    fs::copy_file(testsupport::SourceDir() / "examples" / "house.obj", d / "HOUSE.OBJ");
    ASSERT_EQ(Orbiscope("convert HOUSE.OBJ ref.stl", d.path()).status, 0);
    for (const char* to : {"stl", "STL", "'STL '", ".stl", "Stl"}) {
        Outcome r = Orbiscope(std::string("convert HOUSE.OBJ - --to ") + to, d.path());
        EXPECT_EQ(r.status, 0) << to << ": " << r.err;
        EXPECT_EQ(r.out, ReadFile(d / "ref.stl")) << to; // the same bytes, on stdout
    }
    EXPECT_FALSE(fs::exists(d / "-"));
    Outcome ply = Orbiscope("convert HOUSE.OBJ h.out --to PLY --from obj", d.path());
    EXPECT_EQ(ply.status, 0) << ply.err;
    EXPECT_EQ(ReadFile(d / "h.out").rfind("ply\n", 0), 0u);
    // OBJ with materials writes two files: not for standard output.
    Outcome two = Orbiscope("convert HOUSE.OBJ - --to obj", d.path());
    EXPECT_EQ(two.status, 2);
    EXPECT_NE(two.err.find("more than one file"), std::string::npos) << two.err;
    EXPECT_EQ(Orbiscope("convert HOUSE.OBJ -", d.path()).status, 2); // no format to write
    Outcome nope = Orbiscope("convert HOUSE.OBJ - --to xyz", d.path());
    EXPECT_EQ(nope.status, 2);
    EXPECT_NE(nope.err.find("\"xyz\""), std::string::npos);
}

TEST(CliUsage, EveryPrintingCommandSpeaksJsonThatValidates) {
    TempDir d;
    // A DXF in inches with one face, and a texture found beside it and one missing.
    WriteFile(d / "face.dxf",
              "0\nSECTION\n2\nHEADER\n9\n$INSUNITS\n70\n1\n0\nENDSEC\n0\nSECTION\n2\nENTITIES\n"
              "0\n3DFACE\n8\n0\n10\n0\n20\n0\n30\n0\n11\n2\n21\n0\n31\n0\n12\n0\n22\n3\n32\n0\n13\n0\n23\n3\n33\n4\n"
              "0\nENDSEC\n0\nEOF\n");
    Outcome text = Orbiscope("info face.dxf", d.path());
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("units: inch (7)"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("bounds: min 0 0 0, max 2 3 4, size 2 3 4"), std::string::npos) << text.out;
    Outcome info = Orbiscope("info face.dxf --json", d.path());
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("\"schema\": \"orbiscope-info/1\""), std::string::npos);
    EXPECT_NE(info.out.find("\"name\": \"inch\""), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("\"bounds\": {\"min\": [0, 0, 0], \"max\": [2, 3, 4]}"), std::string::npos) << info.out;
    EXPECT_VALID(info.out, "info.schema.json", false);

    WriteFile(d / "here.png", "png");
    WriteFile(d / "tex.wrl",
              "#VRML V1.0 ascii\nSeparator {\n Coordinate3 { point [ 0 0 0, 1 0 0, 0 1 0 ] }\n"
              " Separator { Texture2 { filename \"here.png\" } IndexedFaceSet { coordIndex [ 0, 1, 2 ] } }\n"
              " Separator { Texture2 { filename \"gone.png\" } IndexedFaceSet { coordIndex [ 0, 2, 1 ] } }\n}\n");
    Outcome tex = Orbiscope("info --json " + Q((d / "tex.wrl").string()));
    ASSERT_EQ(tex.status, 0) << tex.err;
    EXPECT_VALID(tex.out, "info.schema.json", false);
    EXPECT_NE(tex.out.find("\"resolved\": " + std::string("\"") + (d / "here.png").string() + "\", \"found\": true"),
              std::string::npos)
        << tex.out;
    EXPECT_NE(tex.out.find("gone.png\", \"found\": false"), std::string::npos) << tex.out;
    EXPECT_NE(tex.out.find("\"maps\": [{\"type\": \"diffuse\""), std::string::npos) << tex.out;

    Outcome conv = Orbiscope("convert " + House() + " h.stl --json", d.path());
    ASSERT_EQ(conv.status, 0) << conv.err;
    EXPECT_VALID(conv.out, "convert.schema.json", false);
    // What was written, not what was read: the STL holds triangles.
    Outcome back = Orbiscope("info h.stl --json", d.path());
    const size_t w = conv.out.find("\"written\": ");
    ASSERT_NE(w, std::string::npos);
    const std::string faces = back.out.substr(back.out.find("\"totals\""));
    const std::string written = conv.out.substr(w);
    auto number = [](const std::string& s, const std::string& key) {
        const size_t at = s.find("\"" + key + "\": ");
        return at == std::string::npos ? -1L : std::stol(s.substr(at + key.size() + 4));
    };
    EXPECT_EQ(number(written, "faces"), number(faces, "faces"));
    EXPECT_NE(number(conv.out, "faces"), number(written, "faces")); // the read had quads

    WriteFile(d / "box.wrl", "#VRML V2.0 utf8\nShape { geometry Box { size 1 2 3 } }\n");
    for (const std::string& cmd : std::vector<std::string>{"formats --json", "version --json",
                                                           "vrml97 check --json " + Q((d / "box.wrl").string())}) {
        Outcome r = Orbiscope(cmd);
        ASSERT_EQ(r.status, 0) << cmd;
        TempDir t;
        WriteFile(t / "j", r.out);
        EXPECT_EQ(std::system(("python3 -c 'import json,sys; json.load(sys.stdin)' <" + Q((t / "j").string())).c_str()),
                  0)
            << cmd << ": " << r.out;
    }
}

// An animated scene: the range and keys, and the node IDs the reader kept.
TEST(CliUsage, InfoShowsTheAnimationAndTheNodeIds) {
    SKIP_WITHOUT_CORPUS();
    const fs::path scene = testsupport::CorpusDir() / "lws" / "move_x.lws";
    if (!fs::exists(scene)) GTEST_SKIP() << "no " << scene;
    Outcome text = Orbiscope("info " + Q(scene.string()));
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("animation: 160..9600 ticks (0.0333333..2 s at 4800 ticks/s), 180 keys on 1 nodes"),
              std::string::npos)
        << text.out;
    Outcome json = Orbiscope("info --json " + Q(scene.string()));
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_NE(json.out.find("\"firstKey\": 160, \"lastKey\": 9600"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"id\": 268435456, \"name\": \"simple_cube\""), std::string::npos) << json.out;
    EXPECT_VALID(json.out, "info.schema.json", false);
}

TEST(CliUsage, TheOptionsLogIsShownOncePerMessage) {
    TempDir d;
    // Two inlined worlds that are not local files: one warning, counted.
    WriteFile(d / "m.wrl", "#VRML V1.0 ascii\nSeparator {\n Coordinate3 { point [ 0 0 0, 1 0 0, 0 1 0 ] }\n"
                           " IndexedFaceSet { coordIndex [ 0, 1, 2 ] }\n"
                           " WWWInline { name \"http://example.com/a.wrl\" }\n"
                           " WWWInline { name \"http://example.com/a.wrl\" }\n}\n");
    Outcome r = Orbiscope("info m.wrl", d.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "orbiscope: m.wrl: warning: VRML 1.0: 'http://example.com/a.wrl' is not a local file; it was "
                     "not read. (2 times)\n");
    EXPECT_EQ(Orbiscope("info m.wrl -q", d.path()).err, "");
    Outcome v = Orbiscope("-v info m.wrl", d.path());
    EXPECT_NE(v.err.find("warning: VRML 1.0: "), std::string::npos);
    EXPECT_NE(v.err.find("orbiscope: read m.wrl as "), std::string::npos) << v.err;
    WriteFile(d / "m.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    // The convert summary: what went out, file by file.
    Outcome c = Orbiscope("convert m.obj m.ply", d.path());
    ASSERT_EQ(c.status, 0) << c.err;
    EXPECT_EQ(c.out.rfind("m.obj -> m.ply: wrote 2 nodes, 1 meshes, 3 points, 1 faces, 0 materials (m.ply ", 0), 0u)
        << c.out;
    EXPECT_NE(c.out.find(std::to_string(fs::file_size(d / "m.ply")) + " bytes)"), std::string::npos) << c.out;
}

TEST(CliBatch, AFolderWithADamagedFileConvertsTheRestAndReportsEach) {
    TempDir d;
    fs::create_directories(d / "in" / "sub");
    fs::copy_file(testsupport::SourceDir() / "examples" / "house.obj", d / "in" / "house.obj");
    WriteFile(d / "in" / "tri.OBJ", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    WriteFile(d / "in" / "broken.3ds", std::string("\x4d\x4d\xff\xff\xff\x7f", 6));
    WriteFile(d / "in" / "notes.txt", "not a model");
    WriteFile(d / "in" / "sub" / "deep.stl", "solid x\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\n"
                                             "vertex 0 1 0\nendloop\nendfacet\nendsolid x\n");
    Outcome r = Orbiscope("convert in -r -o out --to ply -j 2 --report report.jsonl", d.path());
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_TRUE(fs::exists(d / "out" / "house.ply"));
    EXPECT_TRUE(fs::exists(d / "out" / "tri.ply"));
    EXPECT_TRUE(fs::exists(d / "out" / "sub" / "deep.ply")); // the layout is kept
    EXPECT_FALSE(fs::exists(d / "out" / "broken.ply"));
    EXPECT_NE(r.out.find("converted 3 of 4 files"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1 failed"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("orbiscope: in/broken.3ds is not a file of this format, or it is damaged.\n"),
              std::string::npos)
        << r.err;
    const std::string report = ReadFile(d / "report.jsonl");
    EXPECT_EQ(Lines(report), 4) << report;
    EXPECT_NE(report.find("\"input\": \"in/broken.3ds\", \"output\": \"out/broken.ply\", \"status\": \"failed\", "
                          "\"exit\": 4"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("\"status\": \"ok\", \"exit\": 0, \"message\": \"\""), std::string::npos);
    EXPECT_VALID(report, "batch-record.schema.json", true);
    // No temporary report, no temporary output folder is left.
    for (auto& e : fs::recursive_directory_iterator(d.path()))
        EXPECT_EQ(e.path().filename().string().find(".orbiscope-"), std::string::npos) << e.path();
    EXPECT_TRUE(fs::exists(d / "report.jsonl"));
    int entries = 0;
    for (auto& e : fs::directory_iterator(d.path())) entries += e.path().filename().string()[0] == '.';
    EXPECT_EQ(entries, 0);

    // The output folder inside the input folder is not taken as input on the next run.
    Outcome again = Orbiscope("convert in -r -o in/out --to stl", d.path());
    EXPECT_EQ(again.status, 1) << again.err; // broken.3ds still fails
    Outcome twice = Orbiscope("convert in -r -o in/out --to stl --json", d.path());
    EXPECT_NE(twice.out.find("\"files\": 4,"), std::string::npos) << twice.out;
    EXPECT_FALSE(fs::exists(d / "in" / "out" / "out"));

    // Without -r the folder's own files only; patterns as the shell would expand them;
    // every input fine: status 0 and a JSON summary.
    Outcome flat = Orbiscope("convert in -o flat --to stl", d.path());
    EXPECT_FALSE(fs::exists(d / "flat" / "sub"));
    EXPECT_TRUE(fs::exists(d / "flat" / "tri.stl"));
    Outcome glob = Orbiscope("convert 'in/*.obj' 'in/*.OBJ' -o globbed --to stl -j 1 --json", d.path());
    EXPECT_EQ(glob.status, 0) << glob.err;
    EXPECT_NE(glob.out.find("\"files\": 2, \"ok\": 2, \"failed\": 0"), std::string::npos) << glob.out;
    Outcome none = Orbiscope("convert 'in/*.xyz' -o x --to stl", d.path());
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("no file matches in/*.xyz"), std::string::npos) << none.err;
    // Two inputs that would write the same output.
    WriteFile(d / "in" / "tri.stl", ReadFile(d / "in" / "sub" / "deep.stl"));
    Outcome clash = Orbiscope("convert in/tri.OBJ in/tri.stl -o clash --to ply", d.path());
    EXPECT_EQ(clash.status, 1);
    EXPECT_NE(clash.err.find("is already the output of in/tri.OBJ"), std::string::npos) << clash.err;
}

// A write the thread's cancel flag stops: it fails at the next buffer with ECANCELED
// and nothing more reaches the file.
TEST(CliCancel, AWriteStopsAtTheNextBufferOnceCancelled) {
    TempDir d;
    std::atomic<bool> cancel{false};
    SetThreadCancelToken(&cancel);
    IoFileClearWriteFailure();
    {
        IoFile f(true);
        ASSERT_TRUE(f.OpenFile((d / "out").string(), false));
        const std::string mb(1 << 20, 'x');
        EXPECT_TRUE(f.FileWrite(mb.data(), 1000));
        cancel = true;
        for (int i = 0; i < 3; ++i) f.FileWrite(mb.data(), 1000 * 1000 / 3 + 1);
        EXPECT_FALSE(f.FileWrite(mb.data(), mb.size())); // a large piece goes straight out: refused too
        EXPECT_FALSE(f.CloseFile());
    }
    SetThreadCancelToken(nullptr);
    EXPECT_EQ(IoFileLastWriteFailure().error, ECANCELED);
    EXPECT_EQ(fs::file_size(d / "out"), 0u);
}

// ---------------------------------------------------------------------------
// A batch's workers: a worker that dies costs its own file only; Ctrl-C to the batch
// cancels the running workers (nothing half-written stays) and the inputs not started.

namespace {
void WriteBigObj(const fs::path& path, int vertices) {
    std::string obj;
    obj.reserve(static_cast<size_t>(vertices) * 40);
    char line[96];
    for (int i = 0; i < vertices; ++i) {
        const int n = std::snprintf(line, sizeof line, "v %d.125 %d.5 -%d.25\n", i, i % 977, i % 13);
        obj.append(line, static_cast<size_t>(n));
    }
    for (int i = 1; i + 2 <= vertices; i += 3) {
        const int n = std::snprintf(line, sizeof line, "f %d %d %d\n", i, i + 1, i + 2);
        obj.append(line, static_cast<size_t>(n));
    }
    WriteFile(path, obj);
}

struct Batch {
    pid_t pid = -1;
    int status = 0;
    explicit Batch(const fs::path& cwd, const std::vector<std::string>& args, const fs::path& output) {
        const std::string bin = Bin();
        pid = fork();
        if (pid != 0) return;
        if (chdir(cwd.c_str()) != 0) _exit(126);
        const int e = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644); // both outputs
        if (e < 0 || dup2(e, 2) < 0 || dup2(e, 1) < 0) _exit(126);
        std::vector<char*> argv{const_cast<char*>(bin.c_str())};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    ~Batch() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    }
    int Wait() {
        waitpid(pid, &status, 0);
        pid = -1;
        return status;
    }
    // The worker running now, once its output is being written (up to 20 s).
    pid_t WorkerWriting(const fs::path& outDir) {
        for (int i = 0; i < 20000; ++i) {
            const std::string kids =
                ReadFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
            std::error_code ec;
            for (auto& t : fs::directory_iterator(outDir, ec))
                if (t.path().filename().string().rfind(".orbiscope-", 0) == 0)
                    for (auto& f : fs::directory_iterator(t.path(), ec))
                        if (fs::file_size(f.path(), ec) > 0 && !kids.empty()) return std::stoi(kids);
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return -1;
            }
            usleep(1000);
        }
        return -1;
    }
};
} // namespace

TEST(CliBatch, AWorkerThatDiesCostsItsOwnFileOnly) {
    TempDir d;
    WriteBigObj(d / "a_big.obj", 1500000);
    WriteFile(d / "b_small.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    Batch b(d.path(),
            {"convert", "a_big.obj", "b_small.obj", "-o", "out", "--to", "ma", "-j", "1", "--report", "r.jsonl"},
            d / "err");
    const pid_t worker = b.WorkerWriting(d / "out");
    if (worker <= 0) GTEST_SKIP() << "the write ended before it could be caught: " << ReadFile(d / "err");
    kill(worker, SIGKILL);
    const int st = b.Wait();
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 1);
    const std::string report = ReadFile(d / "r.jsonl");
    EXPECT_NE(
        report.find("\"input\": \"a_big.obj\", \"output\": \"out/a_big.ma\", \"status\": \"crashed\", \"exit\": 137"),
        std::string::npos)
        << report;
    EXPECT_NE(report.find("\"input\": \"b_small.obj\", \"output\": \"out/b_small.ma\", \"status\": \"ok\""),
              std::string::npos)
        << report;
    EXPECT_TRUE(fs::exists(d / "out" / "b_small.ma"));
    EXPECT_FALSE(fs::exists(d / "out" / "a_big.ma"));
}

TEST(CliBatch, CtrlCCancelsTheRunningWorkerAndTheRest) {
    TempDir d;
    WriteBigObj(d / "a_big.obj", 1500000);
    WriteFile(d / "b_small.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    Batch b(d.path(),
            {"convert", "a_big.obj", "b_small.obj", "-o", "out", "--to", "ma", "-j", "1", "--report", "r.jsonl"},
            d / "err");
    if (b.WorkerWriting(d / "out") <= 0) GTEST_SKIP() << "the write ended before it could be caught";
    kill(b.pid, SIGINT);
    const int st = b.Wait();
    ASSERT_TRUE(WIFEXITED(st)) << "ended by signal " << WTERMSIG(st);
    EXPECT_EQ(WEXITSTATUS(st), 7);
    const std::string report = ReadFile(d / "r.jsonl");
    EXPECT_NE(
        report.find("\"input\": \"a_big.obj\", \"output\": \"out/a_big.ma\", \"status\": \"cancelled\", \"exit\": 7"),
        std::string::npos)
        << report;
    EXPECT_NE(report.find("\"input\": \"b_small.obj\", \"output\": \"out/b_small.ma\", \"status\": \"cancelled\""),
              std::string::npos)
        << report;
    EXPECT_TRUE(fs::is_empty(d / "out")); // no output, no temporary folder
    EXPECT_NE(ReadFile(d / "err").find("converted 0 of 2 files"), std::string::npos) << ReadFile(d / "err");
}

// A reader's temporary (a gzip world inflated before the parse) is not cut short by the
// thread's cancel: the reader reports the cancel itself, not a damaged archive.
TEST(CliCancel, AGzipWorldIsInflatedWholeWhileCancelled) {
    TempDir d;
    std::string world = "#VRML V2.0 utf8\n";
    while (world.size() < (3u << 20)) world += "Shape { geometry Box { size 1 2 3 } }\n";
    WriteFile(d / "w.wrl", world);
    ASSERT_EQ(std::system(("gzip -c " + Q((d / "w.wrl").string()) + " > " + Q((d / "w.wrl.gz").string())).c_str()), 0);
    std::atomic<bool> cancel{true};
    SetThreadCancelToken(&cancel);
    const bool ok = CMiniZip::ExtractGZip(CXStringW(Utf8ToWide((d / "w.wrl.gz").string())),
                                          CXStringW(Utf8ToWide((d / "out.wrl").string())));
    const bool stillCancelled = ShouldCancelThread(0);
    SetThreadCancelToken(nullptr);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(stillCancelled); // the token is back afterwards
    EXPECT_EQ(ReadFile(d / "out.wrl"), world);
}
