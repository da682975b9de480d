// The preview renderer on small hand-made scenes: golden pictures for each view, textures
// found and missing, curves, cameras, empty and hostile scenes.
//
// Golden tolerance: a pixel matches when no channel differs by more than 24 (of 255), and
// at most 1% of the pixels may miss (a sample moving across an edge after a change of
// float rounding). Set ORBISCOPE_UPDATE_GOLDEN=1 to rewrite the pictures after a wanted change.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

#include "plugin/host/Image.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/Render.h"
#include "plugin/host/Scene.h"
#include "plugin/host/SceneNode.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {
constexpr int kTolerance = 24;
constexpr double kMissShare = 0.01;

struct Rgb {
    int r, g, b;
};
Rgb At(const CImage& img, int x, int y) {
    const uint8_t* p = img.Pixel(x, y);
    return {p[0], p[1], p[2]};
}

void ExpectGolden(const CImage& img, const std::string& name) {
    const fs::path path = testsupport::SourceDir() / "tests" / "golden" / "render" / (name + ".png");
    if (const char* u = std::getenv("ORBISCOPE_UPDATE_GOLDEN"); u && std::string(u) == "1") {
        fs::create_directories(path.parent_path());
        ASSERT_TRUE(SavePng(path.string(), img));
        return;
    }
    CImage golden;
    ASSERT_EQ(LoadImageFile(path.string(), golden), ImageResult::Ok) << path;
    ASSERT_EQ(golden.width, img.width) << name;
    ASSERT_EQ(golden.height, img.height) << name;
    size_t miss = 0;
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x)
            for (int k = 0; k < 3; ++k)
                if (std::abs(int(img.Pixel(x, y)[k]) - int(golden.Pixel(x, y)[k])) > kTolerance) {
                    ++miss;
                    break;
                }
    EXPECT_LE(miss, size_t(kMissShare * img.width * img.height)) << name << ": " << miss << " pixels differ";
}

// A cube [-1, 1]^3 whose six sides have six colours: +X red, -X green, +Y blue, -Y yellow,
// +Z magenta, -Z cyan; so every view shows which side it looks at.
std::unique_ptr<C3DScene> ColourCube() {
    auto scene = std::make_unique<C3DScene>();
    const CRGBColor colours[6] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}, {255, 0, 255}, {0, 255, 255}};
    for (uint32_t i = 0; i < 6; ++i) scene->GetMaterialByID(i, true)->diffuse = colours[i];
    auto* pts = new C3DPointList;
    for (int i = 0; i < 8; ++i) pts->Add((i & 1) ? 1.f : -1.f, (i & 2) ? 1.f : -1.f, (i & 4) ? 1.f : -1.f);
    auto* faces = new C3DFaceList;
    const uint32_t sides[6][4] = {{1, 3, 7, 5}, {0, 4, 6, 2}, {2, 6, 7, 3}, {0, 1, 5, 4}, {4, 5, 7, 6}, {0, 2, 3, 1}};
    for (uint32_t s = 0; s < 6; ++s) {
        faces->SetCurrentMaterial(s);
        faces->AddFace(sides[s], 4);
    }
    auto* obj = new C3DObject;
    obj->SetPointList(pts);
    obj->SetFaceList(faces);
    auto* node = new C3DSceneNode(obj);
    node->SetName(L"cube");
    scene->AddNode(nullptr, node);
    return scene;
}

CRenderOptions Small(RenderView view) {
    CRenderOptions o;
    o.width = o.height = 64;
    o.view = view;
    return o;
}

bool IsHue(const Rgb& c, bool r, bool g, bool b) {
    auto on = [](int v) { return v > 120; };
    auto off = [](int v) { return v < 60; };
    return (r ? on(c.r) : off(c.r)) && (g ? on(c.g) : off(c.g)) && (b ? on(c.b) : off(c.b));
}

int CountHue(const CImage& img, bool r, bool g, bool b) {
    int n = 0;
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) n += IsHue(At(img, x, y), r, g, b);
    return n;
}

