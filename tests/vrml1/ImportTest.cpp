// VRML 1.0 / Inventor files read into the host scene: state, transforms, shapes,
// bindings, inlined files, and what comes back for damaged or hostile input.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>

#include "plugin/host/Channel.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "tests/support/TestSupport.h"
#include "vrml/vrml1/CVrmlIo.h"
#include "vrml/vrml1/QvIn.h"
#include "vrml/vrml1/QvNode.h"
#include "vrml/vrml1/Vrml1Import.h"

namespace {

struct Result {
    std::unique_ptr<C3DScene> scene;
    int error = 0;
    std::vector<IoLogInfo> log;
};

Result ReadText(const std::string& text) {
    CFileIo io;
    CSceneImportOptions opt;
    CVrmlIo parser(io);
    Result r;
    r.scene.reset(
        parser.ReadMemory(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()), opt));
    r.error = io.GetIoError();
    r.log = opt.GetLog();
    return r;
}

Result ReadPath(const std::filesystem::path& p) {
    CFileIo io;
    CSceneImportOptions opt;
    CVrmlIo parser(io);
    Result r;
    r.scene.reset(parser.Read(CXStringW(Utf8ToWide(p.string())), opt));
    r.error = io.GetIoError();
    r.log = opt.GetLog();
    return r;
}

std::vector<C3DSceneNode*> Nodes(const C3DScene& s) {
    std::vector<C3DSceneNode*> out;
    C3DNodePos pos = s.GetFirstNode(KINDOF_ALL);
    while (C3DSceneNode* n = s.GetNextNode(pos)) out.push_back(n);
    return out;
}

std::vector<C3DSceneNode*> Meshes(const C3DScene& s) {
    std::vector<C3DSceneNode*> out;
    for (C3DSceneNode* n : Nodes(s))
        if (n->GetKindOf() == KINDOF_MESH) out.push_back(n);
    return out;
}

C3DPoint World(const C3DSceneNode& n, int i) {
    C4x4Matrix m;
    n.GetNodeTM(0, m);
    return m.TransformPoint(n.GetGeomObject()->GetPointList()->GetPoint(i));
}

void ExpectNear(const C3DPoint& a, const C3DPoint& b) {
    EXPECT_NEAR(a.x, b.x, 1e-5);
    EXPECT_NEAR(a.y, b.y, 1e-5);
    EXPECT_NEAR(a.z, b.z, 1e-5);
}

const char* kSquare = "Coordinate3 { point [ 0 0 0, 1 0 0, 1 1 0, 0 1 0 ] }\n";

TEST(Vrml1Import, SeparatorsScopeStateAndTransformsAccumulate) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "Translation { translation 10 0 0 }\n"
                      "DEF Inner Separator { Rotation { rotation 0 0 1 1.5707963 } Scale { scaleFactor 2 2 2 }\n"
                      "  IndexedFaceSet { coordIndex [ 0, 1, 2, 3, -1 ] } }\n"
                      "IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] }\n}\n");
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(r.scene->GetUnit(), UNIT_METER);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 2u);
    // Inside: scaled by 2, turned a quarter to the left, then moved by 10 along x.
    ExpectNear(World(*meshes[0], 1), C3DPoint(10, 2, 0));
    ExpectNear(World(*meshes[0], 3), C3DPoint(8, 0, 0));
    EXPECT_EQ(meshes[0]->GetParent()->GetName(), CXStringW(L"Inner"));
    // After the inner Separator its rotation and scale are gone; the translation stays.
    ExpectNear(World(*meshes[1], 1), C3DPoint(11, 0, 0));
    EXPECT_EQ(meshes[1]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);
}

TEST(Vrml1Import, TransformFieldsAndMatrixActInTheirOrder) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "Transform { translation 1 2 3 rotation 0 1 0 3.14159265 scaleFactor 2 1 1 center 1 0 0 }\n"
                      "MatrixTransform { matrix 1 0 0 0  0 1 0 0  0 0 1 0  0 0 5 1 }\n"
                      "IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 1u);
    // p=(1,0,0): +5 z, -center, scale x2, turn half about y, +center, translate.
    ExpectNear(World(*meshes[0], 1), C3DPoint(1 - 0 + 1, 2, 3 - 5));
}

