#pragma once
// DXF: group-code/value pairs. The writer puts one layer per node in TABLES and, in
// ENTITIES, each curve as a 3D polyline and each mesh as a polyface mesh on its node's
// layer, with raw object-space points. The reader takes ASCII and binary drawings of
// any release (DxfReader.h): faces become meshes, everything drawn with lines curves.
#include <cstdint>
#include <span>
#include <string>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CReadContext;

class CDxfIo : public C3DParser {
public:
    explicit CDxfIo(CFileIo& io);
    ~CDxfIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // Reads DXF bytes held in memory (fuzzing, tests); same results as Read.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);

    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

    // The whole file Save writes for `scene`, as bytes.
    static std::string FormatScene(const C3DScene& scene);

private:
    C3DScene* ReadBytes(std::span<const uint8_t> data, CReadContext& ctx);
    CHashMap<CXStringW, C3DSceneNode*> m_blocks{23};
    CHashTable<CXStringW> m_layerNames{23};
    CHashTable<CXStringW> m_blockNames{23};
    CStack<CXStringW> m_nameStack{5};
    CHashMap<CXStringW, int> m_layers{23};
    CHashMap<int, C3DStandardMaterial*> m_colorMaterials{23};
    uint64_t m_state0 = 0;
    uint64_t m_state1 = 1;
};
