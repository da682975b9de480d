// Path helpers, temporary files and folders, GetUniqueName.
#include "plugin/host/FileHelpers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <thread>

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
