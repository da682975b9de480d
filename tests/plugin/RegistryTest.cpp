// The format rows: what the probes say about real files, how a reader is guessed where
// two formats claim an extension, and that parser creation and memory reads cover
// every row.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <string>

#include "plugin/FormatTable.h"
#include "plugin/ParserFactory.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "tests/support/TestSupport.h"

namespace {
uint32_t Id(const char* s) { return FourCC(s[0], s[1], s[2], s[3]); }

std::span<const uint8_t> Bytes(const std::string& s) { return {reinterpret_cast<const uint8_t*>(s.data()), s.size()}; }

uint32_t Guess(const std::string& ext, const std::string& bytes) {
    const std::string head = bytes.substr(0, kProbeBytes);
    return GuessReader(ext, Bytes(head), bytes.size());
}

ProbeResult ProbeOf(const char* id, const std::string& bytes) {
    const FormatRow& row = kFormatTable[FindFormatIndex(Id(id))];
    return row.probe(Bytes(bytes.substr(0, kProbeBytes)), bytes.size());
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}
} // namespace

TEST(FormatRegistry, CorpusFilesRouteToTheirFormat) {
    SKIP_WITHOUT_CORPUS();
    struct Case {
        const char* folder;
        const char* ext;
        const char* id;
        bool signature; // the format's probe must say yes, not just maybe
    };
    const Case cases[] = {
        {"3ds", ".3ds", "3DST", true}, {"stl", ".stl", "STL ", true},  {"obj", ".obj", "WAVF", false},
        {"cob", ".cob", "TRUE", true}, {"dxf", ".dxf", "DXF4", true},  {"lwo", ".lwo", "LIGT", true},
        {"lws", ".lws", "LIGS", true}, {"lxo", ".lxo", "LXOI", true},  {"kmz", ".kmz", "KMZI", true},
        {"iv", ".iv", "VRML", true},   {"wrl1", ".wrl", "VRML", true}, {"wrl97", ".wrl", "VR97", true},
        {"wrl97", ".gz", "VR97", true}};
    int seen = 0;
    for (const Case& c : cases) {
        for (const auto& path : testsupport::CorpusFiles(c.folder)) {
            if (Lower(path.extension().string()) != c.ext) continue;
            const std::string bytes = testsupport::ReadFile(path);
            // ".wrl.gz" names its format by the inner extension, as the CLI does.
            const std::string ext = std::string(c.ext) == ".gz" ? ".wrl" : Lower(path.extension().string());
            SCOPED_TRACE(path.string());
            EXPECT_EQ(Guess(ext, bytes), Id(c.id));
            if (c.signature) { EXPECT_EQ(ProbeOf(c.id, bytes), ProbeResult::Yes); }
            ++seen;
        }
    }
    EXPECT_GT(seen, 80);
}

TEST(FormatRegistry, WrlHeaderLinePicksTheVrmlVersion) {
    EXPECT_EQ(Guess(".wrl", "#VRML Draft #2 V2.0 utf8\nShape {}\n"), FourCC("VR97"));
    EXPECT_EQ(Guess(".WRL", "#VRML V2.0 utf8\n"), FourCC("VR97"));
    EXPECT_EQ(Guess(".wrl", std::string("\x1F\x8B\x08\x00", 4)), FourCC("VR97")); // gzip
    EXPECT_EQ(Guess(".wrl", "#VRML V1.0 ascii\nSeparator {}\n"), FourCC("VRML"));
    EXPECT_EQ(Guess(".wrl", "#Inventor V2.1 ascii\n"), FourCC("VRML"));
    // No header it knows (or no file): the first record that claims ".wrl", as before.
    EXPECT_EQ(Guess(".wrl", ""), FourCC("VRML"));
    EXPECT_EQ(Guess(".wrl", "Shape {}\n"), FourCC("VRML"));
    // One claimant: the extension decides whatever the bytes say.
    EXPECT_EQ(Guess(".wrz", "#VRML V1.0 ascii\n"), FourCC("VR97"));
    EXPECT_EQ(Guess(".3ds", "not a 3ds file"), FourCC("3DST"));
    EXPECT_EQ(Guess(".lw", "LWSC\n"), FourCC("LIGT")); // whole extensions, not prefixes
    EXPECT_EQ(Guess(".LWS", ""), FourCC("LIGS"));
    EXPECT_EQ(Guess(".ply", "ply\n"), 0u); // only written
    EXPECT_EQ(Guess(".nope", "solid x\n"), 0u);
}

