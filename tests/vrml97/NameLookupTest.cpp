// Names and nodes looked up through indexes (routes, PROTO types, interface entries,
// instance values, Script interfaces, the scene's registration lists): which entry a
// repeated name reaches, and the order kept.
#include <gtest/gtest.h>

#include <string>

#include "VrmlTestUtil.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"

namespace {

// Enough of a kind to pass the point where a plain search gives way to an index.
constexpr int kMany = 40;

TEST(VrmlNameLookup, RoutesFromOneNodeAreKeptOnceInTheOrderGiven) {
    std::string text = "DEF S TimeSensor {}\n";
    for (int i = 0; i < kMany; ++i) text += "DEF T" + std::to_string(i) + " Transform {}\n";
    for (int i = 0; i < kMany; ++i) text += "ROUTE S.a TO T" + std::to_string(i) + ".x\n";
    // Repeats of early and late routes add nothing; a route differing in any one part is new,
    // including two whose event names only split differently.
    text += "ROUTE S.a TO T0.x ROUTE S.a TO T39.x ROUTE S.a TO T3.x\n"
            "ROUTE S.b TO T0.x ROUTE S.a TO T0.y ROUTE S.a TO T1.x ROUTE S.ab TO T2.c ROUTE S.a TO T2.bc\n"
            "ROUTE S.b TO T0.x\n";
    auto p = ParseVrml(text);
    const auto& routes = p[0]->routes();
    ASSERT_EQ(routes.size(), size_t(kMany + 4));
    for (int i = 0; i < kMany; ++i) {
        EXPECT_EQ(routes[i].toNode, p[i + 1]) << i;
        EXPECT_EQ(routes[i].fromEventOut + ">" + routes[i].toEventIn, "a>x");
    }
    auto at = [&](size_t k) {
        return routes[k].fromEventOut + ">" + routes[k].toNode->name() + "." + routes[k].toEventIn;
    };
    EXPECT_EQ(at(kMany), "b>T0.x");
    EXPECT_EQ(at(kMany + 1), "a>T0.y");
    EXPECT_EQ(at(kMany + 2), "ab>T2.c");
    EXPECT_EQ(at(kMany + 3), "a>T2.bc");
    // Added through the node as well as by the parser.
    p[0]->addRoute("a", p[5], "x");
    p[0]->addRoute("a", p[5], "z");
    EXPECT_EQ(routes.size(), size_t(kMany + 5));
}

TEST(VrmlNameLookup, ProtoTypesFirstDeclarationWinsInEachScope) {
    std::string text;
    for (int i = 0; i < kMany; ++i) text += "PROTO P" + std::to_string(i) + " [] { Box {} }\n";
    text += "PROTO P7 [] { Sphere {} }\nPROTO Cone [] { Box {} }\n"
            "PROTO Outer [] { PROTO P7 [] { Cylinder {} } P7 {} }\nP7 {}\nOuter {}\nP39 {}\n";
    auto p = ParseVrml(text);
    EXPECT_NE(p.diagnostics.find("Warning: PROTO P7 already defined\n"), std::string::npos);
    EXPECT_NE(p.diagnostics.find("Warning: PROTO Cone already defined\n"), std::string::npos);
    ASSERT_EQ(p.ns->types().size(), size_t(kMany + 1));
    EXPECT_STREQ(p.ns->types()[7]->getName(), "P7");
    EXPECT_STREQ(p.ns->types()[kMany]->getName(), "Outer");
    EXPECT_EQ(p.ns->findOwnType("Cone"), nullptr);
    EXPECT_TRUE(p.ns->findType("Cone") && !p.ns->findType("Cone")->isProto());
    ASSERT_EQ(p.size(), 3u);
    EXPECT_TRUE(p[0]->asProto()->firstNode()->asBox());
    EXPECT_TRUE(p[2]->asProto()->firstNode()->asBox());
    // Inside Outer its own P7 hides the outer one; outside it is not seen.
    VrmlNode* inner = p[1]->asProto()->firstNode();
    ASSERT_TRUE(inner && inner->asProto());
    EXPECT_TRUE(inner->asProto()->firstNode()->asCylinder());
    VrmlNodeType* innerP7 = p.ns->findType("Outer")->scope()->findOwnType("P7");
    ASSERT_TRUE(innerP7);
    EXPECT_NE(innerP7, p.ns->findType("P7"));
}

TEST(VrmlNameLookup, RepeatedInterfaceNamesReachTheFirstEntry) {
    std::string decl = "PROTO P [ field SFFloat dup 1 field SFInt32 dup 2 ";
    for (int i = 0; i < kMany; ++i) decl += "field SFFloat f" + std::to_string(i) + " " + std::to_string(i) + " ";
    decl += "eventIn SFFloat dup exposedField SFFloat e 5 ] { Group {} }\n";
    auto p = ParseVrml(decl + "P { dup 7 f39 3.5 }\n");
    // The second default went to the first entry, with the message saying so.
    EXPECT_NE(p.diagnostics.find("Default for field dup of P already set."), std::string::npos) << p.diagnostics;
    VrmlNodeType* t = p.ns->findType("P");
    ASSERT_TRUE(t);
    ASSERT_EQ(t->fields().size(), size_t(kMany + 3));
    EXPECT_EQ(t->hasField("dup"), VrmlField::SFFLOAT);
    EXPECT_EQ(t->fields()[1].defaultValue, nullptr);
    EXPECT_EQ(PrintField(*t->fieldDefault("dup")), "2");
    EXPECT_EQ(PrintField(*t->fieldDefault("f39")), "39");
    EXPECT_EQ(t->hasEventIn("dup"), VrmlField::SFFLOAT);
    EXPECT_EQ(t->hasEventIn("set_e"), VrmlField::SFFLOAT);
    EXPECT_EQ(t->hasExposedField("e"), VrmlField::SFFLOAT);
    EXPECT_EQ(t->hasExposedField("f3"), VrmlField::NO_FIELD);
    EXPECT_EQ(t->hasField("f40"), VrmlField::NO_FIELD);
    ASSERT_EQ(p.size(), 1u);
    // An event of the name comes first: the value after it is skipped.
    EXPECT_EQ(PrintField(*p[0]->getField("dup")), "2");
    EXPECT_EQ(PrintField(*p[0]->getField("f39")), "3.5");
}

TEST(VrmlNameLookup, InstanceValuesKeepFirstGivenOrderAndLastGivenValue) {
    std::string text = "PROTO P [ ";
    for (int i = 0; i < kMany; ++i) text += "field SFFloat f" + std::to_string(i) + " -1 ";
    text += "] { Group {} }\nP { ";
    for (int i = kMany; i-- > 0;) text += "f" + std::to_string(i) + " " + std::to_string(i) + " ";
    text += "f0 100 f39 139 f20 120 }\n";
    auto p = ParseVrml(text);
    ASSERT_EQ(p.size(), 1u);
    VrmlNodeProto* inst = p[0]->asProto();
    const auto& values = inst->fieldValues();
    ASSERT_EQ(values.size(), size_t(kMany));
    EXPECT_EQ(values.front().first, "f39");
    EXPECT_EQ(values.back().first, "f0");
    EXPECT_EQ(PrintField(*inst->getField("f0")), "100");
    EXPECT_EQ(PrintField(*inst->getField("f39")), "139");
    EXPECT_EQ(PrintField(*inst->getField("f20")), "120");
    EXPECT_EQ(PrintField(*inst->getField("f21")), "21");
    // Values given after reading, to the instance and to a copy of it.
    inst->setField("f1", VrmlSFFloat(11));
    std::unique_ptr<VrmlNode> copy(inst->cloneMe());
    copy->setField("f2", VrmlSFFloat(12));
    EXPECT_EQ(PrintField(*copy->getField("f1")), "11");
    EXPECT_EQ(PrintField(*copy->getField("f2")), "12");
    EXPECT_EQ(PrintField(*inst->getField("f2")), "2");
    EXPECT_EQ(copy->asProto()->fieldValues().size(), size_t(kMany));
}

TEST(VrmlNameLookup, ScriptInterfacesAreKeptPerKindFirstOneWins) {
    std::string text = "Script { ";
    for (int i = 0; i < kMany; ++i) text += "field SFFloat f" + std::to_string(i) + " " + std::to_string(i) + " ";
    text += "field SFInt32 f3 9 eventIn SFTime f3 eventOut SFBool f3 eventIn SFTime f3 field SFFloat f3 8 }\n";
    auto p = ParseVrml(text);
    ASSERT_EQ(p.size(), 1u);
    VrmlNodeScript* s = p[0]->asScript();
    ASSERT_TRUE(s);
    ASSERT_EQ(s->interfaces().size(), size_t(kMany + 2));
    EXPECT_EQ(s->interfaces()[kMany].kind, VrmlInterfaceKind::EventIn);
    EXPECT_EQ(s->interfaces()[kMany + 1].kind, VrmlInterfaceKind::EventOut);
    EXPECT_EQ(s->hasField("f3"), VrmlField::SFFLOAT);
    EXPECT_EQ(s->hasEventIn("f3"), VrmlField::SFTIME);
    EXPECT_EQ(s->hasEventOut("f3"), VrmlField::SFBOOL);
    EXPECT_EQ(s->hasEventIn("f4"), VrmlField::NO_FIELD);
    // The repeated SFInt32 declaration's value did not fit the first one's type; the last SFFloat did.
    EXPECT_NE(p.diagnostics.find("Invalid type (SFInt32) for f3 field of Script node."), std::string::npos);
    EXPECT_EQ(PrintField(*s->getField("f3")), "8");
    EXPECT_EQ(PrintField(*s->getField("f39")), "39");
    std::unique_ptr<VrmlNode> copy(s->cloneMe());
    EXPECT_EQ(copy->asScript()->hasEventOut("f3"), VrmlField::SFBOOL);
    EXPECT_EQ(PrintField(*copy->getField("f39")), "39");
}

TEST(VrmlNameLookup, SceneListsHoldEachNodeOnceInTheOrderAdded) {
    std::string text = "DEF L PointLight {}\n";
    for (int i = 0; i < kMany; ++i) text += "DEF T" + std::to_string(i) + " TimeSensor {}\n";
    text += "Group { children [ USE T0 USE T5 USE L ] }\n";
    auto p = ParseVrml(text);
    std::vector<VrmlNode*> sensors;
    for (int i = 0; i < kMany; ++i) sensors.push_back(p.ns->findNode(("T" + std::to_string(i)).c_str()));
    VrmlNode* light = p.ns->findNode("L");
    VrmlScene scene;
    AdoptWorld(scene, p);
    EXPECT_EQ(scene.TimeSensorList(), sensors);
    EXPECT_EQ(scene.ScopedLightList(), std::vector<VrmlNode*>{light});
    scene.addTimeSensor(sensors[3]);
    EXPECT_EQ(scene.TimeSensorList(), sensors);
    // One list's entry says nothing about another's.
    scene.addScopedLight(sensors[3]);
    EXPECT_EQ(scene.ScopedLightList(), (std::vector<VrmlNode*>{light, sensors[3]}));
    // Taken out, a node goes back in at the end.
    scene.removeTimeSensor(sensors[3]);
    scene.addTimeSensor(sensors[3]);
    sensors.erase(sensors.begin() + 3);
    sensors.push_back(p.ns->findNode("T3"));
    EXPECT_EQ(scene.TimeSensorList(), sensors);
    scene.removeScopedLight(sensors.back());
}

} // namespace
