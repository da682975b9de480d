#include "plugin/host/Render.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "plugin/host/Channel.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/Scene.h"
#include "plugin/host/SceneNode.h"
#include "plugin/host/Triangulate.h"
#include "plugin/host/XString.h"

namespace fs = std::filesystem;

namespace {

// World to view: the rows of the orthonormal basis (right, up, back) around `eye`.
C4x4Matrix ViewMatrix(const C3DPoint& right, const C3DPoint& up, const C3DPoint& back, const C3DPoint& eye) {
    C4x4Matrix v;
    const C3DPoint* axes[3] = {&right, &up, &back};
    for (int k = 0; k < 3; ++k) {
        v.m[0][k] = axes[k]->x;
        v.m[1][k] = axes[k]->y;
        v.m[2][k] = axes[k]->z;
        v.m[3][k] = -eye.Dot(*axes[k]);
    }
    return v;
}

bool Finite(const C3DPoint& p) { return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z); }

// A vertex after projection: screen position (sample units), depth key (larger is nearer),
// q (1/distance, or 1 for parallel views) and the values interpolated across the face.
struct ScreenVert {
    float x, y, depth, q;
    float r, g, b;
    float u, v;
};

// A vertex in view space (x right, y up, z toward the eye) with its values, before projection.
struct ViewVert {
    C3DPoint p;
    float r, g, b, u, v;
};

struct Camera {
    bool perspective = false;
    C4x4Matrix view; // world -> view space
    float scale = 1; // parallel: samples per unit; perspective: focal length in samples
    float cx = 0, cy = 0;
    float nearDist = 1e-3f;
};

struct Texture {
    const CImage* image = nullptr;
};

// Wraps a texture coordinate into [0, 1).
inline float Wrap(float t) {
    if (!std::isfinite(t)) return 0;
    t -= std::floor(t);
    return t < 1.0f ? t : 0.0f;
}

// Bilinear lookup with repeat; v = 0 is the picture's bottom row.
inline void Sample(const CImage& img, float u, float v, float& r, float& g, float& b) {
    const float fx = Wrap(u) * img.width - 0.5f;
    const float fy = (1.0f - Wrap(v)) * img.height - 0.5f;
    const float flx = std::floor(fx), fly = std::floor(fy);
    const float tx = fx - flx, ty = fy - fly;
    int x0 = static_cast<int>(flx), y0 = static_cast<int>(fly);
    int x1 = x0 + 1, y1 = y0 + 1;
    const int w = img.width, h = img.height;
    x0 = (x0 % w + w) % w;
    x1 = (x1 % w + w) % w;
    y0 = (y0 % h + h) % h;
    y1 = (y1 % h + h) % h;
    const uint8_t* a = img.Pixel(x0, y0);
    const uint8_t* bq = img.Pixel(x1, y0);
    const uint8_t* c = img.Pixel(x0, y1);
    const uint8_t* d = img.Pixel(x1, y1);
    auto mix = [&](int k) {
        const float top = a[k] + (bq[k] - a[k]) * tx;
        const float bottom = c[k] + (d[k] - c[k]) * tx;
        return (top + (bottom - top) * ty) * (1.0f / 255.0f);
    };
    r = mix(0);
    g = mix(1);
    b = mix(2);
}

inline uint8_t ToByte(float c) {
    if (!(c > 0)) return 0;
    if (c >= 1) return 255;
    return static_cast<uint8_t>(c * 255.0f + 0.5f);
}

class Raster {
public:
    // Both buffers are written whole at once: their pages are had in one request each
    // rather than a fault per page (a thumbnail's worker starts with none of them).
    Raster(int w, int h, uint64_t budget) : m_w(w), m_h(h), m_budget(budget) {
        hostmem::ReserveFilled(m_depth, static_cast<size_t>(w) * h);
        m_depth.assign(static_cast<size_t>(w) * h, -std::numeric_limits<float>::infinity());
        hostmem::ReserveFilled(color.rgba, static_cast<size_t>(w) * h * 4);
    }
    CImage color;
    bool CutShort() const { return m_cut; }

    // Charges `n` pixel tests; false once the budget is spent.
    bool Charge(uint64_t n) {
        if (n > m_budget - m_spent) {
            m_cut = true;
            m_spent = m_budget;
            return false;
        }
        m_spent += n;
        return true;
    }

    // A sample on an edge two triangles share must not be lost to rounding in both of them:
    // "inside" reaches a hair past the edge (drawing it twice costs nothing with the depth test).
    static constexpr float kInside = -1e-5f;

