// Scenes: loading, URL handling, binding, writing back, update, and System.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "tests/support/TestSupport.h"
#include "VrmlTestUtil.h"
#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlNodeKinds.h"
#include "vrml/vrml97/VrmlStats.h"

namespace {

// Records what would have gone to a web browser.
class BrowserSpy : public System {
public:
    bool openInBrowser(const char* url, int, char**) override {
        urls.push_back(url);
        return false;
    }
    std::vector<std::string> urls;
};

struct SpyInstall {
    BrowserSpy spy;
    System* old = theSystem;
    SpyInstall() { theSystem = &spy; }
    ~SpyInstall() { theSystem = old; }
};

std::string Save(VrmlScene& s) {
    std::ostringstream os;
    EXPECT_TRUE(s.save(os));
    return os.str();
}

} // namespace

TEST(VrmlScene, LoadBindsTheFirstBindablesAndCountsNodes) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "w.wrl", "#VRML V2.0 utf8\nDEF V1 Viewpoint {} DEF V2 Viewpoint {} Background {}\n"
                                          "Group { children [ Shape { geometry Box {} } ] }\n");
    VrmlScene scene((dir / "w.wrl").c_str());
    ASSERT_EQ(scene.root()->size(), 4u);
    EXPECT_EQ(scene.bindableViewpointTop(), scene.root()->child(0));
    EXPECT_TRUE(scene.root()->child(0)->asViewpoint()->isBound());
    EXPECT_TRUE(scene.bindableBackgroundTop());
    EXPECT_EQ(scene.ViewpointList().size(), 2u);
    std::map<std::string, size_t> counts;
    EXPECT_EQ(VrmlCountNodes(scene.root()->children(), counts), 6u);
    EXPECT_EQ(counts["Viewpoint"], 2u);
    // A fragment URL binds the named viewpoint in the current world.
    EXPECT_TRUE(scene.load("#V2"));
    EXPECT_EQ(scene.bindableViewpointTop(), scene.root()->child(1));
    EXPECT_FALSE(scene.root()->child(0)->asViewpoint()->isBound());
}

TEST(VrmlScene, MissingFileReportsCouldNotLoad) {
    std::string msg = CaptureDiagnostics([] { VrmlScene s("/nonexistent/x.wrl"); });
    EXPECT_EQ(msg, "Couldn't load '/nonexistent/x.wrl'.\n");
}

TEST(VrmlScene, LoadFromUrlsUsesOnlyBackslashAsSeparator) {
    testsupport::TempDir dir;
    std::filesystem::create_directories(dir / "models");
    testsupport::WriteFile(dir / "models" / "part.wrl", "#VRML V2.0 utf8\nDEF Cam Viewpoint {} DEF Other Viewpoint {}\n");
    testsupport::WriteFile(dir / "a.wrl.gz", "#VRML V2.0 utf8\nShape { geometry Box {} }\n"); // the name decides, not the bytes
    SpyInstall spy;
    VrmlScene scene;
    std::string base = dir.path().string() + "/";
    std::string part = base + "models\\part.wrl#Cam";
    // The backslash path resolves on this system only through the name part; use a local copy.
    {
        std::string real = base + "models/part.wrl#Cam";
        VrmlMFString urls(real.c_str());
        EXPECT_TRUE(scene.loadFromUrls(&urls));
        EXPECT_STREQ(scene.bindableViewpointTop()->name(), "Cam");
    }
    {
        std::string htm = base + "models\\part.htm";
        VrmlMFString urls(htm.c_str());
        EXPECT_FALSE(scene.loadFromUrls(&urls));
        ASSERT_EQ(spy.spy.urls.size(), 1u);
        EXPECT_EQ(spy.spy.urls[0], htm);
    }
    {
        std::string bare = base + "x\\.wrl"; // name part ".wrl" is only 4 characters
        VrmlMFString urls(bare.c_str());
        EXPECT_FALSE(scene.loadFromUrls(&urls));
        EXPECT_EQ(spy.spy.urls.size(), 2u);
    }
    {
        // A slash is not a separator here: "dir/page.htm/x" has no world extension.
        std::string gz = base + "a.wrl.gz";
        const char* list[] = {nullptr, gz.c_str()};
        VrmlMFString urls(2, list);
        EXPECT_TRUE(scene.loadFromUrls(&urls));
        EXPECT_EQ(spy.spy.urls.size(), 2u);
        EXPECT_TRUE(scene.root()->child(0)->asShape());
    }
    {
        std::string slashy = base + "models/part.wrl/view";
        VrmlMFString urls(slashy.c_str());
        EXPECT_FALSE(scene.loadFromUrls(&urls));
        EXPECT_EQ(spy.spy.urls.size(), 3u);
    }
}

