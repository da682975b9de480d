// The scanner and parser: token mapping, value scanning quirks, messages,
// recovery, and hostile input.
#include <gtest/gtest.h>

#include <string>

#include "VrmlTestUtil.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlParser.h"

namespace {

const VrmlMFInt& CoordIndexOf(const Parsed& p) {
    VrmlNodeShape* shape = p[0]->asShape();
    return shape->d_geometry.get()->asIFaceSet()->d_coordIndex;
}

std::vector<int32_t> Ints(const VrmlMFInt& v) { return std::vector<int32_t>(v.get(), v.get() + v.size()); }

} // namespace

TEST(VrmlParser, TokenNumbersFollowTheGeneratedGrammar) {
    using namespace vrmltok;
    EXPECT_EQ(IDENTIFIER, 258);
    EXPECT_EQ(EXPOSEDFIELD, 270);
    EXPECT_EQ(tokenForFieldType(VrmlField::SFBOOL), 271);
    EXPECT_EQ(tokenForFieldType(VrmlField::SFVEC2F), 279);
    EXPECT_EQ(tokenForFieldType(VrmlField::SFVEC3F), 280);
    EXPECT_EQ(tokenForFieldType(VrmlField::SFIMAGE), 277);
    EXPECT_EQ(tokenForFieldType(VrmlField::SFSTRING), 278);
    EXPECT_EQ(tokenForFieldType(VrmlField::MFCOLOR), 281);
    EXPECT_EQ(tokenForFieldType(VrmlField::MFNODE), 289);
    EXPECT_EQ(tokenForFieldType(0), 0);
    EXPECT_EQ(tokenForFieldType(20), 0);
}

TEST(VrmlParser, ScannerReturnsWholeValuesForTheExpectedType) {
    const char text[] = " [ 1 2 3, 4 5 6 ] 010 TRUE";
    VrmlLexer lex(text, sizeof text - 1);
    lex.expect(vrmltok::MFVEC3F);
    ASSERT_EQ(lex.next(), vrmltok::MFVEC3F);
    auto v = lex.takeValue();
    ASSERT_TRUE(v && v->asMFVec3f());
    EXPECT_EQ(v->asMFVec3f()->size(), 2u);
    EXPECT_EQ(lex.expectToken(), 0);
    lex.expect(vrmltok::SFINT32);
    ASSERT_EQ(lex.next(), vrmltok::SFINT32);
    EXPECT_EQ(lex.takeValue()->asSFInt()->get(), 8);
    EXPECT_EQ(lex.next(), vrmltok::IDENTIFIER); // normal state again
    EXPECT_EQ(lex.text(), "TRUE");
    EXPECT_EQ(lex.next(), vrmltok::END);
    // Node tokens come back at once, without reading.
    lex.expect(vrmltok::SFNODE);
    EXPECT_EQ(lex.next(), vrmltok::SFNODE);
}

TEST(VrmlParser, CoordIndexGetsItsClosingMinusOne) {
    auto p = ParseVrml("Shape { geometry IndexedFaceSet { coordIndex [0 1 2] } }");
    EXPECT_EQ(Ints(CoordIndexOf(p)), (std::vector<int32_t>{0, 1, 2, -1}));
    p = ParseVrml("Shape { geometry IndexedFaceSet { coordIndex [0 1 2 -1] } }");
    EXPECT_EQ(Ints(CoordIndexOf(p)), (std::vector<int32_t>{0, 1, 2, -1}));
    p = ParseVrml("Shape { geometry IndexedFaceSet { coordIndex [] } }");
    EXPECT_EQ(CoordIndexOf(p).size(), 0u);
    // Other index fields keep what was written, and the flag does not leak.
    p = ParseVrml("Shape { geometry IndexedFaceSet { coordIndex 5 texCoordIndex [0 1 2] colorIndex [3] } }");
    auto* ifs = p[0]->asShape()->d_geometry.get()->asIFaceSet();
    EXPECT_EQ(Ints(ifs->d_coordIndex), (std::vector<int32_t>{5, -1}));
    EXPECT_EQ(Ints(ifs->d_texCoordIndex), (std::vector<int32_t>{0, 1, 2}));
    EXPECT_EQ(Ints(ifs->d_colorIndex), (std::vector<int32_t>{3}));
}

