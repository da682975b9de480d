#pragma once
// Parser base classes. The virtual table order is part of the module ABI:
// destructor, IsSingleThreaded, ShouldCancelParser, BeginBatch, EndBatch,
// LoadDefaultOptions, LoadOptionsDialog, GetLoadParametersInfo, Read,
// SaveDefaultOptions, CheckSaveOptions, SaveOptionsDialog, GetSaveParametersInfo,
// Save, CanUpdate, Update, ReleaseParser.
#include <cstdint>

#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/XString.h"

class C3DScene;
class IoFile;

class CFileParser {
public:
    explicit CFileParser(CFileIo& io) : m_fileIo(io) {}
    virtual ~CFileParser();
    virtual bool IsSingleThreaded() const { return false; }
    virtual bool ShouldCancelParser() const;
    virtual void BeginBatch() {}
    virtual void EndBatch() {}

    CFileIo& GetFileIo() const { return m_fileIo; }
    bool IsSilentMode() const { return m_fileIo.IsSilentMode(); }
    // Either cancellation query (the parser's or the thread's).
    bool IsCancelled() const;

protected:
    CFileIo& m_fileIo;
};

class C3DParser : public CFileParser {
public:
    explicit C3DParser(CFileIo& io) : CFileParser(io) {}
    ~C3DParser() override;

    virtual void LoadDefaultOptions(CSceneImportOptions& options) const;
    virtual bool LoadOptionsDialog(CSceneImportOptions& options);
    virtual CXStringW GetLoadParametersInfo(CSceneImportOptions& options);
    // Base: records IO_ERR_NOT_AVAILABLE and returns null.
    virtual C3DScene* Read(const CXStringW& path, CSceneImportOptions& options);
    virtual void SaveDefaultOptions(CSceneExportOptions& options) const;
    // Base: true when the scene holds anything exportable (kind mask 135).
    virtual bool CheckSaveOptions(C3DScene* scene, CSceneExportOptions& options) const;
    virtual bool SaveOptionsDialog(CSceneExportOptions& options);
    virtual CXStringW GetSaveParametersInfo(CSceneExportOptions& options);
    // Base: records IO_ERR_NOT_AVAILABLE and returns false.
    virtual bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options);
    virtual bool CanUpdate(unsigned int what, void* data) const;
    virtual bool Update(const CXStringW& path, C3DScene* scene, void* data, CSceneExportOptions& options);
    // Base: deletes the parser; returns true.
    virtual bool ReleaseParser(bool force, void* data);

    C3DScene* GetScene() const { return m_scene; }
    void SetScene(C3DScene* s) { m_scene = s; }
    IoFile* GetFile() const { return m_file; }
    void SetFile(IoFile* f) { m_file = f; }

protected:
    C3DScene* m_scene = nullptr;
    IoFile* m_file = nullptr;
};

// File type record handed to the host by Init3DParser(0, list).
struct CFileExt {
    CXStringW description;
    CXStringW extensions;
    uint32_t typeID = 0;
    uint32_t flags = 0;
    uint32_t readProvider = 0;
    uint32_t writeProvider = 0;
    uint64_t reserved = 0;
};

// Request record of Init3DParser(1, request).
struct C3DParserRequest {
    CFileIo* fileIo = nullptr;
    uint32_t typeID = 0;
    uint32_t pad = 0;
    C3DParser* parser = nullptr;
};

constexpr uint32_t PROVIDER_PLUGIN = 0x504C4750; // 'PLGP'
constexpr uint32_t PROVIDER_NONE = 0x554E4B4E;   // 'UNKN'
