// LXO scene building. Layers (points, polygons, the first UV map, material tags) are
// buffered as they stream past; items keep only what the scene needs (names, parent and
// transform links, transform values, mask selections, material channels). Everything is
// bound at the end: each layer to its mesh item, transforms to their locators, masks and
// materials to the polygon tags. Links to missing items are dropped, parent cycles cut.
// A diffuse colour image map takes its file from the clip it is linked with; the graph
// names of those links are not known, so a link of any graph, either way, counts.
#include "formats/lxo/LxoLoader.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <memory>
#include <utility>

#include "plugin/host/Channel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/SceneNode.h"
#include "plugin/host/XString.h"

namespace {

constexpr uint8_t kFace = 0, kCurve = 1, kSkipped = 2;
constexpr uint32_t kPollEvery = 64; // chunks between two cancel polls
constexpr size_t kMaxCount = 0x7FFFFFFF;

CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

bool IsFaceType(uint32_t t) { return t == lxoid::FACE || t == lxoid::SUBD || t == lxoid::PSUB; }
bool IsCurveType(uint32_t t) {
    return t == lxoid::CURV || t == lxoid::BEZR || t == lxoid::HCRV || t == lxoid::BCRV || t == lxoid::LINE;
}

// Rotation about one axis for row vectors (p' = p * M).
C4x4Matrix AxisRotation(int axis, float angle) {
    C4x4Matrix m;
    const float c = std::cos(angle), s = std::sin(angle);
    const int a = (axis + 1) % 3, b = (axis + 2) % 3;
    m.m[a][a] = c;
    m.m[a][b] = s;
    m.m[b][a] = -s;
    m.m[b][b] = c;
    return m;
}

float Finite(float v, float fallback) { return std::isfinite(v) ? v : fallback; }

constexpr size_t kMaxLinks = 16; // links kept per image map or clip

inline uint16_t Be16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t Be32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return __builtin_bswap32(v);
}
float F32be(const uint8_t* p) { return std::bit_cast<float>(Be32(p)); }

// n big-endian floats into out: one swap loop the compiler vectorises.
void LoadF32be(float* out, const uint8_t* in, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = Be32(in + 4 * i);
        std::memcpy(out + i, &v, 4);
    }
}

// One VX index at p into out, p moved past it; false when the bytes up to end cannot hold it.
inline bool Vx(const uint8_t*& p, const uint8_t* end, uint32_t& out) {
    if (end - p < 2) return false;
    if (p[0] != 0xFF) {
        out = Be16(p);
        p += 2;
        return true;
    }
    if (end - p < 4) return false;
    out = Be32(p) & 0xFFFFFFu;
    p += 4;
    return true;
}

// n VX indices at p into out, p moved past them; false when the bytes up to end cannot
// hold them (p is then left anywhere).
inline bool DecodeVx(const uint8_t*& p, const uint8_t* end, uint32_t* out, uint32_t n) {
    if (size_t(end - p) < size_t(n) * 4) { // some index could run past the end
        for (uint32_t k = 0; k < n; ++k)
            if (!Vx(p, end, out[k])) return false;
        return true;
    }
    for (uint32_t k = 0; k < n; ++k) {
        if (p[0] != 0xFF) {
            out[k] = Be16(p);
            p += 2;
        } else {
            out[k] = Be32(p) & 0xFFFFFFu;
            p += 4;
        }
    }
    return true;
}

} // namespace

LxoLoader::LxoLoader(FILE* stream, CSceneImportOptions& options, std::function<bool()> cancelled, CXStringW folder)
    : LxoReader(stream), m_options(options), m_isCancelled(std::move(cancelled)), m_folder(std::move(folder)) {}

LxoLoader::~LxoLoader() = default;

void LxoLoader::Log(const std::wstring& text) { m_options.AddLogInfo(LOG_INFO, CXStringW(text)); }

LxoLoader::Layer& LxoLoader::CurrentLayer() {
    // Geometry before any LAYR goes to an implicit first layer.
    if (m_layers.empty()) m_layers.emplace_back();
    return m_layers.back();
}

uint32_t LxoLoader::OnChunkHeader(uint32_t id, uint32_t) {
    if (++m_chunks % kPollEvery == 0 && m_isCancelled && m_isCancelled()) {
        m_cancelled = true;
        return LXO_END_OF_DATA;
    }
    if (id == lxoid::POLS) {
        Layer& l = CurrentLayer();
        l.polsBase = static_cast<uint32_t>(l.polyKind.size());
    }
    m_inSetup = false;
    m_actionItem = -1;
    return LXO_OK;
}

uint32_t LxoLoader::OnLayer(const LxoLayerInfo& layer) {
    m_layers.emplace_back();
    m_layers.back().info = layer;
    return LXO_OK;
}

uint32_t LxoLoader::ParseChunk(int context) {
    if (context == 0) {
        switch (ChunkID()) {
        case lxoid::PNTS: return TakePoints();
        case lxoid::POLS: return TakePolygons();
        case lxoid::VMAP: return TakeVertexMap(false);
        case lxoid::VMAD: return TakeVertexMap(true);
        case lxoid::PTAG: return TakePolyTags();
        default: break;
        }
    }
    return LxoReader::ParseChunk(context);
}

// The bulk decoders read the loaded chunk through a plain pointer: every record's size is
// checked against the bytes left before it is read, as the framework's primitives do, and
// the chunk is marked consumed when they are done.

uint32_t LxoLoader::TakePoints() {
    // A chunk cut by the end of the file is refused before anything is read; a tail too
    // short for a point is left over.
    if (ChunkMissing()) return LXO_ERR_READ;
    if (uint32_t r = LoadChunk()) return r;
    const size_t count = static_cast<size_t>(ChunkUnread() / 12);
    const uint8_t* p = PeekLoaded(count * 12);
    Layer& l = CurrentLayer();
    // The host counts points, faces and corners in 32-bit signed integers.
    if ((l.points.size() + count * 3) / 3 >= kMaxCount) return LXO_ERR_OUT_OF_MEMORY;
    const size_t at = l.points.size();
    hostmem::ReserveFilled(l.points, at + count * 3);
    l.points.resize(at + count * 3);
    LoadF32be(l.points.data() + at, p, count * 3);
    SkipRestOfChunk();
    return LXO_OK;
}

