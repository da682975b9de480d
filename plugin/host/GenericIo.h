#pragma once
// The host's registry of loaded format modules and its generic reader/writer
// (C3DIo): pick a format by extension or type ID, create the parser through the
// module's Init3DParser and drive it as the host does.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "plugin/host/HostTypes.h"
#include "plugin/host/Options.h"
#include "plugin/host/Parser.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

using Init3DParserFn = bool (*)(int action, void* data);

struct CFormatEntry {
    CFileExt ext;
    Init3DParserFn init = nullptr;
    bool CanRead() const { return (ext.flags & FORMAT_READ) && ext.readProvider == PROVIDER_PLUGIN; }
    bool CanWrite() const { return (ext.flags & FORMAT_WRITE) && ext.writeProvider == PROVIDER_PLUGIN; }
    // True when `extension` (with its dot, any case) is one of the record's.
    bool HasExtension(const CXStringW& extension) const;
};

class CParserRegistry {
public:
    CParserRegistry();
    static CParserRegistry& Instance();
    // Loads the module file at `path` (dlopen; it stays loaded) and adds its records. On
    // failure `error` says why; `version` receives the module's interface version.
    bool LoadModuleFile(const std::string& path, std::string& error, uint32_t* version = nullptr);
    // $ORBISCOPE_PLUGIN_PATH (the module file or its folder) when set, else the module file
    // in each of `folders` in turn; the first that loads is kept and `path` names it.
    bool LoadFormatModule(const std::vector<std::string>& folders, std::string& error, uint32_t* version = nullptr,
                          std::string* path = nullptr);
    // Asks the module for its records (action 0) and keeps them; returns how many it added.
    int AddModule(Init3DParserFn init);
    void Clear();
    const std::vector<CFormatEntry>& Formats() const { return m_formats; }
    // First format for the extension that can read (or write); null when none.
    const CFormatEntry* FindByExtension(const CXStringW& extension, bool forReading) const;
    const CFormatEntry* FindByTypeID(uint32_t typeID) const;
    // Creates the parser for `entry` (action 1) with `io`; null when the module made none.
    static C3DParser* CreateParser(const CFormatEntry& entry, CFileIo& io);
private:
    std::vector<CFormatEntry> m_formats;
    // Formats the host reads itself (Collada): found by extension and type ID after the
    // modules' ones, but not listed among them.
    std::vector<CFormatEntry> m_hostFormats;
};

class C3DScene;

class C3DIo {
public:
    // Reads `path` with the format chosen by extension (or `typeID` when non-zero).
    // Returns the scene or null; `io` receives the result code.
    static std::unique_ptr<C3DScene> ReadScene(const CXStringW& path, CFileIo& io, uint32_t typeID = 0,
                                               CSceneImportOptions* options = nullptr);
};

// Four-character code as text ("STL ", "3DST").
CXStringW TypeIDToString(uint32_t id);
uint32_t TypeIDFromString(const CXStringW& s);
