#include "cli/SceneSummary.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/Scene.h"

namespace fs = std::filesystem;

namespace {
// Bumped when a field changes meaning or goes away; new fields keep the version.
constexpr int kInfoSchemaVersion = 1;

const char* KindName(uint32_t k) {
    switch (k) {
    case KINDOF_MESH: return "mesh";
    case KINDOF_CURVE: return "curve";
    case KINDOF_PATCH: return "patch";
    case KINDOF_GROUP: return "group";
    case KINDOF_CAMERA: return "camera";
    case KINDOF_LIGHT: return "light";
    case KINDOF_POINTCLOUD: return "points";
    default: return "object";
    }
}

const char* MapTypeName(uint32_t t) {
    switch (t) {
    case MAP_DIFFUSE: return "diffuse";
    case MAP_SPECULAR: return "specular";
    case MAP_AMBIENT: return "ambient";
    case MAP_OPACITY: return "opacity";
    case MAP_NORMAL: return "normal";
    case MAP_BUMP: return "bump";
    case MAP_REFLECTION: return "reflection";
    case MAP_SHININESS: return "shininess";
    case MAP_SELF_ILLUM: return "self-illumination";
    case MAP_SPECULAR_LEVEL: return "specular-level";
    default: return "other";
    }
}

// Metres per unit, 0 when the unit is unknown.
double MetresPerUnit(int unit) {
    switch (unit) {
    case UNIT_MILLIMETER: return 0.001;
    case UNIT_CENTIMETER: return 0.01;
    case UNIT_METER: return 1;
    case UNIT_KILOMETER: return 1000;
    case UNIT_INCH: return 0.0254;
    case UNIT_FOOT: return 0.3048;
    case UNIT_MILE: return 1609.344;
    default: return 0;
    }
}

std::string Utf8(const CXStringW& w) { return WideToUtf8(w.view()); }

// Shortest text that reads back as the same float; JSON has no NaN or infinity.
std::string Num(double v) {
    if (!std::isfinite(v)) return "null";
    char b[40];
    std::snprintf(b, sizeof b, "%.9g", v);
    return b;
}

int Depth(const C3DSceneNode* n) {
    int d = 0;
    for (const C3DSceneNode* p = n->GetParent(); p && p->GetParent(); p = p->GetParent()) ++d;
    return d;
}

std::string ObjectDetails(const C3DSceneNode* n) {
    std::string s;
    char buf[160];
    const C3DBaseObject* o = n->GetBaseObject();
    if (const C3DGeomObject* g = n->GetGeomObject()) {
        long long pts = g->GetPointList() ? g->GetPointList()->GetSize() : 0;
        long long fcs = g->GetFaceList() ? g->GetFaceList()->GetNumberOfFaces() : 0;
        std::snprintf(buf, sizeof buf, " %lld points, %lld %s", pts, fcs,
                      o->GetKindOf() == KINDOF_CURVE ? "lines" : "faces");
        s += buf;
        int uv = g->GetChannelCount(CHANNEL_UVW), vc = g->GetChannelCount(CHANNEL_VC),
            nr = g->GetChannelCount(CHANNEL_SPEC_NORMAL);
        if (uv) s += ", uv";
        if (vc) s += ", vertex colours";
        if (nr) s += ", normals";
    } else if (o && o->GetKindOf() == KINDOF_CAMERA) {
        auto* c = static_cast<const C3DCamera*>(o);
        std::snprintf(buf, sizeof buf, " %s, fov %.1f deg",
                      c->GetProjection() == PROJECTION_ORTHOGRAPHIC ? "orthographic" : "perspective",
                      c->GetVFov() * 57.29577951308232);
        s += buf;
    }
    if (n->GetKeyNbr() > 0) {
        std::snprintf(buf, sizeof buf, ", %d keys", n->GetKeyNbr());
        s += buf;
    }
    if (n->IsFlagSet(NODE_HIDDEN)) s += ", hidden";
    return s;
}

// A texture as the scene names it, and where it was found: as written (absolute, or
// relative to the working folder), beside the scene's file, in the scene's texture
// folders, or by its bare name beside the file.
struct Texture {
    std::string name, resolved;
    bool found = false;
};

Texture Resolve(const C3DScene& scene, const CXStringW& name, const std::string& sceneFile) {
    Texture t;
    t.name = Utf8(name);
    std::error_code ec;
    const fs::path p(t.name);
    const fs::path home = fs::path(sceneFile).parent_path();
    std::vector<fs::path> tries{p};
    if (p.is_relative()) tries.push_back(home / p);
    for (const CXStringW& dir : scene.GetTexturePaths()) tries.push_back(fs::path(Utf8(dir)) / p.filename());
    tries.push_back(home / p.filename());
    for (const fs::path& c : tries)
        if (!c.empty() && fs::is_regular_file(c, ec)) {
            t.found = true;
            t.resolved = fs::absolute(c, ec).lexically_normal().string();
            return t;
        }
    t.resolved = fs::absolute(p.is_relative() ? home / p : p, ec).lexically_normal().string();
    return t;
}

// Every file the scene refers to, once: the required files, then the materials' maps.
std::vector<Texture> Textures(const C3DScene& scene, const std::string& file) {
    std::vector<CXStringW> names;
    std::unordered_set<std::wstring> seen;
    auto add = [&](const CXStringW& n) {
        if (!n.IsEmpty() && seen.emplace(n.view()).second) names.push_back(n);
    };
    for (const CXStringW& f : scene.GetRequiredFiles()) add(f);
    CMaterialPos mp;
    for (C3DMaterial* m = scene.GetFirstMaterial(mp); m; m = scene.GetNextMaterial(mp))
        for (int i = 0; i < m->GetMaterialMapCount(); ++i) add(m->GetMaterialMapByIndex(i)->file);
    std::vector<Texture> out;
    for (const CXStringW& n : names) out.push_back(Resolve(scene, n, file));
    return out;
}

struct KeyRange {
    long long keys = 0;
    int animatedNodes = 0;
    int32_t first = 0, last = 0;
};

KeyRange Keys(const C3DScene& scene) {
    KeyRange r;
    bool any = false;
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        if (n->GetKeyNbr() == 0) continue;
        ++r.animatedNodes;
        for (int t = 0; t < n->GetTrackCount(); ++t) {
            const C3DKeyCurve* c = n->GetTrackByIndex(t);
            for (int k = 0; k < c->GetKeyNbr(); ++k) {
                const int32_t time = c->GetKeyByIndex(k)->GetTime();
                if (!any || time < r.first) r.first = time;
                if (!any || time > r.last) r.last = time;
                any = true;
                ++r.keys;
            }
        }
    }
    return r;
}