uint32_t LxoLoader::TakePolygons() {
    uint32_t type = 0;
    if (uint32_t r = LoadChunk()) return r;
    if (uint32_t r = ReadU4(&type)) return r;
    const size_t left = static_cast<size_t>(ChunkUnread());
    const uint8_t* p = PeekLoaded(left);
    const uint8_t* const end = p + left;
    const bool packed = type == lxoid::CURV || type == lxoid::BEZR;
    const bool flagged = type == lxoid::HCRV || type == lxoid::BCRV;
    const uint8_t kind = IsFaceType(type) ? kFace : IsCurveType(type) ? kCurve : kSkipped;

    // Room for what the chunk can hold (a polygon takes two bytes or more, an index two or
    // more), filled through raw pointers and cut to size at the end.
    Layer& l = CurrentLayer();
    const size_t idx0 = l.polyIndices.size(), poly0 = l.polyKind.size();
    hostmem::ReserveLarge(l.polyIndices, idx0 + left / 2);
    hostmem::ReserveLarge(l.polyOffsets, l.polyOffsets.size() + left / 2);
    hostmem::ReserveLarge(l.polyKind, poly0 + left / 2);
    l.polyIndices.resize(idx0 + left / 2);
    l.polyOffsets.resize(poly0 + 1 + left / 2);
    l.polyKind.resize(poly0 + left / 2);
    uint32_t* idx = l.polyIndices.data() + idx0;
    uint32_t* const idxStart = idx;
    uint32_t* off = l.polyOffsets.data() + poly0 + 1;
    uint8_t* kinds = l.polyKind.data() + poly0;
    uint32_t top = l.maxIndex;
    bool irregular = false;
    uint32_t result = LXO_OK;
    size_t polys = 0;
    while (p != end) {
        if (end - p < 2) {
            result = LXO_ERR_READ;
            break;
        }
        uint32_t count = Be16(p);
        p += 2;
        if (packed) {
            count &= 0x3FF;
        } else if (flagged) {
            if (end - p < 4) {
                result = LXO_ERR_READ;
                break;
            }
            p += 4;
        }
        if (size_t(count) * 2 > size_t(end - p)) {
            result = LXO_ERR_READ;
            break;
        }
        // Skipped kinds are decoded (and checked) in place but keep no corners.
        if (!DecodeVx(p, end, idx, count)) {
            result = LXO_ERR_READ;
            break;
        }
        if (kind != kSkipped)
            for (uint32_t k = 0; k < count; ++k) top = std::max(top, idx[k]);
        if (idx0 + size_t(idx - idxStart) + count >= kMaxCount || poly0 + polys + 1 >= kMaxCount) {
            result = LXO_ERR_OUT_OF_MEMORY;
            break;
        }
        if (kind != kSkipped) idx += count;
        irregular |= count < 3;
        *off++ = static_cast<uint32_t>(idx0 + size_t(idx - idxStart));
        *kinds++ = kind;
        ++polys;
    }
    l.polyIndices.resize(idx0 + size_t(idx - idxStart));
    l.polyOffsets.resize(poly0 + 1 + polys);
    l.polyKind.resize(poly0 + polys);
    l.maxIndex = top;
    l.irregular |= irregular || (polys && kind != kFace);
    SkipRestOfChunk();
    if (result) return result;
    return ChunkMissing() ? LXO_ERR_READ : LXO_OK;
}

uint32_t LxoLoader::TakeVertexMap(bool disc) {
    uint32_t type = 0;
    uint16_t dim = 0;
    std::string name;
    if (uint32_t r = LoadChunk()) return r;
    if (uint32_t r = ReadU4(&type)) return r;
    if (uint32_t r = ReadU2(dim)) return r;
    if (uint32_t r = ReadS0(name)) return r;
    const size_t left = static_cast<size_t>(ChunkUnread());
    const uint8_t* p = PeekLoaded(left);
    const uint8_t* const end = p + left;
    const size_t values = size_t(dim) * 4;
    const size_t smallest = (disc ? 4 : 2) + values; // an entry with short indices

    // One UV map and one colour map per mesh: the first of each named in the layer.
    Layer* l = nullptr;
    bool uv = false, rgb = false;
    if ((type == lxoid::RGB_ || type == lxoid::RGBA) && dim >= 3) {
        l = &CurrentLayer();
        if (l->rgbName.empty() && l->rgb.empty()) l->rgbName = name;
        rgb = l->rgbName == name;
        if (rgb) l->rgb.reserve(l->rgb.size() + left / smallest);
    } else if (type == lxoid::TXUV && dim >= 2) {
        l = &CurrentLayer();
        if (l->uvName.empty() && l->uv.empty()) l->uvName = name;
        uv = l->uvName == name;
        if (uv) l->uv.reserve(l->uv.size() + left / smallest);
    }
    const size_t polygons = l ? l->polyKind.size() : 0;
    // Complete entries are taken; a cut one at the end is a short read.
    while (p != end) {
        const uint8_t* q = p;
        uint32_t vertex = 0, polygon = kNone;
        if (!Vx(q, end, vertex)) break;
        if (disc && !Vx(q, end, polygon)) break;
        if (size_t(end - q) < values) break;
        p = q + values;
        if (!uv && !rgb) continue;
        if (disc) {
            const uint64_t at = uint64_t(l->polsBase) + polygon;
            if (at >= polygons) continue;
            polygon = static_cast<uint32_t>(at);
        }
        if (uv) l->uv.push_back({vertex, polygon, F32be(q), F32be(q + 4)});
        else
            l->rgb.push_back({vertex, polygon, {F32be(q), F32be(q + 4), F32be(q + 8), dim > 3 ? F32be(q + 12) : 1.0f}});
    }
    const bool cut = p != end;
    SkipRestOfChunk();
    return cut || ChunkMissing() ? LXO_ERR_READ : LXO_OK;
}

