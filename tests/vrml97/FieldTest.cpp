// Field values: names, print forms, sharing and copying, MFNode's set rule, HSV.
#include <gtest/gtest.h>

#include <sstream>

#include "VrmlTestUtil.h"
#include "vrml/vrml97/VrmlField.h"
#include "vrml/vrml97/VrmlNodes.h"

TEST(VrmlField, TypeNamesFollowTheEnumerationNotTheAlphabet) {
    EXPECT_EQ(VrmlField::typeFromName("SFInt32"), 4);
    EXPECT_EQ(VrmlField::typeFromName("SFImage"), 9);
    EXPECT_EQ(VrmlField::typeFromName("MFNode"), 19);
    EXPECT_EQ(VrmlField::typeFromName("SFint32"), 0);
    EXPECT_EQ(VrmlField::typeFromName(""), 0);
    EXPECT_STREQ(VrmlField::typeName(0), "<invalid field type>");
    EXPECT_STREQ(VrmlField::typeName(20), "<invalid field type>");
    for (int t = 1; t <= 19; ++t) EXPECT_EQ(VrmlField::typeFromName(VrmlField::typeName(t)), t);
    EXPECT_STREQ(VrmlSFInt(3).typeName(), "SFInt32");
    EXPECT_STREQ(VrmlMFVec2f().typeName(), "MFVec2f");
}

TEST(VrmlField, DownCastsAnswerOnlyForTheirOwnClass) {
    VrmlSFNode sf;
    VrmlMFInt mi;
    VrmlField& a = sf;
    VrmlField& b = mi;
    EXPECT_EQ(a.asSFNode(), &sf);
    EXPECT_EQ(a.asMFNode(), nullptr);
    EXPECT_EQ(b.asMFInt(), &mi);
    EXPECT_EQ(b.asMFFloat(), nullptr);
}

