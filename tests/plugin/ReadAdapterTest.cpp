// The read boundary: what every reader gets from it (locale, open file or memory,
// result codes for failures before and around the format code), and that the readers
// give the same answer for a file and for its bytes in memory.
#include <gtest/gtest.h>

#include <clocale>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "plugin/FormatTable.h"
#include "plugin/ParserFactory.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Parser.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/Scene.h"
#include "tests/host/CommaLocale.h"
#include "tests/support/TestSupport.h"

namespace {
class BareParser : public C3DParser {
public:
    using C3DParser::C3DParser;
};

std::span<const uint8_t> Bytes(const std::string& s) { return {reinterpret_cast<const uint8_t*>(s.data()), s.size()}; }
std::string Text(std::span<const uint8_t> d) { return {reinterpret_cast<const char*>(d.data()), d.size()}; }
CXStringW W(const std::filesystem::path& p) { return CXStringW(Utf8ToWide(p.string())); }
} // namespace

TEST(ReadAdapter, NumberLocaleIsCForTheWholeBodyAndRestoredAfter) {
    testsupport::CommaLocaleScope comma;
    if (!comma.ok()) GTEST_SKIP() << "no comma-decimal locale available";
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "a.bin", "abc");
    CFileIo io;
    BareParser parser(io);
    CSceneImportOptions options;
    std::string seen;
    auto body = [&](std::span<const uint8_t>, CReadContext&) -> C3DScene* {
        seen += std::localeconv()->decimal_point;
        return nullptr;
    };
    ReadThroughFile(parser, W(dir / "a.bin"), options, body);
    ReadThroughMemory(parser, Bytes("abc"), options, body);
    ReadThroughPath(parser, W(dir / "a.bin"), options, body);
    EXPECT_EQ(seen, "...");
    EXPECT_EQ(std::string(std::localeconv()->decimal_point), ",");
}

TEST(ReadAdapter, FileAndMemoryReachTheBodyAlike) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "a.bin", std::string("x\0y", 3));
    CFileIo io;
    BareParser parser(io);
    CSceneImportOptions options;
    int calls = 0;
    const CXStringW path = W(dir / "a.bin");
    ReadThroughFile(parser, path, options, [&](std::span<const uint8_t> d, CReadContext& ctx) -> C3DScene* {
        ++calls;
        EXPECT_EQ(Text(d), std::string("x\0y", 3));
        EXPECT_FALSE(ctx.FromMemory());
        EXPECT_EQ(ctx.Path(), path);
        EXPECT_EQ(&ctx.Options(), &options);
        EXPECT_EQ(&ctx.FileIo(), &io);
        EXPECT_TRUE(ctx.File() && ctx.File()->IsOpen());
        return nullptr;
    });
    const std::string bytes = "memory";
    ReadThroughMemory(parser, Bytes(bytes), options, [&](std::span<const uint8_t> d, CReadContext& ctx) -> C3DScene* {
        ++calls;
        EXPECT_EQ(d.data(), reinterpret_cast<const uint8_t*>(bytes.data())); // no copy
        EXPECT_EQ(d.size(), bytes.size());
        EXPECT_TRUE(ctx.FromMemory());
        EXPECT_TRUE(ctx.Path().IsEmpty());
        EXPECT_TRUE(ctx.File() && ctx.File()->GetData().data() == d.data());
        return nullptr;
    });
    ReadThroughPath(parser, path, options, [&](std::span<const uint8_t> d, CReadContext& ctx) -> C3DScene* {
        ++calls;
        EXPECT_TRUE(d.empty());
        EXPECT_EQ(ctx.File(), nullptr);
        EXPECT_EQ(ctx.Path(), path);
        return nullptr;
    });
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(io.GetIoError(), 0); // the adapter reports nothing of its own on success
}

TEST(ReadAdapter, FailuresBeforeAndAroundTheFormatCodeGetTheirCodes) {
    testsupport::TempDir dir;
    CSceneImportOptions options;
    bool called = false;
    auto body = [&](std::span<const uint8_t>, CReadContext&) -> C3DScene* {
        called = true;
        return nullptr;
    };
    for (const auto& p : {dir / "missing.bin", dir.path()}) { // a directory is not a file
        CFileIo io;
        BareParser parser(io);
        EXPECT_EQ(ReadThroughFile(parser, W(p), options, body), nullptr);
        EXPECT_EQ(io.GetIoError(), IO_ERR_OPEN);
        EXPECT_EQ(io.GetIoErrorLevel(), LOG_ERROR);
    }
    EXPECT_FALSE(called);
    for (int kind = 0; kind < 2; ++kind) {
        CFileIo io;
        BareParser parser(io);
        auto throws = [&](std::span<const uint8_t>, CReadContext&) -> C3DScene* {
            if (kind == 0) throw std::bad_alloc();
            throw std::runtime_error("disk gone");
        };
        C3DScene* s = nullptr;
        EXPECT_NO_THROW(s = ReadThroughMemory(parser, Bytes("x"), options, throws));
        EXPECT_EQ(s, nullptr);
        EXPECT_EQ(io.GetIoError(), IO_ERR_FORMAT);
        EXPECT_EQ(io.GetIoErrorLevel(), LOG_ERROR);
    }
    CFileIo io;
    BareParser parser(io);
    ReadThroughMemory(parser, Bytes("x"), options,
                      [](std::span<const uint8_t>, CReadContext& ctx) { return ctx.Fail(IO_ERR_EMPTY, LOG_INFO); });
    EXPECT_EQ(io.GetIoError(), IO_ERR_EMPTY);
    EXPECT_EQ(io.GetIoErrorLevel(), LOG_INFO);
}

// Read(path) and the registry's memory read agree on real files: same outcome, same
// result code, same number of nodes.
TEST(ReadAdapter, ReadersGiveTheSameSceneFromAFileAndFromItsBytes) {
    SKIP_WITHOUT_CORPUS();
    struct Case {
        const char* folder;
        const char* ext;
        uint32_t id;
    };
    const Case cases[] = {{"3ds", "", FourCC("3DST")}, {"stl", "", FourCC("STL ")}, {"obj", ".obj", FourCC("WAVF")}};
    int files = 0;
    for (const Case& c : cases) {
        for (const auto& path : testsupport::CorpusFiles(c.folder, c.ext)) {
            SCOPED_TRACE(path.string());
            const std::string bytes = testsupport::ReadFile(path);
            CFileIo fio(W(path));
            bool known = false;
            std::unique_ptr<C3DParser, void (*)(C3DParser*)> parser(
                CreateParserForType(c.id, fio, known), [](C3DParser* p) { p->ReleaseParser(false, nullptr); });
            ASSERT_TRUE(parser);
            CSceneImportOptions fopt;
            parser->LoadDefaultOptions(fopt);
            std::unique_ptr<C3DScene> fromFile(parser->Read(W(path), fopt));
            CFileIo mio;
            CSceneImportOptions mopt;
            std::unique_ptr<C3DScene> fromMemory(ReadFormatFromMemory(c.id, mio, Bytes(bytes), mopt));
            EXPECT_EQ(fio.GetIoError(), mio.GetIoError());
            ASSERT_EQ(fromFile != nullptr, fromMemory != nullptr);
            if (fromFile && c.id != FourCC("WAVF")) { // OBJ from memory has no material libraries
                EXPECT_EQ(fromFile->GetNodeCount(), fromMemory->GetNodeCount());
                EXPECT_EQ(fromFile->GetMaterialNumber(), fromMemory->GetMaterialNumber());
            }
            ++files;
        }
    }
    EXPECT_GT(files, 20);
}
