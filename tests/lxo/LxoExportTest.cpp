#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "LxoTestFiles.h"
#include "formats/lxo/CLxoIo.h"
#include "formats/lxo/LxoSaver.h"
#include "formats/lxo/LxoWriteData.h"
#include "plugin/FormatTable.h"
#include "plugin/ParserFactory.h"
#include "plugin/host/Channel.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"
#include "tests/support/TestSupport.h"

using testsupport::TempDir;
namespace fs = std::filesystem;

namespace {

CXStringW W(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

C4x4Matrix Rot(int axis, float a) {
    C4x4Matrix m;
    const float c = std::cos(a), s = std::sin(a);
    const int i = (axis + 1) % 3, j = (axis + 2) % 3;
    m.m[i][i] = c;
    m.m[i][j] = s;
    m.m[j][i] = -s;
    m.m[j][j] = c;
    return m;
}

std::unique_ptr<C3DScene> ReadBack(const std::string& path, int* error = nullptr) {
    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> s(parser.Read(W(path), options));
    if (error) *error = io.GetIoError();
    return s;
}

bool Save(C3DScene& scene, const std::string& path, CSceneExportOptions* opts = nullptr) {
    CFileIo io;
    CLxoIo parser(io);
    CSceneExportOptions local;
    CSceneExportOptions& options = opts ? *opts : local;
    parser.SaveDefaultOptions(options);
    std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(scene, options.prepFlags, &options);
    return prepared && parser.Save(W(path), prepared.get(), options);
}

void ExpectNearMatrix(const C4x4Matrix& a, const C4x4Matrix& b, float tol) {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_NEAR(a.m[r][c], b.m[r][c], tol) << "at " << r << "," << c;
}

// Base (group: scale 2, turned about all three axes, moved) holding Box (a mirrored mesh
// of five points, two materials and one untagged face, a UV map with one seam and vertex
// colours), a camera and a sun.
std::unique_ptr<C3DScene> SampleScene() {
    auto scene = std::make_unique<C3DScene>();
    C3DMaterial* red = scene->CreateNewMaterial();
    red->SetName(L"Red");
    red->diffuse = CRGBColor(255, 0, 0);
    red->diffuseFactor = 0.75f;
    red->transparency = 0.25f;
    red->smoothAngle = 30.0f;
    C3DMaterial* green = scene->CreateNewMaterial();
    green->SetName(L"Red"); // the same name twice: the tags must still tell them apart
    green->diffuse = CRGBColor(0, 255, 0);
    C3DMaterial* unused = scene->CreateNewMaterial(); // a name longer than a sub-chunk holds
    unused->SetName(CXStringW(std::wstring(70000, L'x')));

    C3DSceneNode* base = scene->AddNode(nullptr, new C3DSceneNode());
    base->SetName(L"Base");
    base->SetNodeLocalTM(C4x4Matrix::Scaling(2, 2, 2) * Rot(0, 0.3f) * Rot(1, -0.7f) * Rot(2, 1.1f) *
                         C4x4Matrix::Translation(1, 2, 3));

    auto* mesh = new C3DObject();
    const float p[15] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0.5f, 0.5f, 1};
    for (int i = 0; i < 5; ++i) mesh->GetPointList()->Add(p[3 * i], p[3 * i + 1], p[3 * i + 2]);
    C3DFaceList& fl = *mesh->GetFaceList();
    const uint32_t quad[4] = {0, 1, 2, 3}, t1[3] = {0, 1, 4}, t2[3] = {1, 2, 4};
    fl.SetCurrentMaterial(red->GetID());
    fl.AddFace(quad, 4);
    fl.SetCurrentMaterial(green->GetID());
    fl.AddFace(t1, 3);
    fl.SetCurrentMaterial(NO_MATERIAL);
    fl.AddFace(t2, 3);
    auto* uv = new CUVWChannel();
    for (int i = 0; i < 5; ++i) uv->GetUVWPointList()->Add(p[3 * i] * 0.5f, p[3 * i + 1] * 0.5f, 0);
    uv->GetUVWPointList()->Add(0.9f, 0.1f, 0); // the seam: face 2's corner at point 4
    const uint32_t u2[3] = {1, 2, 5};
    uv->GetUVWFaceList()->AddFace(quad, 4);
    uv->GetUVWFaceList()->AddFace(t1, 3);
    uv->GetUVWFaceList()->AddFace(u2, 3);
    mesh->SetGlobalUVWChannel(mesh->AddChannel(uv, 0));
    auto* vc = new CVCChannel();
    for (int i = 0; i < 5; ++i) vc->GetVCPointList()->Add(CRGBColor(uint8_t(i * 50), 10, 200));
    vc->GetVCFaceList()->AddFace(quad, 4);
    vc->GetVCFaceList()->AddFace(t1, 3);
    vc->GetVCFaceList()->AddFace(t2, 3);
    mesh->SetGlobalVCChannel(mesh->AddChannel(vc, -1));
    C3DSceneNode* box = scene->AddNode(base, new C3DSceneNode(mesh));
    box->SetName(L"Box");
    box->SetNodeLocalTM(C4x4Matrix::Scaling(-1, 1, 1) * Rot(1, 0.4f) * C4x4Matrix::Translation(0, 0, -1));

    auto* cam = new C3DCamera();
    cam->SetVFov(0.6f);
    C3DSceneNode* cn = scene->AddNode(base, new C3DSceneNode(cam));
    cn->SetName(L"Cam");
    cn->SetNodeLocalTM(Rot(0, -0.2f) * C4x4Matrix::Translation(0, 1, 5));
    auto* sun = new C3DLight(LIGHT_DIRECTIONAL);
    sun->color = CRGBColor(255, 128, 0);
    C3DSceneNode* sn = scene->AddNode(nullptr, new C3DSceneNode(sun));
    sn->SetName(L"Sun");
    return scene;
}

const C3DMaterial* FaceMaterial(const C3DScene& s, const C3DGeomObject& o, int f) {
    return s.GetMaterialByID(o.GetFaceList()->GetMaterialID(f));
}

} // namespace