// Integers read the strtol way (octal and hex included), and beyond 32 bits they
// saturate instead of wrapping, in single values and in lists alike.
TEST(VrmlParser, IntegersReadTheStrtolWayAndSaturate) {
    const std::pair<const char*, int32_t> cases[] = {{"010", 8},
                                                     {"0x1F", 31},
                                                     {"-12", -12},
                                                     {"2147483647", 2147483647},
                                                     {"2147483648", 2147483647},
                                                     {"4294967295", 2147483647},
                                                     {"4294967296", 2147483647},
                                                     {"99999999999", 2147483647},
                                                     {"0xFFFFFFFF", 2147483647},
                                                     {"037777777777", 2147483647},
                                                     {"-2147483648", INT32_MIN},
                                                     {"-2147483649", INT32_MIN},
                                                     {"-4294967297", INT32_MIN},
                                                     {"123456789012345678901234567890", 2147483647}};
    for (const auto& [text, want] : cases) {
        auto p = ParseVrml(std::string("Switch { whichChoice ") + text + " } IndexedFaceSet { colorIndex [ 1 " + text +
                           " ] }");
        ASSERT_EQ(p.size(), 2u) << text;
        EXPECT_EQ(p[0]->asSwitch()->d_whichChoice.get(), want) << text;
        EXPECT_EQ(Ints(p[1]->asIFaceSet()->d_colorIndex), (std::vector<int32_t>{1, want})) << text;
    }
    // An image pixel saturates before its low byte is taken: 2^32 gives FF, not 00.
    auto q = ParseVrml("PixelTexture { image 3 1 1 4294967296 0x1FF00000000 -4294967296 }");
    ASSERT_EQ(q.size(), 1u);
    const VrmlSFImage& img = q[0]->asPixelTexture()->d_image;
    ASSERT_EQ(img.width(), 3);
    EXPECT_EQ(img.pixels()[0], 0xFF);
    EXPECT_EQ(img.pixels()[1], 0xFF);
    EXPECT_EQ(img.pixels()[2], 0x00); // -2^31: low byte 00
}

// PixelTexture's own default written out is an empty image, without complaint; pixels
// keep only their low byte.
TEST(VrmlParser, ImagesKeepTheLowByteAndMayBeEmpty) {
    auto p =
        ParseVrml("PixelTexture { image 0 0 0 } PixelTexture { image 1 1 3 255 } PixelTexture { image 1 1 3 0xFF0000 }"
                  "PixelTexture { image 2 1 1 0x12 0x3456 }");
    EXPECT_EQ(p.diagnostics, "");
    ASSERT_EQ(p.size(), 4u);
    const VrmlSFImage& e = p[0]->asPixelTexture()->d_image;
    EXPECT_EQ(e.width(), 0);
    EXPECT_EQ(e.height(), 0);
    EXPECT_EQ(e.componentCount(), 0);
    const VrmlSFImage& a = p[1]->asPixelTexture()->d_image;
    ASSERT_EQ(a.componentCount(), 3);
    EXPECT_EQ(a.pixels()[0], 0xFF);
    EXPECT_EQ(a.pixels()[1], 0);
    EXPECT_EQ(a.pixels()[2], 0);
    EXPECT_EQ(p[2]->asPixelTexture()->d_image.pixels()[0], 0);
    const VrmlSFImage& c = p[3]->asPixelTexture()->d_image;
    EXPECT_EQ(c.pixels()[0], 0x12);
    EXPECT_EQ(c.pixels()[1], 0x56);
}

TEST(VrmlParser, BadImageSizesAreRejectedWithoutAllocating) {
    for (const char* bad :
         {"PixelTexture { image 100000 100000 4 1 } Box {}", "PixelTexture { image 2 2 5 1 2 3 4 } Box {}",
          "PixelTexture { image -1 2 1 } Box {}", "PixelTexture { image 65536 65536 1 } Box {}"}) {
        auto p = ParseVrml(bad);
        EXPECT_NE(p.diagnostics.find("invalid SFImage size"), std::string::npos) << bad;
        ASSERT_EQ(p.size(), 2u) << bad << p.diagnostics;
        EXPECT_EQ(p[0]->asPixelTexture()->d_image.width(), 0);
    }
}

