#pragma once
// DXF parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CDxfIo : public C3DParser {
public:
    explicit CDxfIo(CFileIo& io);
    ~CDxfIo() override;

private:
    CHashMap<CXStringW, C3DSceneNode*> m_blocks{23};
    CHashTable<CXStringW> m_layerNames{23};
    CHashTable<CXStringW> m_blockNames{23};
    CStack<CXStringW> m_nameStack{5};
    CHashMap<CXStringW, int> m_layers{23};
    CHashMap<int, C3DStandardMaterial*> m_colorMaterials{23};
    uint64_t m_state0 = 0;
    uint64_t m_state1 = 1;
};
