// The host's Collada reader: primitives, inputs and offsets, materials through effects,
// the node tree and its transforms, instances, encodings, damaged documents, real files.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "plugin/host/Channel.h"
#include "plugin/host/ColladaIo.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "tests/support/TestSupport.h"

namespace {

struct Result {
    std::unique_ptr<C3DScene> scene;
    int error = 0;
    std::vector<IoLogInfo> log;
};

Result ReadText(const std::string& text) {
    CFileIo io;
    CSceneImportOptions opt;
    CColladaIo parser(io);
    Result r;
    r.scene.reset(
        parser.ReadMemory(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()), opt));
    r.error = io.GetIoError();
    r.log = opt.GetLog();
    return r;
}

std::vector<C3DSceneNode*> Nodes(const C3DScene& s, uint32_t kinds) {
    std::vector<C3DSceneNode*> out;
    C3DNodePos pos = s.GetFirstNode(kinds);
    while (C3DSceneNode* n = s.GetNextNode(pos)) out.push_back(n);
    return out;
}

std::string Doc(const std::string& geometry, const std::string& scene, const std::string& extra = "") {
    return "<?xml version=\"1.0\"?>\n<COLLADA version=\"1.4.1\">\n"
           "<asset><unit meter=\"0.0254\" name=\"inch\"/><up_axis>Y_UP</up_axis></asset>\n" +
           extra + "<library_geometries><geometry id=\"g\" name=\"shape\"><mesh>\n" + geometry +
           "</mesh></geometry></library_geometries>\n<library_visual_scenes><visual_scene id=\"s\">" + scene +
           "</visual_scene></library_visual_scenes><scene><instance_visual_scene url=\"#s\"/></scene></COLLADA>\n";
}

const std::string kSquare =
    "<source id=\"p\"><float_array id=\"pa\" count=\"12\">0 0 0 1 0 0 1 1 0 0 1 0</float_array>"
    "<technique_common><accessor source=\"#pa\" count=\"4\" stride=\"3\"/></technique_common></source>"
    "<source id=\"t\"><float_array id=\"ta\" count=\"8\">0 0 1 0 1 1 0 1</float_array>"
    "<technique_common><accessor source=\"#ta\" count=\"4\" stride=\"2\"/></technique_common></source>"
    "<vertices id=\"v\"><input semantic=\"POSITION\" source=\"#p\"/></vertices>";

TEST(Collada, PrimitivesWithSharedAndSeparateIndices) {
    auto r = ReadText(Doc(
        kSquare +
            "<triangles count=\"1\" material=\"a\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
            "<input semantic=\"TEXCOORD\" source=\"#t\" offset=\"1\" set=\"0\"/><p>0 3 1 2 2 1</p></triangles>"
            "<polylist count=\"2\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
            "<vcount>4 3</vcount><p>0 1 2 3 0 2 3</p></polylist>"
            "<polygons count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
            "<ph><p>0 1 2 3</p><h>0 1 2</h></ph></polygons>"
            "<tristrips count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 3 2</p></tristrips>"
            "<lines count=\"2\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 1 2</p></lines>",
        "<node id=\"n\"><instance_geometry url=\"#g\"/></node>"));
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(r.scene->GetUnit(), UNIT_INCH);
    EXPECT_DOUBLE_EQ(r.scene->GetScaleFactor(), 2.54);
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 1u);
    const C3DGeomObject* g = meshes[0]->GetGeomObject();
    const C3DFaceList* fl = g->GetFaceList();
    // 1 triangle, 2 polylist faces, an outline and its hole, 2 strip triangles.
    ASSERT_EQ(fl->GetNumberOfFaces(), 7);
    EXPECT_EQ(fl->GetFaceSize(1), 4);
    auto tri = fl->Face(0);
    EXPECT_EQ(std::vector<uint32_t>(tri.begin(), tri.end()), (std::vector<uint32_t>{0, 1, 2}));
    // Texture coordinates follow their own offset; faces without them use the spare corner.
    const CUVWChannel* uv = g->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    auto uvf = uv->GetUVWFaceList()->Face(0);
    EXPECT_EQ(std::vector<uint32_t>(uvf.begin(), uvf.end()), (std::vector<uint32_t>{3, 2, 1}));
    EXPECT_EQ(uv->GetUVWFaceList()->Face(1)[0], 4u);
    // Strip triangles keep one facing.
    EXPECT_GT(FaceNormal(*g->GetPointList(), fl->Face(5)).Dot(FaceNormal(*g->GetPointList(), fl->Face(6))), 0.5f);
    auto curves = Nodes(*r.scene, KINDOF_CURVE);
    ASSERT_EQ(curves.size(), 1u);
    EXPECT_EQ(curves[0]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 2);
}