// A unit quad in the z = 0 plane, facing +Z, with UVs running 0..1 left to right and bottom to top.
std::unique_ptr<C3DScene> TexturedQuad(const std::string& textureName) {
    auto scene = std::make_unique<C3DScene>();
    C3DMaterial* m = scene->GetMaterialByID(0, true);
    m->diffuse = {40, 160, 60};
    if (!textureName.empty()) m->AddMaterialMap(CXStringW(Utf8ToWide(textureName)), -1, MAP_DIFFUSE);
    auto* pts = new C3DPointList;
    pts->Add(-1, -1, 0);
    pts->Add(1, -1, 0);
    pts->Add(1, 1, 0);
    pts->Add(-1, 1, 0);
    auto* faces = new C3DFaceList;
    faces->SetCurrentMaterial(0);
    const uint32_t q[4] = {0, 1, 2, 3};
    faces->AddFace(q, 4);
    auto* obj = new C3DObject;
    obj->SetPointList(pts);
    obj->SetFaceList(faces);
    auto* uv = new CUVWChannel;
    uv->GetUVWPointList()->Add(0, 0, 0);
    uv->GetUVWPointList()->Add(1, 0, 0);
    uv->GetUVWPointList()->Add(1, 1, 0);
    uv->GetUVWPointList()->Add(0, 1, 0);
    uv->GetUVWFaceList()->AddFace(q, 4);
    obj->SetGlobalUVWChannel(obj->AddChannel(uv));
    scene->AddNode(nullptr, new C3DSceneNode(obj));
    return scene;
}

// 2x2 texture: top row red, green; bottom row blue, white.
void WriteChecker(const fs::path& p) {
    CImage t;
    t.Resize(2, 2, 0);
    const uint8_t px[4][4] = {{255, 0, 0, 255}, {0, 255, 0, 255}, {0, 0, 255, 255}, {255, 255, 255, 255}};
    for (int i = 0; i < 4; ++i) std::copy(px[i], px[i] + 4, t.Pixel(i % 2, i / 2));
    ASSERT_TRUE(SavePng(p.string(), t));
}
} // namespace

TEST(Render, EachViewShowsItsSideOfTheCube) {
    auto scene = ColourCube();
    struct Case {
        RenderView view;
        const char* name;
        bool r, g, b;
    } cases[] = {{RenderView::Front, "front", true, false, true},  {RenderView::Back, "back", false, true, true},
                 {RenderView::Right, "right", true, false, false}, {RenderView::Left, "left", false, true, false},
                 {RenderView::Top, "top", false, false, true},     {RenderView::Bottom, "bottom", true, true, false}};
    for (const Case& c : cases) {
        CImage img;
        ASSERT_EQ(RenderScene(*scene, Small(c.view), img), RenderResult::Ok) << c.name;
        ASSERT_EQ(img.width, 64);
        EXPECT_TRUE(IsHue(At(img, 32, 32), c.r, c.g, c.b))
            << c.name << ": " << At(img, 32, 32).r << " " << At(img, 32, 32).g << " " << At(img, 32, 32).b;
        ExpectGolden(img, std::string("cube_") + c.name);
    }
}

TEST(Render, IsoViewShowsFrontRightAndTopWithDistinctShades) {
    auto scene = ColourCube();
    CImage img;
    ASSERT_EQ(RenderScene(*scene, Small(RenderView::Iso), img), RenderResult::Ok);
    EXPECT_GT(CountHue(img, true, false, false), 100); // +X
    EXPECT_GT(CountHue(img, false, false, true), 100); // +Y
    EXPECT_GT(CountHue(img, true, false, true), 100);  // +Z
    EXPECT_EQ(CountHue(img, false, true, false), 0);   // hidden sides stay hidden
    EXPECT_EQ(CountHue(img, false, true, true), 0);
    // The top (+Y) is above the picture's centre, the front and right below it.
    EXPECT_TRUE(IsHue(At(img, 32, 18), false, false, true));
    ExpectGolden(img, "cube_iso");
}

