#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LxoTestFiles.h"
#include "formats/lxo/LxoCopy.h"
#include "formats/lxo/LxoDump.h"
#include "plugin/host/Channel.h"
#include "plugin/host/Object.h"
#include "tests/support/TestSupport.h"

using namespace lxotest;
using testsupport::TempDir;

namespace {

std::vector<std::string> Ids(const std::vector<RawChunk>& chunks) {
    std::vector<std::string> out;
    for (const auto& c : chunks) out.push_back(IdText(c.id));
    return out;
}

// Size of an ITEM header (S0 type, S0 name, U4 reference ID).
size_t ItemHeaderBytes(const std::string& payload) {
    size_t p = 0;
    for (int s = 0; s < 2; ++s) {
        const size_t n = std::strlen(payload.c_str() + p) + 1;
        p += n + (n & 1);
    }
    return p + 4;
}

uint32_t Update(const std::string& src, const std::string& dst, uint32_t ref = 0, const LxoLayerMesh* mesh = nullptr,
                int* replaced = nullptr) {
    LxoUpdater up(src.c_str(), dst.c_str());
    if (mesh) up.Replacements().SetAt(ref, mesh);
    const uint32_t r = up.Read();
    if (replaced) *replaced = up.ReplacedCount();
    return r;
}

// Everything but CHNM and ITEM headers is carried over byte for byte, item sub-chunks included.
void ExpectSameChunks(const std::string& srcBytes, const std::string& dstBytes) {
    const auto a = ListChunks(srcBytes);
    const auto b = ListChunks(dstBytes);
    ASSERT_EQ(Ids(a), Ids(b));
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].size, b[i].size) << i << " " << IdText(a[i].id);
        if (a[i].id == lxoid::ITEM) {
            const auto sa = ListSubChunks(a[i].payload, ItemHeaderBytes(a[i].payload));
            const auto sb = ListSubChunks(b[i].payload, ItemHeaderBytes(b[i].payload));
            ASSERT_EQ(Ids(sa), Ids(sb)) << i;
            for (size_t k = 0; k < sa.size(); ++k) EXPECT_EQ(sa[k].payload, sb[k].payload);
        } else if (a[i].id != lxoid::CHNM) {
            EXPECT_EQ(a[i].payload, b[i].payload) << i << " " << IdText(a[i].id);
        }
    }
    EXPECT_EQ(dstBytes.substr(0, 4), "FORM");
    EXPECT_EQ(dstBytes.substr(4, 4), U4(uint32_t(dstBytes.size() - 8)));
}

// A triangle with a UV seam at corner 2 of the second face, and materials 0 and 1.
std::unique_ptr<C3DObject> MakeMesh() {
    auto obj = std::make_unique<C3DObject>();
    auto* pts = new C3DPointList;
    pts->Add(0, 0, 0);
    pts->Add(2, 0, 0);
    pts->Add(0, 3, 0);
    pts->Add(2, 3, -1);
    obj->SetPointList(pts);
    auto* faces = new C3DFaceList;
    faces->AddTriangle(0, 1, 2);
    faces->AddTriangle(1, 3, 2);
    faces->SetMaterialID(0, 0);
    faces->SetMaterialID(1, 1);
    obj->SetFaceList(faces);
    auto uv = std::make_unique<CUVWChannel>();
    uv->GetUVWPointList()->Add(0, 0, 0);
    uv->GetUVWPointList()->Add(1, 0, 0);
    uv->GetUVWPointList()->Add(0, 1, 0);
    uv->GetUVWPointList()->Add(1, 1, 0);
    uv->GetUVWPointList()->Add(0.5f, 0.5f, 0); // seam value for point 2 in face 1
    uv->GetUVWFaceList()->AddTriangle(0, 1, 2);
    uv->GetUVWFaceList()->AddTriangle(1, 3, 4);
    obj->AddChannel(std::move(uv));
    return obj;
}

// Points of a PNTS payload.
std::vector<float> Floats(const std::string& payload) {
    std::vector<float> out;
    for (size_t p = 0; p + 4 <= payload.size(); p += 4) {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = (v << 8) | uint8_t(payload[p + i]);
        out.push_back(std::bit_cast<float>(v));
    }
    return out;
}

} // namespace

TEST(LxoCopy, PlainCopyReemitsChannelNamesAndWritesItemHeadersOnly) {
    TempDir tmp;
    const std::string src = (tmp / "s.lxo").string(), dst = (tmp / "d.lxo").string();
    // A CHNM padded with zero bytes, as other writers do: re-emitted, it gets our pad bytes.
    const std::string chnm = Chunk("CHNM", U4(2) + std::string("unknown\0", 8) + std::string("ab\0\0", 4));
    const std::string item = Chunk("ITEM", std::string("mesh\0\0", 6) + std::string("\0\0", 2) + U4(0) +
                                               Sub("UNIQ", std::string("m1\0\0", 4)));
    const std::string pnts = Chunk("PNTS", F4(1) + F4(2) + F4(3));
    testsupport::WriteFile(src, Form(pnts + chnm + item + Chunk("ZZZZ", "raw")));
    std::vector<std::string> names;
    {
        LxoCopy copy(src.c_str(), dst.c_str());
        ASSERT_NE(copy.Writer(), nullptr);
        EXPECT_EQ(copy.Read(), 0u);
        names = copy.Writer()->ChannelNames();
    }
    EXPECT_EQ(names, (std::vector<std::string>{"unknown", "ab"}));
    const std::string out = testsupport::ReadFile(dst);
    EXPECT_EQ(out,
              Form(pnts + Chunk("CHNM", U4(2) + std::string("unknown\0", 8) + std::string("ab\0a", 4)) +
                   Chunk("ITEM", std::string("mesh\0m", 6) + std::string("\0\0", 2) + U4(0)) + Chunk("ZZZZ", "raw")));
}

