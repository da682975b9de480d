#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"

// Interface tables of the standard node types, in declaration order.
// Generated once from the node catalogue; edit by hand from here on.
const VrmlFieldSpec VrmlNodeAnchor::s_fields[] = {
    VRML_F(VrmlNodeAnchor, ExposedField, SFSTRING, description),
    VRML_F(VrmlNodeAnchor, ExposedField, MFSTRING, parameter),
    VRML_F(VrmlNodeAnchor, ExposedField, MFSTRING, url),
};
VRML_NODE_IMPL(VrmlNodeAnchor, VrmlNodeGroup, "Anchor")

const VrmlFieldSpec VrmlNodeAppearance::s_fields[] = {
    VRML_F(VrmlNodeAppearance, ExposedField, SFNODE, material),
    VRML_F(VrmlNodeAppearance, ExposedField, SFNODE, texture),
    VRML_F(VrmlNodeAppearance, ExposedField, SFNODE, textureTransform),
};
VRML_NODE_IMPL(VrmlNodeAppearance, VrmlNode, "Appearance")

const VrmlFieldSpec VrmlNodeAudioClip::s_fields[] = {
    VRML_F(VrmlNodeAudioClip, ExposedField, SFSTRING, description),
    VRML_F(VrmlNodeAudioClip, ExposedField, SFBOOL, loop),
    VRML_F(VrmlNodeAudioClip, ExposedField, SFFLOAT, pitch),
    VRML_F(VrmlNodeAudioClip, ExposedField, SFTIME, startTime),
    VRML_F(VrmlNodeAudioClip, ExposedField, SFTIME, stopTime),
    VRML_F(VrmlNodeAudioClip, ExposedField, MFSTRING, url),
    VRML_E(EventOut, SFTIME, duration_changed),
    VRML_E(EventOut, SFBOOL, isActive),
};
VRML_NODE_IMPL(VrmlNodeAudioClip, VrmlNode, "AudioClip")

const VrmlFieldSpec VrmlNodeBackground::s_fields[] = {
    VRML_E(EventIn, SFBOOL, set_bind),
    VRML_F(VrmlNodeBackground, ExposedField, MFFLOAT, groundAngle),
    VRML_F(VrmlNodeBackground, ExposedField, MFCOLOR, groundColor),
    VRML_F(VrmlNodeBackground, ExposedField, MFSTRING, backUrl),
    VRML_F(VrmlNodeBackground, ExposedField, MFSTRING, bottomUrl),
    VRML_F(VrmlNodeBackground, ExposedField, MFSTRING, frontUrl),
    VRML_F(VrmlNodeBackground, ExposedField, MFSTRING, leftUrl),
    VRML_F(VrmlNodeBackground, ExposedField, MFSTRING, rightUrl),
    VRML_F(VrmlNodeBackground, ExposedField, MFSTRING, topUrl),
    VRML_F(VrmlNodeBackground, ExposedField, MFFLOAT, skyAngle),
    VRML_F(VrmlNodeBackground, ExposedField, MFCOLOR, skyColor),
    VRML_E(EventOut, SFBOOL, isBound),
};
VRML_NODE_IMPL(VrmlNodeBackground, VrmlNodeChild, "Background")

const VrmlFieldSpec VrmlNodeBillboard::s_fields[] = {
    VRML_F(VrmlNodeBillboard, ExposedField, SFVEC3F, axisOfRotation),
};
VRML_NODE_IMPL(VrmlNodeBillboard, VrmlNodeGroup, "Billboard")

const VrmlFieldSpec VrmlNodeBox::s_fields[] = {
    VRML_F(VrmlNodeBox, Field, SFVEC3F, size),
};
VRML_NODE_IMPL(VrmlNodeBox, VrmlNodeGeometry, "Box")

const VrmlFieldSpec VrmlNodeCollision::s_fields[] = {
    VRML_F(VrmlNodeCollision, ExposedField, SFBOOL, collide),
    VRML_F(VrmlNodeCollision, Field, SFNODE, proxy),
    VRML_E(EventOut, SFTIME, collideTime),
};
VRML_NODE_IMPL(VrmlNodeCollision, VrmlNodeGroup, "Collision")

const VrmlFieldSpec VrmlNodeColor::s_fields[] = {
    VRML_F(VrmlNodeColor, ExposedField, MFCOLOR, color),
};
VRML_NODE_IMPL(VrmlNodeColor, VrmlNode, "Color")

