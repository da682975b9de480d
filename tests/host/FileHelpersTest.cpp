// Path helpers, temporary files and folders, GetUniqueName.
#include "plugin/host/FileHelpers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/TestSupport.h"

namespace {
CXStringW W(const std::filesystem::path& p) { return CXStringW(Utf8ToWide(p.string())); }
std::wstring S(const CXStringW& s) { return s.str(); }
} // namespace

TEST(FileHelpers, PathParts) {
    EXPECT_EQ(L"c.obj", S(fileStripPath(L"a/b/c.obj")));
    EXPECT_EQ(L"c.obj", S(fileStripPath(L"C:\\models\\c.obj"))); // names from Windows files
    EXPECT_EQ(L"c.obj", S(fileStripPath(L"c.obj")));
    EXPECT_EQ(L"a/b/", S(fileStripName(L"a/b/c.obj")));
    EXPECT_EQ(L"", S(fileStripName(L"c.obj")));
    EXPECT_EQ(L"a.b/c", S(fileRemoveExtension(L"a.b/c")));
    EXPECT_EQ(L"a/c.tar", S(fileRemoveExtension(L"a/c.tar.gz")));
    EXPECT_EQ(L"dir/.hidden", S(fileRemoveExtension(L"dir/.hidden")));
    EXPECT_EQ(L".gz", S(fileGetExtension(L"a/c.tar.gz")));
    EXPECT_EQ(L"", S(fileGetExtension(L"a.d/c")));
    EXPECT_EQ(L"", S(fileGetExtension(L".profile")));
    CFileNameSpec parts(L"/x/y/Model.3DS");
    EXPECT_EQ(L"Model.3DS", S(parts.GetName()));
    EXPECT_EQ(L"Model", S(parts.GetNameWithoutExt()));
    EXPECT_EQ(L".3DS", S(parts.GetExtension()));
    EXPECT_EQ(L"/x/y/", S(parts.GetParentDirectory()));
    EXPECT_EQ(L"/", S(parts.GetRoot()));
    EXPECT_TRUE(fileIsPathRelative(L"a/b"));
    EXPECT_TRUE(fileIsPathRelative(L""));
    EXPECT_FALSE(fileIsPathRelative(L"/a"));
}

TEST(FileHelpers, MakeAbsolutePath) {
    EXPECT_EQ(L"/m/tex/wood.jpg", S(fileMakeAbsolutePath(L"/m/models/", L"../tex/./wood.jpg")));
    EXPECT_EQ(L"/m/models/tex/a.png", S(fileMakeAbsolutePath(L"/m/models", L"tex\\a.png")));
    EXPECT_EQ(L"/abs/x", S(fileMakeAbsolutePath(L"/m", L"/abs//x")));
    EXPECT_EQ(L"/a", S(fileMakeAbsolutePath(L"/", L"../../a"))); // never above the root
    std::wstring cwd = Utf8ToWide(std::filesystem::current_path().string());
    EXPECT_EQ(cwd + L"/rel/f", S(fileMakeAbsolutePath(L"rel", L"f")));
}

