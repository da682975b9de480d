// PROTO and EXTERNPROTO: IS mappings through cloning, private namespaces,
// routes before instantiation, fetching and its cycles.
#include <gtest/gtest.h>

#include <cstdio>

#include "VrmlTestUtil.h"
#include "tests/support/TestSupport.h"
#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlStats.h"

namespace {

const char* kBox =
    "PROTO ColoredBox [ field SFColor c 1 0 0 exposedField SFVec3f pos 0 0 0 eventOut SFTime touched ] {\n"
    "  Transform { translation IS pos children [\n"
    "    Shape { appearance Appearance { material DEF M Material { diffuseColor IS c } }\n"
    "            geometry Box {} }\n"
    "    Shape { appearance Appearance { material USE M } }\n"
    "    DEF TS TouchSensor { touchTime IS touched } ] } }\n";

VrmlNodeMaterial* FirstMaterial(VrmlNode* transform) {
    VrmlNode* shape = transform->asTransform()->d_children[0];
    return shape->asShape()->d_appearance.get()->asAppearance()->d_material.get()->asMaterial();
}

} // namespace

TEST(VrmlProto, InstancesCloneTheBodyWithTheirOwnValues) {
    auto p = ParseVrml(std::string(kBox) + "ColoredBox { c 0 0 1 pos 1 2 3 } ColoredBox {}");
    ASSERT_EQ(p.size(), 2u) << p.diagnostics;
    VrmlNodeProto* a = p[0]->asProto();
    VrmlNodeProto* b = p[1]->asProto();
    ASSERT_TRUE(a && b);
    EXPECT_FALSE(a->isInstantiated());
    a->instantiate();
    b->instantiate();
    ASSERT_EQ(a->getNodes().size(), 1u);
    VrmlNode* ta = a->getNodes()[0];
    VrmlNode* tb = b->getNodes()[0];
    EXPECT_NE(ta, tb);
    EXPECT_EQ(PrintField(ta->asTransform()->d_translation), "1 2 3");
    EXPECT_EQ(PrintField(tb->asTransform()->d_translation), "0 0 0");
    EXPECT_EQ(PrintField(FirstMaterial(ta)->d_diffuseColor), "0 0 1");
    EXPECT_EQ(PrintField(FirstMaterial(tb)->d_diffuseColor), "1 0 0"); // the default
    // DEF/USE inside the body stays shared within each copy.
    VrmlNode* shape2 = ta->asTransform()->d_children[1];
    EXPECT_EQ(shape2->asShape()->d_appearance.get()->asAppearance()->d_material.get(), FirstMaterial(ta));
    EXPECT_NE(FirstMaterial(ta), FirstMaterial(tb));
}

TEST(VrmlProto, UnnamedIsTargetsAreNamedByAddress) {
    auto p = ParseVrml(std::string(kBox) + "ColoredBox {}");
    VrmlNodeType* t = p.ns->findType("ColoredBox");
    ASSERT_TRUE(t);
    VrmlMFNode* body = t->bodyNodes();
    ASSERT_TRUE(body);
    const char* name = (*body)[0]->name(); // the Transform had no DEF
    char expected[32];
    std::snprintf(expected, sizeof expected, "%p", static_cast<void*>((*body)[0]));
    EXPECT_STREQ(name, expected);
    EXPECT_STREQ(FirstMaterial((*body)[0])->name(), "M");
    // The default was pushed into the body once.
    EXPECT_EQ(PrintField(FirstMaterial((*body)[0])->d_diffuseColor), "1 0 0");
}

TEST(VrmlProto, RoutesAddedBeforeInstantiationReachTheClones) {
    auto p = ParseVrml(std::string(kBox) + "DEF B ColoredBox {} DEF T Transform {} ROUTE B.touched TO T.set_scale "
                                           "DEF Bad ColoredBox {} ROUTE Bad.nothing TO T.set_scale");
    VrmlNodeProto* b = p[0]->asProto();
    ASSERT_TRUE(b);
    b->instantiate();
    VrmlNode* ts = b->getNodes()[0]->asTransform()->d_children[2];
    ASSERT_TRUE(ts && ts->asTouchSensor());
    ASSERT_EQ(ts->routes().size(), 1u);
    EXPECT_EQ(ts->routes()[0].fromEventOut, "touchTime");
    EXPECT_EQ(ts->routes()[0].toNode, p[1]);
    p[2]->asProto()->instantiate(); // a route to an unknown eventOut is simply dropped
}