TEST(LxoExport, SceneReadsBackWithHierarchyTransformsMaterialsAndMaps) {
    TempDir dir;
    const std::string path = (dir / "out.lxo").string();
    auto scene = SampleScene();
    ASSERT_TRUE(Save(*scene, path));
    auto back = ReadBack(path);
    ASSERT_TRUE(back);

    C3DSceneNode* base = back->FindNodeByName(CXStringW(L"Base"));
    C3DSceneNode* box = back->FindNodeByName(CXStringW(L"Box"));
    C3DSceneNode* cam = back->FindNodeByName(CXStringW(L"Cam"));
    C3DSceneNode* sun = back->FindNodeByName(CXStringW(L"Sun"));
    ASSERT_TRUE(base && box && cam && sun);
    EXPECT_EQ(box->GetParent(), base);
    EXPECT_EQ(cam->GetParent(), base);
    EXPECT_EQ(back->GetNodeCount(), 4);
    // Scale, rotation (x, then y, then z) and translation, a mirror included, come back.
    for (const wchar_t* name : {L"Base", L"Box", L"Cam"}) {
        SCOPED_TRACE(std::string(name, name + std::wcslen(name)));
        C4x4Matrix a, b;
        scene->FindNodeByName(CXStringW(name))->GetNodeTM(0, a);
        back->FindNodeByName(CXStringW(name))->GetNodeTM(0, b);
        ExpectNearMatrix(a, b, 2e-5f);
    }

    auto* obj = dynamic_cast<C3DObject*>(box->GetBaseObject());
    ASSERT_TRUE(obj);
    ASSERT_EQ(obj->GetPointList()->GetSize(), 5);
    ASSERT_EQ(obj->GetFaceList()->GetNumberOfFaces(), 3);
    // Two materials of one name stay two, the untagged face gets the base material.
    const C3DMaterial* m0 = FaceMaterial(*back, *obj, 0);
    const C3DMaterial* m1 = FaceMaterial(*back, *obj, 1);
    const C3DMaterial* m2 = FaceMaterial(*back, *obj, 2);
    ASSERT_TRUE(m0 && m1 && m2);
    EXPECT_NE(m0, m1);
    EXPECT_NE(m2, m0);
    EXPECT_EQ(m0->GetName(), CXStringW(L"Red"));
    EXPECT_EQ(m1->GetName(), CXStringW(L"Red (2)"));
    EXPECT_EQ(m0->diffuse.r, 255);
    EXPECT_EQ(m0->diffuse.g, 0);
    EXPECT_NEAR(m0->diffuseFactor, 0.75f, 1e-6);
    EXPECT_NEAR(m0->transparency, 0.25f, 1e-6);
    EXPECT_NEAR(m0->smoothAngle, 30.0f, 1e-3);
    EXPECT_EQ(m1->diffuse.g, 255);

    // The UV seam: face 2's corner at point 4 has its own value, the others the point's.
    const CUVWChannel* uv = static_cast<const CUVWChannel*>(obj->GetChannelByIndex(0, CHANNEL_UVW));
    ASSERT_TRUE(uv);
    auto uvAt = [&](int f, int k) {
        const uint32_t i = uv->GetUVWFaceList()->GetFaceIndices(f)[k];
        const float* d = uv->GetUVWPointList()->GetData() + size_t(i) * 3;
        return std::pair<float, float>(d[0], d[1]);
    };
    EXPECT_EQ(uvAt(2, 2), std::make_pair(0.9f, 0.1f));
    EXPECT_EQ(uvAt(1, 2), std::make_pair(0.25f, 0.25f));
    EXPECT_EQ(uvAt(0, 2), std::make_pair(0.5f, 0.5f));
    const CVCChannel* vc = static_cast<const CVCChannel*>(obj->GetChannelByIndex(0, CHANNEL_VC));
    ASSERT_TRUE(vc);
    const uint32_t c4 = vc->GetVCFaceList()->GetFaceIndices(1)[2];
    EXPECT_EQ(vc->GetVCPointList()->Raw()[c4].r, 200);
    EXPECT_EQ(vc->GetVCPointList()->Raw()[c4].b, 200);

    ASSERT_EQ(cam->GetKindOf(), uint32_t(KINDOF_CAMERA));
    EXPECT_NEAR(static_cast<C3DCamera*>(cam->GetBaseObject())->GetVFov(), 0.6f, 1e-5);
    ASSERT_EQ(sun->GetKindOf(), uint32_t(KINDOF_LIGHT));
    const auto* light = static_cast<C3DLight*>(sun->GetBaseObject());
    EXPECT_EQ(light->GetLightKind(), LIGHT_DIRECTIONAL);
    EXPECT_EQ(light->color.g, 128);
}