TEST(Vrml1Import, FaceListsDropWhatCannotBeAFace) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "IndexedFaceSet { coordIndex [ 0, 1, 2, -1, 0, 1, -1, 0, 1, 9, -1, 3, 2, 1, 0 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    const C3DFaceList* fl = Meshes(*r.scene)[0]->GetGeomObject()->GetFaceList();
    ASSERT_EQ(fl->GetNumberOfFaces(), 2); // the two-corner face and the one with index 9 are gone
    EXPECT_EQ(fl->GetFaceSize(1), 4);     // the last face needs no closing -1
    bool logged = false;
    for (const auto& l : r.log) logged |= l.text.Find(L"faces") >= 0;
    EXPECT_TRUE(logged);
}

TEST(Vrml1Import, ClockwiseOrderingTurnsFacesAndCreaseAngleIsDegrees) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "ShapeHints { vertexOrdering CLOCKWISE creaseAngle 1.0 }\n"
                      "IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    const C3DGeomObject* g = Meshes(*r.scene)[0]->GetGeomObject();
    auto face = g->GetFaceList()->Face(0);
    // Points renumbered 0,1,2 in order of use; clockwise files are turned around.
    EXPECT_EQ(std::vector<uint32_t>(face.begin(), face.end()), (std::vector<uint32_t>{2, 1, 0}));
    EXPECT_NEAR(g->GetSmoothAngle(), 57.29578f, 1e-3);
}

