// Lightwave scenes: envelope spans and behaviours, the three motion syntaxes, items and
// their parents, objects loaded from files, and hostile scenes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "tests/classic/LightwaveTestSupport.h"
#include "tests/support/TestSupport.h"

#include "formats/classic/CLightwaveSceneIo.h"
#include "formats/classic/LightwaveScene.h"
#include "plugin/host/Keys.h"

using namespace lwtest;
using lightwave::Envelope;
using lightwave::EnvelopeKey;
namespace fs = std::filesystem;

namespace {

ReadResult ReadSceneText(const std::string& text, const fs::path& folder = {}) {
    CFileIo io;
    CLightwaveSceneIo parser(io);
    CSceneImportOptions options;
    ReadResult r;
    r.scene.reset(parser.ReadMemory({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, options,
                                    CXStringW(folder.wstring())));
    r.error = io.GetIoError();
    for (const auto& l : options.GetLog()) r.log.push_back(l.text.str());
    return r;
}

Envelope Env(std::initializer_list<EnvelopeKey> keys, int pre = 1, int post = 1) {
    Envelope e;
    e.keys = keys;
    e.pre = pre;
    e.post = post;
    return e;
}

C3DPoint WorldAt(const C3DSceneNode* n, double seconds, const C3DScene& s) {
    C4x4Matrix m;
    n->GetNodeTM(seconds * s.GetTickCount(), m);
    return m.GetTranslation();
}

std::string ThreeKeyEnvelope(int span) {
    const std::string sp = std::to_string(span);
    return "{ Envelope\n  3\n  Key 0 0 0 0 0 0 0 0 0\n  Key 2 1 " + sp + " 0 0 0 0 0 0\n  Key 0 2 " + sp +
           " 0 0 0 0 0 0\n  Behaviors 1 1\n}\n";
}

} // namespace

TEST(LightwaveEnvelope, SpanTypesBetweenKeys) {
    EnvelopeKey a{0, 0, 0, {}}, b{10, 1, 0, {}};
    // Linear and stepped.
    b.span = 3;
    EXPECT_DOUBLE_EQ(Env({a, b}).Evaluate(0.25), 2.5);
    b.span = 4;
    EXPECT_DOUBLE_EQ(Env({a, b}).Evaluate(0.99), 0.0);
    EXPECT_DOUBLE_EQ(Env({a, b}).Evaluate(1.0), 10.0);
    // TCB with two keys: the one-sided tangents make it a straight line at the ends' slope.
    b.span = 0;
    EXPECT_NEAR(Env({a, b}).Evaluate(0.5), 5.0, 1e-9);
    // TCB through three keys: passes every key, overshoots nothing on a symmetric hump.
    EnvelopeKey c{0, 2, 0, {}};
    const Envelope hump = Env({a, b, c});
    EXPECT_NEAR(hump.Evaluate(1.0), 10.0, 1e-9);
    EXPECT_GT(hump.Evaluate(0.9), 9.0);
    EXPECT_NEAR(hump.Evaluate(0.5), hump.Evaluate(1.5), 1e-9);
    // Tension 1 flattens the tangents at the middle key of a rising curve.
    EnvelopeKey up{30, 2, 0, {}}, bt = b;
    bt.p[0] = 1;
    EXPECT_GT(Env({a, bt, up}).Evaluate(0.9), Env({a, b, up}).Evaluate(0.9));
    EXPECT_NEAR(Env({a, bt, up}).Evaluate(1.0), 10.0, 1e-9);
    // Hermite: tangents (per second) from the keys; zero tangents ease in and out.
    EnvelopeKey h = b;
    h.span = 1;
    EXPECT_NEAR(Env({a, h}).Evaluate(0.5), 5.0, 1e-9);
    EXPECT_LT(Env({a, h}).Evaluate(0.1), 1.0);
    h.p[3] = 30; // steep arrival
    EXPECT_LT(Env({a, h}).Evaluate(0.5), 5.0);
    // 2-D Bezier: handles at a third of the span on the straight line give the straight line.
    EnvelopeKey z0{0, 0, 5, {0, 0, 1.0 / 3, 10.0 / 3, 0, 0}}, z1{10, 1, 5, {-1.0 / 3, -10.0 / 3, 0, 0, 0, 0}};
    EXPECT_NEAR(Env({z0, z1}).Evaluate(0.5), 5.0, 1e-6);
    z0.p[3] = 0; // flat start
    EXPECT_LT(Env({z0, z1}).Evaluate(0.25), 2.5);
}

TEST(LightwaveEnvelope, BehavioursOutsideTheKeys) {
    EnvelopeKey a{1, 0, 3, {}}, b{3, 1, 3, {}};
    EXPECT_DOUBLE_EQ(Env({a, b}, 1, 0).Evaluate(2.0), 0.0);   // reset
    EXPECT_DOUBLE_EQ(Env({a, b}, 1, 1).Evaluate(2.0), 3.0);   // constant
    EXPECT_DOUBLE_EQ(Env({a, b}, 1, 2).Evaluate(2.25), 1.5);  // repeat
    EXPECT_DOUBLE_EQ(Env({a, b}, 1, 3).Evaluate(1.25), 2.5);  // oscillate: on its way back
    EXPECT_DOUBLE_EQ(Env({a, b}, 1, 4).Evaluate(2.5), 6.0);   // offset repeat: + 2 per cycle
    EXPECT_DOUBLE_EQ(Env({a, b}, 1, 5).Evaluate(3.0), 7.0);   // linear on
    EXPECT_DOUBLE_EQ(Env({a, b}, 4, 1).Evaluate(-0.25), 0.5); // pre offset repeat: 2.5 - 2
    EXPECT_DOUBLE_EQ(Env({a, b}, 0, 1).Evaluate(-0.5), 0.0);
    // Far outside: no loop runs per cycle.
    EXPECT_TRUE(std::isfinite(Env({a, b}, 1, 4).Evaluate(1e12)));
}

TEST(LightwaveScene, VersionThreeEnvelopesParentsAndForwardReferences) {
    const std::string text =
        "LWSC\n3\n\nFirstFrame 0\nLastFrame 60\nFramesPerSecond 30\n"
        "AddNullObject Child\nParentItem 10000001\nObjectMotion\nNumChannels 9\nChannel 0\n" +
        ThreeKeyEnvelope(3) +
        "Channel 2\n{ Envelope\n  1\n  Key 4 0 0 0 0 0 0 0 0\n  Behaviors 1 1\n}\n"
        "\nAddNullObject Parent Null\nPivotPosition 0 0 0\n"
        "{ Unknown\n  { Nested\n  }\n  AddNullObject Fake\n}\n"
        "AddLight\nLightName Sun\nLightType 0\nLightColor 1 0.5 0\nLightIntensity 0.8\n"
        "AddCamera\nCameraName Cam\nZoomFactor (envelope)\n{ Envelope\n  1\n  Key 1 0 0 0 0 0 0 0 0\n"
        "  Behaviors 1 1\n}\nParentItem 10000000\n";
    ReadResult r = ReadSceneText(text);
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(r.scene->GetNodeCount(), 4); // the block's AddNullObject was skipped with it
    C3DSceneNode* child = FindNode(*r.scene, L"Child");
    C3DSceneNode* parent = FindNode(*r.scene, L"Parent Null");
    ASSERT_TRUE(child && parent);
    EXPECT_EQ(child->GetParent(), parent);
    EXPECT_EQ(FindNode(*r.scene, L"Cam")->GetParent(), child);
    EXPECT_NEAR(WorldAt(child, 0.5, *r.scene).x, 1.0, 1e-4);
    EXPECT_NEAR(WorldAt(child, 1.0, *r.scene).x, 2.0, 1e-4);
    EXPECT_NEAR(WorldAt(child, 1.5, *r.scene).x, 1.0, 1e-4);
    EXPECT_NEAR(WorldAt(child, 1.0, *r.scene).z, -4.0, 1e-4); // Z mirrored
    EXPECT_EQ(child->GetKeyNbr(KEY_TRANSLATE), 61);
    EXPECT_EQ(r.scene->GetAnimationEnd(), 60 * r.scene->GetTickCount() / 30);
    auto* sun = static_cast<C3DLight*>(FindNode(*r.scene, L"Sun")->GetBaseObject());
    EXPECT_EQ(sun->GetLightKind(), LIGHT_DIRECTIONAL);
    EXPECT_EQ(sun->color, CRGBColor(255, 128, 0));
    EXPECT_FLOAT_EQ(sun->intensity, 0.8f);
    auto* cam = static_cast<C3DCamera*>(FindNode(*r.scene, L"Cam")->GetBaseObject());
    EXPECT_NEAR(cam->GetVFov(), 3.14159265f / 2, 1e-5); // zoom 1: 90 degrees
}

TEST(LightwaveScene, HeadingTurnsForwardTowardsX) {
    const std::string text = "LWSC\n3\nAddNullObject Turned\nObjectMotion\nNumChannels 9\nChannel 3\n"
                             "{ Envelope\n  1\n  Key 1.5707963 0 0 0 0 0 0 0 0\n  Behaviors 1 1\n}\n";
    ReadResult r = ReadSceneText(text);
    ASSERT_TRUE(r.scene);
    C4x4Matrix m;
    FindNode(*r.scene, L"Turned")->GetNodeTM(0, m);
    // Forward is +Z in the file, -Z in the host; heading 90 degrees turns it to +X in both.
    const C3DVector f = m.TransformVector(C3DVector(0, 0, -1));
    EXPECT_NEAR(f.x, 1.0f, 1e-5);
    EXPECT_NEAR(f.z, 0.0f, 1e-5);
}

TEST(LightwaveScene, OlderMotionSyntaxesInDegreesAndFrames) {
    // Version 1: all channels per key, frame numbers; ParentObject counts from 1.
    const std::string v1 = "LWSC\n1\nFramesPerSecond 10\nLastFrame 20\nAddNullObject A\n"
                           "ObjectMotion (unnamed)\n  9\n  2\n  0 0 0 0 0 0 1 1 1\n  0 0 0 0 0 0\n"
                           "  4 0 0 90 0 0 1 1 1\n  20 1 0 0 0\nEndBehavior 1\nAddNullObject B\nParentObject 1\n";
    ReadResult r = ReadSceneText(v1);
    ASSERT_TRUE(r.scene);
    C3DSceneNode* a = FindNode(*r.scene, L"A");
    EXPECT_EQ(FindNode(*r.scene, L"B")->GetParent(), a);
    EXPECT_NEAR(WorldAt(a, 1.0, *r.scene).x, 2.0, 1e-4); // frame 10 of 20, linear
    EXPECT_NEAR(WorldAt(a, 2.0, *r.scene).x, 4.0, 1e-4);
    // Version 2: per channel "value time ..." lines, then the behaviour codes.
    const std::string v2 = "LWSC\n2\nLastFrame 30\nAddNullObject C\nObjectMotion (unnamed)\n  9\n  2\n"
                           "  0 0 2 0 0 0\n  3 1 2 0 0 0\n  1\n  0 0 2 0 0 0\n  1\n  5 0 2 0 0 0\n"
                           "Pre/PostBehavior 1 2 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1\n";
    r = ReadSceneText(v2);
    ASSERT_TRUE(r.scene);
    C3DSceneNode* c = FindNode(*r.scene, L"C");
    EXPECT_NEAR(WorldAt(c, 1.0, *r.scene).x, 3.0, 1e-4);
    EXPECT_NEAR(WorldAt(c, 0.0, *r.scene).z, -5.0, 1e-4);
}

TEST(LightwaveScene, RefusesAndSurvivesHostileScenes) {
    EXPECT_EQ(ReadSceneText("").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadSceneText("LWSC\nfive\n").error, IO_ERR_FORMAT);
    EXPECT_EQ(ReadSceneText("LWSC\n3\nFirstFrame 1\n").error, IO_ERR_EMPTY);
    // Parent cycles, self parents, thousands of missing objects, a huge key count claim.
    std::string s = "LWSC\n5\nLastFrame 1000000000\n";
    s += "AddNullObject 10000000 A\nParentItem 10000001\nAddNullObject 10000001 B\nParentItem 10000000\n";
    s += "AddNullObject 10000002 C\nParentItem 10000002\n";
    for (int i = 0; i < 3000; ++i) s += "LoadObjectLayer 1 missing" + std::to_string(i % 50) + ".lwo\n";
    s += "AddNullObject Keys\nObjectMotion\nNumChannels 9\nChannel 0\n{ Envelope\n  2000000000\n";
    for (int i = 0; i < 20000; ++i) s += "  Key " + std::to_string(i) + " " + std::to_string(i) + " 0 0 0 0 0 0 0\n";
    s += "}\n";
    fs::path nowhere = fs::temp_directory_path() / "lws-no-such-folder";
    ReadResult r = ReadSceneText(s, nowhere);
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(FindNode(*r.scene, L"C")->GetParent(), r.scene->GetRoot());
    const C3DSceneNode* a = FindNode(*r.scene, L"A");
    const C3DSceneNode* b = FindNode(*r.scene, L"B");
    EXPECT_TRUE(a->GetParent() == r.scene->GetRoot() || b->GetParent() == r.scene->GetRoot());
    EXPECT_EQ(r.scene->GetNodeCount(), 3004);
    EXPECT_LE(FindNode(*r.scene, L"Keys")->GetKeyNbr(KEY_TRANSLATE), 2000);
    // Every prefix of a real scene is read or refused cleanly.
    const std::string good = "LWSC\n3\nAddNullObject N\nObjectMotion\nNumChannels 9\nChannel 0\n" + ThreeKeyEnvelope(0);
    for (size_t n = 0; n <= good.size(); ++n) {
        ReadResult p = ReadSceneText(good.substr(0, n));
        if (!p.scene) { EXPECT_NE(p.error, 0) << n; }
    }
}

TEST(LightwaveScene, ReferencesItselfAsAnObject) {
    testsupport::TempDir dir;
    const std::string text = "LWSC\n3\nLoadObjectLayer 1 self.lws\nLoadObject self.lws\n";
    testsupport::WriteFile(dir / "self.lws", text);
    ReadResult r = ReadSceneText(text, dir.path());
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetNodeCount(), 2); // two empty items, each with a warning
    EXPECT_FALSE(r.log.empty());
}

