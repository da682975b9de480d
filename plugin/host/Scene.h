#pragma once
// The scene: a node tree under an internal root, a material table keyed by ID,
// units, texture paths, required files, tick rate and parser data.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "plugin/host/CustomData.h"
#include "plugin/host/Material.h"
#include "plugin/host/SceneNode.h"
#include "plugin/host/XString.h"

// Traversal filter flags of GetFirstNode.
enum GETNODE_FLAGS : uint32_t {
    GETNODE_SKIP_HIDDEN = 0x1, // leave out nodes flagged NODE_HIDDEN (their children are still visited)
};

// Iteration state of GetFirstNode/GetNextNode: pre-order, no allocation per step.
struct C3DNodePos {
    C3DSceneNode* next = nullptr;
    const C3DSceneNode* top = nullptr;  // subtree being walked
    const C3DSceneNode* stop = nullptr; // iteration ends when reaching it
    uint32_t kinds = KINDOF_ALL;
    uint32_t flags = 0;
    bool IsValid() const { return next != nullptr; }
};

struct CMaterialPos {
    std::map<uint32_t, std::unique_ptr<C3DMaterial>>::const_iterator it;
};

class C3DScene {
public:
    C3DScene();
    virtual ~C3DScene();
    C3DScene(const C3DScene&) = delete;
    C3DScene& operator=(const C3DScene&) = delete;
    // Deep copy: nodes, materials and scene settings.
    std::unique_ptr<C3DScene> Clone() const;

    C3DSceneNode* GetRoot() const { return m_root.get(); }
    static C3DSceneNode* GetParent(const C3DSceneNode* n) { return n->GetParent(); }
    static C3DSceneNode* GetChildNode(const C3DSceneNode* n) { return n->GetChildNode(); }
    static C3DSceneNode* GetRightNode(const C3DSceneNode* n) { return n->GetRightNode(); }

    // Adds `node` (taking ownership) as the last child of `parent`, or of the root.
    C3DSceneNode* AddNode(C3DSceneNode* parent, C3DSceneNode* node);
    // Detaches the node's subtree; deletes it when `destroy` (else the caller owns it).
    void RemoveNode(C3DSceneNode* node, bool destroy = true);
    // Deep copy of `node` (and its subtree) added under `parent` (null: the root).
    C3DSceneNode* CopyNode(const C3DSceneNode* node, C3DSceneNode* parent, bool subtree = true);
    // Moves every node and material of `other` into this scene under `parent`;
    // material IDs are renumbered past ours and faces follow. `other` is left empty.
    void AddScene(C3DScene& other, C3DSceneNode* parent = nullptr);
    bool IsNodeInScene(const C3DSceneNode* node) const;

    // Pre-order walk of the subtree of `start` (null: the whole scene, root excluded),
    // nodes whose kind intersects `kinds`, ending at `stop` (null: none).
    C3DNodePos GetFirstNode(uint32_t kinds = KINDOF_ALL, uint32_t flags = 0, const C3DSceneNode* start = nullptr,
                            const C3DSceneNode* stop = nullptr) const;
    // The next matching node (and its object, may be null); null when exhausted.
    C3DSceneNode* GetNextNode(C3DBaseObject*& object, C3DNodePos& pos) const;
    C3DSceneNode* GetNextNode(C3DNodePos& pos) const {
        C3DBaseObject* o;
        return GetNextNode(o, pos);
    }
    // Nodes below `node` (null: the root) whose kind intersects `kinds`, all levels.
    int GetChildCount(const C3DSceneNode* node, uint32_t kinds = KINDOF_ALL, bool recursive = true) const;
    int GetNodeCount() const { return GetChildCount(nullptr); }
    C3DSceneNode* FindNodeByID(uint64_t id) const;
    C3DSceneNode* FindNodeByName(const CXStringW& name) const;

    // Materials.
    C3DMaterial* CreateNewMaterial(uint32_t cls = MATERIAL_STANDARD);
    // Registers `m` (taking ownership) under its ID, or a new one when it has none or it is taken.
    uint32_t AddNewMaterial(C3DMaterial* m);
    C3DMaterial* GetMaterialByID(uint32_t id, bool create = false, uint32_t cls = MATERIAL_STANDARD);
    C3DMaterial* GetMaterialByID(uint32_t id) const;
    uint32_t FindMaterial(const C3DMaterial* m) const;
    uint32_t GetMaterialID(const CXStringW& name) const; // NO_MATERIAL when absent
    C3DMaterial* GetFirstMaterial(CMaterialPos& pos) const;
    C3DMaterial* GetNextMaterial(CMaterialPos& pos) const;
    int GetMaterialNumber() const { return static_cast<int>(m_materials.size()); }
    bool RemoveMaterial(uint32_t id);
    void RemoveAllMaterials() { m_materials.clear(); }

    void SetUnit(int unit) { m_unit = unit; }
    int GetUnit() const { return m_unit; }
    double GetScaleFactor() const { return m_scale; }
    void SetScaleFactor(double s) { m_scale = s; }
    void AddTexturePath(const CXStringW& p);
    const std::vector<CXStringW>& GetTexturePaths() const { return m_texturePaths; }
    void AddRequiredFile(const CXStringW& p);
    // Points the required file `from` (when listed) at `to` instead (a texture found elsewhere).
    void ReplaceRequiredFile(const CXStringW& from, const CXStringW& to);
    const std::vector<CXStringW>& GetRequiredFiles() const { return m_requiredFiles; }
    // Animation ticks per second, and the animated range in ticks.
    int GetTickCount() const { return m_ticks; }
    void SetTickCount(int t) { m_ticks = t; }
    void SetAnimationRange(int32_t start, int32_t end) {
        m_start = start;
        m_end = end;
    }
    int32_t GetAnimationStart() const { return m_start; }
    int32_t GetAnimationEnd() const { return m_end; }
    CCustomData& GetParserData() { return m_parserData; }
    void SetParserData(const CCustomData& d) { m_parserData = d; }
    // Parser data that is a folder the scene's files live in (a KMZ's unpacked archive);
    // with `own` the folder is removed when the scene is destroyed.
    void SetParserData(bool own, uint32_t parserClass, const CXStringW& folder);
    const std::vector<CXStringW>& GetOwnedFolders() const { return m_ownedFolders; }
    CCustomData& GetCustomData() { return m_custom; }

    // Bytes held by the scene's geometry arrays (points, faces, channels).
    size_t MemoryBytes() const;
    C3DBox GetBoundingBox(double time = 0) const;

private:
    std::unique_ptr<C3DSceneNode> m_root;
    std::map<uint32_t, std::unique_ptr<C3DMaterial>> m_materials;
    int m_unit = UNIT_NONE;
    double m_scale = 1.0;
    std::vector<CXStringW> m_texturePaths, m_requiredFiles;
    // The same names, to keep each once without a search per name (readers add one per
    // material, and files may hold hundreds of thousands).
    std::unordered_set<std::wstring> m_texturePathSet, m_requiredFileSet;
    int m_ticks = 4800;
    int32_t m_start = 0, m_end = 0;
    CCustomData m_parserData, m_custom;
    std::vector<CXStringW> m_ownedFolders;
};
