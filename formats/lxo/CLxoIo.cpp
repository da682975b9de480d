// LXO entry points: the file is mapped and its bytes handed to the loader through a
// memory stream, so a file, a test buffer and a fuzzer input take the same path.
#include "formats/lxo/CLxoIo.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "formats/lxo/LxoLoader.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/SwitchLocale.h"
#include "plugin/host/ReadAdapter.h"

CLxoIo::CLxoIo(CFileIo& io) : C3DParser(io) {}
CLxoIo::~CLxoIo() {}

C3DScene* CLxoIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t> data, CReadContext& ctx) {
        return ReadBytes(data, ctx.Options());
    });
}

C3DScene* CLxoIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadBytes(bytes, ctx.Options());
    });
}

C3DScene* CLxoIo::ReadBytes(std::span<const uint8_t> data, CSceneImportOptions& options) {
    if (data.empty()) {
        m_fileIo.SetIoError(IO_ERR_EMPTY, &options, LOG_ERROR);
        return nullptr;
    }
    // FORM, a size, then the LXOB form type.
    static constexpr uint8_t kForm[4] = {'F', 'O', 'R', 'M'}, kType[4] = {'L', 'X', 'O', 'B'};
    if (data.size() < 12 || !std::equal(kForm, kForm + 4, data.data()) ||
        !std::equal(kType, kType + 4, data.data() + 8)) {
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    FILE* stream = fmemopen(const_cast<uint8_t*>(data.data()), data.size(), "rb");
    if (!stream) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return nullptr;
    }
    LxoLoader loader(stream, options, [this] { return IsCancelled(); });
    C3DScene* scene = loader.Load();
    if (!scene) {
        if (loader.WasCancelled())
            m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        else
            m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
    }
    return scene;
}