TEST(VrmlProto, EventsAndFieldsForwardAfterInstantiation) {
    auto p = ParseVrml(std::string(kBox) + "DEF B ColoredBox {}");
    VrmlNodeProto* b = p[0]->asProto();
    VrmlSFVec3f v(5, 5, 5);
    b->eventIn(1.0, "set_pos", &v); // instantiates on demand
    ASSERT_TRUE(b->isInstantiated());
    EXPECT_EQ(PrintField(b->getNodes()[0]->asTransform()->d_translation), "5 5 5");
    b->setField("c", VrmlSFColor(0, 1, 0));
    EXPECT_EQ(PrintField(FirstMaterial(b->getNodes()[0])->d_diffuseColor), "0 1 0");
    std::string msg = CaptureDiagnostics([&] { b->setField("c", VrmlSFFloat(1)); });
    EXPECT_EQ(msg, "Invalid type (SFFloat) for c field of ColoredBox node (expected SFColor).\n");
}

TEST(VrmlProto, DuplicateNamesAndScopes) {
    auto p = ParseVrml("PROTO A [] { Box {} } PROTO A [] { Sphere {} } A {}");
    EXPECT_NE(p.diagnostics.find("Warning: PROTO A already defined\n"), std::string::npos);
    // DEF names inside a body are private to it; outer PROTOs are visible.
    auto q = ParseVrml("DEF X Box {} PROTO B [] { Shape { geometry USE X } } PROTO C [] { B {} } C {}");
    VrmlNodeType* b = q.ns->findType("B");
    ASSERT_TRUE(b && b->bodyNodes());
    EXPECT_EQ((*b->bodyNodes())[0]->asShape()->d_geometry.get(), nullptr);
    VrmlNodeType* c = q.ns->findType("C");
    EXPECT_TRUE((*c->bodyNodes())[0]->asProto());
}

TEST(VrmlProto, SelfReferenceCannotRecurse) {
    // A PROTO cannot name itself in its body (not declared yet); through a pair
    // of PROTOs the second is unknown to the first.
    auto p = ParseVrml("PROTO P [] { Group { children P {} } } P {}");
    EXPECT_NE(p.diagnostics.find("Unknown node type 'P'"), std::string::npos);
    VrmlScene scene;
    AdoptWorld(scene, p);
}

TEST(VrmlProto, ExternProtosNamingOneFileReadItOnceEach) {
    testsupport::TempDir dir;
    // The stray node makes each read of the file say so once.
    testsupport::WriteFile(dir / "lib.wrl", "#VRML V2.0 utf8\nPROTO P [] { Shape { geometry Box {} } }\n"
                                            "PROTO Q [] { Shape { geometry Sphere {} } }\nJunk {}\n");
    std::string main = "#VRML V2.0 utf8\n";
    for (int i = 0; i < 6; ++i) {
        const char* target = i % 3 == 0 ? "lib.wrl#P" : i % 3 == 1 ? "lib.wrl#Q" : "lib.wrl";
        main += "EXTERNPROTO E" + std::to_string(i) + " [] \"" + target + "\" E" + std::to_string(i) + " {}\n";
    }
    testsupport::WriteFile(dir / "main.wrl", main);
    VrmlScene scene;
    std::string msg = CaptureDiagnostics([&] { EXPECT_TRUE(scene.load((dir / "main.wrl").c_str())); });
    size_t reads = 0;
    for (size_t at = msg.find("Junk"); at != std::string::npos; at = msg.find("Junk", at + 1)) ++reads;
    EXPECT_EQ(reads, 1u) << msg;
    VrmlNodeGroup* root = scene.root();
    ASSERT_EQ(root->size(), 6u) << msg;
    for (size_t i = 0; i < 6; ++i) {
        VrmlNodeProto* e = root->child(i)->asProto();
        ASSERT_TRUE(e && e->getNodes().size() == 1) << i;
        // Each its own fragment (none: the file's first PROTO), each instance its own copy.
        EXPECT_EQ(e->getNodes()[0]->asShape()->d_geometry.get()->asSphere() != nullptr, i % 3 == 1) << i;
        if (i >= 3) { EXPECT_NE(e->getNodes()[0], root->child(i - 3)->asProto()->getNodes()[0]); }
    }

    // A file read while another is being read sees that one blocked, as a cycle; read for
    // the world itself later, it is read afresh and reaches it.
    testsupport::WriteFile(
        dir / "a.wrl", "#VRML V2.0 utf8\nEXTERNPROTO XA [] \"b.wrl#YB\"\nPROTO PA [] { Shape { geometry Box {} } }\n");
    testsupport::WriteFile(dir / "b.wrl", "#VRML V2.0 utf8\nEXTERNPROTO YB [] \"a.wrl#PA\"\n");
    testsupport::WriteFile(dir / "cycle.wrl", "#VRML V2.0 utf8\nEXTERNPROTO EA [] \"a.wrl#XA\"\n"
                                              "EXTERNPROTO EB [] \"b.wrl#YB\"\nEA {}\nEB {}\n");
    VrmlScene cycle;
    CaptureDiagnostics([&] { EXPECT_TRUE(cycle.load((dir / "cycle.wrl").c_str())); });
    ASSERT_EQ(cycle.root()->size(), 1u); // EA found no body
    VrmlNodeProto* eb = cycle.root()->child(0)->asProto();
    ASSERT_TRUE(eb && eb->getNodes().size() == 1);
    EXPECT_TRUE(eb->getNodes()[0]->asShape()->d_geometry.get()->asBox());
}