TEST(Collada, MaterialsThroughEffectsAndBindings) {
    const std::string libs =
        "<library_images><image id=\"img\"><init_from>tex/wood%20grain.png</init_from></image></library_images>"
        "<library_effects><effect id=\"fx\"><profile_COMMON>"
        "<newparam sid=\"surf\"><surface type=\"2D\"><init_from>img</init_from></surface></newparam>"
        "<newparam sid=\"samp\"><sampler2D><source>surf</source></sampler2D></newparam>"
        "<technique sid=\"c\"><phong><diffuse><texture texture=\"samp\" texcoord=\"UV0\"/></diffuse>"
        "<transparent opaque=\"A_ONE\"><color>1 1 1 0.75</color></transparent></phong></technique>"
        "</profile_COMMON></effect>"
        "<effect id=\"red\"><profile_COMMON><technique sid=\"c\"><lambert><diffuse><color>1 0 0 1</color></diffuse>"
        "</lambert></technique></profile_COMMON></effect></library_effects>"
        "<library_materials><material id=\"wood\" name=\"Wood\"><instance_effect url=\"#fx\"/></material>"
        "<material id=\"paint\"><instance_effect url=\"#red\"/></material></library_materials>";
    auto r = ReadText(
        Doc(kSquare + "<triangles count=\"1\" material=\"A\"><input semantic=\"VERTEX\" source=\"#v\" "
                      "offset=\"0\"/><p>0 1 2</p></triangles>"
                      "<triangles count=\"1\" material=\"B\"><input semantic=\"VERTEX\" source=\"#v\" "
                      "offset=\"0\"/><p>0 2 3</p></triangles>",
            "<node id=\"n\"><instance_geometry url=\"#g\"><bind_material><technique_common>"
            "<instance_material symbol=\"A\" target=\"#wood\"/><instance_material symbol=\"B\" target=\"#paint\"/>"
            "</technique_common></bind_material></instance_geometry></node>"
            "<node id=\"m\"><instance_geometry url=\"#g\"><bind_material><technique_common>"
            "<instance_material symbol=\"A\" "
            "target=\"#paint\"/></technique_common></bind_material></instance_geometry></node>",
            libs));
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(r.scene->GetMaterialNumber(), 2);
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 2u);
    const C3DFaceList* a = meshes[0]->GetGeomObject()->GetFaceList();
    const C3DMaterial* wood = r.scene->GetMaterialByID(a->GetMaterialID(0));
    ASSERT_TRUE(wood);
    EXPECT_EQ(wood->GetName(), CXStringW(L"Wood"));
    EXPECT_NEAR(wood->GetTransparency(), 0.25f, 1e-6);
    ASSERT_TRUE(wood->GetMaterialMap(MAP_DIFFUSE));
    EXPECT_NE(wood->GetMaterialMap(MAP_DIFFUSE)->GetFileName().Find(L"tex/wood grain.png"), -1);
    EXPECT_EQ(r.scene->GetMaterialByID(a->GetMaterialID(1))->GetDiffuseColor().r, 255);
    // The second instance binds its symbols its own way; an unbound symbol has no material.
    const C3DFaceList* b = meshes[1]->GetGeomObject()->GetFaceList();
    EXPECT_EQ(b->GetMaterialID(0), a->GetMaterialID(1));
    EXPECT_EQ(b->GetMaterialID(1), NO_MATERIAL);
}

// Repeated ids of <vertices> and repeated symbols in bind_material: the first one counts, and
// a symbol used by several primitives is one material slot.
TEST(Collada, RepeatedVerticesAndSymbolsTakeTheFirst) {
    const std::string libs =
        "<library_effects><effect id=\"red\"><profile_COMMON><technique sid=\"c\"><lambert><diffuse><color>1 0 0 1"
        "</color></diffuse></lambert></technique></profile_COMMON></effect>"
        "<effect id=\"blue\"><profile_COMMON><technique sid=\"c\"><lambert><diffuse><color>0 0 1 1</color>"
        "</diffuse></lambert></technique></profile_COMMON></effect></library_effects>"
        "<library_materials><material id=\"r\"><instance_effect url=\"#red\"/></material>"
        "<material id=\"b\"><instance_effect url=\"#blue\"/></material></library_materials>";
    const std::string far =
        "<source id=\"q\"><float_array id=\"qa\" count=\"12\">9 9 9 8 9 9 8 8 9 9 8 9</float_array>"
        "<technique_common><accessor source=\"#qa\" count=\"4\" stride=\"3\"/></technique_common></source>"
        "<vertices id=\"v\"><input semantic=\"POSITION\" source=\"#q\"/></vertices>";
    const std::string tri = "<triangles count=\"1\" material=\"A\"><input semantic=\"VERTEX\" source=\"#v\" "
                            "offset=\"0\"/><p>0 1 2</p></triangles>";
    auto r = ReadText(Doc(kSquare + far + tri + tri,
                          "<node><instance_geometry url=\"#g\"><bind_material><technique_common>"
                          "<instance_material symbol=\"A\" target=\"#r\"/><instance_material symbol=\"A\" "
                          "target=\"#b\"/></technique_common></bind_material></instance_geometry></node>",
                          libs));
    ASSERT_TRUE(r.scene) << r.error;
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 1u);
    const C3DGeomObject* g = meshes[0]->GetGeomObject();
    ASSERT_EQ(g->GetPointList()->size(), 4u);
    EXPECT_EQ(g->GetPointList()->Raw()[3], 1.0f); // the square's, not the far points
    const C3DFaceList* fl = g->GetFaceList();
    ASSERT_EQ(fl->GetNumberOfFaces(), 2);
    EXPECT_EQ(fl->GetMaterialID(0), fl->GetMaterialID(1));
    const C3DMaterial* m = r.scene->GetMaterialByID(fl->GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetDiffuseColor().r, 255);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 1);
}