uint32_t LxoLoader::TakePolyTags() {
    uint32_t type = 0;
    if (uint32_t r = LoadChunk()) return r;
    if (uint32_t r = ReadU4(&type)) return r;
    const size_t left = static_cast<size_t>(ChunkUnread());
    const uint8_t* p = PeekLoaded(left);
    const uint8_t* const end = p + left;
    // Only material tags are kept; the others are still checked.
    Layer* l = type == lxoid::MATR ? &CurrentLayer() : nullptr;
    const size_t polygons = l ? l->polyKind.size() : 0;
    if (l) l->matTag.reserve(l->matTag.size() + left / 4 * 2);
    while (p != end) {
        uint32_t polygon = 0;
        if (!Vx(p, end, polygon) || end - p < 2) {
            SkipRestOfChunk();
            return LXO_ERR_READ;
        }
        const uint16_t tag = Be16(p);
        p += 2;
        if (!l) continue;
        const uint64_t at = uint64_t(l->polsBase) + polygon;
        if (at >= polygons) continue;
        l->matTag.push_back(static_cast<uint32_t>(at));
        l->matTag.push_back(tag);
    }
    SkipRestOfChunk();
    return ChunkMissing() ? LXO_ERR_READ : LXO_OK;
}

// ---------------------------------------------------------------------------
// Items

uint32_t LxoLoader::OnItemBegin(const char* type, const char* name, uint32_t referenceID) {
    Item it;
    m_itemType = type;
    m_itemUnique.clear();
    it.name = name;
    it.id = referenceID;
    const std::string_view t(type);
    if (t == "mesh") it.kind = Kind::Mesh;
    else if (t == "locator" || t == "groupLocator") it.kind = Kind::Locator;
    else if (t == "translation") it.kind = Kind::Translation;
    else if (t == "rotation") it.kind = Kind::Rotation;
    else if (t == "scale") it.kind = Kind::Scale;
    else if (t == "mask") it.kind = Kind::Mask;
    else if (t == "advancedMaterial") it.kind = Kind::Material;
    else if (t == "lightMaterial") it.kind = Kind::LightMaterial;
    else if (t == "imageMap") it.kind = Kind::ImageMap;
    else if (t == "videoStill") it.kind = Kind::Clip;
    else if (t == "camera" && m_options.importCameras) it.kind = Kind::Camera;
    else if (t.size() > 5 && t.substr(t.size() - 5) == "Light" && m_options.importLights) it.kind = Kind::Light;
    if (it.kind == Kind::Camera || it.kind == Kind::Light || it.kind == Kind::LightMaterial) {
        it.shading = static_cast<int32_t>(m_optics.size());
        m_optics.emplace_back();
        // The sun is a distant light, a spot a spot; the other kinds (area, dome, cylinder
        // and the rest) are approximated by a point light.
        m_optics.back().lightKind = t == "sunLight" ? LIGHT_DIRECTIONAL : t == "spotLight" ? LIGHT_SPOT : LIGHT_POINT;
    }
    if (it.kind == Kind::Scale) it.vec[0] = it.vec[1] = it.vec[2] = 1.0f;
    if (HasShading(it.kind)) {
        it.shading = static_cast<int32_t>(m_shading.size());
        m_shading.emplace_back();
    }
    m_items.push_back(std::move(it));
    m_inItem = true;
    return LXO_OK;
}

uint32_t LxoLoader::OnItemEnd() {
    m_inItem = false;
    Item& it = m_items.back();
    // Cameras, lights and the rest of the scene graph are not built; an unknown type that
    // has a layer of its own is kept as a plain node.
    const bool cameraOrLight = m_itemType == "camera" || m_itemType.find("Light") != std::string::npos;
    if (it.kind == Kind::Other && it.hasLayer && !cameraOrLight) it.kind = Kind::Locator;
    if (it.kind == Kind::Other) {
        m_items.pop_back();
        return LXO_OK;
    }
    if (it.name.empty()) it.name = !m_itemUnique.empty() ? m_itemUnique : m_itemType;
    it.name.shrink_to_fit();
    m_itemByID.emplace(it.id, static_cast<uint32_t>(m_items.size() - 1)); // the first of equal IDs wins
    return LXO_OK;
}

uint32_t LxoLoader::OnItemLayer(uint32_t, uint32_t, uint32_t) {
    if (Item* it = Current()) it->hasLayer = true;
    return LXO_OK;
}

uint32_t LxoLoader::OnItemUnique(const char* name) {
    if (Current()) m_itemUnique = name;
    return LXO_OK;
}

uint32_t LxoLoader::OnItemLink(const char* graph, uint32_t referenceID, uint32_t index) {
    Item* it = Current();
    if (!it) return LXO_OK;
    if (std::strcmp(graph, "parent") == 0) {
        if (it->parent == kNone) it->parent = referenceID;
    } else if (std::strcmp(graph, "xfrmCore") == 0) {
        // A second link to no item (0xFFFFFFFF) follows some rotations; only the first counts.
        if (it->xfrmTarget == kNone && referenceID != kNone) {
            it->xfrmTarget = referenceID;
            it->xfrmOrdinal = index;
        }
    } else if ((it->kind == Kind::ImageMap || it->kind == Kind::Clip) && it->links.size() < kMaxLinks) {
        it->links.push_back(referenceID);
    }
    return LXO_OK;
}