const VrmlFieldSpec VrmlNodeColorInt::s_fields[] = {
    VRML_E(EventIn, SFFLOAT, set_fraction),
    VRML_F(VrmlNodeColorInt, ExposedField, MFFLOAT, key),
    VRML_F(VrmlNodeColorInt, ExposedField, MFCOLOR, keyValue),
    VRML_E(EventOut, SFCOLOR, value_changed),
};
VRML_NODE_IMPL(VrmlNodeColorInt, VrmlNodeChild, "ColorInterpolator")

const VrmlFieldSpec VrmlNodeCone::s_fields[] = {
    VRML_F(VrmlNodeCone, Field, SFBOOL, bottom),
    VRML_F(VrmlNodeCone, Field, SFFLOAT, bottomRadius),
    VRML_F(VrmlNodeCone, Field, SFFLOAT, height),
    VRML_F(VrmlNodeCone, Field, SFBOOL, side),
};
VRML_NODE_IMPL(VrmlNodeCone, VrmlNodeGeometry, "Cone")

const VrmlFieldSpec VrmlNodeCoordinate::s_fields[] = {
    VRML_F(VrmlNodeCoordinate, ExposedField, MFVEC3F, point),
};
VRML_NODE_IMPL(VrmlNodeCoordinate, VrmlNode, "Coordinate")

const VrmlFieldSpec VrmlNodeCoordinateInt::s_fields[] = {
    VRML_E(EventIn, SFFLOAT, set_fraction),
    VRML_F(VrmlNodeCoordinateInt, ExposedField, MFFLOAT, key),
    VRML_F(VrmlNodeCoordinateInt, ExposedField, MFVEC3F, keyValue),
    VRML_E(EventOut, MFVEC3F, value_changed),
};
VRML_NODE_IMPL(VrmlNodeCoordinateInt, VrmlNodeChild, "CoordinateInterpolator")

const VrmlFieldSpec VrmlNodeCylinder::s_fields[] = {
    VRML_F(VrmlNodeCylinder, Field, SFBOOL, bottom),  VRML_F(VrmlNodeCylinder, Field, SFFLOAT, height),
    VRML_F(VrmlNodeCylinder, Field, SFFLOAT, radius), VRML_F(VrmlNodeCylinder, Field, SFBOOL, side),
    VRML_F(VrmlNodeCylinder, Field, SFBOOL, top),
};
VRML_NODE_IMPL(VrmlNodeCylinder, VrmlNodeGeometry, "Cylinder")

const VrmlFieldSpec VrmlNodeCylinderSensor::s_fields[] = {
    VRML_F(VrmlNodeCylinderSensor, ExposedField, SFBOOL, autoOffset),
    VRML_F(VrmlNodeCylinderSensor, ExposedField, SFFLOAT, diskAngle),
    VRML_F(VrmlNodeCylinderSensor, ExposedField, SFBOOL, enabled),
    VRML_F(VrmlNodeCylinderSensor, ExposedField, SFFLOAT, maxAngle),
    VRML_F(VrmlNodeCylinderSensor, ExposedField, SFFLOAT, minAngle),
    VRML_F(VrmlNodeCylinderSensor, ExposedField, SFFLOAT, offset),
    VRML_E(EventOut, SFBOOL, isActive),
    VRML_E(EventOut, SFROTATION, rotation_changed),
    VRML_E(EventOut, SFVEC3F, trackPoint_changed),
};
VRML_NODE_IMPL(VrmlNodeCylinderSensor, VrmlNodeChild, "CylinderSensor")

const VrmlFieldSpec VrmlNodeDirLight::s_fields[] = {
    VRML_F(VrmlNodeDirLight, ExposedField, SFVEC3F, direction),
};
VRML_NODE_IMPL(VrmlNodeDirLight, VrmlNodeLight, "DirectionalLight")

