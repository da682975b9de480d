#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "LxoTestFiles.h"
#include "formats/lxo/CLxoIo.h"
#include "formats/lxo/LxoSaver.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"
#include "tests/support/TestSupport.h"

using testsupport::TempDir;
namespace fs = std::filesystem;

namespace {

CXStringW W(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

std::unique_ptr<C3DScene> Read(const std::string& path) {
    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions options;
    return std::unique_ptr<C3DScene>(parser.Read(W(path), options));
}

// Copies a corpus file into `dir` (a copy of a read-only file is read-only: make it writable).
std::string Copy(const fs::path& from, const TempDir& dir, const std::string& name) {
    const fs::path to = dir / name;
    testsupport::WriteFile(to, testsupport::ReadFile(from));
    return to.string();
}

C3DObject* FirstMesh(const C3DScene& s) {
    C3DNodePos pos = s.GetFirstNode(KINDOF_MESH);
    C3DBaseObject* o = nullptr;
    while (pos.IsValid()) {
        s.GetNextNode(o, pos);
        if (o && o->GetKindOf() == KINDOF_MESH) return static_cast<C3DObject*>(o);
    }
    return nullptr;
}

// Geometry chunks that follow a LAYR belong to it.
bool IsLayerData(const std::string& id) {
    static const std::set<std::string> kData = {"PNTS", "BBOX", "VMPA", "VMAP", "POLS", "VMAD", "PTAG"};
    return kData.count(id) != 0;
}

// The copy re-emits CHNM and item headers through the writer, whose S0 pad byte repeats
// the string's first character where Modo writes 0: that byte, and only it, may differ.
bool SameBytes(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && !(i > 0 && a[i] == 0 && a[i - 1] == 0)) return false;
    return true;
}

} // namespace

TEST(LxoUpdate, ReplacesTheMeshLayerAndKeepsEveryOtherChunkByteForByte) {
    SKIP_WITHOUT_CORPUS();
    for (const char* name : {"sphereWithVertMap.lxo", "CrazyEngine.lxo"}) {
        SCOPED_TRACE(name);
        const fs::path src = testsupport::CorpusDir() / "lxo" / name;
        if (!fs::exists(src)) GTEST_SKIP();
        TempDir dir;
        const std::string in = Copy(src, dir, "in.lxo");
        auto scene = Read(in);
        ASSERT_TRUE(scene);
        C3DObject* mesh = FirstMesh(*scene);
        ASSERT_TRUE(mesh);
        // Move the first mesh by one metre and drop its last face.
        float* p = mesh->GetPointList()->GetData();
        for (int i = 0; i < mesh->GetPointList()->GetSize(); ++i) p[3 * i] += 1.0f;
        std::vector<bool> keep(size_t(mesh->GetFaceList()->GetNumberOfFaces()), true);
        keep.back() = false;
        mesh->GetFaceList()->Compact(keep);
        for (const auto& ch : mesh->GetChannels()) {
            if (ch->GetFaceList()->GetNumberOfFaces() == int(keep.size())) ch->GetFaceList()->Compact(keep);
        }
        const int faces = mesh->GetFaceList()->GetNumberOfFaces();
        const std::vector<float> moved(p, p + mesh->GetPointList()->GetSize() * 3);

        const std::string out = (dir / "out.lxo").string();
        testsupport::WriteFile(out, "");
        const LxoUpdateResult r = LxoUpdateFile(in.c_str(), out.c_str(), *scene);
        ASSERT_EQ(r.read, 0u);
        ASSERT_EQ(r.write, 0u);
        EXPECT_GE(r.replaced, 1);

        // Chunk by chunk: the same IDs in the same order outside the replaced layer, and
        // every chunk that is not layer data identical.
        const auto a = lxotest::ListChunks(testsupport::ReadFile(in));
        const auto b = lxotest::ListChunks(testsupport::ReadFile(out));
        std::vector<const lxotest::RawChunk*> keptA, keptB;
        for (const auto& c : a)
            if (!IsLayerData(lxotest::IdText(c.id))) keptA.push_back(&c);
        for (const auto& c : b)
            if (!IsLayerData(lxotest::IdText(c.id))) keptB.push_back(&c);
        ASSERT_EQ(keptA.size(), keptB.size());
        for (size_t i = 0; i < keptA.size(); ++i) {
            EXPECT_EQ(keptA[i]->id, keptB[i]->id) << i;
            EXPECT_TRUE(SameBytes(keptA[i]->payload, keptB[i]->payload)) << lxotest::IdText(keptA[i]->id) << " #" << i;
        }
        // Layers other than the first keep their data too.
        size_t layers = 0;
        std::vector<std::string> restA, restB;
        for (const auto& c : a) {
            if (lxotest::IdText(c.id) == "LAYR") ++layers;
            if (layers > 1 && IsLayerData(lxotest::IdText(c.id))) restA.push_back(c.payload);
        }
        layers = 0;
        for (const auto& c : b) {
            if (lxotest::IdText(c.id) == "LAYR") ++layers;
            if (layers > 1 && IsLayerData(lxotest::IdText(c.id))) restB.push_back(c.payload);
        }
        EXPECT_TRUE(restA == restB);

        auto back = Read(out);
        ASSERT_TRUE(back);
        C3DObject* m = FirstMesh(*back);
        ASSERT_TRUE(m);
        EXPECT_EQ(m->GetFaceList()->GetNumberOfFaces(), faces);
        ASSERT_EQ(size_t(m->GetPointList()->GetSize()) * 3, moved.size());
        EXPECT_TRUE(std::equal(moved.begin(), moved.end(), m->GetPointList()->GetData()));
    }
}

