#pragma once
// The 54 standard VRML97 node classes. Members hold the field values, with the
// ISO/IEC 14772-1 defaults; each class's interface table lives in VrmlNodes.cpp.
#include <string>
#include <unordered_map>
#include <vector>

#include "vrml/vrml97/VrmlNodeKinds.h"

namespace vrmldefaults {
inline constexpr float kCrossSection[] = {1, 1, 1, -1, -1, -1, -1, 1, 1, 1};
inline constexpr float kSpine[] = {0, 0, 0, 0, 1, 0};
inline constexpr float kScale2[] = {1, 1};
inline constexpr float kNoRotation[] = {0, 0, 1, 0};
inline constexpr float kAvatar[] = {0.25f, 1.6f, 0.75f};
inline constexpr float kBlack[] = {0, 0, 0};
inline constexpr const char* kNavTypes[] = {"WALK", "ANY"};
} // namespace vrmldefaults

// Bindable nodes share the set_bind handling.
#define VRML_BINDABLE                                                                                                  \
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;                            \
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;                                               \
    bool isBound() const { return d_isBound.get(); }                                                                   \
    VrmlSFBool d_isBound;

class VrmlNodeAnchor : public VrmlNodeGroup {
    VRML_NODE(VrmlNodeAnchor, Anchor, VrmlNodeGroup)
    VrmlSFString d_description;
    VrmlMFString d_parameter;
    VrmlMFString d_url;
};

class VrmlNodeAppearance : public VrmlNode {
    VRML_NODE(VrmlNodeAppearance, Appearance, VrmlNode)
    VrmlSFNode d_material, d_texture, d_textureTransform;
};

class VrmlNodeAudioClip : public VrmlNode {
    VRML_NODE(VrmlNodeAudioClip, AudioClip, VrmlNode)
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    VrmlSFString d_description;
    VrmlSFBool d_loop;
    VrmlSFFloat d_pitch{1.0f};
    VrmlSFTime d_startTime, d_stopTime;
    VrmlMFString d_url;
};

class VrmlNodeBackground : public VrmlNodeChild {
    VRML_NODE(VrmlNodeBackground, Background, VrmlNodeChild)
    VRML_BINDABLE
    VrmlMFFloat d_groundAngle;
    VrmlMFColor d_groundColor;
    VrmlMFString d_backUrl, d_bottomUrl, d_frontUrl, d_leftUrl, d_rightUrl, d_topUrl;
    VrmlMFFloat d_skyAngle;
    VrmlMFColor d_skyColor{1, vrmldefaults::kBlack};
};

class VrmlNodeBillboard : public VrmlNodeGroup {
    VRML_NODE(VrmlNodeBillboard, Billboard, VrmlNodeGroup)
    VrmlSFVec3f d_axisOfRotation{0, 1, 0};
};

class VrmlNodeBox : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodeBox, Box, VrmlNodeGeometry)
    VrmlSFVec3f d_size{2, 2, 2};
};

class VrmlNodeCollision : public VrmlNodeGroup {
    VRML_NODE(VrmlNodeCollision, Collision, VrmlNodeGroup)
    VrmlSFBool d_collide{true};
    VrmlSFNode d_proxy;
};

// Linear interpolators: set_fraction picks the key interval and emits value_changed.
class VrmlNodeColorInt : public VrmlNodeChild {
    VRML_NODE(VrmlNodeColorInt, ColorInt, VrmlNodeChild)
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    VrmlMFFloat d_key;
    VrmlMFColor d_keyValue;
    VrmlSFColor d_value;
};

class VrmlNodeCone : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodeCone, Cone, VrmlNodeGeometry)
    VrmlSFBool d_bottom{true};
    VrmlSFFloat d_bottomRadius{1.0f};
    VrmlSFFloat d_height{2.0f};
    VrmlSFBool d_side{true};
};

class VrmlNodeCoordinate : public VrmlNode {
    VRML_NODE(VrmlNodeCoordinate, Coordinate, VrmlNode)
    VrmlMFVec3f d_point;
};