const VrmlFieldSpec VrmlNodeElevationGrid::s_fields[] = {
    VRML_E(EventIn, MFFLOAT, set_height),
    VRML_F(VrmlNodeElevationGrid, ExposedField, SFNODE, color),
    VRML_F(VrmlNodeElevationGrid, ExposedField, SFNODE, normal),
    VRML_F(VrmlNodeElevationGrid, ExposedField, SFNODE, texCoord),
    VRML_F(VrmlNodeElevationGrid, Field, SFBOOL, ccw),
    VRML_F(VrmlNodeElevationGrid, Field, SFBOOL, colorPerVertex),
    VRML_F(VrmlNodeElevationGrid, Field, SFFLOAT, creaseAngle),
    VRML_F(VrmlNodeElevationGrid, Field, MFFLOAT, height),
    VRML_F(VrmlNodeElevationGrid, Field, SFBOOL, normalPerVertex),
    VRML_F(VrmlNodeElevationGrid, Field, SFBOOL, solid),
    VRML_F(VrmlNodeElevationGrid, Field, SFINT32, xDimension),
    VRML_F(VrmlNodeElevationGrid, Field, SFFLOAT, xSpacing),
    VRML_F(VrmlNodeElevationGrid, Field, SFINT32, zDimension),
    VRML_F(VrmlNodeElevationGrid, Field, SFFLOAT, zSpacing),
};
VRML_NODE_IMPL(VrmlNodeElevationGrid, VrmlNodeGeometry, "ElevationGrid")

const VrmlFieldSpec VrmlNodeExtrusion::s_fields[] = {
    VRML_E(EventIn, MFVEC2F, set_crossSection),
    VRML_E(EventIn, MFROTATION, set_orientation),
    VRML_E(EventIn, MFVEC2F, set_scale),
    VRML_E(EventIn, MFVEC3F, set_spine),
    VRML_F(VrmlNodeExtrusion, Field, SFBOOL, beginCap),
    VRML_F(VrmlNodeExtrusion, Field, SFBOOL, ccw),
    VRML_F(VrmlNodeExtrusion, Field, SFBOOL, convex),
    VRML_F(VrmlNodeExtrusion, Field, SFFLOAT, creaseAngle),
    VRML_F(VrmlNodeExtrusion, Field, MFVEC2F, crossSection),
    VRML_F(VrmlNodeExtrusion, Field, SFBOOL, endCap),
    VRML_F(VrmlNodeExtrusion, Field, MFROTATION, orientation),
    VRML_F(VrmlNodeExtrusion, Field, MFVEC2F, scale),
    VRML_F(VrmlNodeExtrusion, Field, SFBOOL, solid),
    VRML_F(VrmlNodeExtrusion, Field, MFVEC3F, spine),
};
VRML_NODE_IMPL(VrmlNodeExtrusion, VrmlNodeGeometry, "Extrusion")

const VrmlFieldSpec VrmlNodeFog::s_fields[] = {
    VRML_E(EventIn, SFBOOL, set_bind),
    VRML_F(VrmlNodeFog, ExposedField, SFCOLOR, color),
    VRML_F(VrmlNodeFog, ExposedField, SFSTRING, fogType),
    VRML_F(VrmlNodeFog, ExposedField, SFFLOAT, visibilityRange),
    VRML_E(EventOut, SFBOOL, isBound),
};
VRML_NODE_IMPL(VrmlNodeFog, VrmlNodeChild, "Fog")

const VrmlFieldSpec VrmlNodeFontStyle::s_fields[] = {
    VRML_F(VrmlNodeFontStyle, Field, MFSTRING, family),    VRML_F(VrmlNodeFontStyle, Field, SFBOOL, horizontal),
    VRML_F(VrmlNodeFontStyle, Field, MFSTRING, justify),   VRML_F(VrmlNodeFontStyle, Field, SFSTRING, language),
    VRML_F(VrmlNodeFontStyle, Field, SFBOOL, leftToRight), VRML_F(VrmlNodeFontStyle, Field, SFFLOAT, size),
    VRML_F(VrmlNodeFontStyle, Field, SFFLOAT, spacing),    VRML_F(VrmlNodeFontStyle, Field, SFSTRING, style),
    VRML_F(VrmlNodeFontStyle, Field, SFBOOL, topToBottom),
};
VRML_NODE_IMPL(VrmlNodeFontStyle, VrmlNode, "FontStyle")

const VrmlFieldSpec VrmlNodeGroup::s_fields[] = {
    VRML_E(EventIn, MFNODE, addChildren),
    VRML_E(EventIn, MFNODE, removeChildren),
    VRML_F(VrmlNodeGroup, ExposedField, MFNODE, children),
    VRML_F(VrmlNodeGroup, Field, SFVEC3F, bboxCenter),
    VRML_F(VrmlNodeGroup, Field, SFVEC3F, bboxSize),
};
VRML_NODE_IMPL(VrmlNodeGroup, VrmlNodeChild, "Group")

