// Scenes: loading, URL handling, binding, writing back, update, and System.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "VrmlTestUtil.h"
#include "tests/support/TestSupport.h"
#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNodeKinds.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlStats.h"

namespace {

// Records what would have gone to a web browser, while it is installed.
class BrowserSpy : public System {
public:
    BrowserSpy() { theSystem = this; }
    ~BrowserSpy() override { theSystem = m_old; }
    bool openInBrowser(const char* url, int, char**) override {
        urls.push_back(url);
        return false;
    }
    std::vector<std::string> urls;

private:
    System* m_old = theSystem;
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
    testsupport::WriteFile(dir / "models" / "part.wrl",
                           "#VRML V2.0 utf8\nDEF Cam Viewpoint {} DEF Other Viewpoint {}\n");
    testsupport::WriteFile(dir / "a.wrl.gz",
                           "#VRML V2.0 utf8\nShape { geometry Box {} }\n"); // the name decides, not the bytes
    BrowserSpy spy;
    VrmlScene scene;
    std::string base = dir.path().string() + "/";
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
        ASSERT_EQ(spy.urls.size(), 1u);
        EXPECT_EQ(spy.urls[0], htm);
    }
    {
        std::string bare = base + "x\\.wrl"; // name part ".wrl" is only 4 characters
        VrmlMFString urls(bare.c_str());
        EXPECT_FALSE(scene.loadFromUrls(&urls));
        EXPECT_EQ(spy.urls.size(), 2u);
    }
    {
        // A slash is not a separator here: "dir/page.htm/x" has no world extension.
        std::string gz = base + "a.wrl.gz";
        const char* list[] = {nullptr, gz.c_str()};
        VrmlMFString urls(2, list);
        EXPECT_TRUE(scene.loadFromUrls(&urls));
        EXPECT_EQ(spy.urls.size(), 2u);
        EXPECT_TRUE(scene.root()->child(0)->asShape());
    }
    {
        std::string slashy = base + "models/part.wrl/view";
        VrmlMFString urls(slashy.c_str());
        EXPECT_FALSE(scene.loadFromUrls(&urls));
        EXPECT_EQ(spy.urls.size(), 3u);
    }
}

TEST(VrmlScene, SavePrintsTheRootGroupAndEveryNamedNodeInFull) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "in.wrl", "#VRML V2.0 utf8\n"
                                           "PROTO Ball [ field SFFloat r 1 ] { Sphere { radius IS r } }\n"
                                           "DEF SH Shape { geometry Box {} }\n"
                                           "Transform { children USE SH }\n"
                                           "Shape { geometry Ball { r 3 } }\n");
    VrmlScene a((dir / "in.wrl").c_str());
    const std::string printed = Save(a);
    // The root is a Group of its own; SH prints as DEF at both uses; the PROTO
    // instance prints no fields, only its fixed note, and no declaration is written.
    const std::string want =
        "#VRML V2.0 utf8\n"
        "Group { \n    children [\n"
        "        DEF SH Shape { \n            geometry \n                Box { \n                    size 2 2 2 } }\n"
        "        Transform { \n"
        "            children \n"
        "                DEF SH Shape { \n                    geometry \n                        Box { \n"
        "                            size 2 2 2 } }\n"
        "            bboxCenter 0 0 0\n            bboxSize -1 -1 -1\n"
        "            center 0 0 0\n            rotation 0 0 1 0\n            scale 1 1 1\n"
        "            scaleOrientation 0 0 1 0\n            translation 0 0 0 }\n"
        "        Shape { \n            geometry \n                Ball { #VrmlNodeProto::printFields not implemented "
        "yet...\n } }\n"
        "    ]\n    bboxCenter 0 0 0\n    bboxSize -1 -1 -1 }";
    EXPECT_EQ(printed, want);
    // Read back, the world is one Group deeper, as the format has always saved it.
    testsupport::WriteFile(dir / "out.wrl", printed);
    VrmlScene b((dir / "out.wrl").c_str());
    ASSERT_EQ(b.root()->size(), 1u);
    ASSERT_TRUE(b.root()->child(0)->asGroup());
    EXPECT_EQ(b.root()->child(0)->asGroup()->size(), 3u);
    EXPECT_TRUE(a.save((dir / "file.wrl").c_str()));
    EXPECT_EQ(testsupport::ReadFile(dir / "file.wrl"), printed);
}