TEST(Render, ZUpScenesLookAtTheirOwnFront) {
    auto scene = ColourCube();
    CRenderOptions o = Small(RenderView::Top);
    o.zUp = true;
    CImage img;
    ASSERT_EQ(RenderScene(*scene, o, img), RenderResult::Ok);
    EXPECT_TRUE(IsHue(At(img, 32, 32), true, false, true)); // +Z is up: the top view sees magenta
    o.view = RenderView::Front;
    ASSERT_EQ(RenderScene(*scene, o, img), RenderResult::Ok);
    EXPECT_TRUE(IsHue(At(img, 32, 32), true, true, false)); // and the front is -Y (yellow)
}

TEST(Render, SizeBackgroundAndSupersampling) {
    auto scene = ColourCube();
    CRenderOptions o = Small(RenderView::Front);
    o.width = 101; // sizes that put the outline inside pixels, not on their borders
    o.height = 51;
    o.background = 0x102030FF;
    o.grid = false;
    CImage img;
    ASSERT_EQ(RenderScene(*scene, o, img), RenderResult::Ok);
    EXPECT_EQ(img.width, 101);
    EXPECT_EQ(img.height, 51);
    const uint8_t* corner = img.Pixel(0, 0);
    EXPECT_EQ(corner[0], 0x10);
    EXPECT_EQ(corner[1], 0x20);
    EXPECT_EQ(corner[2], 0x30);
    EXPECT_EQ(corner[3], 0xFF);
    // Anti-aliasing leaves blended pixels along the cube's outline; one sample leaves none.
    auto blended = [](const CImage& im) {
        int n = 0;
        for (int y = 0; y < im.height; ++y)
            for (int x = 0; x < im.width; ++x) {
                const Rgb c = At(im, x, y);
                const bool bg = c.r == 0x10 && c.g == 0x20 && c.b == 0x30;
                const bool face = c.g == 0 && c.r == c.b && c.r > 150;
                n += !bg && !face;
            }
        return n;
    };
    EXPECT_GT(blended(img), 10);
    o.supersample = 1;
    ASSERT_EQ(RenderScene(*scene, o, img), RenderResult::Ok);
    EXPECT_EQ(blended(img), 0);
    o.width = 0;
    EXPECT_EQ(RenderScene(*scene, o, img), RenderResult::BadSize);
    o.width = kMaxRenderSide + 1;
    EXPECT_EQ(RenderScene(*scene, o, img), RenderResult::BadSize);
}

TEST(Render, TexturesAreMappedUpright) {
    testsupport::TempDir dir;
    WriteChecker(dir / "checker.png");
    auto scene = TexturedQuad("checker.png");
    CRenderOptions o = Small(RenderView::Front);
    o.grid = false;
    o.sceneFolder = dir.path().string();
    CImage img;
    CRenderStats stats;
    ASSERT_EQ(RenderScene(*scene, o, img, &stats), RenderResult::Ok);
    EXPECT_EQ(stats.texturesLoaded, 1);
    EXPECT_TRUE(stats.missingTextures.empty());
    EXPECT_TRUE(IsHue(At(img, 17, 17), true, false, false)); // top left: red
    EXPECT_TRUE(IsHue(At(img, 46, 17), false, true, false)); // top right: green
    EXPECT_TRUE(IsHue(At(img, 17, 46), false, false, true)); // bottom left: blue
    EXPECT_TRUE(IsHue(At(img, 46, 46), true, true, true));   // bottom right: white
    ExpectGolden(img, "quad_textured");

    // A name written with backslashes and another letter case is still found beside the scene.
    auto other = TexturedQuad("maps\\CHECKER.PNG");
    ASSERT_EQ(RenderScene(*other, o, img, &stats), RenderResult::Ok);
    EXPECT_TRUE(IsHue(At(img, 17, 17), true, false, false));
}

