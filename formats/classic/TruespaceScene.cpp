#include "formats/classic/TruespaceScene.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <unordered_map>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Object.h"

namespace tsio {

namespace {

// The file's 3x4 column-vector matrix as a host (row-vector) matrix.
C4x4Matrix HostMatrix(const ObjectBlock& b) {
    C4x4Matrix m;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) m.m[c][r] = b.tm[r][c];
    return m;
}

CRGBColor Colour(const float rgb[3]) {
    CRGBColor c;
    c.SetColor4f(rgb[0], rgb[1], rgb[2]);
    return c;
}

// A closest pair of outer and hole corners, for the bridge; large faces take corner 0
// of each so that the work stays linear.
void BridgeEnds(const C3DPointList& pts, const std::vector<uint32_t>& outer, const std::vector<uint32_t>& hole,
                size_t& bi, size_t& bj) {
    bi = bj = 0;
    if (uint64_t(outer.size()) * hole.size() > 65536) return;
    float best = 3.4e38f;
    for (size_t i = 0; i < outer.size(); ++i)
        for (size_t j = 0; j < hole.size(); ++j) {
            const C3DPoint d = pts.GetPoint(static_cast<int>(outer[i])) - pts.GetPoint(static_cast<int>(hole[j]));
            const float l = d.Dot(d);
            if (l < best) {
                best = l;
                bi = i;
                bj = j;
            }
        }
}

// Splices `hole` into `outer` through a bridge edge: outer[..i], hole[j..], hole[..j], outer[i..].
template <typename V> V Splice(const V& outer, const V& hole, size_t i, size_t j) {
    V out;
    out.reserve(outer.size() + hole.size() + 2);
    out.insert(out.end(), outer.begin(), outer.begin() + static_cast<std::ptrdiff_t>(i) + 1);
    for (size_t k = 0; k <= hole.size(); ++k) out.push_back(hole[(j + k) % hole.size()]);
    out.insert(out.end(), outer.begin() + static_cast<std::ptrdiff_t>(i), outer.end());
    return out;
}

constexpr int kMaxHolesPerFace = 256;

// Rebuilds the face lists with every hole bridged into the face it cuts. Holes arrive
// in file order; a hole winds against its face (reversed when it does not). Returns the
// number of holes left out.
size_t BridgeHoles(Mesh& m) {
    size_t dropped = 0;
    if (m.holes.empty()) return dropped;
    std::stable_sort(m.holes.begin(), m.holes.end(), [](const Hole& a, const Hole& b) { return a.outer < b.outer; });
    auto faces = std::make_unique<C3DFaceList>();
    CUVWFaceList uvFaces;
    const CUVWFaceList* oldUv = m.uv ? m.uv->GetUVWFaceList() : nullptr;
    const int nf = m.faces->GetNumberOfFaces();
    faces->Reserve(static_cast<size_t>(nf), m.faces->GetNumberOfIndices());
    size_t h = 0;
    std::vector<uint32_t> verts, uvs;
    for (int f = 0; f < nf; ++f) {
        faces->SetCurrentMaterial(m.faces->GetMaterialID(f));
        auto fv = m.faces->Face(f);
        verts.assign(fv.begin(), fv.end());
        if (oldUv) {
            auto fu = oldUv->Face(f);
            uvs.assign(fu.begin(), fu.end());
        }
        for (int bridged = 0; h < m.holes.size() && m.holes[h].outer == static_cast<uint32_t>(f); ++h) {
            // Each bridge copies the face: past a few hundred holes the work would grow
            // with the square of the face, so the rest are left out.
            if (++bridged > kMaxHolesPerFace) {
                ++dropped;
                continue;
            }
            Hole& hole = m.holes[h];
            const C3DVector no = FaceNormal(*m.points, verts), nh = FaceNormal(*m.points, hole.verts);
            if (no.Dot(nh) > 0) {
                std::reverse(hole.verts.begin(), hole.verts.end());
                std::reverse(hole.uvs.begin(), hole.uvs.end());
            }
            size_t i, j;
            BridgeEnds(*m.points, verts, hole.verts, i, j);
            verts = Splice(verts, hole.verts, i, j);
            if (oldUv) uvs = Splice(uvs, hole.uvs, i, j);
        }
        faces->AddFace(verts.data(), static_cast<int>(verts.size()));
        if (oldUv) uvFaces.AddFace(uvs.data(), static_cast<int>(uvs.size()));
    }
    m.faces = std::move(faces);
    if (m.uv) *m.uv->GetUVWFaceList() = std::move(uvFaces);
    m.holes.clear();
    return dropped;
}

// Names as trueSpace shows them: "NoName" for none, ",<n>" for a duplicate.
std::string DisplayName(const ObjectBlock& b) {
    std::string name = b.name.empty() ? "NoName" : b.name;
    if (b.dup) name += "," + std::to_string(b.dup);
    return name;
}

C3DSceneNode* MakeNode(Object& o, File& file, CSceneImportOptions& options) {
    std::unique_ptr<C3DBaseObject> obj;
    switch (o.kind) {
    case ObjectKind::Mesh: {
        Mesh& m = file.meshes[static_cast<size_t>(o.mesh)];
        if (BridgeHoles(m)) options.AddLogInfo(LOG_INFO, CXStringW(L"holes beyond 256 in one face left out"));
        auto mesh = std::make_unique<C3DObject>();
        mesh->SetPointList(m.points.release(), true);
        mesh->SetFaceList(m.faces.release(), true);
        if (m.uv) mesh->SetGlobalUVWChannel(mesh->AddChannel(m.uv.release()));
        obj = std::move(mesh);
        break;
    }
    case ObjectKind::Group: obj = std::make_unique<C3DGroup>(); break;
    case ObjectKind::Light: obj = std::make_unique<C3DLight>(LIGHT_POINT); break;
    case ObjectKind::Camera: obj = std::make_unique<C3DCamera>(CAMERA_FREE); break;
    }
    auto* node = new C3DSceneNode(obj.release());
    node->SetName(CXStringW(WidenBytes(DisplayName(o.block))));
    node->SetNodeID(static_cast<uint32_t>(o.id));
    return node;
}

void AddTexture(C3DMaterial& mat, const TextureRef& t, uint32_t type, const CXStringW& folder,
                CSceneImportOptions& options) {
    if (!t.IsSet()) return;
    CXStringW found = FindTexture(t.file, folder);
    if (found.IsEmpty()) {
        options.AddLogInfo(LOG_INFO, CXStringW(L"texture not found: ") + CXStringW(WidenBytes(t.file)));
        found = CXStringW(WidenBytes(t.file));
    }
    CMaterialMap* map = mat.AddMaterialMap(found, -1, type);
    if (!map) return;
    map->SetTile(t.repeat[0], t.repeat[1]);
    map->SetTranslation(t.offset[0], t.offset[1]);
}

} // namespace