TEST(FileHelpers, FilesAndFolders) {
    testsupport::TempDir dir;
    CXStringW base = W(dir.path());
    CXStringW f = base + L"/\u00e9t\u00e9 file.txt";
    EXPECT_FALSE(fileExists(f));
    testsupport::WriteFile(dir / "\xC3\xA9t\xC3\xA9 file.txt", "x");
    EXPECT_TRUE(fileExists(f));
    EXPECT_FALSE(fileIsDirectory(f));
    EXPECT_TRUE(fileIsDirectory(base));
    CXStringW g = base + L"/moved.txt";
    EXPECT_TRUE(fileRename(f, g));
    EXPECT_FALSE(fileExists(f));
    EXPECT_EQ("x", testsupport::ReadFile(dir / "moved.txt"));
    EXPECT_FALSE(fileRename(f, g));
    EXPECT_TRUE(fileDelete(g));
    EXPECT_FALSE(fileDelete(g));
    EXPECT_FALSE(fileDelete(L""));

    // Temporary names: created empty, distinct, with the prefix and extension asked for.
    std::set<std::wstring> names;
    for (int i = 0; i < 50; ++i) {
        CXStringW t = fileCreateTmpName(base, L"tvl", L".wrl");
        ASSERT_FALSE(t.IsEmpty());
        EXPECT_TRUE(fileExists(t));
        EXPECT_EQ(0, fileStripPath(t).Find(L"tvl"));
        EXPECT_EQ(L".wrl", S(fileGetExtension(t)));
        EXPECT_TRUE(names.insert(t.str()).second);
    }
    EXPECT_TRUE(fileCreateTmpName(base + L"/missing", L"x").IsEmpty());
    CXStringW sys = fileCreateTmpName(L"", L"orbiscope-test-");
    ASSERT_FALSE(sys.IsEmpty());
    EXPECT_EQ(0, sys.Find(fileGetTempDirectory()));
    EXPECT_TRUE(fileDelete(sys));

    CXStringW folder = fileCreateTmpFolder(base, L"kmz");
    ASSERT_TRUE(fileIsDirectory(folder));
    struct stat st;
    ASSERT_EQ(0, stat(PathToUtf8(folder).c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777u); // private to the user
    testsupport::WriteFile(std::filesystem::path(PathToUtf8(folder)) / "a" / ".." / "f", "1");
    std::filesystem::create_directories(std::filesystem::path(PathToUtf8(folder)) / "sub" / "deeper");
    testsupport::WriteFile(std::filesystem::path(PathToUtf8(folder)) / "sub" / "deeper" / "g", "2");
    // A link inside the folder is removed as a link; what it points at survives.
    testsupport::WriteFile(dir / "outside", "keep");
    std::filesystem::create_symlink(dir.path(), std::filesystem::path(PathToUtf8(folder)) / "link");
    EXPECT_TRUE(fileRemoveDirectory(folder));
    EXPECT_FALSE(fileExists(folder));
    EXPECT_EQ("keep", testsupport::ReadFile(dir / "outside"));
    EXPECT_FALSE(fileRemoveDirectory(folder));
    EXPECT_FALSE(fileRemoveDirectory(base + L"/outside"));
}

TEST(FileHelpers, TempNamesAreRaceFree) {
    testsupport::TempDir dir;
    CXStringW base = W(dir.path());
    std::vector<std::vector<std::wstring>> got(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) got[t].push_back(fileCreateTmpName(base, L"r").str());
        });
    for (auto& th : threads) th.join();
    std::set<std::wstring> all;
    for (auto& v : got)
        for (auto& n : v) {
            EXPECT_FALSE(n.empty());
            all.insert(n);
        }
    EXPECT_EQ(800u, all.size());
}

TEST(FileHelpers, UniqueNames) {
    CHashTable<CXStringW> taken(23);
    EXPECT_EQ(L"Box", S(GetUniqueName(taken, L"Box")));
    EXPECT_EQ(L"Box1", S(GetUniqueName(taken, L"Box")));
    EXPECT_EQ(L"Box2", S(GetUniqueName(taken, L"Box")));
    taken.Add(L"Box3");
    EXPECT_EQ(L"Box4", S(GetUniqueName(taken, L"Box")));
    EXPECT_EQ(5, taken.GetCount());
    // A width limit cuts the base so base + number fits.
    CHashTable<CXStringW> t2(23);
    EXPECT_EQ(L"Cyli", S(GetUniqueName(t2, L"Cylinder", 4)));
    EXPECT_EQ(L"Cyl1", S(GetUniqueName(t2, L"Cylinder", 4)));
    for (int i = 2; i < 10; ++i) GetUniqueName(t2, L"Cylinder", 4);
    EXPECT_EQ(L"Cy10", S(GetUniqueName(t2, L"Cylinder", 4)));
    EXPECT_EQ(L"", S(GetUniqueName(t2, L"")));
    EXPECT_EQ(L"1", S(GetUniqueName(t2, L"")));
}