TEST(Vrml1Import, MaterialBindingsGiveFaceMaterialsOrVertexColours) {
    const std::string head = std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                             "Material { diffuseColor [ 1 0 0, 0 1 0, 0 0 1 ] transparency 0.5 }\n";
    auto r = ReadText(head + "MaterialBinding { value PER_FACE_INDEXED }\n"
                             "IndexedFaceSet { coordIndex [ 0, 1, 2, -1, 0, 2, 3, -1 ] materialIndex [ 2, 0 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    const C3DFaceList* fl = Meshes(*r.scene)[0]->GetGeomObject()->GetFaceList();
    const C3DMaterial* m0 = r.scene->GetMaterialByID(fl->GetMaterialID(0));
    const C3DMaterial* m1 = r.scene->GetMaterialByID(fl->GetMaterialID(1));
    ASSERT_TRUE(m0 && m1);
    EXPECT_EQ(m0->GetDiffuseColor().b, 255);
    EXPECT_EQ(m1->GetDiffuseColor().r, 255);
    EXPECT_FLOAT_EQ(m0->GetTransparency(), 0.5f); // a one-entry list serves every material

    r = ReadText(head + "MaterialBinding { value PER_FACE }\n"
                        "IndexedFaceSet { coordIndex [ 0, 1, 2, -1, 0, 2, 3, -1 ] }\n}\n");
    fl = Meshes(*r.scene)[0]->GetGeomObject()->GetFaceList();
    EXPECT_EQ(r.scene->GetMaterialByID(fl->GetMaterialID(1))->GetDiffuseColor().g, 255);

    r = ReadText(head + "MaterialBinding { value PER_VERTEX_INDEXED }\n"
                        "IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] materialIndex [ 1, 1, 2, -1 ] }\n}\n");
    const CVCChannel* vc = Meshes(*r.scene)[0]->GetGeomObject()->GetGlobalVCChannel();
    ASSERT_TRUE(vc);
    auto vf = vc->GetVCFaceList()->Face(0);
    EXPECT_EQ(std::vector<uint32_t>(vf.begin(), vf.end()), (std::vector<uint32_t>{1, 1, 2}));
    EXPECT_EQ((*vc->GetVCPointList())[2].b, 255);

    // BaseColor after Material replaces the diffuse colour only.
    r = ReadText(head + "BaseColor { rgb 1 1 0 }\nIndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] }\n}\n");
    const C3DMaterial* m =
        r.scene->GetMaterialByID(Meshes(*r.scene)[0]->GetGeomObject()->GetFaceList()->GetMaterialID(0));
    EXPECT_EQ(m->GetDiffuseColor().r, 255);
    EXPECT_EQ(m->GetDiffuseColor().g, 255);
    EXPECT_FLOAT_EQ(m->GetTransparency(), 0.5f);
}

TEST(Vrml1Import, InventorStripsQuadMeshesAndFaceSets) {
    const std::string grid =
        "Coordinate3 { point [ 0 0 0, 1 0 0, 2 0 0, 0 1 0, 1 1 0, 2 1 0, 0 2 0, 1 2 0, 2 2 0 ] }\n";
    auto r = ReadText("#Inventor V2.1 ascii\nSeparator {\n" + grid +
                      "QuadMesh { verticesPerRow 3 verticesPerColumn 3 }\n"
                      "TriangleStripSet { numVertices [ 4, 3 ] }\n"
                      "FaceSet { startIndex 1 numVertices [ 3, -1 ] }\n"
                      "IndexedTriangleStripSet { coordIndex [ 0, 1, 3, 4, -1, 4, 5, 7 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 4u);
    EXPECT_EQ(meshes[0]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 4);
    EXPECT_EQ(meshes[1]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 3);
    const C3DFaceList* fs = meshes[2]->GetGeomObject()->GetFaceList();
    ASSERT_EQ(fs->GetNumberOfFaces(), 2);
    EXPECT_EQ(fs->GetFaceSize(1), 5); // -1: the rest of the coordinates
    EXPECT_EQ(meshes[3]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 3);
    // Strip triangles alternate their turn so that all face the same way.
    const C3DGeomObject* strip = meshes[3]->GetGeomObject();
    C3DVector n0 = FaceNormal(*strip->GetPointList(), strip->GetFaceList()->Face(0));
    C3DVector n1 = FaceNormal(*strip->GetPointList(), strip->GetFaceList()->Face(1));
    EXPECT_GT(n0.Dot(n1), 0.5f);
}

TEST(Vrml1Import, LinesPointsPrimitivesCamerasAndLights) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "IndexedLineSet { coordIndex [ 0, 1, 2, -1, 2, 3 ] }\n"
                      "PointSet { startIndex 1 numPoints 2 }\n"
                      "Cube { } Sphere { radius 2 } Cone { } Cylinder { parts SIDES }\n"
                      "PerspectiveCamera { position 0 0 10 heightAngle 0.5 }\n"
                      "DirectionalLight { direction 0 -1 0 }\n}\n");
    ASSERT_TRUE(r.scene);
    int curves = 0, meshes = 0, cameras = 0, lights = 0;
    for (C3DSceneNode* n : Nodes(*r.scene)) {
        switch (n->GetKindOf()) {
        case KINDOF_CURVE: {
            ++curves;
            const C3DFaceList* fl = n->GetGeomObject()->GetFaceList();
            ASSERT_EQ(fl->GetNumberOfFaces(), 2);
            EXPECT_EQ(fl->GetFaceSize(1), 2);
            break;
        }
        case KINDOF_MESH: ++meshes; break;
        case KINDOF_CAMERA: {
            ++cameras;
            EXPECT_FLOAT_EQ(static_cast<const C3DCamera*>(n->GetBaseObject())->GetVFov(), 0.5f);
            C4x4Matrix m;
            n->GetNodeTM(0, m);
            EXPECT_FLOAT_EQ(m.GetTranslation().z, 10.0f);
            break;
        }
        case KINDOF_LIGHT: ++lights; break;
        default: break;
        }
    }
    EXPECT_EQ(curves, 1);
    EXPECT_EQ(meshes, 5); // the point set and four primitives
    EXPECT_EQ(cameras, 1);
    EXPECT_EQ(lights, 1);
}

TEST(Vrml1Import, TextureFilesAreRequiredAndCoordinatesFollowTheirIndex) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "Texture2 { filename \"wood.png\" }\n"
                      "TextureCoordinate2 { point [ 0 0, 1 0, 1 1, 0 1 ] }\n"
                      "IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] textureCoordIndex [ 3, 2, 1, -1 ] }\n"
                      "IndexedFaceSet { coordIndex [ 0, 2, 3, -1 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 2u);
    const CUVWChannel* uv = meshes[0]->GetGeomObject()->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    auto f = uv->GetUVWFaceList()->Face(0);
    EXPECT_EQ(std::vector<uint32_t>(f.begin(), f.end()), (std::vector<uint32_t>{3, 2, 1}));
    // Without textureCoordIndex the coordinate indices serve.
    auto g = meshes[1]->GetGeomObject()->GetGlobalUVWChannel()->GetUVWFaceList()->Face(0);
    EXPECT_EQ(std::vector<uint32_t>(g.begin(), g.end()), (std::vector<uint32_t>{0, 2, 3}));
    ASSERT_EQ(r.scene->GetRequiredFiles().size(), 1u);
    EXPECT_NE(r.scene->GetRequiredFiles()[0].Find(L"wood.png"), -1);
    const C3DMaterial* m = r.scene->GetMaterialByID(meshes[0]->GetGeomObject()->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m && m->GetMaterialMap(MAP_DIFFUSE));
}