void UnitFromCode(int code, int& unit, double& scale) {
    switch (code) {
    case 0:
        unit = UNIT_MILLIMETER;
        scale = 0.1;
        break;
    case 1:
        unit = UNIT_CENTIMETER;
        scale = 1;
        break;
    case 3:
        unit = UNIT_KILOMETER;
        scale = 100000;
        break;
    case 4:
        unit = UNIT_INCH;
        scale = 2.54;
        break;
    case 5:
        unit = UNIT_FOOT;
        scale = 30.48;
        break;
    case 6:
        unit = UNIT_NONE;
        scale = 91.44;
        break; // yard: no host unit, the scale says it
    case 7:
        unit = UNIT_MILE;
        scale = 160934.4;
        break;
    case 8:
        unit = UNIT_NONE;
        scale = 2.54 / 72;
        break; // typographic point
    default:
        unit = UNIT_METER;
        scale = 100;
        break;
    }
}

int CodeFromUnit(int unit) {
    switch (unit) {
    case UNIT_MILLIMETER: return 0;
    case UNIT_CENTIMETER: return 1;
    case UNIT_KILOMETER: return 3;
    case UNIT_INCH: return 4;
    case UNIT_FOOT: return 5;
    case UNIT_MILE: return 7;
    default: return 2;
    }
}

