#pragma once
// trueSpace test files built by hand from the chunk layouts (binary and ASCII from
// one description), a read shortcut, and a canonical text form of a read scene so
// that two reads can be compared whole.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "formats/classic/CTruespaceIo.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "tests/classic/ClassicTestSupport.h"

namespace cobtest {

struct Face {
    std::vector<std::pair<uint32_t, uint32_t>> corners; // (vertex, uv)
    uint16_t mat = 0;
    bool hole = false;
};

struct Object {
    std::string type = "PolH"; // or "Grou"
    int32_t id = 0, parent = 0;
    std::string name{};
    uint16_t dup = 0;
    float tm[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}; // 3 rows of 4
    std::vector<float> points{};                         // xyz
    std::vector<float> uvs{};                            // uv
    std::vector<Face> faces{};
};

struct Mat {
    int32_t id = 0, parent = 0;
    uint16_t number = 0;
    float rgb[3] = {0.5f, 0.25f, 1.0f};
    float alpha = 1, ka = 0.25f, ks = 0.5f, exp = 0.1f, ior = 1;
    bool hasKd = false;
    float kd = 0.6f;
    std::string texture{}; // t: record (binary only)
};

// Builds one file, binary or ASCII, from chunks added in order.
class Builder {
public:
    // `bigEndian`: an "HL" binary file, every number byte-swapped.
    explicit Builder(bool ascii, bool bigEndian = false) : m_ascii(ascii), m_be(bigEndian && !ascii) {
        m_out = "Caligari V00.01";
        m_out += ascii ? 'A' : 'B';
        m_out += m_be ? "HL             \n" : "LH             \n";
    }
    bool ascii() const { return m_ascii; }

    Builder& Add(const Object& o) {
        std::string b;
        if (m_ascii) {
            b += "Name " + (o.name.empty() ? std::string("NoName") : o.name);
            if (o.dup) b += "," + std::to_string(o.dup);
            b += "\ncenter " + N(o.tm[3]) + " " + N(o.tm[7]) + " " + N(o.tm[11]) + "\n";
            b += "x axis 1 0 0\ny axis 0 1 0\nz axis 0 0 1\nTransform\n";
            for (int r = 0; r < 3; ++r)
                b += N(o.tm[4 * r]) + " " + N(o.tm[4 * r + 1]) + " " + N(o.tm[4 * r + 2]) + " " + N(o.tm[4 * r + 3]) +
                     "\n";
            b += "0 0 0 1\n";
            if (o.type == "PolH") {
                b += "World Vertices " + std::to_string(o.points.size() / 3) + "\n";
                for (size_t i = 0; i < o.points.size(); i += 3)
                    b += N(o.points[i]) + " " + N(o.points[i + 1]) + " " + N(o.points[i + 2]) + "\n";
                b += "Texture Vertices " + std::to_string(o.uvs.size() / 2) + "\n";
                for (size_t i = 0; i < o.uvs.size(); i += 2) b += N(o.uvs[i]) + " " + N(o.uvs[i + 1]) + "\n";
                b += "Faces " + std::to_string(o.faces.size()) + "\n";
                for (const Face& f : o.faces) {
                    b += f.hole ? "Hole" : "Face";
                    b += " verts " + std::to_string(f.corners.size()) + " flags " + (f.hole ? "8" : "0");
                    if (!f.hole) b += " mat " + std::to_string(f.mat);
                    b += "\n";
                    for (auto& c : f.corners)
                        b += "<" + std::to_string(c.first) + "," + std::to_string(c.second) + "> ";
                    b += "\n";
                }
                b += "DrawFlags 0\n";
            }
        } else {
            U16(b, o.dup);
            U16(b, static_cast<uint16_t>(o.name.size()));
            b += o.name;
            const float frame[12] = {o.tm[3], o.tm[7], o.tm[11], 1, 0, 0, 0, 1, 0, 0, 0, 1};
            for (float f : frame) F32(b, f);
            for (float f : o.tm) F32(b, f);
            if (o.type == "PolH") {
                U32(b, static_cast<uint32_t>(o.points.size() / 3));
                for (float f : o.points) F32(b, f);
                U32(b, static_cast<uint32_t>(o.uvs.size() / 2));
                for (float f : o.uvs) F32(b, f);
                U32(b, static_cast<uint32_t>(o.faces.size()));
                for (const Face& f : o.faces) {
                    b += static_cast<char>(f.hole ? 8 : 0);
                    U16(b, static_cast<uint16_t>(f.corners.size()));
                    if (!f.hole) U16(b, f.mat);
                    for (auto& c : f.corners) {
                        U32(b, c.first);
                        U32(b, c.second);
                    }
                }
                U32(b, 0);
            }
        }
        return Chunk(o.type, 0, o.type == "PolH" ? 8 : 1, o.id, o.parent, b);
    }

