#pragma once
// STL: binary (80-byte header, count, 50-byte records with a 15-bit colour word)
// and ASCII ("solid ... facet normal ... endsolid"). Binary is recognised by its
// exact length; everything else is tried as ASCII (UTF-8, or UTF-16 with its byte order
// mark). The ASCII reader reverses the winding and ignores the file's normals; the binary
// reader keeps both as given.
#include <cstdint>
#include <span>
#include <string_view>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CStlIo : public C3DParser {
public:
    explicit CStlIo(CFileIo& io);
    ~CStlIo() override;

    void LoadDefaultOptions(CSceneImportOptions& options) const override;
    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

    // Reads STL bytes held in memory (fuzzing, archive members); same results as Read.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);

    // The 16-bit colour word for a colour given as components (0..255 scale is not
    // applied here: the caller passes what it has, the arithmetic overflows as it may).
    static uint16_t PackColor(float r, float g, float b);

private:
    C3DScene* ReadData(std::span<const uint8_t> data, CSceneImportOptions& options);
    C3DScene* ReadBinary(std::span<const uint8_t> data);
    C3DScene* ReadAscii(std::span<const uint8_t> data);

    uint32_t m_state = 0;
    uint64_t m_shortVertexLines = 0; // ASCII vertex lines short of numbers in the last read
};
