#pragma once
// A node of the scene tree: name, 64-bit ID, flags, the object it carries, its
// static transform and animation tracks. Children are an intrusive sibling list
// so that walking the tree allocates nothing.
#include <cstdint>
#include <memory>

#include "plugin/host/Keys.h"
#include "plugin/host/Math3D.h"
#include "plugin/host/Object.h"
#include "plugin/host/XString.h"

class C3DScene;

class C3DSceneNode : public C3DKeyframable {
public:
    // Takes ownership of `object` (may be null for a plain group node).
    explicit C3DSceneNode(C3DBaseObject* object = nullptr);
    // Deletes the subtree below (iteratively: deep trees do not recurse).
    ~C3DSceneNode() override;
    C3DSceneNode(const C3DSceneNode&) = delete;
    C3DSceneNode& operator=(const C3DSceneNode&) = delete;

    const CXStringW& GetName() const { return m_name; }
    void SetName(const CXStringW& n) { m_name = n; }
    uint64_t GetNodeID() const { return m_id; }
    void SetNodeID(uint64_t id) { m_id = id; }
    bool IsFlagSet(uint32_t f) const { return (m_flags & f) != 0; }
    void SetFlag(uint32_t f, bool on = true) { m_flags = on ? (m_flags | f) : (m_flags & ~f); }
    uint32_t GetFlags() const { return m_flags; }

    // With `own` false the node stores a clone (the caller keeps its object).
    void SetObject(C3DBaseObject* object, bool own = true);
    C3DBaseObject* GetBaseObject(double time = 0) const {
        (void)time;
        return m_object.get();
    }
    C3DGeomObject* GetGeomObject(double time = 0) const;
    std::unique_ptr<C3DBaseObject> ReleaseObject() { return std::move(m_object); }
    // Kind of the carried object; an object-less node counts as a group.
    uint32_t GetKindOf() const { return m_object ? m_object->GetKindOf() : KINDOF_GROUP; }

    // Static local transform (used when the node has no animation tracks).
    void SetNodeLocalTM(const C4x4Matrix& m) { m_local = m; }
    const C4x4Matrix& GetStaticLocalTM() const { return m_local; }
    // Local transform at `time`: from the tracks when there are any, else the static one.
    void GetNodeLocalTM(double time, C4x4Matrix& out) const;
    // World transform at `time` (local, then each parent's).
    void GetNodeTM(double time, C4x4Matrix& out) const;
    // Offset of the object within the node (pivot placement), applied before the node's TM.
    void SetObjectLocalTM(const C4x4Matrix& m) { m_objectTM = m; }
    void GetObjectLocalTM(double time, C4x4Matrix& out) const {
        (void)time;
        out = m_objectTM;
    }
    const C3DPoint& GetPivot() const { return m_pivot; }
    void SetPivot(const C3DPoint& p) { m_pivot = p; }
    // Box of the object (object offset and world transform applied when `world`).
    bool GetBoundingBox(double time, C3DBox& box, bool world = true) const;

    C3DSceneNode* GetParent() const { return m_parent; }
    C3DSceneNode* GetChildNode() const { return m_firstChild; }
    C3DSceneNode* GetLastChildNode() const { return m_lastChild; }
    C3DSceneNode* GetRightNode() const { return m_next; }
    C3DSceneNode* GetLeftNode() const { return m_prev; }
    int GetDirectChildCount() const { return m_childCount; }
    // Appends `child` (taking ownership); it must not be in a tree.
    void AppendChild(C3DSceneNode* child);
    // Unlinks this node from its parent; the caller owns it afterwards.
    void Detach();
    // Deep copy of the node (object, keys, transform) and, with `subtree`, its descendants.
    C3DSceneNode* Clone(bool subtree = true) const;

private:
    CXStringW m_name;
    uint64_t m_id = 0;
    uint32_t m_flags = 0;
    std::unique_ptr<C3DBaseObject> m_object;
    C4x4Matrix m_local;
    C4x4Matrix m_objectTM;
    C3DPoint m_pivot;
    C3DSceneNode* m_parent = nullptr;
    C3DSceneNode* m_firstChild = nullptr;
    C3DSceneNode* m_lastChild = nullptr;
    C3DSceneNode* m_next = nullptr;
    C3DSceneNode* m_prev = nullptr;
    int m_childCount = 0;
};
