#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "plugin/host/PointList.h"
#include "plugin/host/Triangulate.h"

namespace {
struct Poly {
    C3DPointList pts;
    std::vector<uint32_t> face;
    void Add(double x, double y, double z = 0) {
        face.push_back(static_cast<uint32_t>(pts.Add(float(x), float(y), float(z))));
    }
};

C3DVector Corner(const Poly& p, uint32_t c) { return p.pts.GetPoint(static_cast<int>(p.face[c])); }

// Sum of the triangles' unsigned areas, and of their areas along `n` (signed).
void Areas(const Poly& p, const std::vector<uint32_t>& t, C3DVector n, double& unsignedArea, double& signedArea) {
    unsignedArea = signedArea = 0;
    for (size_t i = 0; i + 2 < t.size(); i += 3) {
        C3DVector a = Corner(p, t[i]), b = Corner(p, t[i + 1]), c = Corner(p, t[i + 2]);
        C3DVector x = (b - a).Cross(c - a);
        unsignedArea += 0.5 * x.Length();
        signedArea += 0.5 * x.Dot(n);
    }
}

// The dart used across the geometry tests: concave at its fourth corner, area 0.2455.
Poly Dart() {
    Poly p;
    p.Add(0, 0);
    p.Add(0.5, 0);
    p.Add(0.5, 0.7);
    p.Add(0.25, 0.282);
    p.Add(0, 0.7);
    return p;
}
} // namespace

TEST(Triangulate, ConcaveFacesKeepTheirAreaWithoutOverlap) {
    Poly p = Dart();
    CPolygonTriangulator cut(1u << 20);
    std::vector<uint32_t> t;
    cut.Triangulate(p.pts, p.face, t);
    ASSERT_EQ(t.size(), 9u);
    double u, s;
    Areas(p, t, {0, 0, 1}, u, s);
    EXPECT_NEAR(u, 0.2455, 1e-6); // a fan from corner 0 overlaps: 0.2795
    EXPECT_NEAR(s, 0.2455, 1e-6); // and every triangle keeps the face's winding
    EXPECT_EQ(cut.FannedFaces(), 0u);
    EXPECT_EQ(cut.ForcedCuts(), 0u);

    // The same dart from every starting corner, reversed, and tilted out of the xy plane.
    for (int start = 0; start < 5; ++start) {
        for (int reversed = 0; reversed < 2; ++reversed) {
            Poly q;
            for (int k = 0; k < 5; ++k) {
                int i = reversed ? (start + 5 - k) % 5 : (start + k) % 5;
                C3DVector v = Corner(p, static_cast<uint32_t>(i));
                q.Add(v.x, v.y * 0.6, v.y * 0.8); // rotated about x: areas unchanged
            }
            t.clear();
            cut.Triangulate(q.pts, q.face, t);
            Areas(q, t, C3DVector(0, -0.8f, 0.6f) * (reversed ? -1.0f : 1.0f), u, s);
            EXPECT_NEAR(u, 0.2455, 1e-5) << start << " " << reversed;
            EXPECT_NEAR(s, 0.2455, 1e-5) << start << " " << reversed;
        }
    }
}

TEST(Triangulate, ConvexFacesComeOutAsTheFanAndSlightlyWarpedOnesAreCut) {
    Poly hex;
    for (int i = 0; i < 6; ++i) hex.Add(std::cos(i * 1.0471975), std::sin(i * 1.0471975));
    CPolygonTriangulator cut(1u << 20);
    std::vector<uint32_t> t;
    cut.Triangulate(hex.pts, hex.face, t);
    EXPECT_EQ(t, (std::vector<uint32_t>{0, 1, 2, 0, 2, 3, 0, 3, 4, 0, 4, 5}));

    // An L of six corners whose reflex corner is lifted out of the plane, listed from a corner
    // that cannot see the far end (a fan from it would add 4 of overlap): the cut happens on
    // the best-fit plane and no triangle crosses the notch.
    Poly l;
    l.Add(3, 1, 0);
    l.Add(1, 1, 0.05);
    l.Add(1, 3, 0);
    l.Add(0, 3, -0.01);
    l.Add(0, 0, 0);
    l.Add(3, 0, 0.01);
    t.clear();
    cut.Triangulate(l.pts, l.face, t);
    ASSERT_EQ(t.size(), 12u);
    double u, s;
    Areas(l, t, {0, 0, 1}, u, s);
    EXPECT_NEAR(s, 5.0, 1e-4);
    EXPECT_GT(u, 5.0);
    EXPECT_LT(u, 5.02); // only the tilt of the warped triangles adds
}

