// LXO entry points: a file is streamed to the loader, memory goes through a memory stream,
// so a file, a test buffer and a fuzzer input take the same path. Export builds the plan
// (LxoWriteData) and writes it; update streams the old file into a temporary beside it.
#include "formats/lxo/CLxoIo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "formats/lxo/LxoLoader.h"
#include "formats/lxo/LxoSaver.h"
#include "formats/lxo/LxoWriteData.h"
#include "plugin/host/CustomData.h"
#include "plugin/host/ExportPrep.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"

namespace {
// The preference record of the import switches.
const wchar_t* const kPrefsName = L"lxo-import";
constexpr uint32_t kPrefsID = 0x4C584F49; // 'LXOI'
constexpr uint32_t kPrefsVersion = 1;
enum : uint32_t { kPrefCameras = 1, kPrefLights = 2 };
} // namespace

CLxoIo::CLxoIo(CFileIo& io) : C3DParser(io) {}
CLxoIo::~CLxoIo() {}

void CLxoIo::LoadDefaultOptions(CSceneImportOptions& options) const {
    options.importCameras = true;
    options.importLights = true;
    CCustomData prefs;
    if (prefs.LoadFromPrefs(kPrefsName, kPrefsID, kPrefsVersion)) {
        options.importCameras = prefs.GetInt(kPrefCameras, 1) != 0;
        options.importLights = prefs.GetInt(kPrefLights, 1) != 0;
    }
}

void CLxoIo::StoreOptions(const CSceneImportOptions& options) {
    CCustomData prefs;
    prefs.SetInt(kPrefCameras, options.importCameras ? 1 : 0);
    prefs.SetInt(kPrefLights, options.importLights ? 1 : 0);
    prefs.SaveToPrefs(kPrefsName, kPrefsID, kPrefsVersion);
}

bool CLxoIo::ReleaseParser(bool force, void* data) { return C3DParser::ReleaseParser(force, data); }

void CLxoIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    // Meshes with their materials, curves as poly-lines; the hierarchy and transforms stay
    // (the writer turns them into transform items) unless a node's cannot be split.
    options.prepFlags = PREP_MESHES | PREP_MATERIALS | PREP_CURVES | PREP_CURVE_POLYLINES | PREP_KEEP_VERTEX_COLORS;
    options.prepFlags2 = 0;
}

bool CLxoIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    if (!scene) {
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    std::unique_ptr<C3DScene> baked;
    const C3DScene* source = scene;
    if (LxoWriteData::NeedsBaking(*scene)) {
        // Shear or an object offset has no transform item: such scenes go out in world space.
        baked = PrepareSceneForExport(*scene, PREP_WORLD_SPACE, &options);
        if (!baked) {
            m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
            return false;
        }
        options.AddLogInfo(LOG_INFO, CXStringW(L"Node transforms that are not scale, rotation and translation "
                                               L"were baked into the points"));
        source = baked.get();
    }
    LxoWriteData data;
    std::string why;
    if (!data.Build(*source, &why)) {
        options.AddLogInfo(LOG_ERROR, CXStringW(Utf8ToWide(why)));
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    if (data.untaggedMaterials)
        options.AddLogInfo(LOG_INFO, CXStringW(L"Faces whose material ID is too large for the tag tables use the "
                                               L"base material"));
    const uint32_t r = LxoSaveFile(PathToUtf8(path).c_str(), data);
    if (r) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    return true;
}

bool CLxoIo::CanUpdate(unsigned int what, void* data) const {
    if (what != kUpdateMeshLayers) return false;
    if (!data) return true;
    const std::string path = PathToUtf8(*static_cast<const CXStringW*>(data));
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    uint8_t head[12] = {};
    const bool lxo =
        std::fread(head, 1, 12, f) == 12 && std::memcmp(head, "FORM", 4) == 0 && std::memcmp(head + 8, "LXOB", 4) == 0;
    std::fclose(f);
    return lxo;
}

bool CLxoIo::Update(const CXStringW& path, C3DScene* scene, void*, CSceneExportOptions& options) {
    if (!scene) {
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    if (!CanUpdate(kUpdateMeshLayers, const_cast<CXStringW*>(&path))) {
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return false;
    }
    CXStringW folder = fileStripName(path);
    if (folder.IsEmpty()) folder = L"./";
    struct Temporary {
        CXStringW path;
        bool moved = false;
        ~Temporary() {
            if (!moved && !path.IsEmpty()) fileDelete(path);
        }
        const CXStringW& Path() const { return path; }
    } tmp{fileCreateTmpName(folder, L".orbiscope-lxo-", L".lxo")};
    if (tmp.Path().IsEmpty()) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    const LxoUpdateResult res = LxoUpdateFile(PathToUtf8(path).c_str(), PathToUtf8(tmp.Path()).c_str(), *scene);
    if (res.read || res.write) {
        m_fileIo.SetIoError(res.read && res.read != LXO_ERR_WRITE ? IO_ERR_FORMAT : IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    if (res.replaced == 0) {
        options.AddLogInfo(LOG_ERROR, CXStringW(L"No mesh layer of the file was matched by a mesh of the scene"));
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    if (!fileRename(tmp.Path(), path)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    tmp.moved = true;
    return true;
}

C3DScene* CLxoIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    // The file is streamed, not mapped: the loader holds one chunk at a time, so the
    // input never adds its own size to the memory a read takes.
    return ReadThroughPath(*this, path, options, [this, &path](std::span<const uint8_t>, CReadContext& ctx) {
        FILE* stream = LxoOpenFile(PathToUtf8(path).c_str(), "rb");
        if (!stream) {
            m_fileIo.SetIoError(IO_ERR_OPEN, &ctx.Options(), LOG_ERROR);
            return static_cast<C3DScene*>(nullptr);
        }
        uint8_t head[12] = {};
        const size_t got = std::fread(head, 1, sizeof head, stream);
        std::rewind(stream);
        CXStringW folder = fileStripName(path);
        if (folder.IsEmpty()) folder = L"./";
        return ReadStream(stream, {head, got}, ctx.Options(), folder);
    });
}

C3DScene* CLxoIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t> bytes, CReadContext& ctx) {
        FILE* stream = bytes.empty() ? nullptr : fmemopen(const_cast<uint8_t*>(bytes.data()), bytes.size(), "rb");
        if (!bytes.empty() && !stream) {
            m_fileIo.SetIoError(IO_ERR_OPEN, &ctx.Options(), LOG_ERROR);
            return static_cast<C3DScene*>(nullptr);
        }
        return ReadStream(stream, bytes.first(std::min<size_t>(bytes.size(), 12)), ctx.Options());
    });
}

C3DScene* CLxoIo::ReadStream(FILE* stream, std::span<const uint8_t> head, CSceneImportOptions& options,
                             const CXStringW& folder) {
    if (head.empty()) {
        if (stream) std::fclose(stream);
        m_fileIo.SetIoError(IO_ERR_EMPTY, &options, LOG_ERROR);
        return nullptr;
    }
    // FORM, a size, then the LXOB form type.
    static constexpr uint8_t kForm[4] = {'F', 'O', 'R', 'M'}, kType[4] = {'L', 'X', 'O', 'B'};
    if (head.size() < 12 || !std::equal(kForm, kForm + 4, head.data()) ||
        !std::equal(kType, kType + 4, head.data() + 8)) {
        std::fclose(stream);
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    LxoLoader loader(
        stream, options, [this] { return IsCancelled(); }, folder);
    C3DScene* scene = loader.Load();
    if (!scene) {
        if (loader.WasCancelled()) m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        else m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
    }
    return scene;
}
