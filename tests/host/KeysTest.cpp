#include <gtest/gtest.h>

#include <cmath>

#include "plugin/host/Keys.h"
#include "plugin/host/SceneNode.h"

namespace {
void AddVec(C3DKeyframable& k, uint64_t type, int32_t t, C3DVector v) {
    auto key = C3DKeyframable::CreateKey(type, t);
    static_cast<C3DVectorKey&>(*key).value = v;
    k.AddKey(std::move(key));
}
void AddRot(C3DKeyframable& k, int32_t t, C3DVector axis, float angle) {
    auto key = std::make_unique<C3DRotateKey>(t);
    key->SetRotation(angle, axis);
    k.AddKey(std::move(key));
}
} // namespace

TEST(Keys, TagValuesNameTheTracks) {
    // The readers pass these exact 64-bit tags.
    EXPECT_EQ(KEY_MATRIX, 0x4D41545200000000ull);
    EXPECT_EQ(KEY_TRANSLATE, 0x5452414E5452414Eull);
    EXPECT_EQ(KEY_ROTATE, 0x524F544100000000ull);
    EXPECT_EQ(KEY_SCALE, 0x5343414C00000000ull);
    EXPECT_EQ(KEY_PIVOT, 0x564543545049564Full);
    EXPECT_EQ(CURVE_TCB, 0x54434220u);
    // A pivot is a plain vector key; a translation gets its own class.
    EXPECT_EQ(dynamic_cast<C3DTranslateKey*>(C3DKeyframable::CreateKey(KEY_PIVOT, 0).get()), nullptr);
    EXPECT_NE(dynamic_cast<C3DTranslateKey*>(C3DKeyframable::CreateKey(KEY_TRANSLATE, 0).get()), nullptr);
}

TEST(Keys, TracksStaySortedAndReplaceSameTime) {
    C3DKeyframable k;
    AddVec(k, KEY_TRANSLATE, 20, {2, 0, 0});
    AddVec(k, KEY_TRANSLATE, 0, {0, 0, 0});
    AddVec(k, KEY_TRANSLATE, 10, {1, 0, 0});
    AddVec(k, KEY_TRANSLATE, 10, {5, 0, 0}); // replaces
    EXPECT_EQ(k.GetKeyNbr(KEY_TRANSLATE), 3);
    EXPECT_EQ(k.GetKeyByIndex(KEY_TRANSLATE, 1)->GetTime(), 10);
    EXPECT_FLOAT_EQ(static_cast<C3DVectorKey*>(k.GetKeyByIndex(KEY_TRANSLATE, 1))->value.x, 5);
    EXPECT_EQ(dynamic_cast<C3DTranslateKey*>(k.GetKeyByIndex(KEY_TRANSLATE, 0)) != nullptr, true);
    k.DeleteKey(KEY_TRANSLATE, 0);
    EXPECT_EQ(k.GetKeyNbr(), 2);
    EXPECT_EQ(k.GetKeyByIndex(KEY_SCALE, 0), nullptr);
}

TEST(Keys, TcbInterpolationHitsKeysAndClampsAtTheEnds) {
    C3DKeyCurve c(KEY_TRANSLATE, CURVE_TCB);
    const float ys[] = {0, 4, 1, 3};
    for (int i = 0; i < 4; ++i) {
        auto k = std::make_unique<C3DTranslateKey>(i * 10);
        k->value = {float(i), ys[i], 0};
        c.AddKey(std::move(k));
    }
    C3DVector v;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(c.EvaluateVector(i * 10, v));
        EXPECT_NEAR(v.y, ys[i], 1e-5f);
    }
    c.EvaluateVector(-100, v);
    EXPECT_NEAR(v.y, 0, 1e-6f);
    c.EvaluateVector(1000, v);
    EXPECT_NEAR(v.y, 3, 1e-6f);
    // Leaving a peak a TCB curve stays above the straight line (3.7 at t = 11).
    c.EvaluateVector(11, v);
    EXPECT_GT(v.y, 3.85f);
    // The x track is linear data: with default TCB it stays on the line.
    c.EvaluateVector(15, v);
    EXPECT_NEAR(v.x, 1.5f, 1e-4f);
    C3DKeyCurve lin(KEY_TRANSLATE, CURVE_LINEAR);
    lin.AddKey(std::make_unique<C3DTranslateKey>(0));
    auto k = std::make_unique<C3DTranslateKey>(10);
    k->value = {10, 0, 0};
    lin.AddKey(std::move(k));
    lin.EvaluateVector(2.5, v);
    EXPECT_FLOAT_EQ(v.x, 2.5f);
    C3DKeyCurve empty(KEY_TRANSLATE, CURVE_TCB);
    EXPECT_FALSE(empty.EvaluateVector(0, v));
}