TEST(LxoUpdate, TheDestinationIsOpenedNeverCreated) {
    SKIP_WITHOUT_CORPUS();
    const fs::path src = testsupport::CorpusDir() / "lxo" / "sphereWithVertMap.lxo";
    if (!fs::exists(src)) GTEST_SKIP();
    TempDir dir;
    auto scene = Read(src.string());
    ASSERT_TRUE(scene);
    const std::string out = (dir / "gone.lxo").string();
    const LxoUpdateResult r = LxoUpdateFile(src.string().c_str(), out.c_str(), *scene);
    EXPECT_NE(r.write, 0u);
    EXPECT_FALSE(fs::exists(out));
}

TEST(LxoUpdate, InPlaceThroughTheParser) {
    SKIP_WITHOUT_CORPUS();
    const fs::path src = testsupport::CorpusDir() / "lxo" / "sphereWithVertMap.lxo";
    if (!fs::exists(src)) GTEST_SKIP();
    TempDir dir;
    const std::string path = Copy(src, dir, "scene.lxo");
    // A scene from elsewhere: one triangle, unnamed, takes the file's mesh by order.
    C3DScene scene;
    auto* tri = new C3DObject();
    tri->GetPointList()->Add(0, 0, 0);
    tri->GetPointList()->Add(1, 0, 0);
    tri->GetPointList()->Add(0, 1, 0);
    tri->GetFaceList()->AddTriangle(0, 1, 2);
    scene.AddNode(nullptr, new C3DSceneNode(tri))->SetName(L"Triangle");
    CFileIo io;
    CLxoIo parser(io);
    CSceneExportOptions options;
    CXStringW wpath = W(path);
    EXPECT_TRUE(parser.CanUpdate(CLxoIo::kUpdateMeshLayers, &wpath));
    CXStringW notLxo = W((dir / "none.lxo").string());
    EXPECT_FALSE(parser.CanUpdate(CLxoIo::kUpdateMeshLayers, &notLxo));
    ASSERT_TRUE(parser.Update(wpath, &scene, nullptr, options));
    auto back = Read(path);
    ASSERT_TRUE(back);
    C3DObject* m = FirstMesh(*back);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetPointList()->GetSize(), 3);
    EXPECT_EQ(m->GetFaceList()->GetNumberOfFaces(), 1);
    // Only the file is left in the folder (no temporary).
    int entries = 0;
    for (const auto& e : fs::directory_iterator(dir.path())) entries += e.is_regular_file();
    EXPECT_EQ(entries, 1);
}
