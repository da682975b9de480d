// The export plan. Node transforms become the scale/rotation/translation items Modo
// stacks on a locator (ordinals 0, 1, 2: scale applies first); materials become tags, each
// selected by a mask under the render item with an advanced material inside it.
#include "formats/lxo/LxoWriteData.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <unordered_map>

#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/Scene.h"
#include "plugin/host/SceneNode.h"
#include "plugin/host/XString.h"

namespace {

// Material IDs at or above this get the untagged material (a per-layer table this long
// costs 256 KB; real scenes number their materials from 0).
constexpr uint32_t kMaxTaggedMaterialID = 1u << 16;
constexpr size_t kMaxTagBytes = 1000;
// Entries of all meshes' material tables together (64 MB).
constexpr uint64_t kTagTableBudget = uint64_t(1) << 24;

LxoItemChannel Float(const char* name, float f) {
    LxoItemChannel c;
    c.name = name;
    c.kind = 2;
    c.f = f;
    return c;
}

LxoItemChannel Int(const char* name, int32_t i) {
    LxoItemChannel c;
    c.name = name;
    c.kind = 1;
    c.i = i;
    return c;
}

LxoItemChannel Text(const char* name, std::string s) {
    LxoItemChannel c;
    c.name = name;
    c.kind = 3;
    c.s = std::move(s);
    return c;
}

LxoItemVector Rgb(const char* base, const CRGBColor& c) {
    LxoItemVector v;
    v.base = base;
    v.xyz = false;
    v.v[0] = c.r / 255.0f;
    v.v[1] = c.g / 255.0f;
    v.v[2] = c.b / 255.0f;
    return v;
}

LxoItemVector Xyz(const char* base, const float* xyz) {
    LxoItemVector v;
    v.base = base;
    std::copy(xyz, xyz + 3, v.v);
    return v;
}

std::string Utf8(const CXStringW& s) { return WideToUtf8(std::wstring_view(s)); }

bool IsMeshKind(uint32_t kind) { return kind == KINDOF_MESH || kind == KINDOF_PATCH || kind == KINDOF_POINTCLOUD; }

} // namespace

bool LxoWriteData::SplitTransform(const float m[4][4], float scale[3], float rot[3], float pos[3]) {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            if (!std::isfinite(m[r][c])) return false;
    if (std::fabs(m[0][3]) > 1e-6f || std::fabs(m[1][3]) > 1e-6f || std::fabs(m[2][3]) > 1e-6f ||
        std::fabs(m[3][3] - 1.0f) > 1e-6f)
        return false; // projective
    // Rows of the upper 3x3 are the scaled rotation rows (M = S * R).
    double row[3][3];
    for (int r = 0; r < 3; ++r) {
        const double len = std::sqrt(double(m[r][0]) * m[r][0] + double(m[r][1]) * m[r][1] + double(m[r][2]) * m[r][2]);
        if (len < 1e-12) return false;
        scale[r] = static_cast<float>(len);
        for (int c = 0; c < 3; ++c) row[r][c] = m[r][c] / len;
    }
    auto dot = [&](int a, int b) { return row[a][0] * row[b][0] + row[a][1] * row[b][1] + row[a][2] * row[b][2]; };
    if (std::fabs(dot(0, 1)) > 1e-4 || std::fabs(dot(0, 2)) > 1e-4 || std::fabs(dot(1, 2)) > 1e-4) return false;
    const double det = row[0][0] * (row[1][1] * row[2][2] - row[1][2] * row[2][1]) -
                       row[0][1] * (row[1][0] * row[2][2] - row[1][2] * row[2][0]) +
                       row[0][2] * (row[1][0] * row[2][1] - row[1][1] * row[2][0]);
    if (det < 0) { // a mirror: the sign goes on the x scale
        scale[0] = -scale[0];
        for (int c = 0; c < 3; ++c) row[0][c] = -row[0][c];
    }
    // R = Rx(a) * Ry(b) * Rz(c) for row vectors:
    //   row 0 = (cb cc, cb sc, -sb), row 1 z = sa cb, row 2 z = ca cb.
    const double sb = std::clamp(-row[0][2], -1.0, 1.0);
    const double b = std::asin(sb);
    double a, c;
    if (std::fabs(sb) < 0.9999995) {
        a = std::atan2(row[1][2], row[2][2]);
        c = std::atan2(row[0][1], row[0][0]);
    } else { // gimbal lock: c folded into a
        c = 0;
        a = std::atan2(-row[2][1], row[1][1]);
    }
    rot[0] = static_cast<float>(a);
    rot[1] = static_cast<float>(b);
    rot[2] = static_cast<float>(c);
    for (int k = 0; k < 3; ++k) pos[k] = m[3][k];
    return true;
}

