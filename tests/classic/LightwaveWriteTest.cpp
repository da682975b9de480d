// LWO2 writing: byte layout, read-back of built scenes (hierarchy, surfaces, UV seams,
// textures, long polygons, long indices), and of every corpus object.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "tests/classic/LightwaveTestSupport.h"
#include "tests/support/TestSupport.h"

#include "formats/classic/C3DStudioIo.h"
#include "formats/classic/LightwaveWriter.h"
#include "plugin/host/BinaryCursor.h"
#include "plugin/host/Channel.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/Material.h"

using namespace lwtest;
namespace fs = std::filesystem;

namespace {

std::string Write(const C3DScene& s) {
    std::vector<uint8_t> b;
    EXPECT_TRUE(lightwave::WriteObject(s, b));
    return std::string(b.begin(), b.end());
}

// A quad (0,0,0) (1,0,0) (1,1,0) (0,1,0) with a UV channel whose corner 2 has its own value.
C3DSceneNode* Quad(const wchar_t* name, uint32_t material, float z) {
    auto* o = new C3DObject();
    auto* pts = new C3DPointList();
    pts->Add(0, 0, z);
    pts->Add(1, 0, z);
    pts->Add(1, 1, z);
    pts->Add(0, 1, z);
    o->SetPointList(pts);
    auto* f = new C3DFaceList();
    f->SetCurrentMaterial(material);
    const uint32_t q[4] = {0, 1, 2, 3};
    f->AddFace(q, 4);
    o->SetFaceList(f);
    auto ch = std::make_unique<CUVWChannel>();
    ch->SetName(L"uvs");
    for (float v : {0.0f, 0.1f, 0.2f, 0.3f, 0.9f}) ch->GetUVWPointList()->Add(v, v, 0);
    const uint32_t u[4] = {0, 1, 4, 3}; // point 2 uses UV 4 here, UV 2 nowhere
    ch->GetUVWFaceList()->AddFace(u, 4);
    o->SetGlobalUVWChannel(o->AddChannel(std::move(ch)));
    auto* n = new C3DSceneNode(o);
    n->SetName(name);
    return n;
}

C3DPoint UvOfCorner(const C3DObject& o, int face, int corner) {
    const CUVWChannel* ch = o.GetGlobalUVWChannel();
    return ch->GetUVWPointList()->GetPoint(static_cast<int>(ch->GetUVWFaceList()->Face(face)[corner]));
}

std::vector<C3DPoint> WorldPoints(const C3DSceneNode* n) {
    C4x4Matrix w, o;
    n->GetNodeTM(0, w);
    n->GetObjectLocalTM(0, o);
    const C4x4Matrix m = o * w;
    std::vector<C3DPoint> r;
    auto* g = n->GetGeomObject();
    for (int i = 0; i < g->GetPointList()->GetSize(); ++i)
        r.push_back(m.TransformPoint(g->GetPointList()->GetPoint(i)));
    return r;
}

} // namespace

TEST(LightwaveWrite, ChunkLayoutMirrorsAndPads) {
    C3DScene s;
    auto* m = static_cast<C3DStandardMaterial*>(s.CreateNewMaterial());
    m->SetName(L"Odd"); // "Odd" + NUL is even: no pad; the layer name below needs one
    s.AddNode(nullptr, Quad(L"Ab", m->GetID(), 2.0f));
    const std::string b = Write(s);
    CBinaryCursor c(reinterpret_cast<const uint8_t*>(b.data()), b.size());
    EXPECT_EQ(c.u32be(), FourCC("FORM"));
    EXPECT_EQ(c.u32be(), b.size() - 8);
    EXPECT_EQ(c.u32be(), FourCC("LWO2"));
    EXPECT_EQ(c.u32be(), FourCC("TAGS"));
    EXPECT_EQ(c.u32be(), 4u);
    c.skip(4);
    EXPECT_EQ(c.u32be(), FourCC("LAYR"));
    EXPECT_EQ(c.u32be(), 2u + 2 + 12 + 4 + 2); // "Ab" NUL pad, parent -1
    EXPECT_EQ(c.u16be(), 0);
    EXPECT_EQ(c.u16be(), 0);
    c.skip(12);
    c.skip(4);
    EXPECT_EQ(c.u16be(), 0xFFFF);
    EXPECT_EQ(c.u32be(), FourCC("PNTS"));
    EXPECT_EQ(c.u32be(), 48u);
    c.skip(8);
    EXPECT_EQ(c.f32be(), -2.0f); // z mirrored
    c.skip(36);
    EXPECT_EQ(c.u32be(), FourCC("BBOX"));
    c.skip(c.u32be());
    EXPECT_EQ(c.u32be(), FourCC("POLS"));
    EXPECT_EQ(c.u32be(), 4u + 2 + 8);
    EXPECT_EQ(c.u32be(), FourCC("FACE"));
    EXPECT_EQ(c.u16be(), 4);
    EXPECT_EQ(c.u16be(), 0); // (0,1,2,3) becomes (0,3,2,1)
    EXPECT_EQ(c.u16be(), 3);
    EXPECT_EQ(c.u16be(), 2);
    EXPECT_EQ(c.u16be(), 1);
    EXPECT_EQ(Write(s), b); // deterministic
}

