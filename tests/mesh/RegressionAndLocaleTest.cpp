// Replays every file under tests/regressions/mesh through the readers (inputs that
// once crashed or hung a reader, or were built to attack it), and runs a reader and
// a writer under a comma-decimal locale.
#include <gtest/gtest.h>

#include "tests/host/CommaLocale.h"
#include "tests/mesh/MeshTestUtil.h"

using namespace meshtest;

TEST(MeshRegressions, EveryFileReadsOrFailsWithItsCode) {
    const auto dir = testsupport::SourceDir() / "tests" / "regressions" / "mesh";
    ASSERT_TRUE(std::filesystem::is_directory(dir));
    int files = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (!e.is_regular_file() || e.path().extension() == ".md") continue;
        ++files;
        const std::string bytes = testsupport::ReadFile(e.path());
        const std::string name = e.path().filename().string();
        // Both readers take every file; the OBJ fuzzer's MTL separator is honoured.
        {
            CFileIo io;
            CStlIo stl(io);
            CSceneImportOptions opts;
            std::unique_ptr<C3DScene> s(
                stl.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, opts));
            if (!s) { EXPECT_EQ(io.GetIoError(), IO_ERR_FORMAT) << name; }
        }
        {
            const std::string sep = "\n@@MTL@@\n";
            const size_t p = bytes.find(sep);
            const std::string obj = bytes.substr(0, p),
                              mtl = p == std::string::npos ? "" : bytes.substr(p + sep.size());
            CFileIo io;
            CWavefrontIo reader(io);
            CSceneImportOptions opts;
            std::unique_ptr<C3DScene> s(reader.ReadMemory({reinterpret_cast<const uint8_t*>(obj.data()), obj.size()},
                                                          {reinterpret_cast<const uint8_t*>(mtl.data()), mtl.size()},
                                                          opts));
            if (!s) { EXPECT_EQ(io.GetIoError(), IO_ERR_EMPTY) << name; }
        }
    }
    EXPECT_GT(files, 0);
}

TEST(MeshLocale, CommaDecimalLocaleChangesNothing) {
    testsupport::CommaLocaleScope comma;
    if (!comma.ok()) GTEST_SKIP() << "no comma-decimal locale available";
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "a.obj", "v 0.5 1.25 -2.5e1\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    auto r = ReadPath<CWavefrontIo>(dir / "a.obj");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(FirstMesh(*r.scene)->GetPointList()->GetPoint(0).y, 1.25f);
    EXPECT_EQ(FirstMesh(*r.scene)->GetPointList()->GetPoint(0).z, -25.0f);
    ASSERT_TRUE(SaveScene<CMayaAsciiIo>(r.scene.get(), dir / "a.ma"));
    EXPECT_NE(testsupport::ReadFile(dir / "a.ma").find("\t\t0.500000 1.250000 -25.000000 \n"), std::string::npos);
    ASSERT_TRUE(SaveScene<CWavefrontIo>(r.scene.get(), dir / "b.obj"));
    EXPECT_NE(testsupport::ReadFile(dir / "b.obj").find("v 0.500000 1.250000 -25.000000\n"), std::string::npos);
}