    void Triangle(const ScreenVert& a, const ScreenVert& b, const ScreenVert& c, const CImage* tex) {
        const float area = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
        if (!(std::fabs(area) > 1e-9f) || !std::isfinite(area)) return;
        float minx = std::min({a.x, b.x, c.x}), maxx = std::max({a.x, b.x, c.x});
        float miny = std::min({a.y, b.y, c.y}), maxy = std::max({a.y, b.y, c.y});
        if (!(maxx >= 0 && maxy >= 0 && minx < m_w && miny < m_h)) return;
        // Pixel centres at +0.5: the first and last columns whose centre can be inside.
        const int x0 = static_cast<int>(std::max(0.0f, std::ceil(minx - 0.5f)));
        const int x1 = static_cast<int>(std::min(float(m_w - 1), std::floor(maxx - 0.5f)));
        const int y0 = static_cast<int>(std::max(0.0f, std::ceil(miny - 0.5f)));
        const int y1 = static_cast<int>(std::min(float(m_h - 1), std::floor(maxy - 0.5f)));
        if (x0 > x1 || y0 > y1) return;
        if (!Charge(uint64_t(x1 - x0 + 1) * uint64_t(y1 - y0 + 1))) return;
        const float inv = 1.0f / area;
        // Edge functions, each zero on one edge and equal to the area at the opposite corner.
        const float e0x = (b.y - c.y) * inv, e1x = (c.y - a.y) * inv, e2x = (a.y - b.y) * inv;
        const float px0 = x0 + 0.5f;
        uint8_t* pixels = color.rgba.data();
        const float auq = a.u * a.q, avq = a.v * a.q, buq = b.u * b.q, bvq = b.v * b.q, cuq = c.u * c.q,
                    cvq = c.v * c.q;
        // Locals, not the vertices' fields: the byte stores below may alias anything, and the
        // compiler would load every field again for each sample.
        const float ad = a.depth, bd = b.depth, cd = c.depth, aq = a.q, bq = b.q, cq = c.q;
        const float ar = a.r, ag = a.g, ab = a.b, br = b.r, bg = b.g, bb = b.b, cr = c.r, cg = c.g, cb = c.b;
        float* const depth = m_depth.data();
        for (int y = y0; y <= y1; ++y) {
            const float py = y + 0.5f;
            float l0 = ((b.x - px0) * (c.y - py) - (b.y - py) * (c.x - px0)) * inv;
            float l1 = ((c.x - px0) * (a.y - py) - (c.y - py) * (a.x - px0)) * inv;
            float l2 = ((a.x - px0) * (b.y - py) - (a.y - py) * (b.x - px0)) * inv;
            // Wide triangles: the row's span from the three edges, one sample wider each side
            // for rounding (the per-sample test below stays exact); narrow ones just scan.
            int xs = x0, xe = x1;
            if (x1 - x0 > 8) {
                float lo = float(x0), hi = float(x1);
                auto bound = [&](float l, float e) {
                    if (e > 0) lo = std::max(lo, x0 - l / e - 1);
                    else if (e < 0) hi = std::min(hi, x0 - l / e + 1);
                    else if (l < kInside) hi = lo - 1;
                };
                bound(l0, e0x);
                bound(l1, e1x);
                bound(l2, e2x);
                if (!(lo <= hi)) continue;
                xs = static_cast<int>(std::ceil(lo));
                xe = static_cast<int>(std::floor(hi));
                l0 += e0x * (xs - x0);
                l1 += e1x * (xs - x0);
                l2 += e2x * (xs - x0);
            }
            const size_t row = static_cast<size_t>(y) * m_w;
            for (int x = xs; x <= xe; ++x, l0 += e0x, l1 += e1x, l2 += e2x) {
                if (l0 < kInside || l1 < kInside || l2 < kInside) continue;
                const float d = l0 * ad + l1 * bd + l2 * cd;
                float& z = depth[row + x];
                if (!(d > z)) continue;
                z = d;
                float r = l0 * ar + l1 * br + l2 * cr;
                float g = l0 * ag + l1 * bg + l2 * cg;
                float bl = l0 * ab + l1 * bb + l2 * cb;
                if (tex) {
                    const float q = l0 * aq + l1 * bq + l2 * cq;
                    const float u = (l0 * auq + l1 * buq + l2 * cuq) / q;
                    const float v = (l0 * avq + l1 * bvq + l2 * cvq) / q;
                    float tr, tg, tb;
                    Sample(*tex, u, v, tr, tg, tb);
                    r *= tr;
                    g *= tg;
                    bl *= tb;
                }
                uint8_t* o = pixels + (row + x) * 4;
                o[0] = ToByte(r);
                o[1] = ToByte(g);
                o[2] = ToByte(bl);
                o[3] = 255;
            }
        }
    }

    // A square dot of `size` samples centred on the vertex.
    void Dot(const ScreenVert& s, int size, const uint8_t rgb[3]) {
        if (!std::isfinite(s.x) || !std::isfinite(s.y)) return;
        const float half = size * 0.5f;
        if (s.x + half < 0 || s.y + half < 0 || s.x - half >= m_w || s.y - half >= m_h) return;
        const int x0 = static_cast<int>(std::floor(s.x - half + 0.5f));
        const int y0 = static_cast<int>(std::floor(s.y - half + 0.5f));
        if (!Charge(uint64_t(size) * size)) return;
        for (int y = std::max(0, y0); y < std::min(m_h, y0 + size); ++y)
            for (int x = std::max(0, x0); x < std::min(m_w, x0 + size); ++x) Plot(x, y, s.depth, rgb);
    }

    // A line `width` samples wide, clipped to the picture before it is stepped.
    void Line(ScreenVert a, ScreenVert b, int width, const uint8_t rgb[3]) {
        if (!std::isfinite(a.x) || !std::isfinite(a.y) || !std::isfinite(b.x) || !std::isfinite(b.y)) return;
        // Liang-Barsky against the picture (one sample of margin for the width).
        float t0 = 0, t1 = 1;
        const float dx = b.x - a.x, dy = b.y - a.y;
        const float lo = -float(width), hix = float(m_w + width), hiy = float(m_h + width);
        auto clip = [&](float p, float q) {
            if (p == 0) return q >= 0;
            const float t = q / p;
            if (p < 0) {
                if (t > t1) return false;
                if (t > t0) t0 = t;
            } else {
                if (t < t0) return false;
                if (t < t1) t1 = t;
            }
            return true;
        };
        if (!clip(-dx, a.x - lo) || !clip(dx, hix - a.x) || !clip(-dy, a.y - lo) || !clip(dy, hiy - a.y)) return;
        const float ax = a.x + t0 * dx, ay = a.y + t0 * dy, bx = a.x + t1 * dx, by = a.y + t1 * dy;
        const float ad = a.depth + t0 * (b.depth - a.depth), bd = a.depth + t1 * (b.depth - a.depth);
        const float len = std::max(std::fabs(bx - ax), std::fabs(by - ay));
        const int steps = static_cast<int>(std::ceil(len)) + 1;
        if (!Charge(uint64_t(steps) * width * width)) return;
        const float half = width * 0.5f;
        for (int i = 0; i < steps; ++i) {
            const float t = steps > 1 ? float(i) / float(steps - 1) : 0.0f;
            const float x = ax + (bx - ax) * t - half, y = ay + (by - ay) * t - half;
            const float d = ad + (bd - ad) * t;
            const int px = static_cast<int>(std::floor(x + 0.5f)), py = static_cast<int>(std::floor(y + 0.5f));
            for (int yy = std::max(0, py); yy < std::min(m_h, py + width); ++yy)
                for (int xx = std::max(0, px); xx < std::min(m_w, px + width); ++xx) Plot(xx, yy, d, rgb);
        }
    }

private:
    void Plot(int x, int y, float d, const uint8_t rgb[3]) {
        const size_t i = static_cast<size_t>(y) * m_w + x;
        if (!(d >= m_depth[i])) return;
        m_depth[i] = d;
        uint8_t* o = color.rgba.data() + i * 4;
        o[0] = rgb[0];
        o[1] = rgb[1];
        o[2] = rgb[2];
        o[3] = 255;
    }

