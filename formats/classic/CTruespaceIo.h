#pragma once
// trueSpace object and scene files (.cob, .scn): a 32-byte "Caligari " header
// naming an ASCII or a binary body, then a flat run of chunks whose tree is given
// by IDs and parent handles. Meshes (PolH) come with absolute matrices; faces wind
// clockwise and are turned to the host's counter-clockwise order; holes are bridged
// into the face they cut. Writes binary by default, ASCII on request.
#include <cstdint>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XString.h"

class CTruespaceIo : public C3DParser {
public:
    // Parser option (export options' parser bag): non-zero writes an ASCII body.
    static constexpr uint32_t kOptionAscii = 0x41534349; // 'ASCI'

    explicit CTruespaceIo(CFileIo& io);
    ~CTruespaceIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // Reads a file image held in memory (fuzzing, tests); textures are looked up in `folder`
    // (with its trailing separator) when given.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options,
                         const CXStringW& folder = CXStringW());
    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

private:
    C3DScene* ReadData(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& folder);
};
