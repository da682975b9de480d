// The VRML 1.0 / Inventor reader: header, grammar, field values and its messages.
#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>

#include "vrml/vrml1/QvIn.h"
#include "vrml/vrml1/QvNode.h"
#include "vrml/vrml1/QvState.h"

namespace {

struct Parsed {
    bool ok = false;
    std::string messages;
    QvFileContents contents;
    float version = 0;
};

std::unique_ptr<Parsed> Parse(const std::string& text) {
    auto p = std::make_unique<Parsed>();
    QvIn in(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
    in.setSink([&](const std::string& s) { p->messages += s; });
    p->ok = QvReadFile(in, p->contents);
    p->version = in.getVersion();
    return p;
}

std::string ReadError(const std::string& message, int line) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%3d", line);
    return "VRML read error: " + message + "\n\tOccurred at line " + buf + "\n";
}

TEST(Vrml1Header, AcceptsTheThreeHeadersAndNothingElse) {
    for (const char* h : {"#VRML V1.0 ascii", "#Inventor V2.1 ascii", "#Inventor V2.0 ascii"}) {
        auto p = Parse(std::string(h) + "\nSeparator { }\n");
        EXPECT_TRUE(p->ok) << h << p->messages;
        EXPECT_EQ(p->version, 1.0f) << h;
    }
    // Trailing white space (a CRLF file's carriage return, stray blanks) does not matter.
    EXPECT_TRUE(Parse("#VRML V1.0 ascii\r\nGroup { }\r\n")->ok);
    EXPECT_TRUE(Parse("#Inventor V2.1 ascii \t\nGroup { }\n")->ok);
    for (const char* bad :
         {"#VRML V1.0 utf8\nGroup { }\n", "#Inventor V1.0 ascii\nGroup { }\n", "#Inventor V2.1 binary\n",
          "\xEF\xBB\xBF#VRML V1.0 ascii\n", "#VRML V2.0 utf8\n", "", " #VRML V1.0 ascii\n"}) {
        auto p = Parse(bad);
        EXPECT_FALSE(p->ok) << bad;
        EXPECT_EQ(p->messages.substr(0, p->messages.find('\n')),
                  "VRML read error: File does not have a valid header string")
            << bad;
    }
    EXPECT_EQ(Parse("#VRML V1.0 utf8\n")->messages, ReadError("File does not have a valid header string", 1));
}

TEST(Vrml1Grammar, DefUseAndTheirErrors) {
    auto p = Parse("#VRML V1.0 ascii\nSeparator {\n DEF Foo Cube { width 3 }\n USE Foo\n}\n");
    ASSERT_TRUE(p->ok) << p->messages;
    const auto& kids = p->contents.nodes[0]->children();
    ASSERT_EQ(kids.size(), 2u);
    EXPECT_EQ(kids[0], kids[1]); // one shared node
    EXPECT_EQ(kids[0]->getName(), "Foo");

    EXPECT_EQ(Parse("#VRML V1.0 ascii\nSeparator {\n USE Foo\n DEF Foo Cube {}\n}\n")->messages,
              ReadError("Unknown reference \"Foo\"", 3));
    // A name is known only once its node is complete.
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nDEF A Separator { USE A }\n")->messages,
              ReadError("Unknown reference \"A\"", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nDEF")->messages, ReadError("Premature end of file after DEF", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nUSE  ")->messages, ReadError("Premature end of file after USE", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nDEF { }")->messages, ReadError("No name given after DEF", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nDEF X { }")->messages, ReadError("Invalid definition of X", 2));
}

TEST(Vrml1Grammar, BracesFieldsAndTrailingText) {
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nCube ( }")->messages, ReadError("Expected '{'; got '('", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nCube {")->messages, ReadError("Expected '}'; got EOF", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nCube { colour 3 }")->messages, ReadError("Unknown field \"colour\"", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nCube { width\n}")->messages,
              ReadError("Couldn't read value for field \"width\"", 3));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nGroup { }\n}\n")->messages,
              ReadError("Extra characters ('}') found in input", 3));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nGroup { } # open comment")->messages,
              ReadError("EOF reached before end of comment", 2));
    // Comments and commas are white space between fields and nodes.
    auto p = Parse("#VRML V1.0 ascii\n# lead\nSeparator { # c\n Cube { width 1, height 2 } # d\n}\n");
    ASSERT_TRUE(p->ok) << p->messages;
    const auto* cube = static_cast<const QvCube*>(p->contents.nodes[0]->children()[0]);
    EXPECT_EQ(cube->width.value, 1.0f);
    EXPECT_EQ(cube->height.value, 2.0f);
    EXPECT_EQ(cube->depth.value, 2.0f); // the default
}

