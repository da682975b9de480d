#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "formats/lxo/CLxoIo.h"
#include "formats/lxo/LxoWriter.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"
#include "tests/support/TestSupport.h"

using testsupport::TempDir;

namespace {

// Four triangles tagged Red, Blue, Green and nothing. Shader tree under polyRender 8:
// mask Red (5) with a material and a diffuse image map (12) linked to clip 13, whose file
// sits beside the scene under another folder's path; mask Green (20) with a disabled
// diffuse map, a specular one and one linked to no clip; a diffuse map outside any mask
// (14) whose clip (15) links to it the other way round and names a file that is nowhere.
// A camera carrying a stray ptag comes last.
void WriteTexturedScene(const std::string& path) {
    using namespace lxoid;
    LxoWriter w(path.c_str());
    LxoFileChunk form(w);
    { LxoTagsChunk c(w, {"Red", "Blue", "Green"}); }
    { LxoChannelNamesChunk c(w, {"unknown", "enable", "filename"}); }
    LxoLayerInfo l;
    l.referenceID = 2;
    { LxoLayerChunk c(w, l); }
    const float pts[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    { LxoPointsChunk c(w, pts, 3); }
    {
        LxoPolygonsChunk c(w, FACE);
        const uint32_t tri[3] = {0, 1, 2};
        for (int i = 0; i < 4; ++i) c.AddPolygon(tri, 3);
    }
    {
        LxoPolyTagChunk c(w, MATR);
        for (uint32_t i = 0; i < 3; ++i) c.Add(i, i);
    }
    auto item = [&](const char* type, uint32_t id, uint32_t parent) {
        w.WriteItemHeader(type, "", id, false);
        if (parent) LxoLinkSubChunk s(w, "parent", parent, 0);
    };
    auto text = [&](std::string_view name, std::string_view value) {
        LxoSubChunk s(w, CHNS);
        w.WriteS0(name);
        w.WriteS0(value);
    };
    auto chunk = [&](auto&& body) {
        LxoChunk c(w, ITEM);
        body();
    };
    chunk([&] {
        item("mesh", 2, 0);
        LxoLayerSubChunk s(w, 0, 5, 0xc8c8c8ff);
    });
    chunk([&] { item("polyRender", 8, 0); });
    for (const auto& [id, tag] : {std::pair<uint32_t, const char*>{5, "Red"}, {20, "Green"}})
        chunk([&] {
            item("mask", id, 8);
            text("ptag", tag);
            text("ptyp", "Material");
        });
    chunk([&] { item("advancedMaterial", 6, 5); });
    chunk([&] {
        item("imageMap", 12, 5);
        text("effect", "diffColor");
        LxoLinkSubChunk s(w, "anyGraph", 13, 0);
    });
    chunk([&] {
        item("videoStill", 13, 0);
        text("filename", "/elsewhere/textures/wood.png");
    });
    chunk([&] {
        item("imageMap", 21, 20);
        text("effect", "diffColor");
        { LxoChannelValueSubChunk e(w, "enable", int32_t(0)); }
        LxoLinkSubChunk s(w, "anyGraph", 13, 0);
    });
    chunk([&] {
        item("imageMap", 22, 20);
        text("effect", "specAmt");
        LxoLinkSubChunk s(w, "anyGraph", 13, 0);
    });
    chunk([&] {
        item("imageMap", 23, 20);
        text("effect", "diffColor");
    });
    chunk([&] {
        item("imageMap", 14, 8);
        text("effect", "diffColor");
    });
    chunk([&] {
        item("videoStill", 15, 0);
        { LxoChannelValueSubChunk f(w, "filename", std::string_view("missing/nowhere.png")); }
        LxoLinkSubChunk s(w, "otherGraph", 14, 0);
    });
    chunk([&] {
        item("camera", 30, 0);
        text("ptag", "Blue");
    });
}

const CMaterialMap* DiffuseOfFace(const C3DScene& scene, int face) {
    const C3DSceneNode* n = scene.FindNodeByName(CXStringW(L"mesh"));
    const auto* mesh = n ? dynamic_cast<const C3DObject*>(n->GetBaseObject()) : nullptr;
    if (!mesh || face >= mesh->GetFaceList()->GetNumberOfFaces()) return nullptr;
    const C3DMaterial* m = scene.GetMaterialByID(mesh->GetFaceList()->GetMaterialID(face));
    return m ? m->GetMaterialMap(MAP_DIFFUSE) : nullptr;
}

int Mentions(const CSceneImportOptions& options, const std::wstring& text) {
    int n = 0;
    for (const IoLogInfo& e : options.GetLog()) n += std::wstring(e.text.c_str()).find(text) != std::wstring::npos;
    return n;
}

} // namespace

TEST(LxoTexture, DiffuseImageMapsBecomeTheMaterialsTexturesFoundOrNot) {
    TempDir dir;
    const std::string path = (dir / "scene.lxo").string();
    WriteTexturedScene(path);
    testsupport::WriteFile(dir / "wood.png", "not really an image");

    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene(parser.Read(CXStringW(Utf8ToWide(path)), options));
    ASSERT_TRUE(scene) << io.GetIoError();

    // Red: its own map, found by its bare name beside the scene. The camera's stray ptag
    // does not touch the mask.
    const CMaterialMap* red = DiffuseOfFace(*scene, 0);
    ASSERT_TRUE(red);
    EXPECT_EQ(fileStripPath(red->file), CXStringW(L"wood.png"));
    EXPECT_TRUE(fileExists(red->file));
    EXPECT_EQ(red->channel, 0);
    // Blue (no mask), Green (its diffuse map disabled) and the untagged face take the map
    // outside the masks, whose file is missing: kept as given. Each file is logged once,
    // found or not.
    for (int face : {1, 2, 3}) {
        const CMaterialMap* m = DiffuseOfFace(*scene, face);
        ASSERT_TRUE(m) << face;
        EXPECT_EQ(m->file, CXStringW(L"missing/nowhere.png")) << face;
    }
    EXPECT_EQ(Mentions(options, L"Texture file not found: missing/nowhere.png"), 1);
    EXPECT_EQ(Mentions(options, L"Texture file found: " + std::wstring(red->file.c_str())), 1);
    EXPECT_EQ(Mentions(options, L"without a clip that names a file were left out: 1"), 1);

    // From memory there is no folder to look in: both files are reported missing.
    const std::string bytes = testsupport::ReadFile(path);
    CSceneImportOptions memOptions;
    std::unique_ptr<C3DScene> fromMemory(
        parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, memOptions));
    ASSERT_TRUE(fromMemory);
    EXPECT_EQ(Mentions(memOptions, L"Texture file not found: /elsewhere/textures/wood.png"), 1);
}
