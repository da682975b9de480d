#include "formats/classic/TruespaceWriter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "formats/classic/TruespaceModel.h"
#include "formats/classic/TruespaceScene.h"
#include "plugin/host/BinaryCursor.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/NumberFormat.h"
#include "plugin/host/Object.h"
#include "plugin/host/TextHelpers.h"

namespace tsio {

namespace {

// Names go out one byte per character (trueSpace keeps ANSI names); beyond Latin-1: '?'.
std::string NarrowName(const CXStringW& w) {
    std::string s;
    AppendLatin1(s, w.view());
    if (s.size() > 0xFFFF) s.resize(0xFFFF);
    return s;
}

// A chunk's body, in either encoding.
class Body {
public:
    explicit Body(bool ascii) : m_ascii(ascii) {}
    std::string s;

    // Binary pieces.
    void U8(uint8_t v) { s.push_back(static_cast<char>(v)); }
    void U16(uint16_t v) {
        uint8_t b[2];
        PutU16le(b, v);
        s.append(reinterpret_cast<const char*>(b), 2);
    }
    void U32(uint32_t v) {
        uint8_t b[4];
        PutU32le(b, v);
        s.append(reinterpret_cast<const char*>(b), 4);
    }
    void F32(float v) {
        uint8_t b[4];
        PutF32le(b, v);
        s.append(reinterpret_cast<const char*>(b), 4);
    }
    void Str(const std::string& v) {
        U16(static_cast<uint16_t>(std::min<size_t>(v.size(), 0xFFFF)));
        s.append(v, 0, 0xFFFF);
    }