// Normals are kept per corner through their own index, as the file gives them.
TEST(Collada, NormalsFollowTheirOwnIndices) {
    const std::string normals =
        "<source id=\"n\"><float_array id=\"na\" count=\"6\">0 0 1 0 1 0</float_array>"
        "<technique_common><accessor source=\"#na\" count=\"2\" stride=\"3\"/></technique_common></source>";
    auto r = ReadText(Doc(kSquare + normals +
                              "<triangles count=\"2\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
                              "<input semantic=\"NORMAL\" source=\"#n\" offset=\"1\"/><p>0 0 1 0 2 1 0 1 2 7 3 1</p>"
                              "</triangles>",
                          "<node id=\"n1\"><instance_geometry url=\"#g\"/></node>"));
    ASSERT_TRUE(r.scene) << r.error;
    const C3DGeomObject* g = Nodes(*r.scene, KINDOF_MESH)[0]->GetGeomObject();
    auto* ch = static_cast<const CSpecNormalChannel*>(g->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
    ASSERT_NE(ch, nullptr);
    const auto& idx = ch->GetNormalFaceList()->GetIndexes();
    ASSERT_EQ(idx.size(), 6u);
    const C3DVectorList& v = *ch->GetNormalVectorList();
    const float wantY[6] = {0, 0, 1, 1, 0, 1}; // the fifth corner's index 7 names no normal: zero
    const float wantZ[6] = {1, 1, 0, 0, 0, 0};
    for (size_t k = 0; k < 6; ++k) {
        EXPECT_EQ(v.GetPoint(static_cast<int>(idx[k])).y, wantY[k]) << k;
        EXPECT_EQ(v.GetPoint(static_cast<int>(idx[k])).z, wantZ[k]) << k;
    }
}

// A normal channel takes its source's values over, unless the mesh reads that source as
// something else too: here a later primitive reads it as texture coordinates.
TEST(Collada, ASourceReadAsNormalsAndAsCoordinates) {
    const std::string normals =
        "<source id=\"n\"><float_array id=\"na\" count=\"6\">0 0 1 0.5 0.25 0</float_array>"
        "<technique_common><accessor source=\"#na\" count=\"2\" stride=\"3\"/></technique_common></source>";
    auto r = ReadText(Doc(kSquare + normals +
                              "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
                              "<input semantic=\"NORMAL\" source=\"#n\" offset=\"1\"/><p>0 0 1 0 2 1</p></triangles>"
                              "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
                              "<input semantic=\"TEXCOORD\" source=\"#n\" offset=\"1\"/><p>0 1 2 0 3 1</p></triangles>",
                          "<node id=\"n1\"><instance_geometry url=\"#g\"/></node>"));
    ASSERT_TRUE(r.scene) << r.error;
    const C3DGeomObject* g = Nodes(*r.scene, KINDOF_MESH)[0]->GetGeomObject();
    auto* ch = static_cast<const CSpecNormalChannel*>(g->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
    ASSERT_NE(ch, nullptr);
    EXPECT_EQ(ch->GetNormalVectorList()->GetPoint(1).x, 0.5f);
    const CUVWChannel* uv = g->GetGlobalUVWChannel();
    ASSERT_NE(uv, nullptr);
    const C3DPointList& t = *uv->GetUVWPointList();
    ASSERT_GE(t.size(), 2u);
    EXPECT_EQ(t.GetPoint(0).z, 0.0f); // coordinates keep two values of three
    EXPECT_EQ(t.GetPoint(1).x, 0.5f);
    EXPECT_EQ(t.GetPoint(1).y, 0.25f);
}

// The declared up axis is kept for whoever shows the scene; the points stay as written.
TEST(Collada, UpAxisIsRecordedNotApplied) {
    const std::string tri =
        kSquare +
        "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 2</p></triangles>";
    const std::string base = Doc(tri, "<node id=\"n\"><instance_geometry url=\"#g\"/></node>");
    const std::string declared = "<up_axis>Y_UP</up_axis>";
    for (const auto& [axis, want] : std::vector<std::pair<std::string, int>>{
             {"<up_axis>X_UP</up_axis>", 0}, {"<up_axis> Z_UP\n</up_axis>", 2}, {declared, 1}, {"", 1}}) {
        std::string doc = base;
        doc.replace(doc.find(declared), declared.size(), axis);
        auto r = ReadText(doc);
        ASSERT_TRUE(r.scene) << axis;
        EXPECT_EQ(r.scene->GetCustomData().GetInt(COLLADA_UP_AXIS, -1), want) << axis;
        const C3DPoint p = Nodes(*r.scene, KINDOF_MESH)[0]->GetGeomObject()->GetPointList()->GetPoint(2);
        EXPECT_EQ(p.y, 1.0f) << axis; // (1, 1, 0) as written, untouched by the axis
    }
}

TEST(Collada, NodeTransformsAndInstancedNodes) {
    auto r = ReadText(Doc(
        kSquare +
            "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 2</p></triangles>",
        "<node id=\"top\"><translate>10 0 0</translate><rotate>0 0 1 90</rotate>"
        "<node id=\"leaf\"><matrix>2 0 0 0 0 2 0 1 0 0 2 0 0 0 0 1</matrix><instance_geometry url=\"#g\"/></node>"
        "<instance_node url=\"#lib\"/></node>",
        "<library_nodes><node id=\"lib\"><translate>0 0 5</translate><instance_geometry url=\"#g\"/>"
        "<instance_node url=\"#lib\"/></node></library_nodes>"));
    ASSERT_TRUE(r.scene) << r.error;
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 2u); // the library node's copy of itself is refused
    C4x4Matrix m;
    meshes[0]->GetNodeTM(0, m);
    // (1,0,0): scaled by 2 and lifted 1 in y by the matrix, turned to +y, moved 10 in x.
    C3DPoint p = m.TransformPoint(C3DPoint(1, 0, 0));
    EXPECT_NEAR(p.x, 9, 1e-5);
    EXPECT_NEAR(p.y, 2, 1e-5);
    meshes[1]->GetNodeTM(0, m);
    EXPECT_NEAR(m.GetTranslation().z, 5, 1e-5);
    bool cycle = false;
    for (const auto& l : r.log) cycle |= l.text.Find(L"instances itself") >= 0;
    EXPECT_TRUE(cycle);
}

// A controller's own inputs with their normals, and a skin whose bind shape shears x by y
// and moves 5 along x: points move by it, normals by its inverse transpose.
const std::string kSkinned =
    kSquare + "<source id=\"n\"><float_array id=\"na\" count=\"3\">1 0 0</float_array>"
              "<technique_common><accessor source=\"#na\" count=\"1\" stride=\"3\"/></technique_common></source>"
              "<triangles count=\"2\" material=\"A\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
              "<input semantic=\"NORMAL\" source=\"#n\" offset=\"1\"/><p>0 0 1 0 2 0 0 0 2 0 3 0</p></triangles>";
const std::string kControllers =
    "<library_effects><effect id=\"red\"><profile_COMMON><technique sid=\"c\"><lambert><diffuse><color>1 0 0 "
    "1</color></diffuse></lambert></technique></profile_COMMON></effect></library_effects>"
    "<library_materials><material id=\"paint\"><instance_effect url=\"#red\"/></material></library_materials>"
    "<library_controllers><controller id=\"skin\"><skin source=\"#g\">"
    "<bind_shape_matrix>1 1 0 5 0 1 0 0 0 0 1 0 0 0 0 1</bind_shape_matrix>"
    "<source id=\"j\"><Name_array id=\"ja\" count=\"1\">bone</Name_array></source>"
    "<vertex_weights count=\"4\"><input semantic=\"JOINT\" source=\"#j\" offset=\"0\"/>"
    "<vcount>1 1 1 1</vcount><v>0 0 0 0</v></vertex_weights></skin></controller>"
    "<controller id=\"morph\"><morph source=\"#g\" method=\"NORMALIZED\"><targets/></morph></controller>"
    "<controller id=\"lifted\"><skin source=\"#morph\"><bind_shape_matrix>1 0 0 0 0 1 0 0 0 0 1 3 0 0 0 "
    "1</bind_shape_matrix></skin></controller>"
    "<controller id=\"twice\"><skin source=\"#lifted\"><bind_shape_matrix>2 0 0 0 0 2 0 0 0 0 2 0 0 0 0 "
    "1</bind_shape_matrix></skin></controller>"
    "</library_controllers>";

C3DPoint NormalOfCorner(const C3DGeomObject& g, size_t corner) {
    auto* ch = static_cast<const CSpecNormalChannel*>(g.GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
    return ch->GetNormalVectorList()->GetPoint(static_cast<int>(ch->GetNormalFaceList()->GetIndexes()[corner]));
}

TEST(Collada, SkinsAndMorphsShowTheirBaseGeometry) {
    // The plain instance comes first: the geometry it names has other users, so it must not
    // take the mesh for itself.
    auto r = ReadText(Doc(kSkinned,
                          "<node id=\"p\"><instance_geometry url=\"#g\"/></node>"
                          "<node id=\"a\"><instance_controller url=\"#skin\"><skeleton>#bone</skeleton><bind_material>"
                          "<technique_common><instance_material symbol=\"A\" target=\"#paint\"/></technique_common>"
                          "</bind_material></instance_controller></node>"
                          "<node id=\"b\"><instance_controller url=\"#morph\"/></node>"
                          "<node id=\"c\"><instance_controller url=\"#twice\"/></node>",
                          kControllers));
    ASSERT_TRUE(r.scene) << r.error;
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 4u);
    EXPECT_EQ(meshes[0]->GetGeomObject()->GetPointList()->GetPoint(2), C3DPoint(1, 1, 0));
    meshes.erase(meshes.begin());
    // The skin: (1, 1, 0) sheared to (2, 1, 0) and moved to (7, 1, 0); normal (1, 0, 0) to (1, -1, 0) / sqrt 2.
    const C3DGeomObject& skin = *meshes[0]->GetGeomObject();
    EXPECT_EQ(skin.GetPointList()->GetPoint(2), C3DPoint(7, 1, 0));
    EXPECT_EQ(skin.GetPointList()->GetPoint(0), C3DPoint(5, 0, 0));
    EXPECT_NEAR(NormalOfCorner(skin, 0).x, 0.70710678f, 1e-6);
    EXPECT_NEAR(NormalOfCorner(skin, 0).y, -0.70710678f, 1e-6);
    // bind_material on the controller instance binds the primitives' symbols.
    const C3DMaterial* m = r.scene->GetMaterialByID(skin.GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetDiffuseColor().r, 255);
    // The morph shows its base as written, without a material of its own.
    const C3DGeomObject& morph = *meshes[1]->GetGeomObject();
    EXPECT_EQ(morph.GetPointList()->GetPoint(2), C3DPoint(1, 1, 0));
    EXPECT_EQ(NormalOfCorner(morph, 0), C3DPoint(1, 0, 0));
    EXPECT_EQ(morph.GetFaceList()->GetMaterialID(0), NO_MATERIAL);
    // A skin of a skin of a morph: the inner bind shape (up 3 in z) acts first, then the doubling.
    EXPECT_EQ(meshes[2]->GetGeomObject()->GetPointList()->GetPoint(2), C3DPoint(2, 2, 6));
}

TEST(Collada, ControllerOfTheOnlyInstanceReachedTwice) {
    // The geometry's one user is a controller instance in a library node placed twice: each
    // copy shows the bind shape once.
    auto r = ReadText(Doc(kSkinned, "<node id=\"a\"><instance_node url=\"#lib\"/><instance_node url=\"#lib\"/></node>",
                          kControllers + "<library_nodes><node id=\"lib\"><instance_controller url=\"#skin\"/></node>"
                                         "</library_nodes>"));
    ASSERT_TRUE(r.scene) << r.error;
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 2u);
    for (C3DSceneNode* n : meshes) EXPECT_EQ(n->GetGeomObject()->GetPointList()->GetPoint(2), C3DPoint(7, 1, 0));
}