namespace {
// Runs `make` in a child process, which reports the names it returns and then either ends
// at once without cleaning up (a process killed outright) or, with `stay`, waits to be
// killed. Returns the child's pid and the names.
pid_t ChildMaking(bool stay, const std::function<std::vector<CXStringW>()>& make, std::vector<std::string>& names) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::string text;
        for (const auto& n : make()) text += PathToUtf8(n) + "\n";
        if (write(fds[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(2);
        close(fds[1]);
        if (stay) pause();
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    names.clear();
    for (size_t a = 0, b; (b = text.find('\n', a)) != std::string::npos; a = b + 1)
        names.push_back(text.substr(a, b - a));
    return pid;
}
} // namespace

// Names left by a process that is gone are removed by the next one that makes a name of
// the same kind in that folder; those of a live process and the user's own files stay.
TEST(FileHelpers, LeftoversOfDeadProcessesAreRemovedByTheNextRun) {
    testsupport::TempDir dir;
    const CXStringW base = W(dir.path());
    auto make = [&] {
        std::vector<CXStringW> v{fileCreateTmpName(base, L"~w", L".wrl"), fileCreateTmpFolder(base, L".o-")};
        testsupport::WriteFile(std::filesystem::path(PathToUtf8(v[1])) / "partial.stl", "solid");
        return v;
    };
    // The live one first: making its names would sweep the dead one's.
    std::vector<std::string> dead, live;
    pid_t l = ChildMaking(true, make, live);
    ASSERT_GT(l, 0);
    pid_t d = ChildMaking(false, make, dead);
    ASSERT_GT(d, 0);
    int st = 0;
    waitpid(d, &st, 0);
    ASSERT_EQ(dead.size(), 2u);
    ASSERT_EQ(live.size(), 2u);
    for (const auto& n : dead) EXPECT_TRUE(std::filesystem::exists(n)) << n;
    // Names the user chose, some of them close to ours.
    const std::string own = PathToUtf8(fileStripPath(W(dead[0])));
    const std::vector<std::string> users = {"~w1.wrl", "~wp1h00000000-abcdef.wrl", own + ".bak", "~wx" + own.substr(2)};
    for (const auto& u : users) testsupport::WriteFile(dir / u, "mine");

    const CXStringW mine = fileCreateTmpName(base, L"~w", L".wrl");
    EXPECT_FALSE(std::filesystem::exists(dead[0]));
    EXPECT_TRUE(std::filesystem::exists(dead[1])); // folders are swept by folder creation
    const CXStringW folder = fileCreateTmpFolder(base, L".o-");
    EXPECT_FALSE(std::filesystem::exists(dead[1]));
    for (const auto& n : live) EXPECT_TRUE(std::filesystem::exists(n)) << n;
    for (const auto& u : users) EXPECT_EQ(testsupport::ReadFile(dir / u), "mine") << u;
    // Our own names are never taken for leftovers.
    EXPECT_TRUE(fileExists(fileCreateTmpName(base, L"~w", L".wrl")));
    EXPECT_TRUE(fileExists(mine));
    EXPECT_TRUE(fileIsDirectory(folder));
    kill(l, SIGKILL);
    waitpid(l, &st, 0);
    fileCreateTmpFolder(base, L".o-");
    EXPECT_FALSE(std::filesystem::exists(live[1]));
}

// What a process still holds is removed on request; what it deleted (or moved) is forgotten,
// so a file later made at that path by someone else survives.
TEST(FileHelpers, RemovesTheTemporariesOfThisProcessOnRequest) {
    testsupport::TempDir dir;
    const CXStringW base = W(dir.path());
    std::vector<std::string> names;
    pid_t pid = ChildMaking(
        false,
        [&] {
            CXStringW a = fileCreateTmpName(base, L"a", L".tmp"), b = fileCreateTmpName(base, L"b");
            CXStringW c = fileCreateTmpName(base, L"c"), f = fileCreateTmpFolder(base, L"f");
            testsupport::WriteFile(std::filesystem::path(PathToUtf8(f)) / "sub" / "x", "1");
            fileDelete(b);
            fileRename(c, base + L"/moved");
            testsupport::WriteFile(PathToUtf8(b), "someone else's");
            fileRemoveTmpOfThisProcess();
            return std::vector<CXStringW>{a, b, c, f};
        },
        names);
    ASSERT_GT(pid, 0);
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_EQ(names.size(), 4u);
    EXPECT_FALSE(std::filesystem::exists(names[0]));
    EXPECT_EQ(testsupport::ReadFile(names[1]), "someone else's");
    EXPECT_TRUE(std::filesystem::exists(dir / "moved"));
    EXPECT_FALSE(std::filesystem::exists(names[3]));
}
