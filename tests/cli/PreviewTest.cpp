// orbiscope preview and thumbnails, run as a user runs them.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "plugin/host/Image.h"
#include "tests/cli/CliRunner.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

using namespace clitest;

namespace {
fs::path House() { return testsupport::SourceDir() / "examples" / "house.obj"; }

// Pixels that differ from the picture's top-left corner (the background).
int Drawn(const CImage& img) {
    int n = 0;
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) n += std::memcmp(img.Pixel(x, y), img.Pixel(0, 0), 3) != 0;
    return n;
}

// `orbiscope ARGS` in the background, ended by SIGKILL when the test leaves early.
struct Background {
    pid_t pid = -1;
    int status = 0;
    bool ended = false;
    explicit Background(const std::vector<std::string>& args, const fs::path& io) {
        const std::string bin = Binary();
        const std::string out = (io / "out").string(), err = (io / "err").string();
        pid = fork();
        if (pid != 0) return;
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int n = open("/dev/null", O_RDONLY);
        if (o < 0 || e < 0 || n < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0 || dup2(n, 0) < 0) _exit(126);
        std::vector<char*> argv{const_cast<char*>(bin.c_str())};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    ~Background() {
        if (!ended && pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    }
    // Waits up to `seconds`; false when it is still running then.
    bool Wait(int seconds) {
        for (int i = 0; !ended && i < seconds * 100; ++i) {
            if (waitpid(pid, &status, WNOHANG) == pid) ended = true;
            else usleep(10000);
        }
        return ended;
    }
};

// A live (not yet reaped, not zombie) child process of `parent`, or -1.
pid_t ChildOf(pid_t parent) {
    for (auto& e : fs::directory_iterator("/proc")) {
        const std::string name = e.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const std::string stat = ReadFile(e.path() / "stat");
        const size_t close = stat.rfind(')');
        if (close == std::string::npos || close + 4 >= stat.size()) continue;
        char state = 0;
        long ppid = 0;
        if (std::sscanf(stat.c_str() + close + 1, " %c %ld", &state, &ppid) == 2 && ppid == parent && state != 'Z')
            return static_cast<pid_t>(std::stol(name));
    }
    return -1;
}

const char* kQuadObj = "mtllib quad.mtl\nv -1 -1 0\nv 1 -1 0\nv 1 1 0\nv -1 1 0\n"
                       "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nusemtl m\nf 1/1 2/2 3/3 4/4\n";
} // namespace

TEST(Preview, DrawsAFileIntoAPictureOfTheAskedSize) {
    TempDir d;
    CliRun r =
        Orbiscope("preview " + Quote(House().string()) + " -o " + Quote((d / "house.png").string()) + " --size 96");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("house.png: 96x96"), std::string::npos) << r.out;
    CImage img;
    ASSERT_EQ(LoadImageFile((d / "house.png").string(), img), ImageResult::Ok);
    EXPECT_EQ(img.width, 96);
    EXPECT_GT(Drawn(img), 96 * 96 / 10);

    r = Orbiscope("preview " + Quote(House().string()) + " -o " + Quote((d / "wide.png").string()) +
                  " --width 120 --height 60 --view top --background 203040 --no-grid --aa 1 --shading flat");
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(LoadImageFile((d / "wide.png").string(), img), ImageResult::Ok);
    EXPECT_EQ(img.width, 120);
    EXPECT_EQ(img.height, 60);
    EXPECT_EQ(img.Pixel(0, 0)[0], 0x20);
    EXPECT_EQ(img.Pixel(0, 0)[2], 0x40);
}

TEST(Preview, ZUpFormatsStandOnTheirXYPlane) {
    // A DXF face in the XY plane: seen from the top it fills the picture, unless Y is taken as up.
    TempDir d;
    std::string dxf = "0\nSECTION\n2\nENTITIES\n0\n3DFACE\n8\n0\n";
    const char* corners = "10\n0\n20\n0\n30\n0\n11\n1\n21\n0\n31\n0\n12\n1\n22\n1\n32\n0\n13\n0\n23\n1\n33\n0\n";
    dxf += corners;
    dxf += "0\nENDSEC\n0\nEOF\n";
    WriteFile(d / "face.dxf", dxf);
    const std::string base = "preview " + Quote((d / "face.dxf").string()) + " -o " + Quote((d / "f.png").string()) +
                             " --size 64 --view top --no-grid";
    CliRun r = Orbiscope(base);
    ASSERT_EQ(r.status, 0) << r.err;
    CImage img;
    ASSERT_EQ(LoadImageFile((d / "f.png").string(), img), ImageResult::Ok);
    EXPECT_GT(Drawn(img), 64 * 64 / 2);
    r = Orbiscope(base + " --up y");
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(LoadImageFile((d / "f.png").string(), img), ImageResult::Ok);
    EXPECT_LT(Drawn(img), 64 * 64 / 8);
}