TEST(Collada, ControllerChainsThatLoopOrRunDeep) {
    std::string deep;
    for (int i = 0; i < 40; ++i)
        deep += "<controller id=\"d" + std::to_string(i) + "\"><morph source=\"#" +
                (i == 39 ? std::string("g") : "d" + std::to_string(i + 1)) + "\"/></controller>";
    auto r = ReadText(Doc(kSquare + "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" "
                                    "offset=\"0\"/><p>0 1 2</p></triangles>",
                          "<node id=\"a\"><instance_controller url=\"#x\"/><instance_controller url=\"#self\"/>"
                          "<instance_controller url=\"#d0\"/><instance_controller url=\"#d30\"/>"
                          "<instance_controller url=\"#nothing\"/></node>",
                          "<library_controllers><controller id=\"x\"><skin source=\"#y\"/></controller>"
                          "<controller id=\"y\"><morph source=\"#x\"/></controller>"
                          "<controller id=\"self\"><skin source=\"#self\"/></controller>" +
                              deep + "</library_controllers>"));
    ASSERT_TRUE(r.scene) << r.error;
    // Only the chain of ten (d30 .. d39) reaches its geometry.
    EXPECT_EQ(Nodes(*r.scene, KINDOF_MESH).size(), 1u);
    int logged = 0;
    for (const auto& l : r.log) logged += l.text.Find(L"controller chain") >= 0;
    EXPECT_EQ(logged, 1);
}

