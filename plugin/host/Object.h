#pragma once
// Objects a scene node carries: meshes, curves, patches, groups, cameras, lights.
#include <cstdint>
#include <memory>
#include <vector>

#include "plugin/host/Channel.h"
#include "plugin/host/Color.h"
#include "plugin/host/CustomData.h"
#include "plugin/host/FaceList.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Math3D.h"
#include "plugin/host/PointList.h"

class C3DBaseObject {
public:
    explicit C3DBaseObject(uint32_t kind) : m_kind(kind) {}
    virtual ~C3DBaseObject() = default;
    virtual std::unique_ptr<C3DBaseObject> Clone() const = 0;
    uint32_t GetKindOf() const { return m_kind; }
    virtual bool IsGeomObject() const { return false; }
    bool IsFlagSet(uint32_t f) const { return (m_flags & f) != 0; }
    void SetFlag(uint32_t f, bool on = true) { m_flags = on ? (m_flags | f) : (m_flags & ~f); }
    uint32_t GetFlags() const { return m_flags; }
    CCustomData& GetCustomData() { return m_custom; }
    const CCustomData& GetCustomData() const { return m_custom; }
    virtual C3DBox GetBoundingBox() const { return {}; }
    virtual size_t MemoryBytes() const { return 0; }

protected:
    C3DBaseObject(const C3DBaseObject&) = default;
    uint32_t m_kind;
    uint32_t m_flags = 0;
    CCustomData m_custom;
};

class C3DGeomObject : public C3DBaseObject {
public:
    explicit C3DGeomObject(uint32_t kind);
    C3DGeomObject(const C3DGeomObject& o);
    bool IsGeomObject() const override { return true; }

    C3DPointList* GetPointList() { return m_points.get(); }
    const C3DPointList* GetPointList() const { return m_points.get(); }
    C3DFaceList* GetFaceList() { return m_faces.get(); }
    const C3DFaceList* GetFaceList() const { return m_faces.get(); }
    // Attach lists. With `own` true the object takes the list; with false it keeps a copy.
    virtual void SetPointList(C3DPointList* list, bool own = true);
    virtual void SetFaceList(C3DFaceList* list, bool own = true);

    // Channels. AddChannel takes ownership; id -1 assigns the next free ID. Returns the ID.
    int32_t AddChannel(C3DChannel* channel, int32_t id = -1);
    int32_t AddChannel(std::unique_ptr<C3DChannel> channel, int32_t id = -1) {
        return AddChannel(channel.release(), id);
    }
    C3DChannel* GetChannelByID(int32_t id, uint32_t type = CHANNEL_ANY) const;
    // index-th channel of `type` (CHANNEL_ANY: of any type).
    C3DChannel* GetChannelByIndex(int index, uint32_t type = CHANNEL_ANY) const;
    int GetChannelCount(uint32_t type = CHANNEL_ANY) const;
    int32_t GetFirstChannelIDByType(uint32_t type) const;
    bool RemoveChannel(int32_t id);
    void RemoveChannels(uint32_t type);
    const std::vector<std::unique_ptr<C3DChannel>>& GetChannels() const { return m_channels; }

    int32_t GetGlobalUVWChannelID() const { return m_globalUVW; }
    CUVWChannel* GetGlobalUVWChannel() const;
    void SetGlobalUVWChannel(int32_t id) { m_globalUVW = id; }
    int32_t GetGlobalVCChannelID() const { return m_globalVC; }
    CVCChannel* GetGlobalVCChannel(float* weight = nullptr) const;
    void SetGlobalVCChannel(int32_t id) { m_globalVC = id; }
    CFaceNormalChannel* GetFaceNormalChannel() const;
    // Computes (or recomputes) the face normal channel.
    CFaceNormalChannel* ComputeFaceNormals();
    // Builds an explicit normal channel with the smoothing angle (degrees); returns it.
    CSpecNormalChannel* GenerateNormals(float angleDeg);

    float GetSmoothAngle() const { return m_smoothAngle; }
    void SetSmoothAngle(float deg) { m_smoothAngle = deg; }
    int GetSmoothMode() const { return m_smoothMode; }
    void SetSmoothMode(int m) { m_smoothMode = m; }
    int GetFaceMode() const { return m_faceMode; }
    void SetFaceMode(int m) { m_faceMode = m; }

    // Reverses the faces and every channel's faces the same way.
    void InvertFaceWinding();
    // Transforms points (and normals) in place.
    void Transform(const C4x4Matrix& m);

    // Connection info of a channel: for each mesh point, the channel points its face corners
    // use. Channel faces flagged FACE_SKIP (no values there) connect nothing.
    bool InitGraph(int32_t channelID);
    // The channel points connected to mesh point `point` in first-seen order (empty when none).
    std::span<const uint32_t> GetChannelConnectionInfo(int point) const;
    void DeleteGraph() {
        m_graphOffsets.clear();
        m_graphPoints.clear();
    }

