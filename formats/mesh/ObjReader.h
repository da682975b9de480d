#pragma once
// The OBJ reading engine behind CWavefrontIo::Read: two passes over the bytes
// (count, then fill), MTL libraries read during the count, one node per group
// whose points are the positions its faces use, renumbered in order of first use.
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "plugin/host/XString.h"

class C3DScene;
class CFileIo;
class CSceneImportOptions;
class IoFile;

namespace meshio {

// Result of one OBJ read.
enum class ObjStatus { Ok, NotObj, Cancelled };

// Finds the MTL library named by "mtllib" (the trimmed name as written): sets `key` to a
// name of the file that is the same however it is spelt, and when `bytes` is given reads
// the file into it. False when there is no such library or it cannot be read.
using MtlLoader = std::function<bool(std::string_view name, std::string& key, std::string* bytes)>;

struct ObjReadResult {
    C3DScene* scene = nullptr;
    ObjStatus status = ObjStatus::NotObj;
};

// `textMode` is one of the IoFile text modes (40, 16 or 8).
// `file`, when given, is the IoFile whose mapping `data` is: its pages are handed back as
// the passes move on.
ObjReadResult ReadObj(std::span<const uint8_t> data, int textMode, const MtlLoader& loadMtl, CFileIo& io,
                      CSceneImportOptions& options, const IoFile* file = nullptr);

// What the counting pass gathers from the lines it can take in bulk.
struct ObjLineCounts {
    uint64_t v = 0, vt = 0, vn = 0; // lines starting "v " (or tab), "vt", "vn" (any case)
    uint64_t faces = 0;             // lines starting "f" (any case)
    uint64_t faceTokens = 0;        // runs of non-space characters after those "f"s
};
// Counts lines from p (at a line start, or on a line break) up to the first line that
// starts with "g", "o" or "m" (any case), whose start is returned, or to `end`. Lines end
// at '\n' or '\r'. `poll` is called every few KiB with the position reached; when it
// returns true the count stops there and `end` is returned.
// The count runs on AVX2 where the processor has it; `portable` keeps it to SSE2 (tests
// check that both give the same).
using ObjCountPoll = bool (*)(void* ctx, const char* at);
const char* CountObjLines(const char* p, const char* end, ObjLineCounts& c, ObjCountPoll poll = nullptr,
                          void* ctx = nullptr, bool portable = false);

} // namespace meshio