TEST(Vrml1Fields, BoolEnumAndBitMask) {
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nPointLight { on 2 }")->messages,
              ReadError("Illegal value for QvSFBool: 2 (must be 0 or 1)", 2) +
                  ReadError("Couldn't read value for field \"on\"", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nPointLight { on YES }")->messages,
              ReadError("Unknown value (\"YES\") for QvSFBool (must be TRUE or FALSE)", 2) +
                  ReadError("Couldn't read value for field \"on\"", 2));
    auto p = Parse("#VRML V1.0 ascii\nGroup { PointLight { on FALSE } PointLight { on 1 } }");
    ASSERT_TRUE(p->ok);
    EXPECT_FALSE(static_cast<const QvPointLight*>(p->contents.nodes[0]->children()[0])->on.value);
    EXPECT_TRUE(static_cast<const QvPointLight*>(p->contents.nodes[0]->children()[1])->on.value);

    EXPECT_EQ(Parse("#VRML V1.0 ascii\nMaterialBinding { value PER_WHATEVER }")->messages,
              ReadError("Unknown QvSFEnum enumeration value \"PER_WHATEVER\"", 2) +
                  ReadError("Couldn't read value for field \"value\"", 2));
    p = Parse("#VRML V1.0 ascii\nGroup { Cylinder { parts (SIDES | BOTTOM) } Cone { parts BOTTOM } }");
    ASSERT_TRUE(p->ok) << p->messages;
    EXPECT_EQ(static_cast<const QvCylinder*>(p->contents.nodes[0]->children()[0])->parts.value,
              QV_CYL_SIDES | QV_CYL_BOTTOM);
    EXPECT_EQ(static_cast<const QvCone*>(p->contents.nodes[0]->children()[1])->parts.value, QV_CONE_BOTTOM);
    EXPECT_NE(Parse("#VRML V1.0 ascii\nCone { parts (SIDES TOP) }")->messages.find("Expected '|' or ')', got 'T'"),
              std::string::npos);
    EXPECT_NE(
        Parse("#VRML V1.0 ascii\nCone { parts (LID) }")->messages.find("Unknown QvSFBitMask bit mask value \"LID\""),
        std::string::npos);
    EXPECT_NE(
        Parse("#VRML V1.0 ascii\nCone { parts (SIDES |")->messages.find("EOF reached before ')' in QvSFBitMask value"),
        std::string::npos);
}

TEST(Vrml1Fields, MultipleValuesInBothForms) {
    auto p = Parse("#VRML V1.0 ascii\nGroup {\n Coordinate3 { point 1 2 3 }\n"
                   " Coordinate3 { point [ 0 0 0, 1 0 0, 1 1 0, ] }\n"
                   " Coordinate3 { point [] }\n"
                   " IndexedFaceSet { coordIndex [ 0, 1, 2, -1 ] }\n}\n");
    ASSERT_TRUE(p->ok) << p->messages;
    const auto& k = p->contents.nodes[0]->children();
    EXPECT_EQ(static_cast<const QvCoordinate3*>(k[0])->point.values, (std::vector<float>{1, 2, 3}));
    EXPECT_EQ(static_cast<const QvCoordinate3*>(k[1])->point.num(), 3u);
    EXPECT_EQ(static_cast<const QvCoordinate3*>(k[2])->point.num(), 0u);
    EXPECT_EQ(static_cast<const QvIndexedFaceSet*>(k[3])->coordIndex.values, (std::vector<int32_t>{0, 1, 2, -1}));

    EXPECT_EQ(Parse("#VRML V1.0 ascii\nIndexedFaceSet { coordIndex [ 0, 1 } ] }")->messages,
              ReadError("Expected ',' or ']' but got '}' while reading value 2", 2) +
                  ReadError("Couldn't read value for field \"coordIndex\"", 2));
    // Lists written without commas, as many exporters do, read all the same.
    auto nc = Parse("#VRML V1.0 ascii\nCoordinate3 { point [\n 0 0 0\n 2 0 0\n 0 2 0\n] }\n");
    ASSERT_TRUE(nc->ok) << nc->messages;
    EXPECT_EQ(static_cast<const QvCoordinate3*>(nc->contents.nodes[0])->point.num(), 3u);
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nIndexedFaceSet { coordIndex [ 0, x ] }")->messages,
              ReadError("Couldn't read value 1 of field", 2) +
                  ReadError("Couldn't read value for field \"coordIndex\"", 2));
    // A list without its closing bracket stops at the end of the input, bounded.
    std::string open = "#VRML V1.0 ascii\nCoordinate3 { point [ ";
    for (int i = 0; i < 100000; ++i) open += "1 2 3, ";
    EXPECT_FALSE(Parse(open)->ok);
}

