#include "formats/classic/CLightwaveSceneIo.h"

#include <clocale>
#include <memory>
#include <new>

#include "formats/classic/LightwaveScene.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"

CLightwaveSceneIo::CLightwaveSceneIo(CFileIo& io) : C3DParser(io) {}
CLightwaveSceneIo::~CLightwaveSceneIo() {}

C3DScene* CLightwaveSceneIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t> data, CReadContext& ctx) {
        return ReadBytes(data, ctx, fileStripName(fileMakeAbsolutePath(L"", ctx.Path())));
    });
}

C3DScene* CLightwaveSceneIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options,
                                        const CXStringW& folder) {
    return ReadThroughMemory(*this, data, options, [this, &folder](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadBytes(bytes, ctx, folder);
    });
}

C3DScene* CLightwaveSceneIo::ReadBytes(std::span<const uint8_t> data, CReadContext& ctx, const CXStringW& folder) {
    std::unique_ptr<C3DScene> scene;
    const int rc = lightwave::ReadScene(
        data, folder, ctx.Options(), [&ctx] { return ctx.Cancelled(); }, scene);
    if (rc != IO_OK) return ctx.Fail(rc, rc == IO_ERR_FORMAT ? LOG_ERROR : LOG_INFO);
    return scene.release();
}