// Triangles and polylists are read in batches, polygons face by face: the same corners must
// give the same faces, whichever faces name no point or have under three corners, whichever
// channel indices are out of range, across batch ends and up to a list cut short in a face.
TEST(Collada, BatchedFacesReadLikeTheSamePolygons) {
    uint32_t seed = 1;
    auto next = [&](uint32_t n) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 8) % n;
    };
    const std::string inputs = "<input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/>"
                               "<input semantic=\"NORMAL\" source=\"#n\" offset=\"1\"/>"
                               "<input semantic=\"TEXCOORD\" source=\"#t\" offset=\"2\" set=\"0\"/>";
    const std::string normals =
        "<source id=\"n\"><float_array id=\"na\" count=\"6\">0 0 1 0 1 0</float_array>"
        "<technique_common><accessor source=\"#na\" count=\"2\" stride=\"3\"/></technique_common></source>";
    auto read = [&](const std::string& prim) {
        auto r = ReadText(Doc(kSquare + normals + prim, "<node id=\"n1\"><instance_geometry url=\"#g\"/></node>"));
        EXPECT_TRUE(r.scene) << r.error;
        return r;
    };
    auto same = [](const CFaceList& x, const CFaceList& y) {
        EXPECT_EQ(x.GetNumberOfFaces(), y.GetNumberOfFaces());
        EXPECT_TRUE(x.GetIndexes() == y.GetIndexes());
        for (int f = 0; f < x.GetNumberOfFaces() && f < y.GetNumberOfFaces(); ++f)
            EXPECT_EQ(x.GetFaceSize(f), y.GetFaceSize(f));
    };
    auto normalsOf = [](const C3DGeomObject& g) {
        return static_cast<const CSpecNormalChannel*>(g.GetChannelByIndex(0, CHANNEL_SPEC_NORMAL))->GetNormalFaceList();
    };
    for (bool triangles : {true, false}) {
        const int faces = 9000;
        std::string p, vcount, polygons;
        for (int f = 0; f < faces; ++f) {
            // A few faces of under three corners, all in the first batch but the empty one.
            const uint32_t size = triangles ? 3 : f == 100 ? 2 : f == 200 ? 1 : f == 7000 ? 0 : 3 + next(4);
            std::string one;
            for (uint32_t k = 0; k < size; ++k) {
                // One corner naming no point, in the second batch only.
                const uint32_t point = f == 5001 && k == 1 ? 4 : next(4);
                one += std::to_string(point) + " " + std::to_string(next(4)) + " " + std::to_string(next(7)) + " ";
            }
            p += one;
            vcount += std::to_string(size) + " ";
            polygons += "<p>" + one + "</p>";
        }
        p += "1 0 2 1 0 3 2                    "; // a face cut short, blanks after it
        vcount += "3 3";
        const std::string count = "count=\"" + std::to_string(faces + 5) + "\">";
        auto a = read(triangles ? "<triangles " + count + inputs + "<p>" + p + "</p></triangles>"
                                : "<polylist " + count + inputs + "<vcount>" + vcount + "</vcount><p>" + p +
                                      "</p></polylist>");
        auto b = read("<polygons " + count + inputs + polygons + "</polygons>");
        ASSERT_TRUE(a.scene && b.scene);
        const C3DGeomObject& ga = *Nodes(*a.scene, KINDOF_MESH).at(0)->GetGeomObject();
        const C3DGeomObject& gb = *Nodes(*b.scene, KINDOF_MESH).at(0)->GetGeomObject();
        if (triangles) { EXPECT_EQ(ga.GetFaceList()->GetNumberOfFaces(), faces - 1); }
        same(*ga.GetFaceList(), *gb.GetFaceList());
        EXPECT_TRUE(ga.GetFaceList()->GetMaterialIDs() == gb.GetFaceList()->GetMaterialIDs());
        same(*ga.GetGlobalUVWChannel()->GetUVWFaceList(), *gb.GetGlobalUVWChannel()->GetUVWFaceList());
        same(*normalsOf(ga), *normalsOf(gb));
    }
}

