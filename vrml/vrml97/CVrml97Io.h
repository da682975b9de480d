#pragma once
// VRML97 reader (read only): loads a ".wrl" world, gzip-compressed or not, with the
// VRML97 engine and converts its node graph into a new host scene. The engine keeps
// process-wide state, so reads are serialised by one module-wide lock.
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class VrmlScene;
namespace vrml97import {
struct TextureEntry;
}

class CVrml97Io : public C3DParser {
public:
    explicit CVrml97Io(CFileIo& io);
    ~CVrml97Io() override;

    void LoadDefaultOptions(CSceneImportOptions& options) const override;
    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // A world held in memory (gzip-compressed or not). It has no folder, so its Inline
    // worlds and EXTERNPROTOs are not read and nothing touches the file system.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);

    // The lock every VRML97 read holds for its whole length.
    static std::mutex& ReadLock();

private:
    C3DScene* ReadLocked(const CXStringW& path, CSceneImportOptions& options);
    C3DScene* ReadBytesLocked(std::span<const uint8_t> data, CSceneImportOptions& options);
    // Converts m_scene into a new host scene and decides the outcome. `worldFile` is
    // empty for a world from memory.
    C3DScene* Convert(const std::string& worldFile, uint64_t inputBytes, CSceneImportOptions& options);
    C3DScene* DamagedGzip(CSceneImportOptions& options);
    void ReleaseState();

    VrmlScene* m_scene = nullptr;                              // the world being converted (owned)
    C3DScene* m_root = nullptr;                                // the scene being built (handed out on success)
    std::vector<vrml97import::TextureEntry>* m_data = nullptr; // textures met during conversion
};