    C3DBox GetBoundingBox() const override;
    size_t MemoryBytes() const override;

protected:
    std::unique_ptr<C3DPointList> m_points;
    std::unique_ptr<C3DFaceList> m_faces;
    std::vector<std::unique_ptr<C3DChannel>> m_channels;
    int32_t m_globalUVW = -1;
    int32_t m_globalVC = -1;
    int32_t m_nextChannelID = 0;
    float m_smoothAngle = 0;
    int m_smoothMode = 0;
    int m_faceMode = 0;
    std::vector<uint32_t> m_graphOffsets, m_graphPoints;
};

// Polygon mesh (kind 1).
class C3DObject : public C3DGeomObject {
public:
    C3DObject() : C3DGeomObject(KINDOF_MESH) {}
    std::unique_ptr<C3DBaseObject> Clone() const override { return std::make_unique<C3DObject>(*this); }
protected:
    explicit C3DObject(uint32_t kind) : C3DGeomObject(kind) {}
};

// Patch mesh (kind 4): control points with patch faces of control indices; exported as a mesh.
class C3DPatch : public C3DObject {
public:
    C3DPatch() : C3DObject(KINDOF_PATCH) {}
    std::unique_ptr<C3DBaseObject> Clone() const override { return std::make_unique<C3DPatch>(*this); }
};

// Curves (kind 2): each "face" of the face list is one poly-line through the points.
class C3DCurve : public C3DGeomObject {
public:
    C3DCurve() : C3DGeomObject(KINDOF_CURVE) {}
    std::unique_ptr<C3DBaseObject> Clone() const override { return std::make_unique<C3DCurve>(*this); }
    int GetDegree() const { return m_degree; }
    void SetDegree(int d) { m_degree = d; }
    bool IsClosed() const { return IsFlagSet(OBJF_CLOSED); }
    void SetClosed(bool c) { SetFlag(OBJF_CLOSED, c); }
private:
    int m_degree = 1;
};

// Group / dummy (kind 8): no geometry; an optional box (3DS dummies carry one).
class C3DGroup : public C3DBaseObject {
public:
    C3DGroup() : C3DBaseObject(KINDOF_GROUP) {}
    std::unique_ptr<C3DBaseObject> Clone() const override { return std::make_unique<C3DGroup>(*this); }
    void SetBox(const C3DBox& b) { m_box = b; }
    C3DBox GetBoundingBox() const override { return m_box; }
private:
    C3DBox m_box;
};

enum CameraKind : int { CAMERA_FREE = 0, CAMERA_TARGET = 1 };
enum CameraProjection : int { PROJECTION_PERSPECTIVE = 0, PROJECTION_ORTHOGRAPHIC = 1 };

class C3DCamera : public C3DBaseObject {
public:
    explicit C3DCamera(int kind = CAMERA_FREE) : C3DBaseObject(KINDOF_CAMERA), m_camKind(kind) {}
    std::unique_ptr<C3DBaseObject> Clone() const override { return std::make_unique<C3DCamera>(*this); }
    int GetCameraKind() const { return m_camKind; }
    void SetProjection(int p) { m_projection = p; }
    int GetProjection() const { return m_projection; }
    void SetVFov(float radians) { m_vfov = radians; }
    float GetVFov() const { return m_vfov; }
    void SetVOrthoZoom(float z) { m_orthoZoom = z; }
    float GetVOrthoZoom() const { return m_orthoZoom; }
    void SetRoll(float r) { m_roll = r; }
    float GetRoll() const { return m_roll; }
    void SetTarget(const C3DPoint& t) { m_target = t; }
    C3DPoint GetTarget() const { return m_target; }
    void SetClipping(float n, float f) {
        m_near = n;
        m_far = f;
    }
    float GetNear() const { return m_near; }
    float GetFar() const { return m_far; }
private:
    int m_camKind;
    int m_projection = PROJECTION_PERSPECTIVE;
    float m_vfov = 0.785398f;
    float m_orthoZoom = 1.0f;
    float m_roll = 0;
    float m_near = 0.1f, m_far = 1e6f;
    C3DPoint m_target;
};

enum LightKind : int { LIGHT_POINT = 0, LIGHT_SPOT = 1, LIGHT_DIRECTIONAL = 2, LIGHT_AMBIENT = 3 };

class C3DLight : public C3DBaseObject {
public:
    explicit C3DLight(int kind = LIGHT_POINT) : C3DBaseObject(KINDOF_LIGHT), m_lightKind(kind) {}
    std::unique_ptr<C3DBaseObject> Clone() const override { return std::make_unique<C3DLight>(*this); }
    int GetLightKind() const { return m_lightKind; }
    void SetLightKind(int k) { m_lightKind = k; }
    CRGBColor color{255, 255, 255};
    float intensity = 1.0f;
    float ambientIntensity = 0.0f;
    bool on = true;
    C3DVector direction{0, 0, -1}; // directional and spot lights, object space
    C3DPoint location;             // point and spot lights, object space
    float radius = 100.0f;         // range of influence
    C3DVector attenuation{1, 0, 0};
    float beamWidth = 0.785398f;   // spot: full-intensity cone half angle (radians)
    float cutOffAngle = 0.785398f; // spot: outer cone half angle (radians)
private:
    int m_lightKind;
};