class VrmlNodeCoordinateInt : public VrmlNodeChild {
    VRML_NODE(VrmlNodeCoordinateInt, CoordinateInt, VrmlNodeChild)
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    VrmlMFFloat d_key;
    VrmlMFVec3f d_keyValue;
    VrmlMFVec3f d_value;
};

class VrmlNodeCylinder : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodeCylinder, Cylinder, VrmlNodeGeometry)
    VrmlSFBool d_bottom{true};
    VrmlSFFloat d_height{2.0f};
    VrmlSFFloat d_radius{1.0f};
    VrmlSFBool d_side{true};
    VrmlSFBool d_top{true};
};

class VrmlNodeCylinderSensor : public VrmlNodeChild {
    VRML_NODE(VrmlNodeCylinderSensor, CylinderSensor, VrmlNodeChild)
    VrmlSFBool d_autoOffset{true};
    VrmlSFFloat d_diskAngle{0.262f};
    VrmlSFBool d_enabled{true};
    VrmlSFFloat d_maxAngle{-1.0f};
    VrmlSFFloat d_minAngle{0.0f};
    VrmlSFFloat d_offset{0.0f};
};

class VrmlNodeDirLight : public VrmlNodeLight {
    VRML_NODE(VrmlNodeDirLight, DirLight, VrmlNodeLight)
    VrmlSFVec3f d_direction{0, 0, -1};
};

class VrmlNodeElevationGrid : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodeElevationGrid, ElevationGrid, VrmlNodeGeometry)
    VrmlSFNode d_color, d_normal, d_texCoord;
    VrmlSFBool d_ccw{true};
    VrmlSFBool d_colorPerVertex{true};
    VrmlSFFloat d_creaseAngle;
    VrmlMFFloat d_height;
    VrmlSFBool d_normalPerVertex{true};
    VrmlSFBool d_solid{true};
    VrmlSFInt d_xDimension;
    VrmlSFFloat d_xSpacing{1.0f};
    VrmlSFInt d_zDimension;
    VrmlSFFloat d_zSpacing{1.0f};
};

class VrmlNodeExtrusion : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodeExtrusion, Extrusion, VrmlNodeGeometry)
    VrmlSFBool d_beginCap{true};
    VrmlSFBool d_ccw{true};
    VrmlSFBool d_convex{true};
    VrmlSFFloat d_creaseAngle;
    VrmlMFVec2f d_crossSection{5, vrmldefaults::kCrossSection};
    VrmlSFBool d_endCap{true};
    VrmlMFRotation d_orientation{1, vrmldefaults::kNoRotation};
    VrmlMFVec2f d_scale{1, vrmldefaults::kScale2};
    VrmlSFBool d_solid{true};
    VrmlMFVec3f d_spine{2, vrmldefaults::kSpine};
};

class VrmlNodeFog : public VrmlNodeChild {
    VRML_NODE(VrmlNodeFog, Fog, VrmlNodeChild)
    VRML_BINDABLE
    VrmlSFColor d_color{1, 1, 1};
    VrmlSFString d_fogType{"LINEAR"};
    VrmlSFFloat d_visibilityRange;
};

class VrmlNodeFontStyle : public VrmlNode {
    VRML_NODE(VrmlNodeFontStyle, FontStyle, VrmlNode)
    VrmlMFString d_family{"SERIF"};
    VrmlSFBool d_horizontal{true};
    VrmlMFString d_justify{"BEGIN"};
    VrmlSFString d_language{""};
    VrmlSFBool d_leftToRight{true};
    VrmlSFFloat d_size{1.0f};
    VrmlSFFloat d_spacing{1.0f};
    VrmlSFString d_style{"PLAIN"};
    VrmlSFBool d_topToBottom{true};
};

class VrmlNodeImageTexture : public VrmlNodeTexture {
    VRML_NODE(VrmlNodeImageTexture, ImageTexture, VrmlNodeTexture)
    VrmlMFString d_url;
    VrmlSFBool d_repeatS{true};
    VrmlSFBool d_repeatT{true};
};