const VrmlFieldSpec VrmlNodeImageTexture::s_fields[] = {
    VRML_F(VrmlNodeImageTexture, ExposedField, MFSTRING, url),
    VRML_F(VrmlNodeImageTexture, Field, SFBOOL, repeatS),
    VRML_F(VrmlNodeImageTexture, Field, SFBOOL, repeatT),
};
VRML_NODE_IMPL(VrmlNodeImageTexture, VrmlNodeTexture, "ImageTexture")

const VrmlFieldSpec VrmlNodeIFaceSet::s_fields[] = {
    VRML_E(EventIn, MFINT32, set_normalIndex),
    VRML_E(EventIn, MFINT32, set_texCoordIndex),
    VRML_F(VrmlNodeIFaceSet, ExposedField, SFNODE, normal),
    VRML_F(VrmlNodeIFaceSet, ExposedField, SFNODE, texCoord),
    VRML_F(VrmlNodeIFaceSet, Field, SFBOOL, ccw),
    VRML_F(VrmlNodeIFaceSet, Field, SFBOOL, convex),
    VRML_F(VrmlNodeIFaceSet, Field, SFFLOAT, creaseAngle),
    VRML_F(VrmlNodeIFaceSet, Field, MFINT32, normalIndex),
    VRML_F(VrmlNodeIFaceSet, Field, SFBOOL, normalPerVertex),
    VRML_F(VrmlNodeIFaceSet, Field, SFBOOL, solid),
    VRML_F(VrmlNodeIFaceSet, Field, MFINT32, texCoordIndex),
};
VRML_NODE_IMPL(VrmlNodeIFaceSet, VrmlNodeIndexedSet, "IndexedFaceSet")

const VrmlFieldSpec VrmlNodeILineSet::s_fields[] = {
    {nullptr, VrmlInterfaceKind::Field, VrmlField::NO_FIELD, nullptr},
};
VRML_NODE_IMPL(VrmlNodeILineSet, VrmlNodeIndexedSet, "IndexedLineSet")

const VrmlFieldSpec VrmlNodeInline::s_fields[] = {
    VRML_F(VrmlNodeInline, ExposedField, MFSTRING, url),
};
VRML_NODE_IMPL(VrmlNodeInline, VrmlNodeGroup, "Inline")

const VrmlFieldSpec VrmlNodeLOD::s_fields[] = {
    VRML_F(VrmlNodeLOD, ExposedField, MFNODE, level),
    VRML_F(VrmlNodeLOD, Field, SFVEC3F, center),
    VRML_F(VrmlNodeLOD, Field, MFFLOAT, range),
};
VRML_NODE_IMPL(VrmlNodeLOD, VrmlNodeChild, "LOD")

const VrmlFieldSpec VrmlNodeMaterial::s_fields[] = {
    VRML_F(VrmlNodeMaterial, ExposedField, SFFLOAT, ambientIntensity),
    VRML_F(VrmlNodeMaterial, ExposedField, SFCOLOR, diffuseColor),
    VRML_F(VrmlNodeMaterial, ExposedField, SFCOLOR, emissiveColor),
    VRML_F(VrmlNodeMaterial, ExposedField, SFFLOAT, shininess),
    VRML_F(VrmlNodeMaterial, ExposedField, SFCOLOR, specularColor),
    VRML_F(VrmlNodeMaterial, ExposedField, SFFLOAT, transparency),
};
VRML_NODE_IMPL(VrmlNodeMaterial, VrmlNode, "Material")

const VrmlFieldSpec VrmlNodeMovieTexture::s_fields[] = {
    VRML_F(VrmlNodeMovieTexture, ExposedField, SFBOOL, loop),
    VRML_F(VrmlNodeMovieTexture, ExposedField, SFFLOAT, speed),
    VRML_F(VrmlNodeMovieTexture, ExposedField, SFTIME, startTime),
    VRML_F(VrmlNodeMovieTexture, ExposedField, SFTIME, stopTime),
    VRML_F(VrmlNodeMovieTexture, ExposedField, MFSTRING, url),
    VRML_F(VrmlNodeMovieTexture, Field, SFBOOL, repeatS),
    VRML_F(VrmlNodeMovieTexture, Field, SFBOOL, repeatT),
    VRML_E(EventOut, SFTIME, duration_changed),
    VRML_E(EventOut, SFBOOL, isActive),
};
VRML_NODE_IMPL(VrmlNodeMovieTexture, VrmlNodeTexture, "MovieTexture")