TEST(Preview, UsageAndFileErrorsLeaveNoPicture) {
    TempDir d;
    const std::string out = " -o " + Quote((d / "x.png").string());
    struct Case {
        std::string args;
        int status;
        const char* says;
    } cases[] = {
        {"preview " + Quote(House().string()) + out + " --view sideways", 2, "--view takes"},
        {"preview " + Quote(House().string()) + out + " --size 0", 2, "--size takes"},
        {"preview " + Quote(House().string()) + out + " --background red", 2, "--background takes"},
        {"preview " + Quote(House().string()) + out + " --bogus", 2, "unknown option"},
        {"preview" + out, 2, "needs a file"},
        {"preview " + Quote((d / "nothere.obj").string()) + out, 3, "cannot open"},
        {"preview " + Quote(House().string()) + " -o " + Quote((d / "no" / "x.png").string()), 9, "does not exist"},
    };
    for (const Case& c : cases) {
        CliRun r = Orbiscope(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(Lines(r.err), 1) << r.err;
        EXPECT_FALSE(fs::exists(d / "x.png"));
    }
}

TEST(Preview, ASceneWithNothingToDrawSaysSoAndMakesNoPicture) {
    TempDir d;
    WriteFile(d / "view.wrl", "#VRML V2.0 utf8\nViewpoint { position 0 0 10 }\nPointLight { }\n");
    CliRun r = Orbiscope("preview " + Quote((d / "view.wrl").string()) + " -o " + Quote((d / "v.png").string()));
    EXPECT_EQ(r.status, 5) << r.err;
    EXPECT_NE(r.err.find("nothing to draw"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(d / "v.png"));
}

TEST(Preview, AMissingTextureIsNamedAndTheDiffuseColourDrawn) {
    TempDir d;
    WriteFile(d / "quad.obj", kQuadObj);
    WriteFile(d / "quad.mtl", "newmtl m\nKd 0.2 0.8 0.2\nmap_Kd skin.png\n");
    const std::string args = "preview " + Quote((d / "quad.obj").string()) + " -o " + Quote((d / "q.png").string()) +
                             " --size 64 --view front --no-grid";
    CliRun r = Orbiscope(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("\"skin.png\""), std::string::npos) << r.err;
    CImage img;
    ASSERT_EQ(LoadImageFile((d / "q.png").string(), img), ImageResult::Ok);
    const uint8_t* c = img.Pixel(32, 32);
    EXPECT_GT(c[1], 120);
    EXPECT_LT(c[0], 80);

    // With the texture beside the file it is drawn instead, and nothing is said.
    CImage red;
    red.Resize(4, 4, 0xFF0000FF);
    ASSERT_TRUE(SavePng((d / "skin.png").string(), red));
    r = Orbiscope(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(LoadImageFile((d / "q.png").string(), img), ImageResult::Ok);
    EXPECT_GT(img.Pixel(32, 32)[0], 150);
    EXPECT_LT(img.Pixel(32, 32)[1], 40);
}

TEST(Preview, ThumbnailsOfAFolderWithReportAndContactSheet) {
    TempDir in, out;
    fs::copy_file(House(), in / "house.obj");
    fs::copy_file(House().parent_path() / "house.mtl", in / "house.mtl");
    fs::create_directories(in / "sub dir");
    WriteFile(in / "sub dir" / "quad.obj", kQuadObj);
    WriteFile(in / "bad.3ds", "this is not a 3D Studio file at all");
    WriteFile(in / "notes.txt", "not a model");
    // Sources well in the past, so pictures made now are newer.
    const auto past = fs::file_time_type::clock::now() - std::chrono::hours(24);
    for (const char* f : {"house.obj", "bad.3ds"}) fs::last_write_time(in / f, past);
    fs::last_write_time(in / "sub dir" / "quad.obj", past);

    const std::string args =
        "thumbnails " + Quote(in.path().string()) + " --out " + Quote(out.path().string()) + " -j 2 --size 48";
    CliRun r = Orbiscope(args);
    EXPECT_EQ(r.status, 4) << r.err; // one file had no picture
    EXPECT_NE(r.out.find("3 files: 2 pictures made, 0 up to date, 1 without a picture"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("bad.3ds"), std::string::npos) << r.err;
    CImage img;
    ASSERT_EQ(LoadImageFile((out / "house.obj.png").string(), img), ImageResult::Ok);
    EXPECT_EQ(img.width, 48);
    EXPECT_GT(Drawn(img), 100);
    ASSERT_EQ(LoadImageFile((out / "sub dir" / "quad.obj.png").string(), img), ImageResult::Ok);
    EXPECT_FALSE(fs::exists(out / "bad.3ds.png"));
    EXPECT_FALSE(fs::exists(out / "notes.txt.png"));

    const std::string report = ReadFile(out / "report.jsonl");
    EXPECT_EQ(Lines(report), 3) << report;
    EXPECT_NE(report.find("\"status\": \"failed\""), std::string::npos);
    EXPECT_NE(report.find("\"format\": \"Wavefront files\""), std::string::npos);
    const std::string html = ReadFile(out / "index.html");
    EXPECT_NE(html.find("<img src=\"house.obj.png\""), std::string::npos);
    EXPECT_NE(html.find("<img src=\"sub%20dir/quad.obj.png\""), std::string::npos);
    EXPECT_NE(html.find("Wavefront files"), std::string::npos);
    EXPECT_NE(html.find("bad.3ds"), std::string::npos);
    EXPECT_NE(html.find("2 pictures, 1 files without a picture"), std::string::npos);
    // No temporary folders or files stay behind.
    for (auto& e : fs::recursive_directory_iterator(out.path()))
        EXPECT_NE(e.path().filename().string().rfind(".", 0), 0u) << e.path();

    // A second run remakes nothing that is up to date; a changed source is drawn again.
    r = Orbiscope(args);
    EXPECT_NE(r.out.find("3 files: 0 pictures made, 2 up to date, 1 without a picture"), std::string::npos) << r.out;
    EXPECT_EQ(Lines(ReadFile(out / "report.jsonl")), 3);
    EXPECT_NE(ReadFile(out / "index.html").find("<img src=\"house.obj.png\""), std::string::npos);
    fs::last_write_time(in / "house.obj", fs::file_time_type::clock::now() + std::chrono::hours(1));
    r = Orbiscope(args);
    EXPECT_NE(r.out.find("3 files: 1 pictures made, 1 up to date, 1 without a picture"), std::string::npos) << r.out;
}

TEST(Preview, ThumbnailsUsage) {
    TempDir d;
    EXPECT_EQ(Orbiscope("thumbnails " + Quote(d.path().string())).status, 2);
    EXPECT_EQ(Orbiscope("thumbnails " + Quote((d / "none").string()) + " --out " + Quote((d / "o").string())).status,
              3);
    EXPECT_EQ(
        Orbiscope("thumbnails " + Quote(d.path().string()) + " --out " + Quote((d / "o").string()) + " -j 0").status,
        2);
    CliRun r = Orbiscope("thumbnails " + Quote(d.path().string()) + " --out " + Quote((d / "o").string()));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(fs::exists(d / "o" / "index.html"));
}

// An OBJ whose material library is a pipe nobody writes to: its reader waits on it for
// ever. The workers are forked copies of the command, not fresh programs, so they must
// still take signals and be stopped like one; either way only that file goes without a
// picture.
TEST(Preview, AWorkerThatHangsOrIsKilledCostsItsOwnFileOnly) {
    TempDir in;
    fs::copy_file(House(), in / "house.obj");
    fs::copy_file(House().parent_path() / "house.mtl", in / "house.mtl");
    WriteFile(in / "a_stuck.obj", "mtllib a_stuck.mtl\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    ASSERT_EQ(mkfifo((in / "a_stuck.mtl").c_str(), 0600), 0);
    // Whatever happens, a worker left waiting gets its end of file.
    struct Release {
        fs::path fifo;
        ~Release() {
            const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) close(fd);
        }
    } release{in / "a_stuck.mtl"};
    auto thumbnails = [&](const fs::path& out, const std::string& timeout) {
        return std::vector<std::string>{"thumbnails", in.path().string(), "--out", out.string(), "-j",
                                        "1",          "--timeout",        timeout, "--size",     "32"};
    };
    auto expectHouseOnly = [](const fs::path& out, const std::string& message) {
        const std::string report = ReadFile(out / "report.jsonl");
        EXPECT_EQ(Lines(report), 2) << report;
        EXPECT_NE(report.find("\"status\": \"failed\""), std::string::npos) << report;
        EXPECT_NE(report.find(message), std::string::npos) << report;
        EXPECT_NE(report.find("\"format\": \"Wavefront files\""), std::string::npos) << report;
        CImage img;
        EXPECT_EQ(LoadImageFile((out / "house.obj.png").string(), img), ImageResult::Ok);
        EXPECT_FALSE(fs::exists(out / "a_stuck.obj.png"));
        EXPECT_NE(ReadFile(out / "index.html").find("<img src=\"house.obj.png\""), std::string::npos);
    };

    // Killed from outside (-j 1: the stuck file comes first, so the only worker is its own).
    {
        TempDir out, io;
        Background run(thumbnails(out.path(), "600"), io.path());
        pid_t worker = -1;
        for (int i = 0; i < 3000 && worker < 0 && !run.ended; ++i) {
            worker = ChildOf(run.pid);
            if (worker < 0) usleep(10000);
        }
        ASSERT_GT(worker, 0) << "no worker was seen";
        kill(worker, SIGTERM);
        ASSERT_TRUE(run.Wait(30)) << "the worker did not end on SIGTERM";
        ASSERT_TRUE(WIFEXITED(run.status));
        EXPECT_EQ(WEXITSTATUS(run.status), 4) << ReadFile(io / "err");
        expectHouseOnly(out.path(), "the reader crashed (signal " + std::to_string(SIGTERM) + ")");
    }
    // Stopped by the timeout.
    {
        TempDir out, io;
        Background run(thumbnails(out.path(), "1"), io.path());
        ASSERT_TRUE(run.Wait(30)) << "the timeout did not stop the worker";
        ASSERT_TRUE(WIFEXITED(run.status));
        EXPECT_EQ(WEXITSTATUS(run.status), 4) << ReadFile(io / "err");
        expectHouseOnly(out.path(), "took longer than 1 s and was stopped");
    }
}