TEST(VrmlProto, ExternProtoFetchesLocalFilesAndStopsCycles) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / "lib.wrl",
                           "#VRML V2.0 utf8\nPROTO Other [] { Box {} }\n"
                           "PROTO Ball [ field SFFloat r 2 ] { Shape { geometry Sphere { radius IS r } } }\n");
    // self.wrl refers to itself: the fetch of a file already being read fails.
    testsupport::WriteFile(dir / "self.wrl", "#VRML V2.0 utf8\nEXTERNPROTO Loop [] \"self.wrl#Loop\"\nLoop {}\n");
    testsupport::WriteFile(dir / "main.wrl",
                           "#VRML V2.0 utf8\n"
                           "EXTERNPROTO Ball [ field SFFloat r ] [ \"missing.wrl#Ball\" \"lib.wrl#Ball\" ]\n"
                           "EXTERNPROTO Gone [] [ \"nope1.wrl\" \"nope2.wrl\" ]\n"
                           "Ball { r 5 } Ball {} Gone {}\n");
    VrmlScene scene;
    std::string msg = CaptureDiagnostics([&] { EXPECT_TRUE(scene.load((dir / "main.wrl").c_str())); });
    EXPECT_NE(msg.find("Warning: Couldn't read EXTERNPROTO url 'missing.wrl#Ball'"), std::string::npos) << msg;
    EXPECT_NE(msg.find("Couldn't read EXTERNPROTO url 'nope1.wrl'"), std::string::npos);
    EXPECT_EQ(msg.find("nope2.wrl"), std::string::npos); // the last URL is not reported
    VrmlNodeGroup* root = scene.root();
    ASSERT_EQ(root->size(), 2u) << msg; // Gone has no body, so it is no child
    VrmlNodeProto* ball = root->child(0)->asProto();
    ASSERT_TRUE(ball && ball->isInstantiated());
    auto* sphere = ball->getNodes()[0]->asShape()->d_geometry.get()->asSphere();
    EXPECT_FLOAT_EQ(sphere->d_radius.get(), 5);
    auto* sphere2 = root->child(1)->asProto()->getNodes()[0]->asShape()->d_geometry.get()->asSphere();
    EXPECT_FLOAT_EQ(sphere2->d_radius.get(), 2); // the fetched default

    VrmlScene loop;
    msg = CaptureDiagnostics([&] { loop.load((dir / "self.wrl").c_str()); });
    EXPECT_EQ(loop.root()->size(), 0u);
}

TEST(VrmlProto, NestedInstantiationIsBounded) {
    // Each level doubles the instances: the clone budget and depth cap end it.
    std::string text = "PROTO L0 [] { Box {} }\n";
    for (int i = 1; i <= 40; ++i)
        text += "PROTO L" + std::to_string(i) + " [] { Group { children [ L" + std::to_string(i - 1) + " {} L" +
                std::to_string(i - 1) + " {} ] } }\n";
    text += "L40 {}\n";
    auto p = ParseVrml(text);
    VrmlScene scene;
    std::string msg = CaptureDiagnostics([&] { AdoptWorld(scene, p); });
    // Nesting is allowed deep; the clone budget is what ends the doubling.
    EXPECT_NE(msg.find("too many nodes cloned"), std::string::npos);
    EXPECT_EQ(msg.find("nested too deeply"), std::string::npos);
}