const VrmlFieldSpec VrmlNodeNavigationInfo::s_fields[] = {
    VRML_E(EventIn, SFBOOL, set_bind),
    VRML_F(VrmlNodeNavigationInfo, ExposedField, MFFLOAT, avatarSize),
    VRML_F(VrmlNodeNavigationInfo, ExposedField, SFBOOL, headlight),
    VRML_F(VrmlNodeNavigationInfo, ExposedField, SFFLOAT, speed),
    VRML_F(VrmlNodeNavigationInfo, ExposedField, MFSTRING, type),
    VRML_F(VrmlNodeNavigationInfo, ExposedField, SFFLOAT, visibilityLimit),
    VRML_E(EventOut, SFBOOL, isBound),
};
VRML_NODE_IMPL(VrmlNodeNavigationInfo, VrmlNodeChild, "NavigationInfo")

const VrmlFieldSpec VrmlNodeNormal::s_fields[] = {
    VRML_F(VrmlNodeNormal, ExposedField, MFVEC3F, vector),
};
VRML_NODE_IMPL(VrmlNodeNormal, VrmlNode, "Normal")

const VrmlFieldSpec VrmlNodeNormalInt::s_fields[] = {
    VRML_E(EventIn, SFFLOAT, set_fraction),
    VRML_F(VrmlNodeNormalInt, ExposedField, MFFLOAT, key),
    VRML_F(VrmlNodeNormalInt, ExposedField, MFVEC3F, keyValue),
    VRML_E(EventOut, MFVEC3F, value_changed),
};
VRML_NODE_IMPL(VrmlNodeNormalInt, VrmlNodeChild, "NormalInterpolator")

const VrmlFieldSpec VrmlNodeOrientationInt::s_fields[] = {
    VRML_E(EventIn, SFFLOAT, set_fraction),
    VRML_F(VrmlNodeOrientationInt, ExposedField, MFFLOAT, key),
    VRML_F(VrmlNodeOrientationInt, ExposedField, MFROTATION, keyValue),
    VRML_E(EventOut, SFROTATION, value_changed),
};
VRML_NODE_IMPL(VrmlNodeOrientationInt, VrmlNodeChild, "OrientationInterpolator")

const VrmlFieldSpec VrmlNodePixelTexture::s_fields[] = {
    VRML_F(VrmlNodePixelTexture, ExposedField, SFIMAGE, image),
    VRML_F(VrmlNodePixelTexture, Field, SFBOOL, repeatS),
    VRML_F(VrmlNodePixelTexture, Field, SFBOOL, repeatT),
};
VRML_NODE_IMPL(VrmlNodePixelTexture, VrmlNodeTexture, "PixelTexture")

const VrmlFieldSpec VrmlNodePlaneSensor::s_fields[] = {
    VRML_F(VrmlNodePlaneSensor, ExposedField, SFBOOL, autoOffset),
    VRML_F(VrmlNodePlaneSensor, ExposedField, SFBOOL, enabled),
    VRML_F(VrmlNodePlaneSensor, ExposedField, SFVEC2F, maxPosition),
    VRML_F(VrmlNodePlaneSensor, ExposedField, SFVEC2F, minPosition),
    VRML_F(VrmlNodePlaneSensor, ExposedField, SFVEC3F, offset),
    VRML_E(EventOut, SFBOOL, isActive),
    VRML_E(EventOut, SFVEC3F, translation_changed),
    VRML_E(EventOut, SFVEC3F, trackPoint_changed),
};
VRML_NODE_IMPL(VrmlNodePlaneSensor, VrmlNodeChild, "PlaneSensor")

const VrmlFieldSpec VrmlNodePointLight::s_fields[] = {
    VRML_F(VrmlNodePointLight, ExposedField, SFVEC3F, attenuation),
    VRML_F(VrmlNodePointLight, ExposedField, SFVEC3F, location),
    VRML_F(VrmlNodePointLight, ExposedField, SFFLOAT, radius),
};
VRML_NODE_IMPL(VrmlNodePointLight, VrmlNodeLight, "PointLight")

const VrmlFieldSpec VrmlNodePointSet::s_fields[] = {
    VRML_F(VrmlNodePointSet, ExposedField, SFNODE, color),
    VRML_F(VrmlNodePointSet, ExposedField, SFNODE, coord),
};
VRML_NODE_IMPL(VrmlNodePointSet, VrmlNodeGeometry, "PointSet")