// Print forms, as worlds are written: single values bare, lists in brackets with a space
// before the closing one (a one-element numeric list bare, a one-element string list with
// its trailing space), images with no space before the first pixel, and embedded quotes
// not escaped, as the format has always been written.
TEST(VrmlField, PrintForms) {
    const float vec[] = {1, 0, 0, 0, 1, 0};
    const float rot[] = {0, 1, 0, 3.14159f, 1, 0, 0, 0};
    const int32_t ints[] = {0, 1, -1};
    const char* strs[] = {"a", "b"};
    const unsigned char red[] = {255, 0, 0};
    const unsigned char two[] = {0x12, 0x34, 0xAB, 0xCD};
    const std::pair<std::string, std::string> cases[] = {
        {PrintField(VrmlSFBool(true)), "TRUE"},
        {PrintField(VrmlSFBool(false)), "FALSE"},
        {PrintField(VrmlSFRotation(1, 0, 0, 1.57f)), "1 0 0 1.57"},
        {PrintField(VrmlSFFloat(0.1f)), "0.1"},
        {PrintField(VrmlSFFloat(1234567.0f)), "1.23457e+06"},
        {PrintField(VrmlSFTime(2.5)), "2.5"},
        {PrintField(VrmlSFInt(-7)), "-7"},
        {PrintField(VrmlSFString("say \"hi\"")), "\"say \"hi\"\""},
        {PrintField(VrmlSFString(nullptr)), "\"\""},
        {PrintField(VrmlMFVec3f(1, vec)), "1 0 0"},
        {PrintField(VrmlMFVec3f()), "[]"},
        {PrintField(VrmlMFVec3f(2, vec)), "[1 0 0, 0 1 0 ]"},
        {PrintField(VrmlMFVec2f(3, vec)), "[1 0, 0 0, 1 0 ]"},
        {PrintField(VrmlMFColor(0, nullptr)), "[]"},
        {PrintField(VrmlMFInt(3, ints)), "[0, 1, -1 ]"},
        {PrintField(VrmlMFInt(1, ints)), "0"},
        {PrintField(VrmlMFRotation(2, rot)), "[0 1 0 3.14159, 1 0 0 0 ]"},
        {PrintField(VrmlMFString(2, strs)), "[\"a\" \"b\" ]"},
        {PrintField(VrmlMFString(1, strs)), "\"a\" "},
        {PrintField(VrmlMFString()), "[]"},
        {PrintField(VrmlSFImage(1, 1, 3, red)), "1 1 316711680 "},
        {PrintField(VrmlSFImage(2, 1, 2, two)), "2 1 24660 43981 "},
        {PrintField(VrmlSFImage()), "0 0 0"},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
}

TEST(VrmlField, NumericListsShareOneBlock) {
    std::vector<float> big(1000000);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<float>(i);
    auto* src = new VrmlMFFloat(big.size(), big.data());
    VrmlMFFloat copy(*src);
    EXPECT_TRUE(copy.sharesWith(*src));
    EXPECT_EQ(copy.get(), src->get()); // the same scalars, not a copy
    delete src;
    ASSERT_EQ(copy.size(), 1000000u);
    EXPECT_EQ(copy[999999][0], 999999.0f);

    VrmlMFFloat other(3, big.data());
    other = copy;
    EXPECT_TRUE(other.sharesWith(copy));
    other = other; // self-assignment keeps the block alive
    EXPECT_EQ(other.size(), 1000000u);
    // Writing detaches from the shared block.
    other.writable()[0] = -1;
    EXPECT_FALSE(other.sharesWith(copy));
    EXPECT_EQ(copy[0][0], 0.0f);
}

TEST(VrmlField, StringsAndImagesCopyDeeply) {
    VrmlSFString a("hello");
    VrmlSFString b(a);
    EXPECT_NE(a.get(), b.get());
    EXPECT_STREQ(b.get(), "hello");
    a.set(nullptr);
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_STREQ(b.get(), "hello");

    const char* s[] = {"x", nullptr};
    VrmlMFString m(2, s);
    VrmlMFString n(m);
    EXPECT_NE(m[0], n[0]);
    EXPECT_EQ(n[1], nullptr);
    n = n;
    EXPECT_STREQ(n[0], "x");

    const unsigned char px[] = {1, 2, 3, 4};
    VrmlSFImage img(2, 2, 1, px);
    VrmlSFImage img2;
    img2 = img;
    EXPECT_NE(img.pixels(), img2.pixels());
    EXPECT_EQ(img2.pixels()[3], 4);
}

TEST(VrmlField, MFNodeIgnoresDuplicatesAndGrowsByTen) {
    VrmlMFNode list;
    std::vector<VrmlNodeGroup*> nodes;
    for (int i = 0; i < 11; ++i) nodes.push_back(static_cast<VrmlNodeGroup*>((new VrmlNodeGroup)->addRef()));
    for (int i = 0; i < 10; ++i) list.add(nodes[i]);
    EXPECT_EQ(list.capacity(), 10);
    list.add(nodes[3]);
    EXPECT_EQ(list.size(), 10u);
    list.add(nodes[10]);
    EXPECT_EQ(list.size(), 11u);
    EXPECT_EQ(list.capacity(), 20);
    EXPECT_EQ(nodes[3]->refCount(), 2);
    list.remove(nodes[3]);
    EXPECT_FALSE(list.contains(nodes[3]));
    EXPECT_EQ(nodes[3]->refCount(), 1);

    VrmlMFNode copy(list);
    EXPECT_EQ(nodes[0]->refCount(), 3);
    copy = copy;
    EXPECT_EQ(nodes[0]->refCount(), 3);
    copy = VrmlMFNode();
    EXPECT_EQ(nodes[0]->refCount(), 2);
    for (auto* n : nodes) n->release();
}

TEST(VrmlField, MFNodeMembershipStaysFastForLongLists) {
    VrmlMFNode list;
    std::vector<VrmlNode*> nodes;
    for (int i = 0; i < 200000; ++i) {
        nodes.push_back(new VrmlNodeGroup);
        list.add(nodes.back());
    }
    for (int i = 0; i < 200000; i += 1000) list.add(nodes[static_cast<size_t>(i)]);
    EXPECT_EQ(list.size(), 200000u);
    EXPECT_TRUE(list.contains(nodes[123456]));
}

TEST(VrmlField, SFNodeHoldsAReference) {
    VrmlNode* n = (new VrmlNodeGroup)->addRef();
    {
        VrmlSFNode a(n);
        VrmlSFNode b(a);
        EXPECT_EQ(n->refCount(), 3);
        b.set(nullptr);
        EXPECT_EQ(n->refCount(), 2);
    }
    EXPECT_EQ(n->refCount(), 1);
    n->release();
}

TEST(VrmlField, HsvConversion) {
    float hsv[3];
    VrmlSFColor(1, 0, 0).getHSV(hsv);
    EXPECT_FLOAT_EQ(hsv[0], 0);
    EXPECT_FLOAT_EQ(hsv[1], 1);
    EXPECT_FLOAT_EQ(hsv[2], 1);
    VrmlSFColor(0, 0, 1).getHSV(hsv);
    EXPECT_FLOAT_EQ(hsv[0], 240);
    VrmlSFColor(0.5f, 0.5f, 0.5f).getHSV(hsv);
    EXPECT_FLOAT_EQ(hsv[0], 0);
    EXPECT_FLOAT_EQ(hsv[1], 0);
    EXPECT_FLOAT_EQ(hsv[2], 0.5f);
    VrmlSFColor(1, 0, 1).getHSV(hsv); // magenta: negative hue wraps
    EXPECT_FLOAT_EQ(hsv[0], 300);

    VrmlSFColor c;
    c.setHSV(120, 1, 1);
    EXPECT_FLOAT_EQ(c.r(), 0);
    EXPECT_FLOAT_EQ(c.g(), 1);
    EXPECT_FLOAT_EQ(c.b(), 0);
    c.setHSV(360, 1, 1); // 360 wraps to sector 0
    EXPECT_FLOAT_EQ(c.r(), 1);
    EXPECT_FLOAT_EQ(c.b(), 0);
    c.setHSV(200, 0, 0.25f);
    EXPECT_FLOAT_EQ(c.g(), 0.25f);
}

TEST(VrmlField, VectorArithmetic) {
    VrmlSFVec3f a(1, 0, 0);
    a.cross(VrmlSFVec3f(0, 1, 0));
    EXPECT_EQ(PrintField(a), "0 0 1");
    VrmlSFVec3f b(3, 4, 0);
    EXPECT_FLOAT_EQ(b.length(), 5);
    b.normalize();
    EXPECT_FLOAT_EQ(b.x(), 0.6f);
    b.divide(2);
    EXPECT_FLOAT_EQ(b.y(), 0.4f);
    VrmlSFVec2f v(1, 2);
    v.subtract(VrmlSFVec2f(2, 2));
    v.negate();
    EXPECT_FLOAT_EQ(v.dot(VrmlSFVec2f(1, 1)), 1);
    VrmlSFRotation r(0, 1, 0, 2);
    r.invert();
    EXPECT_EQ(PrintField(r), "0 1 0 -2");
}