TEST(LxoExport, FileHasTheItemSetAndEveryReferenceResolves) {
    TempDir dir;
    const std::string path = (dir / "out.lxo").string();
    auto scene = SampleScene();
    ASSERT_TRUE(Save(*scene, path));
    const auto chunks = lxotest::ListChunks(testsupport::ReadFile(path));
    ASSERT_GE(chunks.size(), 4u);
    EXPECT_EQ(lxotest::IdText(chunks[0].id), "VRSN");
    EXPECT_EQ(lxotest::IdText(chunks[1].id), "TAGS");
    EXPECT_EQ(lxotest::IdText(chunks[2].id), "CHNM");
    EXPECT_EQ(lxotest::IdText(chunks[3].id), "LAYR");
    // Channel-name count, then the items: IDs are positions, links and CHAN indices in range.
    const std::string& chnm = chunks[2].payload;
    const uint32_t names =
        (uint8_t(chnm[0]) << 24) | (uint8_t(chnm[1]) << 16) | (uint8_t(chnm[2]) << 8) | uint8_t(chnm[3]);
    std::vector<std::string> types;
    std::vector<std::pair<std::string, uint32_t>> links;
    int actions = 0;
    for (const auto& c : chunks) {
        if (lxotest::IdText(c.id) == "ACTN") ++actions;
        if (lxotest::IdText(c.id) != "ITEM") continue;
        const std::string& p = c.payload;
        size_t o = 0;
        auto s0 = [&] {
            const std::string s = p.c_str() + o;
            o += s.size() + 1 + ((s.size() + 1) & 1);
            return s;
        };
        types.push_back(s0());
        s0();
        const uint32_t id =
            (uint8_t(p[o]) << 24) | (uint8_t(p[o + 1]) << 16) | (uint8_t(p[o + 2]) << 8) | uint8_t(p[o + 3]);
        EXPECT_EQ(id, types.size() - 1);
        for (const auto& sub : lxotest::ListSubChunks(p, o + 4)) {
            const std::string sid = lxotest::IdText(sub.id);
            const std::string& q = sub.payload;
            if (sid == "CHAN") { EXPECT_LT((uint8_t(q[0]) << 8 | uint8_t(q[1])), int(names)); }
            if (sid == "LINK") {
                const std::string graph = q.c_str();
                const size_t at = graph.size() + 1 + ((graph.size() + 1) & 1);
                links.emplace_back(graph, (uint8_t(q[at]) << 24) | (uint8_t(q[at + 1]) << 16) |
                                              (uint8_t(q[at + 2]) << 8) | uint8_t(q[at + 3]));
            }
        }
    }
    for (const auto& [graph, target] : links) EXPECT_LT(target, types.size()) << graph;
    EXPECT_EQ(actions, 2);
    auto count = [&](const char* t) { return std::count(types.begin(), types.end(), std::string(t)); };
    EXPECT_EQ(count("mesh"), 1);
    EXPECT_EQ(count("locator"), 1);
    EXPECT_EQ(count("camera"), 1);
    EXPECT_EQ(count("sunLight"), 1);
    EXPECT_EQ(count("lightMaterial"), 1);
    EXPECT_EQ(count("scene"), 1);
    EXPECT_EQ(count("polyRender"), 1);
    EXPECT_EQ(count("mask"), 3); // one per material; the untagged faces take the base material
    EXPECT_EQ(count("advancedMaterial"), 4);
    EXPECT_EQ(count("defaultShader"), 1);
    EXPECT_EQ(count("renderOutput"), 2);
    EXPECT_EQ(count("translation"), 4);
    EXPECT_EQ(count("rotation"), 4);
    EXPECT_EQ(count("scale"), 2); // mesh and locator; the camera and sun are unscaled
}

