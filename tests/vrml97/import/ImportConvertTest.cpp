// Conversion of node kinds: materials and textures, IndexedFaceSet meshes with
// their channels and bad index runs, line sets, primitives with their exact
// arguments, Transform and Viewpoint matrices, alternatives, lights,
// ElevationGrid and Extrusion.
#include <gtest/gtest.h>

#include <cmath>

#include "plugin/host/Primitives.h"
#include "tests/vrml97/import/ImportTestUtil.h"
#include "vrml/vrml97/import/ImportNames.h"

using namespace importtest;

namespace {

C3DGeomObject* Geom(C3DSceneNode* n) { return n ? n->GetGeomObject() : nullptr; }

C3DSceneNode* OnlyMesh(const C3DScene& s, uint32_t kind = KINDOF_MESH) {
    auto v = AllNodes(s, kind);
    EXPECT_EQ(v.size(), 1u);
    return v.empty() ? nullptr : v[0];
}

std::vector<uint32_t> FaceIdx(const CFaceList& fl, int f) {
    auto s = fl.Face(f);
    return {s.begin(), s.end()};
}

const char* kQuad = "coord Coordinate { point [0 0 0, 1 0 0, 1 1 0, 0 1 0] }";

void ExpectNear(const C3DPoint& a, const C3DPoint& b) {
    EXPECT_NEAR(a.x, b.x, 1e-5);
    EXPECT_NEAR(a.y, b.y, 1e-5);
    EXPECT_NEAR(a.z, b.z, 1e-5);
}

} // namespace