CXStringW FindTexture(const std::string& name, const CXStringW& folder) {
    if (name.empty()) return CXStringW();
    const CXStringW given(WidenBytes(name));
    if (!fileIsPathRelative(given) && fileExists(given)) return given;
    const size_t slash = name.find_last_of("/\\");
    const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    if (base.empty() || base == "." || base == "..") return CXStringW();
    if (!folder.IsEmpty()) {
        const CXStringW beside = folder + CXStringW(WidenBytes(base));
        if (fileExists(beside)) return beside;
    }
    return CXStringW();
}

std::unique_ptr<C3DScene> BuildScene(File& file, const CXStringW& folder, CSceneImportOptions& options) {
    auto scene = std::make_unique<C3DScene>();
    for (const std::string& line : file.log) options.AddLogInfo(LOG_INFO, CXStringW(WidenBytes(line)));
    if (!file.ended) options.AddLogInfo(LOG_INFO, CXStringW(L"no END chunk: the file may be cut short"));

    int unit = UNIT_METER;
    double scale = 100;
    UnitFromCode(file.units.empty() ? 2 : file.units.front().code, unit, scale);
    scene->SetUnit(unit);
    scene->SetScaleFactor(scale);

    // Object handles; the first object with an ID keeps it.
    std::unordered_map<int32_t, size_t> byId;
    for (size_t i = 0; i < file.objects.size(); ++i)
        if (file.objects[i].id != 0) byId.emplace(file.objects[i].id, i);

    // Materials: (mesh object, mat#) -> host material. Shader boxes by their Mat1.
    std::unordered_map<int32_t, const ShaderBox*> boxes;
    for (const ShaderBox& b : file.shaders) boxes.emplace(b.parent, &b);
    std::map<std::pair<size_t, uint16_t>, uint32_t> matIds;
    std::map<size_t, float> smoothAngle;
    uint32_t orphans = 0;
    for (const Material& m : file.materials) {
        auto owner = byId.find(m.parent);
        if (owner == byId.end() || file.objects[owner->second].kind != ObjectKind::Mesh) {
            ++orphans;
            continue;
        }
        const auto key = std::make_pair(owner->second, m.number);
        if (matIds.count(key)) continue;
        auto* mat = static_cast<C3DStandardMaterial*>(scene->CreateNewMaterial(MATERIAL_STANDARD));
        std::string name = DisplayName(file.objects[owner->second].block) + " mat " + std::to_string(m.number);
        mat->SetName(CXStringW(WidenBytes(name)));
        mat->diffuse = Colour(m.rgb);
        mat->diffuseFactor = m.kd;
        mat->transparency = std::clamp(1.0f - m.alpha, 0.0f, 1.0f);
        mat->ambient = mat->diffuse;
        mat->ambientFactor = m.ka;
        mat->specular = CRGBColor(255, 255, 255);
        mat->specularFactor = m.ks;
        mat->shininess = m.exp;
        const float angle = m.facet == 'f' ? 0.0f : m.facet == 's' ? 180.0f : float(m.angle);
        mat->smoothAngle = angle;
        mat->SetFlag(MATF_FACETED, m.facet == 'f');
        mat->GetCustomData().SetInt(kMaterialNumberKey, m.number);
        mat->GetCustomData().SetInt(kShaderKey, m.shader);
        mat->GetCustomData().SetInt(
            kIorKey, static_cast<int32_t>(
                         std::lround((std::isfinite(m.ior) ? std::clamp(m.ior, -1e6f, 1e6f) : 1.0f) * 1000.0f)));
        TextureRef texture = m.texture;
        auto box = boxes.find(m.id);
        if (box != boxes.end()) {
            if (!texture.IsSet() && box->second->texture.IsSet()) texture = box->second->texture;
        }
        AddTexture(*mat, texture, MAP_DIFFUSE, folder, options);
        AddTexture(*mat, m.bump, MAP_BUMP, folder, options);
        AddTexture(*mat, m.environment, MAP_REFLECTION, folder, options);
        matIds.emplace(key, mat->GetID());
        smoothAngle.emplace(owner->second, angle);
    }
    if (orphans) options.AddLogInfo(LOG_INFO, CXStringW(L"materials without a mesh ignored"));

    // Parents: dangling handles and cycles go to the top level.
    const size_t n = file.objects.size();
    std::vector<int64_t> parent(n, -1);
    uint32_t dangling = 0;
    for (size_t i = 0; i < n; ++i) {
        const int32_t p = file.objects[i].parent;
        if (p == 0) continue;
        auto it = byId.find(p);
        if (it == byId.end() || it->second == i) ++dangling;
        else parent[i] = static_cast<int64_t>(it->second);
    }
    // Depth of every object, walking each chain once; a chain that comes back on itself
    // is cut where it closes.
    std::vector<int64_t> depth(n, -1);
    std::vector<uint8_t> state(n, 0); // 0 new, 1 on the current chain, 2 done
    std::vector<size_t> chain;
    uint32_t cycles = 0;
    for (size_t s = 0; s < n; ++s) {
        size_t cur = s;
        chain.clear();
        while (state[cur] == 0 && parent[cur] >= 0) {
            state[cur] = 1;
            chain.push_back(cur);
            cur = static_cast<size_t>(parent[cur]);
        }
        int64_t d;
        if (state[cur] == 1) { // closed a cycle: the object that closes it becomes a root
            ++cycles;
            const size_t closer = chain.back();
            parent[closer] = -1;
            depth[closer] = 0;
            state[closer] = 2;
            chain.pop_back();
            d = 0;
        } else if (state[cur] == 2) {
            d = depth[cur];
        } else { // a root never seen
            depth[cur] = 0;
            state[cur] = 2;
            d = 0;
        }
        for (size_t k = chain.size(); k-- > 0;) {
            // Entries after a cut keep walking down from the cut point.
            depth[chain[k]] = ++d;
            state[chain[k]] = 2;
        }
    }
    if (dangling) options.AddLogInfo(LOG_INFO, CXStringW(L"objects whose parent is missing placed at the top"));
    if (cycles) options.AddLogInfo(LOG_INFO, CXStringW(L"parent cycles broken"));

    std::vector<size_t> order(n);
    for (size_t i = 0; i < n; ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return depth[a] < depth[b]; });
    std::vector<C3DSceneNode*> nodes(n, nullptr);
    std::vector<C4x4Matrix> world(n);
    for (size_t i = 0; i < n; ++i) world[i] = HostMatrix(file.objects[i].block);
    for (size_t i : order) {
        Object& o = file.objects[i];
        if (o.kind == ObjectKind::Mesh) {
            C3DFaceList& faces = *file.meshes[static_cast<size_t>(o.mesh)].faces;
            auto& ids = faces.GetMaterialIDs();
            // Faces come in runs of one material: look each run up once.
            uint32_t lastIn = NO_MATERIAL, lastOut = NO_MATERIAL;
            for (uint32_t& id : ids) {
                if (id != lastIn) {
                    lastIn = id;
                    auto it = matIds.find({i, static_cast<uint16_t>(id)});
                    lastOut = it == matIds.end() ? NO_MATERIAL : it->second;
                }
                id = lastOut;
            }
        }
        C3DSceneNode* node = MakeNode(o, file, options);
        if (o.kind == ObjectKind::Mesh) {
            auto a = smoothAngle.find(i);
            static_cast<C3DGeomObject*>(node->GetBaseObject())
                ->SetSmoothAngle(a == smoothAngle.end() ? 40.0f : a->second);
        }
        C3DSceneNode* up = parent[i] >= 0 ? nodes[static_cast<size_t>(parent[i])] : nullptr;
        C4x4Matrix local = world[i];
        if (up) {
            C4x4Matrix inv;
            if (world[static_cast<size_t>(parent[i])].Invert(inv)) local = world[i] * inv;
        }
        node->SetNodeLocalTM(local);
        scene->AddNode(up, node);
        nodes[i] = node;
    }
    return scene;
}

} // namespace tsio