TEST(VrmlScene, SaveStopsOnSharingThatMultipliesTheText) {
    // 2^40 printed nodes from a few lines: the save gives up instead of writing them.
    std::string text = "DEF A0 Shape {}\n";
    for (int k = 1; k <= 40; ++k)
        text += "DEF A" + std::to_string(k) + " Group { children [ USE A" + std::to_string(k - 1) +
                " Transform { children USE A" + std::to_string(k - 1) + " } ] }\n";
    auto p = ParseVrml(text);
    VrmlScene scene;
    AdoptWorld(scene, p);
    // Cut by the bytes written...
    std::ostringstream os;
    bool ok = true;
    std::string msg = CaptureDiagnostics([&] { ok = scene.save(os, 1 << 20); });
    EXPECT_FALSE(ok);
    EXPECT_NE(msg.find("not written"), std::string::npos) << msg;
    EXPECT_LE(os.str().size(), size_t{1} << 20);
    // ... and by the nodes printed, where the bytes are not counted.
    struct Discard : std::streambuf {
        int overflow(int c) override { return traits_type::not_eof(c); }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    } discard;
    std::ostream null(&discard);
    msg = CaptureDiagnostics([&] { ok = scene.save(null, UINT64_MAX, 5000); });
    EXPECT_FALSE(ok);
    EXPECT_NE(msg.find("more than 5000 nodes"), std::string::npos) << msg;
    // A print after a failed save starts afresh.
    std::ostringstream one;
    one << *scene.root()->child(0);
    EXPECT_EQ(one.str(), "DEF A0 Shape {  }");
}

TEST(VrmlScene, AScriptCannotHoldItselfOrItsParentThroughIs) {
    // Either would be a reference cycle: never freed, and printed without end.
    auto p = ParseVrml("DEF S Script { field SFNode me IS S }\n"
                       "DEF G Group { children Script { field SFNode up IS G field SFNode s IS S } }");
    ASSERT_EQ(p.size(), 2u);
    EXPECT_NE(p.diagnostics.find("Error near line 1: IS statement (S) names a node inside its own definition"),
              std::string::npos)
        << p.diagnostics;
    EXPECT_NE(p.diagnostics.find("Error near line 2: IS statement (G) names a node inside its own definition"),
              std::string::npos);
    EXPECT_EQ(p[0]->asScript()->getField("me")->asSFNode()->get(), nullptr);
    VrmlNode* inner = p[1]->asGroup()->child(0);
    EXPECT_EQ(inner->getField("s")->asSFNode()->get(), p[0]); // a finished node may be named
    VrmlScene scene;
    AdoptWorld(scene, p);
    std::ostringstream os;
    EXPECT_TRUE(scene.save(os));
    EXPECT_EQ(os.str().find("USE"), std::string::npos) << os.str();
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
    testsupport::WriteFile(dir / "main.wrl",
                           "#VRML V2.0 utf8\nInline { url \"part.wrl\" }\nInline { url \"main.wrl\" }\n");
    VrmlScene scene((dir / "main.wrl").c_str());
    ASSERT_EQ(scene.root()->size(), 2u);
    EXPECT_EQ(scene.root()->child(0)->asInline()->size(), 1u);
    std::map<std::string, size_t> counts;
    VrmlCountNodes(scene.root()->children(), counts);
    EXPECT_GT(counts["Inline"], 2u); // nested a bounded number of times
    EXPECT_LT(counts["Inline"], 1000u);
}

TEST(VrmlScene, InlineLoadsAreCappedPerWorld) {
    // Three Inlines of itself: 3^8 loads without a cap on the total.
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "self.wrl", "#VRML V2.0 utf8\nInline { url \"self.wrl\" }\n"
                                             "Inline { url \"self.wrl\" }\nInline { url \"self.wrl\" }\n");
    VrmlScene* scene = nullptr;
    std::string msg = CaptureDiagnostics([&] { scene = new VrmlScene((dir / "self.wrl").c_str()); });
    EXPECT_EQ(scene->inlineLoads(), VrmlScene::kMaxInlineLoads);
    EXPECT_GT(scene->inlinesSkipped(), 0);
    std::map<std::string, size_t> counts;
    VrmlCountNodes(scene->root()->children(), counts);
    EXPECT_EQ(counts["Inline"], 3u * (VrmlScene::kMaxInlineLoads + 1));
    // What was skipped is said: the first one by name, then how many in all.
    EXPECT_NE(msg.find("Warning: Inline 'self.wrl' not loaded: this world already read 256 Inline worlds"),
              std::string::npos)
        << msg;
    EXPECT_NE(msg.find(" Inline worlds were not loaded"), std::string::npos) << msg;
    delete scene;
}

TEST(VrmlScene, ALongChainOfSharedNodesIsReleasedWithoutRecursion) {
    // Each Group holds the previous one: freeing the last used to recurse once per link.
    std::string text = "DEF N0 Group {}\n";
    const int links = 200000;
    for (int i = 1; i < links; ++i)
        text += "DEF N" + std::to_string(i) + " Group { children USE N" + std::to_string(i - 1) + " }\n";
    auto p = ParseVrml(text);
    ASSERT_EQ(p.size(), static_cast<size_t>(links));
    {
        VrmlScene scene;
        AdoptWorld(scene, p);
        p.ns.reset();
    } // the scene, its namespace and the whole chain go here
    SUCCEED();
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
