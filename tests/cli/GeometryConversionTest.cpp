// Conversions through the CLI that must keep geometry: 3DS meshes where their files store
// them, polygon area in triangle-only formats, and STL colours.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using testsupport::ReadFile;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {
using Vec = std::array<double, 3>;
using Triangle = std::array<Vec, 3>;

int Convert(const fs::path& in, const fs::path& out) {
    std::string cmd = "'" + (testsupport::BinaryDir() / "bin" / "orbiscope").string() + "' -q convert '" + in.string() +
                      "' '" + out.string() + "' >/dev/null 2>&1";
    int rc = std::system(cmd.c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

double TriangleArea(const Triangle& t) {
    Vec u{t[1][0] - t[0][0], t[1][1] - t[0][1], t[1][2] - t[0][2]};
    Vec v{t[2][0] - t[0][0], t[2][1] - t[0][1], t[2][2] - t[0][2]};
    Vec c{u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    return 0.5 * std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
}

struct Mesh {
    std::vector<Vec> points;
    std::vector<std::vector<size_t>> faces;
    double PolygonArea() const { // Newell: exact for planar faces of any shape
        double a = 0;
        for (auto& f : faces) {
            Vec n{0, 0, 0};
            for (size_t i = 0; i < f.size(); ++i) {
                const Vec& p = points[f[i]];
                const Vec& q = points[f[(i + 1) % f.size()]];
                n[0] += (p[1] - q[1]) * (p[2] + q[2]);
                n[1] += (p[2] - q[2]) * (p[0] + q[0]);
                n[2] += (p[0] - q[0]) * (p[1] + q[1]);
            }
            a += 0.5 * std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        }
        return a;
    }
    std::vector<Triangle> Triangles() const {
        std::vector<Triangle> t;
        for (auto& f : faces)
            if (f.size() == 3) t.push_back({points[f[0]], points[f[1]], points[f[2]]});
        return t;
    }
};

Mesh ReadObj(const fs::path& p) {
    Mesh m;
    std::string text = ReadFile(p), line;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        line = text.substr(at, end - at);
        at = end + 1;
        if (line.rfind("v ", 0) == 0) {
            Vec v{};
            std::sscanf(line.c_str() + 2, "%lf %lf %lf", &v[0], &v[1], &v[2]);
            m.points.push_back(v);
        } else if (line.rfind("f ", 0) == 0) {
            std::vector<size_t> f;
            const char* s = line.c_str() + 2;
            while (*s) {
                while (*s == ' ' || *s == '\t' || *s == '\r') ++s;
                if (!*s) break;
                long i = std::strtol(s, const_cast<char**>(&s), 10);
                f.push_back(i > 0 ? size_t(i - 1) : m.points.size() + size_t(i));
                while (*s && *s != ' ' && *s != '\t') ++s;
            }
            m.faces.push_back(f);
        }
    }
    return m;
}

uint16_t U16(const std::string& b, size_t at) { return uint16_t(uint8_t(b[at]) | uint8_t(b[at + 1]) << 8); }
uint32_t U32(const std::string& b, size_t at) { return U16(b, at) | uint32_t(U16(b, at + 2)) << 16; }
float F32(const std::string& b, size_t at) {
    uint32_t u = U32(b, at);
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

// The stored (world space) points and triangles of every triangle object of a 3DS file.
void Walk3ds(const std::string& b, size_t from, size_t to, std::vector<Vec>& points, std::vector<Triangle>& tris) {
    std::vector<Vec> local;
    while (from + 6 <= to) {
        const uint16_t id = U16(b, from);
        const uint32_t len = U32(b, from + 2);
        if (len < 6 || from + len > to) break;
        const size_t data = from + 6, end = from + len;
        if (id == 0x4D4D || id == 0x3D3D || id == 0x4100) {
            Walk3ds(b, data, end, points, tris);
        } else if (id == 0x4000) {
            size_t name = b.find('\0', data);
            if (name != std::string::npos && name < end) Walk3ds(b, name + 1, end, points, tris);
        } else if (id == 0x4110) {
            local.clear();
            for (size_t i = 0, n = U16(b, data); i < n; ++i) {
                Vec v{F32(b, data + 2 + 12 * i), F32(b, data + 6 + 12 * i), F32(b, data + 10 + 12 * i)};
                local.push_back(v);
                points.push_back(v);
            }
        } else if (id == 0x4120) {
            for (size_t i = 0, n = U16(b, data); i < n; ++i) {
                size_t a = U16(b, data + 2 + 8 * i), c = U16(b, data + 4 + 8 * i), d = U16(b, data + 6 + 8 * i);
                if (a < local.size() && c < local.size() && d < local.size())
                    tris.push_back({local[a], local[c], local[d]});
            }
        }
        from = end;
    }
}

struct Box {
    Vec lo{1e300, 1e300, 1e300}, hi{-1e300, -1e300, -1e300};
    void Add(const Vec& v) {
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], v[k]);
            hi[k] = std::max(hi[k], v[k]);
        }
    }
    double Distance(const Box& o) const {
        double d = 0;
        for (int k = 0; k < 3; ++k) d = std::max({d, std::fabs(lo[k] - o.lo[k]), std::fabs(hi[k] - o.hi[k])});
        return d;
    }
};

