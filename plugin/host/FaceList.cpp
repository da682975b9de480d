#include "plugin/host/FaceList.h"

#include <algorithm>
#include <unordered_map>

#include "plugin/host/LargeArray.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {
// True when no entry is below the one before it. Adopted lists are big and almost always
// valid, so this compares four at a time and looks at the result once.
bool NonDecreasing(const CFaceList::IndexArray& v) {
    const uint32_t* o = v.data();
    const size_t n = v.size();
    size_t i = 1;
#if defined(__SSE2__)
    const __m128i flip = _mm_set1_epi32(INT32_MIN); // unsigned order through signed compares
    __m128i bad = _mm_setzero_si128();
    for (; i + 4 <= n; i += 4) {
        const __m128i cur = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(o + i)), flip);
        const __m128i prev = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(o + i - 1)), flip);
        bad = _mm_or_si128(bad, _mm_cmpgt_epi32(prev, cur));
    }
    if (_mm_movemask_epi8(bad) != 0) return false;
#endif
    for (; i < n; ++i)
        if (o[i] < o[i - 1]) return false;
    return true;
}
} // namespace

int CFaceList::GetNumberOfFaces(uint32_t properties, bool set) const {
    int n = 0;
    for (uint8_t f : m_flags)
        if (((f & properties) != 0) == set) ++n;
    return n;
}

void CFaceList::SetFacesFlags(uint32_t flag, bool on) {
    for (auto& f : m_flags) f = static_cast<uint8_t>(on ? (f | flag) : (f & ~flag));
}

uint32_t* CFaceList::AddFace(int count, uint32_t flags) {
    if (count < 0) count = 0;
    size_t at = m_indices.size();
    m_indices.resize(at + static_cast<size_t>(count));
    m_offsets.push_back(static_cast<uint32_t>(m_indices.size()));
    m_flags.push_back(static_cast<uint8_t>(flags));
    OnFaceAdded(NO_MATERIAL);
    return m_indices.data() + at;
}

int CFaceList::AddFace(const uint32_t* idx, int count, uint32_t flags) {
    if (count < 0) count = 0;
    m_indices.insert(m_indices.end(), idx, idx + count);
    m_offsets.push_back(static_cast<uint32_t>(m_indices.size()));
    m_flags.push_back(static_cast<uint8_t>(flags));
    OnFaceAdded(NO_MATERIAL);
    return GetNumberOfFaces() - 1;
}

void CFaceList::GetFace(int f, CFace& out) const {
    int n = GetFaceSize(f);
    uint32_t* d = out.SetSize(n, m_flags[static_cast<size_t>(f)]);
    std::copy_n(GetFaceIndices(f), n, d);
}

int CFaceList::CopyFace(const CFaceList& src, int f) {
    return AddFace(src.GetFaceIndices(f), src.GetFaceSize(f), src.GetFaceFlags(f));
}

void CFaceList::SetSize(int count, int vertices, int mode, uint32_t material) {
    if (count < 0) count = 0;
    if (vertices < 0) vertices = 0;
    switch (mode) {
    case SETSIZE_RESERVE:
        Reserve(static_cast<size_t>(count), static_cast<size_t>(count) * static_cast<size_t>(vertices));
        return;
    case SETSIZE_TRUNCATE:
        if (count < GetNumberOfFaces()) {
            m_indices.resize(m_offsets[static_cast<size_t>(count)]);
            m_offsets.resize(static_cast<size_t>(count) + 1);
            m_flags.resize(static_cast<size_t>(count));
        }
        return;
    default: {
        RemoveAll();
        size_t total = static_cast<size_t>(count) * static_cast<size_t>(vertices);
        // The offsets are written just below and the indices by the caller, who sizes a
        // list this way to fill it; the zero flags need no writing.
        hostmem::ReserveFilled(m_offsets, static_cast<size_t>(count) + 1);
        hostmem::ReserveLarge(m_flags, static_cast<size_t>(count));
        hostmem::ReserveFilled(m_indices, total);
        m_indices.assign(total, 0);
        m_offsets.resize(static_cast<size_t>(count) + 1);
        for (size_t i = 0; i <= static_cast<size_t>(count); ++i)
            m_offsets[i] = static_cast<uint32_t>(i * static_cast<size_t>(vertices));
        m_flags.assign(static_cast<size_t>(count), 0);
        (void)material;
        return;
    }
    }
}

void CFaceList::Reserve(size_t faces, size_t indices) {
    hostmem::ReserveLarge(m_offsets, faces + 1);
    hostmem::ReserveLarge(m_flags, faces);
    hostmem::ReserveLarge(m_indices, indices);
}

bool CFaceList::Adopt(IndexArray&& offsets, IndexArray&& indices, FlagArray&& flags) {
    if (offsets.empty() || offsets.front() != 0 || offsets.back() != indices.size() ||
        flags.size() != offsets.size() - 1 || indices.size() > UINT32_MAX)
        return false;
    if (!NonDecreasing(offsets)) return false;
    m_offsets = std::move(offsets);
    m_indices = std::move(indices);
    m_flags = std::move(flags);
    m_graph.reset();
    return true;
}

void CFaceList::RemoveAll() {
    m_offsets.assign(1, 0);
    m_indices.clear();
    m_flags.clear();
    m_graph.reset();
}

void CFaceList::FreeExtra() {
    m_offsets.shrink_to_fit();
    m_indices.shrink_to_fit();
    m_flags.shrink_to_fit();
}