    // Text pieces.
    Body& T(std::string_view v) {
        s.append(v);
        return *this;
    }
    Body& G(double v) {
        numfmt::AppendGeneral(s, v, 6);
        return *this;
    }
    Body& I(long long v) {
        numfmt::AppendInt(s, v);
        return *this;
    }
    Body& Gs(const float* v, int n, char sep = ' ') {
        for (int i = 0; i < n; ++i) {
            if (i) s.push_back(sep);
            G(v[i]);
        }
        return *this;
    }
    bool ascii() const { return m_ascii; }

private:
    bool m_ascii;
};

void EmitChunk(std::string& out, bool ascii, const char type[4], int major, int minor, int32_t id, int32_t parent,
               const std::string& body) {
    if (ascii) {
        out.append(type, 4);
        // trueSpace counts one byte more than the body, except on END, whose size is a padded 0.
        if (std::memcmp(type, "END ", 4) == 0)
            numfmt::AppendFormat(out, " V%d.%02d Id %d Parent %d Size %8d\n", major, minor, id, parent, 0);
        else
            numfmt::AppendFormat(out, " V%d.%02d Id %d Parent %d Size %08zu\n", major, minor, id, parent,
                                 body.size() + 1);
    } else {
        uint8_t h[20];
        std::memcpy(h, type, 4);
        PutU16le(h + 4, static_cast<uint16_t>(major));
        PutU16le(h + 6, static_cast<uint16_t>(minor));
        PutU32le(h + 8, static_cast<uint32_t>(id));
        PutU32le(h + 12, static_cast<uint32_t>(parent));
        PutU32le(h + 16, static_cast<uint32_t>(body.size()));
        out.append(reinterpret_cast<const char*>(h), 20);
    }
    out += body;
}

// A node name read from trueSpace carries the duplicate counter as ",<n>": it goes back there.
void SplitDuplicate(std::string& name, uint16_t& dup) {
    dup = 0;
    const size_t comma = name.rfind(',');
    if (comma == std::string::npos || comma + 1 >= name.size() || name.size() - comma > 6) return;
    uint32_t v = 0;
    for (size_t i = comma + 1; i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9') return;
        v = v * 10 + static_cast<uint32_t>(name[i] - '0');
    }
    if (v == 0 || v > 0xFFFF || name[comma + 1] == '0') return;
    dup = static_cast<uint16_t>(v);
    name.resize(comma);
    if (name == "NoName") name.clear();
}

void ObjectBlockOut(Body& b, std::string name, const C4x4Matrix& m) {
    uint16_t dup = 0;
    SplitDuplicate(name, dup);
    // Centre and axes repeat the frame of the matrix.
    float centre[3] = {m.m[3][0], m.m[3][1], m.m[3][2]};
    float axes[3][3];
    for (int a = 0; a < 3; ++a) {
        const C3DVector v = C3DVector(m.m[a][0], m.m[a][1], m.m[a][2]).Normalized();
        axes[a][0] = v.x;
        axes[a][1] = v.y;
        axes[a][2] = v.z;
    }
    float rows[3][4];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) rows[r][c] = m.m[c][r];
    if (b.ascii()) {
        b.T("Name ").T(name.empty() ? "NoName" : name);
        if (dup) b.T(",").I(dup);
        b.T("\n");
        b.T("center ").Gs(centre, 3).T("\n");
        const char* labels[3] = {"x axis ", "y axis ", "z axis "};
        for (int a = 0; a < 3; ++a) b.T(labels[a]).Gs(axes[a], 3).T("\n");
        b.T("Transform\n");
        for (auto& row : rows) b.Gs(row, 4).T("\n");
        b.T("0 0 0 1\n");
    } else {
        b.U16(dup);
        b.Str(name);
        for (float v : centre) b.F32(v);
        for (auto& axis : axes)
            for (float v : axis) b.F32(v);
        for (auto& row : rows)
            for (float v : row) b.F32(v);
    }
}

struct MaterialOut {
    uint16_t number = 0;
    char shader = 'p', facet = 'a';
    uint8_t angle = 40;
    float rgb[3] = {0.8f, 0.8f, 0.8f};
    float alpha = 1, ka = 0.1f, ks = 0.5f, exp = 0.1f, ior = 1, kd = 1;
    TextureRef texture;
};

MaterialOut DescribeMaterial(const C3DMaterial* m, uint16_t number) {
    MaterialOut o;
    o.number = number;
    if (!m) return o;
    float c[4];
    m->diffuse.GetColor4f(c, 255.0f);
    std::copy(c, c + 3, o.rgb);
    o.kd = m->diffuseFactor;
    o.alpha = std::clamp(1.0f - m->transparency, 0.0f, 1.0f);
    if (m->GetClass() == MATERIAL_STANDARD) {
        const auto* s = static_cast<const C3DStandardMaterial*>(m);
        o.ka = s->ambientFactor;
        o.ks = s->specularFactor;
        o.exp = s->shininess;
    }
    if (m->IsFlagSet(MATF_FACETED) || m->smoothAngle <= 0) {
        o.facet = 'f';
    } else if (m->smoothAngle >= 180) {
        o.facet = 's';
    } else {
        o.facet = 'a';
        o.angle = static_cast<uint8_t>(std::lround(m->smoothAngle));
    }
    const CCustomData& cd = const_cast<C3DMaterial*>(m)->GetCustomData();
    const int shader = cd.GetInt(kShaderKey, 'p');
    o.shader = shader == 'f' || shader == 'm' ? static_cast<char>(shader) : 'p';
    o.ior = static_cast<float>(cd.GetInt(kIorKey, 1000)) / 1000.0f;
    if (const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE)) {
        o.texture.file = WideToUtf8(map->file.str());
        o.texture.repeat[0] = map->tileU;
        o.texture.repeat[1] = map->tileV;
        o.texture.offset[0] = map->translateU;
        o.texture.offset[1] = map->translateV;
    }
    return o;
}

void MaterialBody(Body& b, const MaterialOut& m) {
    if (b.ascii()) {
        b.T("mat# ").I(m.number).T("\n");
        b.T("shader: ").T(m.shader == 'f' ? "flat" : m.shader == 'm' ? "metal" : "phong").T("  facet: ");
        if (m.facet == 'a') b.T("auto").I(m.angle);
        else b.T(m.facet == 'f' ? "faceted" : "smooth");
        // trueSpace prints colour components with a decimal point ("1.0"), and readers
        // that follow it reject a bare "1".
        b.T("\nrgb ");
        for (int k = 0; k < 3; ++k) {
            if (k) b.T(",");
            const size_t at = b.s.size();
            b.G(m.rgb[k]);
            if (b.s.find_first_of(".ein", at) == std::string::npos) b.T(".0");
        }
        b.T("\nalpha ").G(m.alpha).T("  ka ").G(m.ka).T("  ks ").G(m.ks).T("  exp ").G(m.exp).T("  ior ").G(m.ior);
        if (!m.texture.IsSet()) b.T("  kd ").G(m.kd);
        // The texture goes in the ShBx only, as trueSpace's own ASCII files have it.
        b.T("\n");
        return;
    }
    b.U16(m.number);
    b.U8(static_cast<uint8_t>(m.shader));
    b.U8(static_cast<uint8_t>(m.facet));
    b.U8(m.angle);
    for (float v : m.rgb) b.F32(v);
    b.F32(m.alpha);
    b.F32(m.ka);
    b.F32(m.ks);
    b.F32(m.exp);
    b.F32(m.ior);
    // The diffuse factor and a texture record never come together in known files; readers
    // that expect the record right after ior lose the texture otherwise.
    if (!m.texture.IsSet()) b.F32(m.kd);
    if (m.texture.IsSet()) {
        b.T("t:");
        b.U8(2);
        b.Str(m.texture.file);
        b.F32(m.texture.offset[0]);
        b.F32(m.texture.offset[1]);
        b.F32(m.texture.repeat[0]);
        b.F32(m.texture.repeat[1]);
    }
}