TEST(Vrml1Fields, IntegersSaturateAndTakeHexAndOctal) {
    auto p = Parse("#VRML V1.0 ascii\nGroup { Switch { whichChild 2147483648 } Switch { whichChild -9999999999 }"
                   " Switch { whichChild 0x10 } Switch { whichChild 010 } PackedColor { orderedRGBA 0xFF0000FF } }");
    ASSERT_TRUE(p->ok) << p->messages;
    const auto& k = p->contents.nodes[0]->children();
    EXPECT_EQ(static_cast<const QvSwitch*>(k[0])->whichChild.value, 2147483647);
    EXPECT_EQ(static_cast<const QvSwitch*>(k[1])->whichChild.value, -2147483647 - 1);
    EXPECT_EQ(static_cast<const QvSwitch*>(k[2])->whichChild.value, 16);
    EXPECT_EQ(static_cast<const QvSwitch*>(k[3])->whichChild.value, 8);
    EXPECT_EQ(static_cast<const QvPackedColor*>(k[4])->orderedRGBA.values[0], 0xFF0000FFu);
}

TEST(Vrml1Fields, NumbersReadAsTheLibraryReadsThem) {
    // Plain decimals take a short way; every form must give the library's exact value.
    std::vector<std::string> texts = {
        "0",          "-0",    "-0.0",       "1.",        ".5",         "-.25",         "16777216",      "16777217",
        "16777215.5", "0.1",   "0.3",        "123456789", "1234567890", "0.0000000001", "0.00000000001", "3.4028235e38",
        "1e-45",      "1.5E3", "99999999.9", "8388607.5", "0.16777217", "1.6777216",    "2.5000000001",  "+4.25",
        "00012.5"};
    std::mt19937 rng(1996);
    for (int i = 0; i < 4000; ++i) {
        char buf[64];
        std::snprintf(buf, sizeof(buf), "%.*f", static_cast<int>(rng() % 11),
                      std::ldexp(double(rng()), -int(rng() % 40)));
        texts.push_back((rng() & 1) ? std::string("-") + buf : buf);
    }
    std::string list;
    for (const std::string& t : texts) list += t + ", ";
    auto p = Parse("#VRML V1.0 ascii\nMaterial { shininess [ " + list + "] }");
    ASSERT_TRUE(p->ok) << p->messages;
    const auto& got = static_cast<const QvMaterial*>(p->contents.nodes[0])->shininess.values;
    ASSERT_EQ(got.size(), texts.size());
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string& t = texts[i];
        float want = 0;
        const char* b = t.data() + (t[0] == '+' ? 1 : 0);
        std::from_chars(b, t.data() + t.size(), want);
        EXPECT_EQ(std::bit_cast<uint32_t>(got[i]), std::bit_cast<uint32_t>(want)) << t;
    }

    auto q = Parse("#VRML V1.0 ascii\nIndexedFaceSet { coordIndex [ 0, -0, 7, 010, 0x1F, -12, 123456789012345678,"
                   " 1234567890123456789, -2147483649, 00 ] }");
    ASSERT_TRUE(q->ok) << q->messages;
    EXPECT_EQ(static_cast<const QvIndexedFaceSet*>(q->contents.nodes[0])->coordIndex.values,
              (std::vector<int32_t>{0, 0, 7, 8, 31, -12, 2147483647, 2147483647, -2147483647 - 1, 0}));
}

TEST(Vrml1Fields, ImagesAreValidatedAgainstTheInput) {
    auto p = Parse("#VRML V1.0 ascii\nTexture2 { image 2 1 3 0xFF0000 0x00FF00 }");
    ASSERT_TRUE(p->ok) << p->messages;
    const auto* t = static_cast<const QvTexture2*>(p->contents.nodes[0]);
    EXPECT_EQ(t->image.bytes, (std::vector<uint8_t>{255, 0, 0, 0, 255, 0}));
    EXPECT_TRUE(Parse("#VRML V1.0 ascii\nTexture2 { image 0 0 0 }")->ok);
    for (const char* bad : {"image -1 2 3 1 1", "image 1 1 5 1", "image 100000 100000 4 1 2 3"})
        EXPECT_FALSE(Parse(std::string("#VRML V1.0 ascii\nTexture2 { ") + bad + " }")->ok) << bad;
}

