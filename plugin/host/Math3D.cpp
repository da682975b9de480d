#include "plugin/host/Math3D.h"

#include <algorithm>
#include <cmath>

CQuaternion CQuaternion::FromAxisAngle(const C3DVector& axis, float angle) {
    C3DVector a = axis.Normalized();
    if (a.x == 0 && a.y == 0 && a.z == 0) return {};
    float s = std::sin(angle * 0.5f);
    return {a.x * s, a.y * s, a.z * s, std::cos(angle * 0.5f)};
}

void CQuaternion::ToAxisAngle(C3DVector& axis, float& angle) const {
    CQuaternion q = Normalized();
    if (q.w < 0) q = {-q.x, -q.y, -q.z, -q.w};
    float s = std::sqrt(std::max(0.0f, 1.0f - q.w * q.w));
    angle = 2.0f * std::acos(std::clamp(q.w, -1.0f, 1.0f));
    if (s < 1e-6f) {
        axis = {0, 0, 1};
        angle = 0;
    } else {
        axis = {q.x / s, q.y / s, q.z / s};
    }
}

CQuaternion CQuaternion::operator*(const CQuaternion& q) const {
    return {w * q.x + x * q.w + y * q.z - z * q.y, w * q.y - x * q.z + y * q.w + z * q.x,
            w * q.z + x * q.y - y * q.x + z * q.w, w * q.w - x * q.x - y * q.y - z * q.z};
}

CQuaternion CQuaternion::Normalized() const {
    float l = std::sqrt(x * x + y * y + z * z + w * w);
    if (!(l > 0) || !std::isfinite(l)) return {};
    return {x / l, y / l, z / l, w / l};
}

CQuaternion CQuaternion::Slerp(const CQuaternion& a, const CQuaternion& b0, float t) {
    CQuaternion b = b0;
    float d = a.Dot(b);
    if (d < 0) {
        b = {-b.x, -b.y, -b.z, -b.w};
        d = -d;
    }
    if (d > 0.9995f) {
        CQuaternion r{a.x + t * (b.x - a.x), a.y + t * (b.y - a.y), a.z + t * (b.z - a.z), a.w + t * (b.w - a.w)};
        return r.Normalized();
    }
    float th = std::acos(std::clamp(d, -1.0f, 1.0f));
    float s = std::sin(th);
    float wa = std::sin((1 - t) * th) / s, wb = std::sin(t * th) / s;
    return CQuaternion{wa * a.x + wb * b.x, wa * a.y + wb * b.y, wa * a.z + wb * b.z, wa * a.w + wb * b.w}.Normalized();
}

// Row-vector convention: the rows are the images of the axes.
template <typename T> C4x4TMatrix<T> C4x4TMatrix<T>::Rotation(const CQuaternion& q0) {
    CQuaternion q = q0.Normalized();
    C4x4TMatrix r;
    T xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
    T xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z, wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
    r.m[0][0] = 1 - 2 * (yy + zz);
    r.m[0][1] = 2 * (xy + wz);
    r.m[0][2] = 2 * (xz - wy);
    r.m[1][0] = 2 * (xy - wz);
    r.m[1][1] = 1 - 2 * (xx + zz);
    r.m[1][2] = 2 * (yz + wx);
    r.m[2][0] = 2 * (xz + wy);
    r.m[2][1] = 2 * (yz - wx);
    r.m[2][2] = 1 - 2 * (xx + yy);
    return r;
}

template <typename T> bool C4x4TMatrix<T>::Invert(C4x4TMatrix& out) const {
    // Gauss-Jordan with partial pivoting, in double for stability.
    double a[4][8];
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            a[r][c] = m[r][c];
            a[r][c + 4] = r == c ? 1.0 : 0.0;
        }
    for (int c = 0; c < 4; ++c) {
        int piv = c;
        for (int r = c + 1; r < 4; ++r)
            if (std::fabs(a[r][c]) > std::fabs(a[piv][c])) piv = r;
        if (!(std::fabs(a[piv][c]) > 1e-30)) {
            out.SetIdentity();
            return false;
        }
        if (piv != c)
            for (int k = 0; k < 8; ++k) std::swap(a[c][k], a[piv][k]);
        double inv = 1.0 / a[c][c];
        for (int k = 0; k < 8; ++k) a[c][k] *= inv;
        for (int r = 0; r < 4; ++r) {
            if (r == c) continue;
            double f = a[r][c];
            if (f == 0) continue;
            for (int k = 0; k < 8; ++k) a[r][k] -= f * a[c][k];
        }
    }
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) out.m[r][c] = static_cast<T>(a[r][c + 4]);
    return true;
}

template <typename T> void C4x4TMatrix<T>::Decompose(C3DTPoint<T>& t, CQuaternion& rot, C3DTPoint<T>& s) const {
    t = GetTranslation();
    C3DTPoint<T> r0{m[0][0], m[0][1], m[0][2]}, r1{m[1][0], m[1][1], m[1][2]}, r2{m[2][0], m[2][1], m[2][2]};
    s = {r0.Length(), r1.Length(), r2.Length()};
    if (Determinant3() < 0) s.x = -s.x;
    C3DTPoint<T> a = s.x != 0 ? r0 * (T(1) / s.x) : C3DTPoint<T>{1, 0, 0};
    C3DTPoint<T> b = s.y != 0 ? r1 * (T(1) / s.y) : C3DTPoint<T>{0, 1, 0};
    C3DTPoint<T> c = s.z != 0 ? r2 * (T(1) / s.z) : C3DTPoint<T>{0, 0, 1};
    // Quaternion from the (row-vector) rotation matrix.
    T trace = a.x + b.y + c.z;
    if (trace > 0) {
        T k = std::sqrt(trace + 1) * 2;
        rot = {static_cast<float>((b.z - c.y) / k), static_cast<float>((c.x - a.z) / k),
               static_cast<float>((a.y - b.x) / k), static_cast<float>(k / 4)};
    } else if (a.x > b.y && a.x > c.z) {
        T k = std::sqrt(1 + a.x - b.y - c.z) * 2;
        rot = {static_cast<float>(k / 4), static_cast<float>((b.x + a.y) / k), static_cast<float>((c.x + a.z) / k),
               static_cast<float>((b.z - c.y) / k)};
    } else if (b.y > c.z) {
        T k = std::sqrt(1 + b.y - a.x - c.z) * 2;
        rot = {static_cast<float>((b.x + a.y) / k), static_cast<float>(k / 4), static_cast<float>((c.y + b.z) / k),
               static_cast<float>((c.x - a.z) / k)};
    } else {
        T k = std::sqrt(1 + c.z - a.x - b.y) * 2;
        rot = {static_cast<float>((c.x + a.z) / k), static_cast<float>((c.y + b.z) / k), static_cast<float>(k / 4),
               static_cast<float>((a.y - b.x) / k)};
    }
    rot = rot.Normalized();
}

template <typename T>
C4x4TMatrix<T> C4x4TMatrix<T>::Compose(const C3DTPoint<T>& t, const CQuaternion& r, const C3DTPoint<T>& s) {
    C4x4TMatrix out = Scaling(s.x, s.y, s.z) * Rotation(r);
    out.SetTranslation(t.x, t.y, t.z);
    return out;
}

template struct C4x4TMatrix<float>;
template struct C4x4TMatrix<double>;