// One shader parameter of a ShBx slot.
struct Param {
    const char* name;
    uint32_t type; // 3 float, 6 bool, 7 colour, 10 string
    float f[3];
    std::string s;
};

void ShaderSlot(Body& b, uint8_t cls, const char* className, const char* shown, const char* internal,
                const std::vector<Param>& params) {
    if (b.ascii()) {
        b.T("Shader class: ").T(className).T("\nShader name: \"").T(shown).T("\" (").T(internal).T(")\n");
        b.T("Number of parameters: ").I(static_cast<long long>(params.size())).T("\n");
        for (const Param& p : params) {
            b.T(p.name).T(": ");
            switch (p.type) {
            case 3: b.T("float ").G(p.f[0]); break;
            case 6: b.T("bool ").I(p.f[0] != 0); break;
            case 7:
                b.T("color (");
                for (int k = 0; k < 3; ++k) {
                    if (k) b.T(", ");
                    b.I(std::lround(std::clamp(p.f[k], 0.0f, 1.0f) * 255.0f));
                }
                b.T(")");
                break;
            default: b.T("string \"").T(p.s).T("\""); break;
            }
            b.T("\n");
        }
        b.T("Flags: 3\n");
        return;
    }
    b.U8(cls);
    b.Str(internal);
    b.U32(static_cast<uint32_t>(params.size()));
    for (const Param& p : params) {
        b.Str(p.name);
        b.U32(p.type);
        switch (p.type) {
        case 3: b.F32(p.f[0]); break;
        case 6: b.U32(p.f[0] != 0); break;
        case 7:
            for (float v : p.f) b.F32(v);
            break;
        default: b.Str(p.s); break;
        }
    }
    b.U16(3);
}

void ShaderBoxBody(Body& b, const MaterialOut& m) {
    if (m.texture.IsSet()) {
        ShaderSlot(b, 0, "color", "texture map", "caligari texture",
                   {{"file name", 10, {0, 0, 0}, m.texture.file},
                    {"S repeat", 3, {m.texture.repeat[0], 0, 0}, {}},
                    {"T repeat", 3, {m.texture.repeat[1], 0, 0}, {}},
                    {"S offset", 3, {m.texture.offset[0], 0, 0}, {}},
                    {"T offset", 3, {m.texture.offset[1], 0, 0}, {}},
                    {"animate", 6, {0, 0, 0}, {}},
                    {"filter", 6, {0, 0, 0}, {}}});
    } else {
        ShaderSlot(b, 0, "color", "plain color", "plain", {{"colour", 7, {m.rgb[0], m.rgb[1], m.rgb[2]}, {}}});
    }
    ShaderSlot(b, 1, "transparency", "none", "none", {});
    // The phong exponent follows exp as the samples pair them (0 -> 3, 0.1 -> 4.65).
    ShaderSlot(b, 2, "reflectance", "caligari phong", "caligari phong",
               {{"ambient factor", 3, {m.ka, 0, 0}, {}},
                {"diffuse factor", 3, {m.kd, 0, 0}, {}},
                {"specular factor", 3, {m.ks, 0, 0}, {}},
                {"exponent", 3, {3.0f + 16.5f * m.exp, 0, 0}, {}},
                {"specular colour", 7, {1, 1, 1}, {}},
                {"transmission factor", 3, {0, 0, 0}, {}},
                {"mirror factor", 3, {0, 0, 0}, {}},
                {"refraction", 3, {m.ior, 0, 0}, {}}});
    ShaderSlot(b, 3, "displacement", "none", "none", {});
}

class Writer {
public:
    Writer(const C3DScene& scene, bool ascii, std::string& out) : m_scene(scene), m_ascii(ascii), m_out(out) {}