TEST(LightwaveWrite, ReadBackKeepsHierarchySurfacesSeamsAndTextures) {
    C3DScene s;
    auto* m = static_cast<C3DStandardMaterial*>(s.CreateNewMaterial());
    m->SetName(L"Brick");
    m->diffuse.SetColor(255, 128, 0);
    m->diffuseFactor = 0.75f;
    m->specularFactor = 0.5f;
    m->shininess = 0.25f;
    m->transparency = 0.125f;
    m->smoothAngle = 30;
    m->SetFlag(MATF_TWO_SIDED);
    m->AddMaterialMap(L"maps/brick.png", 0, MAP_DIFFUSE);
    C3DSceneNode* parent = s.AddNode(nullptr, Quad(L"Parent", m->GetID(), 0));
    C3DSceneNode* group = s.AddNode(parent, new C3DSceneNode(new C3DGroup()));
    C3DSceneNode* child = s.AddNode(group, Quad(L"Child", NO_MATERIAL, 1));
    group->SetNodeLocalTM(C4x4Matrix::Translation(5, 0, 0));
    const std::vector<C3DPoint> before = WorldPoints(child);

    ReadResult r = ReadObjectBytes(Write(s));
    ASSERT_TRUE(r.scene) << r.error;
    C3DSceneNode* p2 = FindNode(*r.scene, L"Parent");
    C3DSceneNode* c2 = FindNode(*r.scene, L"Child");
    ASSERT_TRUE(p2 && c2);
    EXPECT_EQ(c2->GetParent(), p2); // the group in between has no layer
    const std::vector<C3DPoint> after = WorldPoints(c2);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_NEAR(after[i].x, before[i].x, 1e-5);
        EXPECT_NEAR(after[i].z, before[i].z, 1e-5);
    }
    ASSERT_EQ(r.scene->GetMaterialNumber(), 2);
    auto* m2 = static_cast<C3DStandardMaterial*>(r.scene->GetMaterialByID(r.scene->GetMaterialID(L"Brick")));
    ASSERT_TRUE(m2);
    EXPECT_EQ(m2->diffuse, CRGBColor(255, 128, 0));
    EXPECT_FLOAT_EQ(m2->diffuseFactor, 0.75f);
    EXPECT_FLOAT_EQ(m2->specularFactor, 0.5f);
    EXPECT_FLOAT_EQ(m2->shininess, 0.25f);
    EXPECT_FLOAT_EQ(m2->transparency, 0.125f);
    EXPECT_NEAR(m2->smoothAngle, 30.0f, 1e-4);
    EXPECT_TRUE(m2->IsFlagSet(MATF_TWO_SIDED));
    const CMaterialMap* map = m2->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->file, L"maps/brick.png");
    C3DObject* o2 = MeshOf(p2);
    EXPECT_EQ(o2->GetChannelByID(map->channel, CHANNEL_UVW), o2->GetGlobalUVWChannel());
    EXPECT_EQ(o2->GetGlobalUVWChannel()->GetName(), L"uvs");
    // Corners keep their UVs, the seam corner included (host corner order is kept).
    const float expect[4] = {0.0f, 0.1f, 0.9f, 0.3f};
    for (int k = 0; k < 4; ++k) EXPECT_FLOAT_EQ(UvOfCorner(*o2, 0, k).x, expect[k]) << k;
    for (int k = 0; k < 4; ++k) EXPECT_EQ(o2->GetFaceList()->Face(0)[k], static_cast<uint32_t>(k));
    EXPECT_EQ(r.scene->GetMaterialByID(MeshOf(c2)->GetFaceList()->GetMaterialID(0))->GetName(), L"Default");
}

