#include "plugin/host/Channel.h"

#include <cmath>

namespace {
constexpr uint32_t kMaxSmoothValence = 256;

// Appends src's faces with every index shifted by `base`.
void AppendFaces(CFaceList& dst, const CFaceList& src, uint32_t base) {
    const int n = src.GetNumberOfFaces();
    for (int f = 0; f < n; ++f) {
        int k = src.GetFaceSize(f);
        uint32_t* d = dst.AddFace(k, src.GetFaceFlags(f));
        const uint32_t* s = src.GetFaceIndices(f);
        for (int i = 0; i < k; ++i) d[i] = s[i] + base;
    }
}
} // namespace

C3DVector FaceNormal(const C3DPointList& points, std::span<const uint32_t> face) {
    const int np = points.GetSize();
    C3DVector n;
    const size_t k = face.size();
    for (size_t i = 0; i < k; ++i) {
        uint32_t a = face[i], b = face[(i + 1) % k];
        if (a >= static_cast<uint32_t>(np) || b >= static_cast<uint32_t>(np)) return {};
        C3DPoint p = points[static_cast<int>(a)], q = points[static_cast<int>(b)];
        n.x += (p.y - q.y) * (p.z + q.z);
        n.y += (p.z - q.z) * (p.x + q.x);
        n.z += (p.x - q.x) * (p.y + q.y);
    }
    return n.Normalized();
}

void CUVWChannel::Append(const C3DChannel& src) {
    auto& s = static_cast<const CUVWChannel&>(src);
    AppendFaces(m_faces, s.m_faces, static_cast<uint32_t>(m_points.GetSize()));
    m_points.Raw().insert(m_points.Raw().end(), s.m_points.Raw().begin(), s.m_points.Raw().end());
}

std::vector<int32_t> CUVWChannel::GetOneUVPerVertex(const CFaceList& meshFaces, int pointCount) const {
    std::vector<int32_t> uv(static_cast<size_t>(pointCount > 0 ? pointCount : 0), -1);
    const int n = std::min(meshFaces.GetNumberOfFaces(), m_faces.GetNumberOfFaces());
    const int nuv = m_points.GetSize();
    for (int f = 0; f < n; ++f) {
        int k = std::min(meshFaces.GetFaceSize(f), m_faces.GetFaceSize(f));
        const uint32_t* mi = meshFaces.GetFaceIndices(f);
        const uint32_t* ui = m_faces.GetFaceIndices(f);
        for (int i = 0; i < k; ++i)
            if (mi[i] < uv.size() && uv[mi[i]] < 0 && ui[i] < static_cast<uint32_t>(nuv))
                uv[mi[i]] = static_cast<int32_t>(ui[i]);
    }
    return uv;
}

void CVCChannel::Append(const C3DChannel& src) {
    auto& s = static_cast<const CVCChannel&>(src);
    AppendFaces(m_faces, s.m_faces, static_cast<uint32_t>(m_points.GetSize()));
    m_points.Raw().insert(m_points.Raw().end(), s.m_points.Raw().begin(), s.m_points.Raw().end());
}

void CSpecNormalChannel::Append(const C3DChannel& src) {
    auto& s = static_cast<const CSpecNormalChannel&>(src);
    AppendFaces(m_faces, s.m_faces, static_cast<uint32_t>(m_vectors.GetSize()));
    m_vectors.Raw().insert(m_vectors.Raw().end(), s.m_vectors.Raw().begin(), s.m_vectors.Raw().end());
}

