#pragma once
// Wavefront OBJ parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CWavefrontIo : public C3DParser {
public:
    explicit CWavefrontIo(CFileIo& io);
    ~CWavefrontIo() override;

private:
    CXStringW m_mtlFile;
    CXArray<CXStringW> m_names;
    uint32_t m_mode = 1;
    void* m_data = nullptr;
};