TEST(LightwaveScene, ObjectsFromTheContentFolderAndTheirLayers) {
    // Objects/two.lwo two layers (0 and 1); the scene sits in Scenes/ and names Objects/two.lwo.
    testsupport::TempDir dir;
    fs::create_directories(dir / "Objects");
    fs::create_directories(dir / "Scenes");
    IffBuilder b;
    b.Form("LWO2");
    b.Chunk("LAYR").U16(0).U16(0).Vec(0, 0, 0).S0("Base").End();
    b.Chunk("PNTS").Vec(0, 0, 0).Vec(0, 1, 0).Vec(1, 0, 0).End();
    b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(2).End();
    b.Chunk("LAYR").U16(1).U16(0).Vec(0, 0, 5).S0("Top").I16(0).End();
    b.Chunk("PNTS").Vec(0, 0, 5).Vec(0, 1, 5).Vec(1, 0, 5).Vec(1, 1, 5).End();
    b.Chunk("POLS").Id("FACE").U16(4).VX(0).VX(1).VX(3).VX(2).End();
    b.End();
    testsupport::WriteFile(dir / "Objects" / "two.lwo", b.Bytes());
    const std::string text = "LWSC\n5\nLoadObjectLayer 2 10000000 Objects\\two.lwo\nPivotPosition 0 0 2\n"
                             "LoadObjectLayer 1 10000001 Objects/two.lwo\n";
    testsupport::WriteFile(dir / "Scenes" / "s.lws", text);
    ReadResult r = ReadSceneText(text, dir / "Scenes");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetNodeCount(), 2);
    C3DSceneNode* top = FindNode(*r.scene, L"two:Top");
    ASSERT_TRUE(top);
    ASSERT_TRUE(MeshOf(top));
    EXPECT_EQ(MeshOf(top)->GetFaceList()->GetNumberOfFaces(), 1);
    EXPECT_EQ(MeshOf(top)->GetFaceList()->GetFaceSize(0), 4);
    // The scene moves the pivot from the layer's 5 to 2: points keep their place around it.
    C4x4Matrix o;
    top->GetObjectLocalTM(0, o);
    EXPECT_FLOAT_EQ(o.GetTranslation().z, -3.0f);
    ASSERT_TRUE(FindNode(*r.scene, L"two:Base"));
    EXPECT_EQ(MeshOf(FindNode(*r.scene, L"two:Base"))->GetFaceList()->GetNumberOfFaces(), 1);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 1); // the file was read once
}