class VrmlNodeIFaceSet : public VrmlNodeIndexedSet {
    VRML_NODE(VrmlNodeIFaceSet, IFaceSet, VrmlNodeIndexedSet)
    VrmlSFNode d_normal, d_texCoord;
    VrmlSFBool d_ccw{true};
    VrmlSFBool d_convex{true};
    VrmlSFFloat d_creaseAngle;
    VrmlMFInt d_normalIndex;
    VrmlSFBool d_normalPerVertex{true};
    VrmlSFBool d_solid{true};
    VrmlMFInt d_texCoordIndex;
};

class VrmlNodeILineSet : public VrmlNodeIndexedSet {
    VRML_NODE(VrmlNodeILineSet, ILineSet, VrmlNodeIndexedSet)
};

// Inline reads its world (local files only) when it joins a scene.
class VrmlNodeInline : public VrmlNodeGroup {
    VRML_NODE(VrmlNodeInline, Inline, VrmlNodeGroup)
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    VrmlMFString d_url;
    bool d_loaded = false;
    // Cleared by the importer, which loads Inline worlds itself (gzip, include cycles).
    static inline bool s_loadOnAdd = true;
};

class VrmlNodeLOD : public VrmlNodeChild {
    VRML_NODE(VrmlNodeLOD, LOD, VrmlNodeChild)
    VrmlMFNode d_level;
    VrmlSFVec3f d_center;
    VrmlMFFloat d_range;
};

class VrmlNodeMaterial : public VrmlNode {
    VRML_NODE(VrmlNodeMaterial, Material, VrmlNode)
    VrmlSFFloat d_ambientIntensity{0.2f};
    VrmlSFColor d_diffuseColor{0.8f, 0.8f, 0.8f};
    VrmlSFColor d_emissiveColor{0, 0, 0};
    VrmlSFFloat d_shininess{0.2f};
    VrmlSFColor d_specularColor{0, 0, 0};
    VrmlSFFloat d_transparency{0.0f};
};

class VrmlNodeMovieTexture : public VrmlNodeTexture {
    VRML_NODE(VrmlNodeMovieTexture, MovieTexture, VrmlNodeTexture)
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    VrmlSFBool d_loop;
    VrmlSFFloat d_speed{1.0f};
    VrmlSFTime d_startTime, d_stopTime;
    VrmlMFString d_url;
    VrmlSFBool d_repeatS{true};
    VrmlSFBool d_repeatT{true};
};

class VrmlNodeNavigationInfo : public VrmlNodeChild {
    VRML_NODE(VrmlNodeNavigationInfo, NavigationInfo, VrmlNodeChild)
    VRML_BINDABLE
    VrmlMFFloat d_avatarSize{3, vrmldefaults::kAvatar};
    VrmlSFBool d_headlight{true};
    VrmlSFFloat d_speed{1.0f};
    VrmlMFString d_type{2, vrmldefaults::kNavTypes};
    VrmlSFFloat d_visibilityLimit;
};

class VrmlNodeNormal : public VrmlNode {
    VRML_NODE(VrmlNodeNormal, Normal, VrmlNode)
    VrmlMFVec3f d_vector;
};

class VrmlNodeNormalInt : public VrmlNodeChild {
    VRML_NODE(VrmlNodeNormalInt, NormalInt, VrmlNodeChild)
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    VrmlMFFloat d_key;
    VrmlMFVec3f d_keyValue;
    VrmlMFVec3f d_value;
};

class VrmlNodeOrientationInt : public VrmlNodeChild {
    VRML_NODE(VrmlNodeOrientationInt, OrientationInt, VrmlNodeChild)
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    VrmlMFFloat d_key;
    VrmlMFRotation d_keyValue;
    VrmlSFRotation d_value;
};

class VrmlNodePixelTexture : public VrmlNodeTexture {
    VRML_NODE(VrmlNodePixelTexture, PixelTexture, VrmlNodeTexture)
    VrmlSFImage d_image;
    VrmlSFBool d_repeatS{true};
    VrmlSFBool d_repeatT{true};
};

class VrmlNodePlaneSensor : public VrmlNodeChild {
    VRML_NODE(VrmlNodePlaneSensor, PlaneSensor, VrmlNodeChild)
    VrmlSFBool d_autoOffset{true};
    VrmlSFBool d_enabled{true};
    VrmlSFVec2f d_maxPosition{-1, -1};
    VrmlSFVec2f d_minPosition{0, 0};
    VrmlSFVec3f d_offset;
};