TEST(VrmlParser, ListValues) {
    auto p = ParseVrml("Coordinate { point [1 2 3 4 5 6 7] } Coordinate { point 1 2 3 } "
                       "Color { color [ 1 0 0, # red\n 0 1 0 ] } WorldInfo { info \"single\" title \"a\\\"b\\\\c\" }");
    ASSERT_EQ(p.size(), 4u);
    EXPECT_EQ(p[0]->asCoordinate()->d_point.size(), 2u); // the partial element is dropped
    EXPECT_EQ(p[1]->asCoordinate()->d_point.size(), 1u);
    EXPECT_EQ(p[2]->asColor()->d_color.size(), 2u);
    auto* wi = p[3]->asWorldInfo();
    EXPECT_EQ(wi->d_info.size(), 1u);
    EXPECT_STREQ(wi->d_title.get(), "a\"b\\c");
}

TEST(VrmlParser, FloatsIgnoreTheProcessLocale) {
    auto p = ParseVrml("Sphere { radius 2.5 } Sphere { radius +1e2 } Sphere { radius .5 }");
    EXPECT_FLOAT_EQ(p[0]->asSphere()->d_radius.get(), 2.5f);
    EXPECT_FLOAT_EQ(p[1]->asSphere()->d_radius.get(), 100.0f);
    EXPECT_FLOAT_EQ(p[2]->asSphere()->d_radius.get(), 0.5f);
}

TEST(VrmlParser, UnknownNodeTypeIsSkippedAndReadingGoesOn) {
    auto p = ParseVrml("Foo { bar 1 2 3 baz [ 1 2 ] child Box { size 1 1 1 } on TRUE } Sphere { radius 3 }");
    EXPECT_NE(p.diagnostics.find("Error near line 1: Unknown node type 'Foo'\n"), std::string::npos);
    ASSERT_EQ(p.size(), 1u);
    EXPECT_FLOAT_EQ(p[0]->asSphere()->d_radius.get(), 3);
    EXPECT_EQ(p.diagnostics.find("parse error"), std::string::npos);
}

TEST(VrmlParser, FieldNameErrors) {
    auto p = ParseVrml("Transform { color 1 0 0 translation 1 2 3 }");
    EXPECT_NE(p.diagnostics.find("Transform nodes do not have color fields/eventIns/eventOuts"), std::string::npos);
    EXPECT_FLOAT_EQ(p[0]->asTransform()->d_translation.y(), 2);
    // An eventIn name is not a field-start error.
    p = ParseVrml("Transform { set_translation 1 2 3 scale 2 2 2 }");
    EXPECT_EQ(p.diagnostics.find("do not have"), std::string::npos) << p.diagnostics;
    EXPECT_FLOAT_EQ(p[0]->asTransform()->d_scale.x(), 2);
}

TEST(VrmlParser, WrongValueTypeReportsAndKeepsDefault) {
    auto p = ParseVrml("Transform { translation foo } Box { size 1 2 }");
    EXPECT_EQ(p[0]->asTransform()->d_translation.x(), 0);
    auto q = ParseVrml("WorldInfo { title bare } ");
    EXPECT_NE(q.diagnostics.find("SFString missing open-quote"), std::string::npos);
    auto r = ParseVrml("WorldInfo { info [ \"a\" b ] }");
    EXPECT_NE(r.diagnostics.find("MFString missing open-quote"), std::string::npos);
}

TEST(VrmlParser, RouteErrorsNameTheMissingEnd) {
    auto p = ParseVrml("DEF T TimeSensor {} ROUTE Nope.fraction_changed TO Gone.set_fraction");
    EXPECT_NE(p.diagnostics.find("invalid source node name \"Nope\" in ROUTE statement."), std::string::npos);
    p = ParseVrml("DEF T TimeSensor {} ROUTE T.fraction_changed TO Gone.set_fraction");
    EXPECT_NE(p.diagnostics.find("invalid destination node name \"Gone\" in ROUTE statement."), std::string::npos);
    p = ParseVrml("DEF T TimeSensor {} DEF I ScalarInterpolator {} ROUTE T.fraction_changed TO I.set_fraction");
    ASSERT_EQ(p[0]->routes().size(), 1u);
    EXPECT_EQ(p[0]->routes()[0].toNode, p[1]);
    EXPECT_EQ(p[0]->routes()[0].toEventIn, "set_fraction");
}

TEST(VrmlParser, DefUseShareOneNode) {
    auto p = ParseVrml("DEF M Material { shininess 0.5 } Shape { appearance Appearance { material USE M } } USE M");
    ASSERT_EQ(p.size(), 2u); // the top-level USE adds nothing new
    auto* app = p[1]->asShape()->d_appearance.get()->asAppearance();
    EXPECT_EQ(app->d_material.get(), p[0]);
    auto q = ParseVrml("Group { children USE Nothing }");
    EXPECT_EQ(q[0]->asGroup()->d_children.size(), 0u);
}