// Per corner of `face`, the position of its normal vector in the file's Normal list.
std::vector<uint32_t> NormalCorners(const C3DSceneNode& n, int face) {
    static const C3DPoint kListed[] = {{0, 0, 1}, {0, 1, 0}, {1, 0, 0}, {0, 0, -1}};
    const C3DChannel* ch = n.GetGeomObject()->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL);
    if (!ch) return {};
    const auto* normals = static_cast<const CSpecNormalChannel*>(ch);
    std::vector<uint32_t> out;
    for (uint32_t i : normals->GetNormalFaceList()->Face(face)) {
        const C3DPoint v = normals->GetNormalVectorList()->GetPoint(static_cast<int>(i));
        uint32_t k = 0;
        while (k < 4 && !(kListed[k].x == v.x && kListed[k].y == v.y && kListed[k].z == v.z)) ++k;
        out.push_back(k);
    }
    return out;
}

TEST(Vrml1Import, NormalsFollowTheirBinding) {
    auto r = ReadText(
        std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
        "Normal { vector [ 0 0 1, 0 1 0, 1 0 0, 0 0 -1 ] }\n"
        "Separator { NormalBinding { value PER_FACE }\n"
        "  IndexedFaceSet { coordIndex [ 0, 1, 2, -1, 0, 2, 3, -1 ] } }\n"
        "Separator { NormalBinding { value PER_FACE_INDEXED }\n"
        "  IndexedFaceSet { coordIndex [ 0, 1, 2, -1, 0, 2, 3, -1 ] normalIndex [ 3, 2 ] } }\n"
        "Separator { NormalBinding { value PER_VERTEX }\n"
        "  IndexedFaceSet { coordIndex [ 3, 2, 1, -1 ] } }\n"
        "IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] normalIndex [ 2, 2, 1, -1 ] }\n" // default: per vertex, indexed
        "IndexedFaceSet { coordIndex [ 3, 1, 2, -1 ] }\n"                             // by the coordinate indices
        "Separator { NormalBinding { value PER_VERTEX }\n"
        "  IndexedFaceSet { coordIndex [ 0, 1, 2, -1, 0, 2, 3, -1 ] } }\n" // 6 needed, 4 given
        "}\n");
    ASSERT_TRUE(r.scene);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 6u);
    EXPECT_EQ(NormalCorners(*meshes[0], 1), (std::vector<uint32_t>{1, 1, 1}));
    EXPECT_EQ(NormalCorners(*meshes[1], 0), (std::vector<uint32_t>{3, 3, 3}));
    EXPECT_EQ(NormalCorners(*meshes[1], 1), (std::vector<uint32_t>{2, 2, 2}));
    EXPECT_EQ(NormalCorners(*meshes[2], 0), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(NormalCorners(*meshes[3], 0), (std::vector<uint32_t>{2, 2, 1}));
    EXPECT_EQ(NormalCorners(*meshes[4], 0), (std::vector<uint32_t>{3, 1, 2}));
    // Only the vectors a shape uses are kept with it.
    EXPECT_EQ(
        static_cast<const CSpecNormalChannel*>(meshes[3]->GetGeomObject()->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL))
            ->GetNormalVectorList()
            ->GetSize(),
        2);
    // Too few normals: none are taken, the smoothing angle decides.
    EXPECT_TRUE(NormalCorners(*meshes[5], 0).empty());
}

