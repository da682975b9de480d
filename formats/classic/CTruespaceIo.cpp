#include "formats/classic/CTruespaceIo.h"

#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "formats/classic/TruespaceModel.h"
#include "formats/classic/TruespaceScene.h"
#include "formats/classic/TruespaceWriter.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"

CTruespaceIo::CTruespaceIo(CFileIo& io) : C3DParser(io) {}
CTruespaceIo::~CTruespaceIo() {}

C3DScene* CTruespaceIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t> data, CReadContext& ctx) {
        SetFile(ctx.File());
        C3DScene* scene = ReadData(data, ctx.Options(), fileStripName(ctx.Path()));
        SetFile(nullptr);
        return scene;
    });
}

C3DScene* CTruespaceIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options,
                                   const CXStringW& folder) {
    return ReadThroughMemory(*this, data, options, [this, &folder](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadData(bytes, ctx.Options(), folder);
    });
}

C3DScene* CTruespaceIo::ReadData(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& folder) {
    char encoding = 0;
    bool bigEndian = false;
    if (!tsio::ReadHeader(data, encoding, bigEndian)) {
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    const auto body = data.subspan(tsio::kHeaderBytes);
    const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
    // The body decides: a header that names the other encoding is noted and overruled.
    const bool ascii =
        tsio::LooksLikeAsciiChunk(text) || (encoding == 'A' && !tsio::LooksLikeBinaryChunk(body, bigEndian));
    if (ascii != (encoding == 'A'))
        options.AddLogInfo(
            LOG_INFO, CXStringW(ascii ? L"header says binary, body is ASCII" : L"header says ASCII, body is binary"));
    tsio::File parsed;
    parsed.ascii = ascii;
    const tsio::CancelQuery cancel = [this] { return IsCancelled(); };
    // A mapped file's pages are handed back behind the walk, so the file and the scene
    // it becomes are not both held in memory.
    const tsio::ProgressSink progress = [this](size_t pos) {
        if (!m_file) return;
        const auto at = static_cast<int64_t>(pos + tsio::kHeaderBytes);
        m_file->ReportProgress(at);
        m_file->ReleaseBefore(at);
    };
    if (ascii) tsio::ParseAscii(text, parsed, cancel, progress);
    else tsio::ParseBinary(body, bigEndian, parsed, cancel, progress);
    if (m_file) m_file->ReportProgress(static_cast<int64_t>(data.size()));
    if (IsCancelled()) {
        m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        return nullptr;
    }
    if (parsed.objects.empty()) {
        // Chunks but no object at all: a file of this format with nothing to show;
        // no chunk at all: not a body we can read.
        m_fileIo.SetIoError(parsed.chunks ? IO_ERR_EMPTY : IO_ERR_FORMAT, &options,
                            parsed.chunks ? LOG_INFO : LOG_ERROR);
        return nullptr;
    }
    std::unique_ptr<C3DScene> scene = tsio::BuildScene(parsed, folder, options);
    m_scene = nullptr;
    return scene.release();
}

void CTruespaceIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    // Meshes with their materials, node by node in their own frames (the writer bakes the
    // node chain into each PolH's matrix itself); faces of more than 255 corners split, since
    // a face's corner count is 16 bits and trueSpace itself keeps polygons small; meshes
    // without faces or points left out.
    options.prepFlags = PREP_MESHES | PREP_MATERIALS | PREP_DROP_EMPTY | PREP_SPLIT_LARGE;
    options.prepFlags2 = 0;
}

bool CTruespaceIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    if (!scene || scene->GetChildCount(nullptr, KINDOF_MESH) == 0) {
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    const bool ascii = options.GetParserOptions().GetInt(kOptionAscii, 0) != 0;
    std::string bytes;
    if (tsio::WriteScene(*scene, ascii, bytes) == 0) {
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    IoFile file(IsSilentMode());
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    file.FileWrite(bytes.data(), bytes.size());
    if (!file.CloseFile()) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    return true;
}