// The concave dart, area 0.2455, standing in the plane y = 2 - z / 2 (tilted, planar).
const char* kDartObj = "v 0 2 0\nv 0.5 2 0\nv 0.5 1.65 0.7\nv 0.25 1.859 0.282\nv 0 1.65 0.7\nf 1 2 3 4 5\n";
const double kDartArea = 0.2455 * std::sqrt(1.25);
} // namespace

TEST(GeometryConversion, CorpusStudioMeshesLandOnTheirStoredPoints) {
    SKIP_WITHOUT_CORPUS();
    // Two files are left out because their keyframer disagrees with their points at frame 0
    // (so a peer reader places them elsewhere too): RotatingCube.3DS stores its mesh as seen at
    // a later frame, and in CameraRollAnimWithChildObject.3ds a box hangs below a camera node.
    const std::set<std::string> disagree{"RotatingCube.3DS", "CameraRollAnimWithChildObject.3ds"};
    TempDir tmp;
    int checked = 0;
    for (const fs::path& p : testsupport::CorpusFiles("3ds")) {
        if (disagree.count(p.filename().string())) continue;
        std::vector<Vec> stored;
        std::vector<Triangle> unused;
        std::string bytes = ReadFile(p);
        Walk3ds(bytes, 0, bytes.size(), stored, unused);
        ASSERT_FALSE(stored.empty()) << p;
        fs::path out = tmp / (p.stem().string() + ".obj");
        ASSERT_EQ(Convert(p, out), 0) << p;
        Mesh m = ReadObj(out);
        ASSERT_EQ(m.points.size(), stored.size()) << p;
        Box want, got;
        for (auto& v : stored) want.Add(v);
        for (auto& v : m.points) got.Add(v);
        EXPECT_LT(got.Distance(want), 1e-3) << p.filename();
        ++checked;
    }
    if (checked == 0) GTEST_SKIP() << "no 3DS files in the corpus";
}

