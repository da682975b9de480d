// Node types and the catalogue: declaration order, defaults, setField checks,
// event dispatch and the grouping rules.
#include <gtest/gtest.h>

#include <cstring>

#include "VrmlTestUtil.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"

namespace {
std::vector<std::string> Names(const VrmlNodeType::EntryList& l) {
    std::vector<std::string> v;
    for (const auto& e : l) v.push_back(e.name);
    return v;
}
} // namespace

TEST(VrmlNodeType, BuiltInTypesAreCreatedOnce) {
    EXPECT_EQ(VrmlNodeCone::defineType(), VrmlNodeCone::defineType());
    EXPECT_STREQ(VrmlNodeCone::defineType()->getName(), "Cone");
    EXPECT_EQ(VrmlNamespace::findBuiltinType("Cone"), VrmlNodeCone::defineType());
    EXPECT_STREQ(VrmlNodeIFaceSet::defineType()->getName(), "IndexedFaceSet");
    EXPECT_STREQ(VrmlNodeDirLight::defineType()->getName(), "DirectionalLight");
    EXPECT_EQ(VrmlNamespace::findBuiltinType("cone"), nullptr);
    int count = 0;
#define VRML_COUNT(S) count += VrmlNamespace::findBuiltinType(VrmlNode##S::defineType()->getName()) ? 1 : 0;
    VRML_NODE_CLASSES(VRML_COUNT)
#undef VRML_COUNT
    EXPECT_EQ(count, 54);
}

TEST(VrmlNodeType, TransformDeclaresGroupFirst) {
    const VrmlNodeType* t = VrmlNodeTransform::defineType();
    EXPECT_EQ(Names(t->fields()), (std::vector<std::string>{"children", "bboxCenter", "bboxSize", "center", "rotation",
                                                            "scale", "scaleOrientation", "translation"}));
    auto ins = Names(t->eventIns());
    ASSERT_GE(ins.size(), 3u);
    EXPECT_EQ(ins[0], "addChildren");
    EXPECT_EQ(ins[1], "removeChildren");
    EXPECT_EQ(ins[2], "set_children");
    EXPECT_EQ(ins.back(), "set_translation");
    EXPECT_EQ(t->findExposedField("translation"), VrmlField::SFVEC3F);
    EXPECT_EQ(t->findExposedField("bboxSize"), 0); // a plain field
    EXPECT_EQ(t->findEventOut("children_changed"), VrmlField::MFNODE);
    // An exposed field's eventOut is found by its "_changed" name; a plain field has none.
    VrmlNodeTransform node;
    EXPECT_EQ(node.getEventOut("translation_changed"), &node.d_translation);
    EXPECT_EQ(node.getEventOut("bboxSize_changed"), nullptr);
}

TEST(VrmlNodeType, IndexedLineSetHasOnlyTheSharedDeclarations) {
    const VrmlNodeType* l = VrmlNodeILineSet::defineType();
    EXPECT_EQ(Names(l->fields()),
              (std::vector<std::string>{"color", "coord", "colorIndex", "colorPerVertex", "coordIndex"}));
    EXPECT_EQ(Names(l->eventIns()),
              (std::vector<std::string>{"set_colorIndex", "set_coordIndex", "set_color", "set_coord"}));
    const VrmlNodeType* f = VrmlNodeIFaceSet::defineType();
    EXPECT_EQ(f->fields().size(), 5u + 9u);
    EXPECT_EQ(Names(VrmlNodeSpotLight::defineType()->fields()).front(), "ambientIntensity");
}

TEST(VrmlNodeType, ExposedFieldNeedsAllThreeEntriesOfOneType) {
    VrmlNodeType t("T");
    t.addExposedField("a", VrmlField::SFFLOAT);
    t.addField("b", VrmlField::SFFLOAT);
    t.addEventIn("set_b", VrmlField::SFFLOAT);
    t.addEventOut("b_changed", VrmlField::SFINT32);
    EXPECT_EQ(t.findExposedField("a"), VrmlField::SFFLOAT);
    EXPECT_EQ(t.findExposedField("b"), 0);
    EXPECT_EQ(t.findEventIn("set_a"), VrmlField::SFFLOAT);
    EXPECT_EQ(t.findEventOut("a_changed"), VrmlField::SFFLOAT);
    EXPECT_STREQ(VrmlNodeType().getName(), "<unnamed type>");
}

