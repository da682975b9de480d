#pragma once
// KMZ parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CKmzIo : public C3DParser {
public:
    explicit CKmzIo(CFileIo& io);
    ~CKmzIo() override;

private:
    uint32_t m_state = 0;
};
