#include "plugin/host/Object.h"

#include <algorithm>

C3DGeomObject::C3DGeomObject(uint32_t kind)
    : C3DBaseObject(kind), m_points(std::make_unique<C3DPointList>()), m_faces(std::make_unique<C3DFaceList>()) {}

C3DGeomObject::C3DGeomObject(const C3DGeomObject& o)
    : C3DBaseObject(o), m_points(o.m_points ? std::make_unique<C3DPointList>(*o.m_points) : nullptr),
      m_faces(o.m_faces ? std::make_unique<C3DFaceList>(*o.m_faces) : nullptr), m_globalUVW(o.m_globalUVW),
      m_globalVC(o.m_globalVC), m_nextChannelID(o.m_nextChannelID), m_smoothAngle(o.m_smoothAngle),
      m_smoothMode(o.m_smoothMode), m_faceMode(o.m_faceMode) {
    m_channels.reserve(o.m_channels.size());
    for (auto& c : o.m_channels) m_channels.push_back(c->Clone());
}

void C3DGeomObject::SetPointList(C3DPointList* list, bool own) {
    if (own) m_points.reset(list);
    else m_points = list ? std::make_unique<C3DPointList>(*list) : nullptr;
}

void C3DGeomObject::SetFaceList(C3DFaceList* list, bool own) {
    if (own) m_faces.reset(list);
    else m_faces = list ? std::make_unique<C3DFaceList>(*list) : nullptr;
}

int32_t C3DGeomObject::AddChannel(C3DChannel* channel, int32_t id) {
    if (!channel) return -1;
    if (id < 0 || GetChannelByID(id)) id = m_nextChannelID;
    while (GetChannelByID(id)) ++id;
    channel->SetChannelID(id);
    m_nextChannelID = std::max(m_nextChannelID, id + 1);
    m_channels.emplace_back(channel);
    return id;
}

C3DChannel* C3DGeomObject::GetChannelByID(int32_t id, uint32_t type) const {
    for (auto& c : m_channels)
        if (c->GetChannelID() == id && (type == CHANNEL_ANY || c->GetType() == type)) return c.get();
    return nullptr;
}

C3DChannel* C3DGeomObject::GetChannelByIndex(int index, uint32_t type) const {
    for (auto& c : m_channels)
        if (type == CHANNEL_ANY || c->GetType() == type)
            if (index-- == 0) return c.get();
    return nullptr;
}

int C3DGeomObject::GetChannelCount(uint32_t type) const {
    int n = 0;
    for (auto& c : m_channels)
        if (type == CHANNEL_ANY || c->GetType() == type) ++n;
    return n;
}

int32_t C3DGeomObject::GetFirstChannelIDByType(uint32_t type) const {
    C3DChannel* c = GetChannelByIndex(0, type);
    return c ? c->GetChannelID() : -1;
}

bool C3DGeomObject::RemoveChannel(int32_t id) {
    auto it = std::find_if(m_channels.begin(), m_channels.end(), [id](auto& c) { return c->GetChannelID() == id; });
    if (it == m_channels.end()) return false;
    m_channels.erase(it);
    if (m_globalUVW == id) m_globalUVW = -1;
    if (m_globalVC == id) m_globalVC = -1;
    return true;
}

void C3DGeomObject::RemoveChannels(uint32_t type) {
    std::vector<int32_t> ids;
    for (auto& c : m_channels)
        if (type == CHANNEL_ANY || c->GetType() == type) ids.push_back(c->GetChannelID());
    for (int32_t id : ids) RemoveChannel(id);
}

CUVWChannel* C3DGeomObject::GetGlobalUVWChannel() const {
    return static_cast<CUVWChannel*>(GetChannelByID(m_globalUVW, CHANNEL_UVW));
}

CVCChannel* C3DGeomObject::GetGlobalVCChannel(float* weight) const {
    auto* c = static_cast<CVCChannel*>(GetChannelByID(m_globalVC, CHANNEL_VC));
    if (weight) *weight = c ? c->GetWeight() : 0.0f;
    return c;
}

CFaceNormalChannel* C3DGeomObject::GetFaceNormalChannel() const {
    return static_cast<CFaceNormalChannel*>(GetChannelByIndex(0, CHANNEL_FACE_NORMAL));
}

CFaceNormalChannel* C3DGeomObject::ComputeFaceNormals() {
    CFaceNormalChannel* ch = GetFaceNormalChannel();
    if (!ch) {
        ch = new CFaceNormalChannel();
        AddChannel(ch);
    }
    if (m_points && m_faces) ch->Compute(*m_points, *m_faces);
    return ch;
}