TEST(Vrml1Import, ImageTexturesStayWithTheirMaterial) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "Texture2 { image 2 1 3 0xFF0000 0x00FF80 wrapT CLAMP }\n"
                      "IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 1u);
    EXPECT_TRUE(meshes[0]->GetGeomObject()->GetGlobalUVWChannel()); // textured: coordinates made
    C3DMaterial* m = r.scene->GetMaterialByID(meshes[0]->GetGeomObject()->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(m);
    const CCustomData* bag = m->GetCustomData().GetCustomData(vrml1import::kImageID);
    ASSERT_TRUE(bag);
    EXPECT_EQ(bag->GetInt(vrml1import::kImageWidth), 2);
    EXPECT_EQ(bag->GetInt(vrml1import::kImageHeight), 1);
    EXPECT_EQ(bag->GetInt(vrml1import::kImageComponents), 3);
    EXPECT_EQ(bag->GetInt(vrml1import::kImageWrap), 1);
    std::vector<uint8_t> pixels;
    ASSERT_TRUE(bag->GetBinary(vrml1import::kImagePixels, pixels));
    EXPECT_EQ(pixels, (std::vector<uint8_t>{0xFF, 0, 0, 0, 0xFF, 0x80}));
    EXPECT_TRUE(r.scene->GetRequiredFiles().empty());
}

TEST(Vrml1Import, ImageCopiesAreCappedAgainstTheInput) {
    // Each face its own material, each material its own copy of the image.
    std::string t = "#VRML V1.0 ascii\nSeparator {\nTexture2 { image 16 16 3";
    for (int i = 0; i < 256; ++i) t += " 0xFFFFFF";
    t += " }\nMaterial { diffuseColor [";
    std::string coords, faces;
    for (int i = 0; i < 40; ++i) {
        t += " 0 0 " + std::to_string(i / 40.0) + ",";
        coords += std::to_string(i) + " 0 0, " + std::to_string(i) + " 1 0, ";
        faces += std::to_string(2 * i) + ", " + std::to_string(2 * i + 1) + ", " + std::to_string((2 * i + 2) % 80) +
                 ", -1, ";
    }
    t += " ] }\nMaterialBinding { value PER_FACE }\nCoordinate3 { point [ " + coords +
         "] }\n"
         "IndexedFaceSet { coordIndex [ " +
         faces + "] }\n}\n";
    QvIn in(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(t.data()), t.size()));
    in.setSink([](const std::string&) {});
    QvFileContents contents;
    ASSERT_TRUE(QvReadFile(in, contents));
    C3DScene scene;
    CFileIo io;
    CVrmlIo parser(io);
    CSceneImportOptions opt;
    vrml1import::Limits limits;
    limits.baseImageBytes = 0;
    limits.imageFactor = 1;
    vrml1import::CVrml1Converter conv(scene, parser, opt, "", t.size(), limits);
    conv.Convert(contents);
    EXPECT_EQ(scene.GetMaterialNumber(), 40);
    size_t kept = 0, withImage = 0;
    CMaterialPos pos;
    for (C3DMaterial* m = scene.GetFirstMaterial(pos); m; m = scene.GetNextMaterial(pos)) {
        const CCustomData* bag = m->GetCustomData().GetCustomData(vrml1import::kImageID);
        std::vector<uint8_t> px;
        if (bag && bag->GetBinary(vrml1import::kImagePixels, px)) {
            kept += px.size();
            ++withImage;
        }
    }
    EXPECT_GT(withImage, 0u);
    EXPECT_LT(withImage, 40u);
    EXPECT_LE(kept, t.size());
    bool told = false;
    for (const auto& l : opt.GetLog()) told |= l.text.Find(L"texture images were left out") >= 0;
    EXPECT_TRUE(told);
}