uint32_t LxoWriteData::AddItem(const std::string& type, const std::string& name) {
    LxoItemData it;
    it.type = type;
    it.name = name;
    it.id = static_cast<uint32_t>(items.size());
    items.push_back(std::move(it));
    return items.back().id;
}

void LxoWriteData::AddTransforms(uint32_t owner, const C3DSceneNode& node, bool alwaysScale) {
    C4x4Matrix local;
    node.GetNodeLocalTM(0, local);
    float scl[3] = {1, 1, 1}, rot[3] = {0, 0, 0}, pos[3] = {0, 0, 0};
    SplitTransform(local.m, scl, rot, pos); // the caller baked what does not split
    uint32_t ordinal = 0;
    const bool unit = scl[0] == 1.0f && scl[1] == 1.0f && scl[2] == 1.0f;
    const std::string base = items[owner].name; // AddItem below moves the items
    auto add = [&](const char* type, const char* vec, const float* v, const char* suffix) {
        const uint32_t id = AddItem(type, "");
        LxoItemData& t = items[id];
        t.unique = base + suffix;
        t.links.push_back({"xfrmCore", owner, ordinal++});
        t.vectors.push_back(Xyz(vec, v));
        if (std::string_view(type) == "rotation") t.channels.push_back(Text("order", "xyz"));
        t.channels.push_back(Float("blend", 1.0f));
        t.channels.push_back(Text("type", "core"));
    };
    if (alwaysScale || !unit) add("scale", "scl", scl, " Scale");
    add("rotation", "rot", rot, " Rotation");
    add("translation", "pos", pos, " Position");
}

namespace {

// The parts every shader-tree layer carries.
void AddLayerChannels(LxoItemData& it, const char* effect) {
    it.channels.push_back(Int("enable", 1));
    it.channels.push_back(Float("opacity", 1.0f));
    it.channels.push_back(Text("blend", "normal"));
    it.channels.push_back(Int("invert", 0));
    it.strings.emplace_back("effect", effect);
}

void AddMaterialChannels(LxoItemData& it, const C3DMaterial* m) {
    AddLayerChannels(it, "");
    const auto* sm = dynamic_cast<const C3DStandardMaterial*>(m);
    auto unit = [](float v, float fallback) { return std::isfinite(v) ? std::clamp(v, 0.0f, 1.0f) : fallback; };
    it.vectors.push_back(Rgb("diffCol", m ? m->diffuse : CRGBColor(255, 255, 255)));
    it.channels.push_back(Float("diffAmt", m ? unit(m->diffuseFactor, 1.0f) : 0.8f));
    it.vectors.push_back(Rgb("specCol", sm ? sm->specular : CRGBColor(255, 255, 255)));
    it.channels.push_back(Float("specAmt", sm ? unit(sm->specularFactor, 0.0f) : 0.2f));
    it.vectors.push_back(Rgb("tranCol", CRGBColor(255, 255, 255)));
    it.channels.push_back(Float("tranAmt", m ? unit(m->transparency, 0.0f) : 0.0f));
    it.vectors.push_back(Rgb("lumiCol", sm ? sm->emissive : CRGBColor(255, 255, 255)));
    it.channels.push_back(Float("radiance", sm ? std::max(0.0f, unit(sm->emissiveFactor, 0.0f)) : 0.0f));
    it.channels.push_back(Float("rough", sm ? 1.0f - unit(sm->shininess, 0.0f) : 0.4f));
    const float angle = m && std::isfinite(m->smoothAngle) ? m->smoothAngle : 0.0f;
    it.channels.push_back(Float("smooth", !m || angle > 0 ? 1.0f : 0.0f));
    it.channels.push_back(Float("smAngle", !m ? 0.6981317f : angle > 0 ? angle / 57.29578f : 0.0f));
    it.channels.push_back(Int("dblSided", m && m->IsFlagSet(MATF_TWO_SIDED) ? 1 : 0));
    it.strings.emplace_back("uvMap", "");
}

} // namespace