TEST(FormatRegistry, ProbesTellSignaturesApart) {
    std::string binary(84 + 2 * 50, '\0');
    binary[80] = 2;
    EXPECT_EQ(ProbeOf("STL ", binary), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("STL ", binary + "x"), ProbeResult::Maybe); // the count no longer accounts for the length
    EXPECT_EQ(ProbeOf("STL ", "  \n SOLID cube\n"), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("3DST", std::string("\x4D\x4D\x06\0\0\0", 6)), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("3DST", std::string("\x4D\x4D\x06", 3)), ProbeResult::No);
    EXPECT_EQ(ProbeOf("3DST", std::string("\x3D\x3D\x06\0\0\0", 6)), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("LXOI", std::string("FORM\0\0\0\x04LXOB", 12)), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("LIGT", std::string("FORM\0\0\0\x04LXOB", 12)), ProbeResult::No);
    EXPECT_EQ(ProbeOf("LIGT", std::string("FORM\0\0\0\x04LWOB", 12)), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("AMAP", "AMAP"), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("AMAP", "AMA"), ProbeResult::No);
    EXPECT_EQ(ProbeOf("DXF4", "999\nmade by hand\n  0\nSECTION\n"), ProbeResult::Yes);
    EXPECT_EQ(ProbeOf("DXF4", "0\nENTITIES\n"), ProbeResult::Maybe);
    EXPECT_EQ(ProbeOf("DXF4", "SECTION\n"), ProbeResult::No);
    EXPECT_EQ(ProbeOf("VR97", "#VRML V1.0 ascii\n"), ProbeResult::No);
    EXPECT_EQ(ProbeOf("VRML", "#VRML Draft #2 V2.0 utf8\n"), ProbeResult::No);
}

TEST(FormatRegistry, RowsMatchTheModuleAndEveryRowHasAParser) {
    for (const FormatRow& row : kFormatTable) {
        SCOPED_TRACE(row.description);
        // Read and write bits follow the providers; both host marks on every row.
        EXPECT_EQ(row.ReadProvider() == PROVIDER_PLUGIN, (row.flags & FORMAT_READ) != 0);
        EXPECT_EQ(row.WriteProvider() == PROVIDER_PLUGIN, (row.flags & FORMAT_WRITE) != 0);
        EXPECT_EQ(row.flags & FORMAT_EVERY_RECORD, uint32_t(FORMAT_EVERY_RECORD));
        EXPECT_EQ(row.probe != nullptr, row.CanRead());
        CFileIo io;
        bool known = false;
        C3DParser* p = CreateParserForType(row.typeID, io, known);
        EXPECT_TRUE(known);
        ASSERT_NE(p, nullptr);
        p->ReleaseParser(false, nullptr);
        // Every reader runs from memory; on no bytes it fails with a result code
        // (Amapi deliberately reports nothing for a file that is not its own).
        CFileIo mio;
        CSceneImportOptions options;
        std::unique_ptr<C3DScene> s(ReadFormatFromMemory(row.typeID, mio, {}, options));
        EXPECT_EQ(s, nullptr);
        if (row.CanRead() && row.typeID != FourCC("AMAP")) { EXPECT_NE(mio.GetIoError(), 0); }
    }
    bool known = true;
    CFileIo io;
    EXPECT_EQ(CreateParserForType(0x53544C00u, io, known), nullptr);
    EXPECT_FALSE(known);
}

TEST(FormatRegistry, CliReadsADraft2WorldAsVrml97) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "draft.wrl", "#VRML Draft #2 V2.0 utf8\nShape { geometry Box {} }\n");
    const std::string cmd = "'" + (testsupport::BinaryDir() / "bin" / "orbiscope").string() + "' -q info '" +
                            (dir / "draft.wrl").string() + "' >'" + (dir / "out").string() + "' 2>&1";
    const int rc = std::system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(rc));
    const std::string out = testsupport::ReadFile(dir / "out");
    EXPECT_EQ(WEXITSTATUS(rc), 0) << out;
    EXPECT_NE(out.find("VRML97"), std::string::npos) << out;
}