TEST(Vrml1Import, TextStaysAsNamedLinesAndLightsKeepTheirSeparator) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nDEF Outer Separator {\n") + kSquare +
                      "DEF Title AsciiText { string [ \"one\", \"two\" ] }\n"
                      "DEF Inner Separator { PointLight { } IndexedFaceSet { coordIndex [ 0, 1, 2 ] } }\n"
                      "TransformSeparator { DirectionalLight { } IndexedFaceSet { coordIndex [ 0, 1, 2 ] } }\n"
                      "}\nGroup { SpotLight { } }\n");
    ASSERT_TRUE(r.scene);
    C3DSceneNode* title = r.scene->FindNodeByName(L"Title");
    ASSERT_TRUE(title);
    std::vector<CXStringW> lines;
    ASSERT_TRUE(title->GetBaseObject()->GetCustomData().GetStringArray(vrml1import::kTextID, lines));
    EXPECT_EQ(lines, (std::vector<CXStringW>{L"one", L"two"}));
    std::vector<uint64_t> scopes;
    for (C3DSceneNode* n : Nodes(*r.scene))
        if (n->GetKindOf() == KINDOF_LIGHT)
            scopes.push_back(n->GetBaseObject()->GetCustomData().GetUInt64(vrml1import::kLightScopeID, 99));
    ASSERT_EQ(scopes.size(), 3u);
    EXPECT_EQ(scopes[0], r.scene->FindNodeByName(L"Inner")->GetNodeID());
    EXPECT_EQ(scopes[1], r.scene->FindNodeByName(L"Outer")->GetNodeID()); // a TransformSeparator does not hold it
    EXPECT_EQ(scopes[2], 0u);                                             // top level: everything
}

TEST(Vrml1Import, PartsWalkedAgainAreKeptUntilTheirLastWalk) {
    // The import frees a Separator's part once walked; USEd parts and Array copies are
    // walked more than once and must still be whole then.
    auto r =
        ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                 "DEF Part Separator { Material { diffuseColor 1 0 0 } IndexedFaceSet { coordIndex [ 0, 1, 2 ] } }\n"
                 "Array { numElements1 3 separation1 5 0 0 Separator { IndexedFaceSet { coordIndex [ 0, 2, 3 ] } } }\n"
                 "USE Part\n}\n");
    ASSERT_TRUE(r.scene);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 5u);
    for (C3DSceneNode* m : meshes) EXPECT_EQ(m->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 1);
    ExpectNear(World(*meshes[3], 0), C3DPoint(10, 0, 0));
    const C3DMaterial* first = r.scene->GetMaterialByID(meshes[0]->GetGeomObject()->GetFaceList()->GetMaterialID(0));
    const C3DMaterial* last = r.scene->GetMaterialByID(meshes[4]->GetGeomObject()->GetFaceList()->GetMaterialID(0));
    ASSERT_TRUE(first && last);
    EXPECT_EQ(first->GetDiffuseColor(), CRGBColor(255, 0, 0));
    EXPECT_EQ(last->GetDiffuseColor(), CRGBColor(255, 0, 0));
}

TEST(Vrml1Import, SwitchLodAndGroupsFollowTheirRules) {
    auto r = ReadText(std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                      "Switch { IndexedFaceSet { } }\n"               // -1: nothing
                      "Switch { whichChild 1 Cube { } Sphere { } }\n" // the second only
                      "Switch { whichChild -3 Cube { } Cube { } }\n"  // all
                      "LOD { range [ 10 ] Cube { } Sphere { } }\n"    // the first level
                      "Group { Translation { translation 0 5 0 } }\n" // leaks out
                      "IndexedFaceSet { coordIndex [ 0, 1, 2 ] }\n}\n");
    ASSERT_TRUE(r.scene);
    auto meshes = Meshes(*r.scene);
    ASSERT_EQ(meshes.size(), 5u);
    EXPECT_EQ(meshes[0]->GetName(), CXStringW(L"Sphere"));
    EXPECT_EQ(meshes[3]->GetName(), CXStringW(L"Cube"));
    ExpectNear(World(*meshes[4], 0), C3DPoint(0, 5, 0));
}

TEST(Vrml1Import, UseRepetitionIsCappedAndDamageIsAFormatError) {
    // Each level uses the previous one twice: 2^40 shapes if walked naively.
    std::string t = "#VRML V1.0 ascii\nSeparator {\n" + std::string(kSquare) +
                    "DEF L0 Separator { IndexedFaceSet { coordIndex [ 0, 1, 2 ] } }\n";
    for (int i = 1; i <= 40; ++i)
        t += "DEF L" + std::to_string(i) + " Separator { USE L" + std::to_string(i - 1) + " USE L" +
             std::to_string(i - 1) + " }\n";
    t += "}\n";
    auto r = ReadText(t);
    ASSERT_TRUE(r.scene);
    bool stopped = false;
    for (const auto& l : r.log) stopped |= l.text.Find(L"stopped early") >= 0;
    EXPECT_TRUE(stopped);

    EXPECT_EQ(ReadText("#VRML V1.0 ascii\nSeparator { Cube { width } }").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadText("#VRML V2.0 utf8\nShape { }").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadText("#VRML V1.0 ascii\nSeparator { Info { } }").error, IO_ERR_EMPTY);
}