uint32_t LxoLoader::ParseItemSubChunk(int context) {
    if (context != 0 || SubChunkID() != lxoid::CHAN) return LxoReader::ParseItemSubChunk(context);
    // CHAN: U2 index into CHNM, U2 type, value.
    uint16_t index = 0, type = 0;
    if (uint32_t r = ReadU2(index)) return r;
    if (uint32_t r = ReadU2(type)) return r;
    if (uint32_t r = ReadChannelValue(type, m_chanValue)) return r;
    // With the envelope bit the value is an envelope index, not the channel's value.
    if ((type & 0x10) && (type & 0xFFDF) != 0x4E56) return LXO_OK;
    const LxoStringList& names = ChannelNames();
    if (index < names.size()) SetChannel(names[index], m_chanValue);
    return LXO_OK;
}

uint32_t LxoLoader::OnChannelVectorBegin(const char* name, uint32_t, uint32_t) {
    m_vectorBase = name;
    return LXO_OK;
}

uint32_t LxoLoader::OnChannelVectorElement(const char* name, const LxoChannelValue& value) {
    std::string full = m_vectorBase;
    full += '.';
    full += name;
    SetChannel(full, value);
    return LXO_OK;
}

uint32_t LxoLoader::OnChannelString(const char* name, const char* value) {
    // Cameras and lights keep their index into m_optics, not m_shading.
    Item* it = Current();
    if (!it || !HasShading(it->kind)) return LXO_OK;
    Shading& s = m_shading[static_cast<size_t>(it->shading)];
    SetText(s, name, value);
    return LXO_OK;
}

bool LxoLoader::HasShading(Kind kind) {
    return kind == Kind::Mask || kind == Kind::Material || kind == Kind::ImageMap || kind == Kind::Clip;
}

void LxoLoader::SetText(Shading& s, const char* name, const char* value) {
    if (std::strcmp(name, "ptag") == 0) s.ptag = value;
    else if (std::strcmp(name, "ptyp") == 0) s.ptyp = value;
    else if (std::strcmp(name, "effect") == 0) s.effect = value;
    else if (std::strcmp(name, "filename") == 0) s.file = value;
}

void LxoLoader::SetChannel(const std::string& name, const LxoChannelValue& value) {
    if (Item* it = Current()) SetChannel(*it, name, value);
}

// The setup action repeats (or overrides) the items' channel values; other actions hold
// animation and edits, which a static import leaves alone.
uint32_t LxoLoader::OnAction(const char* type, const char*, uint32_t) {
    m_inSetup = std::strcmp(type, "setup") == 0;
    m_actionItem = -1;
    return LXO_OK;
}

uint32_t LxoLoader::OnActionItem(uint32_t referenceID) {
    m_actionItem = m_inSetup ? FindItem(referenceID) : -1;
    return LXO_OK;
}

uint32_t LxoLoader::OnActionChannel(uint32_t, const char* name, const LxoChannelValue& value) {
    if (m_actionItem >= 0) SetChannel(m_items[static_cast<size_t>(m_actionItem)], name, value);
    return LXO_OK;
}

void LxoLoader::SetChannel(Item& item, const std::string& name, const LxoChannelValue& value) {
    Item* it = &item;
    const float f = value.kind == 2 ? value.f : value.kind == 1 ? static_cast<float>(value.i) : 0.0f;
    const bool number = value.kind == 1 || value.kind == 2;
    switch (it->kind) {
    case Kind::Translation:
    case Kind::Rotation:
    case Kind::Scale: {
        static const char* const kBase[] = {"pos.", "rot.", "scl."};
        const char* base = kBase[it->kind == Kind::Translation ? 0 : it->kind == Kind::Rotation ? 1 : 2];
        if (number && name.size() == 5 && name.compare(0, 4, base) == 0 && name[4] >= 'X' && name[4] <= 'Z')
            it->vec[name[4] - 'X'] = f;
        else if (it->kind == Kind::Rotation && name == "order" && value.kind == 3)
            if (std::strlen(value.text) == 3) std::memcpy(it->order, value.text, 4);
        return;
    }
    case Kind::Camera:
    case Kind::LightMaterial: {
        Optics& o = m_optics[static_cast<size_t>(it->shading)];
        if (it->kind == Kind::Camera) {
            if (name == "projType" && value.kind == 3) o.ortho = std::strcmp(value.text, "ortho") == 0;
            else if (number && name == "focalLen") o.focalLen = f;
            else if (number && name == "apertureY") o.apertureY = f;
        } else if (number && name.size() == 10 && name.compare(0, 9, "lightCol.") == 0) {
            const char c = name[9];
            const int k = c == 'R' ? 0 : c == 'G' ? 1 : c == 'B' ? 2 : -1;
            if (k >= 0) o.color[k] = f;
        }
        return;
    }
    case Kind::Mask:
    case Kind::Material:
    case Kind::ImageMap:
    case Kind::Clip: {
        Shading& s = m_shading[static_cast<size_t>(it->shading)];
        if (value.kind == 3) {
            SetText(s, name.c_str(), value.text);
            return;
        }
        if (!number) return;
        if (name == "enable") s.enable = static_cast<int>(f);
        else if (name == "diffAmt") s.diffAmt = f;
        else if (name == "specAmt") s.specAmt = f;
        else if (name == "tranAmt") s.tranAmt = f;
        else if (name == "rough") s.rough = f;
        else if (name == "smooth") s.smooth = f;
        else if (name == "smAngle") s.smAngle = f;
        else if (name.size() == 9 && (name.compare(0, 8, "diffCol.") == 0 || name.compare(0, 8, "specCol.") == 0)) {
            const char c = name[8];
            const int k = c == 'R' ? 0 : c == 'G' ? 1 : c == 'B' ? 2 : -1;
            if (k >= 0) (name[0] == 'd' ? s.diffCol : s.specCol)[k] = f;
        }
        return;
    }
    default: return;
    }
}

// ---------------------------------------------------------------------------
// Building

int32_t LxoLoader::FindItem(uint32_t id) const {
    const auto it = m_itemByID.find(id);
    return it == m_itemByID.end() ? -1 : static_cast<int32_t>(it->second);
}