TEST(VrmlParser, UseOfANodeStillBeingReadIsRefused) {
    auto p = ParseVrml("DEF A Group { children [ USE A Shape {} ] }");
    ASSERT_EQ(p.size(), 1u);
    EXPECT_NE(p.diagnostics.find("USE of node A inside its own definition"), std::string::npos);
    EXPECT_EQ(p[0]->asGroup()->d_children.size(), 1u);
    EXPECT_FALSE(p[0]->asGroup()->d_children.contains(p[0]));
}

TEST(VrmlParser, SyntaxErrorKeepsTheNodesCompletedBeforeIt) {
    // The node the error cuts short is dropped whole, with its enclosing nodes.
    auto p = ParseVrml("Box {} Sphere { radius 2 ] Cone {}");
    EXPECT_NE(p.diagnostics.find("Error near line 1: parse error\n"), std::string::npos);
    ASSERT_EQ(p.size(), 1u);
    EXPECT_TRUE(p[0]->asBox());
    auto n =
        ParseVrml("Group {} DEF T Transform { translation 1 2 3 children [ Shape { geometry Box {} } Group { ] } ] }");
    ASSERT_EQ(n.size(), 1u);
    EXPECT_TRUE(n[0]->asGroup());
    auto e = ParseVrml("Transform { children [ Shape { geometry Box {} } ]");
    EXPECT_EQ(e.size(), 0u); // cut short by the end of the input
    auto q = ParseVrml("Box {}\n\n} Cone {}");
    EXPECT_NE(q.diagnostics.find("Error near line 3: parse error"), std::string::npos);
    EXPECT_EQ(q.size(), 1u);
}

TEST(VrmlParser, DeepNestingStopsWithStackOverflow) {
    std::string text;
    const int depth = 100000;
    for (int i = 0; i < depth; ++i) text += "Group { children [ ";
    auto p = ParseVrml(text);
    EXPECT_NE(p.diagnostics.find("parser stack overflow"), std::string::npos);
    EXPECT_EQ(p.size(), 0u); // no node was completed
    std::string protos;
    for (int i = 0; i < 5000; ++i) protos += "PROTO P [] { ";
    auto q = ParseVrml(protos);
    EXPECT_NE(q.diagnostics.find("parser stack overflow"), std::string::npos);
}

TEST(VrmlParser, UnterminatedInputEndsQuietly) {
    for (const char* t : {"WorldInfo { title \"open", "Coordinate { point [ 1 2 3", "Group { # comment to the end",
                          "Group { children [ Box {", "PROTO X [ field SFFloat f", "ROUTE a.", "DEF",
                          "EXTERNPROTO E [ ]", "Script { field SFNode n USE", "Transform { translation 1"}) {
        auto p = ParseVrml(t);
        EXPECT_NE(p.diagnostics.find("Error near line 1: "), std::string::npos) << t;
    }
}

TEST(VrmlParser, HostileBytesDoNotCrash) {
    std::string junk("Group { children [ \0\xff\xfe Box { size \x80 1 2 } ] }", 45);
    auto p = ParseVrml(junk);
    EXPECT_NE(p.diagnostics.find("parse error"), std::string::npos);
    EXPECT_EQ(p.size(), 0u); // the Group the bytes broke is dropped
    auto q = ParseVrml(std::string("\xef\xbb\xbf\x01\x02 Box {}"));
    EXPECT_LE(q.size(), 1u);
}

TEST(VrmlParser, EveryPrefixOfAWorldParses) {
    const std::string world =
        "#VRML V2.0 utf8\nPROTO P [ field SFColor c 1 0 0 exposedField MFNode kids [] ] {\n"
        "  Transform { children IS kids } }\n"
        "DEF T Transform { translation 1 2 3 children [ Shape { appearance Appearance { material Material "
        "{ diffuseColor IS c } } geometry IndexedFaceSet { coord Coordinate { point [0 0 0, 1 0 0, 0 1 0] } "
        "coordIndex [0 1 2] } } P { kids Box {} } ] }\n"
        "DEF TS TimeSensor { loop TRUE } Script { field SFNode n USE T eventIn SFFloat f url \"x.js\" }\n"
        "ROUTE TS.fraction_changed TO T.set_scale\n";
    for (size_t n = 0; n <= world.size(); ++n) {
        auto p = ParseVrml(world.substr(0, n));
        if (p.nodes) { EXPECT_LE(p.size(), 3u); }
    }
    auto full = ParseVrml(world);
    EXPECT_EQ(full.size(), 3u) << full.diagnostics;
}