CSpecNormalChannel* C3DGeomObject::GenerateNormals(float angleDeg) {
    auto* ch = static_cast<CSpecNormalChannel*>(GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
    if (!ch) {
        ch = new CSpecNormalChannel();
        AddChannel(ch);
    }
    if (m_points && m_faces) ch->GenerateNormals(*m_points, *m_faces, angleDeg);
    return ch;
}

void C3DGeomObject::InvertFaceWinding() {
    if (m_faces) m_faces->InvertFaceWinding();
    for (auto& c : m_channels) {
        if (CFaceList* fl = c->GetFaceList()) fl->InvertFaceWinding();
        if (c->GetType() == CHANNEL_FACE_NORMAL) {
            auto* v = static_cast<CFaceNormalChannel*>(c.get())->GetNormalVectorList();
            for (float& x : v->Raw()) x = -x;
        }
    }
}

void C3DGeomObject::Transform(const C4x4Matrix& m) {
    if (m_points) m_points->MatrixTransform(m);
    const bool mirror = m.Determinant3() < 0;
    for (auto& c : m_channels) {
        if (c->GetType() == CHANNEL_SPEC_NORMAL)
            static_cast<CSpecNormalChannel*>(c.get())->GetNormalVectorList()->MatrixTransformNormals(m);
        else if (c->GetType() == CHANNEL_FACE_NORMAL)
            static_cast<CFaceNormalChannel*>(c.get())->GetNormalVectorList()->MatrixTransformNormals(m);
    }
    // A mirroring transform turns faces inside out; keep them facing outwards.
    if (mirror) {
        if (m_faces) m_faces->InvertFaceWinding();
        for (auto& c : m_channels)
            if (CFaceList* fl = c->GetFaceList()) fl->InvertFaceWinding();
    }
}

bool C3DGeomObject::InitGraph(int32_t channelID) {
    DeleteGraph();
    C3DChannel* ch = GetChannelByID(channelID);
    if (!ch || !m_faces || !m_points || !ch->GetFaceList()) return false;
    const CFaceList& cf = *ch->GetFaceList();
    const int np = m_points->GetSize();
    const int nf = std::min(m_faces->GetNumberOfFaces(), cf.GetNumberOfFaces());
    // Collect (point, channel point) pairs in corner order, then bucket by point keeping first-seen order.
    std::vector<uint32_t> count(static_cast<size_t>(np) + 1, 0);
    // A channel face flagged FACE_SKIP has no values (an uncoloured face): it joins nothing.
    for (int f = 0; f < nf; ++f) {
        if (cf.IsFaceFlagSet(f, FACE_SKIP)) continue;
        int k = std::min(m_faces->GetFaceSize(f), cf.GetFaceSize(f));
        const uint32_t* mi = m_faces->GetFaceIndices(f);
        for (int i = 0; i < k; ++i)
            if (mi[i] < static_cast<uint32_t>(np)) ++count[mi[i] + 1];
    }
    for (size_t i = 0; i < static_cast<size_t>(np); ++i) count[i + 1] += count[i];
    std::vector<uint32_t> pts(count.back());
    std::vector<uint32_t> fill(count.begin(), count.end() - 1);
    for (int f = 0; f < nf; ++f) {
        if (cf.IsFaceFlagSet(f, FACE_SKIP)) continue;
        int k = std::min(m_faces->GetFaceSize(f), cf.GetFaceSize(f));
        const uint32_t* mi = m_faces->GetFaceIndices(f);
        const uint32_t* ci = cf.GetFaceIndices(f);
        for (int i = 0; i < k; ++i) {
            uint32_t p = mi[i];
            if (p >= static_cast<uint32_t>(np)) continue;
            // Keep each channel point once per mesh point.
            // (A hub point with many entries skips the check rather than cost valence^2.)
            bool seen = false;
            if (fill[p] - count[p] < 64)
                for (uint32_t j = count[p]; j < fill[p]; ++j)
                    if (pts[j] == ci[i]) {
                        seen = true;
                        break;
                    }
            if (!seen) pts[fill[p]++] = ci[i];
        }
    }
    // Compact the buckets.
    m_graphOffsets.assign(static_cast<size_t>(np) + 1, 0);
    m_graphPoints.clear();
    m_graphPoints.reserve(pts.size());
    for (size_t p = 0; p < static_cast<size_t>(np); ++p) {
        for (uint32_t j = count[p]; j < fill[p]; ++j) m_graphPoints.push_back(pts[j]);
        m_graphOffsets[p + 1] = static_cast<uint32_t>(m_graphPoints.size());
    }
    return true;
}

std::span<const uint32_t> C3DGeomObject::GetChannelConnectionInfo(int point) const {
    if (point < 0 || static_cast<size_t>(point) + 1 >= m_graphOffsets.size()) return {};
    uint32_t b = m_graphOffsets[static_cast<size_t>(point)], e = m_graphOffsets[static_cast<size_t>(point) + 1];
    return {m_graphPoints.data() + b, e - b};
}

C3DBox C3DGeomObject::GetBoundingBox() const { return m_points ? m_points->GetBoundingBox() : C3DBox{}; }

size_t C3DGeomObject::MemoryBytes() const {
    size_t n = 0;
    if (m_points) n += m_points->MemoryBytes();
    if (m_faces) n += m_faces->MemoryBytes();
    for (auto& c : m_channels) n += c->MemoryBytes();
    return n;
}
