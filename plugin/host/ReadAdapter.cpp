#include "plugin/host/ReadAdapter.h"

#include <clocale>
#include <exception>

#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Parser.h"
#include "plugin/host/SwitchLocale.h"

CFileIo& CReadContext::FileIo() const { return m_parser.GetFileIo(); }

const CXStringW& CReadContext::Path() const {
    static const CXStringW kNone;
    return m_path ? *m_path : kNone;
}

bool CReadContext::Cancelled() const { return m_parser.IsCancelled(); }

C3DScene* CReadContext::Fail(int result, int level) const {
    m_parser.GetFileIo().SetIoError(result, &m_options, level);
    return nullptr;
}

namespace readadapter {
namespace {
C3DScene* Run(Body body, void* fn, std::span<const uint8_t> data, CReadContext& ctx) {
    try {
        return body(fn, data, ctx);
    } catch (const std::exception&) {
        // Out of memory or the like, thrown from the format code: whatever it built went
        // with the stack; the host only sees the result.
        return ctx.Fail(IO_ERR_FORMAT, LOG_ERROR);
    }
}
} // namespace

C3DScene* FromPath(C3DParser& parser, const CXStringW& path, CSceneImportOptions& options, int textMode, Body body,
                   void* fn) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    IoFile file(parser.IsSilentMode(), textMode);
    if (!file.OpenFile(path, true)) { // directories included
        parser.GetFileIo().SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return nullptr;
    }
    CReadContext ctx(parser, options, &file, &path);
    C3DScene* scene = Run(body, fn, file.GetData(), ctx);
    file.CloseFile();
    return scene;
}

C3DScene* FromMemory(C3DParser& parser, std::span<const uint8_t> data, CSceneImportOptions& options, int textMode,
                     Body body, void* fn) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    IoFile file(parser.IsSilentMode(), textMode);
    file.OpenMemory(data.data(), data.size());
    CReadContext ctx(parser, options, &file, nullptr);
    C3DScene* scene = Run(body, fn, file.GetData(), ctx);
    file.CloseFile();
    return scene;
}

C3DScene* WithPath(C3DParser& parser, const CXStringW& path, CSceneImportOptions& options, Body body, void* fn) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    CReadContext ctx(parser, options, nullptr, &path);
    return Run(body, fn, {}, ctx);
}
} // namespace readadapter