TEST(LxoExport, ShearAndObjectOffsetsAreBakedIntoThePoints) {
    TempDir dir;
    const std::string path = (dir / "out.lxo").string();
    auto scene = std::make_unique<C3DScene>();
    auto* mesh = new C3DObject();
    for (int i = 0; i < 3; ++i) mesh->GetPointList()->Add(float(i == 0), float(i == 1), float(i == 2));
    mesh->GetFaceList()->AddTriangle(0, 1, 2);
    C3DSceneNode* n = scene->AddNode(nullptr, new C3DSceneNode(mesh));
    n->SetName(L"Sheared");
    C4x4Matrix shear;
    shear.m[1][0] = 0.5f; // y feeds x
    n->SetNodeLocalTM(shear * C4x4Matrix::Translation(3, 0, 0));
    n->SetObjectLocalTM(C4x4Matrix::Translation(0, 0, 1));
    ASSERT_TRUE(Save(*scene, path));
    auto back = ReadBack(path);
    ASSERT_TRUE(back);
    C3DSceneNode* b = back->FindNodeByName(CXStringW(L"Sheared"));
    ASSERT_TRUE(b);
    C4x4Matrix tmA, tmB, objA;
    n->GetNodeTM(0, tmA);
    n->GetObjectLocalTM(0, objA);
    b->GetNodeTM(0, tmB);
    const C3DPointList& pa = *mesh->GetPointList();
    const C3DPointList& pb = *b->GetGeomObject()->GetPointList();
    ASSERT_EQ(pb.GetSize(), 3);
    for (int i = 0; i < 3; ++i) {
        const C3DPoint wa = (objA * tmA).TransformPoint(pa.GetPoint(i)), wb = tmB.TransformPoint(pb.GetPoint(i));
        EXPECT_NEAR(wa.x, wb.x, 1e-5);
        EXPECT_NEAR(wa.y, wb.y, 1e-5);
        EXPECT_NEAR(wa.z, wb.z, 1e-5);
    }
}

TEST(LxoExport, NothingToWriteAndUnwritablePathsGiveResultCodes) {
    TempDir dir;
    C3DScene empty;
    empty.AddNode(nullptr, new C3DSceneNode())->SetName(L"Lonely");
    CFileIo io;
    CLxoIo parser(io);
    CSceneExportOptions options;
    EXPECT_FALSE(parser.Save(W((dir / "a.lxo").string()), &empty, options));
    EXPECT_EQ(io.GetIoError(), IO_ERR_NOTHING_TO_WRITE);
    EXPECT_FALSE(fs::exists(dir / "a.lxo"));
    auto scene = SampleScene();
    CFileIo io2;
    CLxoIo parser2(io2);
    EXPECT_FALSE(parser2.Save(W((dir / "missing" / "a.lxo").string()), scene.get(), options));
    EXPECT_EQ(io2.GetIoError(), IO_ERR_OPEN);
}

