#pragma once
// Modo LXO scenes: import only so far (mesh layers with UVs, vertex colours and material
// tags, the item hierarchy, transforms, cameras, lights, material colours from the shader
// tree). Saving keeps the base class answer (not available).
#include <cstdint>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CLxoIo : public C3DParser {
  public:
    explicit CLxoIo(CFileIo& io);
    ~CLxoIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // Reads LXO bytes held in memory (fuzzing, tests); same results as Read.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);

  private:
    C3DScene* ReadBytes(std::span<const uint8_t> data, CSceneImportOptions& options);
};
