#pragma once
// Points, vectors, 4x4 matrices, quaternions and boxes of the host scene.
// Matrices are row-vector style: p' = p * M, translation in row 3 (m[3][0..2]).
#include <cmath>
#include <cstdint>

template <typename T> struct C3DTPoint {
    T x = 0, y = 0, z = 0;
    C3DTPoint() = default;
    C3DTPoint(T ax, T ay, T az) : x(ax), y(ay), z(az) {}
    C3DTPoint operator+(const C3DTPoint& o) const { return {x + o.x, y + o.y, z + o.z}; }
    C3DTPoint operator-(const C3DTPoint& o) const { return {x - o.x, y - o.y, z - o.z}; }
    C3DTPoint operator*(T s) const { return {x * s, y * s, z * s}; }
    C3DTPoint operator-() const { return {-x, -y, -z}; }
    C3DTPoint& operator+=(const C3DTPoint& o) {
        x += o.x;
        y += o.y;
        z += o.z;
        return *this;
    }
    bool operator==(const C3DTPoint& o) const { return x == o.x && y == o.y && z == o.z; }
    T Dot(const C3DTPoint& o) const { return x * o.x + y * o.y + z * o.z; }
    C3DTPoint Cross(const C3DTPoint& o) const { return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x}; }
    T Length() const { return std::sqrt(x * x + y * y + z * z); }
    // Unit vector; a zero vector stays zero.
    C3DTPoint Normalized() const {
        T l = Length();
        return l > T(0) ? C3DTPoint{x / l, y / l, z / l} : C3DTPoint{};
    }
};
using C3DPoint = C3DTPoint<float>;
using C3DVector = C3DTPoint<float>;

struct CQuaternion {
    float x = 0, y = 0, z = 0, w = 1;
    CQuaternion() = default;
    CQuaternion(float ax, float ay, float az, float aw) : x(ax), y(ay), z(az), w(aw) {}
    static CQuaternion FromAxisAngle(const C3DVector& axis, float angle);
    void ToAxisAngle(C3DVector& axis, float& angle) const;
    void GetAxisAngle(C3DVector& axis, float& angle) const { ToAxisAngle(axis, angle); }
    CQuaternion operator*(const CQuaternion& q) const;
    CQuaternion Normalized() const;
    CQuaternion Inverse() const { return {-x, -y, -z, w}; }
    float Dot(const CQuaternion& q) const { return x * q.x + y * q.y + z * q.z + w * q.w; }
    static CQuaternion Slerp(const CQuaternion& a, const CQuaternion& b, float t);
};

template <typename T> struct C4x4TMatrix {
    T m[4][4];
    C4x4TMatrix() { SetIdentity(); }
    void SetIdentity() {
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c) m[r][c] = r == c ? T(1) : T(0);
    }
    bool IsIdentity() const {
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c)
                if (m[r][c] != (r == c ? T(1) : T(0))) return false;
        return true;
    }
    C4x4TMatrix operator*(const C4x4TMatrix& o) const {
        C4x4TMatrix r;
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) {
                T s = 0;
                for (int k = 0; k < 4; ++k) s += m[i][k] * o.m[k][j];
                r.m[i][j] = s;
            }
        return r;
    }
    C3DTPoint<T> TransformPoint(const C3DTPoint<T>& p) const {
        return {p.x * m[0][0] + p.y * m[1][0] + p.z * m[2][0] + m[3][0],
                p.x * m[0][1] + p.y * m[1][1] + p.z * m[2][1] + m[3][1],
                p.x * m[0][2] + p.y * m[1][2] + p.z * m[2][2] + m[3][2]};
    }
    C3DTPoint<T> TransformVector(const C3DTPoint<T>& p) const {
        return {p.x * m[0][0] + p.y * m[1][0] + p.z * m[2][0], p.x * m[0][1] + p.y * m[1][1] + p.z * m[2][1],
                p.x * m[0][2] + p.y * m[1][2] + p.z * m[2][2]};
    }
    void SetTranslation(T x, T y, T z) {
        m[3][0] = x;
        m[3][1] = y;
        m[3][2] = z;
    }
    C3DTPoint<T> GetTranslation() const { return {m[3][0], m[3][1], m[3][2]}; }
    static C4x4TMatrix Translation(T x, T y, T z) {
        C4x4TMatrix r;
        r.SetTranslation(x, y, z);
        return r;
    }
    static C4x4TMatrix Scaling(T x, T y, T z) {
        C4x4TMatrix r;
        r.m[0][0] = x;
        r.m[1][1] = y;
        r.m[2][2] = z;
        return r;
    }
    static C4x4TMatrix Rotation(const CQuaternion& q);
    // General inverse; returns false (and leaves identity) for a singular matrix.
    bool Invert(C4x4TMatrix& out) const;
    T Determinant3() const {
        return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    }
    // Splits into translation, rotation and scale (with the sign of the determinant on x).
    void Decompose(C3DTPoint<T>& translation, CQuaternion& rotation, C3DTPoint<T>& scale) const;
    // Builds scale, then rotation, then translation.
    static C4x4TMatrix Compose(const C3DTPoint<T>& translation, const CQuaternion& rotation, const C3DTPoint<T>& scale);
};
using C4x4Matrix = C4x4TMatrix<float>;

struct C3DBox {
    C3DPoint min{1e30f, 1e30f, 1e30f};
    C3DPoint max{-1e30f, -1e30f, -1e30f};
    bool IsValid() const { return min.x <= max.x && min.y <= max.y && min.z <= max.z; }
    void Add(const C3DPoint& p) {
        if (p.x < min.x) min.x = p.x;
        if (p.y < min.y) min.y = p.y;
        if (p.z < min.z) min.z = p.z;
        if (p.x > max.x) max.x = p.x;
        if (p.y > max.y) max.y = p.y;
        if (p.z > max.z) max.z = p.z;
    }
    void Add(const C3DBox& b) {
        if (b.IsValid()) {
            Add(b.min);
            Add(b.max);
        }
    }
    C3DPoint Center() const { return (min + max) * 0.5f; }
};
