#pragma once
// Modo LXO parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CLxoIo : public C3DParser {
public:
    explicit CLxoIo(CFileIo& io);
    ~CLxoIo() override;

private:
    CHashMap<uint32_t, C3DSceneNode*> m_nodesByID{23};
    CHashMap<uint32_t, uint32_t> m_materials{23};
};