TEST(Render, MissingOrSwitchedOffTexturesDrawTheDiffuseColour) {
    testsupport::TempDir dir;
    auto scene = TexturedQuad("nothere.png");
    CRenderOptions o = Small(RenderView::Front);
    o.grid = false;
    o.sceneFolder = dir.path().string();
    CImage img;
    CRenderStats stats;
    ASSERT_EQ(RenderScene(*scene, o, img, &stats), RenderResult::Ok);
    ASSERT_EQ(stats.missingTextures.size(), 1u);
    EXPECT_EQ(stats.missingTextures[0], "nothere.png");
    EXPECT_EQ(stats.texturesLoaded, 0);
    const Rgb c = At(img, 32, 32);
    // A face turned to the viewer gets nearly all the light.
    EXPECT_NEAR(c.r, 40 * 0.96, 6);
    EXPECT_NEAR(c.g, 160 * 0.96, 6);
    EXPECT_NEAR(c.b, 60 * 0.96, 6);
    ExpectGolden(img, "quad_untextured");
    // No crack along the diagonal the two triangles of the quad share.
    int holes = 0;
    for (int y = 5; y < 59; ++y)
        for (int x = 5; x < 59; ++x) holes += std::abs(At(img, x, y).g - c.g) > 8;
    EXPECT_EQ(holes, 0);

    // A file that is there but is no picture counts as missing too.
    testsupport::WriteFile(dir / "nothere.png", "not a picture");
    ASSERT_EQ(RenderScene(*scene, o, img, &stats), RenderResult::Ok);
    EXPECT_EQ(At(img, 32, 32).g, c.g);

    WriteChecker(dir / "checker.png");
    auto textured = TexturedQuad("checker.png");
    o.textures = false;
    CRenderStats off;
    ASSERT_EQ(RenderScene(*textured, o, img, &off), RenderResult::Ok);
    EXPECT_TRUE(off.missingTextures.empty());
    EXPECT_EQ(off.texturesLoaded, 0);
    EXPECT_EQ(At(img, 17, 17).g, c.g);
    EXPECT_EQ(At(img, 46, 46).g, c.g);
}

TEST(Render, TexturesShareOneMemoryBudget) {
    // Two materials with two different 4x4 textures (64 bytes decoded each) and room for one.
    testsupport::TempDir dir;
    CImage t;
    t.Resize(4, 4, 0xFF0000FF);
    ASSERT_TRUE(SavePng((dir / "a.png").string(), t));
    ASSERT_TRUE(SavePng((dir / "b.png").string(), t));
    auto scene = TexturedQuad("a.png");
    auto second = TexturedQuad("b.png");
    scene->AddScene(*second);
    CRenderOptions o = Small(RenderView::Front);
    o.sceneFolder = dir.path().string();
    o.textureBytes = 100;
    CImage img;
    CRenderStats stats;
    ASSERT_EQ(RenderScene(*scene, o, img, &stats), RenderResult::Ok);
    EXPECT_EQ(stats.texturesLoaded, 1);
    ASSERT_EQ(stats.missingTextures.size(), 1u);
    EXPECT_EQ(stats.missingTextures[0], "b.png");
    o.textureBytes = 128;
    CRenderStats both;
    ASSERT_EQ(RenderScene(*scene, o, img, &both), RenderResult::Ok);
    EXPECT_EQ(both.texturesLoaded, 2);
}

TEST(Render, CurvesAreLinesAndClosedOnesCloseUp) {
    auto scene = std::make_unique<C3DScene>();
    scene->GetMaterialByID(0, true)->diffuse = {220, 20, 20};
    auto* curve = new C3DCurve;
    auto* pts = new C3DPointList;
    pts->Add(-1, -1, 0);
    pts->Add(1, -1, 0);
    pts->Add(1, 1, 0);
    pts->Add(-1, 1, 0);
    auto* faces = new C3DFaceList;
    faces->SetCurrentMaterial(0);
    const uint32_t run[4] = {0, 1, 2, 3};
    faces->AddFace(run, 4);
    curve->SetPointList(pts);
    curve->SetFaceList(faces);
    curve->SetClosed(true);
    scene->AddNode(nullptr, new C3DSceneNode(curve));
    CRenderOptions o = Small(RenderView::Front);
    o.grid = false;
    CImage img;
    CRenderStats stats;
    ASSERT_EQ(RenderScene(*scene, o, img, &stats), RenderResult::Ok);
    EXPECT_EQ(stats.lines, 4u);
    EXPECT_EQ(stats.triangles, 0u);
    auto redNear = [&](int x, int y) {
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                if (IsHue(At(img, x + dx, y + dy), true, false, false)) return true;
        return false;
    };
    // The square spans 32 +- 28.8 pixels.
    EXPECT_TRUE(redNear(32, 60));  // bottom edge
    EXPECT_TRUE(redNear(60, 32));  // right edge
    EXPECT_TRUE(redNear(3, 32));   // left edge: the closing segment
    EXPECT_FALSE(redNear(32, 32)); // nothing inside
    ExpectGolden(img, "curve_square");

    curve->SetClosed(false);
    ASSERT_EQ(RenderScene(*scene, o, img, &stats), RenderResult::Ok);
    EXPECT_FALSE(redNear(3, 32));
}

