// Parser creation and memory reads: FormatList.h expanded with the parser classes.
#include "plugin/ParserFactory.h"

#include <memory>
#include <new>

#include "formats/classic/C3DStudioIo.h"
#include "formats/classic/CAmapiIo.h"
#include "formats/classic/CDxfIo.h"
#include "formats/classic/CLightwaveIo.h"
#include "formats/classic/CLightwaveSceneIo.h"
#include "formats/classic/CTruespaceIo.h"
#include "formats/kmz/CKmzIo.h"
#include "formats/lxo/CLxoIo.h"
#include "formats/mesh/CMayaAsciiIo.h"
#include "formats/mesh/CPlyIo.h"
#include "formats/mesh/CStlIo.h"
#include "formats/mesh/CWavefrontIo.h"
#include "plugin/FormatList.h"
#include "plugin/FormatTable.h"
#include "plugin/host/Scene.h"
#include "vrml/vrml1/CVrmlIo.h"
#include "vrml/vrml97/CVrml97Io.h"

namespace {
struct ParserMaker {
    C3DParser* (*create)(CFileIo& io);
    C3DScene* (*readMemory)(CFileIo& io, std::span<const uint8_t> data, CSceneImportOptions& options);
};

template <typename T> C3DParser* Make(CFileIo& io) { return new (std::nothrow) T(io); }

template <typename T>
C3DScene* ReadMemoryWith(CFileIo& io, std::span<const uint8_t> data, CSceneImportOptions& options) {
    std::unique_ptr<T> parser(new (std::nothrow) T(io));
    if (!parser) return nullptr;
    parser->LoadDefaultOptions(options);
    if constexpr (requires { parser->ReadMemory(data, options); }) {
        return parser->ReadMemory(data, options);
    } else if constexpr (requires { parser->ReadMemory(data, data, options); }) {
        return parser->ReadMemory(data, {}, options); // OBJ: no material libraries
    } else {
        return parser->C3DParser::Read(CXStringW(), options); // not built yet: the base reports it
    }
}

#define ORBISCOPE_MAKER(cls, id, desc, exts, flags, probe)                                                             \
    {&Make<cls>, ((flags)&FORMAT_READ) ? &ReadMemoryWith<cls> : nullptr},
const ParserMaker kMakers[] = {ORBISCOPE_FORMATS(ORBISCOPE_MAKER)};
#undef ORBISCOPE_MAKER
static_assert(sizeof kMakers / sizeof kMakers[0] == kFormatCount);
} // namespace

C3DParser* CreateParserForType(uint32_t typeID, CFileIo& io, bool& known) {
    const int i = FindFormatIndex(typeID);
    known = i >= 0;
    return known ? kMakers[i].create(io) : nullptr;
}

C3DScene* ReadFormatFromMemory(uint32_t typeID, CFileIo& io, std::span<const uint8_t> data,
                               CSceneImportOptions& options) {
    const int i = FindFormatIndex(typeID);
    if (i < 0 || !kMakers[i].readMemory) return nullptr;
    return kMakers[i].readMemory(io, data, options);
}