TEST(LightwaveScene, LayerItemsTakeTheFirstLayerOfTheirNumberInTreeOrder) {
    // dup.lwo: "First" (1, with a two-point line: a curve child numbered 1 too), "Second" (1
    // again), "Third" (3, a child of layer 1). Items ask for layers 1, 0->1, 3 and 9.
    testsupport::TempDir dir;
    IffBuilder b;
    b.Form("LWO2");
    b.Chunk("LAYR").U16(1).U16(0).Vec(0, 0, 0).S0("First").End();
    b.Chunk("PNTS").Vec(0, 0, 0).Vec(0, 1, 0).Vec(1, 0, 0).End();
    b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(2).U16(2).VX(0).VX(1).End();
    b.Chunk("LAYR").U16(1).U16(0).Vec(0, 0, 0).S0("Second").End();
    b.Chunk("PNTS").Vec(0, 0, 1).Vec(0, 1, 1).Vec(1, 0, 1).Vec(1, 1, 1).End();
    b.Chunk("POLS").Id("FACE").U16(4).VX(0).VX(1).VX(3).VX(2).End();
    b.Chunk("LAYR").U16(3).U16(0).Vec(0, 0, 0).S0("Third").I16(1).End();
    b.Chunk("PNTS").Vec(0, 0, 2).Vec(0, 1, 2).Vec(1, 0, 2).End();
    b.Chunk("POLS").Id("FACE").U16(3).VX(0).VX(1).VX(2).End();
    b.End();
    testsupport::WriteFile(dir / "dup.lwo", b.Bytes());
    const std::string text = "LWSC\n3\nLoadObjectLayer 2 dup.lwo\nLoadObjectLayer 1 dup.lwo\n"
                             "LoadObjectLayer 4 dup.lwo\nLoadObjectLayer 9 dup.lwo\n";
    ReadResult r = ReadSceneText(text, dir.path());
    ASSERT_TRUE(r.scene);
    std::vector<std::wstring> names;
    std::vector<C3DSceneNode*> items;
    for (C3DSceneNode* n = r.scene->GetRoot()->GetChildNode(); n; n = n->GetRightNode()) {
        names.push_back(n->GetName().str());
        items.push_back(n);
    }
    ASSERT_EQ(names, (std::vector<std::wstring>{L"dup:First", L"dup:First", L"dup:Third", L"dup"}));
    for (int i = 0; i < 2; ++i) {
        // The layer, not its curve child, and the curve comes along; child layers do not.
        ASSERT_TRUE(MeshOf(items[i]));
        EXPECT_EQ(MeshOf(items[i])->GetFaceList()->GetNumberOfFaces(), 1);
        EXPECT_EQ(MeshOf(items[i])->GetFaceList()->GetFaceSize(0), 3);
        ASSERT_EQ(items[i]->GetDirectChildCount(), 1);
        EXPECT_EQ(items[i]->GetChildNode()->GetKindOf(), static_cast<uint32_t>(KINDOF_CURVE));
    }
    EXPECT_EQ(items[2]->GetDirectChildCount(), 0);
    EXPECT_FALSE(MeshOf(items[3]));
    EXPECT_TRUE(r.Logged(L"layer 9 not found in dup.lwo"));
}

