#include "plugin/host/Primitives.h"

#include <algorithm>
#include <cmath>

#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"

namespace {
constexpr double kPi = 3.14159265358979323846;

// Builds in a Y-up frame, then maps Y to the requested axis.
struct Builder {
    C3DObject* obj = new C3DObject();
    C3DPointList& pts = *obj->GetPointList();
    C3DFaceList& faces = *obj->GetFaceList();
    CUVWChannel* uv = nullptr;
    uint32_t material;
    int axis;
    C3DPoint origin;

    Builder(const C3DPoint& o, int axisMode, bool uvw, uint32_t mat, int32_t channelID)
        : material(mat), axis(axisMode), origin(o) {
        faces.SetCurrentMaterial(mat);
        if (uvw) {
            uv = new CUVWChannel();
            int32_t id = obj->AddChannel(uv, channelID);
            obj->SetGlobalUVWChannel(id);
        }
    }
    uint32_t Point(double x, double y, double z) {
        C3DPoint p;
        switch (axis) {
        case 1: p = {float(x), float(-z), float(y)}; break; // Y up -> Z up
        case 2: p = {float(y), float(x), float(z)}; break;  // Y up -> X up
        default: p = {float(x), float(y), float(z)}; break;
        }
        return static_cast<uint32_t>(pts.Add(p + origin));
    }
    uint32_t UV(double u, double v) {
        return uv ? static_cast<uint32_t>(uv->GetUVWPointList()->Add(float(u), float(v), 0)) : 0;
    }
    void Face(std::initializer_list<uint32_t> idx, std::initializer_list<uint32_t> uvIdx) {
        faces.AddFace(idx.begin(), static_cast<int>(idx.size()));
        if (uv) uv->GetUVWFaceList()->AddFace(uvIdx.begin(), static_cast<int>(uvIdx.size()));
    }
    C3DSceneNode* Finish() {
        obj->SetSmoothAngle(30.0f);
        return new C3DSceneNode(obj);
    }
};

// A surface of revolution around Y: rings of `sides` points at the given (radius, y) profile.
void Revolve(Builder& b, const std::vector<std::pair<double, double>>& profile, int sides) {
    const size_t rows = profile.size();
    std::vector<uint32_t> base(rows), uvBase(rows);
    for (size_t r = 0; r < rows; ++r) {
        base[r] = static_cast<uint32_t>(b.pts.GetSize());
        uvBase[r] = b.uv ? static_cast<uint32_t>(b.uv->GetUVWPointList()->GetSize()) : 0;
        for (int s = 0; s < sides; ++s) {
            double a = 2 * kPi * s / sides;
            b.Point(profile[r].first * std::sin(a), profile[r].second, profile[r].first * std::cos(a));
        }
        for (int s = 0; s <= sides; ++s) b.UV(double(s) / sides, rows > 1 ? double(r) / double(rows - 1) : 0);
    }
    for (size_t r = 0; r + 1 < rows; ++r)
        for (int s = 0; s < sides; ++s) {
            uint32_t s1 = static_cast<uint32_t>((s + 1) % sides);
            uint32_t a = base[r] + uint32_t(s), c = base[r] + s1, d = base[r + 1] + s1, e = base[r + 1] + uint32_t(s);
            uint32_t ua = uvBase[r] + uint32_t(s), uc = ua + 1, ud = uvBase[r + 1] + uint32_t(s) + 1, ue = ud - 1;
            // Rings of radius 0 (poles, apex) collapse a quad to a triangle.
            if (profile[r].first == 0) b.Face({a, d, e}, {ua, ud, ue});
            else if (profile[r + 1].first == 0) b.Face({a, c, e}, {ua, uc, ue});
            else b.Face({a, c, d, e}, {ua, uc, ud, ue});
        }
}

// A flat cap at height y facing up (or down).
void Cap(Builder& b, double radius, double y, int sides, bool up) {
    uint32_t center = b.Point(0, y, 0);
    uint32_t uc = b.UV(0.5, 0.5);
    uint32_t first = static_cast<uint32_t>(b.pts.GetSize());
    uint32_t uvFirst = b.uv ? static_cast<uint32_t>(b.uv->GetUVWPointList()->GetSize()) : 0;
    for (int s = 0; s < sides; ++s) {
        double a = 2 * kPi * s / sides;
        b.Point(radius * std::sin(a), y, radius * std::cos(a));
        b.UV(0.5 + 0.5 * std::sin(a), 0.5 + 0.5 * std::cos(a));
    }
    for (int s = 0; s < sides; ++s) {
        uint32_t i = first + uint32_t(s), j = first + uint32_t((s + 1) % sides);
        uint32_t ui = uvFirst + uint32_t(s), uj = uvFirst + uint32_t((s + 1) % sides);
        if (up) b.Face({center, i, j}, {uc, ui, uj});
        else b.Face({center, j, i}, {uc, uj, ui});
    }
}
} // namespace