TEST(LxoCopy, DestinationThatCannotBeCreated) {
    TempDir tmp;
    const std::string src = (tmp / "s.lxo").string(), bad = (tmp / "no/d.lxo").string();
    WriteTwoLayers(src);
    testing::internal::CaptureStdout();
    {
        LxoCopy copy(src.c_str(), bad.c_str());
        EXPECT_EQ(copy.Writer(), nullptr);
        EXPECT_NE(copy.Read(), 0u);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error creating LXO file <" + bad + ">\n");
}

TEST(LxoUpdater, EmptyTableKeepsEveryChunk) {
    TempDir tmp;
    const std::string src = (tmp / "s.lxo").string(), dst = (tmp / "d.lxo").string();
    WriteDumpSample(src);
    EXPECT_EQ(Update(src, dst), 0u);
    const std::string a = testsupport::ReadFile(src), b = testsupport::ReadFile(dst);
    ExpectSameChunks(a, b);
    // Our own writer pads the same way, so here the copy is exact.
    EXPECT_EQ(a, b);
}

TEST(LxoUpdater, ReplacedLayerLosesItsDataChunksOnly) {
    TempDir tmp;
    const std::string src = (tmp / "s.lxo").string(), dst = (tmp / "d.lxo").string();
    WriteTwoLayers(src);
    const auto mesh = MakeMesh();
    LxoLayerMesh layer;
    layer.object = mesh.get();
    layer.materialTags = {0, 3};
    int replaced = 0;
    EXPECT_EQ(Update(src, dst, 7, &layer, &replaced), 0u);
    EXPECT_EQ(replaced, 1);
    const auto in = ListChunks(testsupport::ReadFile(src));
    const auto out = ListChunks(testsupport::ReadFile(dst));
    // The old layer's BBOX and VMPA are not geometry to replace: they follow the new data.
    EXPECT_EQ(Ids(out), (std::vector<std::string>{"VRSN", "TAGS", "LAYR", "PNTS", "BBOX", "VMPA", "VMAP", "POLS",
                                                  "VMAD", "PTAG", "BBOX", "VMPA", "LAYR", "PNTS", "BBOX", "VMPA",
                                                  "VMAP", "POLS", "PTAG", "CHNM", "ITEM", "ITEM"}));
    EXPECT_EQ(out[10].payload, in[4].payload);
    EXPECT_EQ(out[11].payload, in[5].payload);
    // The LAYR chunk itself is kept.
    EXPECT_EQ(out[2].payload, in[2].payload);
    // New geometry for layer 7.
    EXPECT_EQ(Floats(out[3].payload), (std::vector<float>{0, 0, 0, 2, 0, 0, 0, 3, 0, 2, 3, -1}));
    EXPECT_EQ(Floats(out[4].payload), (std::vector<float>{0, 0, -1, 2, 3, 0}));
    EXPECT_EQ(out[6].payload, U4(lxoid::TXUV) + U2(2) + std::string("Texture\0", 8) + U2(0) + F4(0) + F4(0) + U2(1) +
                                  F4(1) + F4(0) + U2(2) + F4(0) + F4(1) + U2(3) + F4(1) + F4(1));
    EXPECT_EQ(out[7].payload, U4(lxoid::FACE) + U2(3) + U2(0) + U2(1) + U2(2) + U2(3) + U2(1) + U2(3) + U2(2));
    EXPECT_EQ(out[8].payload,
              U4(lxoid::TXUV) + U2(2) + std::string("Texture\0", 8) + U2(2) + U2(1) + F4(0.5f) + F4(0.5f));
    EXPECT_EQ(out[9].payload, U4(lxoid::MATR) + U2(0) + U2(0) + U2(1) + U2(3));
    // Layer 9 and everything after it is untouched.
    for (size_t i = 12; i < out.size(); ++i) {
        EXPECT_EQ(out[i].id, in[i - 3].id);
        if (out[i].id != lxoid::CHNM && out[i].id != lxoid::ITEM) { EXPECT_EQ(out[i].payload, in[i - 3].payload) << i; }
    }
    // And the result reads back through the dump.
    LxoDump d(dst.c_str(), (tmp / "dump.txt").string().c_str(), true);
    EXPECT_EQ(d.Read(), 0u);
}

TEST(LxoUpdater, GroupReferenceWithoutTopBit) {
    TempDir tmp;
    const std::string src = (tmp / "s.lxo").string(), dst = (tmp / "d.lxo").string();
    const std::string old = Chunk("PNTS", F4(9) + F4(9) + F4(9)) + Chunk("POLS", U4(lxoid::FACE) + U2(1) + U2(0));
    testsupport::WriteFile(
        src, Form(Chunk("3GRP", U4(1) + U4(0x80000005) + U4(0)) + old + Chunk("3GRP", U4(1) + U4(6) + U4(0)) + old));
    const auto mesh = MakeMesh();
    LxoLayerMesh layer;
    layer.object = mesh.get();
    EXPECT_EQ(Update(src, dst, 5, &layer), 0u);
    const auto out = ListChunks(testsupport::ReadFile(dst));
    EXPECT_EQ(Ids(out), (std::vector<std::string>{"3GRP", "PNTS", "BBOX", "VMPA", "VMAP", "POLS", "VMAD", "PTAG",
                                                  "3GRP", "PNTS", "POLS"}));
    EXPECT_EQ(out[0].payload, U4(1) + U4(0x80000005) + U4(0));
    EXPECT_EQ(Floats(out[9].payload), (std::vector<float>{9, 9, 9}));
}

TEST(LxoUpdater, CorpusRoundTrip) {
    SKIP_WITHOUT_CORPUS();
    const auto files = testsupport::CorpusFiles("lxo", ".lxo");
    ASSERT_FALSE(files.empty());
    for (const auto& f : files) {
        TempDir tmp;
        const std::string dst = (tmp / "d.lxo").string();
        ASSERT_EQ(Update(f.string(), dst), 0u) << f;
        SCOPED_TRACE(f.string());
        ExpectSameChunks(testsupport::ReadFile(f), testsupport::ReadFile(dst));

        // Replacing the scene's mesh layer (reference ID 0) reads back cleanly.
        const auto mesh = MakeMesh();
        LxoLayerMesh layer;
        layer.object = mesh.get();
        const std::string dst2 = (tmp / "r.lxo").string();
        int replaced = 0;
        EXPECT_EQ(Update(f.string(), dst2, 0, &layer, &replaced), 0u);
        EXPECT_EQ(replaced, 1);
        LxoDump d(dst2.c_str(), (tmp / "dump.txt").string().c_str(), true);
        EXPECT_EQ(d.Read(), 0u);
        d.Flush();
        const std::string text = testsupport::ReadFile(tmp / "dump.txt");
        EXPECT_NE(text.find("#Points: 4\n"), std::string::npos);
    }
}

// Big chunks take the in-kernel copy, small ones the buffer; both keep every byte, and a
// replaced layer's big chunks are dropped without being read.
TEST(LxoUpdater, LargeChunksCopyExactly) {
    TempDir tmp;
    const std::string src = (tmp / "s.lxo").string(), dst = (tmp / "d.lxo").string(), rep = (tmp / "r.lxo").string();
    std::string big;
    for (uint32_t i = 0; i < 3 * 40000; ++i) big += F4(float(i) * 0.5f);
    const std::string bytes = Form(Chunk("LAYR", std::string(76, '\0')) + Chunk("PNTS", big) +
                                   Chunk("ZZZZ", big.substr(0, 70001)) + Chunk("TAGS", std::string("a\0a", 3)));
    // The LAYR above is 76 bytes of zeros: index 0, empty name, reference ID 0.
    testsupport::WriteFile(src, bytes);
    EXPECT_EQ(Update(src, dst), 0u);
    EXPECT_TRUE(testsupport::ReadFile(dst) == bytes);

    const auto mesh = MakeMesh();
    LxoLayerMesh layer;
    layer.object = mesh.get();
    EXPECT_EQ(Update(src, rep, 0, &layer), 0u);
    const auto out = ListChunks(testsupport::ReadFile(rep));
    EXPECT_EQ(Ids(out),
              (std::vector<std::string>{"LAYR", "PNTS", "BBOX", "VMPA", "VMAP", "POLS", "VMAD", "PTAG", "ZZZZ"}));
    ASSERT_EQ(out.size(), 9u);
    EXPECT_TRUE(out[8].payload == big.substr(0, 70001));
}

// A raw copy takes a chunk whole: one cut by the end of the file is a short read, not a
// shorter chunk in the copy.
TEST(LxoCopy, ChunkCutByTheEndOfTheFileIsAShortRead) {
    TempDir tmp;
    const std::string src = (tmp / "s.lxo").string(), dst = (tmp / "d.lxo").string();
    testsupport::WriteFile(src, Form(Chunk("ZZZZ", "ab")) + "YYYY" + U4(100) + "abcd");
    LxoCopy copy(src.c_str(), dst.c_str());
    ASSERT_NE(copy.Writer(), nullptr);
    EXPECT_EQ(copy.Read(), LXO_ERR_READ);
    EXPECT_EQ(copy.LastResult(), LXO_ERR_READ);
}