TEST(Triangulate, DegenerateFacesFinishWithoutLosingArea) {
    CPolygonTriangulator cut(1u << 20);
    std::vector<uint32_t> t;
    double u, s;
    // Collinear corners along the edges of a square (including a run of three).
    Poly sq;
    sq.Add(0, 0);
    sq.Add(0.5, 0);
    sq.Add(1, 0);
    sq.Add(1, 0.25);
    sq.Add(1, 0.5);
    sq.Add(1, 1);
    sq.Add(0, 1);
    cut.Triangulate(sq.pts, sq.face, t);
    ASSERT_EQ(t.size(), 3u * 5);
    Areas(sq, t, {0, 0, 1}, u, s);
    EXPECT_NEAR(u, 1.0, 1e-6);
    // All corners on one line, all on one spot, and repeated corners: n - 2 triangles, no area.
    Poly line;
    for (int i = 0; i < 7; ++i) line.Add(i, 2 * i, 0);
    Poly spot;
    for (int i = 0; i < 5; ++i) spot.Add(1, 1, 1);
    for (Poly* p : {&line, &spot}) {
        t.clear();
        cut.Triangulate(p->pts, p->face, t);
        EXPECT_EQ(t.size(), 3 * (p->face.size() - 2));
        Areas(*p, t, {0, 0, 1}, u, s);
        EXPECT_NEAR(u, 0, 1e-9);
    }
    // A square with a spike going out and back along one edge direction.
    Poly spike;
    spike.Add(0, 0);
    spike.Add(1, 0);
    spike.Add(1, 1);
    spike.Add(1, 2);
    spike.Add(1, 1);
    spike.Add(0, 1);
    t.clear();
    cut.Triangulate(spike.pts, spike.face, t);
    EXPECT_EQ(t.size(), 12u);
    Areas(spike, t, {0, 0, 1}, u, s);
    EXPECT_NEAR(s, 1.0, 1e-6);
    // A bow tie crosses itself: it still finishes with n - 2 triangles.
    Poly bow;
    bow.Add(0, 0);
    bow.Add(1, 1);
    bow.Add(1, 0);
    bow.Add(0, 1);
    bow.Add(0.5, 2);
    t.clear();
    cut.Triangulate(bow.pts, bow.face, t);
    EXPECT_EQ(t.size(), 9u);
    // Corners that are not numbers: a fan, counted.
    Poly nan;
    nan.Add(0, 0);
    nan.Add(1, 0);
    nan.Add(std::nan(""), 1);
    nan.Add(0, 1);
    t.clear();
    cut.Triangulate(nan.pts, nan.face, t);
    EXPECT_EQ(t.size(), 6u);
    EXPECT_EQ(cut.FannedFaces(), 1u);
    // Two corners or fewer: nothing.
    t.clear();
    cut.Triangulate(nan.pts, std::span<const uint32_t>(nan.face.data(), 2), t);
    EXPECT_TRUE(t.empty());
}

TEST(Triangulate, HugeCombsStayWithinTheirWorkBound) {
    // A comb of 40,000 teeth: half its corners are reflex, so plain ear clipping would test
    // billions of corners. A small budget must end it quickly with a complete cut.
    Poly comb;
    const int teeth = 40000;
    for (int i = 0; i < teeth; ++i) {
        comb.Add(2 * i, 0);
        comb.Add(2 * i + 1, 10);
    }
    comb.Add(2 * teeth, 0);
    comb.Add(2 * teeth, -1);
    comb.Add(0, -1);
    CPolygonTriangulator cut(5'000'000);
    std::vector<uint32_t> t;
    cut.Triangulate(comb.pts, comb.face, t);
    EXPECT_EQ(t.size(), 3 * (comb.face.size() - 2));
    EXPECT_EQ(cut.FannedFaces(), 1u); // the cap was reached: the rest is a fan, not minutes of work
    // With room to work, a smaller comb is cut exactly.
    Poly small;
    for (int i = 0; i < 200; ++i) {
        small.Add(2 * i, 0);
        small.Add(2 * i + 1, 10);
    }
    small.Add(400, 0);
    small.Add(400, -1);
    small.Add(0, -1);
    CPolygonTriangulator roomy(1u << 26);
    t.clear();
    roomy.Triangulate(small.pts, small.face, t);
    double u, s;
    Areas(small, t, {0, 0, 1}, u, s);
    EXPECT_NEAR(u, 400 * 1 + 200 * 10, 1e-3); // base strip plus 200 teeth of area 10 each
    EXPECT_EQ(roomy.FannedFaces(), 0u);
}
