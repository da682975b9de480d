#pragma once
// Writes one mesh layer's data chunks (points, box, vertex maps, polygons, polygon
// tags) from a host mesh. The LXO export and the updater share it.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "formats/lxo/LxoWriter.h"

class C3DGeomObject;

// A mesh to be written as a layer. The caller keeps the object alive.
struct LxoLayerMesh {
    const C3DGeomObject* object = nullptr;
    // Face material ID -> index into the file's TAGS table for PTAG MATR; faces whose
    // material is outside the list (or NO_MATERIAL) get tag 0.
    std::vector<uint32_t> materialTags;
};

// Writes PNTS, BBOX, then per UVW channel VMPA + VMAP TXUV, per vertex-colour channel
// VMAP RGBA, per explicit-normal channel VMAP NORM (first value a point gets), POLS FACE,
// the VMAD entries of corners that differ from their point's value, and PTAG MATR.
// Channels whose face lists do not match the mesh's are left out.
uint32_t LxoWriteLayerData(LxoWriter& writer, const LxoLayerMesh& mesh);

// BBOX of n points (x, y, z each); all zeros when there are none.
uint32_t LxoWriteBoundingBox(LxoWriter& writer, const float* points, size_t n);