TEST(VrmlParser, HugeListsAreReadAsNumbers) {
    std::string text = "Coordinate { point [";
    for (int i = 0; i < 300000; ++i) text += "1.5 -2 3e1,";
    text += "] }";
    auto p = ParseVrml(text);
    ASSERT_EQ(p.size(), 1u);
    const VrmlMFVec3f& pts = p[0]->asCoordinate()->d_point;
    ASSERT_EQ(pts.size(), 300000u);
    EXPECT_FLOAT_EQ(pts[299999][2], 30.0f);
}

TEST(VrmlParser, InterfaceDeclarationMessages) {
    auto p = ParseVrml("PROTO P [ field SFWrong a 1 eventIn Bad b ] { Group {} } P {}");
    EXPECT_NE(p.diagnostics.find("invalid field type: SFWrong"), std::string::npos);
    EXPECT_NE(p.diagnostics.find("invalid eventIn type: Bad"), std::string::npos);
    auto q = ParseVrml("Group { field SFFloat x 1 } Script { field SFOops y 2 } Box {}");
    EXPECT_NE(q.diagnostics.find("interface declaration outside of Script"), std::string::npos);
    EXPECT_NE(q.diagnostics.find("invalid Script field y type: SFOops"), std::string::npos);
    EXPECT_EQ(q.size(), 3u);
    auto r = ParseVrml("Transform { translation IS t }");
    EXPECT_NE(r.diagnostics.find("IS statement (t) must be in a PROTO or Script."), std::string::npos);
    auto s = ParseVrml("PROTO P [ field SFFloat f 1 ] { Transform { IS f } }");
    EXPECT_NE(s.diagnostics.find("parse error"), std::string::npos);
}

TEST(VrmlParser, ScriptInterfaceIsPerInstance) {
    auto p = ParseVrml("DEF S Script { url \"a.js\" field SFFloat speed 2 eventIn SFBool go eventOut SFTime t "
                       "field MFString names [\"a\" \"b\"] field SFFloat speed2 TRUE } Script { }");
    auto* s = p[0]->asScript();
    ASSERT_TRUE(s);
    EXPECT_EQ(s->hasField("speed"), VrmlField::SFFLOAT);
    EXPECT_EQ(s->hasEventIn("go"), VrmlField::SFBOOL);
    EXPECT_EQ(s->hasEventOut("t"), VrmlField::SFTIME);
    EXPECT_FLOAT_EQ(s->getField("speed")->asSFFloat()->get(), 2);
    EXPECT_EQ(s->getField("names")->asMFString()->size(), 2u);
    EXPECT_EQ(p[1]->asScript()->hasField("speed"), 0);
    std::string msg = CaptureDiagnostics([&] { s->setField("speed", VrmlSFBool(true)); });
    EXPECT_EQ(msg, "Invalid type (SFBool) for speed field of Script node.\n");
}

TEST(VrmlParser, ErrorsGiveTheLineOfTheOffendingName) {
    // Each name is followed by blank lines, so the next token is further down.
    auto unknown = ParseVrml("Group {}\nFoo\n\n\n{ }");
    EXPECT_NE(unknown.diagnostics.find("Error near line 2: Unknown node type 'Foo'"), std::string::npos)
        << unknown.diagnostics;
    auto is = ParseVrml("Sphere {\nradius IS rr\n\n\n}");
    EXPECT_NE(is.diagnostics.find("Error near line 2: IS statement (rr) must be in a PROTO or Script."),
              std::string::npos)
        << is.diagnostics;
    auto source = ParseVrml("ROUTE\nA.x\n\nTO B.y\n\nGroup {}");
    EXPECT_NE(source.diagnostics.find("Error near line 2: invalid source node name \"A\" in ROUTE statement."),
              std::string::npos)
        << source.diagnostics;
    auto dest = ParseVrml("DEF A Group {}\nROUTE A.children_changed TO\nB.set_children\n\n\nGroup {}");
    EXPECT_NE(dest.diagnostics.find("Error near line 3: invalid destination node name \"B\" in ROUTE statement."),
              std::string::npos)
        << dest.diagnostics;
}