TEST(Vrml97ImportConvert, MaterialTakesClampedColoursAndUnscaledFactors) {
    ReadResult r =
        ReadWorld(World(std::string("Shape { appearance Appearance { material Material {"
                                    " diffuseColor 1 0.5 2 specularColor -1 0.2 1 shininess 0.3 transparency 0.25 } }"
                                    " geometry IndexedFaceSet { ") +
                        kQuad + " coordIndex [0 1 2 -1 0 2 3] } }"));
    ASSERT_TRUE(r.scene);
    ASSERT_EQ(r.scene->GetMaterialNumber(), 1);
    CMaterialPos pos;
    auto* m = static_cast<C3DStandardMaterial*>(r.scene->GetFirstMaterial(pos));
    EXPECT_GT(NumberAfter(WideToUtf8(m->GetName().str()), "Mat"), 0);
    EXPECT_EQ(m->GetDiffuseColor(), CRGBColor(255, 127, 255));
    EXPECT_EQ(m->GetSpecularColor(), CRGBColor(0, 51, 255));
    EXPECT_FLOAT_EQ(m->GetSpecularFactor(), 0.3f);
    EXPECT_FLOAT_EQ(m->GetTransparency(), 0.25f);
    C3DGeomObject* g = Geom(OnlyMesh(*r.scene));
    ASSERT_TRUE(g);
    ASSERT_EQ(g->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(g->GetFaceList()->GetMaterialID(0), m->GetID());
    EXPECT_EQ(g->GetFaceList()->GetMaterialID(1), m->GetID());
}

TEST(Vrml97ImportConvert, ShapeWithoutMaterialHasNoneAndSaysSo) {
    CaptureSystem sys;
    ReadResult r =
        ReadWorld(World("Shape { appearance Appearance { texture ImageTexture { url \"a.png\" } } geometry Box {} }"
                        "Shape { geometry Sphere {} }"));
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 0);
    for (auto* n : AllNodes(*r.scene, KINDOF_MESH)) {
        const C3DFaceList* fl = Geom(n)->GetFaceList();
        ASSERT_GT(fl->GetNumberOfFaces(), 0);
        for (int f = 0; f < fl->GetNumberOfFaces(); ++f) EXPECT_EQ(fl->GetMaterialID(f), NO_MATERIAL);
    }
    size_t first = sys.text.find("Material pointer is Null\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(sys.text.find("Material pointer is Null\n", first + 1), std::string::npos);
}

TEST(Vrml97ImportConvert, TexturePathRulesApplyInTheirOrder) {
    using vrml97import::RewriteTexturePath;
    auto rw = [](const wchar_t* s) { return RewriteTexturePath(CXStringW(s)).str(); };
    // A drive path gets a doubled separator after the colon; that is the required result.
    EXPECT_EQ(rw(L"C:/maps/wood.png"), L"C:\\\\maps\\wood.png");
    EXPECT_EQ(rw(L"wood.png"), L".\\wood.png");
    EXPECT_EQ(rw(L"tex/a/b.jpg"), L".\\tex\\a\\b.jpg");
    EXPECT_EQ(rw(L"a\\\\b.png"), L".\\a\\b.png");           // pairs of backslashes first
    EXPECT_EQ(rw(L"asset:img/x.png"), L".\\.\\img\\x.png"); // asset: goes before the colon test
    EXPECT_EQ(rw(L"http://h/x.png"), L"http:\\\\\\h\\x.png");
}

TEST(Vrml97ImportConvert, ImageTextureBecomesADiffuseMapFromItsFirstUrlOnly) {
    std::string shape =
        "Shape { appearance Appearance { material Material {} texture ImageTexture { url %s } } geometry Box {} }";
    auto world = [&](const std::string& url) {
        std::string s = shape;
        s.replace(s.find("%s"), 2, url);
        return World(s);
    };
    ReadResult r = ReadWorld(world("[\"maps/wood.png\" \"other.png\"]"));
    ASSERT_TRUE(r.scene);
    CMaterialPos pos;
    C3DMaterial* m = r.scene->GetFirstMaterial(pos);
    ASSERT_EQ(m->GetMaterialMapCount(), 1);
    CMaterialMap* map = m->GetMaterialMapByIndex(0);
    EXPECT_EQ(map->file.str(), L".\\maps\\wood.png");
    EXPECT_EQ(map->channel, 1);
    EXPECT_EQ(map->type, 1u);
    EXPECT_EQ(map->projection, 1u);
    // The placement and file records number on from the material.
    long mat = NumberAfter(WideToUtf8(m->GetName().str()), "Mat");
    EXPECT_EQ(NumberAfter(WideToUtf8(m->GetCustomData().GetString(FourCC("P2DT")).str()), "place2dTexture"), mat + 1);
    EXPECT_EQ(NumberAfter(WideToUtf8(m->GetCustomData().GetString(FourCC("FILE")).str()), "file"), mat + 2);

    for (const char* url : {"[\"\" \"b.png\"]", "[]"}) {
        ReadResult e = ReadWorld(world(url));
        ASSERT_TRUE(e.scene);
        CMaterialPos p2;
        EXPECT_EQ(e.scene->GetFirstMaterial(p2)->GetMaterialMapCount(), 0) << url;
    }
}

TEST(Vrml97ImportConvert, FacesAreTheValidRunsOfCoordIndex) {
    // Runs: [0 1 2] ok; empty; [1 2] too short; [0 -5 2] bad; [0 1 9] beyond; [3] short; [0 2 3] last without -1.
    ReadResult r = ReadWorld(World(std::string("Shape { geometry IndexedFaceSet { ") + kQuad +
                                   " coordIndex [0 1 2 -1 -1 1 2 -1 0 -5 2 -1 0 1 9 -1 3 -1 0 2 3] } }"));
    ASSERT_TRUE(r.scene);
    C3DGeomObject* g = Geom(OnlyMesh(*r.scene));
    ASSERT_TRUE(g);
    EXPECT_EQ(g->GetPointList()->GetSize(), 4);
    ASSERT_EQ(g->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(FaceIdx(*g->GetFaceList(), 0), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(FaceIdx(*g->GetFaceList(), 1), (std::vector<uint32_t>{0, 2, 3}));
    EXPECT_TRUE(r.LogHas(L"4 faces or lines were left out")) << (r.log.empty() ? "" : WideToUtf8(r.log[0]));
    // Points but no coordIndex at all: a mesh with points and no faces.
    ReadResult n = ReadWorld(World(std::string("Shape { geometry IndexedFaceSet { ") + kQuad + " } }"));
    ASSERT_TRUE(n.scene);
    EXPECT_EQ(Geom(OnlyMesh(*n.scene))->GetFaceList()->GetNumberOfFaces(), 0);
}

TEST(Vrml97ImportConvert, VertexColoursAndTextureCoordinatesBecomeGlobalChannels) {
    ReadResult r =
        ReadWorld(World(std::string("Shape { geometry IndexedFaceSet { ") + kQuad +
                        " coordIndex [0 1 2 -1 0 2 3 -1]"
                        " color Color { color [1 0 0, 0 1 0, 0 0 1, 2 -1 0.5] } colorIndex [3 2 1 -1 0 0 0 -1]"
                        " texCoord TextureCoordinate { point [0 0, 1 0, 1 1] } } }"));
    ASSERT_TRUE(r.scene);
    C3DGeomObject* g = Geom(OnlyMesh(*r.scene));
    ASSERT_TRUE(g);
    CVCChannel* vc = g->GetGlobalVCChannel();
    ASSERT_TRUE(vc);
    ASSERT_EQ(vc->GetVCPointList()->GetSize(), 4);
    EXPECT_EQ((*vc->GetVCPointList())[3], CRGBColor(255, 0, 127)); // clamped into 0..1 first
    EXPECT_EQ(FaceIdx(*vc->GetVCFaceList(), 0), (std::vector<uint32_t>{3, 2, 1}));
    EXPECT_EQ(FaceIdx(*vc->GetVCFaceList(), 1), (std::vector<uint32_t>{0, 0, 0}));
    // No texCoordIndex: the coordIndex picks them, and index 3 is beyond the 3 points.
    EXPECT_EQ(g->GetGlobalUVWChannel(), nullptr);
    EXPECT_TRUE(r.LogHas(L"lost their texture coordinates"));

    ReadResult t = ReadWorld(
        World(std::string("Shape { geometry IndexedFaceSet { ") + kQuad +
              " coordIndex [0 1 2 -1 0 2 3 -1]"
              " texCoord TextureCoordinate { point [0 0, 1 0, 1 1, 0 1] } texCoordIndex [3 2 1 -1 0 1 2 -1] } }"));
    ASSERT_TRUE(t.scene);
    C3DGeomObject* tg = Geom(OnlyMesh(*t.scene));
    CUVWChannel* uv = tg->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    EXPECT_EQ(uv->GetChannelID(), 1); // the channel the texture maps name
    EXPECT_EQ(uv->GetUVWPointList()->GetPoint(3), C3DPoint(0, 1, 0));
    EXPECT_EQ(FaceIdx(*uv->GetUVWFaceList(), 0), (std::vector<uint32_t>{3, 2, 1}));
    EXPECT_EQ(FaceIdx(*uv->GetUVWFaceList(), 1), (std::vector<uint32_t>{0, 1, 2}));
}

TEST(Vrml97ImportConvert, ShortOrBadColourIndexListsGiveNoChannel) {
    const std::string head =
        std::string("Shape { geometry IndexedFaceSet { ") + kQuad + " coordIndex [0 1 2 -1 0 2 3 -1] ";
    // Per vertex, colorIndex shorter than coordIndex.
    ReadResult a = ReadWorld(World(head + "color Color { color [1 0 0, 0 1 0] } colorIndex [0 1 0 -1 1] } }"));
    ASSERT_TRUE(a.scene);
    EXPECT_EQ(Geom(OnlyMesh(*a.scene))->GetGlobalVCChannel(), nullptr);
    EXPECT_TRUE(a.LogHas(L"lost their colours"));
    // Per face: one colour per run, by position or by colorIndex.
    ReadResult b = ReadWorld(World(head + "colorPerVertex FALSE color Color { color [1 0 0, 0 1 0] } } }"));
    CVCChannel* vc = Geom(OnlyMesh(*b.scene))->GetGlobalVCChannel();
    ASSERT_TRUE(vc);
    EXPECT_EQ(FaceIdx(*vc->GetVCFaceList(), 0), (std::vector<uint32_t>{0, 0, 0}));
    EXPECT_EQ(FaceIdx(*vc->GetVCFaceList(), 1), (std::vector<uint32_t>{1, 1, 1}));
    ReadResult c =
        ReadWorld(World(head + "colorPerVertex FALSE color Color { color [1 0 0, 0 1 0] } colorIndex [1] } }"));
    EXPECT_EQ(Geom(OnlyMesh(*c.scene))->GetGlobalVCChannel(), nullptr);
    // Per vertex without colorIndex: the coordIndex must stay inside the colours.
    ReadResult d = ReadWorld(World(head + "color Color { color [1 0 0, 0 1 0, 0 0 1] } } }"));
    EXPECT_EQ(Geom(OnlyMesh(*d.scene))->GetGlobalVCChannel(), nullptr);
}

TEST(Vrml97ImportConvert, CcwFalseInvertsWindingAndCreaseAngleIsKeptInRadians) {
    const std::string base = std::string("Shape { geometry IndexedFaceSet { ") + kQuad + " coordIndex [0 1 2 -1]";
    ReadResult a = ReadWorld(World(base + " texCoord TextureCoordinate { point [0 0, 1 0, 1 1] } creaseAngle 0.5 } }"));
    ReadResult b =
        ReadWorld(World(base + " texCoord TextureCoordinate { point [0 0, 1 0, 1 1] } ccw FALSE creaseAngle 1.5 } }"));
    ASSERT_TRUE(a.scene && b.scene);
    C3DGeomObject* ga = Geom(OnlyMesh(*a.scene));
    C3DGeomObject* gb = Geom(OnlyMesh(*b.scene));
    EXPECT_FLOAT_EQ(ga->GetSmoothAngle(), 0.5f);
    EXPECT_FLOAT_EQ(gb->GetSmoothAngle(), 1.5f);
    C3DVector na = FaceNormal(*ga->GetPointList(), ga->GetFaceList()->Face(0));
    C3DVector nb = FaceNormal(*gb->GetPointList(), gb->GetFaceList()->Face(0));
    EXPECT_FLOAT_EQ(na.z, 1.0f);
    EXPECT_FLOAT_EQ(nb.z, -1.0f);
    // The channel turns with the mesh: each corner keeps its texture coordinate.
    const CFaceList& mf = *gb->GetFaceList();
    const CFaceList& uf = *gb->GetGlobalUVWChannel()->GetUVWFaceList();
    for (int k = 0; k < 3; ++k) EXPECT_EQ(mf.Face(0)[k], uf.Face(0)[k]);
}

TEST(Vrml97ImportConvert, IndexedLineSetBecomesACurveWithEveryPoint) {
    ReadResult r = ReadWorld(
        World("Shape { appearance Appearance { material Material {} } geometry IndexedLineSet {"
              " coord Coordinate { point [0 0 0, 1 0 0, 1 1 0, 5 5 5] } coordIndex [0 1 2 -1 2 -1 0 7 -1 2 0] } }"));
    ASSERT_TRUE(r.scene);
    C3DSceneNode* n = OnlyMesh(*r.scene, KINDOF_CURVE);
    ASSERT_TRUE(n);
    C3DGeomObject* c = Geom(n);
    EXPECT_EQ(c->GetKindOf(), static_cast<uint32_t>(KINDOF_CURVE));
    EXPECT_EQ(c->GetPointList()->GetSize(), 4);
    EXPECT_EQ(c->GetPointList()->GetPoint(3), C3DPoint(5, 5, 5));
    ASSERT_EQ(c->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(FaceIdx(*c->GetFaceList(), 1), (std::vector<uint32_t>{2, 0}));
    CMaterialPos pos;
    EXPECT_EQ(c->GetFaceList()->GetMaterialID(0), r.scene->GetFirstMaterial(pos)->GetID());
}

TEST(Vrml97ImportConvert, PrimitivesComeFromTheHostBuildersWithTheirArguments) {
    ReadResult r =
        ReadWorld(World("Shape { appearance Appearance { material Material {} } geometry Box { size 1 2 3 } }"
                        "Shape { appearance Appearance { material Material {} } geometry Sphere { radius 2 } }"
                        "Shape { geometry Cone { bottomRadius 0.5 height 4 } }"
                        "Shape { geometry Cylinder { radius 3 height 1 } }"));
    ASSERT_TRUE(r.scene);
    auto meshes = AllNodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 4u);
    CMaterialPos pos;
    uint32_t m1 = r.scene->GetFirstMaterial(pos)->GetID();
    uint32_t m2 = r.scene->GetNextMaterial(pos)->GetID();
    std::unique_ptr<C3DSceneNode> cube(CreateCube(C3DPoint(0, 0, 0), 1, 2, 3, false, m1, -1));
    std::unique_ptr<C3DSceneNode> sphere(CreateSphere(C3DPoint(0, 0, 0), 2, 16, 16, false, m2, -1));
    std::unique_ptr<C3DSceneNode> cone(CreateCone(C3DPoint(0, 0, 0), 0.5, 4, 0, 16, 1, false, NO_MATERIAL, -1));
    std::unique_ptr<C3DSceneNode> cyl(CreateCylinder(C3DPoint(0, 0, 0), 3, 1, 0, 16, 1, true, false, NO_MATERIAL, -1));
    C3DSceneNode* expected[] = {cube.get(), sphere.get(), cone.get(), cyl.get()};
    for (int i = 0; i < 4; ++i) {
        const C3DGeomObject* got = Geom(meshes[i]);
        const C3DGeomObject* want = expected[i]->GetGeomObject();
        EXPECT_EQ(got->GetPointList()->Raw(), want->GetPointList()->Raw()) << i;
        EXPECT_EQ(got->GetFaceList()->GetIndexes(), want->GetFaceList()->GetIndexes()) << i;
        EXPECT_EQ(got->GetFaceList()->GetMaterialIDs(), want->GetFaceList()->GetMaterialIDs()) << i;
        EXPECT_EQ(got->GetChannelCount(), 0) << i;
    }
}

TEST(Vrml97ImportConvert, TransformMatrixBecomesAMatrixKey) {
    ReadResult r = ReadWorld(World("Transform { translation 10 0 0 rotation 0 0 1 1.5707963 scale 2 2 2 center 1 0 0"
                                   " children Shape { geometry Box {} } }"));
    ASSERT_TRUE(r.scene);
    auto top = Children(*r.scene);
    ASSERT_EQ(top.size(), 1u);
    EXPECT_EQ(top[0]->GetBaseObject()->GetKindOf(), static_cast<uint32_t>(KINDOF_GROUP));
    C4x4Matrix m = MatrixKey(top[0]);
    // T * C * R * S * -C applied to (2,0,0): (2-1)*2 = 2 along x, turned to y, +center +translation.
    ExpectNear(m.TransformPoint(C3DPoint(2, 0, 0)), C3DPoint(11, 2, 0));
    ExpectNear(m.TransformPoint(C3DPoint(1, 0, 0)), C3DPoint(11, 0, 0));
    C4x4Matrix world;
    Children(*r.scene, top[0])[0]->GetNodeTM(0, world);
    ExpectNear(world.TransformPoint(C3DPoint(1, 0, 0)), C3DPoint(11, 0, 0));
}

TEST(Vrml97ImportConvert, ViewpointBecomesACameraAtItsPosition) {
    ReadResult r =
        ReadWorld(World("Viewpoint { position 1 2 3 orientation 0 1 0 0 fieldOfView 0.5 description \"Front view\" }"
                        "Viewpoint { position 0 0 0 orientation 0 1 0 1.5707963 }"
                        "Viewpoint { orientation 0 0 0 1 }"));
    ASSERT_TRUE(r.scene);
    auto cams = AllNodes(*r.scene, KINDOF_CAMERA);
    ASSERT_EQ(cams.size(), 3u);
    EXPECT_EQ(Name(cams[0]), "Front view");
    EXPECT_EQ(Name(cams[1]), "");
    auto* cam = static_cast<C3DCamera*>(cams[0]->GetBaseObject());
    EXPECT_EQ(cam->GetProjection(), 0);
    EXPECT_FLOAT_EQ(cam->GetVFov(), 0.5f);
    C4x4Matrix m = MatrixKey(cams[0]);
    C4x4Matrix expect = C4x4Matrix::Translation(1, 2, 3);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) EXPECT_EQ(m.m[i][j], expect.m[i][j]);
    // Turned a quarter left about +Y, the camera looks down -X (row vectors, like every host matrix).
    ExpectNear(MatrixKey(cams[1]).TransformVector(C3DVector(0, 0, -1)), C3DVector(-1, 0, 0));
    // A zero axis turns nothing; the default position stays.
    C4x4Matrix z = MatrixKey(cams[2]);
    EXPECT_EQ(z.GetTranslation(), C3DPoint(0, 0, 10));
    z.SetTranslation(0, 0, 0);
    EXPECT_TRUE(z.IsIdentity());
}

TEST(Vrml97ImportConvert, EveryAlternativeBecomesANode) {
    ReadResult r = ReadWorld(World("Switch { whichChoice 0 choice [ DEF S1 Shape { geometry Box {} }"
                                   " Transform { translation 1 0 0 children Shape { geometry Sphere {} } }"
                                   " Group { } ] }"
                                   "LOD { level [ Shape { geometry Box {} } Shape { geometry Cone {} } ] }"));
    ASSERT_TRUE(r.scene);
    auto top = Children(*r.scene);
    ASSERT_EQ(top.size(), 5u);
    EXPECT_EQ(Name(top[0]), "S1");
    EXPECT_EQ(top[0]->GetKindOf(), static_cast<uint32_t>(KINDOF_MESH)); // the shape went into the node itself
    EXPECT_EQ(top[1]->GetKindOf(), static_cast<uint32_t>(KINDOF_GROUP));
    EXPECT_EQ(Children(*r.scene, top[1]).size(), 1u);
    EXPECT_EQ(MatrixKey(top[1]).GetTranslation(), C3DPoint(1, 0, 0));
    EXPECT_EQ(Children(*r.scene, top[2]).size(), 0u);
    EXPECT_EQ(top[3]->GetKindOf(), static_cast<uint32_t>(KINDOF_MESH));
    EXPECT_EQ(top[4]->GetKindOf(), static_cast<uint32_t>(KINDOF_MESH));
    EXPECT_EQ(AllNodes(*r.scene, KINDOF_MESH).size(), 4u);
}

TEST(Vrml97ImportConvert, LightsBecomeHostLights) {
    ReadResult r = ReadWorld(World("DEF Sun DirectionalLight { direction 0 -1 0 color 1 2 0 intensity 0.5 }"
                                   "PointLight { location 1 2 3 radius 7 attenuation 0 1 0 on FALSE }"
                                   "SpotLight { location 0 5 0 direction 0 -1 0 beamWidth 0.3 cutOffAngle 0.6 }"));
    ASSERT_TRUE(r.scene);
    auto lights = AllNodes(*r.scene, KINDOF_LIGHT);
    ASSERT_EQ(lights.size(), 3u);
    auto* d = static_cast<C3DLight*>(lights[0]->GetBaseObject());
    auto* p = static_cast<C3DLight*>(lights[1]->GetBaseObject());
    auto* s = static_cast<C3DLight*>(lights[2]->GetBaseObject());
    EXPECT_EQ(Name(lights[0]), "Sun");
    EXPECT_EQ(Name(lights[1]), "PointLight");
    EXPECT_EQ(d->GetLightKind(), LIGHT_DIRECTIONAL);
    EXPECT_EQ(d->direction, C3DVector(0, -1, 0));
    EXPECT_EQ(d->color, CRGBColor(255, 255, 0));
    EXPECT_FLOAT_EQ(d->intensity, 0.5f);
    EXPECT_EQ(p->GetLightKind(), LIGHT_POINT);
    EXPECT_EQ(p->location, C3DPoint(1, 2, 3));
    EXPECT_FLOAT_EQ(p->radius, 7);
    EXPECT_EQ(p->attenuation, C3DVector(0, 1, 0));
    EXPECT_FALSE(p->on);
    EXPECT_EQ(s->GetLightKind(), LIGHT_SPOT);
    EXPECT_FLOAT_EQ(s->beamWidth, 0.3f);
    EXPECT_FLOAT_EQ(s->cutOffAngle, 0.6f);
}

TEST(Vrml97ImportConvert, ElevationGridIsAGridOfQuadsFacingUp) {
    ReadResult r = ReadWorld(World("Shape { geometry ElevationGrid { xDimension 3 zDimension 2 xSpacing 2 zSpacing 0.5"
                                   " height [0 1 2 3 4 5] color Color { color [1 0 0, 0 1 0] } colorPerVertex FALSE } }"
                                   "Shape { geometry ElevationGrid { xDimension 3 zDimension 3 height [0 0 0] } }"));
    ASSERT_TRUE(r.scene);
    C3DGeomObject* g = Geom(OnlyMesh(*r.scene));
    ASSERT_TRUE(g);
    ASSERT_EQ(g->GetPointList()->GetSize(), 6);
    EXPECT_EQ(g->GetPointList()->GetPoint(5), C3DPoint(4, 5, 0.5f));
    ASSERT_EQ(g->GetFaceList()->GetNumberOfFaces(), 2);
    C3DVector n = FaceNormal(*g->GetPointList(), g->GetFaceList()->Face(0));
    EXPECT_GT(n.y, 0.0f);
    CVCChannel* vc = g->GetGlobalVCChannel();
    ASSERT_TRUE(vc);
    EXPECT_EQ(FaceIdx(*vc->GetVCFaceList(), 1), (std::vector<uint32_t>{1, 1, 1, 1}));
    CUVWChannel* uv = g->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    EXPECT_EQ(uv->GetUVWPointList()->GetPoint(5), C3DPoint(1, 1, 0));
    EXPECT_TRUE(r.LogHas(L"too little data"));
}

TEST(Vrml97ImportConvert, ExtrusionSweepsTheCrossSectionWithOutwardFaces) {
    // The defaults: a square swept from y=0 to y=1, both caps: a closed box.
    ReadResult r =
        ReadWorld(World("Shape { geometry Extrusion {} }"
                        "Transform { translation 5 0 0 children Shape { geometry Extrusion {"
                        " crossSection [1 0, 0 1, -1 0, 0 -1, 1 0] spine [0 0 0, 1 0 0, 1 1 0] scale [1 1, 2 2, 1 1]"
                        " beginCap FALSE } } }"));
    ASSERT_TRUE(r.scene);
    auto meshes = AllNodes(*r.scene, KINDOF_MESH);
    ASSERT_EQ(meshes.size(), 2u);
    C3DGeomObject* box = Geom(meshes[0]);
    EXPECT_EQ(box->GetPointList()->GetSize(), 8); // the closed cross-section shares its seam
    ASSERT_EQ(box->GetFaceList()->GetNumberOfFaces(), 6);
    C3DBox bb = box->GetBoundingBox();
    EXPECT_EQ(bb.min, C3DPoint(-1, 0, -1));
    EXPECT_EQ(bb.max, C3DPoint(1, 1, 1));
    const C3DPoint centre(0, 0.5f, 0);
    for (int f = 0; f < 6; ++f) {
        auto face = box->GetFaceList()->Face(f);
        C3DVector n = FaceNormal(*box->GetPointList(), face);
        C3DPoint mid;
        for (uint32_t i : face) mid += box->GetPointList()->GetPoint(static_cast<int>(i));
        mid = mid * (1.0f / static_cast<float>(face.size()));
        EXPECT_GT(n.Dot(mid - centre), 0.0f) << "face " << f;
    }
    ASSERT_TRUE(box->GetGlobalUVWChannel());
    EXPECT_EQ(box->GetGlobalUVWChannel()->GetUVWFaceList()->GetNumberOfFaces(), 6);

    C3DGeomObject* bent = Geom(meshes[1]);
    EXPECT_EQ(bent->GetPointList()->GetSize(), 12);
    EXPECT_EQ(bent->GetFaceList()->GetNumberOfFaces(), 2 * 4 + 1);
    // The middle ring is scaled by 2 around the bend.
    float far = 0;
    for (int i = 4; i < 8; ++i) {
        C3DPoint p = bent->GetPointList()->GetPoint(i) - C3DPoint(1, 0, 0);
        far = std::max(far, p.Length());
    }
    EXPECT_NEAR(far, 2.0f, 1e-5);
}
