// LWO2 writer. The file is built in memory with its lengths patched as chunks close, then
// written in one piece. Host space is right-handed: Z is negated and every polygon's corners
// after the first are reversed (the reader's own mapping, which is its own inverse).
// Polygons longer than 1023 corners are cut into fans of pieces that share the first corner.
#include "formats/classic/LightwaveWriter.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <unordered_map>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/ByteSink.h"
#include "plugin/host/Channel.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"

namespace lightwave {

namespace {

constexpr uint32_t kMaxCorners = 1023;

// The host's byte sink over the output vector, with IFF chunk layouts.
class Sink {
public:
    explicit Sink(std::vector<uint8_t>& b) : m_b(b), m_target(b), m_out(m_target) {}
    ~Sink() { m_out.Flush(); }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    void Id(const char* id) { m_out.Bytes(id, 4); }
    void U8(uint8_t v) { m_out.U8(v); }
    void U16(uint16_t v) { m_out.U16be(v); }
    void U32(uint32_t v) { m_out.U32be(v); }
    void F32(float f) { m_out.F32be(f); }
    void Vec(float x, float y, float z) {
        uint8_t* p = m_out.Reserve(12);
        PutF32be(p, x);
        PutF32be(p + 4, y);
        PutF32be(p + 8, z);
    }
    void VX(uint32_t i) {
        if (i < 0xFF00) U16(static_cast<uint16_t>(i));
        else U32(i | 0xFF000000u);
    }
    void S0(const std::string& s) {
        m_out.Bytes(s.data(), s.size());
        m_out.U8(0);
        if ((s.size() + 1) & 1) m_out.U8(0);
    }
    // Chunks with U4 lengths, sub-chunks with U2 lengths; odd payloads are padded.
    void Chunk(const char* id) { m_open.push_back(m_out.BeginChunk(kChunkIFF, FourCC(id))); }
    void Sub(const char* id) { m_open.push_back(m_out.BeginChunk(kSubChunkIFF, FourCC(id))); }
    void End() {
        m_out.EndChunk(m_open.back());
        m_open.pop_back();
    }
    void Reserve(size_t n) { m_b.reserve(n); }

private:
    static uint32_t FourCC(const char* id) {
        return uint32_t(uint8_t(id[0])) << 24 | uint32_t(uint8_t(id[1])) << 16 | uint32_t(uint8_t(id[2])) << 8 |
               uint8_t(id[3]);
    }
    std::vector<uint8_t>& m_b;
    CMemoryTarget m_target;
    CByteSink m_out;
    std::vector<CByteSink::Mark> m_open;
};

std::string Narrow(const CXStringW& s) { return WideToUtf8(s.view()); }

std::string UvName(const CUVWChannel& ch) {
    const std::string n = Narrow(ch.GetName());
    return n.empty() ? "UV" + std::to_string(ch.GetChannelID()) : n;
}

struct LayerSrc {
    const C3DSceneNode* node;
    const C3DObject* mesh;
    int parent; // layer number, -1 none
    C4x4Matrix world;
};

} // namespace

bool WriteObject(const C3DScene& scene, std::vector<uint8_t>& out) {
    // Mesh nodes in tree order; a layer's parent is the nearest mesh ancestor.
    std::vector<LayerSrc> layers;
    std::unordered_map<const C3DSceneNode*, int> layerOf;
    size_t estimate = 64;
    C3DBaseObject* o;
    for (C3DNodePos p = scene.GetFirstNode(); C3DSceneNode* n = scene.GetNextNode(o, p);) {
        if (!o || o->GetKindOf() != KINDOF_MESH) continue;
        auto* mesh = static_cast<const C3DObject*>(o);
        if (!mesh->GetPointList() || !mesh->GetFaceList()) continue;
        if (layers.size() >= 0xFFFF) break;
        int parent = -1;
        for (const C3DSceneNode* a = n->GetParent(); a; a = a->GetParent()) {
            auto it = layerOf.find(a);
            if (it != layerOf.end()) {
                parent = it->second;
                break;
            }
        }
        C4x4Matrix world, objectTM;
        n->GetNodeTM(0, world);
        n->GetObjectLocalTM(0, objectTM);
        layerOf.emplace(n, static_cast<int>(layers.size()));
        layers.push_back({n, mesh, parent, objectTM * world});
        estimate += mesh->GetPointList()->size() * 30 + mesh->GetFaceList()->GetNumberOfIndices() * 16 +
                    size_t(mesh->GetFaceList()->GetNumberOfFaces()) * 8;
    }
    if (layers.empty()) return false;

    // Surfaces: one per material the meshes use (and "Default" for faces without one), in
    // material ID order so the output does not depend on which mesh comes first.
    std::map<uint32_t, int> surfaceOf; // material ID -> tag index
    for (const LayerSrc& l : layers)
        for (uint32_t m : l.mesh->GetFaceList()->GetMaterialIDs())
            surfaceOf.emplace(scene.GetMaterialByID(m) ? m : NO_MATERIAL, 0);
    std::vector<std::string> tags;
    std::unordered_map<std::string, int> tagIndex;
    // Per name, the first suffix not yet known to be taken: tags are never removed, so many
    // materials of one name do not try every suffix again.
    std::unordered_map<std::string, int> nextSuffix;
    for (auto& [id, tag] : surfaceOf) {
        const C3DMaterial* m = scene.GetMaterialByID(id);
        std::string name = m ? Narrow(m->GetName()) : "Default";
        if (name.empty()) name = "Surface" + std::to_string(id);
        std::string unique = name;
        if (tagIndex.count(unique)) {
            int& k = nextSuffix.try_emplace(name, 2).first->second;
            do unique = name + "_" + std::to_string(k++);
            while (tagIndex.count(unique));
        }
        tag = static_cast<int>(tags.size());
        tagIndex.emplace(unique, tag);
        tags.push_back(unique);
    }

    out.clear();
    Sink s(out);
    s.Reserve(estimate + tags.size() * 512);
    s.Chunk("FORM");
    s.Id("LWO2");
    s.Chunk("TAGS");
    for (const auto& t : tags) s.S0(t);
    s.End();

    // The UV map name each material's texture uses: its channel in the first mesh that has it.
    std::unordered_map<uint32_t, std::string> mapUv;
    for (size_t li = 0; li < layers.size(); ++li) {
        const LayerSrc& l = layers[li];
        const C3DObject& mesh = *l.mesh;
        const C3DPointList& pts = *mesh.GetPointList();
        const C3DFaceList& faces = *mesh.GetFaceList();
        const int npts = pts.GetSize();
        const C3DPoint pivot = l.world.TransformPoint(C3DPoint());

        s.Chunk("LAYR");
        s.U16(static_cast<uint16_t>(li));
        s.U16(l.node->IsFlagSet(NODE_HIDDEN) ? 1 : 0);
        s.Vec(pivot.x, pivot.y, -pivot.z);
        s.S0(Narrow(l.node->GetName()));
        s.U16(l.parent < 0 ? 0xFFFF : static_cast<uint16_t>(l.parent));
        s.End();

        C3DBox box;
        s.Chunk("PNTS");
        for (int i = 0; i < npts; ++i) {
            const C3DPoint w = l.world.TransformPoint(pts.GetPoint(i));
            box.Add(w);
            s.Vec(w.x, w.y, -w.z);
        }
        s.End();
        if (npts > 0) {
            s.Chunk("BBOX");
            s.Vec(box.min.x, box.min.y, -box.max.z);
            s.Vec(box.max.x, box.max.y, -box.min.z);
            s.End();
        }

        // Polygons (with their pieces) first, so that VMAD can name polygon numbers.
        const int nfaces = faces.GetNumberOfFaces();
        std::vector<uint32_t> firstPoly(static_cast<size_t>(nfaces) + 1, 0);
        s.Chunk("POLS");
        s.Id("FACE");
        uint32_t poly = 0;
        for (int f = 0; f < nfaces; ++f) {
            firstPoly[f] = poly;
            std::span<const uint32_t> c = faces.Face(f);
            const uint32_t n = static_cast<uint32_t>(c.size());
            // Host corners a, b, ... z become a, z, ..., b in the file.
            auto fileCorner = [&](uint32_t k) { return k == 0 ? c[0] : c[n - k]; };
            if (n <= kMaxCorners) {
                s.U16(static_cast<uint16_t>(n));
                for (uint32_t k = 0; k < n; ++k) s.VX(fileCorner(k));
                ++poly;
                continue;
            }
            for (uint32_t start = 1; start + 1 < n; start += kMaxCorners - 2) {
                const uint32_t run = std::min(kMaxCorners - 1, n - start);
                s.U16(static_cast<uint16_t>(run + 1));
                s.VX(fileCorner(0));
                for (uint32_t k = 0; k < run; ++k) s.VX(fileCorner(start + k));
                ++poly;
            }
        }
        firstPoly[nfaces] = poly;
        s.End();

        s.Chunk("PTAG");
        s.Id("SURF");
        for (int f = 0; f < nfaces; ++f) {
            const uint32_t mid = faces.GetMaterialID(f);
            const uint16_t tag = static_cast<uint16_t>(surfaceOf[scene.GetMaterialByID(mid) ? mid : NO_MATERIAL]);
            for (uint32_t p = firstPoly[f]; p < firstPoly[f + 1]; ++p) {
                s.VX(p);
                s.U16(tag);
            }
        }
        s.End();

        // UV maps: a VMAP with the first value each point gets, a VMAD for corners that differ.
        for (int ci = 0; ci < mesh.GetChannelCount(CHANNEL_UVW); ++ci) {
            auto* ch = static_cast<const CUVWChannel*>(mesh.GetChannelByIndex(ci, CHANNEL_UVW));
            const CUVWFaceList& uf = *ch->GetUVWFaceList();
            const CUVWPointList& up = *ch->GetUVWPointList();
            if (uf.GetNumberOfFaces() != nfaces) continue;
            const std::string name = UvName(*ch);
            const std::vector<int32_t> one = ch->GetOneUVPerVertex(faces, npts);
            s.Chunk("VMAP");
            s.Id("TXUV");
            s.U16(2);
            s.S0(name);
            for (int i = 0; i < npts; ++i) {
                if (one[i] < 0) continue;
                const C3DPoint uv = up.GetPoint(one[i]);
                s.VX(static_cast<uint32_t>(i));
                s.F32(uv.x);
                s.F32(uv.y);
            }
            s.End();
            bool open = false;
            for (int f = 0; f < nfaces; ++f) {
                std::span<const uint32_t> c = faces.Face(f);
                std::span<const uint32_t> u = uf.Face(f);
                if (u.size() != c.size()) continue;
                for (size_t k = 0; k < c.size(); ++k) {
                    if (c[k] >= uint32_t(npts) || u[k] >= uint32_t(up.GetSize()) || one[c[k]] < 0) continue;
                    const C3DPoint a = up.GetPoint(static_cast<int>(u[k]));
                    const C3DPoint b = up.GetPoint(one[c[k]]);
                    if (a.x == b.x && a.y == b.y) continue;
                    if (!open) {
                        s.Chunk("VMAD");
                        s.Id("TXUV");
                        s.U16(2);
                        s.S0(name);
                        open = true;
                    }
                    // Every piece of a cut polygon that holds this corner.
                    for (uint32_t p = firstPoly[f]; p < firstPoly[f + 1]; ++p) {
                        s.VX(c[k]);
                        s.VX(p);
                        s.F32(a.x);
                        s.F32(a.y);
                    }
                }
            }
            if (open) s.End();
        }
        for (auto& [mid, tag] : surfaceOf) {
            const C3DMaterial* m = scene.GetMaterialByID(mid);
            const CMaterialMap* map = m ? m->GetMaterialMap(MAP_DIFFUSE) : nullptr;
            if (!map || mapUv.count(mid)) continue;
            const C3DChannel* ch = mesh.GetChannelByID(map->channel, CHANNEL_UVW);
            if (!ch) ch = mesh.GetGlobalUVWChannel();
            if (ch) mapUv.emplace(mid, UvName(static_cast<const CUVWChannel&>(*ch)));
        }
    }

    // Clips: one per distinct texture file.
    std::map<std::string, uint32_t> clips;
    for (auto& [mid, tag] : surfaceOf) {
        const C3DMaterial* m = scene.GetMaterialByID(mid);
        const CMaterialMap* map = m ? m->GetMaterialMap(MAP_DIFFUSE) : nullptr;
        if (!map || map->file.IsEmpty()) continue;
        std::string f = Narrow(map->file);
        std::replace(f.begin(), f.end(), '\\', '/');
        if (clips.emplace(f, static_cast<uint32_t>(clips.size() + 1)).second) {
            s.Chunk("CLIP");
            s.U32(clips[f]);
            s.Sub("STIL");
            s.S0(f);
            s.End();
            s.End();
        }
    }

    for (auto& [mid, tag] : surfaceOf) {
        const C3DMaterial* m = scene.GetMaterialByID(mid);
        s.Chunk("SURF");
        s.S0(tags[static_cast<size_t>(tag)]);
        s.S0("");
        float c[4] = {0.78f, 0.78f, 0.78f, 1};
        if (m) m->diffuse.GetColor4f(c, 255.0f);
        s.Sub("COLR");
        s.Vec(c[0], c[1], c[2]);
        s.VX(0);
        s.End();
        s.Sub("DIFF");
        s.F32(m ? m->diffuseFactor : 1.0f);
        s.VX(0);
        s.End();
        const auto* sm = m && m->GetClass() == MATERIAL_STANDARD ? static_cast<const C3DStandardMaterial*>(m) : nullptr;
        if (sm && sm->emissiveFactor != 0) {
            s.Sub("LUMI");
            s.F32(sm->emissiveFactor);
            s.VX(0);
            s.End();
        }
        s.Sub("S"
              "PEC");
        s.F32(sm ? sm->specularFactor : 0.0f);
        s.VX(0);
        s.End(); // specular level
        s.Sub("GLOS");
        s.F32(sm ? sm->shininess : 0.4f);
        s.VX(0);
        s.End();
        if (m && m->transparency != 0) {
            s.Sub("TRAN");
            s.F32(m->transparency);
            s.VX(0);
            s.End();
        }
        s.Sub("SMAN");
        s.F32(m ? m->smoothAngle * 3.14159265f / 180.0f : 0.0f);
        s.End();
        s.Sub("SIDE");
        s.U16(m && m->IsFlagSet(MATF_TWO_SIDED) ? 3 : 1);
        s.End();
        const CMaterialMap* map = m ? m->GetMaterialMap(MAP_DIFFUSE) : nullptr;
        if (map && !map->file.IsEmpty()) {
            std::string f = Narrow(map->file);
            std::replace(f.begin(), f.end(), '\\', '/');
            s.Sub("BLOK");
            s.Sub("IMAP");
            s.S0("\x80");
            s.Sub("CHAN");
            s.Id("COLR");
            s.End();
            s.Sub("OPAC");
            s.U16(0);
            s.F32(1.0f);
            s.VX(0);
            s.End();
            s.Sub("ENAB");
            s.U16(1);
            s.End();
            s.End();
            s.Sub("TMAP");
            s.Sub("CNTR");
            s.Vec(0, 0, 0);
            s.VX(0);
            s.End();
            s.Sub("SIZE");
            s.Vec(1, 1, 1);
            s.VX(0);
            s.End();
            s.Sub("ROTA");
            s.Vec(0, 0, 0);
            s.VX(0);
            s.End();
            s.Sub("FALL");
            s.U16(0);
            s.Vec(0, 0, 0);
            s.VX(0);
            s.End();
            s.Sub("OREF");
            s.S0("(none)");
            s.End();
            s.Sub("CSYS");
            s.U16(0);
            s.End();
            s.End();
            s.Sub("PROJ");
            s.U16(5);
            s.End();
            s.Sub("AXIS");
            s.U16(2);
            s.End();
            s.Sub("IMAG");
            s.VX(clips[f]);
            s.End();
            s.Sub("WRAP");
            s.U16(1);
            s.U16(1);
            s.End();
            s.Sub("WRPW");
            s.F32(1);
            s.VX(0);
            s.End();
            s.Sub("WRPH");
            s.F32(1);
            s.VX(0);
            s.End();
            auto uv = mapUv.find(mid);
            s.Sub("VMAP");
            s.S0(uv != mapUv.end() ? uv->second : std::string("UV0"));
            s.End();
            s.End();
        }
        s.End();
    }
    s.End();
    return true;
}

} // namespace lightwave