TEST(Vrml1Grammar, UnknownNodesNeedTheirFieldSpecification) {
    auto p = Parse("#VRML V1.0 ascii\nSeparator {\n Wobble { fields [ SFFloat amount, MFLong ids, SFEnum mode ]\n"
                   "  amount 2.5 ids [ 1, 2, 3 ] mode FAST Cube { } }\n}\n");
    ASSERT_TRUE(p->ok) << p->messages;
    const QvNode* w = p->contents.nodes[0]->children()[0];
    ASSERT_EQ(w->type(), QvNodeType::Unknown);
    EXPECT_EQ(static_cast<const QvUnknownNode*>(w)->getClassName(), "Wobble");
    EXPECT_EQ(static_cast<const QvSFFloat*>(w->findField("amount"))->value, 2.5f);
    EXPECT_EQ(static_cast<const QvMFLong*>(w->findField("ids"))->values, (std::vector<int32_t>{1, 2, 3}));
    EXPECT_EQ(w->children().size(), 1u);

    EXPECT_EQ(Parse("#VRML V1.0 ascii\nWobble { amount 3 }")->messages, ReadError("Unknown class \"Wobble\"", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nWobble { fields [ SFNothing a ] }")->messages,
              ReadError("Bad field specifications for node", 2));
    EXPECT_EQ(Parse("#VRML V1.0 ascii\nWobble { fields SFFloat a }")->messages,
              ReadError("Bad field specifications for node", 2));
    // Inventor classes we carry nothing for are stepped over, quotes and all.
    p = Parse(
        "#Inventor V2.1 ascii\nSeparator { Font { name \"Odd } name\" size 1 } Text3 { string \"x\" } Cube { } }");
    ASSERT_TRUE(p->ok) << p->messages;
    EXPECT_EQ(p->contents.nodes[0]->children().size(), 3u);
}

TEST(Vrml1Grammar, AnUnknownNodesRepeatedFieldNameReachesItsFirstDeclaration) {
    std::string text = "#VRML V1.0 ascii\nWobble { fields [ SFFloat a, SFLong a";
    for (int i = 0; i < 40; ++i) text += ", SFLong f" + std::to_string(i);
    text += " ] f39 7 a 2.5 f0 1 a 3.5 Cube { } }";
    auto p = Parse(text);
    ASSERT_TRUE(p->ok) << p->messages;
    const QvNode* w = p->contents.nodes[0];
    ASSERT_EQ(w->fields().size(), 42u);
    EXPECT_EQ(w->findField("a"), w->fields()[0].field);
    EXPECT_EQ(static_cast<const QvSFFloat*>(w->fields()[0].field)->value, 3.5f);
    EXPECT_TRUE(w->fields()[1].field->isDefault());
    EXPECT_EQ(static_cast<const QvSFLong*>(w->findField("f39"))->value, 7);
    EXPECT_EQ(w->findField("f40"), nullptr);
    EXPECT_EQ(w->children().size(), 1u);
}

TEST(Vrml1Grammar, DeepNestingIsRefusedNotOverflowed) {
    std::string deep = "#VRML V1.0 ascii\n";
    for (int i = 0; i < 100000; ++i) deep += "Separator {";
    auto p = Parse(deep);
    EXPECT_FALSE(p->ok);
    EXPECT_NE(p->messages.find("nested more than"), std::string::npos);
    // A long chain of shared nodes is released without recursion.
    std::string chain = "#VRML V1.0 ascii\nGroup {\nDEF N0 Group { }\n";
    for (int i = 1; i < 200000; ++i)
        chain += "DEF N" + std::to_string(i) + " Group { USE N" + std::to_string(i - 1) + " }\n";
    chain += "}\n";
    EXPECT_TRUE(Parse(chain)->ok);
}

TEST(Vrml1State, DebugListingShowsEveryStack) {
    QvState state;
    QvCoordinate3 coords;
    state.push(QvElement::Coordinate3, &coords);
    state.push();
    state.push(QvElement::Coordinate3, &coords);
    std::string out;
    state.print(out);
    const std::string dashes(62, '-');
    EXPECT_EQ(out.substr(0, out.find("\tStack [ 1]")),
              "Traversal state:\n" + dashes +
                  "\n\tStack [ 0] (Coordinate3):\n\t\tElement of type Coordinate3\n"
                  "\t\tElement of type Coordinate3\n");
    EXPECT_NE(out.find("\tStack [22] (Transformation):\n\t\tNULL\n"), std::string::npos);
    EXPECT_EQ(out.substr(out.size() - 63), dashes + "\n");
    state.pop(); // the Separator ends: its element goes, the outer one stays
    EXPECT_EQ(state.top(QvElement::Coordinate3)->depth, 0);
    EXPECT_EQ(state.top(QvElement::Coordinate3)->next, nullptr);
}

} // namespace