const VrmlFieldSpec VrmlNodePositionInt::s_fields[] = {
    VRML_E(EventIn, SFFLOAT, set_fraction),
    VRML_F(VrmlNodePositionInt, ExposedField, MFFLOAT, key),
    VRML_F(VrmlNodePositionInt, ExposedField, MFVEC3F, keyValue),
    VRML_E(EventOut, SFVEC3F, value_changed),
};
VRML_NODE_IMPL(VrmlNodePositionInt, VrmlNodeChild, "PositionInterpolator")

const VrmlFieldSpec VrmlNodeProximitySensor::s_fields[] = {
    VRML_F(VrmlNodeProximitySensor, ExposedField, SFVEC3F, center),
    VRML_F(VrmlNodeProximitySensor, ExposedField, SFBOOL, enabled),
    VRML_F(VrmlNodeProximitySensor, ExposedField, SFVEC3F, size),
    VRML_E(EventOut, SFTIME, enterTime),
    VRML_E(EventOut, SFTIME, exitTime),
    VRML_E(EventOut, SFBOOL, isActive),
    VRML_E(EventOut, SFROTATION, orientation_changed),
    VRML_E(EventOut, SFVEC3F, position_changed),
};
VRML_NODE_IMPL(VrmlNodeProximitySensor, VrmlNodeChild, "ProximitySensor")

const VrmlFieldSpec VrmlNodeScalarInt::s_fields[] = {
    VRML_E(EventIn, SFFLOAT, set_fraction),
    VRML_F(VrmlNodeScalarInt, ExposedField, MFFLOAT, key),
    VRML_F(VrmlNodeScalarInt, ExposedField, MFFLOAT, keyValue),
    VRML_E(EventOut, SFFLOAT, value_changed),
};
VRML_NODE_IMPL(VrmlNodeScalarInt, VrmlNodeChild, "ScalarInterpolator")

// Script's table is in VrmlNodes.cpp with its per-instance interface.

const VrmlFieldSpec VrmlNodeShape::s_fields[] = {
    VRML_F(VrmlNodeShape, ExposedField, SFNODE, appearance),
    VRML_F(VrmlNodeShape, ExposedField, SFNODE, geometry),
};
VRML_NODE_IMPL(VrmlNodeShape, VrmlNodeChild, "Shape")

const VrmlFieldSpec VrmlNodeSound::s_fields[] = {
    VRML_F(VrmlNodeSound, ExposedField, SFVEC3F, direction), VRML_F(VrmlNodeSound, ExposedField, SFFLOAT, intensity),
    VRML_F(VrmlNodeSound, ExposedField, SFVEC3F, location),  VRML_F(VrmlNodeSound, ExposedField, SFFLOAT, maxBack),
    VRML_F(VrmlNodeSound, ExposedField, SFFLOAT, maxFront),  VRML_F(VrmlNodeSound, ExposedField, SFFLOAT, minBack),
    VRML_F(VrmlNodeSound, ExposedField, SFFLOAT, minFront),  VRML_F(VrmlNodeSound, ExposedField, SFFLOAT, priority),
    VRML_F(VrmlNodeSound, ExposedField, SFNODE, source),     VRML_F(VrmlNodeSound, Field, SFBOOL, spatialize),
};
VRML_NODE_IMPL(VrmlNodeSound, VrmlNodeChild, "Sound")

const VrmlFieldSpec VrmlNodeSphere::s_fields[] = {
    VRML_F(VrmlNodeSphere, Field, SFFLOAT, radius),
};
VRML_NODE_IMPL(VrmlNodeSphere, VrmlNodeGeometry, "Sphere")

const VrmlFieldSpec VrmlNodeSphereSensor::s_fields[] = {
    VRML_F(VrmlNodeSphereSensor, ExposedField, SFBOOL, autoOffset),
    VRML_F(VrmlNodeSphereSensor, ExposedField, SFBOOL, enabled),
    VRML_F(VrmlNodeSphereSensor, ExposedField, SFROTATION, offset),
    VRML_E(EventOut, SFBOOL, isActive),
    VRML_E(EventOut, SFROTATION, rotation_changed),
    VRML_E(EventOut, SFVEC3F, trackPoint_changed),
};
VRML_NODE_IMPL(VrmlNodeSphereSensor, VrmlNodeChild, "SphereSensor")

