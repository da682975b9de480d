#pragma once
// Lightwave scene parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CLightwaveSceneIo : public C3DParser {
public:
    explicit CLightwaveSceneIo(CFileIo& io);
    ~CLightwaveSceneIo() override;

private:
    CHashMap<uint32_t, C3DSceneNode*> m_nodesByID{23};
    CHashMap<CXStringW, C3DSceneNode*> m_nodesByName{23};
};