    size_t Write() {
        m_out.append("Caligari V00.01");
        m_out.push_back(m_ascii ? 'A' : 'B');
        m_out.append("LH             \n");
        C3DNodePos pos = m_scene.GetFirstNode(KINDOF_ALL, 0, nullptr, nullptr);
        C3DBaseObject* obj = nullptr;
        while (C3DSceneNode* node = m_scene.GetNextNode(obj, pos)) {
            if (!obj || obj->GetKindOf() == KINDOF_GROUP) Group(*node);
            else if (obj->GetKindOf() == KINDOF_MESH && !obj->IsFlagSet(OBJF_HIDDEN))
                Mesh(*node, *static_cast<const C3DGeomObject*>(obj));
        }
        EmitChunk(m_out, m_ascii, "END ", 1, 0, 0, 0, {});
        return m_meshes;
    }

private:
    int32_t ParentId(const C3DSceneNode& node) const {
        for (const C3DSceneNode* p = node.GetParent(); p; p = p->GetParent()) {
            auto it = m_ids.find(p);
            if (it != m_ids.end()) return it->second;
        }
        return 0;
    }

    void UnitChunk(int32_t id) {
        Body b(m_ascii);
        const int code = CodeFromUnit(m_scene.GetUnit());
        if (m_ascii) b.T("Units ").I(code).T("\n");
        else b.U16(static_cast<uint16_t>(code));
        EmitChunk(m_out, m_ascii, "Unit", 0, 1, id, id - 1, b.s);
    }

    void Group(const C3DSceneNode& node) {
        const int32_t id = m_next;
        m_next += 2;
        C4x4Matrix world;
        node.GetNodeTM(0, world);
        Body b(m_ascii);
        ObjectBlockOut(b, NarrowName(node.GetName()), world);
        EmitChunk(m_out, m_ascii, "Grou", 0, 1, id, ParentId(node), b.s);
        UnitChunk(id + 1);
        m_ids.emplace(&node, id);
    }

