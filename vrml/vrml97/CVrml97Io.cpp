// VRML97 read: gunzip to a temporary file when needed (in memory for a world held in
// memory, which reads no Inline world and opens no file), parse with the engine,
// convert into a host scene (unit code 5, scale 100). The engine reports its own
// parse errors to stderr and a world it cannot read is simply empty, so the
// outcome codes are decided on the scene: -11 cancelled, -10 nothing to import,
// -3 when no scene could be made at all.
#include "vrml/vrml97/CVrml97Io.h"

#include <exception>
#include <filesystem>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/MiniZip.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"
#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/VrmlNodeKinds.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlScene.h"
#include "vrml/vrml97/import/ImportConverter.h"
#include "vrml/vrml97/import/ImportGzip.h"

namespace {
constexpr int kUnitCode = 5;
constexpr double kScaleFactor = 100.0;

// Inline worlds are read by the conversion (gzip, include cycles), not by the engine.
class InlineLoadingDeferred {
public:
    InlineLoadingDeferred() : m_saved(VrmlNodeInline::s_loadOnAdd) { VrmlNodeInline::s_loadOnAdd = false; }
    ~InlineLoadingDeferred() { VrmlNodeInline::s_loadOnAdd = m_saved; }
    InlineLoadingDeferred(const InlineLoadingDeferred&) = delete;
    InlineLoadingDeferred& operator=(const InlineLoadingDeferred&) = delete;
private:
    bool m_saved;
};

// A world from memory opens no file: its EXTERNPROTO URLs would resolve against the
// working folder. Reads hold the module lock, so the switch is not seen by another read.
class FileAccessOff {
public:
    FileAccessOff() : m_saved(Doc::fileAccess()) { Doc::setFileAccess(false); }
    ~FileAccessOff() { Doc::setFileAccess(m_saved); }
    FileAccessOff(const FileAccessOff&) = delete;
    FileAccessOff& operator=(const FileAccessOff&) = delete;
private:
    bool m_saved;
};
} // namespace

CVrml97Io::CVrml97Io(CFileIo& io) : C3DParser(io) {}

CVrml97Io::~CVrml97Io() { ReleaseState(); }

void CVrml97Io::ReleaseState() {
    delete m_scene;
    m_scene = nullptr;
    delete m_root;
    m_root = nullptr;
    delete m_data;
    m_data = nullptr;
}

void CVrml97Io::LoadDefaultOptions(CSceneImportOptions&) const {}

std::mutex& CVrml97Io::ReadLock() {
    static std::mutex lock;
    return lock;
}

C3DScene* CVrml97Io::Read(const CXStringW& path, CSceneImportOptions& options) {
    std::lock_guard<std::mutex> guard(ReadLock());
    // Path-aware: gzip detection and Inline URLs need the file's name, not only its bytes.
    return ReadThroughPath(*this, path, options, [this](std::span<const uint8_t>, CReadContext& ctx) {
        try {
            return ReadLocked(ctx.Path(), ctx.Options());
        } catch (...) {
            // Out of memory or a file system failure: nothing half-built is handed out.
            ReleaseState();
            throw;
        }
    });
}

C3DScene* CVrml97Io::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    std::lock_guard<std::mutex> guard(ReadLock());
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t> bytes, CReadContext& ctx) {
        try {
            return ReadBytesLocked(bytes, ctx.Options());
        } catch (...) {
            ReleaseState();
            throw;
        }
    });
}

C3DScene* CVrml97Io::DamagedGzip(CSceneImportOptions& options) {
    options.AddLogInfo(LOG_ERROR, L"The gzip-compressed world is damaged or inflates past its size limit.");
    m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
    return nullptr;
}

C3DScene* CVrml97Io::ReadLocked(const CXStringW& path, CSceneImportOptions& options) {
    ReleaseState();
    CTempFileGuard temp;
    CXStringW file;
    if (vrml97import::PrepareWorldFile(path, temp, file) == vrml97import::WorldFileState::Failed)
        return DamagedGzip(options);

    std::string utf8 = PathToUtf8(file);
    {
        InlineLoadingDeferred deferred;
        m_scene = new VrmlScene(utf8.c_str(), nullptr);
    }
    std::error_code ec;
    const uint64_t bytes = std::filesystem::file_size(utf8, ec);
    return Convert(PathToUtf8(path), ec ? 0 : bytes, options);
}

C3DScene* CVrml97Io::ReadBytesLocked(std::span<const uint8_t> data, CSceneImportOptions& options) {
    ReleaseState();
    std::string inflated;
    if (CMiniZip::IsGZipData(data)) {
        if (!CMiniZip::InflateGZip(data, inflated, CMiniZip::InflateLimit(data.size()))) return DamagedGzip(options);
        data = {reinterpret_cast<const uint8_t*>(inflated.data()), inflated.size()};
    }
    FileAccessOff noFiles;
    {
        InlineLoadingDeferred deferred;
        m_scene = new VrmlScene(nullptr, nullptr);
        m_scene->loadString(reinterpret_cast<const char*>(data.data()), data.size());
    }
    return Convert(std::string(), data.size(), options);
}

C3DScene* CVrml97Io::Convert(const std::string& worldFile, uint64_t inputBytes, CSceneImportOptions& options) {
    bool cancelled = false;
    if (m_scene) {
        m_root = new C3DScene();
        m_root->SetUnit(kUnitCode);
        m_root->SetScaleFactor(kScaleFactor);
        m_data = new std::vector<vrml97import::TextureEntry>();
        {
            InlineLoadingDeferred deferred;
            vrml97import::CVrml97Converter conv(*m_root, *this, options, worldFile, inputBytes);
            conv.ConvertRoot(m_scene->root());
            conv.FlushReport();
            *m_data = conv.Textures();
            cancelled = conv.WasCancelled();
        }
        delete m_scene;
        m_scene = nullptr;
        delete m_data;
        m_data = nullptr;
    }

    if (m_root && (cancelled || IsCancelled())) {
        ReleaseState();
        m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        return nullptr;
    }
    if (m_root && m_root->GetChildCount(nullptr, KINDOF_ALL, true) == 0) {
        ReleaseState();
        m_fileIo.SetIoError(IO_ERR_EMPTY, &options, LOG_INFO);
        return nullptr;
    }
    if (!m_root) {
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    C3DScene* scene = m_root;
    m_root = nullptr;
    return scene;
}
