#pragma once
// Channels: data that depends on a mesh's faces (UVW, vertex colours, explicit
// normals, face normals). Each has its own face list parallel to the mesh's and
// its own point list.
#include <cstdint>
#include <memory>

#include "plugin/host/CustomData.h"
#include "plugin/host/FaceList.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/PointList.h"

class C3DGeomObject;

class C3DChannel {
public:
    explicit C3DChannel(uint32_t type) : m_type(type) {}
    virtual ~C3DChannel() = default;
    virtual std::unique_ptr<C3DChannel> Clone() const = 0;
    uint32_t GetType() const { return m_type; }
    int32_t GetChannelID() const { return m_id; }
    void SetChannelID(int32_t id) { m_id = id; }
    CCustomData& GetCustomData() { return m_custom; }
    const CCustomData& GetCustomData() const { return m_custom; }
    CXStringW GetName() const { return m_name; }
    void SetName(const CXStringW& n) { m_name = n; }
    // The channel's face list (parallel to the mesh's faces); null for per-face channels.
    virtual CFaceList* GetFaceList() { return &m_faces; }
    const CFaceList* GetFaceList() const { return const_cast<C3DChannel*>(this)->GetFaceList(); }
    virtual size_t MemoryBytes() const { return m_faces.MemoryBytes(); }
    // Appends `src`'s faces and points (offsetting indices), for mesh merging.
    virtual void Append(const C3DChannel& src) = 0;

protected:
    uint32_t m_type;
    int32_t m_id = -1;
    CXStringW m_name;
    CCustomData m_custom;
    CFaceList m_faces;
};

class CUVWChannel : public C3DChannel {
public:
    CUVWChannel() : C3DChannel(CHANNEL_UVW) {}
    std::unique_ptr<C3DChannel> Clone() const override { return std::make_unique<CUVWChannel>(*this); }
    CUVWFaceList* GetUVWFaceList() { return &m_faces; }
    const CUVWFaceList* GetUVWFaceList() const { return &m_faces; }
    CUVWPointList* GetUVWPointList() { return &m_points; }
    const CUVWPointList* GetUVWPointList() const { return &m_points; }
    size_t MemoryBytes() const override { return m_faces.MemoryBytes() + m_points.MemoryBytes(); }
    void Append(const C3DChannel& src) override;
    // For each mesh point, the first UV index a face corner gives it (-1 when none).
    std::vector<int32_t> GetOneUVPerVertex(const CFaceList& meshFaces, int pointCount) const;
private:
    CUVWPointList m_points;
};

class CVCChannel : public C3DChannel {
public:
    CVCChannel() : C3DChannel(CHANNEL_VC) {}
    std::unique_ptr<C3DChannel> Clone() const override { return std::make_unique<CVCChannel>(*this); }
    CVCFaceList* GetVCFaceList() { return &m_faces; }
    const CVCFaceList* GetVCFaceList() const { return &m_faces; }
    CVCPointList* GetVCPointList() { return &m_points; }
    const CVCPointList* GetVCPointList() const { return &m_points; }
    float GetWeight() const { return m_weight; }
    void SetWeight(float w) { m_weight = w; }
    size_t MemoryBytes() const override { return m_faces.MemoryBytes() + m_points.MemoryBytes(); }
    void Append(const C3DChannel& src) override;
private:
    CVCPointList m_points;
    float m_weight = 1.0f;
};

class CSpecNormalChannel : public C3DChannel {
public:
    CSpecNormalChannel() : C3DChannel(CHANNEL_SPEC_NORMAL) {}
    std::unique_ptr<C3DChannel> Clone() const override { return std::make_unique<CSpecNormalChannel>(*this); }
    CNormalFaceList* GetNormalFaceList() { return &m_faces; }
    const CNormalFaceList* GetNormalFaceList() const { return &m_faces; }
    C3DVectorList* GetNormalVectorList() { return &m_vectors; }
    const C3DVectorList* GetNormalVectorList() const { return &m_vectors; }
    size_t MemoryBytes() const override { return m_faces.MemoryBytes() + m_vectors.MemoryBytes(); }
    void Append(const C3DChannel& src) override;
    // Smooth normals: corners of faces meeting at a point share a normal when the
    // angle between the faces is below `angleDeg` (degrees). Faces whose normal is
    // degenerate get the zero vector.
    void GenerateNormals(const C3DPointList& points, const CFaceList& faces, float angleDeg);
private:
    C3DVectorList m_vectors;
};

// One normal per face, no face list.
class CFaceNormalChannel : public C3DChannel {
public:
    CFaceNormalChannel() : C3DChannel(CHANNEL_FACE_NORMAL) {}
    std::unique_ptr<C3DChannel> Clone() const override { return std::make_unique<CFaceNormalChannel>(*this); }
    CFaceList* GetFaceList() override { return nullptr; }
    C3DVectorList* GetNormalVectorList() { return &m_vectors; }
    const C3DVectorList* GetNormalVectorList() const { return &m_vectors; }
    size_t MemoryBytes() const override { return m_vectors.MemoryBytes(); }
    void Append(const C3DChannel& src) override;
    // Newell normal of every face (robust for non-planar polygons); degenerate faces get 0.
    void Compute(const C3DPointList& points, const CFaceList& faces);
private:
    C3DVectorList m_vectors;
};

// Newell normal of one face, normalised (zero for degenerate faces).
C3DVector FaceNormal(const C3DPointList& points, std::span<const uint32_t> face);