const VrmlFieldSpec VrmlNodeSpotLight::s_fields[] = {
    VRML_F(VrmlNodeSpotLight, ExposedField, SFVEC3F, attenuation),
    VRML_F(VrmlNodeSpotLight, ExposedField, SFFLOAT, beamWidth),
    VRML_F(VrmlNodeSpotLight, ExposedField, SFFLOAT, cutOffAngle),
    VRML_F(VrmlNodeSpotLight, ExposedField, SFVEC3F, direction),
    VRML_F(VrmlNodeSpotLight, ExposedField, SFVEC3F, location),
    VRML_F(VrmlNodeSpotLight, ExposedField, SFFLOAT, radius),
};
VRML_NODE_IMPL(VrmlNodeSpotLight, VrmlNodeLight, "SpotLight")

const VrmlFieldSpec VrmlNodeSwitch::s_fields[] = {
    VRML_F(VrmlNodeSwitch, ExposedField, MFNODE, choice),
    VRML_F(VrmlNodeSwitch, ExposedField, SFINT32, whichChoice),
};
VRML_NODE_IMPL(VrmlNodeSwitch, VrmlNodeChild, "Switch")

const VrmlFieldSpec VrmlNodeText::s_fields[] = {
    VRML_F(VrmlNodeText, ExposedField, MFSTRING, string),
    VRML_F(VrmlNodeText, ExposedField, SFNODE, fontStyle),
    VRML_F(VrmlNodeText, ExposedField, MFFLOAT, length),
    VRML_F(VrmlNodeText, ExposedField, SFFLOAT, maxExtent),
};
VRML_NODE_IMPL(VrmlNodeText, VrmlNodeGeometry, "Text")

const VrmlFieldSpec VrmlNodeTextureCoordinate::s_fields[] = {
    VRML_F(VrmlNodeTextureCoordinate, ExposedField, MFVEC2F, point),
};
VRML_NODE_IMPL(VrmlNodeTextureCoordinate, VrmlNode, "TextureCoordinate")

const VrmlFieldSpec VrmlNodeTextureTransform::s_fields[] = {
    VRML_F(VrmlNodeTextureTransform, ExposedField, SFVEC2F, center),
    VRML_F(VrmlNodeTextureTransform, ExposedField, SFFLOAT, rotation),
    VRML_F(VrmlNodeTextureTransform, ExposedField, SFVEC2F, scale),
    VRML_F(VrmlNodeTextureTransform, ExposedField, SFVEC2F, translation),
};
VRML_NODE_IMPL(VrmlNodeTextureTransform, VrmlNode, "TextureTransform")

const VrmlFieldSpec VrmlNodeTimeSensor::s_fields[] = {
    VRML_F(VrmlNodeTimeSensor, ExposedField, SFTIME, cycleInterval),
    VRML_F(VrmlNodeTimeSensor, ExposedField, SFBOOL, enabled),
    VRML_F(VrmlNodeTimeSensor, ExposedField, SFBOOL, loop),
    VRML_F(VrmlNodeTimeSensor, ExposedField, SFTIME, startTime),
    VRML_F(VrmlNodeTimeSensor, ExposedField, SFTIME, stopTime),
    VRML_E(EventOut, SFTIME, cycleTime),
    VRML_E(EventOut, SFFLOAT, fraction_changed),
    VRML_E(EventOut, SFBOOL, isActive),
    VRML_E(EventOut, SFTIME, time),
};
VRML_NODE_IMPL(VrmlNodeTimeSensor, VrmlNodeChild, "TimeSensor")

const VrmlFieldSpec VrmlNodeTouchSensor::s_fields[] = {
    VRML_F(VrmlNodeTouchSensor, ExposedField, SFBOOL, enabled),
    VRML_E(EventOut, SFVEC3F, hitNormal_changed),
    VRML_E(EventOut, SFVEC3F, hitPoint_changed),
    VRML_E(EventOut, SFVEC2F, hitTexCoord_changed),
    VRML_E(EventOut, SFBOOL, isActive),
    VRML_E(EventOut, SFBOOL, isOver),
    VRML_E(EventOut, SFTIME, touchTime),
};
VRML_NODE_IMPL(VrmlNodeTouchSensor, VrmlNodeChild, "TouchSensor")

const VrmlFieldSpec VrmlNodeTransform::s_fields[] = {
    VRML_F(VrmlNodeTransform, ExposedField, SFVEC3F, center),
    VRML_F(VrmlNodeTransform, ExposedField, SFROTATION, rotation),
    VRML_F(VrmlNodeTransform, ExposedField, SFVEC3F, scale),
    VRML_F(VrmlNodeTransform, ExposedField, SFROTATION, scaleOrientation),
    VRML_F(VrmlNodeTransform, ExposedField, SFVEC3F, translation),
};
VRML_NODE_IMPL(VrmlNodeTransform, VrmlNodeGroup, "Transform")

