#include "cli/SceneSummary.h"

#include "plugin/host/FileHelpers.h"

#include <cstdio>
#include <string>

#include "plugin/host/Scene.h"

namespace {
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

std::string Utf8(const CXStringW& w) { return WideToUtf8(w.view()); }

std::string JsonEscape(const std::string& s) {
    std::string o;
    for (unsigned char c : s) {
        switch (c) {
        case '"': o += "\\\""; break;
        case '\\': o += "\\\\"; break;
        case '\n': o += "\\n"; break;
        case '\r': o += "\\r"; break;
        case '\t': o += "\\t"; break;
        default:
            if (c < 0x20) {
                char b[8];
                std::snprintf(b, sizeof b, "\\u%04x", c);
                o += b;
            } else {
                o += static_cast<char>(c);
            }
        }
    }
    return o;
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
        std::snprintf(buf, sizeof buf, " %lld points, %lld %s", pts, fcs, o->GetKindOf() == KINDOF_CURVE ? "lines" : "faces");
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
} // namespace

SceneTotals CountScene(const C3DScene& scene) {
    SceneTotals t;
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        ++t.nodes;
        t.keys += n->GetKeyNbr();
        switch (n->GetKindOf()) {
        case KINDOF_MESH: case KINDOF_PATCH: ++t.meshes; break;
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

std::string DescribeScene(const C3DScene& scene) {
    std::string s = "scene: " + SummaryLine(scene) + "\n";
    char buf[128];
    std::snprintf(buf, sizeof buf, "units: %d, scale %g\n", scene.GetUnit(), scene.GetScaleFactor());
    s += buf;
    s += "nodes:\n";
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        s.append(static_cast<size_t>(2 + 2 * Depth(n)), ' ');
        s += "\"" + Utf8(n->GetName()) + "\" [" + KindName(n->GetKindOf()) + "]" + ObjectDetails(n) + "\n";
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
    // Files the scene needs (textures), and whether they are there.
    if (!scene.GetRequiredFiles().empty()) {
        s += "files:\n";
        for (const CXStringW& f : scene.GetRequiredFiles())
            s += "  \"" + Utf8(f) + "\" " + (fileExists(f) ? "found" : "missing") + "\n";
    }
    return s;
}

std::string DescribeSceneJson(const C3DScene& scene, const std::string& file, const std::string& format) {
    SceneTotals t = CountScene(scene);
    std::string s = "{\n";
    s += "  \"file\": \"" + JsonEscape(file) + "\",\n";
    s += "  \"format\": \"" + JsonEscape(format) + "\",\n";
    s += "  \"unit\": " + std::to_string(scene.GetUnit()) + ",\n";
    s += "  \"totals\": {\"nodes\": " + std::to_string(t.nodes) + ", \"meshes\": " + std::to_string(t.meshes) +
         ", \"points\": " + std::to_string(t.points) + ", \"faces\": " + std::to_string(t.faces) +
         ", \"materials\": " + std::to_string(t.materials) + ", \"cameras\": " + std::to_string(t.cameras) +
         ", \"lights\": " + std::to_string(t.lights) + ", \"keys\": " + std::to_string(t.keys) + "},\n";
    s += "  \"nodes\": [";
    bool first = true;
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        s += first ? "\n" : ",\n";
        first = false;
        s += "    {\"name\": \"" + JsonEscape(Utf8(n->GetName())) + "\", \"kind\": \"" + KindName(n->GetKindOf()) +
             "\", \"depth\": " + std::to_string(Depth(n)) + ", \"id\": " + std::to_string(n->GetNodeID());
        if (const C3DGeomObject* g = n->GetGeomObject()) {
            s += ", \"points\": " + std::to_string(g->GetPointList() ? g->GetPointList()->GetSize() : 0);
            s += ", \"faces\": " + std::to_string(g->GetFaceList() ? g->GetFaceList()->GetNumberOfFaces() : 0);
        }
        s += ", \"keys\": " + std::to_string(n->GetKeyNbr()) + "}";
    }
    s += first ? "],\n" : "\n  ],\n";
    s += "  \"materials\": [";
    first = true;
    CMaterialPos mp;
    for (C3DMaterial* m = scene.GetFirstMaterial(mp); m; m = scene.GetNextMaterial(mp)) {
        s += first ? "\n" : ",\n";
        first = false;
        s += "    {\"id\": " + std::to_string(m->GetID()) + ", \"name\": \"" + JsonEscape(Utf8(m->GetName())) + "\"}";
    }
    s += first ? "]\n" : "\n  ]\n";
    s += "}\n";
    return s;
}