C3DSceneNode* CreateCube(const C3DPoint& origin, double sx, double sy, double sz, bool uvw, uint32_t materialID,
                         int32_t channelID) {
    Builder b(origin, 0, uvw, materialID, channelID);
    double x = sx / 2, y = sy / 2, z = sz / 2;
    // Six faces, four points each (hard edges), counter-clockwise seen from outside.
    const double P[6][4][3] = {
        {{-x, -y, z}, {x, -y, z}, {x, y, z}, {-x, y, z}},     // +Z
        {{x, -y, -z}, {-x, -y, -z}, {-x, y, -z}, {x, y, -z}}, // -Z
        {{x, -y, z}, {x, -y, -z}, {x, y, -z}, {x, y, z}},     // +X
        {{-x, -y, -z}, {-x, -y, z}, {-x, y, z}, {-x, y, -z}}, // -X
        {{-x, y, z}, {x, y, z}, {x, y, -z}, {-x, y, -z}},     // +Y
        {{-x, -y, -z}, {x, -y, -z}, {x, -y, z}, {-x, -y, z}}, // -Y
    };
    for (auto& f : P) {
        uint32_t i0 = b.Point(f[0][0], f[0][1], f[0][2]), i1 = b.Point(f[1][0], f[1][1], f[1][2]);
        uint32_t i2 = b.Point(f[2][0], f[2][1], f[2][2]), i3 = b.Point(f[3][0], f[3][1], f[3][2]);
        uint32_t u0 = b.UV(0, 0), u1 = b.UV(1, 0), u2 = b.UV(1, 1), u3 = b.UV(0, 1);
        b.Face({i0, i1, i2, i3}, {u0, u1, u2, u3});
    }
    C3DSceneNode* n = b.Finish();
    n->GetGeomObject()->SetSmoothAngle(0); // hard edges
    return n;
}

C3DSceneNode* CreateSphere(const C3DPoint& origin, double radius, int segments, int rings, bool uvw,
                           uint32_t materialID, int32_t channelID) {
    segments = std::clamp(segments, 3, 4096);
    rings = std::clamp(rings, 2, 4096);
    Builder b(origin, 0, uvw, materialID, channelID);
    std::vector<std::pair<double, double>> profile;
    for (int r = 0; r <= rings; ++r) {
        double phi = kPi * r / rings; // from the top pole down
        double rad = r == 0 || r == rings ? 0.0 : radius * std::sin(phi);
        profile.emplace_back(rad, radius * std::cos(phi));
    }
    std::reverse(profile.begin(), profile.end()); // bottom to top keeps faces outward
    Revolve(b, profile, segments);
    return b.Finish();
}

C3DSceneNode* CreateCone(const C3DPoint& origin, double bottomRadius, double height, int axisMode, int sides,
                         int heightSegments, bool uvw, uint32_t materialID, int32_t channelID) {
    sides = std::clamp(sides, 3, 4096);
    heightSegments = std::clamp(heightSegments, 1, 4096);
    Builder b(origin, axisMode, uvw, materialID, channelID);
    std::vector<std::pair<double, double>> profile;
    for (int h = 0; h <= heightSegments; ++h) {
        double t = double(h) / heightSegments;
        profile.emplace_back(h == heightSegments ? 0.0 : bottomRadius * (1 - t), -height / 2 + height * t);
    }
    Revolve(b, profile, sides);
    Cap(b, bottomRadius, -height / 2, sides, false);
    return b.Finish();
}

C3DSceneNode* CreateCylinder(const C3DPoint& origin, double radius, double height, int axisMode, int sides,
                             int heightSegments, bool caps, bool uvw, uint32_t materialID, int32_t channelID) {
    sides = std::clamp(sides, 3, 4096);
    heightSegments = std::clamp(heightSegments, 1, 4096);
    Builder b(origin, axisMode, uvw, materialID, channelID);
    std::vector<std::pair<double, double>> profile;
    for (int h = 0; h <= heightSegments; ++h) profile.emplace_back(radius, -height / 2 + height * h / heightSegments);
    Revolve(b, profile, sides);
    if (caps) {
        Cap(b, radius, -height / 2, sides, false);
        Cap(b, radius, height / 2, sides, true);
    }
    return b.Finish();
}
