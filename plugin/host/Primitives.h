#pragma once
// Primitive builders: each returns a new node holding a mesh (caller owns it).
// Axis mode 0 stands the shape along +Y (centred on the origin); 1 along +Z; 2 along +X.
// `uvw` adds a UV channel (the global one); `channelID` -1 lets the mesh pick it.
#include <cstdint>

#include "plugin/host/Math3D.h"

class C3DSceneNode;

C3DSceneNode* CreateCube(const C3DPoint& origin, double sizeX, double sizeY, double sizeZ, bool uvw,
                         uint32_t materialID, int32_t channelID);
C3DSceneNode* CreateSphere(const C3DPoint& origin, double radius, int segments, int rings, bool uvw,
                           uint32_t materialID, int32_t channelID);
C3DSceneNode* CreateCone(const C3DPoint& origin, double bottomRadius, double height, int axisMode, int sides,
                         int heightSegments, bool uvw, uint32_t materialID, int32_t channelID);
C3DSceneNode* CreateCylinder(const C3DPoint& origin, double radius, double height, int axisMode, int sides,
                             int heightSegments, bool caps, bool uvw, uint32_t materialID, int32_t channelID);
