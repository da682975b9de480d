// CVrml97Io::ReadMemory: the same scene as a read from a file, gzip inflated in
// memory, and no file touched: Inline worlds and EXTERNPROTOs are not read.
#include <gtest/gtest.h>

#include <span>

#include "tests/vrml97/GzipTestUtil.h"
#include "tests/vrml97/import/ImportTestUtil.h"
#include "vrml/vrml97/Doc.h"

using namespace importtest;

namespace {

ReadResult ReadBytes(const std::string& bytes) {
    CFileIo io(CXStringW(L""));
    CVrml97Io parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    ReadResult r;
    r.scene.reset(parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, options));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    for (auto& l : options.GetLog()) r.log.push_back(l.text.str());
    return r;
}

const char* kBoxes = "DEF A Transform { translation 1 2 3 children Shape { geometry Box {} } }\n"
                     "Transform { children [ Shape { geometry Sphere {} } USE A ] }";

} // namespace

TEST(Vrml97ImportMemory, AWorldInMemoryGivesTheSceneItsFileGives) {
    ReadResult file = ReadWorld(World(kBoxes));
    ReadResult mem = ReadBytes(World(kBoxes));
    ASSERT_TRUE(file.scene);
    ASSERT_TRUE(mem.scene);
    const auto a = AllNodes(*file.scene), b = AllNodes(*mem.scene);
    ASSERT_EQ(a.size(), b.size());
    // Generated names carry the process-wide counter, which the second read continues.
    auto shape = [](std::string n) {
        std::erase_if(n, [](char c) { return c >= '0' && c <= '9'; });
        return n;
    };
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(shape(Name(a[i])), shape(Name(b[i])));
        EXPECT_EQ(a[i]->GetKindOf(), b[i]->GetKindOf());
    }
    EXPECT_EQ(mem.scene->GetUnit(), 5);

    ReadResult zipped = ReadBytes(Gzip(World(kBoxes)));
    ASSERT_TRUE(zipped.scene);
    EXPECT_EQ(AllNodes(*zipped.scene).size(), a.size());

    // The outcome codes are the file's: nothing importable, a damaged gzip stream.
    EXPECT_EQ(ReadBytes(World("WorldInfo {}")).error, -10);
    std::string cut = Gzip(World(kBoxes));
    cut.resize(cut.size() / 2);
    ReadResult damaged = ReadBytes(cut);
    EXPECT_FALSE(damaged.scene);
    EXPECT_EQ(damaged.error, -3);
    EXPECT_EQ(damaged.level, 4);
}

TEST(Vrml97ImportMemory, NoFileIsReadForAWorldInMemory) {
    // Both would resolve against the working folder; put a world there that would be found.
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "inner.wrl", World("Shape { geometry Box {} }"));
    testsupport::WriteFile(dir / "proto.wrl", World("PROTO P [] { Shape { geometry Cone {} } }"));
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    ReadResult r = ReadBytes(World("Inline { url \"inner.wrl\" }\n"
                                   "EXTERNPROTO P [] \"proto.wrl#P\"\nP {}\nShape { geometry Sphere {} }"));
    ReadResult viaFile = ReadPath(dir / "inner.wrl");
    std::filesystem::current_path(cwd);
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 1u); // the sphere only
    EXPECT_TRUE(r.LogHas(L"Inline worlds were not read: the world was read from memory."));
    EXPECT_TRUE(Doc::fileAccess()); // switched back on after the read
    EXPECT_TRUE(viaFile.scene);
}