    void Mesh(const C3DSceneNode& node, const C3DGeomObject& obj) {
        const C3DPointList* pts = obj.GetPointList();
        const C3DFaceList* faces = obj.GetFaceList();
        if (!pts || !faces) return;
        const uint32_t np = static_cast<uint32_t>(pts->size());
        const CUVWChannel* uvc = obj.GetGlobalUVWChannel();
        if (!uvc) uvc = static_cast<const CUVWChannel*>(obj.GetChannelByIndex(0, CHANNEL_UVW));
        const CUVWFaceList* uvf = uvc ? uvc->GetUVWFaceList() : nullptr;
        const CUVWPointList* uvp = uvc ? uvc->GetUVWPointList() : nullptr;
        if (uvf && uvf->GetNumberOfFaces() != faces->GetNumberOfFaces()) uvf = nullptr;
        const uint32_t nuv = uvf && uvp && uvp->size() > 0 ? static_cast<uint32_t>(uvp->size()) : 0;

        // Faces that go out, and the materials they use (mat# in order of material ID).
        std::vector<int> kept;
        std::vector<uint32_t> used;
        const int nf = faces->GetNumberOfFaces();
        for (int f = 0; f < nf; ++f) {
            auto idx = faces->Face(f);
            if (idx.size() < 3 || idx.size() > 0xFFFF || faces->IsFaceFlagSet(f, FACE_SKIP)) continue;
            if (std::any_of(idx.begin(), idx.end(), [&](uint32_t i) { return i >= np; })) continue;
            kept.push_back(f);
            used.push_back(faces->GetMaterialID(f));
        }
        std::sort(used.begin(), used.end());
        used.erase(std::unique(used.begin(), used.end()), used.end());
        if (used.size() > 0xFFFF) used.resize(0xFFFF);
        // mat# per material: the one it was read with when those stay distinct, else its rank.
        std::vector<uint16_t> numbers(used.size());
        bool keep = true;
        for (size_t k = 0; k < used.size(); ++k) {
            const C3DMaterial* m = used[k] == NO_MATERIAL ? nullptr : m_scene.GetMaterialByID(used[k]);
            const int n = m ? const_cast<C3DMaterial*>(m)->GetCustomData().GetInt(kMaterialNumberKey, -1) : -1;
            if (n < 0 || n > 0xFFFF) keep = false;
            numbers[k] = static_cast<uint16_t>(n < 0 ? 0 : n);
        }
        std::vector<uint16_t> sorted(numbers);
        std::sort(sorted.begin(), sorted.end());
        if (!keep || std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end())
            for (size_t k = 0; k < used.size(); ++k) numbers[k] = static_cast<uint16_t>(k);
        auto number = [&](uint32_t id) {
            auto it = std::lower_bound(used.begin(), used.end(), id);
            return numbers[it == used.end() ? 0 : static_cast<size_t>(it - used.begin())];
        };

        const int32_t id = m_next;
        m_next += 2 + 2 * static_cast<int32_t>(used.size());
        C4x4Matrix world, objectTM;
        node.GetNodeTM(0, world);
        node.GetObjectLocalTM(0, objectTM);
        Body b(m_ascii);
        ObjectBlockOut(b, NarrowName(node.GetName()), objectTM * world);
        const float* p = pts->GetData();
        const float* t = nuv ? uvp->GetData() : nullptr;
        if (m_ascii) {
            b.T("World Vertices ").I(np).T("\n");
            for (uint32_t i = 0; i < np; ++i) b.Gs(p + 3 * i, 3).T("\n");
            b.T("Texture Vertices ").I(nuv ? nuv : 1).T("\n");
            if (nuv)
                for (uint32_t i = 0; i < nuv; ++i) b.Gs(t + 3 * i, 2).T("\n");
            else b.T("0 0\n");
            b.T("Faces ").I(static_cast<long long>(kept.size())).T("\n");
        } else {
            b.U32(np);
            for (uint64_t i = 0; i < uint64_t(np) * 3; ++i) b.F32(p[i]);
            b.U32(nuv ? nuv : 1);
            if (nuv)
                for (uint32_t i = 0; i < nuv; ++i) {
                    b.F32(t[3 * i]);
                    b.F32(t[3 * i + 1]);
                }
            else {
                b.F32(0);
                b.F32(0);
            }
            b.U32(static_cast<uint32_t>(kept.size()));
        }
        for (int f : kept) {
            auto idx = faces->Face(f);
            const size_t n = idx.size();
            const uint32_t* uvIdx = nuv ? uvf->GetFaceIndices(f) : nullptr;
            const bool uvOk = uvIdx && uvf->GetFaceSize(f) == static_cast<int>(n);
            const uint16_t mat = number(faces->GetMaterialID(f));
            // The host winds counter-clockwise; trueSpace the other way.
            if (m_ascii) {
                b.T("Face verts ").I(static_cast<long long>(n)).T(" flags 0 mat ").I(mat).T("\n");
                for (size_t k = n; k-- > 0;) {
                    const uint32_t uv = uvOk && uvIdx[k] < nuv ? uvIdx[k] : 0;
                    b.T("<").I(idx[k]).T(",").I(uv).T("> ");
                }
                b.T("\n");
            } else {
                b.U8(0);
                b.U16(static_cast<uint16_t>(n));
                b.U16(mat);
                for (size_t k = n; k-- > 0;) {
                    b.U32(idx[k]);
                    b.U32(uvOk && uvIdx[k] < nuv ? uvIdx[k] : 0);
                }
            }
        }
        if (m_ascii) b.T("DrawFlags 0\n");
        else b.U32(0);
        EmitChunk(m_out, m_ascii, "PolH", 0, 8, id, ParentId(node), b.s);
        m_ids.emplace(&node, id);
        UnitChunk(id + 1);
        for (size_t k = 0; k < used.size(); ++k) {
            const C3DMaterial* m = used[k] == NO_MATERIAL ? nullptr : m_scene.GetMaterialByID(used[k]);
            const MaterialOut mo = DescribeMaterial(m, numbers[k]);
            const int32_t matId = id + 2 + 2 * static_cast<int32_t>(k);
            Body mb(m_ascii);
            MaterialBody(mb, mo);
            EmitChunk(m_out, m_ascii, "Mat1", 0, 8, matId, id, mb.s);
            Body sb(m_ascii);
            ShaderBoxBody(sb, mo);
            EmitChunk(m_out, m_ascii, "ShBx", 0, 4, matId + 1, matId, sb.s);
        }
        ++m_meshes;
    }

    const C3DScene& m_scene;
    bool m_ascii;
    std::string& m_out;
    int32_t m_next = 100;
    size_t m_meshes = 0;
    std::unordered_map<const C3DSceneNode*, int32_t> m_ids;
};

} // namespace

size_t WriteScene(const C3DScene& scene, bool ascii, std::string& out) {
    Writer w(scene, ascii, out);
    return w.Write();
}

} // namespace tsio
