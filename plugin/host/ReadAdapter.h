#pragma once
// The one way into a reader. Read(path) and ReadMemory(bytes) of every parser go
// through here, which does what each would otherwise repeat: the number locale for the
// whole call, the file opened through IoFile in the parser's silent mode (or a memory
// buffer wrapped in one), -1 at the error level when it cannot be opened, and -3 at the
// error level for an exception that escapes the format code (nothing crosses the parser
// interface). The format code itself is a function of the bytes and a CReadContext; it
// returns the scene, or null after recording its result through the context.
#include <cstdint>
#include <span>
#include <utility>

#include "plugin/host/XString.h"

class C3DParser;
class C3DScene;
class CFileIo;
class CSceneImportOptions;
class IoFile;

class CReadContext {
public:
    CReadContext(C3DParser& parser, CSceneImportOptions& options, IoFile* file, const CXStringW* path)
        : m_parser(parser), m_options(options), m_file(file), m_path(path) {}

    C3DParser& Parser() const { return m_parser; }
    CFileIo& FileIo() const;
    CSceneImportOptions& Options() const { return m_options; }
    // The open file (mapped, or wrapping the memory buffer); null for path-aware readers.
    IoFile* File() const { return m_file; }
    // The path read; empty when reading from memory.
    const CXStringW& Path() const;
    bool FromMemory() const { return m_path == nullptr; }
    // The parser's and the thread's cancel queries.
    bool Cancelled() const;
    // Records `result` at `level` and returns null: `return ctx.Fail(IO_ERR_FORMAT, LOG_ERROR);`.
    C3DScene* Fail(int result, int level) const;

private:
    C3DParser& m_parser;
    CSceneImportOptions& m_options;
    IoFile* m_file;
    const CXStringW* m_path;
};

namespace readadapter {
using Body = C3DScene* (*)(void* fn, std::span<const uint8_t> data, CReadContext& ctx);

C3DScene* FromPath(C3DParser& parser, const CXStringW& path, CSceneImportOptions& options, int textMode, Body body,
                   void* fn);
C3DScene* FromMemory(C3DParser& parser, std::span<const uint8_t> data, CSceneImportOptions& options, int textMode,
                     Body body, void* fn);
// For readers that need the path itself (gzip detection, files named inside the file):
// the locale and the exception mapping only; the body gets no bytes and no open file.
C3DScene* WithPath(C3DParser& parser, const CXStringW& path, CSceneImportOptions& options, Body body, void* fn);

template <class F> C3DScene* Call(void* fn, std::span<const uint8_t> data, CReadContext& ctx) {
    return (*static_cast<F*>(fn))(data, ctx);
}
} // namespace readadapter

// `read(std::span<const uint8_t>, CReadContext&) -> C3DScene*` on the file at `path`.
template <class F> C3DScene* ReadThroughFile(C3DParser& parser, const CXStringW& path, CSceneImportOptions& options,
                                             F&& read, int textMode = 0) {
    using Fn = std::remove_reference_t<F>;
    return readadapter::FromPath(parser, path, options, textMode, &readadapter::Call<Fn>, &read);
}

// The same on bytes held in memory (fuzzing, archive members, tests).
template <class F> C3DScene* ReadThroughMemory(C3DParser& parser, std::span<const uint8_t> data,
                                               CSceneImportOptions& options, F&& read, int textMode = 0) {
    using Fn = std::remove_reference_t<F>;
    return readadapter::FromMemory(parser, data, options, textMode, &readadapter::Call<Fn>, &read);
}

// A path-aware reader: `read` receives an empty span and a context without a file.
template <class F>
C3DScene* ReadThroughPath(C3DParser& parser, const CXStringW& path, CSceneImportOptions& options, F&& read) {
    using Fn = std::remove_reference_t<F>;
    return readadapter::WithPath(parser, path, options, &readadapter::Call<Fn>, &read);
}
