#include "plugin/host/GenericIo.h"

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>

#include "plugin/host/ColladaIo.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Scene.h"

bool CFormatEntry::HasExtension(const CXStringW& extension) const {
    const std::wstring& all = ext.extensions.str();
    size_t start = 0;
    while (start <= all.size()) {
        size_t bar = all.find(L'|', start);
        if (bar == std::wstring::npos) bar = all.size();
        CXStringW one(all.substr(start, bar - start));
        if (!one.IsEmpty() && one.CompareNoCase(extension) == 0) return true;
        start = bar + 1;
    }
    return false;
}

CParserRegistry::CParserRegistry() {
    CXArray<CFileExt> list;
    HostInit3DParser(0, &list);
    for (int i = 0; i < list.GetSize(); ++i) m_hostFormats.push_back({list[i], &HostInit3DParser});
}

CParserRegistry& CParserRegistry::Instance() {
    static CParserRegistry r;
    return r;
}

bool CParserRegistry::LoadModuleFile(const std::string& path, std::string& error, uint32_t* version) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        error = "the format module " + path + " cannot be loaded: " + (why ? why : "unknown reason");
        return false;
    }
    auto init = reinterpret_cast<Init3DParserFn>(dlsym(handle, "Init3DParser"));
    auto ver = reinterpret_cast<uint32_t (*)()>(dlsym(handle, "TarnvaleGetPluginVersion"));
    if (!init || !ver) {
        error = "the file " + path + " is not an Orbiscope format module";
        dlclose(handle);
        return false;
    }
    if (version) *version = ver();
    AddModule(init);
    return true;
}

bool CParserRegistry::LoadFormatModule(const std::vector<std::string>& folders, std::string& error, uint32_t* version,
                                       std::string* path) {
    constexpr const char* kModuleName = "orbiscope-formats.so";
    namespace fs = std::filesystem;
    std::vector<fs::path> candidates;
    if (const char* env = std::getenv("ORBISCOPE_PLUGIN_PATH"); env && *env) {
        std::error_code ec;
        candidates.push_back(fs::is_directory(env, ec) ? fs::path(env) / kModuleName : fs::path(env));
    } else {
        for (const std::string& f : folders) candidates.push_back(fs::path(f) / kModuleName);
    }
    error = candidates.empty() ? "no folder to look for the format module in" : "";
    for (const fs::path& p : candidates) {
        std::error_code ec;
        if (!fs::exists(p, ec)) {
            if (error.empty()) error = "the format module " + p.string() + " does not exist";
            continue;
        }
        if (!LoadModuleFile(p.string(), error, version)) continue;
        if (path) *path = p.string();
        return true;
    }
    return false;
}

int CParserRegistry::AddModule(Init3DParserFn init) {
    if (!init) return 0;
    CXArray<CFileExt> list;
    init(0, &list);
    for (int i = 0; i < list.GetSize(); ++i) m_formats.push_back({list[i], init});
    return list.GetSize();
}

void CParserRegistry::Clear() { m_formats.clear(); }

const CFormatEntry* CParserRegistry::FindByExtension(const CXStringW& extension, bool forReading) const {
    for (const auto* list : {&m_formats, &m_hostFormats})
        for (auto& f : *list)
            if (f.HasExtension(extension) && (forReading ? f.CanRead() : f.CanWrite())) return &f;
    return nullptr;
}

const CFormatEntry* CParserRegistry::FindByTypeID(uint32_t typeID) const {
    for (const auto* list : {&m_formats, &m_hostFormats})
        for (auto& f : *list)
            if (f.ext.typeID == typeID) return &f;
    return nullptr;
}

C3DParser* CParserRegistry::CreateParser(const CFormatEntry& entry, CFileIo& io) {
    C3DParserRequest req;
    req.fileIo = &io;
    req.typeID = entry.ext.typeID;
    req.parser = nullptr;
    entry.init(1, &req);
    return req.parser;
}

std::unique_ptr<C3DScene> C3DIo::ReadScene(const CXStringW& path, CFileIo& io, uint32_t typeID,
                                           CSceneImportOptions* options) {
    auto& reg = CParserRegistry::Instance();
    const CFormatEntry* entry = typeID ? reg.FindByTypeID(typeID) : reg.FindByExtension(fileGetExtension(path), true);
    CSceneImportOptions local;
    CSceneImportOptions& opts = options ? *options : local;
    if (!entry || !entry->CanRead()) {
        io.SetIoError(IO_ERR_NOT_AVAILABLE, &opts, LOG_ERROR);
        return nullptr;
    }
    C3DParser* parser = CParserRegistry::CreateParser(*entry, io);
    if (!parser) {
        io.SetIoError(IO_ERR_NOT_AVAILABLE, &opts, LOG_ERROR);
        return nullptr;
    }
    parser->LoadDefaultOptions(opts);
    std::unique_ptr<C3DScene> scene(parser->Read(path, opts));
    parser->ReleaseParser(false, nullptr);
    return scene;
}

CXStringW TypeIDToString(uint32_t id) {
    CXStringW s;
    for (int sh = 24; sh >= 0; sh -= 8) {
        wchar_t c = static_cast<wchar_t>((id >> sh) & 0xFF);
        s += (c >= 32 && c < 127) ? c : L'?';
    }
    return s;
}

uint32_t TypeIDFromString(const CXStringW& s) {
    uint32_t id = 0;
    for (int i = 0; i < 4; ++i) {
        wchar_t c = i < s.GetLength() ? s[i] : L' ';
        id = (id << 8) | (static_cast<uint32_t>(c) & 0xFF);
    }
    return id;
}