TEST(Vrml1Import, InlinesReadLocalFilesOnceAndStayInTheirFolder) {
    testsupport::TempDir dir;
    std::filesystem::create_directories(dir.path() / "sub");
    testsupport::WriteFile(dir / "sub/part.wrl", std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                                                     "IndexedFaceSet { coordIndex [ 0, 1, 2 ] }\n"
                                                     "WWWInline { name \"../main.wrl\" }\n}\n");
    testsupport::WriteFile(dir.path().parent_path() / (dir.path().filename().string() + "-outside.wrl"),
                           std::string("#VRML V1.0 ascii\nSeparator {\n") + kSquare +
                               "IndexedFaceSet { coordIndex [ 0, 1, 2 ] }\n}\n");
    testsupport::WriteFile(dir / "main.wrl", "#VRML V1.0 ascii\nSeparator {\n"
                                             "Translation { translation 0 0 7 }\n"
                                             "WWWInline { name \"sub/part.wrl\" }\n"
                                             "WWWInline { name \"file:sub/part.wrl\" }\n"
                                             "WWWInline { name \"../" +
                                                 dir.path().filename().string() +
                                                 "-outside.wrl\" }\n"
                                                 "WWWInline { name \"http://example.invalid/x.wrl\" }\n}\n");
    auto r = ReadPath(dir / "main.wrl");
    std::filesystem::remove(dir.path().parent_path() / (dir.path().filename().string() + "-outside.wrl"));
    ASSERT_TRUE(r.scene) << r.error;
    auto meshes = Meshes(*r.scene);
    // The part twice (once per inline); its inline of main.wrl is a cycle; the file
    // outside the folder and the remote one are left out.
    ASSERT_EQ(meshes.size(), 2u);
    ExpectNear(World(*meshes[0], 0), C3DPoint(0, 0, 7));
    int notes = 0;
    for (const auto& l : r.log)
        notes += l.text.Find(L"includes itself") >= 0 || l.text.Find(L"outside the folder") >= 0 ||
                 l.text.Find(L"not a local file") >= 0;
    EXPECT_EQ(notes, 4);
}

TEST(Vrml1Corpus, EveryFileReadsOrIsRefusedAsNotOurs) {
    SKIP_WITHOUT_CORPUS();
    int read = 0;
    for (const char* sub : {"wrl1", "iv"}) {
        for (const auto& f : testsupport::CorpusFiles(sub)) {
            if (f.extension() != ".wrl" && f.extension() != ".iv") continue;
            auto r = ReadPath(f);
            const std::string head = testsupport::ReadFile(f).substr(0, 20);
            if (head.rfind("#Inventor V1.0", 0) == 0) {
                EXPECT_EQ(r.error, IO_ERR_FORMAT) << f; // refused by its header, as the format says
                continue;
            }
            EXPECT_TRUE(r.scene) << f << " error " << r.error;
            read += r.scene != nullptr;
        }
    }
    EXPECT_GT(read, 10);
}

TEST(Vrml1Corpus, HandCountedFiles) {
    SKIP_WITHOUT_CORPUS();
    auto count = [](const std::string& rel, int& meshes, int& points, int& faces) {
        meshes = points = faces = 0;
        auto r = ReadPath(testsupport::CorpusDir() / rel);
        if (!r.scene) return;
        for (C3DSceneNode* n : Meshes(*r.scene)) {
            ++meshes;
            points += n->GetGeomObject()->GetPointList()->GetSize();
            faces += n->GetGeomObject()->GetFaceList()->GetNumberOfFaces();
        }
    };
    int m, p, f;
    count("iv/tet.iv", m, p, f);
    EXPECT_EQ(m, 1);
    EXPECT_EQ(p, 4);
    EXPECT_EQ(f, 4);
    count("wrl1/cesaryuan-vrml1tovrml2/wrl/cases/sample_minimal/input.v1.wrl", m, p, f);
    EXPECT_EQ(m, 1);
    EXPECT_EQ(p, 3);
    EXPECT_EQ(f, 1);
}

} // namespace