void LxoWriteData::AddMaterials(const C3DScene& scene, uint32_t render, const std::vector<uint32_t>& tagMaterial) {
    // Base material first (ordinal 0), then a mask per material tag with its material.
    uint32_t ordinal = 0;
    {
        const uint32_t id = AddItem("advancedMaterial", "Base Material");
        items[id].unique = "BaseMaterial";
        items[id].links.push_back({"parent", render, ordinal++});
        AddMaterialChannels(items[id], nullptr);
    }
    for (size_t t = 0; t < tags.size(); ++t) {
        const C3DMaterial* m = tagMaterial[t] == NO_MATERIAL ? nullptr : scene.GetMaterialByID(tagMaterial[t]);
        if (!m) continue; // the untagged faces' tag: the base material shades them
        const uint32_t mask = AddItem("mask", "");
        items[mask].unique = "mask" + std::to_string(t + 1);
        items[mask].links.push_back({"parent", render, ordinal++});
        AddLayerChannels(items[mask], "");
        items[mask].strings.emplace_back("ptag", tags[t]);
        items[mask].strings.emplace_back("ptyp", "Material");
        items[mask].channels.push_back(Int("submask", 0));
        const uint32_t mat = AddItem("advancedMaterial", tags[t]);
        items[mat].unique = "advancedMaterial" + std::to_string(t + 1);
        items[mat].links.push_back({"parent", mask, 0});
        AddMaterialChannels(items[mat], m);
    }
    {
        const uint32_t id = AddItem("defaultShader", "Base Shader");
        items[id].unique = "BaseShader";
        items[id].links.push_back({"parent", render, ordinal++});
        AddLayerChannels(items[id], "fullShade");
        items[id].channels.push_back(Float("shadeRate", 1.0f));
        items[id].channels.push_back(Text("alphaType", "opacity"));
        items[id].channels.push_back(Float("alphaVal", 1.0f));
        items[id].channels.push_back(Int("shadCast", 1));
        items[id].channels.push_back(Int("shadRecv", 1));
    }
    for (const char* effect : {"shade.color", "shade.alpha"}) {
        const uint32_t id = AddItem("renderOutput", "");
        items[id].unique = std::string("renderOutput") + (effect[6] == 'c' ? "Color" : "Alpha");
        items[id].links.push_back({"parent", render, ordinal++});
        AddLayerChannels(items[id], effect);
        items[id].strings.emplace_back("filename", "");
        items[id].strings.emplace_back("format", "");
        items[id].channels.push_back(Float("gamma", effect[6] == 'c' ? 1.6f : 1.0f));
    }
}

int32_t LxoWriteData::ChannelIndex(const std::string& name) const {
    const auto it = channelIndex.find(name);
    return it == channelIndex.end() ? -1 : static_cast<int32_t>(it->second);
}

void LxoWriteData::CollectChannelNames() {
    channelNames.assign(1, "unknown");
    channelIndex = {{"unknown", 0}};
    auto add = [&](const std::string& n) {
        if (channelIndex.emplace(n, static_cast<uint32_t>(channelNames.size())).second) channelNames.push_back(n);
    };
    static const char *const kXyz[3] = {".X", ".Y", ".Z"}, *const kRgb[3] = {".R", ".G", ".B"};
    for (const LxoItemData& it : items) {
        for (const LxoItemChannel& c : it.channels) add(c.name);
        // The setup action repeats vector channels component by component.
        for (const LxoItemVector& v : it.vectors)
            for (int k = 0; k < 3; ++k) add(v.base + (v.xyz ? kXyz[k] : kRgb[k]));
        for (const auto& s : it.strings) add(s.first);
    }
}

