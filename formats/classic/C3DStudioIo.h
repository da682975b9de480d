#pragma once
// 3D Studio (.3ds) files: a tree of little-endian chunks (u16 id, u32 length that
// counts the 6-byte header, the chunk's own data and its sub-chunks). The editor
// part stores named triangle objects in world space with their matrix; the
// keyframer part carries the hierarchy and tracks that replace those matrices.
// Materials are found by name, so they must come before the objects using them.
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/ChunkWalker.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class C3DStudioIo : public C3DParser {
public:
    explicit C3DStudioIo(CFileIo& io);
    ~C3DStudioIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

    // Reads a file image held in memory; same outcome and reporting as Read.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);
    C3DScene* ReadMemory(const void* data, size_t size, CSceneImportOptions& options) {
        return ReadMemory({static_cast<const uint8_t*>(data), data ? size : 0}, options);
    }
    // Project-file shapes (0x5000) are skipped unless switched on; nothing in the module does.
    void SetReadShapes(bool on) { m_readShapes = on; }
    // Objects the keyframer uses again are copied; the copies of one read hold at most this
    // many points and corners, plus 4 per byte of the file (a few bytes can name a large mesh
    // again). Later uses are left out.
    static constexpr uint64_t kCopyAllowance = uint64_t(1) << 26;
    void SetCopyAllowance(uint64_t values) { m_copyAllowance = values; }

    // Deepest container nesting a file may have.
    static constexpr int kMaxDepth = 64;
    // Channel ID given to every mesh's texture coordinates (the materials' maps point at it).
    static constexpr int32_t kUVChannelID = 0;

private:
    // One node the reader made, with its place in the node-to-parent map.
    struct NodeRec {
        std::unique_ptr<C3DSceneNode> owned; // until the node is added to the scene
        C3DSceneNode* node = nullptr;
        C3DSceneNode* parent = nullptr;
        int parentEntry = -1; // order in the node-to-parent map, -1 when not a key
    };

    C3DScene* ReadFile(IoFile& file, CSceneImportOptions& options);
    void ResetReadState();
    bool ReadTop(Chunk& c, int depth);
    bool ReadEditor(CBinaryCursor& body, int depth);
    bool ReadProject(CBinaryCursor& body, int depth);
    bool ReadShapes(CBinaryCursor& body, int depth);
    bool ReadMasterScale(CBinaryCursor& p);
    bool ReadNamedObject(CBinaryCursor& p, int depth);
    bool ReadTriObject(CBinaryCursor& p, int depth);
    bool ReadFaces(CBinaryCursor& p, int depth);
    bool ReadFaceMaterial(CBinaryCursor& p);
    bool ReadShape(CBinaryCursor& p);
    void BuildTriObject();
    bool ReadKeyframer(CBinaryCursor& p, int depth);
    bool ReadObjectNode(CBinaryCursor& p, int depth);
    bool ReadNodeHeader(CBinaryCursor& p);
    bool ReadTrack(CBinaryCursor& p, uint32_t id);
    void PlaceNodes();
    size_t AddNodeRec(std::unique_ptr<C3DSceneNode> node);
    NodeRec* FindRec(const C3DSceneNode* node);
    // Walks the sub-chunks of `body`, calling fn(chunk); false on damage or cancel.
    template <typename F> bool Walk(CBinaryCursor& body, int depth, F&& fn);

    CHashMap<uint32_t, C3DSceneNode*> m_nodesByID{23};
    CHashMap<CXStringW, uint32_t> m_materialsByName{23};
    CHashMap<CXStringW, C3DSceneNode*> m_nodesByName{23};

    // Reader state for one Read.
    CSceneImportOptions* m_options = nullptr;
    const uint8_t* m_fileBase = nullptr;
    std::unique_ptr<C3DScene> m_building;
    std::vector<NodeRec> m_nodeRecs;
    CHashMap<const C3DSceneNode*, size_t> m_recIndex{23};
    std::vector<size_t> m_parentMap; // node records, in the order they became keys
    std::string m_objectName;
    std::unique_ptr<C3DPointList> m_points;
    std::unique_ptr<C3DFaceList> m_faces;
    std::unique_ptr<CUVWChannel> m_uv;
    C4x4Matrix m_local;
    C3DSceneNode* m_currentNode = nullptr;
    uint32_t m_currentNodeID = 0x8300;
    uint32_t m_nodeCounter = 0;
    C3DPoint m_pivot;
    float m_shapeOffset[2] = {0, 0};
    bool m_readShapes = false;
    uint64_t m_copyAllowance = kCopyAllowance;
    uint64_t m_copyBudget = 0; // what the copies of this read may still hold
    bool m_copiesCut = false;
};
