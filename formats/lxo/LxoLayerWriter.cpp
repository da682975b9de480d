// Layer writer: a host mesh becomes PNTS/BBOX/VMAP/POLS/VMAD/PTAG. Per-corner channel
// data is split the LXO way: a VMAP gives each point one value, and only corners that
// differ from it get a VMAD entry. Chunk payloads are encoded a block at a time and
// handed to the writer whole: a call per element costs more than the bytes themselves.
#include "formats/lxo/LxoLayerWriter.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <string>

#include "plugin/host/Channel.h"
#include "plugin/host/Object.h"
#include "plugin/host/XString.h"

namespace {

struct CornerMap {
    uint32_t type = 0;
    uint16_t dim = 0;
    std::string name;
    const CFaceList* faces = nullptr; // parallel to the mesh's faces
    std::vector<float> values;        // dim floats per channel point
    std::vector<uint32_t> pointValue; // mesh point -> channel point (UINT32_MAX: none)
};

bool Parallel(const CFaceList& a, const CFaceList& b) { return a.GetOffsets() == b.GetOffsets(); }

bool BuildMap(CornerMap& m, const CFaceList& meshFaces, uint32_t pointCount) {
    if (!m.faces || !Parallel(*m.faces, meshFaces)) return false;
    const uint64_t channelPoints = m.dim ? m.values.size() / m.dim : 0;
    const auto& indices = m.faces->GetIndexes();
    uint32_t top = 0; // a reduction the compiler vectorises
    for (uint32_t idx : indices) top = std::max(top, idx);
    if (!indices.empty() && top >= channelPoints) return false;
    m.pointValue.assign(pointCount, UINT32_MAX);
    const auto& mi = meshFaces.GetIndexes();
    const auto& ci = m.faces->GetIndexes();
    for (size_t k = 0; k < mi.size(); ++k)
        if (mi[k] < pointCount && m.pointValue[mi[k]] == UINT32_MAX) m.pointValue[mi[k]] = ci[k];
    return true;
}

std::string Utf8Name(const CXStringW& name, const char* fallback) {
    std::string s = WideToUtf8(std::wstring_view(name));
    return s.empty() ? std::string(fallback) : s;
}

// Payload bytes gather in a fixed block that goes to the writer in one call when full.
// Its bytes are exactly those the writer's element calls would give.
class BlockOut {
public:
    static constexpr size_t kBlock = size_t(1) << 20;
    // The largest record put at once: a VMAD entry of 0xFFFF values (a polygon of 0xFFFF
    // four-byte indices is smaller).
    static constexpr size_t kMaxRecord = 8 + 0xFFFF * 4;
    static_assert(kMaxRecord <= kBlock);

    explicit BlockOut(LxoWriter& w) : m_w(w), m_buf(new uint8_t[kBlock]) {}
    // Room for a record of up to n bytes (n <= kMaxRecord); Put* then fill it.
    uint32_t Room(size_t n) {
        if (kBlock - m_used < n) return Flush();
        return LXO_OK;
    }
    uint32_t Flush() {
        const size_t n = m_used;
        m_used = 0;
        return n ? m_w.WriteBytes(m_buf.get(), n) : LXO_OK;
    }
    void PutU2(uint16_t v) {
        m_buf[m_used] = uint8_t(v >> 8);
        m_buf[m_used + 1] = uint8_t(v);
        m_used += 2;
    }
    // v below 0x1000000 (the caller checks).
    void PutVx(uint32_t v) {
        if (v < 0xFF00u) return PutU2(static_cast<uint16_t>(v));
        const uint32_t be = __builtin_bswap32(0xFF000000u | v);
        std::memcpy(m_buf.get() + m_used, &be, 4);
        m_used += 4;
    }
    void PutF4(const float* v, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            const uint32_t be = __builtin_bswap32(std::bit_cast<uint32_t>(v[i]));
            std::memcpy(m_buf.get() + m_used + 4 * i, &be, 4);
        }
        m_used += 4 * n;
    }

private:
    LxoWriter& m_w;
    std::unique_ptr<uint8_t[]> m_buf;
    size_t m_used = 0;
};

// An index the VX encoding cannot hold fails the writer as its own call does.
constexpr uint32_t kVxLimit = 0x1000000u;
uint32_t BadVx(LxoWriter& w, BlockOut& out, uint32_t v) {
    if (uint32_t r = out.Flush()) return r;
    return w.WriteVX(v);
}