    int m_w, m_h;
    std::vector<float> m_depth;
    uint64_t m_budget, m_spent = 0;
    bool m_cut = false;
};

struct DrawItem {
    const C3DGeomObject* object;
    C4x4Matrix world;
};

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// Folder listings for lookups in any letter case, read once per folder (at most 10,000
// entries each) however many names a scene asks for.
class FolderIndex {
public:
    std::string Find(const fs::path& folder, const std::string& name) {
        auto it = m_folders.find(folder.string());
        if (it == m_folders.end()) {
            std::map<std::string, std::string> entries;
            std::error_code ec;
            int seen = 0;
            for (fs::directory_iterator d(folder, ec), end; !ec && d != end && seen < 10000; d.increment(ec), ++seen)
                entries.emplace(Lower(d->path().filename().string()), d->path().string());
            it = m_folders.emplace(folder.string(), std::move(entries)).first;
        }
        auto e = it->second.find(Lower(name));
        return e == it->second.end() ? std::string() : e->second;
    }

private:
    std::map<std::string, std::map<std::string, std::string>> m_folders;
};

bool IsFile(const fs::path& p) {
    std::error_code ec;
    return fs::is_regular_file(p, ec);
}

// Where a texture named by the scene is: as given, beside the scene file, in the scene's
// texture folders, among its required files, then the same names in any letter case
// (files written on systems that ignore case).
std::string ResolveTexture(const std::string& given, const C3DScene& scene, const std::string& sceneFolder,
                           FolderIndex& index) {
    std::string name = given;
    std::replace(name.begin(), name.end(), '\\', '/');
    if (name.empty()) return {};
    const fs::path asGiven(name);
    const std::string base = asGiven.filename().string();
    if (base.empty()) return {};
    std::vector<fs::path> folders;
    if (!sceneFolder.empty()) folders.emplace_back(sceneFolder);
    for (const CXStringW& p : scene.GetTexturePaths()) folders.emplace_back(WideToUtf8(p.view()));
    if (asGiven.is_absolute() && IsFile(asGiven)) return name;
    for (const fs::path& f : folders) {
        if (!asGiven.is_absolute() && IsFile(f / asGiven)) return (f / asGiven).string();
        if (IsFile(f / base)) return (f / base).string();
    }
    for (const CXStringW& r : scene.GetRequiredFiles()) {
        const fs::path rp(WideToUtf8(r.view()));
        if (rp.filename() == base && IsFile(rp)) return rp.string();
    }
    for (const fs::path& f : folders)
        if (std::string found = index.Find(f, base); !found.empty()) return found;
    return {};
}

struct MaterialLook {
    float r = 0.78f, g = 0.78f, b = 0.78f;
    const CImage* texture = nullptr;
    int32_t uvChannel = -1;
};

class SceneRenderer {
public:
    SceneRenderer(const C3DScene& scene, const CRenderOptions& o, CRenderStats& stats)
        : m_scene(scene), m_opt(o), m_stats(stats), m_triangulator(50'000'000) {}

    RenderResult Run(CImage& out);

private:
    void Collect();
    bool SetUpCamera();
    void FitParallel(const C3DPoint& eyeDir, const C3DPoint& upHint);
    const MaterialLook& Look(uint32_t id);
    ScreenVert Project(const ViewVert& v) const;
    void DrawTriangle(const ViewVert& a, const ViewVert& b, const ViewVert& c, const CImage* tex);
    void DrawLine(ViewVert a, ViewVert b, int width, const uint8_t rgb[3]);
    void DrawDot(const ViewVert& v, const uint8_t rgb[3]);
    void DrawMesh(const DrawItem& item);
    void DrawCurve(const DrawItem& item);
    void DrawPoints(const DrawItem& item);
    void DrawGrid();
    // Wide enough that one whole pixel is covered after the samples are averaged.
    // Two-sided: legacy files wind their faces either way.
    float Lit(const C3DPoint& n) const { return 0.35f + 0.65f * std::fabs(n.Dot(m_light)); }
    int LineWidth() const { return 2 * m_ss - 1; }

    const C3DScene& m_scene;
    const CRenderOptions& m_opt;
    CRenderStats& m_stats;
    CPolygonTriangulator m_triangulator;
    std::vector<DrawItem> m_items;
    C3DBox m_box;
    C3DPoint m_up{0, 1, 0}, m_front{0, 0, 1};
    Camera m_cam;
    C3DPoint m_light;
    std::unique_ptr<Raster> m_raster;
    int m_ss = 2;
    float m_radius = 1;
    std::map<uint32_t, MaterialLook> m_looks;
    std::map<std::string, std::unique_ptr<CImage>> m_textures; // by resolved path; null when unreadable
    std::unordered_set<std::string> m_missing;                 // missingTextures, to keep each once
    uint64_t m_textureBytes = 0;
    FolderIndex m_folders;
    std::vector<C3DPoint> m_view; // the current mesh's points in view space
    std::vector<ScreenVert> m_screen;
    std::vector<uint8_t> m_inFront;
    std::vector<uint32_t> m_tris;
};