// Huge declared counts with wide corners (an input at offset 1000) in a small document:
// what is set aside for each primitive's faces follows its text, not its count.
TEST(Collada, HugeCountsCostOnlyTheirText) {
    std::string geometries, nodes;
    const int n = 300;
    for (int i = 0; i < n; ++i) {
        const std::string g = "g" + std::to_string(i);
        geometries += "<geometry id=\"" + g + "\"><mesh><source id=\"" + g + "p\"><float_array id=\"" + g +
                      "a\" count=\"9\">0 0 0 1 0 0 0 1 0</float_array><technique_common><accessor source=\"#" + g +
                      "a\" count=\"3\" stride=\"3\"/></technique_common></source><vertices id=\"" + g +
                      "v\"><input semantic=\"POSITION\" source=\"#" + g + "p\"/></vertices>";
        const std::string wide = "<input semantic=\"VERTEX\" source=\"#" + g + "v\" offset=\"1000\"/>";
        geometries += "<triangles count=\"2000000000\">" + wide + "<p>0 1 2</p></triangles>";
        geometries += "<polylist count=\"2000000000\">" + wide + "<vcount>3 3 3</vcount><p>0 1 2</p></polylist>";
        geometries += "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#" + g +
                      "v\" offset=\"0\"/><p>0 1 2</p></triangles></mesh></geometry>";
        nodes += "<node id=\"n" + std::to_string(i) + "\"><instance_geometry url=\"#" + g + "\"/></node>";
    }
    auto r = ReadText("<COLLADA version=\"1.4.1\"><library_geometries>" + geometries +
                      "</library_geometries><library_visual_scenes><visual_scene id=\"s\">" + nodes +
                      "</visual_scene></library_visual_scenes></COLLADA>");
    ASSERT_TRUE(r.scene) << r.error;
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), static_cast<size_t>(n));
    for (C3DSceneNode* m : meshes) EXPECT_EQ(m->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);
    for (const auto& l : r.log) EXPECT_EQ(l.text.Find(L"cap"), -1) << l.text.c_str();
}

TEST(Collada, EncodingsDamageAndBounds) {
    const std::string doc = Doc(
        kSquare +
            "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 2</p></triangles>",
        "<node id=\"n\"><instance_geometry url=\"#g\"/></node>");
    // UTF-16 with its byte order mark.
    std::string u16 = "\xFF\xFE";
    for (char c : doc) {
        u16 += c;
        u16 += '\0';
    }
    auto r = ReadText(u16);
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(Nodes(*r.scene, KINDOF_MESH).size(), 1u);
    EXPECT_TRUE(ReadText("\xEF\xBB\xBF" + doc).scene);
    EXPECT_EQ(ReadText("<COLLADA><unclosed>").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadText("<notcollada/>").error, IO_ERR_FORMAT);
    // Counts that lie: a huge count over a short list, indices past the points, a short <p>.
    r = ReadText(
        Doc("<source id=\"p\"><float_array id=\"pa\" count=\"2000000000\">0 0 0 1 0 0 1 1 0</float_array>"
            "<technique_common><accessor source=\"#pa\" count=\"2000000000\" stride=\"3\"/></technique_common></source>"
            "<vertices id=\"v\"><input semantic=\"POSITION\" source=\"#p\"/></vertices>"
            "<triangles count=\"2000000000\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 2 0 1 9 0 "
            "1</p></triangles>",
            "<node id=\"n\"><instance_geometry url=\"#g\"/></node>"));
    ASSERT_TRUE(r.scene);
    const C3DGeomObject* g = Nodes(*r.scene, KINDOF_MESH)[0]->GetGeomObject();
    EXPECT_EQ(g->GetPointList()->GetSize(), 3);
    EXPECT_EQ(g->GetFaceList()->GetNumberOfFaces(), 1);
    // Deep nesting is cut, not recursed without end.
    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<node>";
    deep += "<instance_geometry url=\"#g\"/>";
    for (int i = 0; i < 100000; ++i) deep += "</node>";
    r = ReadText(Doc(
        kSquare +
            "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 2</p></triangles>",
        deep));
    EXPECT_FALSE(r.scene && !Nodes(*r.scene, KINDOF_MESH).empty());
}

TEST(Collada, NumberListsReadAlikeWhateverTheirMarkup) {
    // An attribute holding '>', a list with a character reference, one in a CDATA section,
    // a commented-out list: the lifted lists and the DOM's text must give the same mesh.
    const std::string doc =
        Doc("<!-- <p>9 9 9</p> --><source id=\"p\"><float_array id=\"pa\" name=\"a>b\" count=\"12\">0 0 0 1 0 0 1 1 0 "
            "0 1 0</float_array>"
            "<technique_common><accessor source=\"#pa\" count=\"4\" stride=\"3\"/></technique_common></source>"
            "<vertices id=\"v\"><input semantic=\"POSITION\" source=\"#p\"/></vertices>"
            "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0&#32;1 2</p></triangles>"
            "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p><![CDATA[0 2 "
            "3]]></p></triangles>"
            "<polylist count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><vcount>3</vcount><p>3 2 "
            "1</p></polylist>",
            "<node id=\"n\"><instance_geometry url=\"#g\"/></node>");
    std::string u16 = "\xFF\xFE"; // parsed whole, without lifting
    for (char c : doc) {
        u16 += c;
        u16 += '\0';
    }
    for (const std::string& text : {doc, u16}) {
        auto r = ReadText(text);
        ASSERT_TRUE(r.scene) << r.error;
        const C3DGeomObject* g = Nodes(*r.scene, KINDOF_MESH).at(0)->GetGeomObject();
        ASSERT_EQ(g->GetPointList()->GetSize(), 4);
        EXPECT_EQ(g->GetPointList()->GetPoint(2).y, 1.0f);
        const C3DFaceList* fl = g->GetFaceList();
        ASSERT_EQ(fl->GetNumberOfFaces(), 3);
        std::vector<uint32_t> all(fl->GetIndexes().begin(), fl->GetIndexes().end());
        EXPECT_EQ(all, (std::vector<uint32_t>{0, 1, 2, 0, 2, 3, 3, 2, 1}));
    }
}

