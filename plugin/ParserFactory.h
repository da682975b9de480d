#pragma once
// Parser creation and memory reads for the module's formats, derived from FormatList.h.
#include <cstdint>
#include <span>

class C3DParser;
class C3DScene;
class CFileIo;
class CSceneImportOptions;

// Creates the parser for `typeID`. `known` tells whether the ID is one of the
// module's; the result is null for an unknown ID or when allocation failed.
C3DParser* CreateParserForType(uint32_t typeID, CFileIo& io, bool& known);

// Reads `data` with the reader of `typeID`, as its Read would read a file of those bytes
// (no file system; a reader that needs more files sees none), after the parser's
// LoadDefaultOptions as the host calls it. The outcome is recorded in
// `io`; null for a failure, an unknown ID or a format that is only written.
C3DScene* ReadFormatFromMemory(uint32_t typeID, CFileIo& io, std::span<const uint8_t> data,
                               CSceneImportOptions& options);
