#pragma once
// Amapi parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CAmapiIo : public C3DParser {
public:
    explicit CAmapiIo(CFileIo& io);
    ~CAmapiIo() override;

private:
    uint32_t m_state = 0;
    uint32_t m_objectCounter = 1;
};