// Every readable format's corpus files: what they hold goes out as LXO and comes back
// with the same points, faces and materials.
TEST(LxoExport, ScenesFromEveryReadableFormatReadBackWithTheSameCounts) {
    SKIP_WITHOUT_CORPUS();
    struct Source {
        const char* dir;
        const char* ext;
        const char* type;
    };
    const Source sources[] = {{"3ds", ".3ds", "3DST"}, {"lwo", "", "LIGT"},       {"cob", ".cob", "TRUE"},
                              {"dxf", ".dxf", "DXF4"}, {"obj", ".obj", "WAVF"},   {"stl", ".stl", "STL "},
                              {"iv", ".iv", "VRML"},   {"wrl97", ".wrl", "VR97"}, {"lxo", ".lxo", "LXOI"},
                              {"lws", ".lws", "LIGS"}, {"kmz", ".kmz", "KMZI"}};
    TempDir dir;
    int compared = 0;
    for (const Source& src : sources) {
        const uint32_t type = TypeIDFromString(CXStringW(Utf8ToWide(src.type)));
        std::vector<fs::path> files;
        for (const fs::path& p : testsupport::CorpusFiles(src.dir, src.ext))
            if (fs::is_regular_file(p)) files.push_back(p);
        if (std::string(src.dir) == "lwo")
            for (const auto& sub : {"lwo2", "lwob"})
                for (const fs::path& p : testsupport::CorpusFiles(std::string("lwo/") + sub)) files.push_back(p);
        for (const fs::path& file : files) {
            if (fs::file_size(file) > (4u << 20)) continue;
            SCOPED_TRACE(file.string());
            CFileIo io(W(file.string()));
            bool known = false;
            std::unique_ptr<C3DParser> reader(CreateParserForType(type, io, known));
            ASSERT_TRUE(reader);
            CSceneImportOptions ropts;
            reader->LoadDefaultOptions(ropts);
            std::unique_ptr<C3DScene> scene(reader->Read(W(file.string()), ropts));
            if (!scene) continue; // damaged samples are the readers' business
            CSceneExportOptions options;
            CFileIo wio;
            CLxoIo writer(wio);
            writer.SaveDefaultOptions(options);
            std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(*scene, options.prepFlags, &options);
            const std::string out = (dir / "x.lxo").string();
            if (!writer.Save(W(out), prepared.get(), options)) {
                EXPECT_EQ(wio.GetIoError(), IO_ERR_NOTHING_TO_WRITE); // nothing LXO holds
                continue;
            }
            auto back = ReadBack(out);
            ASSERT_TRUE(back);
            auto totals = [](const C3DScene& s) {
                std::array<uint64_t, 3> t{0, 0, 0};
                C3DNodePos pos = s.GetFirstNode(KINDOF_MESH | KINDOF_PATCH);
                C3DBaseObject* o = nullptr;
                while (pos.IsValid()) {
                    s.GetNextNode(o, pos);
                    if (!o || !(o->GetKindOf() & (KINDOF_MESH | KINDOF_PATCH))) continue;
                    const auto* g = static_cast<const C3DGeomObject*>(o);
                    if (!g->GetFaceList() || g->GetFaceList()->GetNumberOfFaces() == 0) continue;
                    t[0] += g->GetPointList()->size();
                    t[1] += uint64_t(g->GetFaceList()->GetNumberOfFaces());
                    t[2] += g->GetFaceList()->GetNumberOfIndices();
                }
                return t;
            };
            EXPECT_EQ(totals(*prepared), totals(*back));
            ++compared;
        }
    }
    EXPECT_GT(compared, 20);
}

TEST(LxoExport, ReadingFromAPathGivesResultCodes) {
    TempDir dir;
    int error = 0;
    EXPECT_FALSE(ReadBack((dir / "missing.lxo").string(), &error));
    EXPECT_EQ(error, IO_ERR_OPEN);
    testsupport::WriteFile(dir / "empty.lxo", "");
    EXPECT_FALSE(ReadBack((dir / "empty.lxo").string(), &error));
    EXPECT_EQ(error, IO_ERR_EMPTY);
    testsupport::WriteFile(dir / "text.lxo", "FORM but not an LXO file");
    EXPECT_FALSE(ReadBack((dir / "text.lxo").string(), &error));
    EXPECT_EQ(error, IO_ERR_FORMAT);
}

