#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <regex>
#include <string>

#include "LxoTestFiles.h"
#include "formats/lxo/LxoDump.h"
#include "tests/support/TestSupport.h"

using testsupport::TempDir;

namespace {
std::string DumpText(const std::string& lxo, bool verbose, uint32_t* result = nullptr) {
    TempDir tmp;
    const std::string out = (tmp / "dump.txt").string();
    uint32_t r;
    {
        LxoDump d(lxo.c_str(), out.c_str(), verbose);
        r = d.Read();
    }
    if (result) *result = r;
    return testsupport::ReadFile(out);
}

std::string Golden(const char* name) {
    return testsupport::ReadFile(testsupport::SourceDir() / "tests/lxo/data" / name);
}

std::string NeutralBanner(const std::string& text) {
    return std::regex_replace(text, std::regex("=========== Dump of .*? ==========="),
                              "=========== Dump of SAMPLE ===========", std::regex_constants::format_first_only);
}

std::string DumpBytes(const std::string& bytes, bool verbose, uint32_t* result) {
    TempDir tmp;
    const std::string in = (tmp / "in.lxo").string();
    testsupport::WriteFile(in, bytes);
    return DumpText(in, verbose, result);
}
} // namespace

// The whole listing of a file holding every chunk family, in both modes.
TEST(LxoDump, GoldenTerseAndVerbose) {
    TempDir tmp;
    const std::string f = (tmp / "sample.lxo").string();
    lxotest::WriteDumpSample(f);
    uint32_t r = 1;
    EXPECT_EQ(NeutralBanner(DumpText(f, false, &r)), Golden("sample_terse.txt"));
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(NeutralBanner(DumpText(f, true, &r)), Golden("sample_verbose.txt"));
    EXPECT_EQ(r, 0u);
}

TEST(LxoDump, TerseModeListsOnlyHeadersAndCounts) {
    TempDir tmp;
    const std::string f = (tmp / "sample.lxo").string();
    lxotest::WriteDumpSample(f);
    const std::string terse = DumpText(f, false);
    EXPECT_NE(terse.find("#Points: 3\n\nChunk ID: 'BBOX'"), std::string::npos);
    EXPECT_EQ(terse.find("Point["), std::string::npos);
    EXPECT_EQ(terse.find("Poly Type"), std::string::npos);
    EXPECT_NE(terse.find("Chunk ID: 'POLS'  Size: 12\n\nChunk ID: 'POLS'"), std::string::npos);
    EXPECT_EQ(terse.find("Channel   0"), std::string::npos);
}

TEST(LxoDump, KeyTypeNamesAndIds) {
    EXPECT_STREQ(LxoDump::SlopeTypeName(0), "Direct");
    EXPECT_STREQ(LxoDump::SlopeTypeName(3), "Auto,Linear In");
    EXPECT_STREQ(LxoDump::SlopeTypeName(63), "Auto,Linear In,Linear Out,Flat,Autoflat,Stepped");
    EXPECT_STREQ(LxoDump::WeightTypeName(0), "None");
    EXPECT_STREQ(LxoDump::WeightTypeName(5), "Value,Weight");
    // One shared buffer: a second call overwrites the first result.
    const char* a = LxoDump::SlopeTypeName(1);
    LxoDump::WeightTypeName(2);
    EXPECT_STREQ(a, "Slope");
    EXPECT_STREQ(LxoDump::QuotedID(lxoid::VRSN), "'VRSN'");
}

TEST(LxoDump, ChannelValueNotes) {
    using lxotest::Chunk;
    using lxotest::F4;
    using lxotest::Sub;
    using lxotest::U2;
    using lxotest::U4;
    auto chan = [](uint16_t type, const std::string& value) {
        return Sub("CHAN", std::string("\0\0", 2) + U2(type) + value);
    };
    const std::string item = std::string("t\0n\0", 4) + U4(1) + chan(0x12, F4(1)) + chan(0x212, F4(1)) +
                             chan(0x612, F4(1)) + chan(0x22, F4(2)) + chan(0x4E76, F4(3)) +
                             chan(0x04, U4(3) + std::string("ab\0", 3));
    uint32_t r = 1;
    const std::string text = DumpBytes(lxotest::Form(Chunk("ITEM", item)), false, &r);
    EXPECT_EQ(r, 0u);
    EXPECT_NE(text.find("(0x012) Float: 1.000000 EnvInterp: Curve\n"), std::string::npos);
    EXPECT_NE(text.find("(0x212) Float: 1.000000 EnvInterp: Linear\n"), std::string::npos);
    EXPECT_NE(text.find("(0x612) Float: 1.000000 EnvInterp: Undefined\n"), std::string::npos);
    EXPECT_NE(text.find(", (34) Float: 2.000000\n"), std::string::npos);
    EXPECT_NE(text.find(", (20086) Float: 3.000000\n"), std::string::npos);
    EXPECT_NE(text.find("Value: <ab>, bytes: 3\n"), std::string::npos);
}

