#include "formats/classic/CLightwaveIo.h"

#include <clocale>
#include <memory>
#include <new>
#include <vector>

#include "formats/classic/LightwaveObject.h"
#include "formats/classic/LightwaveWriter.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"

CLightwaveIo::CLightwaveIo(CFileIo& io) : C3DParser(io) {}
CLightwaveIo::~CLightwaveIo() {}

C3DScene* CLightwaveIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t> data, CReadContext& ctx) {
        return ReadBytes(data, ctx, fileStripName(fileMakeAbsolutePath(L"", ctx.Path())));
    });
}

C3DScene* CLightwaveIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options,
                                   const CXStringW& folder) {
    return ReadThroughMemory(*this, data, options, [this, &folder](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadBytes(bytes, ctx, folder);
    });
}

C3DScene* CLightwaveIo::ReadBytes(std::span<const uint8_t> data, CReadContext& ctx, const CXStringW& folder) {
    std::unique_ptr<C3DScene> scene;
    const int rc = lightwave::ReadObject(
        data, folder, ctx.Options(), [&ctx] { return ctx.Cancelled(); }, scene, ctx.File());
    if (rc != IO_OK) return ctx.Fail(rc, rc == IO_ERR_FORMAT ? LOG_ERROR : LOG_INFO);
    return scene.release();
}

void CLightwaveIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    // Patches as meshes, the material table kept; hierarchy and transforms stay as they are
    // (the writer bakes each mesh's world transform into its points and keeps the pivot).
    options.prepFlags = PREP_MESHES | PREP_MATERIALS;
    options.prepFlags2 = 0;
}

bool CLightwaveIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    std::vector<uint8_t> bytes;
    if (!scene || !lightwave::WriteObject(*scene, bytes)) {
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    IoFile file(IsSilentMode());
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    const bool ok = file.FileWrite(bytes.data(), bytes.size()) && file.CloseFile();
    if (!ok) m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
    return ok;
}
