#pragma once
// PLY parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CPlyIo : public C3DParser {
public:
    explicit CPlyIo(CFileIo& io);
    ~CPlyIo() override;

private:
    uint32_t m_state = 0;
};