TEST(VrmlProto, TheCloneBudgetWeighsWhatEachCloneCopies) {
    // 300 copies of 2,000 Script fields (or of 2,000 strings) are worth 600,000 plain clones:
    // past the budget the later instances are left empty.
    for (const char* decl : {"field SFFloat f%d 0 ", "\"s%d\" "}) {
        const bool script = decl[0] == 'f';
        std::string text = script ? "PROTO P [] { Script { " : "PROTO P [] { WorldInfo { info [ ";
        char one[32];
        for (int i = 0; i < 2000; ++i) {
            std::snprintf(one, sizeof one, decl, i);
            text += one;
        }
        text += script ? "} }\n" : "] } }\n";
        for (int i = 0; i < 300; ++i) text += "P {}\n";
        auto p = ParseVrml(text);
        ASSERT_EQ(p.size(), 300u);
        VrmlScene scene;
        std::string msg = CaptureDiagnostics([&] { AdoptWorld(scene, p); });
        EXPECT_NE(msg.find("PROTO P: too many nodes cloned"), std::string::npos) << script;
        EXPECT_EQ(scene.root()->child(0)->asProto()->getNodes().size(), 1u);
        EXPECT_EQ(scene.root()->child(299)->asProto()->getNodes().size(), 0u);
    }
    // An image counts by its bytes: 4,500 of them are ten plain clones' worth (a world's
    // load starts the count afresh).
    std::string image = "PROTO T [] { Shape { appearance Appearance { texture PixelTexture { image 30 50 3";
    for (int i = 0; i < 1500; ++i) image += " 0xFFFFFF";
    image += " } } } }\nT {}\n";
    VrmlScene world;
    CaptureDiagnostics([&] { EXPECT_TRUE(world.loadString(image.data(), image.size())); });
    ASSERT_EQ(world.root()->size(), 1u);
    EXPECT_EQ(world.root()->child(0)->asProto()->getNodes().size(), 1u);
    EXPECT_EQ(VrmlCloneCount, 3u + 10u);
}

TEST(VrmlProto, TwentyProtosEachWrappingTheLastReachTheirShape) {
    // Both ways of wrapping: directly, and inside a Transform.
    for (const char* wrap : {"P%d {}", "Transform { children P%d {} }"}) {
        std::string text = "PROTO P0 [] { Shape { geometry Cone {} } }\n";
        char inner[64];
        for (int i = 1; i < 20; ++i) {
            std::snprintf(inner, sizeof inner, wrap, i - 1);
            text += "PROTO P" + std::to_string(i) + " [] { " + inner + " }\n";
        }
        text += "P19 {}\n";
        auto p = ParseVrml(text);
        VrmlScene scene;
        std::string msg = CaptureDiagnostics([&] { AdoptWorld(scene, p); });
        EXPECT_EQ(msg, "") << wrap;
        ASSERT_EQ(scene.root()->size(), 1u) << wrap;
        std::map<std::string, size_t> counts;
        VrmlCountNodes(scene.root()->children(), counts);
        EXPECT_EQ(counts["Cone"], 1u) << wrap;
    }
    // Past the nesting cap the innermost instances are left empty, and said so.
    std::string deep = "PROTO P0 [] { Shape { geometry Cone {} } }\n";
    for (int i = 1; i <= 200; ++i)
        deep += "PROTO P" + std::to_string(i) + " [] { Transform { children P" + std::to_string(i - 1) + " {} } }\n";
    deep += "P200 {}\n";
    auto p = ParseVrml(deep);
    VrmlScene scene;
    std::string msg = CaptureDiagnostics([&] { AdoptWorld(scene, p); });
    EXPECT_NE(msg.find("nested too deeply"), std::string::npos);
}

TEST(VrmlProto, ABuiltInNameCannotBeRedefined) {
    auto p = ParseVrml("PROTO Box [ field SFFloat s 1 ] { Sphere {} }\nBox {}\n"
                       "EXTERNPROTO Cone [] \"cone.wrl\"\nCone {}\n");
    EXPECT_NE(p.diagnostics.find("Warning: PROTO Box already defined\n"), std::string::npos) << p.diagnostics;
    EXPECT_NE(p.diagnostics.find("Warning: PROTO Cone already defined\n"), std::string::npos) << p.diagnostics;
    ASSERT_EQ(p.size(), 2u);
    EXPECT_TRUE(p[0]->asBox());
    EXPECT_TRUE(p[1]->asCone());
    EXPECT_EQ(p.ns->findOwnType("Box"), nullptr);
    // Inside a PROTO body too.
    auto q = ParseVrml("PROTO Outer [] { PROTO Sphere [] { Box {} } Sphere {} }\nOuter {}");
    EXPECT_NE(q.diagnostics.find("PROTO Sphere already defined"), std::string::npos);
}
