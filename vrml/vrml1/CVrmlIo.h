#pragma once
// VRML 1.0 and Inventor 2.x ascii files. Reading parses the file into a Qv node tree and
// walks it into the scene (Vrml1Import); writing emits VRML 1.0 text: one Separator per
// scene node, meshes as Coordinate3 + IndexedFaceSet, curves as IndexedLineSet. The
// writer's layout is fixed byte for byte, including the curve's Coordinate3 written after
// its IndexedLineSet.
#include <cstdint>
#include <span>
#include <string>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class IoFile;

class CVrmlIo : public C3DParser {
public:
    explicit CVrmlIo(CFileIo& io);
    ~CVrmlIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // Reads file bytes held in memory; `path` (may be empty) is the base of inlined files
    // and textures.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path = {});
    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

    // The whole VRML 1.0 text for `scene`.
    static std::string FormatScene(const C3DScene& scene);
    // A scene node's name as written after DEF: letters only, "Object" when none are left.
    static std::string SeparatorName(const CXStringW& name);

private:
    // `file`: the mapped file the bytes come from (null for memory reads).
    C3DScene* ReadBytes(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path,
                        const IoFile* file);

    CXStringW m_path;
    CHashMap<unsigned, int> m_indexMap{23};
    CStack<C3DSceneNode*> m_nodeStack{5};
    uint32_t m_state0 = 0;
    uint32_t m_state1 = 1;
    struct Aux {
        uint64_t a = 0, b = 0;
    };
    Aux* m_aux = nullptr;
};