uint32_t WriteVmap(LxoWriter& w, BlockOut& out, const CornerMap& m) {
    LxoVertexMapChunk c(w, m.type, m.dim, m.name);
    const size_t record = 4 + size_t(m.dim) * 4;
    for (uint32_t p = 0; p < m.pointValue.size(); ++p) {
        if (m.pointValue[p] == UINT32_MAX) continue;
        if (p >= kVxLimit) return BadVx(w, out, p);
        if (uint32_t r = out.Room(record)) return r;
        out.PutVx(p);
        out.PutF4(m.values.data() + size_t(m.pointValue[p]) * m.dim, m.dim);
    }
    if (uint32_t r = out.Flush()) return r;
    return c.Close();
}

uint32_t WriteVmad(LxoWriter& w, BlockOut& out, const CornerMap& m, const CFaceList& meshFaces) {
    // Written only when some corner differs from its point's value.
    const auto& mi = meshFaces.GetIndexes();
    const auto& ci = m.faces->GetIndexes();
    // A channel numbered as the mesh (the usual UV map without seams) gives every corner
    // its point's own value.
    if (ci == mi) return LXO_OK;
    const size_t bytes = size_t(m.dim) * sizeof(float);
    auto differs = [&](size_t k) {
        if (mi[k] >= m.pointValue.size()) return false;
        const uint32_t own = m.pointValue[mi[k]];
        return own != ci[k] &&
               std::memcmp(m.values.data() + size_t(own) * m.dim, m.values.data() + size_t(ci[k]) * m.dim, bytes) != 0;
    };
    size_t k = 0;
    for (; k < mi.size(); ++k)
        if (differs(k)) break;
    if (k == mi.size()) return LXO_OK;
    LxoVertexMapDiscChunkEx c(w, m.type, m.dim, m.name);
    const auto& off = meshFaces.GetOffsets();
    const size_t record = 8 + bytes;
    for (uint32_t f = 0; f + 1 < off.size(); ++f)
        for (uint32_t j = off[f]; j < off[f + 1]; ++j) {
            if (!differs(j)) continue;
            if (mi[j] >= kVxLimit) return BadVx(w, out, mi[j]);
            if (f >= kVxLimit) return BadVx(w, out, f);
            if (uint32_t r = out.Room(record)) return r;
            out.PutVx(mi[j]);
            out.PutVx(f);
            out.PutF4(m.values.data() + size_t(ci[j]) * m.dim, m.dim);
        }
    if (uint32_t r = out.Flush()) return r;
    return c.Close();
}

uint32_t WriteFaces(LxoWriter& w, BlockOut& out, const CFaceList& faces) {
    LxoPolygonsChunk c(w, lxoid::FACE);
    const auto& off = faces.GetOffsets();
    const uint32_t* idx = faces.GetIndexes().data();
    for (size_t f = 0; f + 1 < off.size(); ++f) {
        const uint32_t count = off[f + 1] - off[f];
        // Too many corners: refused as the chunk's own call refuses it, the writer not failed.
        if (count > 0xFFFF) {
            if (uint32_t r = out.Flush()) return r;
            return LXO_ERR_WRITE;
        }
        if (uint32_t r = out.Room(2 + size_t(count) * 4)) return r;
        out.PutU2(static_cast<uint16_t>(count));
        const uint32_t* v = idx + off[f];
        for (uint32_t k = 0; k < count; ++k) {
            if (v[k] >= kVxLimit) return BadVx(w, out, v[k]);
            out.PutVx(v[k]);
        }
    }
    if (uint32_t r = out.Flush()) return r;
    return c.Close();
}

uint32_t WriteMaterialTags(LxoWriter& w, BlockOut& out, const LxoLayerMesh& mesh, const C3DFaceList& faces) {
    LxoPolyTagChunk c(w, lxoid::MATR);
    const auto& ids = faces.GetMaterialIDs();
    const size_t n = static_cast<size_t>(faces.GetNumberOfFaces());
    for (size_t f = 0; f < n; ++f) {
        const uint32_t mat = f < ids.size() ? ids[f] : NO_MATERIAL;
        const uint32_t tag = mat < mesh.materialTags.size() ? mesh.materialTags[mat] : 0;
        if (tag > 0xFFFF) {
            if (uint32_t r = out.Flush()) return r;
            return LXO_ERR_WRITE;
        }
        if (f >= kVxLimit) return BadVx(w, out, static_cast<uint32_t>(f));
        if (uint32_t r = out.Room(6)) return r;
        out.PutVx(static_cast<uint32_t>(f));
        out.PutU2(static_cast<uint16_t>(tag));
    }
    if (uint32_t r = out.Flush()) return r;
    return c.Close();
}

} // namespace