void CFaceList::Compact(const std::vector<bool>& keep) {
    size_t out = 0, outIdx = 0;
    const size_t n = static_cast<size_t>(GetNumberOfFaces());
    for (size_t f = 0; f < n; ++f) {
        if (f < keep.size() && !keep[f]) continue;
        uint32_t b = m_offsets[f], e = m_offsets[f + 1];
        for (uint32_t i = b; i < e; ++i) m_indices[outIdx++] = m_indices[i];
        m_flags[out] = m_flags[f];
        m_offsets[out + 1] = static_cast<uint32_t>(outIdx);
        ++out;
    }
    m_indices.resize(outIdx);
    m_offsets.resize(out + 1);
    m_flags.resize(out);
    m_graph.reset();
}

void CFaceList::InvertFaceWinding() {
    const int n = GetNumberOfFaces();
    for (int f = 0; f < n; ++f) std::reverse(GetFaceIndices(f), GetFaceIndices(f) + GetFaceSize(f));
    m_graph.reset();
}

uint32_t CFaceList::GetMaxIndex() const {
    uint32_t m = 0;
    for (uint32_t i : m_indices) m = std::max(m, i + 1);
    return m;
}

void CFaceList::InitEdgeToFaceGraph() {
    auto g = std::make_shared<CEdgeGraph>();
    std::unordered_map<uint64_t, uint32_t> index;
    index.reserve(m_indices.size());
    g->cornerEdge.resize(m_indices.size());
    std::vector<uint32_t> faceCount;
    const int n = GetNumberOfFaces();
    for (int f = 0; f < n; ++f) {
        const uint32_t b = m_offsets[static_cast<size_t>(f)], e = m_offsets[static_cast<size_t>(f) + 1];
        for (uint32_t i = b; i < e; ++i) {
            uint32_t a = m_indices[i], c = m_indices[i + 1 < e ? i + 1 : b];
            uint32_t lo = std::min(a, c), hi = std::max(a, c);
            uint64_t key = (uint64_t(lo) << 32) | hi;
            auto [it, added] = index.emplace(key, static_cast<uint32_t>(g->edges.size()));
            if (added) {
                g->edges.emplace_back(lo, hi);
                faceCount.push_back(0);
            }
            g->cornerEdge[i] = it->second;
            ++faceCount[it->second];
        }
    }
    g->edgeFaceOffsets.resize(g->edges.size() + 1, 0);
    for (size_t k = 0; k < faceCount.size(); ++k) g->edgeFaceOffsets[k + 1] = g->edgeFaceOffsets[k] + faceCount[k];
    g->edgeFaces.resize(g->edgeFaceOffsets.back());
    std::vector<uint32_t> fill(g->edgeFaceOffsets.begin(), g->edgeFaceOffsets.end() - 1);
    for (int f = 0; f < n; ++f)
        for (uint32_t i = m_offsets[static_cast<size_t>(f)]; i < m_offsets[static_cast<size_t>(f) + 1]; ++i)
            g->edgeFaces[fill[g->cornerEdge[i]]++] = static_cast<uint32_t>(f);
    m_graph = std::move(g);
}

size_t CFaceList::MemoryBytes() const {
    return m_offsets.capacity() * 4 + m_indices.capacity() * 4 + m_flags.capacity();
}

// --- C3DFaceList -----------------------------------------------------------

void C3DFaceList::GetFace(int f, C3DFace& out) const {
    CFaceList::GetFace(f, out);
    out.SetMaterialID(m_materials[static_cast<size_t>(f)]);
}

int C3DFaceList::AddFace(const C3DFace& face) {
    int i = CFaceList::AddFace(face.GetIndexes(), face.GetSize(), face.GetFlags());
    m_materials.back() = face.GetMaterialID();
    return i;
}

int C3DFaceList::CopyFace(const CFaceList& src, int f) {
    int i = CFaceList::CopyFace(src, f);
    if (auto* s = dynamic_cast<const C3DFaceList*>(&src)) m_materials.back() = s->GetMaterialID(f);
    return i;
}

void C3DFaceList::SetSize(int count, int vertices, int mode, uint32_t material) {
    CFaceList::SetSize(count, vertices, mode, material);
    if (mode == SETSIZE_RESERVE) {
        m_materials.reserve(static_cast<size_t>(count < 0 ? 0 : count));
    } else if (mode == SETSIZE_TRUNCATE) {
        m_materials.resize(static_cast<size_t>(GetNumberOfFaces()));
    } else {
        hostmem::ReserveFilled(m_materials, static_cast<size_t>(GetNumberOfFaces()));
        m_materials.assign(static_cast<size_t>(GetNumberOfFaces()), material);
    }
}

bool C3DFaceList::Adopt(IndexArray&& offsets, IndexArray&& indices, FlagArray&& flags, IndexArray&& materials) {
    if (materials.size() + 1 != offsets.size()) return false;
    if (!CFaceList::Adopt(std::move(offsets), std::move(indices), std::move(flags))) return false;
    m_materials = std::move(materials);
    return true;
}

void C3DFaceList::Reserve(size_t faces, size_t indices) {
    CFaceList::Reserve(faces, indices);
    hostmem::ReserveLarge(m_materials, faces);
}

void C3DFaceList::RemoveAll() {
    CFaceList::RemoveAll();
    m_materials.clear();
}

void C3DFaceList::FreeExtra() {
    CFaceList::FreeExtra();
    m_materials.shrink_to_fit();
}

void C3DFaceList::Compact(const std::vector<bool>& keep) {
    size_t out = 0;
    for (size_t f = 0; f < m_materials.size(); ++f)
        if (f >= keep.size() || keep[f]) m_materials[out++] = m_materials[f];
    m_materials.resize(out);
    CFaceList::Compact(keep);
}
