#pragma once
// Lightwave object reading shared by the object parser and the scene parser: the bytes of an
// LWOB, LWLO or LWO2 file become a scene with one node per layer (node ID = layer number).
// Texture paths are resolved against `folder` (the object's own folder, may be empty).
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "plugin/host/IoFile.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XString.h"

namespace lightwave {

// IO_OK and a scene, or one of IO_ERR_FORMAT, IO_ERR_EMPTY, IO_ERR_CANCELLED (no scene).
// `cancelled` is polled between chunks and layers; it may be empty. When `data` is the mapping
// of `file`, pages already read are handed back as the reader moves on.
int ReadObject(std::span<const uint8_t> data, const CXStringW& folder, CSceneImportOptions& options,
               const std::function<bool()>& cancelled, std::unique_ptr<C3DScene>& out, const IoFile* file = nullptr);

// A file name as the format stores it ("disk:dir/file", backslashes) in host form.
CXStringW HostPath(std::string_view stored);

// The host path of a texture or object named in a file under `folder`: as written when it
// exists, else relative to the folder, else the bare name next to it; `found` tells which.
CXStringW ResolveNear(const CXStringW& folder, const CXStringW& path, bool& found);

// Planar, cylindrical, spherical and cubic projections of the format (left-handed object
// coordinates), as UVs. `proj` 0..3, `axis` 0 X, 1 Y, 2 Z; `normal` only matters for cubic.
struct Projection {
    int proj = 0;
    int axis = 2;
    float center[3] = {0, 0, 0};
    float size[3] = {1, 1, 1};
    float rota[3] = {0, 0, 0}; // heading, pitch, bank (radians)
    float wrapW = 1, wrapH = 1;
};
void ProjectUV(const Projection& p, const float pt[3], const float normal[3], float& u, float& v);

} // namespace lightwave