// A hundred thousand nodes go out and come back, parents and all.
TEST(LxoExport, ManyNodesGoOutAndComeBack) {
    TempDir dir;
    const std::string path = (dir / "many.lxo").string();
    C3DScene scene;
    auto* mesh = new C3DObject();
    for (int i = 0; i < 3; ++i) mesh->GetPointList()->Add(float(i == 0), float(i == 1), 0);
    mesh->GetFaceList()->AddTriangle(0, 1, 2);
    C3DSceneNode* parent = scene.AddNode(nullptr, new C3DSceneNode(mesh));
    for (int i = 0; i < 100000; ++i) scene.AddNode(i % 2 ? parent : nullptr, new C3DSceneNode());
    CFileIo io;
    CLxoIo parser(io);
    CSceneExportOptions options;
    ASSERT_TRUE(parser.Save(W(path), &scene, options));
    auto back = ReadBack(path);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->GetNodeCount(), 100001);
    EXPECT_EQ(back->GetChildCount(back->GetRoot()->GetChildNode(), KINDOF_ALL, false), 50000);
}

// The import switches survive in the preference store: turned off once, a later parser
// starts with them off.
TEST(LxoOptions, ImportSwitchesAreKeptInThePreferenceStore) {
    TempDir dir;
    const char* oldXdg = std::getenv("XDG_CONFIG_HOME");
    const std::string keep = oldXdg ? oldXdg : "";
    ::setenv("XDG_CONFIG_HOME", dir.path().string().c_str(), 1);
    const char* noPrefs = std::getenv("ORBISCOPE_NO_PREFS");
    const std::string keepNo = noPrefs ? noPrefs : "";
    ::unsetenv("ORBISCOPE_NO_PREFS");
    CFileIo io;
    CLxoIo parser(io);
    CSceneImportOptions fresh;
    parser.LoadDefaultOptions(fresh);
    EXPECT_TRUE(fresh.importCameras);
    EXPECT_TRUE(fresh.importLights);
    CSceneImportOptions off;
    off.importCameras = false;
    off.importLights = true;
    CLxoIo::StoreOptions(off);
    CSceneImportOptions later;
    parser.LoadDefaultOptions(later);
    EXPECT_FALSE(later.importCameras);
    EXPECT_TRUE(later.importLights);
    if (oldXdg) ::setenv("XDG_CONFIG_HOME", keep.c_str(), 1);
    else ::unsetenv("XDG_CONFIG_HOME");
    if (noPrefs) ::setenv("ORBISCOPE_NO_PREFS", keepNo.c_str(), 1);
}

// Material tables are as long as the largest material ID a mesh uses; all meshes share one
// budget, so many meshes with a large ID cannot multiply the memory: those past it go out
// with the base material, and the log says so.
TEST(LxoExport, MaterialTablesShareOneBudget) {
    TempDir dir;
    const std::string path = (dir / "far.lxo").string();
    C3DScene scene;
    auto* far = new C3DStandardMaterial();
    far->SetID(65000);
    far->SetName(L"Far");
    scene.AddNewMaterial(far);
    const int meshes = 300; // 300 tables of 65001 entries: more than the 2^24 budget
    for (int i = 0; i < meshes; ++i) {
        auto* mesh = new C3DObject();
        for (int k = 0; k < 3; ++k) mesh->GetPointList()->Add(float(k == 0), float(k == 1), float(i));
        mesh->GetFaceList()->SetCurrentMaterial(65000);
        mesh->GetFaceList()->AddTriangle(0, 1, 2);
        scene.AddNode(nullptr, new C3DSceneNode(mesh))->SetName(CXStringW(L"m" + std::to_wstring(i)));
    }
    CFileIo io;
    CLxoIo parser(io);
    CSceneExportOptions options;
    ASSERT_TRUE(parser.Save(W(path), &scene, options));
    bool logged = false;
    for (const auto& l : options.GetLog()) logged |= l.text.Find(L"tag tables") >= 0;
    EXPECT_TRUE(logged);
    auto back = ReadBack(path);
    ASSERT_TRUE(back);
    auto nameOf = [&](int i) {
        C3DSceneNode* n = back->FindNodeByName(CXStringW(L"m" + std::to_wstring(i)));
        const C3DGeomObject* g = n ? n->GetGeomObject() : nullptr;
        const C3DMaterial* m = g ? back->GetMaterialByID(g->GetFaceList()->GetMaterialID(0)) : nullptr;
        return m ? m->GetName() : CXStringW(L"?");
    };
    EXPECT_EQ(nameOf(0), CXStringW(L"Far"));
    EXPECT_EQ(nameOf(meshes - 1), CXStringW(L"Default"));
}

