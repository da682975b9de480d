#pragma once
// Writes a host scene as the smallest trueSpace file such readers take: the header,
// a Grou per group node, a PolH per mesh (with its Unit, and a Mat1 + ShBx per
// material its faces use), END. Binary (little-endian, exact sizes) or ASCII (LF,
// sizes one above the body as trueSpace writes them). Output is deterministic.
#include <string>

#include "plugin/host/Scene.h"

namespace tsio {

// Appends the file to `out`. Returns the number of PolH chunks written.
size_t WriteScene(const C3DScene& scene, bool ascii, std::string& out);

} // namespace tsio