    Builder& Add(const Mat& m) {
        std::string b;
        if (m_ascii) {
            b += "mat# " + std::to_string(m.number) + "\nshader: phong  facet: auto40\n";
            b += "rgb " + N(m.rgb[0]) + "," + N(m.rgb[1]) + "," + N(m.rgb[2]) + "\n";
            b += "alpha " + N(m.alpha) + "  ka " + N(m.ka) + "  ks " + N(m.ks) + "  exp " + N(m.exp) + "  ior " +
                 N(m.ior);
            if (m.hasKd) b += "  kd " + N(m.kd);
            b += "\n";
        } else {
            U16(b, m.number);
            b += "pa";
            b += static_cast<char>(40);
            for (float f : m.rgb) F32(b, f);
            for (float f : {m.alpha, m.ka, m.ks, m.exp, m.ior}) F32(b, f);
            if (m.hasKd) F32(b, m.kd);
            if (!m.texture.empty()) {
                b += "t:";
                b += static_cast<char>(2);
                U16(b, static_cast<uint16_t>(m.texture.size()));
                b += m.texture;
                for (float f : {0.0f, 0.0f, 1.0f, 1.0f}) F32(b, f);
            }
        }
        return Chunk("Mat1", 0, 8, m.id, m.parent, b);
    }

    Builder& Unit(int32_t id, int32_t parent, uint16_t code) {
        std::string b;
        if (m_ascii) b = "Units " + std::to_string(code) + "\n";
        else U16(b, code);
        return Chunk("Unit", 0, 1, id, parent, b);
    }

    // Any chunk; `size` overrides the binary size field (a lying size).
    Builder& Chunk(const std::string& type, int major, int minor, int32_t id, int32_t parent, const std::string& body,
                   int64_t size = -1) {
        if (m_ascii) {
            char line[128];
            std::snprintf(line, sizeof line, "%-4.4s V%d.%02d Id %d Parent %d Size %08zu\n", type.c_str(), major, minor,
                          id, parent, body.size() + 1);
            m_out += line;
        } else {
            m_out += type.substr(0, 4);
            U16(m_out, static_cast<uint16_t>(major));
            U16(m_out, static_cast<uint16_t>(minor));
            U32(m_out, static_cast<uint32_t>(id));
            U32(m_out, static_cast<uint32_t>(parent));
            U32(m_out, static_cast<uint32_t>(size >= 0 ? size : static_cast<int64_t>(body.size())));
        }
        m_out += body;
        return *this;
    }

    Builder& End() {
        if (m_ascii) m_out += "END  V1.00 Id 0 Parent 0 Size        0\n";
        else Chunk("END ", 1, 0, 0, 0, "");
        return *this;
    }
    const std::string& Bytes() const { return m_out; }

    void U16(std::string& s, uint16_t v) const {
        if (m_be) v = __builtin_bswap16(v);
        s.append(reinterpret_cast<const char*>(&v), 2);
    }
    void U32(std::string& s, uint32_t v) const {
        if (m_be) v = __builtin_bswap32(v);
        s.append(reinterpret_cast<const char*>(&v), 4);
    }
    void F32(std::string& s, float v) const {
        uint32_t u;
        std::memcpy(&u, &v, 4);
        U32(s, u);
    }
    // Shortest text that reads back as the same float.
    static std::string N(float v) {
        char buf[32];
        for (int p = 6; p <= 9; ++p) {
            std::snprintf(buf, sizeof buf, "%.*g", p, static_cast<double>(v));
            if (std::strtof(buf, nullptr) == v) break;
        }
        return buf;
    }

private:
    bool m_ascii;
    bool m_be;
    std::string m_out;
};

using classictest::ReadResult;

inline ReadResult Read(const std::string& bytes) {
    CFileIo io;
    CSceneImportOptions opt;
    CTruespaceIo parser(io);
    ReadResult r;
    r.scene.reset(parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, opt));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    r.log = opt.GetLog();
    return r;
}

