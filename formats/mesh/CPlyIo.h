#pragma once
// PLY, written only: binary little-endian 1.0, the first mesh of the scene, with
// per-vertex colours from the first colour channel, a colour per face from its
// material, and per-face texture coordinates written as (u, -v) with a texture number.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CPlyIo : public C3DParser {
public:
    explicit CPlyIo(CFileIo& io);
    ~CPlyIo() override;

    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

private:
    uint32_t m_state = 0;
};
