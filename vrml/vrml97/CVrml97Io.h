#pragma once
// VRML97 parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CVrml97Io : public C3DParser {
public:
    explicit CVrml97Io(CFileIo& io);
    ~CVrml97Io() override;

private:
    void* m_scene = nullptr;
    void* m_root = nullptr;
    void* m_data = nullptr;
};
