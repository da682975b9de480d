#pragma once
// Face lists in flat storage: offsets + indices + per-face flags (and, for the
// mesh's own list, per-face material IDs). Millions of faces cost bytes, not allocations.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "plugin/host/HostTypes.h"
#include "plugin/host/LargeArray.h"

// A detached face: its vertex indices and flags (GetFace/CopyFace carry these).
class CFace {
public:
    // Resizes the face to `count` indices and returns the index storage.
    uint32_t* SetSize(int count, uint32_t properties = 0) {
        m_idx.assign(static_cast<size_t>(count > 0 ? count : 0), 0);
        m_flags = properties;
        return m_idx.data();
    }
    void SetTriangle(uint32_t a, uint32_t b, uint32_t c) { m_idx = {a, b, c}; }
    int GetSize() const { return static_cast<int>(m_idx.size()); }
    uint32_t* GetIndexes() { return m_idx.data(); }
    const uint32_t* GetIndexes() const { return m_idx.data(); }
    uint32_t operator[](int i) const { return m_idx[static_cast<size_t>(i)]; }
    void SetFlag(uint32_t f, bool on = true) { m_flags = on ? (m_flags | f) : (m_flags & ~f); }
    bool IsFlagSet(uint32_t f) const { return (m_flags & f) != 0; }
    uint32_t GetFlags() const { return m_flags; }
private:
    std::vector<uint32_t> m_idx;
    uint32_t m_flags = 0;
};

class C3DFace : public CFace {
public:
    uint32_t GetMaterialID() const { return m_material; }
    void SetMaterialID(uint32_t m) { m_material = m; }
private:
    uint32_t m_material = NO_MATERIAL;
};

// Distinct edges of a face list, each (smaller, larger) in first-seen order, and for
// every face corner the edge from that corner to the next.
struct CEdgeGraph {
    std::vector<std::pair<uint32_t, uint32_t>> edges;
    std::vector<uint32_t> cornerEdge;      // parallel to the face list's index array
    std::vector<uint32_t> edgeFaceOffsets; // edge -> faces: offsets into edgeFaces (size edges+1)
    std::vector<uint32_t> edgeFaces;
};

// The arrays are ZeroedArrays so that a reader can size them and write each entry once,
// in place: sizing writes nothing over fresh memory.
class CFaceList {
public:
    using IndexArray = hostmem::ZeroedArray<uint32_t>;
    using FlagArray = hostmem::ZeroedArray<uint8_t>;

    CFaceList() : m_offsets(1) {}
    virtual ~CFaceList() = default;
    CFaceList(const CFaceList&) = default;
    CFaceList& operator=(const CFaceList&) = default;

    int GetNumberOfFaces() const { return static_cast<int>(m_offsets.size() - 1); }
    // Faces whose flags intersect `properties` (set = true) or do not (set = false).
    int GetNumberOfFaces(uint32_t properties, bool set) const;
    size_t GetNumberOfIndices() const { return m_indices.size(); }

    int GetFaceSize(int f) const { return static_cast<int>(m_offsets[f + 1] - m_offsets[f]); }
    uint32_t* GetFaceIndices(int f) { return m_indices.data() + m_offsets[f]; }
    const uint32_t* GetFaceIndices(int f) const { return m_indices.data() + m_offsets[f]; }
    std::span<const uint32_t> Face(int f) const {
        return {m_indices.data() + m_offsets[f], m_offsets[f + 1] - m_offsets[f]};
    }
    uint32_t GetFaceFlags(int f) const { return m_flags[static_cast<size_t>(f)]; }
    void SetFaceFlag(int f, uint32_t flag, bool on = true) {
        auto& v = m_flags[static_cast<size_t>(f)];
        v = static_cast<uint8_t>(on ? (v | flag) : (v & ~flag));
    }
    bool IsFaceFlagSet(int f, uint32_t flag) const { return (m_flags[static_cast<size_t>(f)] & flag) != 0; }
    // Sets or clears `flag` on every face.
    void SetFacesFlags(uint32_t flag, bool on = true);

