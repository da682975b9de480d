#pragma once
// KMZ packages: a zip holding "doc.kml" and Collada models. The archive is unpacked into
// a temporary folder, the models the (lower-cased) KML names are read through the host's
// generic reader and merged, and texture names remapped by <alias> elements are restored
// under their source names. The folder lives as long as the scene that refers to it.
#include <cstdint>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CZip;

class CKmzIo : public C3DParser {
public:
    explicit CKmzIo(CFileIo& io);
    ~CKmzIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // An archive held in memory (it is still unpacked into a temporary folder).
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);

    // Parser-data class under which the scene keeps its unpacked folder.
    static constexpr uint32_t kParserClass = 0x4B4D5A49; // 'KMZI'
    // Scene custom data: the model references merged, one per line, in reading order.
    static constexpr uint32_t kMergedModels = 0x4B4D5A4D; // 'KMZM'

private:
    C3DScene* ReadPackage(std::span<const uint8_t> data, const CXStringW& name, CSceneImportOptions& options);
    C3DScene* ReadArchive(CZip& zip, const CXStringW& name, CSceneImportOptions& options);

    uint32_t m_state = 0;
};
