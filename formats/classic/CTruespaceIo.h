#pragma once
// trueSpace parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CTruespaceIo : public C3DParser {
public:
    explicit CTruespaceIo(CFileIo& io);
    ~CTruespaceIo() override;

private:
    CHashMap<uint32_t, C3DSceneNode*> m_nodesByID{23};
    CHashMap<uint32_t, uint32_t> m_materials{23};
};