void SceneRenderer::Collect() {
    std::unordered_map<const C3DSceneNode*, C4x4Matrix> worlds;
    worlds[m_scene.GetRoot()] = C4x4Matrix();
    C3DNodePos pos = m_scene.GetFirstNode(KINDOF_ALL);
    C3DBaseObject* obj = nullptr;
    std::unordered_map<const C3DSceneNode*, bool> hidden;
    while (C3DSceneNode* node = m_scene.GetNextNode(obj, pos)) {
        const C3DSceneNode* parent = node->GetParent();
        auto pw = worlds.find(parent);
        C4x4Matrix local;
        node->GetNodeLocalTM(0, local);
        const C4x4Matrix world = pw != worlds.end() ? local * pw->second : local;
        worlds[node] = world;
        const bool hide = node->IsFlagSet(NODE_HIDDEN) || (parent && hidden.count(parent) && hidden[parent]);
        hidden[node] = hide;
        if (hide || !obj || !obj->IsGeomObject() || obj->IsFlagSet(OBJF_HIDDEN)) continue;
        const uint32_t kind = obj->GetKindOf();
        if (!(kind & (KINDOF_MESH | KINDOF_PATCH | KINDOF_CURVE | KINDOF_POINTCLOUD))) continue;
        auto* geom = static_cast<const C3DGeomObject*>(obj);
        const C3DPointList* pts = geom->GetPointList();
        if (!pts || pts->IsEmpty()) continue;
        C4x4Matrix objectTM;
        node->GetObjectLocalTM(0, objectTM);
        DrawItem item{geom, objectTM * world};
        const float* xyz = pts->GetData();
        bool any = false;
        for (size_t i = 0, n = pts->size(); i < n; ++i) {
            const C3DPoint p = item.world.TransformPoint({xyz[i * 3], xyz[i * 3 + 1], xyz[i * 3 + 2]});
            // Wild coordinates (garbage in a damaged file) would shrink everything else to a dot.
            if (!Finite(p) || std::fabs(p.x) >= 1e15f || std::fabs(p.y) >= 1e15f || std::fabs(p.z) >= 1e15f) continue;
            m_box.Add(p);
            any = true;
        }
        if (any) m_items.push_back(item);
    }
}

// A parallel view along `eyeDir` (from the scene toward the eye), fitted to the box.
void SceneRenderer::FitParallel(const C3DPoint& eyeDir, const C3DPoint& upHint) {
    const C3DPoint back = eyeDir.Normalized();
    C3DPoint right = upHint.Cross(back).Normalized();
    const C3DPoint up = back.Cross(right).Normalized();
    const C3DPoint c = m_box.Center();
    const C4x4Matrix v = ViewMatrix(right, up, back, c);
    float ex = 0, ey = 0;
    for (int i = 0; i < 8; ++i) {
        const C3DPoint k{(i & 1) ? m_box.max.x : m_box.min.x, (i & 2) ? m_box.max.y : m_box.min.y,
                         (i & 4) ? m_box.max.z : m_box.min.z};
        const C3DPoint p = v.TransformPoint(k);
        ex = std::max(ex, std::fabs(p.x));
        ey = std::max(ey, std::fabs(p.y));
    }
    const float w = float(m_opt.width * m_ss), h = float(m_opt.height * m_ss);
    float s = std::numeric_limits<float>::max();
    if (ex > 0) s = std::min(s, w * 0.45f / ex);
    if (ey > 0) s = std::min(s, h * 0.45f / ey);
    if (!std::isfinite(s) || s == std::numeric_limits<float>::max() || s <= 0) s = 1;
    m_cam.perspective = false;
    m_cam.view = v;
    m_cam.scale = s;
    m_cam.cx = w * 0.5f;
    m_cam.cy = h * 0.5f;
}

bool SceneRenderer::SetUpCamera() {
    const C3DPoint right = m_up.Cross(m_front);
    switch (m_opt.view) {
    case RenderView::Front: FitParallel(m_front, m_up); return true;
    case RenderView::Back: FitParallel(-m_front, m_up); return true;
    case RenderView::Right: FitParallel(right, m_up); return true;
    case RenderView::Left: FitParallel(-right, m_up); return true;
    case RenderView::Top: FitParallel(m_up, -m_front); return true;
    case RenderView::Bottom: FitParallel(-m_up, m_front); return true;
    case RenderView::Iso: FitParallel(m_front + right + m_up, m_up); return true;
    case RenderView::Camera: break;
    }
    C3DNodePos pos = m_scene.GetFirstNode(KINDOF_CAMERA);
    C3DBaseObject* obj = nullptr;
    C3DSceneNode* node = m_scene.GetNextNode(obj, pos);
    const auto* cam = node && obj && obj->GetKindOf() == KINDOF_CAMERA ? static_cast<const C3DCamera*>(obj) : nullptr;
    C4x4Matrix tm;
    if (node) node->GetNodeTM(0, tm);
    const C3DPoint eye = tm.GetTranslation();
    const C3DPoint back = C3DPoint{tm.m[2][0], tm.m[2][1], tm.m[2][2]}.Normalized();
    const C3DPoint cr = C3DPoint{tm.m[1][0], tm.m[1][1], tm.m[1][2]}.Cross(back).Normalized();
    const C3DPoint cu = back.Cross(cr);
    if (!cam || !Finite(eye) || back.Length() < 0.5f || cr.Length() < 0.5f) {
        m_stats.notes.push_back(cam ? "the scene's camera has no usable orientation; the iso view is shown instead"
                                    : "the scene has no camera; the iso view is shown instead");
        FitParallel(m_front + right + m_up, m_up);
        return true;
    }
    const C4x4Matrix v = ViewMatrix(cr, cu, back, eye);
    const float w = float(m_opt.width * m_ss), h = float(m_opt.height * m_ss);
    m_cam.view = v;
    m_cam.cx = w * 0.5f;
    m_cam.cy = h * 0.5f;
    if (cam->GetProjection() == PROJECTION_ORTHOGRAPHIC) {
        const float zoom = cam->GetVOrthoZoom();
        m_cam.perspective = false;
        m_cam.scale = zoom > 0 && std::isfinite(zoom) ? h * 0.5f / zoom : 1.0f;
        return true;
    }
    float fov = cam->GetVFov();
    if (!(fov > 0.01f && fov < 3.1f)) fov = 0.785398f;
    m_cam.perspective = true;
    m_cam.scale = h * 0.5f / std::tan(fov * 0.5f);
    m_cam.nearDist = std::max(m_radius * 1e-4f, 1e-6f);
    return true;
}

