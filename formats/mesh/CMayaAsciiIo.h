#pragma once
// Maya ASCII parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CMayaAsciiIo : public C3DParser {
public:
    explicit CMayaAsciiIo(CFileIo& io);
    ~CMayaAsciiIo() override;

private:
    uint32_t m_state = 0;
};