bool LxoWriteData::NeedsBaking(const C3DScene& scene) {
    C3DNodePos pos = scene.GetFirstNode();
    while (pos.IsValid()) {
        const C3DSceneNode* n = scene.GetNextNode(pos);
        if (!n) break;
        C4x4Matrix local, object;
        n->GetNodeLocalTM(0, local);
        n->GetObjectLocalTM(0, object);
        float s[3], r[3], t[3];
        if (!object.IsIdentity() || !SplitTransform(local.m, s, r, t)) return true;
    }
    return false;
}

bool LxoWriteData::Build(const C3DScene& scene, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    tags.clear();
    layers.clear();
    items.clear();
    untaggedMaterials = 0;

    // Nodes in pre-order; each item knows its parent item through the node's parent.
    std::vector<const C3DSceneNode*> nodes;
    {
        C3DNodePos pos = scene.GetFirstNode();
        while (pos.IsValid())
            if (const C3DSceneNode* n = scene.GetNextNode(pos)) nodes.push_back(n);
    }
    std::unordered_map<const C3DSceneNode*, uint32_t> itemOf;
    itemOf.reserve(nodes.size());

    // Tags: one per material the scene holds, names made distinct (masks select by name);
    // "Default" first when some face has no material the scene knows.
    std::unordered_map<uint32_t, uint32_t> tagOfMaterial;
    std::vector<uint32_t> tagMaterial;
    bool untagged = false;
    uint32_t maxID = 0;
    // Which IDs below the bound name a material: one lookup per ID, not per face.
    std::vector<uint8_t> known;
    {
        CMaterialPos pos;
        for (C3DMaterial* m = scene.GetFirstMaterial(pos); m; m = scene.GetNextMaterial(pos))
            if (m->GetID() < kMaxTaggedMaterialID) {
                if (known.size() <= m->GetID()) known.resize(size_t(m->GetID()) + 1, 0);
                known[m->GetID()] = 1;
            }
    }
    std::vector<uint32_t> meshTops;
    for (const C3DSceneNode* n : nodes) {
        const C3DBaseObject* o = n->GetBaseObject();
        if (!o || !IsMeshKind(o->GetKindOf())) continue;
        const C3DFaceList* fl = static_cast<const C3DGeomObject*>(o)->GetFaceList();
        if (!fl) continue;
        uint32_t last = NO_MATERIAL - 1, top = 0;
        for (uint32_t id : fl->GetMaterialIDs()) {
            if (id == last) continue;
            last = id;
            if (id < kMaxTaggedMaterialID) top = std::max(top, id);
            if (id >= known.size() || !known[id]) {
                untagged = true;
                if (id != NO_MATERIAL && id >= kMaxTaggedMaterialID && scene.GetMaterialByID(id)) untaggedMaterials = 1;
            } else {
                maxID = std::max(maxID, id);
            }
        }
        meshTops.push_back(top);
    }
    {
        // Meshes past the tables' budget (see tagTable) need the untagged tag.
        uint64_t need = 0;
        for (uint32_t top : meshTops) need += uint64_t(std::min(top, maxID)) + 1;
        if (need > kTagTableBudget) untagged = true;
    }
    if (untagged) {
        tags.push_back("Default");
        tagMaterial.push_back(NO_MATERIAL);
    }
    {
        std::unordered_map<std::string, int> used{{"Default", untagged ? 1 : 0}};
        CMaterialPos pos;
        for (C3DMaterial* m = scene.GetFirstMaterial(pos); m; m = scene.GetNextMaterial(pos)) {
            if (m->GetID() >= kMaxTaggedMaterialID) continue;
            std::string name = Utf8(m->GetName());
            // A mask repeats the tag in a sub-chunk (64 KB at most) and readers keep 1023 bytes.
            if (name.size() > kMaxTagBytes) {
                size_t cut = kMaxTagBytes;
                while (cut > 0 && (uint8_t(name[cut]) & 0xC0) == 0x80) --cut; // not inside a UTF-8 sequence
                name.resize(cut);
            }
            if (name.empty()) name = "Material";
            std::string unique = name;
            for (int k = 2; used[unique]++; ++k) unique = name + " (" + std::to_string(k) + ")";
            tagOfMaterial[m->GetID()] = static_cast<uint32_t>(tags.size());
            tags.push_back(unique);
            tagMaterial.push_back(m->GetID());
        }
    }
    if (tags.size() > 0xFFFF) return fail("the scene has more materials than an LXO tag table can index");
    // Material ID -> tag, as long as the largest ID a mesh's faces use. The tables of all
    // meshes share one budget, so many meshes with large IDs cannot multiply it; a mesh
    // past the budget goes out untagged (and the log says so).
    uint64_t budget = kTagTableBudget;
    auto tagTable = [&](const C3DFaceList* fl) {
        std::vector<uint32_t> table;
        if (!fl || tagOfMaterial.empty()) return table;
        uint32_t top = 0;
        for (uint32_t m : fl->GetMaterialIDs())
            if (m < kMaxTaggedMaterialID) top = std::max(top, m);
        const uint64_t size = uint64_t(std::min(top, maxID)) + 1;
        if (size > budget) {
            ++untaggedMaterials;
            return table;
        }
        budget -= size;
        table.assign(size, 0);
        for (uint32_t id = 0; id < size; ++id) {
            const auto t = tagOfMaterial.find(id);
            if (t != tagOfMaterial.end()) table[id] = t->second;
        }
        return table;
    };

    // Scene nodes become locators, meshes, cameras and lights, each with its transform.
    std::unordered_map<const C3DSceneNode*, uint32_t> childCount;
    bool anything = false;
    for (const C3DSceneNode* n : nodes) {
        const C3DBaseObject* o = n->GetBaseObject();
        const uint32_t kind = o ? o->GetKindOf() : KINDOF_GROUP;
        std::string type = "locator";
        const C3DGeomObject* geom = nullptr;
        if (IsMeshKind(kind) || kind == KINDOF_CURVE) {
            geom = static_cast<const C3DGeomObject*>(o);
            if (geom->GetPointList() && geom->GetPointList()->size() > 0) {
                type = "mesh";
            } else {
                geom = nullptr;
            }
        } else if (kind == KINDOF_CAMERA) {
            type = "camera";
        } else if (kind == KINDOF_LIGHT) {
            const int lk = static_cast<const C3DLight*>(o)->GetLightKind();
            type = lk == LIGHT_DIRECTIONAL ? "sunLight" : lk == LIGHT_SPOT ? "spotLight" : "pointLight";
        }
        const uint32_t id = AddItem(type, Utf8(n->GetName()));
        itemOf[n] = id;
        {
            LxoItemData& it = items[id];
            it.unique = type + std::to_string(id);
            it.hasLayer = true;
            it.layerIndex = static_cast<uint32_t>(itemOf.size() - 1);
            const C3DSceneNode* parent = n->GetParent();
            const auto p = parent ? itemOf.find(parent) : itemOf.end();
            if (p != itemOf.end()) it.links.push_back({"parent", p->second, childCount[parent]++});
            it.channels.push_back(Int("inherit", 1));
            for (const char* c : {"visible", "render", "select", "lock"}) it.channels.push_back(Text(c, "default"));
            it.channels.push_back(Float("size", 1.0f));
            for (const char* c : {"drawShape", "center", "pivot", "link"}) it.channels.push_back(Text(c, "default"));
        }
        if (geom) {
            anything = true;
            const C3DPointList* pts = geom->GetPointList();
            const C3DFaceList* fl = geom->GetFaceList();
            if (pts->size() > 0xFFFFFF || (fl && fl->GetNumberOfFaces() > 0xFFFFFF))
                return fail("a mesh has more than 16777215 points or polygons, more than LXO indices reach");
            if (fl)
                for (int f = 0; f < fl->GetNumberOfFaces(); ++f)
                    if (fl->GetFaceSize(f) > 0xFFFF) return fail("a polygon has more than 65535 corners");
            LxoLayerData layer;
            layer.info.index = static_cast<uint16_t>(std::min<size_t>(layers.size(), 0xFFFF));
            layer.info.flags = 0x0105;
            layer.info.parent = 0xFFFF;
            const float f5[5] = {2.0f, 0.0872665f, 1.0f, 0.0f, 0.0f}, f6[6] = {0, 1, 0, 0, 0, 1};
            for (int k = 0; k < 5; ++k) layer.info.block5[k] = std::bit_cast<uint32_t>(f5[k]);
            for (int k = 0; k < 6; ++k) layer.info.block6[k] = std::bit_cast<uint32_t>(f6[k]);
            layer.info.referenceID = id;
            layer.info.tail[0] = 16;
            if (kind == KINDOF_CURVE) {
                layer.curve = static_cast<const C3DCurve*>(geom);
            } else {
                layer.mesh.object = geom;
                layer.mesh.materialTags = tagTable(fl);
            }
            layers.push_back(std::move(layer));
        } else if (kind == KINDOF_CAMERA) {
            anything = true;
            const auto* cam = static_cast<const C3DCamera*>(o);
            LxoItemData& it = items[id];
            const float focal = 0.05f;
            float vfov = cam->GetVFov();
            if (!std::isfinite(vfov) || vfov <= 0 || vfov >= 3.14f) vfov = 0.785398f;
            const float apY = 2.0f * focal * std::tan(vfov / 2.0f);
            it.channels.push_back(Float("focalLen", focal));
            it.channels.push_back(Float("apertureX", apY * 1.5f));
            it.channels.push_back(Float("apertureY", apY));
            it.channels.push_back(
                Text("projType", cam->GetProjection() == PROJECTION_ORTHOGRAPHIC ? "ortho" : "persp"));
        } else if (kind == KINDOF_LIGHT) {
            anything = true;
            const auto* light = static_cast<const C3DLight*>(o);
            items[id].channels.push_back(Float("radiance", std::isfinite(light->intensity) ? light->intensity : 1.0f));
            const uint32_t mat = AddItem("lightMaterial", "");
            items[mat].unique = "lightMaterial" + std::to_string(mat);
            items[mat].links.push_back({"parent", id, 0});
            AddLayerChannels(items[mat], "");
            items[mat].vectors.push_back(Rgb("lightCol", light->color));
            items[mat].channels.push_back(Float("diffuse", 1.0f));
            items[mat].channels.push_back(Float("specular", 1.0f));
        }
        const bool optics = kind == KINDOF_CAMERA || kind == KINDOF_LIGHT;
        AddTransforms(id, *n, !optics);
    }
    if (!anything) return fail("the scene holds no mesh, curve, camera or light");

    {
        const uint32_t id = AddItem("scene", "");
        items[id].unique = "scene";
        for (const char* c : {"time", "sceneS"}) items[id].channels.push_back(Float(c, 0.0f));
        items[id].channels.push_back(Float("sceneE", 5.0f));
        items[id].channels.push_back(Float("currentS", 0.0f));
        items[id].channels.push_back(Float("currentE", 5.0f));
        items[id].channels.push_back(Int("timeSys", 1));
        items[id].channels.push_back(Float("fps", 24.0f));
    }
    const uint32_t render = AddItem("polyRender", "");
    items[render].unique = "polyRender";
    for (const auto& [node, id] : itemOf)
        if (items[id].type == "camera") {
            items[render].links.push_back({"shadeLoc", id, 0});
            break;
        }
    items[render].channels.push_back(Int("first", 1));
    items[render].channels.push_back(Int("last", 120));
    items[render].channels.push_back(Int("resX", 640));
    items[render].channels.push_back(Int("resY", 480));
    AddMaterials(scene, render, tagMaterial);
    {
        const uint32_t env = AddItem("environment", "");
        items[env].unique = "environment";
        items[env].channels.push_back(Float("radiance", 1.0f));
        const uint32_t em = AddItem("envMaterial", "");
        items[em].unique = "envMaterial";
        items[em].links.push_back({"parent", env, 0});
        AddLayerChannels(items[em], "envColor");
        items[em].channels.push_back(Text("type", "grad4"));
        const CRGBColor zen(31, 71, 153), sky(133, 173, 255), gnd(87, 112, 143), nad(41, 51, 31);
        items[em].vectors.push_back(Rgb("zenColor", zen));
        items[em].vectors.push_back(Rgb("skyColor", sky));
        items[em].vectors.push_back(Rgb("gndColor", gnd));
        items[em].vectors.push_back(Rgb("nadColor", nad));
    }
    sceneAction = static_cast<uint32_t>(items.size());
    setupAction = sceneAction + 1;
    CollectChannelNames();
    if (channelNames.size() > 0xFFFF) return fail("too many channel names");
    return true;
}