TEST(Collada, DecimalsReadAsTheNearestFloat) {
    // Short decimals take a quicker path than long ones; both must give the nearest float.
    const char* values[] = {"0.1", "-8.12345", "16777.21", "9999999",      "0.3333333", "1234567.8", "-0",
                            "7.",  ".5",       "1e-3",     "3.4028236e38", "2.5e-46",   "0.000001"};
    std::string list;
    for (const char* v : values) list += std::string(v) + " ";
    const size_t n = std::size(values) / 3 * 3;
    auto r = ReadText(Doc(
        "<source id=\"p\"><float_array id=\"pa\">" + list +
            "</float_array><technique_common><accessor source=\"#pa\" count=\"" + std::to_string(n / 3) +
            "\" stride=\"3\"/></technique_common></source>"
            "<vertices id=\"v\"><input semantic=\"POSITION\" source=\"#p\"/></vertices>"
            "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 2</p></triangles>",
        "<node id=\"n\"><instance_geometry url=\"#g\"/></node>"));
    ASSERT_TRUE(r.scene) << r.error;
    const float* xyz = Nodes(*r.scene, KINDOF_MESH).at(0)->GetGeomObject()->GetPointList()->GetData();
    for (size_t i = 0; i < n; ++i) {
        float want = std::strtof(values[i], nullptr);
        if (!std::isfinite(want)) want = 0; // out of range reads as 0
        EXPECT_EQ(std::memcmp(&xyz[i], &want, sizeof want), 0) << values[i] << " read as " << xyz[i];
    }
}

TEST(Collada, GeometryOfOneInstanceReachedTwice) {
    // The geometry is named by one instance_geometry only, inside a library node that two
    // scene nodes instance: both copies get the mesh, its curve and its material.
    auto r = ReadText(
        Doc(kSquare + "<triangles count=\"2\" material=\"s\"><input semantic=\"VERTEX\" source=\"#v\" "
                      "offset=\"0\"/><p>0 1 2 0 2 3</p></triangles>"
                      "<lines count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1</p></lines>",
            "<node id=\"a\"><instance_node url=\"#lib\"/></node><node id=\"b\"><instance_node url=\"#lib\"/></node>",
            "<library_effects><effect id=\"fx\"><profile_COMMON><technique sid=\"c\"><lambert><diffuse><color>0 1 0 "
            "1</color>"
            "</diffuse></lambert></technique></profile_COMMON></effect></library_effects>"
            "<library_materials><material id=\"green\"><instance_effect url=\"#fx\"/></material></library_materials>"
            "<library_nodes><node id=\"lib\"><instance_geometry url=\"#g\"><bind_material><technique_common>"
            "<instance_material symbol=\"s\" target=\"#green\"/></technique_common></bind_material></instance_geometry>"
            "</node></library_nodes>"));
    ASSERT_TRUE(r.scene) << r.error;
    auto meshes = Nodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 2u);
    EXPECT_NE(meshes[0]->GetGeomObject(), meshes[1]->GetGeomObject());
    for (const C3DSceneNode* m : meshes) {
        const C3DFaceList* fl = m->GetGeomObject()->GetFaceList();
        ASSERT_EQ(fl->GetNumberOfFaces(), 2);
        const C3DMaterial* mat = r.scene->GetMaterialByID(fl->GetMaterialID(1));
        ASSERT_TRUE(mat);
        EXPECT_EQ(mat->GetDiffuseColor().g, 255);
    }
    EXPECT_EQ(Nodes(*r.scene, KINDOF_CURVE).size(), 2u);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 1);
}

