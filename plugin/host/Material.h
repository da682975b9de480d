#pragma once
// Materials and their texture maps.
#include <cstdint>
#include <memory>
#include <vector>

#include "plugin/host/Color.h"
#include "plugin/host/CustomData.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Math3D.h"
#include "plugin/host/XString.h"

class CMaterialMap {
public:
    CXStringW file;
    CXStringW alphaFile;
    uint32_t type = MAP_DIFFUSE;
    uint32_t projection = PROJ_UV;
    int32_t channel = -1; // UV channel ID
    int axis = 0;
    float amount = 1.0f; // blend strength 0..1
    float tileU = 1, tileV = 1;
    float scaleU = 1, scaleV = 1;
    float translateU = 0, translateV = 0;
    C3DVector hpb;        // rotation as heading/pitch/bank angles (radians)
    CQuaternion rotation; // used when MAPF_QUATERNION is set
    uint32_t flags = 0;
    bool IsFlagSet(uint32_t f) const { return (flags & f) != 0; }
    void SetFlag(uint32_t f, bool on = true) { flags = on ? (flags | f) : (flags & ~f); }

    const CXStringW& GetFileName() const { return file; }
    void SetFileName(const CXStringW& f) { file = f; }
    void SetScale(float u, float v) {
        scaleU = u;
        scaleV = v;
    }
    void SetTranslation(float u, float v) {
        translateU = u;
        translateV = v;
    }
    void SetTile(float u, float v) {
        tileU = u;
        tileV = v;
    }
    void SetHPBRotation(float h, float p, float b) {
        hpb = {h, p, b};
        SetFlag(MAPF_QUATERNION, false);
    }
    void SetQuaternionRotation(const CQuaternion& q) {
        rotation = q;
        SetFlag(MAPF_QUATERNION, true);
    }
};

enum MaterialFlags : uint32_t {
    MATF_TWO_SIDED = 0x1,
    MATF_WIREFRAME = 0x2,
    MATF_FACETED = 0x4,
    MATF_USE_VERTEX_COLOR = 0x8,
};

enum AlphaMode : int { ALPHA_NONE = 0, ALPHA_BLEND = 1, ALPHA_ADD = 2 };

class C3DMaterial {
public:
    explicit C3DMaterial(uint32_t cls = MATERIAL_STANDARD) : m_class(cls) {}
    virtual ~C3DMaterial() = default;
    virtual std::unique_ptr<C3DMaterial> Clone() const = 0;
    uint32_t GetClass() const { return m_class; }
    uint32_t GetID() const { return m_id; }
    void SetID(uint32_t id) { m_id = id; }
    const CXStringW& GetName() const { return m_name; }
    void SetName(const CXStringW& n) { m_name = n; }

    CRGBColor diffuse{200, 200, 200};
    float diffuseFactor = 1.0f;
    float transparency = 0.0f; // 0 opaque .. 1 clear
    float smoothAngle = 0.0f;  // degrees
    int alphaMode = ALPHA_NONE;
    CRGBColor vertexColor{255, 255, 255};
    uint32_t flags = 0;
    bool IsFlagSet(uint32_t f) const { return (flags & f) != 0; }
    void SetFlag(uint32_t f, bool on = true) { flags = on ? (flags | f) : (flags & ~f); }

    const CRGBColor& GetDiffuseColor() const { return diffuse; }
    void SetDiffuseColor(const CRGBColor& c) { diffuse = c; }
    float GetDiffuseFactor() const { return diffuseFactor; }
    void SetDiffuseFactor(float f) { diffuseFactor = f; }
    float GetTransparency() const { return transparency; }
    void SetTransparency(float t) { transparency = t; }
    float GetSmoothAngle() const { return smoothAngle; }
    void SetSmoothAngle(float a) { smoothAngle = a; }
    int GetAlphaMode() const { return alphaMode; }
    void SetAlphaMode(int m) { alphaMode = m; }

    CMaterialMap* AddMaterialMap(const CXStringW& file, int32_t channel, uint32_t type, uint32_t projection = PROJ_UV);
    // The first map of `type`, or null.
    CMaterialMap* GetMaterialMap(uint32_t type) const;
    int GetMaterialMapCount() const { return static_cast<int>(m_maps.size()); }
    CMaterialMap* GetMaterialMapByIndex(int i) const { return m_maps[static_cast<size_t>(i)].get(); }
    CCustomData& GetCustomData() { return m_custom; }

protected:
    C3DMaterial(const C3DMaterial& o);
    uint32_t m_class;
    uint32_t m_id = NO_MATERIAL;
    CXStringW m_name;
    std::vector<std::unique_ptr<CMaterialMap>> m_maps;
    CCustomData m_custom;
};

class C3DStandardMaterial : public C3DMaterial {
public:
    C3DStandardMaterial() : C3DMaterial(MATERIAL_STANDARD) {}
    std::unique_ptr<C3DMaterial> Clone() const override { return std::make_unique<C3DStandardMaterial>(*this); }
    CRGBColor ambient{50, 50, 50};
    float ambientFactor = 1.0f;
    CRGBColor specular{255, 255, 255};
    float specularFactor = 0.0f;
    float shininess = 0.0f; // 0..1
    CRGBColor emissive{0, 0, 0};
    float emissiveFactor = 0.0f;

    const CRGBColor& GetAmbientColor() const { return ambient; }
    void SetAmbientColor(const CRGBColor& c) { ambient = c; }
    float GetAmbientFactor() const { return ambientFactor; }
    void SetAmbientFactor(float f) { ambientFactor = f; }
    const CRGBColor& GetSpecularColor() const { return specular; }
    void SetSpecularColor(const CRGBColor& c) { specular = c; }
    float GetSpecularFactor() const { return specularFactor; }
    void SetSpecularFactor(float f) { specularFactor = f; }
    float GetShininess() const { return shininess; }
    void SetShininess(float s) { shininess = s; }
};