TEST(LightwaveWrite, RepeatedSurfaceNamesTakeTheFirstFreeSuffix) {
    // Materials in ID order: "X" twice, then "X_3" (a name of its own), then "X" twice more.
    C3DScene s;
    float z = 0;
    for (const wchar_t* name : {L"X", L"X", L"X_3", L"X", L"X"}) {
        C3DMaterial* m = s.CreateNewMaterial();
        m->SetName(name);
        s.AddNode(nullptr, Quad(L"Q", m->GetID(), z++));
    }
    const std::string bytes = Write(s);
    const size_t at = bytes.find("TAGS");
    ASSERT_NE(at, std::string::npos);
    ASSERT_LE(at + 8, bytes.size());
    size_t size = 0;
    for (int i = 4; i < 8; ++i) size = size << 8 | static_cast<uint8_t>(bytes[at + i]);
    ASSERT_LE(at + 8 + size, bytes.size());
    std::vector<std::string> tags;
    for (size_t i = 0; i < size;) {
        const std::string t(bytes.c_str() + at + 8 + i);
        tags.push_back(t);
        i += (t.size() + 2) & ~size_t(1);
    }
    EXPECT_EQ(tags, (std::vector<std::string>{"X", "X_2", "X_3", "X_4", "X_5"}));
}

TEST(LightwaveWrite, LongPolygonsAndLongIndices) {
    C3DScene s;
    auto* o = new C3DObject();
    auto* pts = new C3DPointList();
    const int ring = 1500, extra = 70000;
    for (int i = 0; i < extra; ++i) pts->Add(float(i), 0, 5);
    for (int i = 0; i < ring; ++i) pts->Add(std::cos(i * 6.2831853f / ring), std::sin(i * 6.2831853f / ring), 0);
    o->SetPointList(pts);
    auto* f = new C3DFaceList();
    std::vector<uint32_t> big(ring);
    for (int i = 0; i < ring; ++i) big[i] = static_cast<uint32_t>(extra + i);
    f->AddFace(big.data(), ring);
    f->AddTriangle(0, 1, static_cast<uint32_t>(extra - 1));
    o->SetFaceList(f);
    s.AddNode(nullptr, new C3DSceneNode(o))->SetName(L"Big");
    ReadResult r = ReadObjectBytes(Write(s));
    ASSERT_TRUE(r.scene);
    C3DObject* o2 = MeshOf(FindNode(*r.scene, L"Big"));
    ASSERT_TRUE(o2);
    const C3DFaceList& f2 = *o2->GetFaceList();
    ASSERT_EQ(f2.GetNumberOfFaces(), 3); // 1023 + 479 corners, then the triangle
    EXPECT_EQ(f2.GetFaceSize(0), 1023);
    EXPECT_EQ(f2.GetFaceSize(1), 1500 - 1022 + 1);
    EXPECT_EQ(f2.GetFaceSize(0) - 2 + f2.GetFaceSize(1) - 2, ring - 2); // same triangles
    EXPECT_EQ(f2.Face(2)[2], static_cast<uint32_t>(extra - 1));
    EXPECT_EQ(f2.Face(0)[0], static_cast<uint32_t>(extra));
}

TEST(LightwaveWrite, NothingToWrite) {
    C3DScene s;
    s.AddNode(nullptr, new C3DSceneNode(new C3DGroup()));
    std::vector<uint8_t> b;
    EXPECT_FALSE(lightwave::WriteObject(s, b));
}