std::string Color(const CRGBColor& c) {
    return "[" + std::to_string(c.r) + ", " + std::to_string(c.g) + ", " + std::to_string(c.b) + "]";
}
} // namespace

const char* UnitName(int unit) {
    switch (unit) {
    case UNIT_MILLIMETER: return "millimeter";
    case UNIT_CENTIMETER: return "centimeter";
    case UNIT_METER: return "meter";
    case UNIT_KILOMETER: return "kilometer";
    case UNIT_INCH: return "inch";
    case UNIT_FOOT: return "foot";
    case UNIT_MILE: return "mile";
    default: return "none";
    }
}

std::string JsonString(const std::string& s) {
    std::string o = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': o += "\\\""; break;
        case '\\': o += "\\\\"; break;
        case '\n': o += "\\n"; break;
        case '\r': o += "\\r"; break;
        case '\t': o += "\\t"; break;
        default:
            if (c < 0x20 || c == 0x7f) {
                char b[8];
                std::snprintf(b, sizeof b, "\\u%04x", c);
                o += b;
            } else {
                o += static_cast<char>(c);
            }
        }
    }
    return o + "\"";
}

SceneTotals CountScene(const C3DScene& scene) {
    SceneTotals t;
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        ++t.nodes;
        t.keys += n->GetKeyNbr();
        switch (n->GetKindOf()) {
        case KINDOF_MESH:
        case KINDOF_PATCH: ++t.meshes; break;
        case KINDOF_CURVE: ++t.curves; break;
        case KINDOF_GROUP: ++t.groups; break;
        case KINDOF_CAMERA: ++t.cameras; break;
        case KINDOF_LIGHT: ++t.lights; break;
        default: ++t.other; break;
        }
        if (const C3DGeomObject* g = n->GetGeomObject()) {
            if (g->GetPointList()) t.points += g->GetPointList()->GetSize();
            if (g->GetFaceList() && g->GetKindOf() != KINDOF_CURVE) t.faces += g->GetFaceList()->GetNumberOfFaces();
        }
    }
    t.materials = scene.GetMaterialNumber();
    return t;
}

std::string SummaryLine(const C3DScene& scene) {
    SceneTotals t = CountScene(scene);
    char buf[256];
    std::snprintf(buf, sizeof buf, "%d nodes, %d meshes, %lld points, %lld faces, %d materials", t.nodes, t.meshes,
                  t.points, t.faces, t.materials);
    std::string s = buf;
    if (t.curves) s += ", " + std::to_string(t.curves) + " curves";
    if (t.cameras) s += ", " + std::to_string(t.cameras) + " cameras";
    if (t.lights) s += ", " + std::to_string(t.lights) + " lights";
    if (t.keys) s += ", " + std::to_string(t.keys) + " keys";
    return s;
}

