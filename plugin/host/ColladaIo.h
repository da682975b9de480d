#pragma once
// Collada (.dae) documents, read by the host itself (the module offers no Collada
// record; KMZ packages reach it through C3DIo). Geometry comes from library_geometries
// (triangles, polylists, polygons with holes as faces of their own, strips and fans;
// lines and line strips as curves), materials from library_materials/library_effects
// with their diffuse images, and the node tree from the visual scene with its transform
// elements, geometry/node/camera/light instances; skins and morphs show their base geometry
// in its bind shape (the host has no bones, so joints, weights and morph targets are not
// read). Every count is checked against the text that holds it; instance and controller
// chains are cycle-safe and bounded.
#include <cstddef>
#include <cstdint>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XString.h"

class IoFile;

// The host's own type ID for Collada ('DAE ').
constexpr uint32_t COLLADA_TYPE_ID = 0x44414520;
// The document's up axis as its author declared it (0 x, 1 y, 2 z), kept in the scene's
// custom data: the points stay as written, as every reader keeps its file's own axes,
// and whoever shows the scene turns it.
constexpr uint32_t COLLADA_UP_AXIS = 0x55504158; // 'UPAX'

namespace collada {
// The big float and index lists of the geometry with the most list text are read from their
// ends on another core while the reader works its way to them, in chunks cut at blanks; the
// reader takes chunks from the front of each when it gets there, and the two meet where
// they meet. The values are those of one read.
struct AheadTuning {
    size_t minBytes = size_t{256} << 10; // less list text than this is read on the caller's thread only
    size_t chunkBytes = size_t{16} << 10;
    size_t listBytes = size_t{32} << 10; // smaller lists are left to the reader
    // Index lists larger than this are left to the reader, whose batches never hold a whole one.
    static constexpr size_t kMaxIndexBytes = size_t{16} << 20;
};
} // namespace collada

class CColladaIo : public C3DParser {
public:
    explicit CColladaIo(CFileIo& io) : C3DParser(io) {}
    void SetAheadTuning(const collada::AheadTuning& tuning) { m_ahead = tuning; }
    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // A document held in memory; `path` (may be empty) is the base of image paths.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path = {});

private:
    C3DScene* ReadBytes(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path,
                        const IoFile* file);

    collada::AheadTuning m_ahead;
};

// The host's built-in formats, offered like a module's (action 0 lists, action 1 creates).
bool HostInit3DParser(int action, void* data);