void CSpecNormalChannel::GenerateNormals(const C3DPointList& points, const CFaceList& faces, float angleDeg) {
    m_faces.RemoveAll();
    m_vectors.RemoveAll();
    const int nf = faces.GetNumberOfFaces();
    const int np = points.GetSize();
    std::vector<C3DVector> fn(static_cast<size_t>(nf));
    for (int f = 0; f < nf; ++f) fn[static_cast<size_t>(f)] = FaceNormal(points, faces.Face(f));
    // Point -> incident corners (CSR).
    std::vector<uint32_t> off(static_cast<size_t>(np) + 1, 0);
    for (uint32_t i : faces.GetIndexes())
        if (i < static_cast<uint32_t>(np)) ++off[i + 1];
    for (size_t i = 0; i < static_cast<size_t>(np); ++i) off[i + 1] += off[i];
    std::vector<uint32_t> cornerFace(off.back());
    std::vector<uint32_t> cornerIdx(off.back());
    {
        std::vector<uint32_t> fill(off.begin(), off.end() - 1);
        const auto& offs = faces.GetOffsets();
        const auto& idx = faces.GetIndexes();
        for (int f = 0; f < nf; ++f)
            for (uint32_t c = offs[static_cast<size_t>(f)]; c < offs[static_cast<size_t>(f) + 1]; ++c)
                if (idx[c] < static_cast<uint32_t>(np)) {
                    cornerFace[fill[idx[c]]] = static_cast<uint32_t>(f);
                    cornerIdx[fill[idx[c]]++] = c;
                }
    }
    const float cosLimit = std::cos(angleDeg * 3.14159265358979f / 180.0f);
    std::vector<uint32_t> cornerNormal(faces.GetNumberOfIndices(), 0);
    // For every corner, average the normals of the incident faces within the angle of its own
    // face; corners of one point with identical averages share a vector.
    for (int p = 0; p < np; ++p) {
        uint32_t b = off[static_cast<size_t>(p)], e = off[static_cast<size_t>(p) + 1];
        uint32_t firstNew = static_cast<uint32_t>(m_vectors.GetSize());
        if (e - b > kMaxSmoothValence) {
            // A hub shared by thousands of faces would cost valence^2: shade it flat.
            for (uint32_t c = b; c < e; ++c)
                cornerNormal[cornerIdx[c]] = static_cast<uint32_t>(m_vectors.Add(fn[cornerFace[c]]));
            continue;
        }
        for (uint32_t c = b; c < e; ++c) {
            const C3DVector& own = fn[cornerFace[c]];
            C3DVector sum;
            for (uint32_t d = b; d < e; ++d) {
                const C3DVector& other = fn[cornerFace[d]];
                if (d == c || own.Dot(other) >= cosLimit) sum += other;
            }
            C3DVector nrm = sum.Normalized();
            uint32_t found = UINT32_MAX;
            for (uint32_t v = firstNew; v < static_cast<uint32_t>(m_vectors.GetSize()); ++v)
                if (m_vectors[static_cast<int>(v)] == nrm) {
                    found = v;
                    break;
                }
            if (found == UINT32_MAX) found = static_cast<uint32_t>(m_vectors.Add(nrm));
            cornerNormal[cornerIdx[c]] = found;
        }
    }
    m_faces.Reserve(static_cast<size_t>(nf), faces.GetNumberOfIndices());
    for (int f = 0; f < nf; ++f) {
        int k = faces.GetFaceSize(f);
        uint32_t* d = m_faces.AddFace(k);
        uint32_t base = faces.GetOffsets()[static_cast<size_t>(f)];
        for (int i = 0; i < k; ++i) d[i] = cornerNormal[base + static_cast<uint32_t>(i)];
    }
}

void CFaceNormalChannel::Append(const C3DChannel& src) {
    auto& s = static_cast<const CFaceNormalChannel&>(src);
    m_vectors.Raw().insert(m_vectors.Raw().end(), s.m_vectors.Raw().begin(), s.m_vectors.Raw().end());
}

void CFaceNormalChannel::Compute(const C3DPointList& points, const CFaceList& faces) {
    const int nf = faces.GetNumberOfFaces();
    m_vectors.SetSize(nf);
    for (int f = 0; f < nf; ++f) m_vectors.SetPoint(f, FaceNormal(points, faces.Face(f)));
}
