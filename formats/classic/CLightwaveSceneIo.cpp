#include "formats/classic/CLightwaveSceneIo.h"

#include <clocale>
#include <memory>
#include <new>

#include "formats/classic/LightwaveScene.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/SwitchLocale.h"

CLightwaveSceneIo::CLightwaveSceneIo(CFileIo& io) : C3DParser(io) {}
CLightwaveSceneIo::~CLightwaveSceneIo() {}

C3DScene* CLightwaveSceneIo::Read(const CXStringW& path, CSceneImportOptions& options) {
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

C3DScene* CLightwaveSceneIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options,
                                        const CXStringW& folder) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    std::unique_ptr<C3DScene> scene;
    const int rc = lightwave::ReadScene(data, folder, options, [this] { return IsCancelled(); }, scene);
    if (rc != IO_OK) {
        m_fileIo.SetIoError(rc, &options, rc == IO_ERR_FORMAT ? LOG_ERROR : LOG_INFO);
        return nullptr;
    }
    return scene.release();
}