TEST(Render, CameraViewLooksThroughTheScenesFirstCamera) {
    auto scene = ColourCube();
    auto* cam = new C3DCamera;
    cam->SetVFov(0.8f);
    auto* node = new C3DSceneNode(cam);
    // Six units out on +X, looking back along -X: its local +Z (the way it looks from) is world +X.
    C4x4Matrix m;
    m.m[0][0] = 0;
    m.m[0][2] = -1;
    m.m[2][0] = 1;
    m.m[2][2] = 0;
    m.SetTranslation(6, 0, 0);
    node->SetNodeLocalTM(m);
    scene->AddNode(nullptr, node);
    CImage img;
    CRenderStats stats;
    ASSERT_EQ(RenderScene(*scene, Small(RenderView::Camera), img, &stats), RenderResult::Ok);
    EXPECT_TRUE(stats.notes.empty());
    EXPECT_TRUE(IsHue(At(img, 32, 32), true, false, false));
    // Perspective: the near side fills a part of the picture only; a parallel fit would reach 90%.
    EXPECT_TRUE(IsHue(At(img, 32, 20), true, false, false));
    EXPECT_FALSE(IsHue(At(img, 32, 4), true, false, false));
    ExpectGolden(img, "cube_camera");

    // Inside the cube the near plane cuts the sides instead of wrapping them around.
    m.SetTranslation(0.5f, 0, 0);
    node->SetNodeLocalTM(m);
    ASSERT_EQ(RenderScene(*scene, Small(RenderView::Camera), img, &stats), RenderResult::Ok);
    EXPECT_TRUE(IsHue(At(img, 32, 32), false, true, false)); // the -X side, seen from inside

    auto plain = ColourCube();
    CRenderStats none;
    ASSERT_EQ(RenderScene(*plain, Small(RenderView::Camera), img, &none), RenderResult::Ok);
    ASSERT_EQ(none.notes.size(), 1u);
    EXPECT_NE(none.notes[0].find("no camera"), std::string::npos);
}

TEST(Render, NothingToDrawIsEmpty) {
    CImage img;
    C3DScene empty;
    EXPECT_EQ(RenderScene(empty, Small(RenderView::Iso), img), RenderResult::Empty);
    EXPECT_TRUE(img.IsEmpty());

    C3DScene cameraOnly;
    cameraOnly.AddNode(nullptr, new C3DSceneNode(new C3DCamera));
    cameraOnly.AddNode(nullptr, new C3DSceneNode(new C3DLight));
    EXPECT_EQ(RenderScene(cameraOnly, Small(RenderView::Iso), img), RenderResult::Empty);

    // Points that are not numbers, and faces that index past the points, draw nothing.
    C3DScene broken;
    auto* obj = new C3DObject;
    auto* pts = new C3DPointList;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    pts->Add(nan, 0, 0);
    auto* faces = new C3DFaceList;
    faces->AddTriangle(0, 5, 9);
    obj->SetPointList(pts);
    obj->SetFaceList(faces);
    broken.AddNode(nullptr, new C3DSceneNode(obj));
    EXPECT_EQ(RenderScene(broken, Small(RenderView::Iso), img), RenderResult::Empty);

    // A hidden node draws nothing either.
    auto hidden = ColourCube();
    C3DNodePos pos = hidden->GetFirstNode();
    hidden->GetNextNode(pos)->SetFlag(NODE_HIDDEN);
    EXPECT_EQ(RenderScene(*hidden, Small(RenderView::Iso), img), RenderResult::Empty);
}