std::string TotalsJson(const SceneTotals& t) {
    return "{\"nodes\": " + std::to_string(t.nodes) + ", \"meshes\": " + std::to_string(t.meshes) +
           ", \"curves\": " + std::to_string(t.curves) + ", \"points\": " + std::to_string(t.points) +
           ", \"faces\": " + std::to_string(t.faces) + ", \"materials\": " + std::to_string(t.materials) +
           ", \"cameras\": " + std::to_string(t.cameras) + ", \"lights\": " + std::to_string(t.lights) +
           ", \"keys\": " + std::to_string(t.keys) + "}";
}

std::string DescribeScene(const C3DScene& scene, const std::string& file) {
    std::string s = "scene: " + SummaryLine(scene) + "\n";
    char buf[256];
    std::snprintf(buf, sizeof buf, "units: %s (%d), scale %g\n", UnitName(scene.GetUnit()), scene.GetUnit(),
                  scene.GetScaleFactor());
    s += buf;
    const C3DBox box = scene.GetBoundingBox();
    if (box.IsValid()) {
        std::snprintf(buf, sizeof buf, "bounds: min %g %g %g, max %g %g %g, size %g %g %g\n", box.min.x, box.min.y,
                      box.min.z, box.max.x, box.max.y, box.max.z, box.max.x - box.min.x, box.max.y - box.min.y,
                      box.max.z - box.min.z);
        s += buf;
    } else {
        s += "bounds: none (no geometry)\n";
    }
    const KeyRange keys = Keys(scene);
    if (keys.keys > 0 || scene.GetAnimationEnd() != scene.GetAnimationStart()) {
        const double tps = scene.GetTickCount() > 0 ? scene.GetTickCount() : 1;
        std::snprintf(buf, sizeof buf, "animation: %d..%d ticks (%g..%g s at %d ticks/s), %lld keys on %d nodes\n",
                      scene.GetAnimationStart(), scene.GetAnimationEnd(), scene.GetAnimationStart() / tps,
                      scene.GetAnimationEnd() / tps, scene.GetTickCount(), keys.keys, keys.animatedNodes);
        s += buf;
    }
    s += "nodes:\n";
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        s.append(static_cast<size_t>(2 + 2 * Depth(n)), ' ');
        s += "\"" + Utf8(n->GetName()) + "\" [" + KindName(n->GetKindOf()) + "]" + ObjectDetails(n);
        if (n->GetNodeID() != 0) s += ", id " + std::to_string(n->GetNodeID());
        s += "\n";
    }
    if (scene.GetMaterialNumber() > 0) {
        s += "materials:\n";
        CMaterialPos mp;
        for (C3DMaterial* m = scene.GetFirstMaterial(mp); m; m = scene.GetNextMaterial(mp)) {
            std::snprintf(buf, sizeof buf, "  %u \"", m->GetID());
            s += buf + Utf8(m->GetName()) + "\"";
            std::snprintf(buf, sizeof buf, " diffuse %d %d %d", m->diffuse.r, m->diffuse.g, m->diffuse.b);
            s += buf;
            for (int i = 0; i < m->GetMaterialMapCount(); ++i)
                s += ", map \"" + Utf8(m->GetMaterialMapByIndex(i)->file) + "\"";
            s += "\n";
        }
    }
    // The models a package merged (a KMZ keeps their references, one a line, as 'KMZM').
    const std::string models = Utf8(const_cast<C3DScene&>(scene).GetCustomData().GetString(0x4B4D5A4D));
    if (!models.empty()) {
        s += "models:\n";
        for (size_t at = 0, nl; at < models.size(); at = nl + 1) {
            nl = models.find('\n', at);
            if (nl == std::string::npos) nl = models.size();
            if (nl > at) s += "  \"" + models.substr(at, nl - at) + "\"\n";
        }
    }
    // Files the scene needs (textures), where they are, and whether they are there.
    const std::vector<Texture> textures = Textures(scene, file);
    if (!textures.empty()) {
        s += "files:\n";
        for (const Texture& t : textures)
            s += "  \"" + t.name + "\" " + (t.found ? "found" : "missing") + " (" + t.resolved + ")\n";
    }
    return s;
}

