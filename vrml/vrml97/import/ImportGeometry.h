#pragma once
// VRML97 geometry nodes as host objects: IndexedFaceSet and ElevationGrid and
// Extrusion meshes (with their colour and texture-coordinate channels),
// IndexedLineSet curves. The builders never trust the file: every index is
// checked against the data it names, and sizes that the file does not pay for
// byte by byte (an Extrusion's spine x cross-section) are checked against a cap.
#include <cstdint>
#include <memory>

#include "plugin/host/Object.h"

class VrmlNode;
class VrmlNodeIFaceSet;
class VrmlNodeILineSet;
class VrmlNodeElevationGrid;
class VrmlNodeExtrusion;

namespace vrml97import {

// What a builder had to leave out, for the import log.
struct GeometryReport {
    int skippedFaces = 0;          // runs with fewer vertices than a face needs or a bad index
    bool droppedColors = false;    // colour indices too short or out of range
    bool droppedTexCoords = false; // texture coordinate indices too short or out of range
    bool tooLarge = false;         // the result would exceed the element cap
    bool empty = false;            // nothing to build (dimensions, missing data)
};

// A PROTO instance stands for its first node: follows instances (instantiating them) to a
// standard node. Null stays null.
VrmlNode* ResolveNode(VrmlNode* n);

// Faces are the runs of coordIndex between -1 entries; a run of fewer than three vertices
// or with an index outside the points is left out. Faces carry `material`.
std::unique_ptr<C3DObject> BuildFaceSet(VrmlNodeIFaceSet& n, uint32_t material, GeometryReport& rep);
// One poly-line per run of two or more valid indices; every coord point is kept, in order.
std::unique_ptr<C3DCurve> BuildLineSet(VrmlNodeILineSet& n, uint32_t material, GeometryReport& rep);
// A grid of xDimension x zDimension points, one quad per cell.
std::unique_ptr<C3DObject> BuildElevationGrid(VrmlNodeElevationGrid& n, uint32_t material, GeometryReport& rep);
// The cross-section swept along the spine (ISO/IEC 14772-1 6.18), with the caps;
// fails with rep.tooLarge when spine x cross-section exceeds maxPoints.
std::unique_ptr<C3DObject> BuildExtrusion(VrmlNodeExtrusion& n, uint32_t material, uint64_t maxPoints,
                                          GeometryReport& rep);

// Floats and indices an object holds (points, faces, channels): the unit of the import's caps.
uint64_t GeometryElements(const C3DGeomObject& o);

} // namespace vrml97import