TEST(VrmlNodeType, FieldDefaults) {
    VrmlNodeType t("P");
    t.addField("f", VrmlField::SFFLOAT);
    VrmlSFFloat one(1), two(2);
    t.setFieldDefault("f", &one);
    std::string msg = CaptureDiagnostics([&] { t.setFieldDefault("f", &two); });
    EXPECT_EQ(msg, "Default for field f of P already set.");
    EXPECT_FLOAT_EQ(t.defaultOf("f")->asSFFloat()->get(), 2);
    msg = CaptureDiagnostics([&] { t.setFieldDefault("g", &two); });
    EXPECT_EQ(msg, "setFieldDefault for field g of P failed: no such field.");
}

TEST(VrmlNode, DefaultsOfTheConvertedNodes) {
    VrmlNodeMaterial m;
    EXPECT_FLOAT_EQ(m.d_ambientIntensity.get(), 0.2f);
    EXPECT_EQ(PrintField(m.d_diffuseColor), "0.8 0.8 0.8");
    EXPECT_FLOAT_EQ(m.d_shininess.get(), 0.2f);
    EXPECT_EQ(PrintField(VrmlNodeBox().d_size), "2 2 2");
    VrmlNodeCone c;
    EXPECT_TRUE(c.d_bottom.get() && c.d_side.get());
    EXPECT_FLOAT_EQ(c.d_height.get(), 2);
    VrmlNodeCylinder cy;
    EXPECT_TRUE(cy.d_top.get());
    VrmlNodeIFaceSet f;
    EXPECT_TRUE(f.d_ccw.get() && f.d_convex.get() && f.d_solid.get() && f.d_normalPerVertex.get() &&
                f.d_colorPerVertex.get());
    VrmlNodeViewpoint v;
    EXPECT_FLOAT_EQ(v.d_fieldOfView.get(), 0.785398f);
    EXPECT_EQ(PrintField(v.d_orientation), "0 0 1 0");
    EXPECT_EQ(PrintField(v.d_position), "0 0 10");
    EXPECT_TRUE(v.d_jump.get());
    EXPECT_EQ(VrmlNodeSwitch().d_whichChoice.get(), -1);
    EXPECT_EQ(VrmlNodeExtrusion().d_crossSection.size(), 5u);
    EXPECT_EQ(VrmlNodeNavigationInfo().d_type.size(), 2u);
    EXPECT_EQ(PrintField(VrmlNodeGroup().d_bboxSize), "-1 -1 -1");
}

TEST(VrmlNode, SetFieldChecksTheType) {
    VrmlNodeCone c;
    std::string msg = CaptureDiagnostics([&] { c.setField("bottomRadius", VrmlSFInt(3)); });
    EXPECT_EQ(msg, "Invalid type (SFInt32) for bottomRadius field of Cone node (expected SFFloat).\n");
    EXPECT_FLOAT_EQ(c.d_bottomRadius.get(), 1);
    c.setField("bottomRadius", VrmlSFFloat(4));
    EXPECT_FLOAT_EQ(c.d_bottomRadius.get(), 4);
    msg = CaptureDiagnostics([&] { c.setField("top", VrmlSFBool(true)); });
    EXPECT_EQ(msg, "Cone::setField: no such field (top)");
    msg = CaptureDiagnostics([&] { EXPECT_EQ(c.getField("top"), nullptr); });
    EXPECT_EQ(msg, "Cone::getField: no such field (top)");
    // Inherited fields go through the base table, messages name the node's type.
    VrmlNodeTransform t;
    msg = CaptureDiagnostics([&] { t.setField("bboxCenter", VrmlSFFloat(1)); });
    EXPECT_EQ(msg, "Invalid type (SFFloat) for bboxCenter field of Transform node (expected SFVec3f).\n");
    EXPECT_EQ(t.getField("children"), &t.d_children);
}

TEST(VrmlNode, DownCastsNameTheKind) {
    VrmlNodeTransform t;
    VrmlNode& n = t;
    EXPECT_EQ(n.asTransform(), &t);
    EXPECT_EQ(n.asGroup(), &t);
    EXPECT_NE(n.asChild(), nullptr);
    EXPECT_EQ(n.asShape(), nullptr);
    VrmlNodeIFaceSet f;
    VrmlNode& g = f;
    EXPECT_NE(g.asGeometry(), nullptr);
    EXPECT_NE(g.asIndexedSet(), nullptr);
    EXPECT_EQ(g.asChild(), nullptr);
    VrmlNodeSpotLight s;
    EXPECT_NE(static_cast<VrmlNode&>(s).asLight(), nullptr);
    VrmlNodeColor c;
    EXPECT_NE(static_cast<VrmlNode&>(c).asColor(), nullptr);
    EXPECT_EQ(static_cast<VrmlNode&>(c).asChild(), nullptr);
}

