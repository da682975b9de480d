#pragma once
// 3D Studio parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class C3DStudioIo : public C3DParser {
public:
    explicit C3DStudioIo(CFileIo& io);
    ~C3DStudioIo() override;

private:
    CHashMap<uint32_t, C3DSceneNode*> m_nodesByID{23};
    CHashMap<CXStringW, uint32_t> m_materialsByName{23};
    CHashMap<CXStringW, C3DSceneNode*> m_nodesByName{23};
};