// Every node, in traversal order.
inline std::vector<C3DSceneNode*> Nodes(const C3DScene& s) {
    std::vector<C3DSceneNode*> out;
    C3DNodePos pos = s.GetFirstNode(KINDOF_ALL);
    while (C3DSceneNode* n = s.GetNextNode(pos)) out.push_back(n);
    return out;
}

// The scene as text: nodes (name, parent, kind, local matrix), mesh points, faces with
// material names, UV faces and points, materials. Numbers rounded to `digits` significant
// digits so that an ASCII twin (six digits in the file) compares equal to its binary one.
inline std::string Describe(const C3DScene& s, int digits = 9) {
    std::string out;
    auto num = [&](double v) {
        char b[40];
        if (std::fabs(v) < 1e-5) v = 0; // ASCII files print tiny values in few digits
        std::snprintf(b, sizeof b, "%.*g ", digits, v);
        out += b;
    };
    auto name = [](const C3DSceneNode* n) { return n ? WideToUtf8(n->GetName().str()) : std::string("-"); };
    for (const C3DSceneNode* n : Nodes(s)) {
        out += "node " + name(n) + " parent " + name(n->GetParent() == s.GetRoot() ? nullptr : n->GetParent()) +
               " kind " + std::to_string(n->GetKindOf()) + "\n tm ";
        for (auto& row : n->GetStaticLocalTM().m)
            for (float v : row) num(v);
        out += "\n";
        const C3DGeomObject* g = n->GetGeomObject();
        if (!g) continue;
        const C3DPointList* p = g->GetPointList();
        out += " points " + std::to_string(p->size()) + ":";
        for (size_t i = 0; i < p->size() * 3; ++i) num(p->GetData()[i]);
        const C3DFaceList* f = g->GetFaceList();
        out += "\n faces " + std::to_string(f->GetNumberOfFaces()) + ":";
        for (int i = 0; i < f->GetNumberOfFaces(); ++i) {
            out += " [";
            for (uint32_t v : f->Face(i)) out += std::to_string(v) + " ";
            const C3DMaterial* m = s.GetMaterialByID(f->GetMaterialID(i));
            out += m ? WideToUtf8(m->GetName().str()) : std::string("none");
            out += "]";
        }
        if (const CUVWChannel* uv = g->GetGlobalUVWChannel()) {
            out += "\n uvfaces:";
            const CUVWFaceList* uf = uv->GetUVWFaceList();
            for (int i = 0; i < uf->GetNumberOfFaces(); ++i) {
                out += " [";
                for (uint32_t v : uf->Face(i)) out += std::to_string(v) + " ";
                out += "]";
            }
            out += "\n uvs:";
            for (size_t i = 0; i < uv->GetUVWPointList()->size() * 3; ++i) num(uv->GetUVWPointList()->GetData()[i]);
        }
        out += "\n";
    }
    CMaterialPos mp;
    for (C3DMaterial* m = s.GetFirstMaterial(mp); m; m = s.GetNextMaterial(mp)) {
        out += "material " + WideToUtf8(m->GetName().str()) + " diffuse " + std::to_string(m->diffuse.r) + "," +
               std::to_string(m->diffuse.g) + "," + std::to_string(m->diffuse.b) + " kd ";
        num(m->diffuseFactor);
        out += "transparency ";
        num(m->transparency);
        if (const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE)) out += " map " + WideToUtf8(map->file.str());
        out += "\n";
    }
    out += "unit " + std::to_string(s.GetUnit()) + "\n";
    return out;
}

} // namespace cobtest