TEST(LightwaveScene, CopiesOfObjectsStopAtTheirBudget) {
    // 100 items, whole file and layer by turns, each a copy of one 2,000-point layer.
    testsupport::TempDir dir;
    IffBuilder b;
    b.Form("LWO2");
    b.Chunk("LAYR").U16(0).U16(0).Vec(0, 0, 0).S0("Big").End();
    b.Chunk("PNTS");
    for (int i = 0; i < 2000; ++i) b.Vec(float(i), 0, 0);
    b.End().End();
    testsupport::WriteFile(dir / "big.lwo", b.Bytes());
    std::string text = "LWSC\n3\n";
    for (int i = 0; i < 100; ++i) text += i % 2 ? "LoadObjectLayer 1 big.lwo\n" : "LoadObject big.lwo\n";
    auto read = [&](uint64_t allowance) {
        CSceneImportOptions options;
        ReadResult r;
        r.error = lightwave::ReadScene({reinterpret_cast<const uint8_t*>(text.data()), text.size()},
                                       CXStringW(dir.path().wstring()), options, {}, r.scene, allowance);
        for (const auto& l : options.GetLog()) r.log.push_back(l.text.str());
        return r;
    };
    auto meshes = [](const C3DScene& s) {
        std::vector<bool> v;
        for (C3DSceneNode* n = s.GetRoot()->GetChildNode(); n; n = n->GetRightNode()) v.push_back(MeshOf(n));
        return v;
    };
    const std::wstring message = L"objects used too many times";
    ReadResult all = read(lightwave::kCopyAllowance);
    ASSERT_TRUE(all.scene);
    EXPECT_EQ(meshes(*all.scene), std::vector<bool>(100, true));
    EXPECT_FALSE(all.Logged(message));

    // Nothing beyond the bytes' own share: the first items keep their copies, the later ones
    // stay as empty items named after the file, and the log says so once.
    ReadResult cut = read(0);
    ASSERT_TRUE(cut.scene);
    const std::vector<bool> kept = meshes(*cut.scene);
    ASSERT_EQ(kept.size(), 100u);
    const size_t first = static_cast<size_t>(std::find(kept.begin(), kept.end(), false) - kept.begin());
    EXPECT_GT(first, 2u);
    EXPECT_LT(first, 100u);
    EXPECT_EQ(std::count(kept.begin(), kept.end(), true), static_cast<std::ptrdiff_t>(first));
    C3DSceneNode* last = cut.scene->GetRoot()->GetChildNode();
    while (last->GetRightNode()) last = last->GetRightNode();
    EXPECT_EQ(last->GetName(), L"big");
    EXPECT_EQ(last->GetKindOf(), static_cast<uint32_t>(KINDOF_GROUP));
    EXPECT_EQ(std::count_if(cut.log.begin(), cut.log.end(),
                            [&](const std::wstring& l) { return l.find(message) != std::wstring::npos; }),
              1);
}

