#pragma once
#include <cstdint>

class C3DParser;
class CFileIo;

// Creates the parser for `typeID`. `known` tells whether the ID is one of the
// module's; the result is null for an unknown ID or when allocation failed.
C3DParser* CreateParserForType(uint32_t typeID, CFileIo& io, bool& known);