void LxoLoader::Bind() {
    for (uint32_t i = 0; i < m_items.size(); ++i) {
        const Item& it = m_items[i];
        if (it.kind == Kind::Translation || it.kind == Kind::Rotation || it.kind == Kind::Scale) {
            if (it.xfrmTarget != kNone) m_xfrms.push_back({it.xfrmTarget, it.xfrmOrdinal, i});
            continue;
        }
        if (it.kind != Kind::Material) continue;
        const int32_t p = FindItem(it.parent);
        if (p < 0 || m_items[static_cast<size_t>(p)].kind != Kind::Mask) {
            // The base material: an advanced material not inside a mask.
            if (m_baseShading < 0) m_baseShading = it.shading;
            continue;
        }
        // A material inside an enabled mask selecting a material tag; a later sibling sits
        // above an earlier one and wins.
        const Shading& ms = m_shading[static_cast<size_t>(m_items[static_cast<size_t>(p)].shading)];
        if (!ms.enable || !m_shading[static_cast<size_t>(it.shading)].enable) continue;
        if (!(ms.ptyp.empty() || ms.ptyp == "Material")) continue;
        m_shadingByTag[ms.ptag] = it.shading;
    }
    std::stable_sort(m_xfrms.begin(), m_xfrms.end(), [](const Xfrm& a, const Xfrm& b) {
        return a.target != b.target ? a.target < b.target : a.ordinal < b.ordinal;
    });

    // Diffuse colour image maps, with the file of their clip. One inside a mask textures
    // that mask's material; one outside any mask textures the base material and every
    // material whose mask holds none. A later one sits above an earlier one and wins.
    std::unordered_map<uint32_t, uint32_t> clipLinkedTo; // item ID -> the first clip linking to it
    for (uint32_t i = 0; i < m_items.size(); ++i)
        if (m_items[i].kind == Kind::Clip)
            for (uint32_t target : m_items[i].links) clipLinkedTo.emplace(target, i);
    auto clipFile = [&](const Item& map) -> const std::string* {
        for (uint32_t target : map.links) {
            const int32_t c = FindItem(target);
            if (c >= 0 && m_items[static_cast<size_t>(c)].kind == Kind::Clip) {
                const std::string& f = m_shading[static_cast<size_t>(m_items[static_cast<size_t>(c)].shading)].file;
                if (!f.empty()) return &f;
            }
        }
        const auto back = clipLinkedTo.find(map.id);
        if (back == clipLinkedTo.end()) return nullptr;
        const std::string& f = m_shading[static_cast<size_t>(m_items[back->second].shading)].file;
        return f.empty() ? nullptr : &f;
    };
    size_t noClip = 0;
    for (const Item& it : m_items) {
        if (it.kind != Kind::ImageMap) continue;
        const Shading& t = m_shading[static_cast<size_t>(it.shading)];
        if (!t.enable || t.effect != "diffColor") continue;
        const std::string* file = clipFile(it);
        if (!file) {
            ++noClip;
            continue;
        }
        const int32_t p = FindItem(it.parent);
        if (p < 0 || m_items[static_cast<size_t>(p)].kind != Kind::Mask) {
            m_baseTexture = *file;
            continue;
        }
        const Shading& ms = m_shading[static_cast<size_t>(m_items[static_cast<size_t>(p)].shading)];
        if (!ms.enable || !(ms.ptyp.empty() || ms.ptyp == "Material")) continue;
        m_textureByTag[ms.ptag] = *file;
    }
    if (noClip)
        Log(L"Image maps on the diffuse colour without a clip that names a file were left out: " +
            std::to_wstring(noClip));
}

void LxoLoader::AddTexture(C3DMaterial& material, const std::string& file) {
    // Each file is looked for once: as given, beside the scene, then by its bare name
    // beside the scene (paths often come from another machine).
    const auto [at, fresh] = m_resolved.try_emplace(file);
    if (fresh) {
        const CXStringW given = Wide(file);
        CXStringW path = given;
        bool found = false;
        if (!fileIsPathRelative(given)) {
            found = fileExists(given);
        } else if (!m_folder.IsEmpty()) {
            path = fileMakeAbsolutePath(m_folder, given);
            found = fileExists(path);
        }
        if (!found && !m_folder.IsEmpty()) {
            const CXStringW bare = fileMakeAbsolutePath(m_folder, fileStripPath(given));
            if (fileExists(bare)) {
                path = bare;
                found = true;
            }
        }
        if (!found) path = given;
        Log((found ? L"Texture file found: " : L"Texture file not found: ") + path.str());
        at->second = path;
        m_building->AddRequiredFile(path);
    }
    CMaterialMap* map = material.AddMaterialMap(at->second, 0, MAP_DIFFUSE, PROJ_UV);
    map->SetFlag(MAPF_TILE_U);
    map->SetFlag(MAPF_TILE_V);
}

