// Layer writer: a host mesh becomes PNTS/BBOX/VMAP/POLS/VMAD/PTAG. Per-corner channel
// data is split the LXO way: a VMAP gives each point one value, and only corners that
// differ from it get a VMAD entry.
#include "formats/lxo/LxoLayerWriter.h"

#include <algorithm>
#include <cstring>
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
    for (uint32_t idx : m.faces->GetIndexes())
        if (idx >= channelPoints) return false;
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

uint32_t WriteVmap(LxoWriter& w, const CornerMap& m) {
    LxoVertexMapChunk c(w, m.type, m.dim, m.name);
    for (uint32_t p = 0; p < m.pointValue.size(); ++p) {
        if (m.pointValue[p] == UINT32_MAX) continue;
        if (uint32_t r = c.Add(p, m.values.data() + size_t(m.pointValue[p]) * m.dim)) return r;
    }
    return c.Close();
}

uint32_t WriteVmad(LxoWriter& w, const CornerMap& m, const CFaceList& meshFaces) {
    // Written only when some corner differs from its point's value.
    const auto& mi = meshFaces.GetIndexes();
    const auto& ci = m.faces->GetIndexes();
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
    for (uint32_t f = 0; f + 1 < off.size(); ++f)
        for (uint32_t j = off[f]; j < off[f + 1]; ++j)
            if (differs(j))
                if (uint32_t r = c.Add(mi[j], f, m.values.data() + size_t(ci[j]) * m.dim)) return r;
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
    {
        float box[6] = {0, 0, 0, 0, 0, 0};
        if (pointCount) {
            const float* p = pts->GetData();
            for (int a = 0; a < 3; ++a) box[a] = box[3 + a] = p[a];
            for (uint32_t i = 1; i < pointCount; ++i)
                for (int a = 0; a < 3; ++a) {
                    box[a] = std::min(box[a], p[3 * i + a]);
                    box[3 + a] = std::max(box[3 + a], p[3 * i + a]);
                }
        }
        LxoChunk c(w, lxoid::BBOX);
        w.WriteF4(box, 6);
        if (uint32_t r = c.Close()) return r;
    }

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

    for (const CornerMap& m : maps) {
        if (m.type == lxoid::TXUV) {
            LxoChunk c(w, lxoid::VMPA);
            const uint32_t params[2] = {1, 6};
            w.WriteU4(params, 2);
            if (uint32_t r = c.Close()) return r;
        }
        if (uint32_t r = WriteVmap(w, m)) return r;
    }
    if (!faces || faces->GetNumberOfFaces() == 0) return w.Error();

    const int faceCount = faces->GetNumberOfFaces();
    {
        LxoPolygonsChunk c(w, lxoid::FACE);
        for (int f = 0; f < faceCount; ++f)
            if (uint32_t r = c.AddPolygon(faces->GetFaceIndices(f), static_cast<uint32_t>(faces->GetFaceSize(f))))
                return r;
        if (uint32_t r = c.Close()) return r;
    }
    for (const CornerMap& m : maps)
        if (uint32_t r = WriteVmad(w, m, *faces)) return r;
    {
        LxoPolyTagChunk c(w, lxoid::MATR);
        for (int f = 0; f < faceCount; ++f) {
            const uint32_t mat = faces->GetMaterialID(f);
            const uint32_t tag = mat < mesh.materialTags.size() ? mesh.materialTags[mat] : 0;
            if (uint32_t r = c.Add(static_cast<uint32_t>(f), tag)) return r;
        }
        if (uint32_t r = c.Close()) return r;
    }
    return w.Error();
}