TEST(LxoExport, FourByteIndicesAndSeamsAtHighPointsComeBack) {
    // 0x10005 points: faces, UV values and seams at points past 0xFF00 (and past 0xFFFF)
    // take four-byte indices in POLS, VMAP and VMAD; 0x10002 faces, so that polygon tags
    // do too.
    constexpr uint32_t kPoints = 0x10005;
    auto scene = std::make_unique<C3DScene>();
    C3DMaterial* red = scene->CreateNewMaterial();
    red->SetName(L"Red");
    auto* mesh = new C3DObject();
    auto* uv = new CUVWChannel();
    for (uint32_t i = 0; i < kPoints; ++i) {
        mesh->GetPointList()->Add(float(i), 0, 0);
        uv->GetUVWPointList()->Add(float(i) / kPoints, 0.5f, 0);
    }
    uv->GetUVWPointList()->Add(0.25f, 0.75f, 0); // the seam value
    const uint32_t a[3] = {0, 0xFF00, 0x10004}, b[4] = {0x10004, 0xFF00, 5, 6}, bUv[4] = {kPoints, 0xFF00, 5, 6};
    C3DFaceList& fl = *mesh->GetFaceList();
    fl.SetCurrentMaterial(NO_MATERIAL);
    fl.AddFace(a, 3);
    fl.SetCurrentMaterial(red->GetID());
    fl.AddFace(b, 4);
    uv->GetUVWFaceList()->AddFace(a, 3);
    uv->GetUVWFaceList()->AddFace(bUv, 4);
    const uint32_t t[3] = {1, 2, 3};
    for (uint32_t f = 2; f < 0x10002; ++f) {
        fl.SetCurrentMaterial(f % 3 ? NO_MATERIAL : red->GetID());
        fl.AddFace(t, 3);
        uv->GetUVWFaceList()->AddFace(t, 3);
    }
    mesh->SetGlobalUVWChannel(mesh->AddChannel(uv, 0));
    scene->AddNode(nullptr, new C3DSceneNode(mesh))->SetName(L"Big");

    TempDir dir;
    const std::string path = (dir / "big.lxo").string();
    ASSERT_TRUE(Save(*scene, path));
    auto back = ReadBack(path);
    ASSERT_TRUE(back);
    C3DSceneNode* node = back->FindNodeByName(CXStringW(L"Big"));
    auto* obj = node ? dynamic_cast<C3DObject*>(node->GetBaseObject()) : nullptr;
    ASSERT_TRUE(obj);
    ASSERT_EQ(obj->GetPointList()->GetSize(), int(kPoints));
    const C3DFaceList& faces = *obj->GetFaceList();
    ASSERT_EQ(faces.GetNumberOfFaces(), 0x10002);
    EXPECT_TRUE(std::equal(a, a + 3, faces.GetFaceIndices(0)));
    EXPECT_TRUE(std::equal(b, b + 4, faces.GetFaceIndices(1)));
    EXPECT_EQ(FaceMaterial(*back, *obj, 1)->GetName(), CXStringW(L"Red"));
    for (int f : {0xFF01, 0x10000, 0x10001})
        EXPECT_EQ(FaceMaterial(*back, *obj, f)->GetName() == CXStringW(L"Red"), f % 3 == 0) << f;
    const CUVWChannel* buv = obj->GetGlobalUVWChannel();
    ASSERT_TRUE(buv);
    auto uvAt = [&](int f, int k) {
        return buv->GetUVWPointList()->GetPoint(static_cast<int>(buv->GetUVWFaceList()->GetFaceIndices(f)[k]));
    };
    EXPECT_FLOAT_EQ(uvAt(0, 2).x, float(0x10004) / kPoints); // the point's own value
    EXPECT_FLOAT_EQ(uvAt(1, 0).x, 0.25f);                    // the seam
    EXPECT_FLOAT_EQ(uvAt(1, 0).y, 0.75f);
    EXPECT_FLOAT_EQ(uvAt(1, 1).x, float(0xFF00) / kPoints);
}
