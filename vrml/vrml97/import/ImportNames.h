#pragma once
// Names the VRML97 import gives to host objects: the process-wide counter behind
// "t%d", "Mat%d", "place2dTexture%d", "file%d" and "%sShape%d" (never reset, so a
// second import of one file numbers on from where the first stopped), DEF name
// sanitising, and the rewriting of ImageTexture URLs into host texture paths.
#include <cstdint>
#include <string_view>

#include "plugin/host/XString.h"

namespace vrml97import {

// Increments the shared counter and returns the new value.
uint32_t NextNameNumber();
// prefix + NextNameNumber(), e.g. "t12".
CXStringW NumberedName(const wchar_t* prefix);

// A DEF name (UTF-8) as a host name: '#', '-' and ':' become '_', at most 255 characters.
CXStringW SanitizeName(std::string_view defName);
// parent + "|" + name, at most 4096 characters.
CXStringW JoinPath(const CXStringW& parent, const CXStringW& name);

// The texture path rules, in their order: "\\\\" -> "\\"; "asset:" -> ".\\"; with a ':'
// left anywhere every ':' becomes ":\\", else ".\\" goes in front; '/' -> '\\'.
CXStringW RewriteTexturePath(const CXStringW& url);

// Names the engine gives unnamed PROTO body nodes ("%p" text) are not DEF names.
bool IsGeneratedName(std::string_view name);

} // namespace vrml97import