const MaterialLook& SceneRenderer::Look(uint32_t id) {
    auto it = m_looks.find(id);
    if (it != m_looks.end()) return it->second;
    MaterialLook look;
    if (const C3DMaterial* m = m_scene.GetMaterialByID(id)) {
        look.r = m->diffuse.r / 255.0f;
        look.g = m->diffuse.g / 255.0f;
        look.b = m->diffuse.b / 255.0f;
        const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE);
        if (map && m_opt.textures && !map->file.IsEmpty()) {
            const std::string given = WideToUtf8(map->file.view());
            const std::string path = ResolveTexture(given, m_scene, m_opt.sceneFolder, m_folders);
            auto t = path.empty() ? m_textures.end() : m_textures.find(path);
            if (!path.empty() && t == m_textures.end()) {
                // All the scene's textures together stay within one budget. A texture needs no
                // more texels along a side than the picture has samples (JPEG shrinks as it
                // is decoded).
                CImageLimits limits;
                limits.fitSide = std::max(m_opt.width, m_opt.height) * m_ss;
                limits.maxPixels = std::min<uint64_t>(
                    limits.maxPixels, (m_opt.textureBytes - std::min(m_opt.textureBytes, m_textureBytes)) / 4);
                auto img = std::make_unique<CImage>();
                if (limits.maxPixels == 0 || LoadImageFile(path, *img, limits) != ImageResult::Ok) {
                    img.reset();
                } else {
                    ++m_stats.texturesLoaded;
                    m_textureBytes += img->rgba.size();
                }
                t = m_textures.emplace(path, std::move(img)).first;
            }
            if (t != m_textures.end() && t->second) {
                look.texture = t->second.get();
                look.uvChannel = map->channel;
            } else if (m_missing.insert(given).second) {
                m_stats.missingTextures.push_back(given);
            }
        }
    }
    return m_looks.emplace(id, look).first->second;
}

ScreenVert SceneRenderer::Project(const ViewVert& v) const {
    ScreenVert s;
    if (m_cam.perspective) {
        const float q = 1.0f / -v.p.z;
        s.x = m_cam.cx + v.p.x * q * m_cam.scale;
        s.y = m_cam.cy - v.p.y * q * m_cam.scale;
        s.depth = q;
        s.q = q;
    } else {
        s.x = m_cam.cx + v.p.x * m_cam.scale;
        s.y = m_cam.cy - v.p.y * m_cam.scale;
        s.depth = v.p.z;
        s.q = 1;
    }
    s.r = v.r;
    s.g = v.g;
    s.b = v.b;
    s.u = v.u;
    s.v = v.v;
    return s;
}

ViewVert Lerp(const ViewVert& a, const ViewVert& b, float t) {
    return {a.p + (b.p - a.p) * t, a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t,
            a.b + (b.b - a.b) * t, a.u + (b.u - a.u) * t, a.v + (b.v - a.v) * t};
}

// Perspective views cut what lies behind the near plane first.
void SceneRenderer::DrawTriangle(const ViewVert& a, const ViewVert& b, const ViewVert& c, const CImage* tex) {
    const float zn = -m_cam.nearDist;
    if (!m_cam.perspective || (a.p.z < zn && b.p.z < zn && c.p.z < zn)) {
        m_raster->Triangle(Project(a), Project(b), Project(c), tex);
        return;
    }
    const ViewVert in[3] = {a, b, c};
    ViewVert poly[4];
    int n = 0;
    for (int i = 0; i < 3; ++i) {
        const ViewVert& p = in[i];
        const ViewVert& q = in[(i + 1) % 3];
        const bool pin = p.p.z < zn, qin = q.p.z < zn;
        if (pin) poly[n++] = p;
        if (pin != qin) poly[n++] = Lerp(p, q, (zn - p.p.z) / (q.p.z - p.p.z));
    }
    for (int i = 1; i + 1 < n; ++i) m_raster->Triangle(Project(poly[0]), Project(poly[i]), Project(poly[i + 1]), tex);
}

void SceneRenderer::DrawLine(ViewVert a, ViewVert b, int width, const uint8_t rgb[3]) {
    if (m_cam.perspective) {
        const float zn = -m_cam.nearDist;
        const bool ain = a.p.z < zn, bin = b.p.z < zn;
        if (!ain && !bin) return;
        if (!ain) a = Lerp(a, b, (zn - a.p.z) / (b.p.z - a.p.z));
        if (!bin) b = Lerp(a, b, (zn - a.p.z) / (b.p.z - a.p.z));
    }
    m_raster->Line(Project(a), Project(b), width, rgb);
}

// Two pixels square; nothing for a point behind a perspective camera.
void SceneRenderer::DrawDot(const ViewVert& v, const uint8_t rgb[3]) {
    if (m_cam.perspective && !(v.p.z < -m_cam.nearDist)) return;
    m_raster->Dot(Project(v), 2 * m_ss, rgb);
}

