#pragma once
// Writes a scene as a 3D Studio main file: the editor part (materials, master
// scale, one triangle object per exportable mesh node, points in world space)
// and the keyframer part (one object node per mesh or dummy, tracks sampled at
// the node's key times). Meshes past the format's 16-bit counts are left out.
// World transforms are taken once per write: a deep hierarchy costs no more than a flat one.
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "plugin/host/ByteSink.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class C3DStudioWriter {
public:
    // What the format cannot hold as given (long names) is said in `log` when there is one.
    C3DStudioWriter(IoFile& file, C3DScene& scene, CIoOptions* log = nullptr);
    // Writes the whole file; false when a write failed.
    bool Write();

    // Triangles a face list becomes (two per 4-vertex face, one per other face).
    static uint64_t CountTriangles(const CFaceList& faces);
    // The 8.3 form of a texture file name: name cut to 8, extension (with its dot) cut to 4.
    static CXStringW ShortTextureName(const CXStringW& path);

private:
    // Chunks nest: End closes the last one begun.
    void Begin(uint16_t id);
    void End();
    void PutString(const CXStringW& s);

    void WriteMaterial(const C3DMaterial& m);
    bool IsExported(const C3DSceneNode& node, const C3DBaseObject* obj) const;
    void WriteObject(const C3DSceneNode& node, const C3DGeomObject& geom);
    void WriteNode(C3DSceneNode& node, uint32_t kind);
    void WriteTracks(C3DSceneNode& node);
    const CXStringW& NodeName(const C3DSceneNode& node);
    // The name a node is written under (ten characters, unique), said when it differs.
    CXStringW ObjectName(const C3DSceneNode& node);

    CIoFileTarget m_target;
    CByteSink m_out;
    C3DScene& m_scene;
    std::vector<CByteSink::Mark> m_open;

    CHashTable<CXStringW> m_objectNames{23};
    CHashTable<CXStringW> m_materialNames{23};
    CHashMap<CXStringW, unsigned> m_objectNext{23}, m_materialNext{23}; // suffixes tried per name
    CHashMap<uint32_t, CXStringW> m_materialWritten{23};
    CHashMap<const C3DSceneNode*, CXStringW> m_nodeWritten{23};
    CHashMap<const C3DSceneNode*, uint32_t> m_nodeIDs{23};
    uint32_t m_nodeCounter = 0;
    std::unordered_map<const C3DSceneNode*, C4x4Matrix> m_world; // node transforms at time 0
    CIoOptions* m_log;
};