TEST(LightwaveWrite, EveryCorpusObjectReadsBackTheSame) {
    SKIP_WITHOUT_CORPUS();
    for (const char* sub : {"lwo/lwo2", "lwo/lwob"}) {
        for (const fs::path& p : testsupport::CorpusFiles(sub, ".lwo")) {
            ReadResult a = ReadObjectBytes(testsupport::ReadFile(p), p.parent_path().wstring());
            ASSERT_TRUE(a.scene) << p;
            ReadResult b = ReadObjectBytes(Write(*a.scene), p.parent_path().wstring());
            ASSERT_TRUE(b.scene) << p;
            EXPECT_EQ(a.scene->GetNodeCount(), b.scene->GetNodeCount()) << p;
            EXPECT_EQ(a.scene->GetMaterialNumber(), b.scene->GetMaterialNumber()) << p;
            C3DBaseObject* o;
            for (C3DNodePos pos = a.scene->GetFirstNode(KINDOF_MESH); C3DSceneNode* n = a.scene->GetNextNode(o, pos);) {
                C3DObject* m1 = MeshOf(n);
                C3DObject* m2 = MeshOf(FindNode(*b.scene, n->GetName().c_str()));
                ASSERT_TRUE(m1 && m2) << p;
                ASSERT_EQ(m1->GetPointList()->GetSize(), m2->GetPointList()->GetSize()) << p;
                ASSERT_EQ(m1->GetFaceList()->GetNumberOfFaces(), m2->GetFaceList()->GetNumberOfFaces()) << p;
                const bool uv = m1->GetGlobalUVWChannel() != nullptr;
                ASSERT_EQ(uv, m2->GetGlobalUVWChannel() != nullptr) << p;
                for (int f = 0; f < m1->GetFaceList()->GetNumberOfFaces(); ++f) {
                    ASSERT_EQ(m1->GetFaceList()->GetFaceSize(f), m2->GetFaceList()->GetFaceSize(f));
                    EXPECT_EQ(a.scene->GetMaterialByID(m1->GetFaceList()->GetMaterialID(f))->GetName(),
                              b.scene->GetMaterialByID(m2->GetFaceList()->GetMaterialID(f))->GetName());
                    for (int k = 0; uv && k < m1->GetFaceList()->GetFaceSize(f); ++k) {
                        EXPECT_EQ(m1->GetFaceList()->Face(f)[k], m2->GetFaceList()->Face(f)[k]);
                        const C3DPoint u1 = UvOfCorner(*m1, f, k), u2 = UvOfCorner(*m2, f, k);
                        ASSERT_EQ(u1.x, u2.x) << p << " face " << f;
                        ASSERT_EQ(u1.y, u2.y) << p << " face " << f;
                    }
                }
            }
        }
    }
}

// Scenes of another reader (3D Studio, with hierarchies and pivots) keep their meshes, points,
// faces and world positions through an LWO2 file.
TEST(LightwaveWrite, StudioScenesReadBackTheSame) {
    SKIP_WITHOUT_CORPUS();
    int files = 0;
    for (const fs::path& p : testsupport::CorpusFiles("3ds")) {
        const std::string bytes = testsupport::ReadFile(p);
        CFileIo io;
        CSceneImportOptions opt;
        C3DStudioIo studio(io);
        std::unique_ptr<C3DScene> a(studio.ReadMemory(bytes.data(), bytes.size(), opt));
        if (!a) continue;
        CSceneExportOptions eo;
        CFileIo wio;
        CLightwaveIo(wio).SaveDefaultOptions(eo);
        std::unique_ptr<C3DScene> prepared = PrepareSceneForExport(*a, eo.prepFlags, &eo);
        std::vector<uint8_t> out;
        if (!lightwave::WriteObject(*prepared, out)) continue; // nothing but cameras and lights
        ReadResult b = ReadObjectBytes(std::string(out.begin(), out.end()));
        ASSERT_TRUE(b.scene) << p;
        C3DBaseObject* o;
        int meshes = 0;
        for (C3DNodePos pos = prepared->GetFirstNode(KINDOF_MESH); C3DSceneNode* n = prepared->GetNextNode(o, pos);) {
            auto* m = static_cast<C3DObject*>(o);
            if (!m->GetPointList() || !m->GetFaceList()) continue;
            ++meshes;
            C3DSceneNode* n2 = FindNode(*b.scene, n->GetName().c_str());
            ASSERT_TRUE(n2 && MeshOf(n2)) << p << " " << WideToUtf8(n->GetName().view());
            EXPECT_EQ(MeshOf(n2)->GetFaceList()->GetNumberOfFaces(), m->GetFaceList()->GetNumberOfFaces()) << p;
            const std::vector<C3DPoint> w1 = WorldPoints(n), w2 = WorldPoints(n2);
            ASSERT_EQ(w1.size(), w2.size()) << p;
            for (size_t i = 0; i < w1.size(); ++i) {
                EXPECT_NEAR(w1[i].x, w2[i].x, 1e-3 * (1 + std::fabs(w1[i].x))) << p;
                EXPECT_NEAR(w1[i].z, w2[i].z, 1e-3 * (1 + std::fabs(w1[i].z))) << p;
            }
        }
        EXPECT_EQ(b.scene->GetChildCount(nullptr, KINDOF_MESH), meshes) << p;
        ++files;
    }
    EXPECT_GT(files, 3);
}