uint32_t LxoLoader::MaterialForTag(C3DScene& scene, uint32_t tag) {
    const LxoStringList& tags = Tags();
    const bool untagged = tag == kNone || tag >= tags.size();
    if (untagged && m_baseMaterial != kNone) return m_baseMaterial;
    if (!untagged) {
        if (m_materialOfTag.size() != tags.size()) m_materialOfTag.assign(tags.size(), kNone);
        if (m_materialOfTag[tag] != kNone) return m_materialOfTag[tag];
    }
    std::string name = untagged ? std::string() : tags[tag];
    if (!untagged) {
        const auto found = m_materialByName.find(name);
        if (found != m_materialByName.end()) return m_materialOfTag[tag] = found->second;
    }
    int32_t shading = -1;
    if (!untagged) {
        const auto found = m_shadingByTag.find(name);
        if (found != m_shadingByTag.end()) shading = found->second;
    }
    if (shading < 0) shading = m_baseShading;

    C3DMaterial* m = scene.CreateNewMaterial(MATERIAL_STANDARD);
    if (untagged) name = "Base Material";
    m->SetName(Wide(name));
    if (shading >= 0) {
        const Shading& s = m_shading[static_cast<size_t>(shading)];
        m->diffuse.SetColor4f(Finite(s.diffCol[0], 0.8f), Finite(s.diffCol[1], 0.8f), Finite(s.diffCol[2], 0.8f));
        m->diffuseFactor = std::clamp(Finite(s.diffAmt, 1.0f), 0.0f, 1.0f);
        m->transparency = std::clamp(Finite(s.tranAmt, 0.0f), 0.0f, 1.0f);
        if (s.smooth > 0 && std::isfinite(s.smAngle)) m->smoothAngle = s.smAngle * 57.29578f;
        if (auto* sm = dynamic_cast<C3DStandardMaterial*>(m)) {
            sm->specular.SetColor4f(Finite(s.specCol[0], 1.0f), Finite(s.specCol[1], 1.0f), Finite(s.specCol[2], 1.0f));
            sm->specularFactor = std::clamp(Finite(s.specAmt, 0.0f), 0.0f, 1.0f);
            sm->shininess = std::clamp(1.0f - Finite(s.rough, 1.0f), 0.0f, 1.0f);
        }
    }
    const std::string* texture = nullptr;
    if (!untagged) {
        const auto found = m_textureByTag.find(name);
        if (found != m_textureByTag.end()) texture = &found->second;
    }
    if (!texture && !m_baseTexture.empty()) texture = &m_baseTexture;
    if (texture) AddTexture(*m, *texture);
    const uint32_t id = m->GetID();
    if (untagged) m_baseMaterial = id;
    else m_materialByName.emplace(name, m_materialOfTag[tag] = id);
    return id;
}

C3DBaseObject* LxoLoader::BuildLayer(Layer& l, std::unique_ptr<C3DCurve>& curves) {
    const size_t np = l.points.size() / 3;
    const size_t npoly = l.polyKind.size();
    auto inRange = [&](size_t p) {
        for (uint32_t k = l.polyOffsets[p]; k < l.polyOffsets[p + 1]; ++k)
            if (l.polyIndices[k] >= np) return false;
        return true;
    };

    // Faces: three corners or more, every index a point of the layer.
    CFaceList::IndexArray offsets, indices, materials;
    CFaceList::FlagArray flags;
    offsets.push_back(0);
    size_t curveCount = 0;
    // The usual layer (faces only, all good) hands its arrays over as they are, and its
    // polygon numbers are its face numbers; otherwise faceOf maps them (-1: no face).
    const bool plain = !l.irregular && (l.polyIndices.empty() || l.maxIndex < np);
    std::vector<int32_t> faceOf;
    auto face = [&](size_t p) { return plain ? static_cast<int32_t>(p) : faceOf[p]; };
    if (plain) {
        offsets = std::move(l.polyOffsets);
        indices = std::move(l.polyIndices);
    } else {
        faceOf.assign(npoly, -1);
    }
    for (size_t p = 0; p < npoly && !plain; ++p) {
        const uint32_t n = l.polyOffsets[p + 1] - l.polyOffsets[p];
        if (l.polyKind[p] == kCurve) {
            if (n >= 2 && inRange(p)) ++curveCount;
            continue;
        }
        if (l.polyKind[p] != kFace) continue;
        if (n < 3 || !inRange(p)) {
            ++m_droppedFaces;
            continue;
        }
        faceOf[p] = static_cast<int32_t>(offsets.size() - 1);
        indices.insert(indices.end(), l.polyIndices.begin() + l.polyOffsets[p],
                       l.polyIndices.begin() + l.polyOffsets[p + 1]);
        offsets.push_back(static_cast<uint32_t>(indices.size()));
    }
    const size_t nf = offsets.size() - 1;

    if (curveCount) {
        // Curves keep their control points as open polylines, in a point list of their own.
        auto pts = std::make_unique<C3DPointList>();
        auto lines = std::make_unique<C3DFaceList>();
        std::vector<int32_t> remap(np, -1);
        for (size_t p = 0; p < npoly; ++p) {
            const uint32_t n = l.polyOffsets[p + 1] - l.polyOffsets[p];
            if (l.polyKind[p] != kCurve || n < 2 || !inRange(p)) continue;
            uint32_t* out = lines->AddFace(static_cast<int>(n));
            for (uint32_t k = 0; k < n; ++k) {
                const uint32_t v = l.polyIndices[l.polyOffsets[p] + k];
                if (remap[v] < 0) {
                    remap[v] = pts->GetSize();
                    pts->Add(l.points[v * 3], l.points[v * 3 + 1], l.points[v * 3 + 2]);
                }
                out[k] = static_cast<uint32_t>(remap[v]);
            }
        }
        curves = std::make_unique<C3DCurve>();
        curves->SetPointList(pts.release(), true);
        curves->SetFaceList(lines.release(), true);
    }
    if (nf == 0) return nullptr;

    // Materials per face: PTAG MATR, the untagged ones the base material.
    // The face's tag + 1 goes in first (0, what the fresh array holds: untagged), then
    // each becomes its material, in face order.
    materials.resize(nf);
    flags.resize(nf);
    for (size_t i = 0; i + 1 < l.matTag.size(); i += 2) {
        const int32_t f = face(l.matTag[i]);
        if (f >= 0) materials[static_cast<size_t>(f)] = l.matTag[i + 1] + 1;
    }
    for (size_t f = 0; f < nf; ++f) materials[f] = MaterialForTag(*m_building, materials[f] - 1);

    auto mesh = std::make_unique<C3DObject>();
    // Vertex maps: the continuous values first (one entry per point), then one entry per
    // discontinuous value, used by that polygon's corner at that point. `setPoint` stores
    // a continuous value, `addEntry` appends a discontinuous one and returns its index;
    // the channel's face list is filled.
    auto buildMap = [&](const auto& values, CFaceList& out, auto&& setPoint, auto&& addEntry) {
        std::unordered_map<uint64_t, uint32_t> disc;
        for (const auto& e : values) {
            if (e.vertex >= np) continue;
            if (e.polygon == kNone) {
                setPoint(e);
                continue;
            }
            if (face(e.polygon) < 0) continue;
            const auto [at, fresh] = disc.emplace(uint64_t(e.polygon) << 32 | e.vertex, 0u);
            if (fresh) at->second = addEntry(e);
        }
        CFaceList::IndexArray coff(offsets), cidx(indices);
        CFaceList::FlagArray cflags(nf);
        if (!disc.empty()) {
            for (size_t p = 0; p < npoly; ++p) {
                if (face(p) < 0) continue;
                const size_t fi = static_cast<size_t>(face(p));
                const uint32_t base = offsets[fi], n = offsets[fi + 1] - offsets[fi];
                for (uint32_t k = 0; k < n; ++k) {
                    const auto f = disc.find(uint64_t(p) << 32 | cidx[base + k]);
                    if (f != disc.end()) cidx[base + k] = f->second;
                }
            }
        }
        out.Adopt(std::move(coff), std::move(cidx), std::move(cflags));
    };
    std::unique_ptr<CUVWChannel> uv;
    if (!l.uv.empty()) {
        uv = std::make_unique<CUVWChannel>();
        CUVWPointList& up = *uv->GetUVWPointList();
        up.SetSize(static_cast<int>(np)); // zeros
        buildMap(
            l.uv, *uv->GetUVWFaceList(),
            [&](const UvValue& e) {
                float* d = up.GetData() + size_t(e.vertex) * 3;
                d[0] = e.u;
                d[1] = e.v;
            },
            [&](const UvValue& e) { return static_cast<uint32_t>(up.Add(e.u, e.v, 0.0f)); });
    }
    // Vertex colours: points the map leaves out are white.
    std::unique_ptr<CVCChannel> vc;
    if (!l.rgb.empty()) {
        vc = std::make_unique<CVCChannel>();
        vc->SetWeight(1.0f);
        CVCPointList& cp = *vc->GetVCPointList();
        cp.SetSize(static_cast<int>(np));
        std::fill(cp.Raw().begin(), cp.Raw().end(), CRGBColor(255, 255, 255));
        auto color = [](const RgbValue& e) {
            CRGBColor c;
            c.SetColor4f(Finite(e.c[0], 1), Finite(e.c[1], 1), Finite(e.c[2], 1), Finite(e.c[3], 1));
            return c;
        };
        buildMap(
            l.rgb, *vc->GetVCFaceList(), [&](const RgbValue& e) { cp[static_cast<int>(e.vertex)] = color(e); },
            [&](const RgbValue& e) { return static_cast<uint32_t>(cp.Add(color(e))); });
    }

    auto pts = std::make_unique<C3DPointList>();
    pts->Raw() = std::move(l.points);
    auto faces = std::make_unique<C3DFaceList>();
    faces->Adopt(std::move(offsets), std::move(indices), std::move(flags), std::move(materials));
    mesh->SetPointList(pts.release(), true);
    mesh->SetFaceList(faces.release(), true);
    if (uv) mesh->SetGlobalUVWChannel(mesh->AddChannel(uv.release(), 0));
    if (vc) mesh->SetGlobalVCChannel(mesh->AddChannel(vc.release(), -1));
    return mesh.release();
}