const VrmlFieldSpec VrmlNodeViewpoint::s_fields[] = {
    VRML_E(EventIn, SFBOOL, set_bind),
    VRML_F(VrmlNodeViewpoint, ExposedField, SFFLOAT, fieldOfView),
    VRML_F(VrmlNodeViewpoint, ExposedField, SFBOOL, jump),
    VRML_F(VrmlNodeViewpoint, ExposedField, SFROTATION, orientation),
    VRML_F(VrmlNodeViewpoint, ExposedField, SFVEC3F, position),
    VRML_F(VrmlNodeViewpoint, Field, SFSTRING, description),
    VRML_E(EventOut, SFTIME, bindTime),
    VRML_E(EventOut, SFBOOL, isBound),
};
VRML_NODE_IMPL(VrmlNodeViewpoint, VrmlNodeChild, "Viewpoint")

const VrmlFieldSpec VrmlNodeVisibilitySensor::s_fields[] = {
    VRML_F(VrmlNodeVisibilitySensor, ExposedField, SFVEC3F, center),
    VRML_F(VrmlNodeVisibilitySensor, ExposedField, SFBOOL, enabled),
    VRML_F(VrmlNodeVisibilitySensor, ExposedField, SFVEC3F, size),
    VRML_E(EventOut, SFTIME, enterTime),
    VRML_E(EventOut, SFTIME, exitTime),
    VRML_E(EventOut, SFBOOL, isActive),
};
VRML_NODE_IMPL(VrmlNodeVisibilitySensor, VrmlNodeChild, "VisibilitySensor")

const VrmlFieldSpec VrmlNodeWorldInfo::s_fields[] = {
    VRML_F(VrmlNodeWorldInfo, Field, MFSTRING, info),
    VRML_F(VrmlNodeWorldInfo, Field, SFSTRING, title),
};
VRML_NODE_IMPL(VrmlNodeWorldInfo, VrmlNodeChild, "WorldInfo")

const VrmlFieldSpec VrmlNodeLight::s_fields[] = {
    VRML_F(VrmlNodeLight, ExposedField, SFFLOAT, ambientIntensity),
    VRML_F(VrmlNodeLight, ExposedField, SFCOLOR, color),
    VRML_F(VrmlNodeLight, ExposedField, SFFLOAT, intensity),
    VRML_F(VrmlNodeLight, ExposedField, SFBOOL, on),
};
VRML_NODE_KIND_IMPL(VrmlNodeLight, VrmlNodeChild)

const VrmlFieldSpec VrmlNodeIndexedSet::s_fields[] = {
    VRML_E(EventIn, MFINT32, set_colorIndex),
    VRML_E(EventIn, MFINT32, set_coordIndex),
    VRML_F(VrmlNodeIndexedSet, ExposedField, SFNODE, color),
    VRML_F(VrmlNodeIndexedSet, ExposedField, SFNODE, coord),
    VRML_F(VrmlNodeIndexedSet, Field, MFINT32, colorIndex),
    VRML_F(VrmlNodeIndexedSet, Field, SFBOOL, colorPerVertex),
    VRML_F(VrmlNodeIndexedSet, Field, MFINT32, coordIndex),
};
VRML_NODE_KIND_IMPL(VrmlNodeIndexedSet, VrmlNodeGeometry)

const VrmlFieldSpec VrmlNodeChild::s_fields[] = {
    {nullptr, VrmlInterfaceKind::Field, VrmlField::NO_FIELD, nullptr},
};
VRML_NODE_KIND_IMPL(VrmlNodeChild, VrmlNode)

const VrmlFieldSpec VrmlNodeGeometry::s_fields[] = {
    {nullptr, VrmlInterfaceKind::Field, VrmlField::NO_FIELD, nullptr},
};
VRML_NODE_KIND_IMPL(VrmlNodeGeometry, VrmlNode)

const VrmlFieldSpec VrmlNodeTexture::s_fields[] = {
    {nullptr, VrmlInterfaceKind::Field, VrmlField::NO_FIELD, nullptr},
};
VRML_NODE_KIND_IMPL(VrmlNodeTexture, VrmlNode)
