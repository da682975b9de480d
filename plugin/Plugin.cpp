// The module's two exported entry points and its load/unload hooks.
#include "plugin/FormatTable.h"
#include "plugin/ParserFactory.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Parser.h"
#include "plugin/host/XArray.h"

#define ORBISCOPE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
CXStringW Widen(const char* s) { return CXStringW(WidenBytes(s)); }

void AppendFormats(CXArray<CFileExt>& list) {
    // One record reused for every row, as the host expects appended copies.
    CFileExt rec;
    for (const FormatRow& row : kFormatTable) {
        rec.description = Widen(row.description);
        rec.extensions = Widen(row.extensions);
        rec.typeID = row.typeID;
        rec.flags = row.flags;
        rec.readProvider = row.ReadProvider();
        rec.writeProvider = row.WriteProvider();
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
    default: return true;
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