C4x4Matrix LxoLoader::LocalMatrix(uint32_t itemIndex) const {
    // m_xfrms is sorted by target, then ordinal: lower ordinals apply to the geometry first
    // (scale, rotation, translation as Modo stacks them).
    const uint32_t id = m_items[itemIndex].id;
    auto at = std::lower_bound(m_xfrms.begin(), m_xfrms.end(), Xfrm{id, 0, 0},
                               [](const Xfrm& a, const Xfrm& b) { return a.target < b.target; });
    C4x4Matrix m;
    for (; at != m_xfrms.end() && at->target == id; ++at) {
        const Item& t = m_items[at->item];
        const float v[3] = {t.vec[0], t.vec[1], t.vec[2]};
        if (t.kind == Kind::Translation) {
            m = m * C4x4Matrix::Translation(Finite(v[0], 0), Finite(v[1], 0), Finite(v[2], 0));
        } else if (t.kind == Kind::Scale) {
            m = m * C4x4Matrix::Scaling(Finite(v[0], 1), Finite(v[1], 1), Finite(v[2], 1));
        } else {
            // The order string names the axis applied first.
            for (int k = 0; k < 3; ++k) {
                const char c = t.order[k];
                const int axis = (c | 0x20) - 'x';
                if (axis >= 0 && axis <= 2) m = m * AxisRotation(axis, Finite(v[axis], 0));
            }
        }
    }
    return m;
}