TEST(Keys, NodeTransformFromTracksRotationAndPivot) {
    C3DSceneNode n;
    C4x4Matrix m;
    n.SetNodeLocalTM(C4x4Matrix::Translation(7, 0, 0));
    n.GetNodeLocalTM(0, m);
    EXPECT_FLOAT_EQ(m.m[3][0], 7); // no tracks: the static matrix
    AddVec(n, KEY_TRANSLATE, 0, {0, 0, 10});
    AddRot(n, 0, {0, 0, 1}, 0);
    AddRot(n, 100, {0, 0, 1}, 3.14159265f / 2);
    AddVec(n, KEY_SCALE, 0, {2, 2, 2});
    AddVec(n, KEY_PIVOT, 0, {-1, 0, 0}); // the offset: minus the pivot point (1, 0, 0)
    n.GetNodeLocalTM(100, m);
    // The pivot point maps to the translation; a point one unit beyond it is scaled and turned
    // 90 degrees clockwise about +z (the host's sense of a positive key angle): +x goes to -y.
    C3DPoint p = m.TransformPoint({1, 0, 0});
    EXPECT_NEAR(p.x, 0, 1e-5f);
    EXPECT_NEAR(p.z, 10, 1e-5f);
    C3DPoint q = m.TransformPoint({2, 0, 0});
    EXPECT_NEAR(q.x, 0, 1e-5f);
    EXPECT_NEAR(q.y, -2, 1e-5f);
    // Halfway the rotation is 45 degrees (slerp).
    n.GetNodeLocalTM(50, m);
    C3DPoint h = m.TransformPoint({2, 0, 0});
    EXPECT_NEAR(h.x, std::sqrt(2.0f), 1e-4f);
    EXPECT_NEAR(h.y, -std::sqrt(2.0f), 1e-4f);
}

TEST(Math, DecomposeComposeAndInverseRoundTrip) {
    CQuaternion q = CQuaternion::FromAxisAngle({1, 2, 3}, 0.7f);
    C4x4Matrix m = C4x4Matrix::Compose({1, -2, 3}, q, {2, 3, 4});
    C3DPoint t, s;
    CQuaternion r;
    m.Decompose(t, r, s);
    EXPECT_NEAR(t.y, -2, 1e-5f);
    EXPECT_NEAR(s.x, 2, 1e-5f);
    EXPECT_NEAR(s.z, 4, 1e-5f);
    EXPECT_NEAR(std::fabs(r.Dot(q)), 1, 1e-5f);
    C3DVector axis;
    float angle;
    r.GetAxisAngle(axis, angle);
    EXPECT_NEAR(angle, 0.7f, 1e-4f);
    EXPECT_NEAR(axis.y, 2 / std::sqrt(14.0f), 1e-4f);
    // A mirror keeps its sign in the x scale.
    C4x4Matrix mirror = C4x4Matrix::Scaling(-1, 1, 1);
    mirror.Decompose(t, r, s);
    EXPECT_FLOAT_EQ(s.x, -1);
    C4x4Matrix inv;
    ASSERT_TRUE(m.Invert(inv));
    C4x4Matrix id = m * inv;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) EXPECT_NEAR(id.m[i][j], i == j ? 1 : 0, 1e-5f);
    C4x4Matrix singular = C4x4Matrix::Scaling(1, 0, 1);
    EXPECT_FALSE(singular.Invert(inv));
    EXPECT_TRUE(inv.IsIdentity());
}

TEST(Math, ZeroAxisGivesIdentityRotation) {
    CQuaternion q = CQuaternion::FromAxisAngle({0, 0, 0}, 1.0f);
    EXPECT_TRUE(C4x4Matrix::Rotation(q).IsIdentity());
}
