#pragma once
// Lightwave object parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CLightwaveIo : public C3DParser {
public:
    explicit CLightwaveIo(CFileIo& io);
    ~CLightwaveIo() override;

private:
    CHashMap<uint32_t, uint32_t> m_surfaces{23};
    CHashMap<CXStringW, uint32_t> m_materialsByName{23};
};
