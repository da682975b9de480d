#pragma once
// Point lists: contiguous float triples (positions, UVW, normals) and colours.
#include <cstdint>
#include <vector>

#include "plugin/host/Color.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/Math3D.h"

// A list of 3-float points stored flat (x0 y0 z0 x1 ...).
class C3DPointList {
public:
    int GetSize() const { return static_cast<int>(m_xyz.size() / 3); }
    size_t size() const { return m_xyz.size() / 3; }
    bool IsEmpty() const { return m_xyz.empty(); }
    C3DPoint GetPoint(int i) const {
        const float* p = &m_xyz[static_cast<size_t>(i) * 3];
        return {p[0], p[1], p[2]};
    }
    C3DPoint operator[](int i) const { return GetPoint(i); }
    void SetPoint(int i, const C3DPoint& p) {
        float* d = &m_xyz[static_cast<size_t>(i) * 3];
        d[0] = p.x;
        d[1] = p.y;
        d[2] = p.z;
    }
    int Add(float x, float y, float z) {
        m_xyz.push_back(x);
        m_xyz.push_back(y);
        m_xyz.push_back(z);
        return GetSize() - 1;
    }
    int Add(const C3DPoint& p) { return Add(p.x, p.y, p.z); }
    void SetSize(int n) {
        const size_t k = static_cast<size_t>(n < 0 ? 0 : n) * 3;
        hostmem::ReserveFilled(m_xyz, k);
        m_xyz.resize(k);
    }
    void Reserve(size_t n) { hostmem::ReserveLarge(m_xyz, n * 3); }
    void RemoveAll() { m_xyz.clear(); }
    void FreeExtra() { m_xyz.shrink_to_fit(); }
    float* GetData() { return m_xyz.data(); }
    const float* GetData() const { return m_xyz.data(); }
    hostmem::ZeroedArray<float>& Raw() { return m_xyz; }
    const hostmem::ZeroedArray<float>& Raw() const { return m_xyz; }
    // Transforms every point as a position.
    void MatrixTransform(const C4x4Matrix& m);
    // Transforms every entry as a direction and renormalises (normal lists).
    void MatrixTransformNormals(const C4x4Matrix& m);
    C3DBox GetBoundingBox() const;
    size_t MemoryBytes() const { return m_xyz.capacity() * sizeof(float); }
private:
    // Sizing a list writes zeros only where something was written before (see ZeroedArray).
    hostmem::ZeroedArray<float> m_xyz;
};

using CUVWPointList = C3DPointList; // u, v, w
using C3DVectorList = C3DPointList; // normals and other directions

class CVCPointList {
public:
    int GetSize() const { return static_cast<int>(m_c.size()); }
    const CRGBColor& operator[](int i) const { return m_c[static_cast<size_t>(i)]; }
    CRGBColor& operator[](int i) { return m_c[static_cast<size_t>(i)]; }
    int Add(const CRGBColor& c) {
        m_c.push_back(c);
        return GetSize() - 1;
    }
    void SetSize(int n) {
        const size_t k = static_cast<size_t>(n < 0 ? 0 : n);
        hostmem::ReserveFilled(m_c, k);
        m_c.resize(k);
    }
    void Reserve(size_t n) { hostmem::ReserveLarge(m_c, n); }
    void RemoveAll() { m_c.clear(); }
    void FreeExtra() { m_c.shrink_to_fit(); }
    std::vector<CRGBColor>& Raw() { return m_c; }
    const std::vector<CRGBColor>& Raw() const { return m_c; }
    size_t MemoryBytes() const { return m_c.capacity() * sizeof(CRGBColor); }
private:
    std::vector<CRGBColor> m_c;
};