void SceneRenderer::DrawMesh(const DrawItem& item) {
    const C3DGeomObject& obj = *item.object;
    const C3DPointList& pts = *obj.GetPointList();
    const C3DFaceList* faces = obj.GetFaceList();
    const size_t np = pts.size();
    const C4x4Matrix mv = item.world * m_cam.view;
    m_view.resize(np);
    const float* xyz = pts.GetData();
    for (size_t i = 0; i < np; ++i) m_view[i] = mv.TransformPoint({xyz[i * 3], xyz[i * 3 + 1], xyz[i * 3 + 2]});
    const int nf = faces ? faces->GetNumberOfFaces() : 0;
    if (nf == 0 || obj.GetKindOf() == KINDOF_POINTCLOUD) return DrawPoints(item);

    // Smooth shading: the file's normals, else normals made with the object's smoothing angle.
    const CSpecNormalChannel* normals = nullptr;
    CSpecNormalChannel made;
    if (m_opt.shading != RenderShading::Flat) {
        for (const auto& ch : obj.GetChannels())
            if (ch->GetType() == CHANNEL_SPEC_NORMAL) {
                normals = static_cast<const CSpecNormalChannel*>(ch.get());
                break;
            }
        float angle = obj.GetSmoothAngle();
        if (m_opt.shading == RenderShading::Smooth && !(angle > 0)) angle = 60.0f;
        if (!normals && angle > 0) {
            made.GenerateNormals(pts, *faces, angle);
            normals = &made;
        }
    }
    const CFaceList* nFaces = normals ? normals->GetFaceList() : nullptr;
    const C3DVectorList* nVecs = normals ? normals->GetNormalVectorList() : nullptr;
    if (nFaces && nFaces->GetNumberOfFaces() != nf) nFaces = nullptr;

    const CVCChannel* vc = obj.GetGlobalVCChannel();
    const CFaceList* vcFaces = vc && vc->GetVCFaceList()->GetNumberOfFaces() == nf ? vc->GetVCFaceList() : nullptr;
    const int vcCount = vc ? vc->GetVCPointList()->GetSize() : 0;

    std::vector<ViewVert> corners;
    uint32_t lastMat = NO_MATERIAL - 1;
    const MaterialLook* look = nullptr;
    const CUVWChannel* uv = nullptr;
    const CFaceList* uvFaces = nullptr;
    const auto& materialIDs = faces->GetMaterialIDs();
    const bool perMaterial = materialIDs.size() == size_t(nf);
    for (int f = 0; f < nf; ++f) {
        if (faces->GetFaceFlags(f) & (FACE_SKIP | FACE_HIDDEN)) continue;
        const std::span<const uint32_t> face = faces->Face(f);
        const size_t n = face.size();
        if (n == 0) continue;
        bool ok = true;
        for (uint32_t i : face) ok = ok && i < np;
        if (!ok) continue;
        const uint32_t mat = perMaterial ? materialIDs[size_t(f)] : NO_MATERIAL;
        if (mat != lastMat) {
            lastMat = mat;
            look = &Look(mat);
            uv = nullptr;
            uvFaces = nullptr;
            if (look->texture) {
                const C3DChannel* ch =
                    look->uvChannel >= 0 ? obj.GetChannelByID(look->uvChannel, CHANNEL_UVW) : nullptr;
                if (!ch) ch = obj.GetGlobalUVWChannel();
                if (!ch) ch = obj.GetChannelByIndex(0, CHANNEL_UVW);
                uv = static_cast<const CUVWChannel*>(ch);
                if (uv && uv->GetUVWFaceList()->GetNumberOfFaces() == nf) uvFaces = uv->GetUVWFaceList();
            }
        }
        const uint8_t base[3] = {ToByte(look->r), ToByte(look->g), ToByte(look->b)};
        if (n < 3) {
            ViewVert a{m_view[face[0]], 0, 0, 0, 0, 0};
            if (n == 1) {
                DrawDot(a, base);
                ++m_stats.points;
            } else {
                DrawLine(a, ViewVert{m_view[face[1]], 0, 0, 0, 0, 0}, LineWidth(), base);
                ++m_stats.lines;
            }
            continue;
        }
        // Per corner: position, colour (lit), texture coordinates.
        corners.resize(n);
        C3DPoint fn;
        const bool smooth = nFaces && nFaces->GetFaceSize(f) == int(n);
        if (!smooth) {
            for (size_t i = 0; i < n; ++i) {
                const C3DPoint& a = m_view[face[i]];
                const C3DPoint& b = m_view[face[(i + 1) % n]];
                fn.x += (a.y - b.y) * (a.z + b.z);
                fn.y += (a.z - b.z) * (a.x + b.x);
                fn.z += (a.x - b.x) * (a.y + b.y);
            }
            fn = fn.Normalized();
        }
        const float flatLight = Lit(fn);
        const uint32_t* uvIdx = uvFaces && uvFaces->GetFaceSize(f) == int(n) ? uvFaces->GetFaceIndices(f) : nullptr;
        const uint32_t* vcIdx = vcFaces && vcFaces->GetFaceSize(f) == int(n) ? vcFaces->GetFaceIndices(f) : nullptr;
        const bool useVC = vcIdx && !look->texture;
        for (size_t i = 0; i < n; ++i) {
            ViewVert& cv = corners[i];
            cv.p = m_view[face[i]];
            float light = flatLight;
            if (smooth) {
                const uint32_t ni = nFaces->GetFaceIndices(f)[i];
                if (ni < uint32_t(nVecs->GetSize())) {
                    const C3DPoint nv = mv.TransformVector(nVecs->GetPoint(int(ni))).Normalized();
                    light = Lit(nv);
                }
            }
            float r = look->r, g = look->g, b = look->b;
            if (look->texture) r = g = b = 1.0f;
            else if (useVC && vcIdx[i] < uint32_t(vcCount)) {
                const CRGBColor& c = (*vc->GetVCPointList())[int(vcIdx[i])];
                r = c.r / 255.0f;
                g = c.g / 255.0f;
                b = c.b / 255.0f;
            }
            cv.r = r * light;
            cv.g = g * light;
            cv.b = b * light;
            cv.u = cv.v = 0;
            if (uvIdx && uvIdx[i] < uint32_t(uv->GetUVWPointList()->GetSize())) {
                const C3DPoint t = uv->GetUVWPointList()->GetPoint(int(uvIdx[i]));
                cv.u = t.x;
                cv.v = t.y;
            }
        }
        const CImage* tex = uvIdx ? look->texture : nullptr;
        if (look->texture && !uvIdx) {
            // No coordinates for this face: the texture's average would be a guess; the material colour is not.
            for (size_t i = 0; i < n; ++i) {
                corners[i].r *= look->r;
                corners[i].g *= look->g;
                corners[i].b *= look->b;
            }
        }
        if (n == 3) {
            DrawTriangle(corners[0], corners[1], corners[2], tex);
            ++m_stats.triangles;
        } else {
            m_tris.clear();
            m_triangulator.Triangulate(pts, face, m_tris);
            for (size_t t = 0; t + 2 < m_tris.size(); t += 3)
                DrawTriangle(corners[m_tris[t]], corners[m_tris[t + 1]], corners[m_tris[t + 2]], tex);
            m_stats.triangles += m_tris.size() / 3;
        }
        if (m_raster->CutShort()) return;
    }
}

