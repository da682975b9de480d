#pragma once
// LWO2 writing: every mesh node becomes a layer (points in world space, the node's origin as
// the pivot, the nearest mesh ancestor as the parent), every material a surface with its
// colour texture as a clip and an image block on the mesh's UV map.
#include <cstdint>
#include <vector>

#include "plugin/host/Scene.h"

namespace lightwave {

// The whole file into `out`; false when the scene holds no mesh.
bool WriteObject(const C3DScene& scene, std::vector<uint8_t>& out);

} // namespace lightwave
