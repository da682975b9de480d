#pragma once
// gzip-compressed worlds (".wrz", ".wrl.gz"): inflated into a temporary file beside
// the world, or in the system's temporary folder when the world's folder is not
// writable; the guard deletes the file on every path.
#include <cstdint>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/XString.h"

namespace vrml97import {

enum class WorldFileState { Plain, Inflated, Failed };

// The file to parse for `path`: `path` itself when it is not gzip-compressed, else the
// temporary file (owned by `guard`). On Failed (damaged, or inflating past the limit)
// no temporary file is left.
WorldFileState PrepareWorldFile(const CXStringW& path, CTempFileGuard& guard, CXStringW& fileToParse);

} // namespace vrml97import