void SceneRenderer::DrawCurve(const DrawItem& item) {
    const C3DGeomObject& obj = *item.object;
    const C3DPointList& pts = *obj.GetPointList();
    const C3DFaceList* faces = obj.GetFaceList();
    const size_t np = pts.size();
    const C4x4Matrix mv = item.world * m_cam.view;
    const bool closed = obj.IsFlagSet(OBJF_CLOSED);
    const int nf = faces ? faces->GetNumberOfFaces() : 0;
    const C3DFaceList::IndexArray* materialIDs = faces ? &faces->GetMaterialIDs() : nullptr;
    auto viewOf = [&](uint32_t i) {
        const float* p = pts.GetData() + size_t(i) * 3;
        return ViewVert{mv.TransformPoint({p[0], p[1], p[2]}), 0, 0, 0, 0, 0};
    };
    auto colorOf = [&](uint32_t mat, uint8_t rgb[3]) {
        const C3DMaterial* m = mat == NO_MATERIAL ? nullptr : m_scene.GetMaterialByID(mat);
        if (m) {
            rgb[0] = m->diffuse.r;
            rgb[1] = m->diffuse.g;
            rgb[2] = m->diffuse.b;
        } else {
            rgb[0] = 40;
            rgb[1] = 40;
            rgb[2] = 48;
        }
    };
    if (nf == 0) {
        // A curve without a face list runs through its points in order.
        uint8_t rgb[3];
        colorOf(NO_MATERIAL, rgb);
        for (size_t i = 0; i + 1 < np; ++i) {
            DrawLine(viewOf(uint32_t(i)), viewOf(uint32_t(i + 1)), LineWidth(), rgb);
            ++m_stats.lines;
        }
        if (closed && np > 2) DrawLine(viewOf(uint32_t(np - 1)), viewOf(0), LineWidth(), rgb);
        return;
    }
    for (int f = 0; f < nf; ++f) {
        if (faces->GetFaceFlags(f) & (FACE_SKIP | FACE_HIDDEN)) continue;
        const auto face = faces->Face(f);
        uint8_t rgb[3];
        colorOf(materialIDs->size() == size_t(nf) ? (*materialIDs)[size_t(f)] : NO_MATERIAL, rgb);
        for (size_t i = 0; i + 1 < face.size(); ++i) {
            if (face[i] >= np || face[i + 1] >= np) continue;
            DrawLine(viewOf(face[i]), viewOf(face[i + 1]), LineWidth(), rgb);
            ++m_stats.lines;
        }
        if (closed && face.size() > 2 && face.back() < np && face[0] < np) {
            DrawLine(viewOf(face.back()), viewOf(face[0]), LineWidth(), rgb);
            ++m_stats.lines;
        }
        if (face.size() == 1 && face[0] < np) {
            DrawDot(viewOf(face[0]), rgb);
            ++m_stats.points;
        }
        if (m_raster->CutShort()) return;
    }
}

void SceneRenderer::DrawPoints(const DrawItem& item) {
    // m_view holds the object's points (DrawMesh filled it).
    const uint8_t rgb[3] = {30, 60, 120};
    for (const C3DPoint& p : m_view) {
        DrawDot(ViewVert{p, 0, 0, 0, 0, 0}, rgb);
        ++m_stats.points;
        if (m_raster->CutShort()) return;
    }
    (void)item;
}

// Round step (1, 2 or 5 times a power of ten) near `span` / 10.
float GridStep(float span) {
    if (!(span > 0) || !std::isfinite(span)) return 1;
    const float raw = span / 10.0f;
    const float p = std::pow(10.0f, std::floor(std::log10(raw)));
    const float m = raw / p;
    return (m < 1.5f ? 1.0f : m < 3.5f ? 2.0f : m < 7.5f ? 5.0f : 10.0f) * p;
}

