#include "plugin/host/PointList.h"

void C3DPointList::MatrixTransform(const C4x4Matrix& m) {
    const size_t n = size();
    for (size_t i = 0; i < n; ++i) {
        float* p = &m_xyz[i * 3];
        C3DPoint q = m.TransformPoint({p[0], p[1], p[2]});
        p[0] = q.x;
        p[1] = q.y;
        p[2] = q.z;
    }
}

void C3DPointList::MatrixTransformNormals(const C4x4Matrix& m) {
    // Normals transform by the inverse transpose; with row vectors that is v * (M^-1)^T.
    C4x4Matrix inv;
    if (!m.Invert(inv)) return;
    C4x4Matrix it;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) it.m[r][c] = inv.m[c][r];
    const size_t n = size();
    for (size_t i = 0; i < n; ++i) {
        float* p = &m_xyz[i * 3];
        C3DPoint q = it.TransformVector({p[0], p[1], p[2]}).Normalized();
        p[0] = q.x;
        p[1] = q.y;
        p[2] = q.z;
    }
}

C3DBox C3DPointList::GetBoundingBox() const {
    C3DBox b;
    const size_t n = size();
    for (size_t i = 0; i < n; ++i) b.Add({m_xyz[i * 3], m_xyz[i * 3 + 1], m_xyz[i * 3 + 2]});
    return b;
}