TEST(VrmlScene, SaveWritesAWorldThatReadsBackTheSame) {
    testsupport::TempDir dir;
    const std::string world =
        "#VRML V2.0 utf8\n"
        "PROTO Ball [ field SFFloat r 1 exposedField SFColor col 1 1 1 eventIn SFBool go ] {\n"
        "  Shape { appearance Appearance { material Material { diffuseColor IS col } }\n"
        "          geometry Sphere { radius IS r } }\n"
        "  DEF S Script { eventIn SFBool go IS go field SFFloat k 2 } }\n"
        "DEF T Transform { translation 1 2 3 children [\n"
        "  DEF SH Shape { geometry IndexedFaceSet { coord Coordinate { point [0 0 0, 1 0 0, 0 1 0] } "
        "coordIndex [0 1 2 -1] } }\n"
        "  Transform { children USE SH } Ball { r 3 } ] }\n"
        "DEF TS TimeSensor { loop TRUE cycleInterval 2.5 }\n"
        "ROUTE TS.fraction_changed TO T.set_scale\n";
    testsupport::WriteFile(dir / "in.wrl", world);
    VrmlScene a((dir / "in.wrl").c_str());
    std::string first = Save(a);
    EXPECT_EQ(first.rfind("#VRML V2.0 utf8\n", 0), 0u);
    testsupport::WriteFile(dir / "out.wrl", first);
    std::string diag;
    VrmlScene* b = nullptr;
    diag = CaptureDiagnostics([&] { b = new VrmlScene((dir / "out.wrl").c_str()); });
    EXPECT_EQ(diag, "") << first;
    std::map<std::string, size_t> ca, cb;
    VrmlCountNodes(a.root()->children(), ca);
    VrmlCountNodes(b->root()->children(), cb);
    EXPECT_EQ(ca, cb) << first;
    EXPECT_EQ(Save(*b), first);
    // The shared shape is still shared, the route still there.
    VrmlNode* t = b->root()->child(0);
    VrmlNode* inner = t->asTransform()->d_children[1];
    EXPECT_EQ(inner->asTransform()->d_children[0], t->asTransform()->d_children[0]);
    EXPECT_EQ(b->root()->child(1)->routes().size(), 1u);
    delete b;
    EXPECT_TRUE(a.save((dir / "file.wrl").c_str()));
    EXPECT_EQ(testsupport::ReadFile(dir / "file.wrl"), first);
}

TEST(VrmlScene, UpdateDrivesTimeSensorsThroughRoutes) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "t.wrl", "#VRML V2.0 utf8\nDEF TS TimeSensor { loop TRUE cycleInterval 4 }\n"
                                          "DEF I ScalarInterpolator { key [0 1] keyValue [0 8] }\n"
                                          "DEF T Transform {}\nROUTE TS.fraction_changed TO I.set_fraction\n");
    VrmlScene scene((dir / "t.wrl").c_str());
    scene.update(1.0);
    EXPECT_FLOAT_EQ(scene.root()->child(1)->asScalarInt()->d_value.get(), 2.0f);
    scene.update(3.0);
    EXPECT_FLOAT_EQ(scene.root()->child(1)->asScalarInt()->d_value.get(), 6.0f);
}

TEST(VrmlScene, InlineReadsLocalWorldsAndStopsAtSelfReference) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "part.wrl", "#VRML V2.0 utf8\nShape { geometry Cone {} }\n");
    testsupport::WriteFile(dir / "main.wrl", "#VRML V2.0 utf8\nInline { url \"part.wrl\" }\nInline { url \"main.wrl\" }\n");
    VrmlScene scene((dir / "main.wrl").c_str());
    ASSERT_EQ(scene.root()->size(), 2u);
    EXPECT_EQ(scene.root()->child(0)->asInline()->size(), 1u);
    std::map<std::string, size_t> counts;
    VrmlCountNodes(scene.root()->children(), counts);
    EXPECT_GT(counts["Inline"], 2u); // nested a bounded number of times
    EXPECT_LT(counts["Inline"], 1000u);
}

TEST(VrmlSystem, InformSuppressesRepeatsAndHostOfTruncates) {
    std::string msg = CaptureDiagnostics([] {
        theSystem->inform("hello %d", 1);
        theSystem->inform("hello %d", 1);
        theSystem->inform("other");
        theSystem->inform("hello %d", 1);
    });
    EXPECT_EQ(msg, "hello 1\nother\nhello 1\n");
    int port = 80;
    EXPECT_STREQ(theSystem->hostOf("http://www.example.com:8080/x.wrl", &port), "www.example.com");
    EXPECT_EQ(port, 8080);
    port = 1;
    EXPECT_STREQ(theSystem->hostOf("http://host/x", &port), "host");
    EXPECT_EQ(port, 1);
    EXPECT_STREQ(theSystem->hostOf("file.wrl", &port), "");
    std::string longHost = "ftp://" + std::string(5000, 'h');
    EXPECT_EQ(std::strlen(theSystem->hostOf(longHost.c_str(), &port)), 255u);
    EXPECT_FALSE(theSystem->openInBrowser("x", 0, nullptr));
    EXPECT_EQ(theSystem->connectTo("h", 1), -1);
    EXPECT_STREQ(VrmlScene::version(), "0.5.0");
}

TEST(VrmlDoc, UrlsResolveToLocalFilesOnly) {
    Doc base("/data/worlds/main.wrl");
    Doc rel("parts/a.wrl#View", &base);
    EXPECT_EQ(rel.localName(), "/data/worlds/parts/a.wrl");
    EXPECT_EQ(rel.fragment(), "#View");
    EXPECT_EQ(Doc("http://example.com/a.wrl").localName(), "");
    EXPECT_EQ(Doc("urn:web3d:x").localName(), "");
    EXPECT_EQ(Doc("file:///tmp/a.wrl").localName(), "/tmp/a.wrl");
    EXPECT_EQ(Doc("C:\\w\\a.wrl").localName(), "C:\\w\\a.wrl");
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "x.wrl", "x");
    Doc d((dir / "x.wrl").c_str());
    ASSERT_TRUE(d.fopen("rb"));
    std::string msg = CaptureDiagnostics([&] { d.fopen("rb"); });
    EXPECT_NE(msg.find("is already open.\n"), std::string::npos);
}
