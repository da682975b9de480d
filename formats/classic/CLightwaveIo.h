#pragma once
// Lightwave objects (.lwo/.lwb/.lw/.lwm): reads LWOB, LWLO and LWO2 files (LightwaveObject.*
// does the work) and writes LWO2 (LightwaveWriter.*).
#include <cstdint>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CReadContext;

class CLightwaveIo : public C3DParser {
public:
    explicit CLightwaveIo(CFileIo& io);
    ~CLightwaveIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;
    // Reads object bytes held in memory; textures are looked for next to `folder` (may be empty).
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& folder = {});

private:
    C3DScene* ReadBytes(std::span<const uint8_t> data, CReadContext& ctx, const CXStringW& folder);
    CHashMap<uint32_t, uint32_t> m_surfaces{23};
    CHashMap<CXStringW, uint32_t> m_materialsByName{23};
};