TEST(Collada, AnimatedTransformsBecomeMatrixKeys) {
    const std::string anims =
        "<library_animations><animation id=\"a1\">"
        "<source id=\"t1\"><float_array id=\"t1a\" count=\"2\">0 1</float_array><technique_common><accessor "
        "source=\"#t1a\" count=\"2\"/></technique_common></source>"
        "<source id=\"v1\"><float_array id=\"v1a\" count=\"6\">0 0 0 10 0 0</float_array><technique_common><accessor "
        "source=\"#v1a\" count=\"2\" stride=\"3\"/></technique_common></source>"
        "<sampler id=\"s1\"><input semantic=\"INPUT\" source=\"#t1\"/><input semantic=\"OUTPUT\" "
        "source=\"#v1\"/></sampler>"
        "<channel source=\"#s1\" target=\"n/t\"/>"
        "<animation id=\"inner\">" // nested animations count too
        "<source id=\"t2\"><float_array id=\"t2a\" count=\"1\">0.5</float_array><technique_common><accessor "
        "source=\"#t2a\" count=\"1\"/></technique_common></source>"
        "<source id=\"v2\"><float_array id=\"v2a\" count=\"1\">90</float_array><technique_common><accessor "
        "source=\"#v2a\" count=\"1\"/></technique_common></source>"
        "<sampler id=\"s2\"><input semantic=\"INPUT\" source=\"#t2\"/><input semantic=\"OUTPUT\" "
        "source=\"#v2\"/></sampler>"
        "<channel source=\"#s2\" target=\"n/r.ANGLE\"/>"
        "<source id=\"t3\"><float_array id=\"t3a\" count=\"2\">0 2</float_array><technique_common><accessor "
        "source=\"#t3a\" count=\"2\"/></technique_common></source>"
        "<source id=\"v3\"><float_array id=\"v3a\" count=\"2\">0 7</float_array><technique_common><accessor "
        "source=\"#v3a\" count=\"2\"/></technique_common></source>"
        "<sampler id=\"s3\"><input semantic=\"INPUT\" source=\"#t3\"/><input semantic=\"OUTPUT\" "
        "source=\"#v3\"/></sampler>"
        "<channel source=\"#s3\" target=\"m/transform(0)(3)\"/>"
        "</animation></animation></library_animations>";
    auto r = ReadText(Doc(
        kSquare +
            "<triangles count=\"1\"><input semantic=\"VERTEX\" source=\"#v\" offset=\"0\"/><p>0 1 2</p></triangles>",
        "<node id=\"n\"><translate sid=\"t\">0 0 0</translate><rotate sid=\"r\">0 0 1 0</rotate><instance_geometry "
        "url=\"#g\"/></node>"
        "<node id=\"m\"><matrix sid=\"transform\">1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 1</matrix><scale>2 2 2</scale></node>",
        anims));
    ASSERT_TRUE(r.scene) << r.error;
    C3DNodePos pos = r.scene->GetFirstNode();
    C3DSceneNode* n = r.scene->GetNextNode(pos);
    C3DSceneNode* m = r.scene->GetNextNode(pos);
    ASSERT_TRUE(n && m);
    // Keys at every time either channel has (0, 0.5 and 1 s at 4800 ticks a second), each
    // the whole transform: the move interpolated, the turn held before its only key.
    ASSERT_EQ(n->GetKeyNbr(KEY_MATRIX), 3);
    const C3DPoint expect[3] = {{0, 1, 0}, {5, 1, 0}, {10, 1, 0}};
    for (int i = 0; i < 3; ++i) {
        auto* k = static_cast<C3DMatrixKey*>(n->GetKeyByIndex(KEY_MATRIX, i));
        EXPECT_EQ(k->GetTime(), 2400 * i);
        const C3DPoint p = k->matrix.TransformPoint(C3DPoint(1, 0, 0));
        EXPECT_NEAR(p.x, expect[i].x, 1e-4) << i;
        EXPECT_NEAR(p.y, expect[i].y, 1e-4) << i;
    }
    // One value of a matrix: row 0, column 3 is the move along x, under the node's scale.
    ASSERT_EQ(m->GetKeyNbr(KEY_MATRIX), 2);
    auto* last = static_cast<C3DMatrixKey*>(m->GetKeyByIndex(KEY_MATRIX, 1));
    EXPECT_EQ(last->GetTime(), 9600);
    EXPECT_NEAR(last->matrix.TransformPoint(C3DPoint(1, 0, 0)).x, 9, 1e-4);
    EXPECT_EQ(r.scene->GetAnimationStart(), 0);
    EXPECT_EQ(r.scene->GetAnimationEnd(), 9600);
}

TEST(Collada, ReachedThroughTheGenericReader) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "m.dae", Doc(kSquare + "<triangles count=\"1\"><input semantic=\"VERTEX\" "
                                                        "source=\"#v\" offset=\"0\"/><p>0 1 2</p></triangles>",
                                              "<node id=\"n\"><instance_geometry url=\"#g\"/></node>"));
    CFileIo io;
    auto scene = C3DIo::ReadScene(CXStringW(Utf8ToWide((dir / "m.dae").string())), io);
    ASSERT_TRUE(scene) << io.GetIoError();
    EXPECT_EQ(scene->GetChildCount(nullptr, KINDOF_MESH), 1);
    // The host's own format is found, but not listed among the modules' records.
    for (const auto& f : CParserRegistry::Instance().Formats()) EXPECT_NE(f.ext.typeID, COLLADA_TYPE_ID);
}

TEST(ColladaCorpus, EveryDocumentReads) {
    SKIP_WITHOUT_CORPUS();
    int read = 0;
    for (const auto& f : testsupport::CorpusFiles("dae")) {
        CFileIo io;
        CSceneImportOptions opt;
        CColladaIo parser(io);
        std::unique_ptr<C3DScene> s(parser.Read(CXStringW(Utf8ToWide(f.string())), opt));
        EXPECT_TRUE(s) << f << " error " << io.GetIoError();
        read += s != nullptr;
        // Meshes, points and faces counted from the documents' own counts, for four of them.
        static const std::map<std::string, std::array<int, 3>> kCounted = {
            {"duck.dae", {1, 2108, 2144}},
            {"teapot_instancenodes.DAE", {2, 1060, 2048}}, // the teapot and its instanced node
            {"cube_triangulate.dae", {1, 8, 12}},
            {"COLLADA.dae", {2, 3370, 6720}}};
        auto it = kCounted.find(f.filename().string());
        if (!s || it == kCounted.end()) continue;
        std::array<int, 3> have{};
        for (const C3DSceneNode* n : Nodes(*s, KINDOF_MESH)) {
            ++have[0];
            have[1] += n->GetGeomObject()->GetPointList()->GetSize();
            have[2] += n->GetGeomObject()->GetFaceList()->GetNumberOfFaces();
        }
        EXPECT_EQ(have, it->second) << f;
    }
    EXPECT_EQ(read, 10);
}

} // namespace
