#pragma once
// Modo LXO scenes: import (mesh layers with UVs, vertex colours and material tags, the
// item hierarchy, transforms, cameras, lights, material colours from the shader tree),
// export (the item set Modo writes around the meshes) and update in place (the mesh
// layers of an existing file replaced, every other chunk kept as it is).
#include <cstdint>
#include <cstdio>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CLxoIo : public C3DParser {
public:
    explicit CLxoIo(CFileIo& io);
    ~CLxoIo() override;

    // What CanUpdate is asked about: replacing an existing file's mesh layers.
    static constexpr unsigned int kUpdateMeshLayers = 0;

    void LoadDefaultOptions(CSceneImportOptions& options) const override;
    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;
    // kUpdateMeshLayers: true; with `data` a `const CXStringW*` path, only when that file
    // starts as an LXO file.
    bool CanUpdate(unsigned int what, void* data) const override;
    // Replaces the mesh layers of the LXO file at `path` with the scene's meshes (see
    // LxoUpdateFile), through a temporary beside it moved over it once complete.
    bool Update(const CXStringW& path, C3DScene* scene, void* data, CSceneExportOptions& options) override;
    bool ReleaseParser(bool force, void* data) override;
    // The import switches kept in the preference store between runs.
    static void StoreOptions(const CSceneImportOptions& options);
    // Reads LXO bytes held in memory (fuzzing, tests); same results as Read.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);

private:
    // Runs the loader on `stream` (taken over, null only when `head` is empty); `head`
    // holds the first bytes of the input, at most 12.
    // `folder`: where relative texture paths are looked for (empty for memory).
    C3DScene* ReadStream(FILE* stream, std::span<const uint8_t> head, CSceneImportOptions& options,
                         const CXStringW& folder = CXStringW());
};
