// The module's two exported entry points and its load/unload hooks.
#include "plugin/FormatTable.h"
#include "plugin/ParserFactory.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Parser.h"
#include "plugin/host/XArray.h"

#define ORBISCOPE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
constexpr uint32_t PLGP = PROVIDER_PLUGIN;
constexpr uint32_t UNKN = PROVIDER_NONE;
constexpr uint32_t kRO = FORMAT_EVERY_RECORD | FORMAT_READ, kWO = FORMAT_EVERY_RECORD | FORMAT_WRITE;
constexpr uint32_t kRW = kRO | kWO, kVR97 = kRO | FORMAT_SHARED_EXTENSION;
} // namespace

const FormatRow kFormatTable[14] = {
    {"3D Studio files", ".3ds", FourCC("3DST"), kRW, PLGP, PLGP},
    {"Lightwave Object files", ".lwo|.lwb|.lw|.lwm", FourCC("LIGT"), kRW, PLGP, PLGP},
    {"Lightwave Scene files", ".lws", FourCC("LIGS"), kRO, PLGP, UNKN},
    {"Amapi files", ".a3d", FourCC("AMAP"), kRO, PLGP, UNKN},
    {"Maya ASCII files", ".ma", FourCC("MYAS"), kWO, UNKN, PLGP},
    {"Dxf 14 files", ".dxf", FourCC("DXF4"), kRW, PLGP, PLGP},
    {"Wavefront files", ".obj", FourCC("WAVF"), kRW, PLGP, PLGP},
    {"Truespace files", ".cob|.scn", FourCC("TRUE"), kRW, PLGP, PLGP},
    {"VRML files", ".wrl|.iv", FourCC("VRML"), kRW, PLGP, PLGP},
    {"VRML97 files", ".wrl|.wrl97|.wrz|.vrml", FourCC("VR97"), kVR97, PLGP, UNKN},
    {"STL files", ".stl", FourCC("STL "), kRW, PLGP, PLGP},
    {"PLY files", ".ply", FourCC("PLYY"), kWO, UNKN, PLGP},
    {"KMZ files", ".kmz", FourCC("KMZI"), kRO, PLGP, UNKN},
    {"Luxology Modo files", ".lxo", FourCC("LXOI"), kRW, PLGP, PLGP},
};

namespace {
CXStringW Widen(const char* s) {
    CXStringW w;
    for (; *s; ++s) w += static_cast<wchar_t>(static_cast<unsigned char>(*s));
    return w;
}

void AppendFormats(CXArray<CFileExt>& list) {
    // One record reused for every row, as the host expects appended copies.
    CFileExt rec;
    for (const FormatRow& row : kFormatTable) {
        rec.description = Widen(row.description);
        rec.extensions = Widen(row.extensions);
        rec.typeID = row.typeID;
        rec.flags = row.flags;
        rec.readProvider = row.readProvider;
        rec.writeProvider = row.writeProvider;
        list.Add(rec);
    }
}
} // namespace

ORBISCOPE_EXPORT bool Init3DParser(int action, void* data) {
    switch (action) {
    case 0:
        if (data) AppendFormats(*static_cast<CXArray<CFileExt>*>(data));
        return true;
    case 1:
        if (data) {
            auto* req = static_cast<C3DParserRequest*>(data);
            bool known = false;
            C3DParser* p = CreateParserForType(req->typeID, *req->fileIo, known);
            if (known) req->parser = p;
        }
        return true;
    default:
        return true;
    }
}

ORBISCOPE_EXPORT uint32_t TarnvaleGetPluginVersion() { return 0x00050000; }

// Load and unload notification: the module keeps no state of its own to set up;
// the hooks mirror the host's extension-module registration.
namespace {
bool g_attached = false;
__attribute__((constructor)) void OnModuleLoad() { g_attached = true; }
__attribute__((destructor)) void OnModuleUnload() { g_attached = false; }
} // namespace