void SceneRenderer::DrawGrid() {
    // On the ground under the scene: the plane through the box's lowest point along the up axis.
    const C3DPoint right = m_up.Cross(m_front);
    const C3DPoint c = m_box.Center();
    const C3DPoint ext = m_box.max - m_box.min;
    const float spanR = std::fabs(ext.Dot(right)), spanF = std::fabs(ext.Dot(m_front));
    const float span = std::max({spanR, spanF, std::fabs(ext.Dot(m_up)) * 0.5f});
    const float step = GridStep(span);
    if (!(span > 0)) return;
    const int half = std::min(40, static_cast<int>(std::ceil(span * 0.75f / step)));
    const float groundUp = std::min(m_box.min.Dot(m_up), m_box.max.Dot(m_up));
    // Grid centred on a multiple of the step so lines fall on round coordinates.
    const float cr = std::round(c.Dot(right) / step) * step, cf = std::round(c.Dot(m_front) / step) * step;
    auto at = [&](float r, float f) { return right * r + m_front * f + m_up * groundUp; };
    const uint8_t* bg = nullptr;
    const uint32_t b = m_opt.background;
    const uint8_t bgc[3] = {uint8_t(b >> 24), uint8_t(b >> 16), uint8_t(b >> 8)};
    bg = bgc;
    const bool light = 0.299f * bg[0] + 0.587f * bg[1] + 0.114f * bg[2] > 128;
    uint8_t rgb[3];
    for (int k = 0; k < 3; ++k) rgb[k] = light ? uint8_t(bg[k] * 0.80f) : uint8_t(bg[k] + (255 - bg[k]) * 0.25f);
    // A little below the ground so faces lying on it win.
    const C3DPoint sink = m_up * (-m_radius * 2e-3f);
    const C4x4Matrix& v = m_cam.view;
    for (int i = -half; i <= half; ++i) {
        const float o = i * step;
        const C3DPoint a1 = at(cr + o, cf - half * step) + sink, a2 = at(cr + o, cf + half * step) + sink;
        const C3DPoint b1 = at(cr - half * step, cf + o) + sink, b2 = at(cr + half * step, cf + o) + sink;
        DrawLine({v.TransformPoint(a1), 0, 0, 0, 0, 0}, {v.TransformPoint(a2), 0, 0, 0, 0, 0}, std::max(1, m_ss / 2),
                 rgb);
        DrawLine({v.TransformPoint(b1), 0, 0, 0, 0, 0}, {v.TransformPoint(b2), 0, 0, 0, 0, 0}, std::max(1, m_ss / 2),
                 rgb);
    }
}

// Box filter from SS x SS samples to one pixel, rounded to nearest. The sum of at most 16
// bytes (4080) times a 2^24-scaled reciprocal, shifted back, divides exactly in that range;
// a division per byte was a quarter of a small picture's time.
template <int SS> void BoxDown(const CImage& big, CImage& out) {
    constexpr uint32_t n = SS * SS;
    constexpr uint32_t mul = ((1u << 24) + n - 1) / n;
    for (int y = 0; y < out.height; ++y) {
        const uint8_t* rows[SS];
        for (int sy = 0; sy < SS; ++sy) rows[sy] = big.Pixel(0, y * SS + sy);
        uint8_t* o = out.Pixel(0, y);
        for (int x = 0; x < out.width; ++x, o += 4)
            for (int c = 0; c < 4; ++c) {
                uint32_t sum = n / 2;
                for (int sy = 0; sy < SS; ++sy)
                    for (int sx = 0; sx < SS; ++sx) sum += rows[sy][(x * SS + sx) * 4 + c];
                o[c] = static_cast<uint8_t>((sum * mul) >> 24);
            }
    }
}

RenderResult SceneRenderer::Run(CImage& out) {
    out = CImage{};
    if (m_opt.width < 1 || m_opt.height < 1 || m_opt.width > kMaxRenderSide || m_opt.height > kMaxRenderSide)
        return RenderResult::BadSize;
    m_ss = std::clamp(m_opt.supersample, 1, 4);
    // Very large pictures keep to one sample a pixel rather than a gigabyte of buffers.
    while (m_ss > 1 && uint64_t(m_opt.width) * m_opt.height * m_ss * m_ss > (uint64_t(64) << 20)) --m_ss;
    if (m_opt.zUp) {
        m_up = {0, 0, 1};
        m_front = {0, -1, 0};
    }
    Collect();
    if (m_items.empty() || !m_box.IsValid()) return RenderResult::Empty;
    m_radius = (m_box.max - m_box.min).Length() * 0.5f;
    if (!(m_radius > 0) || !std::isfinite(m_radius)) m_radius = 1;
    SetUpCamera();
    // From over the viewer's left shoulder, mostly from the front, so that the three sides an
    // iso view shows all get light and each its own shade.
    m_light = C3DPoint{-0.15f, 0.3f, 0.94f}.Normalized();

    const int w = m_opt.width * m_ss, h = m_opt.height * m_ss;
    m_raster = std::make_unique<Raster>(w, h, m_opt.fillBudget);
    m_raster->color.Resize(w, h, m_opt.background);
    for (const DrawItem& item : m_items) {
        const uint32_t kind = item.object->GetKindOf();
        if (kind == KINDOF_CURVE) DrawCurve(item);
        else DrawMesh(item);
        if (m_raster->CutShort()) break;
    }
    if (m_opt.grid && m_opt.view != RenderView::Bottom && !m_raster->CutShort()) DrawGrid();
    if (m_raster->CutShort()) {
        m_stats.cutShort = true;
        m_stats.notes.push_back("the scene needs more drawing than a preview allows; the picture is incomplete");
    }
    if (m_stats.triangles == 0 && m_stats.lines == 0 && m_stats.points == 0) return RenderResult::Empty;

    out.Resize(m_opt.width, m_opt.height, 0);
    switch (m_ss) {
    case 1: BoxDown<1>(m_raster->color, out); break;
    case 2: BoxDown<2>(m_raster->color, out); break;
    case 3: BoxDown<3>(m_raster->color, out); break;
    default: BoxDown<4>(m_raster->color, out); break;
    }
    return RenderResult::Ok;
}

} // namespace

bool ParseRenderView(const std::string& name, RenderView& out) {
    static const std::pair<const char*, RenderView> kViews[] = {
        {"iso", RenderView::Iso},       {"front", RenderView::Front},  {"back", RenderView::Back},
        {"left", RenderView::Left},     {"right", RenderView::Right},  {"top", RenderView::Top},
        {"bottom", RenderView::Bottom}, {"camera", RenderView::Camera}};
    for (const auto& [n, v] : kViews)
        if (name == n) {
            out = v;
            return true;
        }
    return false;
}

RenderResult RenderScene(const C3DScene& scene, const CRenderOptions& options, CImage& out, CRenderStats* stats) {
    CRenderStats local;
    SceneRenderer r(scene, options, stats ? *stats : local);
    return r.Run(out);
}