    // Appends a face of `count` indices and returns its index storage (zeroed).
    uint32_t* AddFace(int count, uint32_t flags = 0);
    int AddFace(const uint32_t* idx, int count, uint32_t flags = 0);
    int AddTriangle(uint32_t a, uint32_t b, uint32_t c, uint32_t flags = 0) {
        uint32_t t[3] = {a, b, c};
        return AddFace(t, 3, flags);
    }
    void GetFace(int f, CFace& out) const;
    // Appends face `f` of `src`.
    virtual int CopyFace(const CFaceList& src, int f);
    int AddFace(const CFace& face) { return AddFace(face.GetIndexes(), face.GetSize(), face.GetFlags()); }

    // SETSIZE_UNIFORM: `count` faces of `vertices` zeroed indices; SETSIZE_RESERVE: reserve only;
    // SETSIZE_TRUNCATE: keep the first `count` faces.
    virtual void SetSize(int count, int vertices, int mode = SETSIZE_UNIFORM, uint32_t material = NO_MATERIAL);
    // Reserves room for `faces` faces with `indices` indices in all.
    virtual void Reserve(size_t faces, size_t indices);
    // Takes over flat arrays a reader built itself: `offsets` has faces + 1 entries, starts
    // at 0, never decreases and ends at indices.size(); `flags` has one entry per face.
    // When they do not fit together nothing is taken and false is returned.
    bool Adopt(IndexArray&& offsets, IndexArray&& indices, FlagArray&& flags);
    virtual void RemoveAll();
    virtual void FreeExtra();
    // Removes the faces for which keep[f] is false.
    virtual void Compact(const std::vector<bool>& keep);

    // Reverses the order of every face's indices.
    void InvertFaceWinding();
    uint32_t GetMaxIndex() const; // largest index + 1, 0 when empty

    const IndexArray& GetIndexes() const { return m_indices; }
    IndexArray& GetIndexes() { return m_indices; }
    const IndexArray& GetOffsets() const { return m_offsets; }

    void InitEdgeToFaceGraph();
    const CEdgeGraph* GetEdgeGraph() const { return m_graph.get(); }
    void DeleteEdgeToFaceGraph() { m_graph.reset(); }

    virtual size_t MemoryBytes() const;

protected:
    virtual void OnFaceAdded(uint32_t /*material*/) {}
    IndexArray m_offsets; // faces + 1 entries
    IndexArray m_indices;
    FlagArray m_flags;
    std::shared_ptr<CEdgeGraph> m_graph;
};

// The mesh's own face list: adds a material ID per face.
class C3DFaceList : public CFaceList {
public:
    uint32_t GetMaterialID(int f) const { return m_materials[static_cast<size_t>(f)]; }
    void SetMaterialID(int f, uint32_t m) { m_materials[static_cast<size_t>(f)] = m; }
    void SetAllMaterialIDs(uint32_t m) { std::fill(m_materials.begin(), m_materials.end(), m); }
    // The material new faces get.
    void SetCurrentMaterial(uint32_t m) { m_current = m; }
    uint32_t GetCurrentMaterial() const { return m_current; }

    void GetFace(int f, C3DFace& out) const;
    int AddFace(const C3DFace& face);
    using CFaceList::AddFace;
    int CopyFace(const CFaceList& src, int f) override;
    void SetSize(int count, int vertices, int mode = SETSIZE_UNIFORM, uint32_t material = NO_MATERIAL) override;
    void Reserve(size_t faces, size_t indices) override;
    void RemoveAll() override;
    void FreeExtra() override;
    void Compact(const std::vector<bool>& keep) override;
    size_t MemoryBytes() const override { return CFaceList::MemoryBytes() + m_materials.capacity() * 4; }
    // As CFaceList::Adopt, plus one material ID per face.
    bool Adopt(IndexArray&& offsets, IndexArray&& indices, FlagArray&& flags, IndexArray&& materials);
    const IndexArray& GetMaterialIDs() const { return m_materials; }
    IndexArray& GetMaterialIDs() { return m_materials; }

protected:
    void OnFaceAdded(uint32_t) override { m_materials.push_back(m_current); }
private:
    IndexArray m_materials;
    uint32_t m_current = NO_MATERIAL;
};

// Channel face lists share the plain layout.
using CUVWFaceList = CFaceList;
using CVCFaceList = CFaceList;
using CNormalFaceList = CFaceList;
