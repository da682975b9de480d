#include "plugin/ParserFactory.h"

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
#include "plugin/host/HostTypes.h"
#include "vrml/vrml1/CVrmlIo.h"
#include "vrml/vrml97/CVrml97Io.h"

namespace {
template <typename T> C3DParser* Make(CFileIo& io) { return new (std::nothrow) T(io); }
} // namespace

C3DParser* CreateParserForType(uint32_t typeID, CFileIo& io, bool& known) {
    known = true;
    switch (typeID) {
    case FourCC("3DST"): return Make<C3DStudioIo>(io);
    case FourCC("LIGT"): return Make<CLightwaveIo>(io);
    case FourCC("LIGS"): return Make<CLightwaveSceneIo>(io);
    case FourCC("AMAP"): return Make<CAmapiIo>(io);
    case FourCC("MYAS"): return Make<CMayaAsciiIo>(io);
    case FourCC("DXF4"): return Make<CDxfIo>(io);
    case FourCC("WAVF"): return Make<CWavefrontIo>(io);
    case FourCC("TRUE"): return Make<CTruespaceIo>(io);
    case FourCC("VRML"): return Make<CVrmlIo>(io);
    case FourCC("VR97"): return Make<CVrml97Io>(io);
    case FourCC("STL "): return Make<CStlIo>(io);
    case FourCC("PLYY"): return Make<CPlyIo>(io);
    case FourCC("KMZI"): return Make<CKmzIo>(io);
    case FourCC("LXOI"): return Make<CLxoIo>(io);
    default: known = false; return nullptr;
    }
}