class VrmlNodePointLight : public VrmlNodeLight {
    VRML_NODE(VrmlNodePointLight, PointLight, VrmlNodeLight)
    VrmlSFVec3f d_attenuation{1, 0, 0};
    VrmlSFVec3f d_location;
    VrmlSFFloat d_radius{100.0f};
};

class VrmlNodePointSet : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodePointSet, PointSet, VrmlNodeGeometry)
    VrmlSFNode d_color, d_coord;
};

class VrmlNodePositionInt : public VrmlNodeChild {
    VRML_NODE(VrmlNodePositionInt, PositionInt, VrmlNodeChild)
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    VrmlMFFloat d_key;
    VrmlMFVec3f d_keyValue;
    VrmlSFVec3f d_value;
};

class VrmlNodeProximitySensor : public VrmlNodeChild {
    VRML_NODE(VrmlNodeProximitySensor, ProximitySensor, VrmlNodeChild)
    VrmlSFVec3f d_center;
    VrmlSFBool d_enabled{true};
    VrmlSFVec3f d_size;
};

class VrmlNodeScalarInt : public VrmlNodeChild {
    VRML_NODE(VrmlNodeScalarInt, ScalarInt, VrmlNodeChild)
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    VrmlMFFloat d_key;
    VrmlMFFloat d_keyValue;
    VrmlSFFloat d_value;
};

// Script: besides url/directOutput/mustEvaluate, each instance declares its own
// eventIns, eventOuts and fields.
class VrmlNodeScript : public VrmlNodeChild {
    VRML_NODE(VrmlNodeScript, Script, VrmlNodeChild)
    VrmlNodeScript(const VrmlNodeScript& other);
    ~VrmlNodeScript() override;
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    struct Interface {
        std::string name;
        VrmlInterfaceKind kind;
        VrmlField::VrmlFieldType type;
        VrmlField* value; // owned; fields only
    };
    void addEventIn(const char* name, VrmlField::VrmlFieldType type);
    void addEventOut(const char* name, VrmlField::VrmlFieldType type);
    void addField(const char* name, VrmlField::VrmlFieldType type, const VrmlField* defaultVal = nullptr);
    VrmlField::VrmlFieldType hasEventIn(const char* name) const;
    VrmlField::VrmlFieldType hasEventOut(const char* name) const;
    VrmlField::VrmlFieldType hasField(const char* name) const;
    const std::vector<Interface>& interfaces() const { return d_interfaces; }

    VrmlMFString d_url;
    VrmlSFBool d_directOutput;
    VrmlSFBool d_mustEvaluate;

private:
    Interface* find(const char* name, VrmlInterfaceKind kind);
    const Interface* find(const char* name, VrmlInterfaceKind kind) const;
    void add(Interface i);
    std::vector<Interface> d_interfaces;
    // Positions in d_interfaces by kind and name: a Script may declare any number.
    std::unordered_map<std::string, size_t> d_interfaceIndex;
};

class VrmlNodeShape : public VrmlNodeChild {
    VRML_NODE(VrmlNodeShape, Shape, VrmlNodeChild)
    VrmlSFNode d_appearance, d_geometry;
};

class VrmlNodeSound : public VrmlNodeChild {
    VRML_NODE(VrmlNodeSound, Sound, VrmlNodeChild)
    VrmlSFVec3f d_direction{0, 0, 1};
    VrmlSFFloat d_intensity{1.0f};
    VrmlSFVec3f d_location;
    VrmlSFFloat d_maxBack{10.0f};
    VrmlSFFloat d_maxFront{10.0f};
    VrmlSFFloat d_minBack{1.0f};
    VrmlSFFloat d_minFront{1.0f};
    VrmlSFFloat d_priority;
    VrmlSFNode d_source;
    VrmlSFBool d_spatialize{true};
};

class VrmlNodeSphere : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodeSphere, Sphere, VrmlNodeGeometry)
    VrmlSFFloat d_radius{1.0f};
};