TEST(LightwaveSceneCorpus, EverySceneReadsWithItsCube) {
    SKIP_WITHOUT_CORPUS();
    int files = 0;
    for (const fs::path& p : testsupport::CorpusFiles("lws", ".lws")) {
        ReadResult r = ReadSceneText(testsupport::ReadFile(p), p.parent_path());
        ASSERT_TRUE(r.scene) << p;
        C3DSceneNode* cube = FindNode(*r.scene, L"simple_cube");
        ASSERT_TRUE(cube) << p;
        ASSERT_TRUE(MeshOf(cube)) << p;
        EXPECT_EQ(MeshOf(cube)->GetFaceList()->GetNumberOfFaces(), 6) << p;
        EXPECT_TRUE(FindNode(*r.scene, L"Light")) << p;
        EXPECT_TRUE(FindNode(*r.scene, L"Camera")) << p;
        ++files;
    }
    EXPECT_EQ(files, 14);
}

// Counts read off the files: key values and times, behaviours.
TEST(LightwaveSceneCorpus, HandCheckedMotion) {
    SKIP_WITHOUT_CORPUS();
    const fs::path dir = testsupport::CorpusDir() / "lws";
    // move_x_oldformat_56 (version 2): X keys 0 @0, 2.069113 @0.6667, -2.374866 @1.3333.
    ReadResult r = ReadSceneText(testsupport::ReadFile(dir / "move_x_oldformat_56.lws"), dir);
    ASSERT_TRUE(r.scene);
    C3DSceneNode* cube = FindNode(*r.scene, L"simple_cube");
    EXPECT_NEAR(WorldAt(cube, 2.0 / 3, *r.scene).x, 2.069113, 1e-3);
    EXPECT_NEAR(WorldAt(cube, 4.0 / 3, *r.scene).x, -2.374866, 1e-3);
    EXPECT_NEAR(WorldAt(cube, 0, *r.scene).y, -0.04, 1e-4);
    // move_xz_stepped: X holds each key's value until the next.
    r = ReadSceneText(testsupport::ReadFile(dir / "move_xz_stepped.lws"), dir);
    ASSERT_TRUE(r.scene);
    cube = FindNode(*r.scene, L"simple_cube");
    const float x1 = WorldAt(cube, 0.7, *r.scene).x, x2 = WorldAt(cube, 1.2, *r.scene).x;
    EXPECT_FLOAT_EQ(x1, x2);
    // move_x_post_reset: after the last key the value drops to 0.
    r = ReadSceneText(testsupport::ReadFile(dir / "move_x_post_reset.lws"), dir);
    ASSERT_TRUE(r.scene);
    cube = FindNode(*r.scene, L"simple_cube");
    EXPECT_NEAR(WorldAt(cube, 3.9, *r.scene).x, 0.0, 1e-4);
}

// Out-of-range numbers saturate: a span type of 1e300 is the last type (2-D Bezier, which
// eases out of a flat handle), not whatever an overflowing conversion makes of it.
TEST(LightwaveScene, HugeNumbersSaturate) {
    const std::string text = "LWSC\n3\nLastFrame 30\nAddNullObject N\nObjectMotion\nNumChannels 1e300\nChannel 0\n"
                             "{ Envelope\n  2\n  Key 0 0 0 0 0 0 0 0 0\n  Key 10 1 1e300 0 0 0 0 0 0\n"
                             "  Behaviors -1e300 1e300\n}\nAddLight\nLightType 1e300\n";
    ReadResult r = ReadSceneText(text);
    ASSERT_TRUE(r.scene);
    const float x = WorldAt(FindNode(*r.scene, L"N"), 0.25, *r.scene).x;
    EXPECT_LT(x, 2.0f); // a straight line or TCB would give 2.5
    EXPECT_GT(x, 0.0f);
    EXPECT_NEAR(WorldAt(FindNode(*r.scene, L"N"), 1.0, *r.scene).x, 10.0f, 1e-4);
}
