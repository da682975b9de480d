#include "formats/classic/CLightwaveIo.h"

#include <clocale>
#include <memory>
#include <vector>
#include <new>

#include "formats/classic/LightwaveObject.h"
#include "formats/classic/LightwaveWriter.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/SwitchLocale.h"

CLightwaveIo::CLightwaveIo(CFileIo& io) : C3DParser(io) {}
CLightwaveIo::~CLightwaveIo() {}

C3DScene* CLightwaveIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    IoFile file(IsSilentMode());
    if (fileIsDirectory(path) || !file.OpenFile(path, true)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return nullptr;
    }
    m_file = &file;
    C3DScene* scene = ReadMemory(file.GetData(), options, fileStripName(fileMakeAbsolutePath(L"", path)));
    m_file = nullptr;
    file.CloseFile();
    return scene;
}

C3DScene* CLightwaveIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options,
                                   const CXStringW& folder) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    std::unique_ptr<C3DScene> scene;
    const int rc = lightwave::ReadObject(data, folder, options, [this] { return IsCancelled(); }, scene, m_file);
    if (rc != IO_OK) {
        m_fileIo.SetIoError(rc, &options, rc == IO_ERR_FORMAT ? LOG_ERROR : LOG_INFO);
        return nullptr;
    }
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
