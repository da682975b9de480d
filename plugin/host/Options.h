#pragma once
// Import and export options: a parser-options bag, a log, and the fields the
// writers' SaveDefaultOptions fill (the export preparation flags among them).
#include <cstdint>
#include <vector>

#include "plugin/host/CustomData.h"
#include "plugin/host/XString.h"

struct IoLogInfo {
    int level;
    CXStringW text;
};

class CIoOptions {
public:
    virtual ~CIoOptions() = default;
    CCustomData& GetParserOptions() { return m_parser; }
    const CCustomData& GetParserOptions() const { return m_parser; }
    void AddLogInfo(int level, const CXStringW& text) { m_log.push_back({level, text}); }
    const std::vector<IoLogInfo>& GetLog() const { return m_log; }
    void ClearLog() { m_log.clear(); }
private:
    CCustomData m_parser;
    std::vector<IoLogInfo> m_log;
};

class CSceneImportOptions : public CIoOptions {
public:
    bool importCameras = true;
    bool importLights = true;
    bool importAnimation = true;
    bool importMaterials = true;
    // Reader-specific defaults set by LoadDefaultOptions.
    uint32_t readerFlags = 0;
    double readerScale = 1.0;
};

class CSceneExportOptions : public CIoOptions {
public:
    // Two 32-bit option fields (text encoding / line format of text writers; OBJ stores 0x3000000).
    uint32_t textOptions[2] = {0, 0};
    // Two host-defined switches a writer may turn on (OBJ sets both with WVEN 2: write a UTF-8 BOM).
    uint32_t writeBom = 0, writeBomMtl = 0;
    // The 32-bit field before the preparation flags (PLY stores 68: its property set).
    uint32_t writerProfile = 0;
    // Export preparation flags (EXPORT_PREP) and the second 64-bit word after them.
    uint64_t prepFlags = 0;
    uint64_t prepFlags2 = 0;
    // A further 32-bit field (Maya stores 4: the indentation unit).
    uint32_t writerExtra = 0;
    // Smoothing angle used when normals must be generated (degrees).
    float normalAngle = 45.0f;
};