TEST(Render, PointCloudsAreDots) {
    C3DScene scene;
    auto* obj = new C3DObject;
    auto* pts = new C3DPointList;
    pts->Add(-1, -1, 0);
    pts->Add(1, 1, 0);
    pts->Add(0, 0, 0);
    obj->SetPointList(pts);
    obj->SetFaceList(new C3DFaceList);
    scene.AddNode(nullptr, new C3DSceneNode(obj));
    CRenderOptions o = Small(RenderView::Front);
    o.grid = false;
    CImage img;
    CRenderStats stats;
    ASSERT_EQ(RenderScene(scene, o, img, &stats), RenderResult::Ok);
    EXPECT_EQ(stats.points, 3u);
    const Rgb c = At(img, 32, 32);
    EXPECT_LT(c.r, 100);
    EXPECT_TRUE(IsHue(At(img, 10, 10), true, true, true)); // background between the dots
}

TEST(Render, PointsBehindTheCameraAreNotMirroredIntoThePicture) {
    C3DScene scene;
    auto* obj = new C3DObject;
    auto* pts = new C3DPointList;
    pts->Add(1, 1, 5); // the camera at the origin looks along -Z: this is behind it
    obj->SetPointList(pts);
    obj->SetFaceList(new C3DFaceList);
    scene.AddNode(nullptr, new C3DSceneNode(obj));
    auto* cam = new C3DCamera;
    cam->SetVFov(0.8f);
    scene.AddNode(nullptr, new C3DSceneNode(cam));
    CRenderOptions o = Small(RenderView::Camera);
    o.grid = false;
    CImage img;
    ASSERT_EQ(RenderScene(scene, o, img), RenderResult::Ok);
    int blue = 0;
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) blue += At(img, x, y).b > At(img, x, y).r + 40;
    EXPECT_EQ(blue, 0);
}

TEST(Render, HostileScenesStayBounded) {
    // Thousands of faces as large as the picture: drawing stops at the budget, says so and returns.
    C3DScene scene;
    auto* obj = new C3DObject;
    auto* pts = new C3DPointList;
    pts->Add(-1, -1, 0);
    pts->Add(1, -1, 0);
    pts->Add(0, 1, 0);
    pts->Add(1e30f, 0, 0);
    pts->Add(0, std::numeric_limits<float>::infinity(), 0);
    auto* faces = new C3DFaceList;
    for (int i = 0; i < 5000; ++i) faces->AddTriangle(0, 1, 2);
    faces->AddTriangle(0, 3, 4);
    faces->AddFace(nullptr, 0);
    obj->SetPointList(pts);
    obj->SetFaceList(faces);
    scene.AddNode(nullptr, new C3DSceneNode(obj));
    CRenderOptions o = Small(RenderView::Iso);
    o.fillBudget = 200000;
    CImage img;
    CRenderStats stats;
    ASSERT_EQ(RenderScene(scene, o, img, &stats), RenderResult::Ok);
    EXPECT_TRUE(stats.cutShort);
    EXPECT_LT(stats.triangles, 5000u);
    ASSERT_FALSE(stats.notes.empty());
    EXPECT_NE(stats.notes.back().find("incomplete"), std::string::npos);
}

TEST(Render, ViewNames) {
    RenderView v;
    for (const char* n : {"iso", "front", "back", "left", "right", "top", "bottom", "camera"})
        EXPECT_TRUE(ParseRenderView(n, v)) << n;
    EXPECT_TRUE(ParseRenderView("top", v));
    EXPECT_EQ(v, RenderView::Top);
    EXPECT_FALSE(ParseRenderView("Top", v));
    EXPECT_FALSE(ParseRenderView("", v));
}