TEST(GeometryConversion, ConcavePolygonsKeepTheirAreaInStlAnd3ds) {
    TempDir tmp;
    WriteFile(tmp / "dart.obj", kDartObj);
    ASSERT_NEAR(ReadObj(tmp / "dart.obj").PolygonArea(), kDartArea, 1e-4);

    ASSERT_EQ(Convert(tmp / "dart.obj", tmp / "dart.stl"), 0);
    std::string stl = ReadFile(tmp / "dart.stl");
    ASSERT_GE(stl.size(), 84u);
    const uint32_t n = U32(stl, 80);
    ASSERT_EQ(stl.size(), 84u + 50u * n);
    double area = 0;
    for (uint32_t i = 0; i < n; ++i) {
        Triangle t;
        for (int c = 0; c < 3; ++c)
            for (int k = 0; k < 3; ++k) t[c][k] = F32(stl, 84 + 50 * i + 12 + 12 * c + 4 * k);
        area += TriangleArea(t);
    }
    EXPECT_EQ(n, 3u);
    EXPECT_NEAR(area, kDartArea, 1e-5); // a fan overlaps: 0.3125

    ASSERT_EQ(Convert(tmp / "dart.obj", tmp / "dart.3ds"), 0);
    std::string bytes = ReadFile(tmp / "dart.3ds");
    std::vector<Vec> points;
    std::vector<Triangle> tris;
    Walk3ds(bytes, 0, bytes.size(), points, tris);
    area = 0;
    for (auto& t : tris) area += TriangleArea(t);
    EXPECT_EQ(tris.size(), 3u);
    EXPECT_NEAR(area, kDartArea, 1e-5);
}

TEST(GeometryConversion, CorpusConcavePolygonKeepsAllItsAreaIn3ds) {
    SKIP_WITHOUT_CORPUS();
    fs::path src = testsupport::CorpusDir() / "obj" / "concave_polygon.obj";
    if (!fs::exists(src)) GTEST_SKIP();
    TempDir tmp;
    const Mesh m = ReadObj(src);
    size_t corners = 0;
    for (auto& f : m.faces) corners += f.size();
    ASSERT_EQ(Convert(src, tmp / "c.3ds"), 0);
    std::string bytes = ReadFile(tmp / "c.3ds");
    std::vector<Vec> points;
    std::vector<Triangle> tris;
    Walk3ds(bytes, 0, bytes.size(), points, tris);
    double area = 0;
    for (auto& t : tris) area += TriangleArea(t);
    EXPECT_EQ(tris.size(), corners - 2 * m.faces.size());
    EXPECT_NEAR(area, m.PolygonArea(), 1e-4 * m.PolygonArea());
}

TEST(GeometryConversion, BinaryStlColoursSurviveAnStlToStlConversion) {
    // Four triangles: three with 15-bit colours, one without (it takes the default grey).
    const uint16_t attrs[4] = {uint16_t(0x8000 | 31), uint16_t(0x8000 | (16 << 5) | (3 << 10)),
                               uint16_t(0x8000 | (31 << 10) | 5), 0};
    std::string b(80, '\0');
    auto put32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) b.push_back(char(v >> (8 * i)));
    };
    auto putF = [&](float f) {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        put32(u);
    };
    put32(4);
    for (int t = 0; t < 4; ++t) {
        putF(0);
        putF(0);
        putF(1);
        putF(float(t));
        putF(0);
        putF(0);
        putF(float(t) + 1);
        putF(0);
        putF(0);
        putF(float(t));
        putF(1);
        putF(0);
        b.push_back(char(attrs[t] & 0xFF));
        b.push_back(char(attrs[t] >> 8));
    }
    TempDir tmp;
    WriteFile(tmp / "in.stl", b);
    ASSERT_EQ(Convert(tmp / "in.stl", tmp / "out.stl"), 0);
    std::string out = ReadFile(tmp / "out.stl");
    ASSERT_EQ(out.size(), b.size());
    ASSERT_EQ(U32(out, 80), 4u);
    // Each 5-bit value v is read as the byte 8v and written as 8v / 255 * 31, truncated.
    auto channel = [](uint16_t a, int shift) { return ((a >> shift) & 31) * 8 * 31 / 255; };
    for (int t = 0; t < 3; ++t) {
        const uint16_t a = U16(out, 84 + 50 * size_t(t) + 48);
        EXPECT_TRUE(a & 0x8000) << t;
        EXPECT_EQ(a & 31, channel(attrs[t], 0)) << t;
        EXPECT_EQ((a >> 5) & 31, channel(attrs[t], 5)) << t;
        EXPECT_EQ((a >> 10) & 31, channel(attrs[t], 10)) << t;
    }
}