class VrmlNodeSphereSensor : public VrmlNodeChild {
    VRML_NODE(VrmlNodeSphereSensor, SphereSensor, VrmlNodeChild)
    VrmlSFBool d_autoOffset{true};
    VrmlSFBool d_enabled{true};
    VrmlSFRotation d_offset{0, 1, 0, 0};
};

class VrmlNodeSpotLight : public VrmlNodeLight {
    VRML_NODE(VrmlNodeSpotLight, SpotLight, VrmlNodeLight)
    VrmlSFVec3f d_attenuation{1, 0, 0};
    VrmlSFFloat d_beamWidth{1.570796f};
    VrmlSFFloat d_cutOffAngle{0.785398f};
    VrmlSFVec3f d_direction{0, 0, -1};
    VrmlSFVec3f d_location;
    VrmlSFFloat d_radius{100.0f};
};

class VrmlNodeSwitch : public VrmlNodeChild {
    VRML_NODE(VrmlNodeSwitch, Switch, VrmlNodeChild)
    VrmlMFNode d_choice;
    VrmlSFInt d_whichChoice{-1};
};

class VrmlNodeText : public VrmlNodeGeometry {
    VRML_NODE(VrmlNodeText, Text, VrmlNodeGeometry)
    VrmlMFString d_string;
    VrmlSFNode d_fontStyle;
    VrmlMFFloat d_length;
    VrmlSFFloat d_maxExtent;
};

class VrmlNodeTextureCoordinate : public VrmlNode {
    VRML_NODE(VrmlNodeTextureCoordinate, TextureCoordinate, VrmlNode)
    VrmlMFVec2f d_point;
};

class VrmlNodeTextureTransform : public VrmlNode {
    VRML_NODE(VrmlNodeTextureTransform, TextureTransform, VrmlNode)
    VrmlSFVec2f d_center;
    VrmlSFFloat d_rotation;
    VrmlSFVec2f d_scale{1, 1};
    VrmlSFVec2f d_translation;
};

class VrmlNodeTimeSensor : public VrmlNodeChild {
    VRML_NODE(VrmlNodeTimeSensor, TimeSensor, VrmlNodeChild)
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    // Emits the sensor's events for the given time.
    void update(double time);
    VrmlSFTime d_cycleInterval{1.0};
    VrmlSFBool d_enabled{true};
    VrmlSFBool d_loop;
    VrmlSFTime d_startTime, d_stopTime;
    VrmlSFBool d_isActive;
    double d_lastTime = 0;
};

class VrmlNodeTouchSensor : public VrmlNodeChild {
    VRML_NODE(VrmlNodeTouchSensor, TouchSensor, VrmlNodeChild)
    VrmlSFBool d_enabled{true};
};

class VrmlNodeTransform : public VrmlNodeGroup {
    VRML_NODE(VrmlNodeTransform, Transform, VrmlNodeGroup)
    // Local matrix, row-major with the translation in the last column:
    // T * C * R * SR * S * -SR * -C.
    void getMatrix(double m[16]) const;
    VrmlSFVec3f d_center;
    VrmlSFRotation d_rotation;
    VrmlSFVec3f d_scale{1, 1, 1};
    VrmlSFRotation d_scaleOrientation;
    VrmlSFVec3f d_translation;
};

class VrmlNodeViewpoint : public VrmlNodeChild {
    VRML_NODE(VrmlNodeViewpoint, Viewpoint, VrmlNodeChild)
    VRML_BINDABLE
    VrmlSFFloat d_fieldOfView{0.785398f};
    VrmlSFBool d_jump{true};
    VrmlSFRotation d_orientation;
    VrmlSFVec3f d_position{0, 0, 10};
    VrmlSFString d_description;
};

class VrmlNodeVisibilitySensor : public VrmlNodeChild {
    VRML_NODE(VrmlNodeVisibilitySensor, VisibilitySensor, VrmlNodeChild)
    VrmlSFVec3f d_center;
    VrmlSFBool d_enabled{true};
    VrmlSFVec3f d_size;
};

class VrmlNodeWorldInfo : public VrmlNodeChild {
    VRML_NODE(VrmlNodeWorldInfo, WorldInfo, VrmlNodeChild)
    VrmlMFString d_info;
    VrmlSFString d_title;
};

#undef VRML_BINDABLE