TEST(LxoDump, OutputThatCannotBeCreated) {
    TempDir tmp;
    const std::string f = (tmp / "sample.lxo").string();
    lxotest::WriteDumpSample(f);
    const std::string bad = (tmp / "no/such/dir/out.txt").string();
    testing::internal::CaptureStdout();
    {
        LxoDump d(f.c_str(), bad.c_str(), true);
        EXPECT_FALSE(d.HasOutput());
        EXPECT_EQ(d.Read(), 0u); // walks silently
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error writing output file <" + bad + ">\n");
}

TEST(LxoDump, StopsAtReadErrorAfterPrintingWhatItRead) {
    TempDir tmp;
    const std::string f = (tmp / "sample.lxo").string();
    lxotest::WriteDumpSample(f);
    std::string bytes = testsupport::ReadFile(f);
    const size_t item = bytes.find("ITEM");
    ASSERT_NE(item, std::string::npos);
    uint32_t r = 0;
    const std::string text = DumpBytes(bytes.substr(0, item + 30), false, &r);
    EXPECT_EQ(r, LXO_ERR_READ);
    EXPECT_NE(text.find("Chunk ID: 'ITEM'"), std::string::npos);
    EXPECT_EQ(text.find("UNIQ"), std::string::npos);
}

// Both Modo scenes dump through to the end in both modes.
TEST(LxoDump, CorpusDumpsCompletely) {
    SKIP_WITHOUT_CORPUS();
    const auto files = testsupport::CorpusFiles("lxo", ".lxo");
    ASSERT_FALSE(files.empty());
    for (const auto& f : files) {
        const std::string bytes = testsupport::ReadFile(f);
        const size_t chunks = lxotest::ListChunks(bytes).size();
        for (bool verbose : {false, true}) {
            uint32_t r = 1;
            const std::string text = DumpText(f.string(), verbose, &r);
            EXPECT_EQ(r, 0u) << f << (verbose ? " verbose" : " terse");
            size_t headers = 0;
            for (size_t p = text.find("\nChunk ID: "); p != std::string::npos; p = text.find("\nChunk ID: ", p + 1))
                ++headers;
            EXPECT_EQ(headers, chunks + 1) << f; // FORM + every chunk
            EXPECT_NE(text.find("Mesh: Reference ID: "), std::string::npos);
            if (verbose) { EXPECT_NE(text.find("Poly Type: 'FACE'"), std::string::npos); }
        }
    }
}

// Numbers print with a decimal point whatever the process locale says.
TEST(LxoDump, IgnoresCommaDecimalLocale) {
    std::string previous = std::setlocale(LC_ALL, nullptr);
    const char* found = nullptr;
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8", "nl_NL.UTF-8", "ru_RU.UTF-8"})
        if (std::setlocale(LC_ALL, name)) {
            found = name;
            break;
        }
    if (!found) GTEST_SKIP() << "no comma-decimal locale available";
    TempDir tmp;
    const std::string f = (tmp / "sample.lxo").string();
    lxotest::WriteDumpSample(f);
    const std::string text = DumpText(f, true);
    std::setlocale(LC_ALL, previous.c_str());
    EXPECT_EQ(NeutralBanner(text), Golden("sample_verbose.txt")) << found;
}

// The remaining chunk objects, read back through the dump.
TEST(LxoDump, BakedAndItemChunkObjects) {
    using namespace lxoid;
    TempDir tmp;
    const std::string f = (tmp / "baked.lxo").string();
    {
        LxoWriter w(f.c_str());
        LxoFileChunk form(w);
        { LxoTextTagChunk c(w, STAG, LxoId('N', 'A', 'M', 'E'), "scene"); }
        { Lxo3dSurfaceChunk c(w, 3, 1, 2, 0); }
        const float v[6] = {0, 1, 2, 3, 4, 5};
        { LxoVertexChunk c(w, v, 2); }
        const uint32_t t[3] = {0, 1, 1};
        { LxoTrianglesChunk c(w, t, 1); }
        { LxoTextTagChunk c(w, TTGS, MATR, "Default"); }
        { LxoVectorChunk c(w, NORM, 3, "n", v, 2); }
        { Lxo3dGroupChunk c(w, 1, 0x80000004u, 0); }
        {
            LxoChunk c(w, ITEM);
            uint32_t ref = 4;
            w.WriteItemHeader("translation", "", ref);
            { LxoXyzChannelSubChunk s(w, "pos", v + 3); }
            { LxoRgbChannelSubChunk s(w, "diffCol", v); }
            { LxoGradientSubChunk s(w, "diffAmt", 0x10000, 2, "time", "value"); }
        }
        { LxoEnvelopeChunk c(w, 7, 1); }
    }
    uint32_t r = 1;
    const std::string text = DumpText(f, true, &r);
    EXPECT_EQ(r, 0u);
    for (const char* line : {
             "\tID: 'NAME'  Tag: <scene>\n",
             "#Vertices: 3, #Triangles: 1, #Vectors: 2, #Tags: 0, Unused: 0\n",
             "#Points: 2\n\tPoint[  0]: <       0.000000,       1.000000,       2.000000>\n",
             "#Triangles: 1\n\tTriangle[  0]: [  0,  1,  1]\n",
             "ID: 'MATR'  Tag: <Default>\n",
             "ID: 'NORM', Name: <n>, #Vectors: 2 (3-D)\n\tVector[  0]:        0.000000        1.000000        "
             "2.000000\n",
             "BakedTriGroup: Reference ID: 4, #Surfs: 1, Unused: 0\n",
             "Type: <translation>, Name: <>, Reference ID: 4\n",
             "Chan: <pos                  >, Type: 2, #Elements: 3\n\t\t<X> = Float: 3.000000\n",
             "\t\t<B> = Float: 2.000000\n",
             "Name: <diffAmt>, Index: 65536, Flags: 2, inType: <time>, outType: <value>\n",
             "\tEnvelope Index: 7, Type: 1 (int)\n",
         })
        EXPECT_NE(text.find(line), std::string::npos) << line;
}

// A LAYR parent index is a U2: "no parent" (0xFFFF) and anything above 0x7FFF print unsigned.
TEST(LxoDump, LayerParentIndexPrintsUnsigned) {
    using lxotest::Chunk;
    using lxotest::F4;
    using lxotest::U2;
    using lxotest::U4;
    auto layr = [](uint16_t parent) {
        std::string p = U2(3) + U2(0) + F4(0) + F4(0) + F4(0) + std::string("L\0", 2) + U2(parent);
        for (int i = 0; i < 12; ++i) p += U4(0);
        return Chunk("LAYR", p + U2(0) + U2(0) + U2(0) + U2(0));
    };
    uint32_t r = 1;
    const std::string text = DumpBytes(lxotest::Form(layr(0xFFFF) + layr(0x8001) + layr(2)), false, &r);
    EXPECT_EQ(r, 0u);
    EXPECT_NE(text.find("Name: <L> Parent 65535\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Name: <L> Parent 32769\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Name: <L> Parent 2\n"), std::string::npos) << text;
}

// A chunk whose size runs past the end of the file is decoded from the bytes that are
// there; the walk then ends as at the end of the file, without reserving the claimed size.
TEST(LxoDump, ChunkLongerThanTheFileIsDecodedThenTheWalkEnds) {
    using lxotest::F4;
    using lxotest::U4;
    const std::string vrsn = std::string("VRSN") + U4(1000) + U4(2) + U4(1) + std::string("x\0", 2);
    uint32_t r = 1;
    std::string text = DumpBytes(lxotest::Form(lxotest::Chunk("ENCO", U4(1))) + vrsn, false, &r);
    EXPECT_EQ(r, 0u);
    EXPECT_NE(text.find("Chunk ID: 'VRSN'  Size: 1000\n\tMajor: 2  Minor: 1 <x>\n"), std::string::npos) << text;

    // Fields that are not there fail as a short read, after the header was printed; so
    // does a chunk read to its end (here one claiming 4 GB that holds two points).
    text = DumpBytes(lxotest::Form(std::string("VRSN") + U4(1000) + U4(2)), false, &r);
    EXPECT_EQ(r, LXO_ERR_READ);
    EXPECT_NE(text.find("Chunk ID: 'VRSN'  Size: 1000\n"), std::string::npos);
    EXPECT_EQ(text.find("Major"), std::string::npos);
    const std::string pnts = std::string("PNTS") + U4(0xFFFFFFF0u) + F4(1) + F4(2) + F4(3) + F4(4) + F4(5) + F4(6);
    text = DumpBytes(lxotest::Form(lxotest::Chunk("ENCO", U4(1)) + pnts), true, &r);
    EXPECT_EQ(r, LXO_ERR_READ);
    EXPECT_NE(text.find("\tEncoding: 1\n\nChunk ID: 'PNTS'  Size: -16\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("#Points"), std::string::npos);
    // Polygons are reported one by one: those before the cut are listed.
    const std::string pols = std::string("POLS") + U4(100) + U4(lxoid::FACE) + lxotest::U2(2) + lxotest::U2(0) +
                             lxotest::U2(1) + lxotest::U2(2);
    text = DumpBytes(lxotest::Form(pols), true, &r);
    EXPECT_EQ(r, LXO_ERR_READ);
    EXPECT_NE(text.find("Poly Type: 'FACE', #Vertices: 2  Flags: 0x00\n\t 0 1"), std::string::npos) << text;
}