std::string DescribeSceneJson(const C3DScene& scene, const std::string& file, const std::string& format) {
    const SceneTotals t = CountScene(scene);
    std::string s = "{\n";
    s += "  \"schema\": \"orbiscope-info/" + std::to_string(kInfoSchemaVersion) + "\",\n";
    s += "  \"file\": " + JsonString(file) + ",\n";
    s += "  \"format\": " + JsonString(format) + ",\n";
    s += "  \"unit\": " + std::to_string(scene.GetUnit()) + ",\n";
    const double mpu = MetresPerUnit(scene.GetUnit());
    s += "  \"units\": {\"name\": " + JsonString(UnitName(scene.GetUnit())) +
         ", \"code\": " + std::to_string(scene.GetUnit()) + ", \"scale\": " + Num(scene.GetScaleFactor()) +
         ", \"metersPerUnit\": " + (mpu > 0 ? Num(mpu) : std::string("null")) + "},\n";
    const C3DBox box = scene.GetBoundingBox();
    if (box.IsValid())
        s += "  \"bounds\": {\"min\": [" + Num(box.min.x) + ", " + Num(box.min.y) + ", " + Num(box.min.z) +
             "], \"max\": [" + Num(box.max.x) + ", " + Num(box.max.y) + ", " + Num(box.max.z) + "]},\n";
    else s += "  \"bounds\": null,\n";
    const KeyRange keys = Keys(scene);
    s += "  \"animation\": {\"ticksPerSecond\": " + std::to_string(scene.GetTickCount()) +
         ", \"start\": " + std::to_string(scene.GetAnimationStart()) +
         ", \"end\": " + std::to_string(scene.GetAnimationEnd()) + ", \"keys\": " + std::to_string(keys.keys) +
         ", \"animatedNodes\": " + std::to_string(keys.animatedNodes) +
         ", \"firstKey\": " + (keys.keys ? std::to_string(keys.first) : "null") +
         ", \"lastKey\": " + (keys.keys ? std::to_string(keys.last) : "null") + "},\n";
    s += "  \"totals\": " + TotalsJson(t) + ",\n";
    s += "  \"nodes\": [";
    bool first = true;
    // Each node's place in the walk, so children can name their parent.
    std::unordered_map<const C3DSceneNode*, size_t> order;
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        const auto up = order.find(n->GetParent());
        const long long parent = up == order.end() ? -1 : static_cast<long long>(up->second);
        const size_t index = order.size();
        order.emplace(n, index);
        s += first ? "\n" : ",\n";
        first = false;
        s += "    {\"index\": " + std::to_string(index) + ", \"parent\": " + std::to_string(parent) +
             ", \"id\": " + std::to_string(n->GetNodeID()) + ", \"name\": " + JsonString(Utf8(n->GetName())) +
             ", \"kind\": \"" + KindName(n->GetKindOf()) + "\", \"depth\": " + std::to_string(Depth(n)) +
             ", \"hidden\": " + (n->IsFlagSet(NODE_HIDDEN) ? "true" : "false");
        if (const C3DGeomObject* g = n->GetGeomObject()) {
            s += ", \"points\": " + std::to_string(g->GetPointList() ? g->GetPointList()->GetSize() : 0);
            s += ", \"faces\": " + std::to_string(g->GetFaceList() ? g->GetFaceList()->GetNumberOfFaces() : 0);
        }
        s += ", \"keys\": " + std::to_string(n->GetKeyNbr()) + ", \"tracks\": " + std::to_string(n->GetTrackCount()) +
             "}";
    }
    s += first ? "],\n" : "\n  ],\n";
    s += "  \"materials\": [";
    first = true;
    CMaterialPos mp;
    for (C3DMaterial* m = scene.GetFirstMaterial(mp); m; m = scene.GetNextMaterial(mp)) {
        s += first ? "\n" : ",\n";
        first = false;
        s += "    {\"id\": " + std::to_string(m->GetID()) + ", \"name\": " + JsonString(Utf8(m->GetName())) +
             ", \"diffuse\": " + Color(m->diffuse) + ", \"transparency\": " + Num(m->GetTransparency());
        if (auto* st = dynamic_cast<const C3DStandardMaterial*>(m)) {
            s += ", \"ambient\": " + Color(st->ambient) + ", \"specular\": " + Color(st->specular) +
                 ", \"emissive\": " + Color(st->emissive) + ", \"shininess\": " + Num(st->shininess);
        }
        s += ", \"maps\": [";
        for (int i = 0; i < m->GetMaterialMapCount(); ++i) {
            const CMaterialMap* map = m->GetMaterialMapByIndex(i);
            s += std::string(i ? ", " : "") + "{\"type\": \"" + MapTypeName(map->type) +
                 "\", \"file\": " + JsonString(Utf8(map->file)) + ", \"amount\": " + Num(map->amount) + "}";
        }
        s += "]}";
    }
    s += first ? "],\n" : "\n  ],\n";
    s += "  \"files\": [";
    first = true;
    for (const Texture& tex : Textures(scene, file)) {
        s += first ? "\n" : ",\n";
        first = false;
        s += "    {\"name\": " + JsonString(tex.name) + ", \"resolved\": " + JsonString(tex.resolved) +
             ", \"found\": " + (tex.found ? "true" : "false") + "}";
    }
    s += first ? "]\n" : "\n  ]\n";
    s += "}\n";
    return s;
}