uint32_t LxoWriteLayerData(LxoWriter& w, const LxoLayerMesh& mesh) {
    if (!mesh.object) return LXO_ERR_WRITE;
    const C3DGeomObject& obj = *mesh.object;
    const C3DPointList* pts = obj.GetPointList();
    const uint32_t pointCount = pts ? static_cast<uint32_t>(pts->size()) : 0;
    {
        LxoPointsChunk c(w, pts ? pts->GetData() : nullptr, pointCount);
        if (uint32_t r = c.Close()) return r;
    }
    if (uint32_t r = LxoWriteBoundingBox(w, pointCount ? pts->GetData() : nullptr, pointCount)) return r;

    const C3DFaceList* faces = obj.GetFaceList();
    std::vector<CornerMap> maps;
    if (faces && faces->GetNumberOfFaces() > 0) {
        int uvCount = 0;
        for (const auto& ch : obj.GetChannels()) {
            CornerMap m;
            m.faces = ch->GetFaceList();
            switch (ch->GetType()) {
            case CHANNEL_UVW: {
                const auto* uv = static_cast<const CUVWChannel*>(ch.get());
                m.type = lxoid::TXUV;
                m.dim = 2;
                m.name =
                    Utf8Name(uv->GetName(), uvCount ? ("Texture" + std::to_string(uvCount + 1)).c_str() : "Texture");
                const auto& raw = uv->GetUVWPointList()->Raw();
                m.values.reserve(raw.size() / 3 * 2);
                for (size_t i = 0; i + 2 < raw.size(); i += 3) {
                    m.values.push_back(raw[i]);
                    m.values.push_back(raw[i + 1]);
                }
                ++uvCount;
                break;
            }
            case CHANNEL_VC: {
                const auto* vc = static_cast<const CVCChannel*>(ch.get());
                m.type = lxoid::RGBA;
                m.dim = 4;
                m.name = Utf8Name(vc->GetName(), "Color");
                for (const CRGBColor& c : vc->GetVCPointList()->Raw()) {
                    m.values.push_back(c.r / 255.0f);
                    m.values.push_back(c.g / 255.0f);
                    m.values.push_back(c.b / 255.0f);
                    m.values.push_back(c.a / 255.0f);
                }
                break;
            }
            case CHANNEL_SPEC_NORMAL: {
                const auto* nc = static_cast<const CSpecNormalChannel*>(ch.get());
                m.type = lxoid::NORM;
                m.dim = 3;
                m.name = Utf8Name(nc->GetName(), "Vertex Normal");
                const auto& raw = nc->GetNormalVectorList()->Raw();
                m.values.assign(raw.begin(), raw.end());
                break;
            }
            default: continue;
            }
            if (BuildMap(m, *faces, pointCount)) maps.push_back(std::move(m));
        }
    }

    BlockOut out(w);
    for (const CornerMap& m : maps) {
        if (m.type == lxoid::TXUV) {
            LxoChunk c(w, lxoid::VMPA);
            const uint32_t params[2] = {1, 6};
            w.WriteU4(params, 2);
            if (uint32_t r = c.Close()) return r;
        }
        if (uint32_t r = WriteVmap(w, out, m)) return r;
    }
    if (!faces || faces->GetNumberOfFaces() == 0) return w.Error();

    if (uint32_t r = WriteFaces(w, out, *faces)) return r;
    for (const CornerMap& m : maps)
        if (uint32_t r = WriteVmad(w, out, m, *faces)) return r;
    if (uint32_t r = WriteMaterialTags(w, out, mesh, *faces)) return r;
    return w.Error();
}

uint32_t LxoWriteBoundingBox(LxoWriter& w, const float* p, size_t n) {
    float box[6] = {0, 0, 0, 0, 0, 0};
    if (n) {
        for (int a = 0; a < 3; ++a) box[a] = box[3 + a] = p[a];
        for (size_t i = 1; i < n; ++i)
            for (int a = 0; a < 3; ++a) {
                box[a] = std::min(box[a], p[3 * i + a]);
                box[3 + a] = std::max(box[3 + a], p[3 * i + a]);
            }
    }
    LxoChunk c(w, lxoid::BBOX);
    w.WriteF4(box, 6);
    return c.Close();
}