C3DScene* LxoLoader::Load() {
    m_result = Read();
    if (m_cancelled) return nullptr;
    if (m_result != LXO_OK) return nullptr;

    auto scene = std::make_unique<C3DScene>();
    m_building = scene.get();
    Bind();

    // Layers to mesh items: by the layer's item reference, else the n-th unbound mesh item.
    std::vector<std::vector<uint32_t>> layersOf(m_items.size());
    std::vector<uint32_t> unbound;
    std::vector<bool> taken(m_items.size(), false);
    for (uint32_t li = 0; li < m_layers.size(); ++li) {
        const int32_t i = FindItem(m_layers[li].info.referenceID);
        if (i >= 0 && m_items[static_cast<size_t>(i)].kind == Kind::Mesh) {
            layersOf[static_cast<size_t>(i)].push_back(li);
            taken[static_cast<size_t>(i)] = true;
        } else {
            unbound.push_back(li);
        }
    }
    {
        size_t next = 0;
        std::vector<uint32_t> rest;
        for (uint32_t li : unbound) {
            while (next < m_items.size() && (m_items[next].kind != Kind::Mesh || taken[next])) ++next;
            if (next < m_items.size()) {
                layersOf[next].push_back(li);
                taken[next++] = true;
            } else {
                rest.push_back(li);
            }
        }
        unbound.swap(rest);
    }

    // Node items: parents first. Depth by walking parent links, a cycle cut where found.
    const size_t n = m_items.size();
    auto isNode = [&](size_t i) {
        const Kind k = m_items[i].kind;
        return k == Kind::Mesh || k == Kind::Locator || k == Kind::Camera || k == Kind::Light;
    };
    // A light's colour is in the light material under it.
    for (const Item& it : m_items) {
        if (it.kind != Kind::LightMaterial) continue;
        const int32_t p = FindItem(it.parent);
        if (p < 0 || m_items[static_cast<size_t>(p)].kind != Kind::Light) continue;
        Optics& light = m_optics[static_cast<size_t>(m_items[static_cast<size_t>(p)].shading)];
        std::copy(m_optics[static_cast<size_t>(it.shading)].color, m_optics[static_cast<size_t>(it.shading)].color + 3,
                  light.color);
    }
    std::vector<int32_t> parentOf(n, -1);
    for (size_t i = 0; i < n; ++i) {
        if (!isNode(i)) continue;
        const int32_t p = FindItem(m_items[i].parent);
        if (p >= 0 && static_cast<size_t>(p) != i && isNode(static_cast<size_t>(p))) parentOf[i] = p;
    }
    std::vector<int32_t> depth(n, -1); // -2: on the current path
    std::vector<size_t> path;
    for (size_t i = 0; i < n; ++i) {
        if (!isNode(i) || depth[i] >= 0) continue;
        path.clear();
        size_t c = i;
        for (;;) {
            if (depth[c] >= 0) break;
            if (depth[c] == -2) { // a cycle: its first member becomes a root
                parentOf[c] = -1;
                depth[c] = 0;
                break;
            }
            depth[c] = -2;
            path.push_back(c);
            if (parentOf[c] < 0) {
                depth[c] = 0;
                path.pop_back();
                break;
            }
            c = static_cast<size_t>(parentOf[c]);
        }
        for (size_t k = path.size(); k-- > 0;) {
            const size_t q = path[k];
            depth[q] = parentOf[q] < 0 ? 0 : depth[static_cast<size_t>(parentOf[q])] + 1;
        }
    }
    std::vector<size_t> order;
    for (size_t i = 0; i < n; ++i)
        if (isNode(i)) order.push_back(i);
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return depth[a] < depth[b]; });

    std::vector<C3DSceneNode*> nodeOf(n, nullptr);
    auto addGeometry = [&](C3DSceneNode* node, uint32_t li, bool first) {
        std::unique_ptr<C3DCurve> curves;
        std::unique_ptr<C3DBaseObject> obj(BuildLayer(m_layers[li], curves));
        // The layer's buffers are spent: free them before the next layer builds its own.
        Layer& spent = m_layers[li];
        spent.points = hostmem::ZeroedArray<float>();
        spent.polyOffsets = CFaceList::IndexArray();
        spent.polyIndices = CFaceList::IndexArray();
        spent.polyKind = hostmem::ZeroedArray<uint8_t>();
        std::vector<UvValue>().swap(spent.uv);
        std::vector<RgbValue>().swap(spent.rgb);
        std::vector<uint32_t>().swap(spent.matTag);
        C3DSceneNode* target = node;
        if (!first && (obj || curves)) {
            target = scene->AddNode(node, new C3DSceneNode());
            target->SetName(node->GetName());
        }
        if (obj) {
            target->SetObject(obj.release(), true);
            if (curves) {
                C3DSceneNode* c = scene->AddNode(target, new C3DSceneNode(curves.release()));
                c->SetName(target->GetName() + CXStringW(L" curves"));
            }
        } else if (curves) {
            target->SetObject(curves.release(), true);
        }
    };
    for (size_t k = 0; k < order.size(); ++k) {
        if (k % 1024 == 0 && m_isCancelled && m_isCancelled()) {
            m_cancelled = true;
            return nullptr;
        }
        const size_t i = order[k];
        const Item& it = m_items[i];
        C3DSceneNode* parent = parentOf[i] >= 0 ? nodeOf[static_cast<size_t>(parentOf[i])] : nullptr;
        C3DSceneNode* node = scene->AddNode(parent, new C3DSceneNode());
        nodeOf[i] = node;
        node->SetName(Wide(it.name));
        node->SetNodeLocalTM(LocalMatrix(static_cast<uint32_t>(i)));
        if (it.kind == Kind::Camera || it.kind == Kind::Light) {
            // Both look down their local -Z.
            const Optics& o = m_optics[static_cast<size_t>(it.shading)];
            if (it.kind == Kind::Camera) {
                auto* cam = new C3DCamera();
                cam->SetProjection(o.ortho ? PROJECTION_ORTHOGRAPHIC : PROJECTION_PERSPECTIVE);
                const float focal = Finite(o.focalLen, 0.05f), aperture = Finite(o.apertureY, 0.024f);
                if (focal > 0 && aperture > 0) cam->SetVFov(2.0f * std::atan(aperture / (2.0f * focal)));
                node->SetObject(cam, true);
            } else {
                auto* light = new C3DLight(o.lightKind);
                light->color.SetColor4f(Finite(o.color[0], 1), Finite(o.color[1], 1), Finite(o.color[2], 1));
                node->SetObject(light, true);
            }
        }
        bool first = true;
        for (uint32_t li : layersOf[i]) {
            addGeometry(node, li, first);
            first = false;
        }
    }
    // Layers no mesh item claims still hold geometry: they become root nodes.
    for (uint32_t li : unbound) {
        C3DSceneNode* node = scene->AddNode(nullptr, new C3DSceneNode());
        const std::string& ln = m_layers[li].info.name;
        node->SetName(Wide(ln.empty() ? "Layer " + std::to_string(li + 1) : ln));
        addGeometry(node, li, true);
    }
    if (m_droppedFaces)
        Log(L"Polygons with fewer than three corners or with corners past the points were skipped: " +
            std::to_wstring(m_droppedFaces));
    scene->SetUnit(UNIT_METER);
    m_building = nullptr;
    return scene.release();
}