TEST(VrmlNode, ExposedFieldEventsSetAndEmit) {
    auto p = ParseVrml("DEF A Transform {} DEF B Transform {} ROUTE A.translation_changed TO B.set_translation "
                       "ROUTE B.translation_changed TO A.set_translation");
    VrmlSFVec3f v(1, 2, 3);
    p[0]->eventIn(1.0, "set_translation", &v);
    EXPECT_EQ(PrintField(p[1]->asTransform()->d_translation), "1 2 3");
    EXPECT_TRUE(p[1]->isModified());
    // The loop back to A stops: each eventOut fires once per time stamp.
    VrmlSFVec3f w(4, 5, 6);
    p[0]->eventIn(2.0, "translation", &w);
    EXPECT_EQ(PrintField(p[1]->asTransform()->d_translation), "4 5 6");
    std::string msg = CaptureDiagnostics([&] { p[0]->eventIn(3.0, "set_nothing", &w); });
    EXPECT_EQ(msg, "Error: unhandled eventIn Transform::A.set_nothing\n");
    // An eventIn of a plain field sets it without an eventOut.
    auto q = ParseVrml("IndexedFaceSet {}");
    VrmlMFInt idx;
    q[0]->eventIn(1.0, "set_coordIndex", &idx);
    EXPECT_TRUE(q[0]->isModified());
}

TEST(VrmlNodeGroup, AddChildrenAcceptsOnlyChildNodes) {
    VrmlNodeGroup g;
    VrmlNode* mat = new VrmlNodeMaterial;
    VrmlNode* tr = new VrmlNodeTransform;
    VrmlMFNode list(mat);
    std::string msg = CaptureDiagnostics([&] { g.addChildren(list); });
    EXPECT_EQ(msg, "Error: Attempt to add a Material node as a child of a Group node.\n");
    EXPECT_EQ(g.size(), 0u);
    EXPECT_FALSE(g.isModified());
    VrmlNode* twice[] = {tr, tr};
    g.addChildren(VrmlMFNode(2, twice));
    EXPECT_EQ(g.size(), 1u);
    EXPECT_TRUE(g.isModified());
    g.clearModified();
    g.removeChildren(VrmlMFNode(tr));
    EXPECT_EQ(g.size(), 0u);
    EXPECT_TRUE(g.isModified());
    msg = CaptureDiagnostics([&] { g.eventIn(0, "addChildren", &list); });
    EXPECT_NE(msg.find("Attempt to add a Material"), std::string::npos);
    VrmlSFFloat bad(1);
    msg = CaptureDiagnostics([&] { g.eventIn(0, "addChildren", &bad); });
    EXPECT_EQ(msg, "VrmlNodeGroup. addChildren eventIn invalid field type.\n");
}

TEST(VrmlNode, InterpolatorsAndBindables) {
    auto p = ParseVrml("DEF S ScalarInterpolator { key [0 1] keyValue [10 20] } DEF V Viewpoint {}"
                       "DEF P PositionInterpolator { key [0 0.5 1] keyValue [0 0 0, 2 0 0, 2 4 0] }");
    VrmlSFFloat half(0.25f);
    p[0]->eventIn(1, "set_fraction", &half);
    EXPECT_FLOAT_EQ(p[0]->asScalarInt()->d_value.get(), 12.5f);
    VrmlSFFloat f(0.75f);
    p[2]->eventIn(1, "set_fraction", &f);
    EXPECT_EQ(PrintField(p[2]->asPositionInt()->d_value), "2 2 0");
    VrmlSFInt wrong(1);
    std::string msg = CaptureDiagnostics([&] { p[0]->eventIn(2, "set_fraction", &wrong); });
    EXPECT_EQ(msg, "Invalid type for S eventIn set_fraction (expected SFFloat).\n");
    msg = CaptureDiagnostics([&] { p[1]->eventIn(2, "set_bind", &wrong); });
    EXPECT_EQ(msg, "Error: invalid value for Viewpoint::set_bind eventIn");
}

TEST(VrmlNode, TransformMatrix) {
    VrmlNodeTransform t;
    t.d_translation.set(1, 2, 3);
    t.d_rotation.set(0, 0, 1, 1.5707963f);
    t.d_scale.set(2, 2, 2);
    double m[16];
    t.getMatrix(m);
    // x axis maps to 2*y, translation in the last column.
    EXPECT_NEAR(m[0], 0, 1e-6);
    EXPECT_NEAR(m[4], 2, 1e-6);
    EXPECT_NEAR(m[3], 1, 1e-6);
    EXPECT_NEAR(m[11], 3, 1e-6);
}
