#pragma once
// Wavefront OBJ with MTL material libraries, read and written. Each group becomes a
// node; the writer puts "# TVL:NODEID:" before each node's first "g" so node IDs
// survive a round trip. Texture v is written negated and read as it stands.
#include <cstdint>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CWavefrontIo : public C3DParser {
public:
    explicit CWavefrontIo(CFileIo& io);
    ~CWavefrontIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

    // Reads OBJ bytes held in memory; "mtllib" names are served from `mtl` whatever
    // they say (fuzzing and tests). Same results and error reporting as Read.
    C3DScene* ReadMemory(std::span<const uint8_t> obj, std::span<const uint8_t> mtl, CSceneImportOptions& options);

    // The IoFile text mode that the WVEN option value selects.
    static int TextModeFor(uint32_t wven);
    static constexpr uint32_t kWvenKey = 0x5756454E; // 'WVEN'

private:
    CXStringW m_mtlFile;
    CXArray<CXStringW> m_names;
    uint32_t m_mode = 1;
    void* m_data = nullptr;
};
