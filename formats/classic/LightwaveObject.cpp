// Lightwave objects: IFF files (FORM + U4 chunks, U2 sub-chunks, big-endian, padded to even)
// in two generations. LWOB/LWLO keep U2 point indices, surfaces by number and textures as
// projections; LWO2 has layers with pivots and parents, VX indices, tagged surfaces, UV maps
// (VMAP per point, VMAD per corner) and texture blocks. The files are left-handed and list
// polygon corners clockwise: Z is negated and every polygon reversed on the way in.
#include "formats/classic/LightwaveObject.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/ChunkWalker.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Object.h"
#include "plugin/host/ParentLinks.h"

namespace lightwave {

namespace {

constexpr uint32_t ID_FORM = FourCC("FORM");
constexpr uint32_t ID_LWOB = FourCC("LWOB");
constexpr uint32_t ID_LWLO = FourCC("LWLO");
constexpr uint32_t ID_LWO2 = FourCC("LWO2");

// Per layer: more maps than this are dropped (each costs a pass over every corner).
constexpr size_t kMaxUvChannels = 8;
constexpr size_t kMaxColorChannels = 4;
constexpr size_t kMaxMapsPerLayer = 64;
constexpr int kMaxDetailDepth = 8;
constexpr int kMaxLayerDepth = 256;

CXStringW Name(std::string_view s) {
    const std::wstring w = Utf8ToWide(s);
    if (w.find(L'\uFFFD') != std::wstring::npos && s.find("\xEF\xBF\xBD") == std::string_view::npos)
        return CXStringW(WidenBytes(s));
    return CXStringW(w);
}

// S0: NUL-terminated, padded to even. A string running to the end without its NUL (or its
// pad) is taken as it is.
std::string_view ReadS0(CBinaryCursor& c) {
    const size_t n = c.remaining();
    const uint8_t* p = c.current();
    const void* z = n ? std::memchr(p, 0, n) : nullptr;
    if (!z) {
        c.skip(n);
        return {reinterpret_cast<const char*>(p), n};
    }
    const size_t len = static_cast<const uint8_t*>(z) - p;
    size_t used = len + 1;
    if (used & 1) ++used;
    c.skip(std::min(used, n));
    return {reinterpret_cast<const char*>(p), len};
}

uint32_t ReadVX(CBinaryCursor& c) {
    if (c.remaining() >= 1 && *c.current() == 0xFF) return c.u32be() & 0x00FFFFFFu;
    return c.u16be();
}

void ReadVec(CBinaryCursor& c, float v[3]) {
    for (int i = 0; i < 3; ++i) v[i] = c.f32be();
}

// Walks chunks of `layout` in `c`. A length beyond the parent is clamped to what is left and
// ends the walk after that chunk; a stub shorter than a header ends it quietly.
template <typename F> void Walk(CBinaryCursor& c, const ChunkLayout& layout, F&& fn) {
    CChunkWalker w(c, layout);
    Chunk ch;
    for (;;) {
        const ChunkStatus s = w.Next(ch);
        if (s == ChunkStatus::Ok) {
            if (!fn(ch)) return;
            continue;
        }
        if (s == ChunkStatus::BadSize) {
            ch.payloadSize = c.remaining();
            ch.payload = c.sub(c.remaining());
            fn(ch);
        }
        return;
    }
}

bool Finite(float f) { return std::isfinite(f); }

struct Texture {
    bool present = false;
    CXStringW file;     // LWOB: the image itself
    uint32_t clip = 0;  // LWO2: IMAG clip index
    int proj = 5;       // 0 planar, 1 cylindrical, 2 spherical, 3 cubic, 4 front, 5 UV
    std::string uvName; // PROJ 5
    Projection p;
};

struct Surface {
    std::string name;
    float color[3] = {0.78f, 0.78f, 0.78f};
    float diff = 1, lumi = 0, specular = 0, glos = 0.4f, tran = 0;
    float sman = 0; // radians
    bool twoSided = false;
    Texture tex;
    std::string ordinal; // of the chosen colour block
};

struct MapData {
    uint32_t type = 0;
    uint32_t dim = 0;
    std::string name;
    std::vector<uint32_t> pts;       // VMAP entries
    std::vector<float> vals;         // dim (capped at 4) per entry
    std::vector<uint32_t> cornerPts; // VMAD entries
    std::vector<uint32_t> cornerPolys;
    std::vector<float> cornerVals;
};

enum PolyKind : uint8_t { POLY_FACE, POLY_CURVE, POLY_OTHER };

struct Layer {
    uint32_t number = 0;
    uint32_t flags = 0;
    float pivot[3] = {0, 0, 0};
    std::string name;
    int32_t parent = -1;
    std::vector<float> pts;
    std::vector<uint32_t> polyStart{0};
    std::vector<uint32_t> polyIdx;
    std::vector<uint8_t> polyKind;
    std::vector<int32_t> polySurf; // tag index, -1 none
    uint32_t pntsBase = 0, polsBase = 0;
    std::vector<MapData> maps;
    size_t PolyCount() const { return polyKind.size(); }
    size_t PointCount() const { return pts.size() / 3; }
};

class Reader {
public:
    Reader(const CXStringW& folder, CSceneImportOptions& options, const std::function<bool()>& cancelled,
           const IoFile* file)
        : m_folder(folder), m_options(options), m_cancelled(cancelled), m_file(file) {}

    int Run(std::span<const uint8_t> data, std::unique_ptr<C3DScene>& out);

private:
    bool Cancelled() {
        if (m_cancelled && m_cancelled()) m_cancel = true;
        return m_cancel;
    }
    void Log(const std::wstring& text) { m_options.AddLogInfo(LOG_INFO, CXStringW(text)); }
    Layer& CurrentLayer() {
        if (m_layers.empty()) {
            m_layers.emplace_back();
            m_layers.back().number = m_lwob ? 1 : 0;
        }
        return m_layers.back();
    }
    Surface& SurfaceNamed(std::string_view name);
    MapData* Map(Layer& l, uint32_t type, uint32_t dim, std::string_view name);

    // LWO2
    void Lwo2Chunk(Chunk& ch);
    void ReadLayer2(CBinaryCursor& c);
    void ReadPoints(CBinaryCursor& c);
    void ReadVMap(CBinaryCursor& c, bool perCorner);
    void ReadPols2(CBinaryCursor& c);
    void ReadPtag(CBinaryCursor& c);
    void ReadClip(CBinaryCursor& c);
    void ReadSurf2(CBinaryCursor& c);
    void ReadBlock(CBinaryCursor& c, Surface& s);
    // LWOB
    void LwobChunk(Chunk& ch);
    bool ReadPolsB(CBinaryCursor& c, uint8_t kind, int depth);
    void ReadSurfB(CBinaryCursor& c);

    // Building
    void BuildMaterials();
    uint32_t MaterialForTag(int32_t tag);
    void BuildLayer(Layer& l, C3DSceneNode* node);
    void LinkLayers(std::vector<std::unique_ptr<C3DSceneNode>>& nodes);
    CXStringW TextureFile(const Texture& t);

    CXStringW m_folder;
    CSceneImportOptions& m_options;
    const std::function<bool()>& m_cancelled;
    const IoFile* m_file;
    bool m_cancel = false;
    bool m_lwob = false;
    std::vector<Layer> m_layers;
    std::vector<std::string> m_tags;
    std::vector<Surface> m_surfaces;
    std::unordered_map<std::string, size_t> m_surfaceByName;
    std::unordered_map<uint32_t, std::string> m_clips;
    C3DScene* m_scene = nullptr;
    std::vector<uint32_t> m_tagMaterial; // per tag, NO_MATERIAL until made
    std::unordered_map<std::string, uint32_t> m_materialByName;
    std::unordered_map<std::string, int32_t> m_uvChannelIDs;     // TXUV map name -> channel ID
    std::unordered_map<size_t, int32_t> m_projChannelIDs;        // projected surface -> channel ID
    std::unordered_map<int32_t, size_t> m_projSurfaceOfMaterial; // material ID -> projected surface
    int32_t m_nextChannelID = 0;
    std::unordered_map<std::string, bool> m_textureFound;
    uint64_t m_droppedPolys = 0, m_droppedMaps = 0;
};

Surface& Reader::SurfaceNamed(std::string_view name) {
    auto it = m_surfaceByName.find(std::string(name));
    if (it != m_surfaceByName.end()) return m_surfaces[it->second];
    m_surfaceByName.emplace(std::string(name), m_surfaces.size());
    m_surfaces.emplace_back();
    m_surfaces.back().name = name;
    return m_surfaces.back();
}

MapData* Reader::Map(Layer& l, uint32_t type, uint32_t dim, std::string_view name) {
    for (auto& m : l.maps)
        if (m.type == type && m.name == name) return m.dim == dim ? &m : nullptr;
    if (l.maps.size() >= kMaxMapsPerLayer) {
        ++m_droppedMaps;
        return nullptr;
    }
    l.maps.emplace_back();
    l.maps.back().type = type;
    l.maps.back().dim = dim;
    l.maps.back().name = name;
    return &l.maps.back();
}

int Reader::Run(std::span<const uint8_t> data, std::unique_ptr<C3DScene>& out) {
    CBinaryCursor file(data);
    if (file.remaining() < 12 || file.u32be() != ID_FORM) return IO_ERR_FORMAT;
    const uint64_t formSize = file.u32be();
    const uint32_t type = file.u32be();
    if (type != ID_LWOB && type != ID_LWLO && type != ID_LWO2) return IO_ERR_FORMAT;
    m_lwob = type != ID_LWO2;
    // A FORM size beyond the file is clamped: truncated files keep what they have.
    const uint64_t body = formSize >= 4 ? std::min<uint64_t>(formSize - 4, file.remaining()) : 0;
    CBinaryCursor c = file.sub(body);
    // Pages of the mapping behind the chunks read so far go back to the system.
    std::span<const uint8_t> mapped = m_file ? m_file->GetData() : std::span<const uint8_t>();
    const bool ours = !mapped.empty() && data.data() == mapped.data();
    size_t released = 0;
    Walk(c, kChunkIFF, [&](Chunk& ch) {
        if (Cancelled()) return false;
        if (m_lwob) LwobChunk(ch);
        else Lwo2Chunk(ch);
        const size_t end = static_cast<size_t>(ch.payload.data() + ch.payload.size() - data.data());
        if (ours && end >= released + (size_t(1) << 20)) {
            m_file->ReleaseBefore(static_cast<int64_t>(end));
            released = end;
        }
        return true;
    });
    if (m_cancel) return IO_ERR_CANCELLED;

    auto scene = std::make_unique<C3DScene>();
    m_scene = scene.get();
    BuildMaterials();
    std::vector<std::unique_ptr<C3DSceneNode>> nodes;
    nodes.reserve(m_layers.size());
    bool anything = false;
    for (auto& l : m_layers) {
        if (Cancelled()) return IO_ERR_CANCELLED;
        nodes.push_back(std::make_unique<C3DSceneNode>());
        C3DSceneNode* node = nodes.back().get();
        if (l.name.empty()) node->SetName(CXStringW(L"Layer " + std::to_wstring(l.number)));
        else node->SetName(Name(l.name));
        node->SetNodeID(l.number);
        if (!m_lwob && (l.flags & 1)) node->SetFlag(NODE_HIDDEN);
        BuildLayer(l, node);
        if (l.PointCount()) anything = true;
        // The layer's arrays are no longer needed; free them before the next layer is built.
        l.pts = {};
        l.polyIdx = {};
        l.polyStart = {};
        l.polyKind = {};
        l.polySurf = {};
        l.maps = {};
    }
    LinkLayers(nodes);
    if (m_droppedPolys)
        Log(L"Lightwave: " + std::to_wstring(m_droppedPolys) + L" polygons with bad point indices skipped");
    if (m_droppedMaps) Log(L"Lightwave: " + std::to_wstring(m_droppedMaps) + L" vertex maps skipped");
    if (!anything) return IO_ERR_EMPTY;
    scene->SetUnit(UNIT_METER);
    scene->SetScaleFactor(100.0);
    out = std::move(scene);
    return IO_OK;
}

// ---------------------------------------------------------------------------------------
// LWO2 chunks

void Reader::Lwo2Chunk(Chunk& ch) {
    CBinaryCursor& c = ch.payload;
    switch (ch.id) {
    case FourCC("LAYR"): ReadLayer2(c); break;
    case FourCC("PNTS"): ReadPoints(c); break;
    case FourCC("VMAP"): ReadVMap(c, false); break;
    case FourCC("VMAD"): ReadVMap(c, true); break;
    case FourCC("POLS"): ReadPols2(c); break;
    case FourCC("TAGS"):
        while (!c.atEnd()) m_tags.emplace_back(ReadS0(c));
        break;
    case FourCC("PTAG"): ReadPtag(c); break;
    case FourCC("CLIP"): ReadClip(c); break;
    case FourCC("SURF"): ReadSurf2(c); break;
    default: break;
    }
}

void Reader::ReadLayer2(CBinaryCursor& c) {
    m_layers.emplace_back();
    Layer& l = m_layers.back();
    l.number = c.u16be();
    l.flags = c.u16be();
    ReadVec(c, l.pivot);
    for (float& f : l.pivot)
        if (!Finite(f)) f = 0;
    l.name = ReadS0(c);
    if (c.remaining() >= 2) {
        const int16_t p = c.i16be();
        l.parent = p < 0 ? -1 : p;
    }
}

void Reader::ReadPoints(CBinaryCursor& c) {
    Layer& l = CurrentLayer();
    const size_t n = c.remaining() / 12;
    if (l.PointCount() + n > 0xFFFFFFu + 1) {
        ++m_droppedMaps;
        return;
    }
    l.pntsBase = static_cast<uint32_t>(l.PointCount());
    const size_t base = l.pts.size();
    l.pts.resize(base + n * 3);
    float* d = l.pts.data() + base;
    for (size_t i = 0; i < n * 3; ++i) {
        const float f = c.f32be();
        d[i] = Finite(f) ? f : 0.0f;
    }
}

void Reader::ReadVMap(CBinaryCursor& c, bool perCorner) {
    Layer& l = CurrentLayer();
    const uint32_t type = c.u32be();
    const uint32_t dim = c.u16be();
    const std::string_view name = ReadS0(c);
    if (!c.ok()) return;
    uint32_t need = 0;
    if (type == FourCC("TXUV")) need = 2;
    else if (type == FourCC("RGB ")) need = 3;
    else if (type == FourCC("RGBA")) need = 4;
    else return; // weights, morphs and the rest have no place in the host mesh
    if (dim < need) return;
    MapData* m = Map(l, type, need, name);
    if (!m) return;
    const size_t entry = (perCorner ? 4 : 2) + size_t(dim) * 4;
    const size_t maxEntries = c.remaining() / entry + 1;
    if (perCorner) {
        m->cornerPts.reserve(m->cornerPts.size() + maxEntries);
        m->cornerPolys.reserve(m->cornerPolys.size() + maxEntries);
        m->cornerVals.reserve(m->cornerVals.size() + maxEntries * need);
    } else {
        m->pts.reserve(m->pts.size() + maxEntries);
        m->vals.reserve(m->vals.size() + maxEntries * need);
    }
    float v[4];
    while (!c.atEnd()) {
        const uint32_t pt = ReadVX(c) + l.pntsBase;
        const uint32_t poly = perCorner ? ReadVX(c) + l.polsBase : 0;
        for (uint32_t k = 0; k < dim; ++k) {
            const float f = c.f32be();
            if (k < need) v[k] = Finite(f) ? f : 0.0f;
        }
        if (!c.ok()) break;
        if (pt >= l.PointCount()) continue; // dropped: no such point
        if (perCorner) {
            if (poly >= l.PolyCount()) continue;
            m->cornerPts.push_back(pt);
            m->cornerPolys.push_back(poly);
            m->cornerVals.insert(m->cornerVals.end(), v, v + need);
        } else {
            m->pts.push_back(pt);
            m->vals.insert(m->vals.end(), v, v + need);
        }
    }
}

void Reader::ReadPols2(CBinaryCursor& c) {
    Layer& l = CurrentLayer();
    const uint32_t type = c.u32be();
    uint8_t kind = POLY_OTHER;
    if (type == FourCC("FACE") || type == FourCC("PTCH")) kind = POLY_FACE;
    else if (type == FourCC("CURV")) kind = POLY_CURVE;
    l.polsBase = static_cast<uint32_t>(l.PolyCount());
    const size_t npts = l.PointCount();
    while (c.remaining() >= 2) {
        const uint32_t n = c.u16be() & 0x3FFu;
        if (!c.canRead(n, 2)) break;
        const size_t start = l.polyIdx.size();
        bool good = kind != POLY_OTHER && n > 0;
        l.polyIdx.resize(start + n);
        for (uint32_t k = 0; k < n; ++k) {
            const uint32_t i = ReadVX(c) + l.pntsBase;
            l.polyIdx[start + k] = i;
            if (i >= npts) good = false;
        }
        if (!c.ok()) {
            l.polyIdx.resize(start);
            break;
        }
        if (!good) {
            if (kind != POLY_OTHER && n > 0) ++m_droppedPolys;
            l.polyIdx.resize(start); // keeps its number (PTAG and VMAD count it) but no corners
        }
        if (l.polyIdx.size() > 0xFFFFFFFFu || l.PolyCount() >= 0x7FFFFFFFu) break;
        l.polyStart.push_back(static_cast<uint32_t>(l.polyIdx.size()));
        l.polyKind.push_back(good ? kind : uint8_t(POLY_OTHER));
        l.polySurf.push_back(-1);
    }
}

void Reader::ReadPtag(CBinaryCursor& c) {
    if (m_layers.empty()) return;
    Layer& l = m_layers.back();
    if (c.u32be() != FourCC("SURF")) return;
    while (!c.atEnd()) {
        const uint64_t poly = uint64_t(ReadVX(c)) + l.polsBase;
        const uint32_t tag = c.u16be();
        if (!c.ok()) break;
        if (poly < l.PolyCount()) l.polySurf[poly] = static_cast<int32_t>(tag);
    }
}

void Reader::ReadClip(CBinaryCursor& c) {
    const uint32_t index = c.u32be();
    if (!c.ok()) return;
    Walk(c, kSubChunkIFF, [&](Chunk& s) {
        CBinaryCursor& p = s.payload;
        switch (s.id) {
        case FourCC("STIL"):
        case FourCC("ANIM"): m_clips[index] = ReadS0(p); return false;
        case FourCC("ISEQ"): {
            p.skip(10);
            m_clips[index] = ReadS0(p);
            return false;
        }
        case FourCC("STCC"):
            p.skip(4);
            m_clips[index] = ReadS0(p);
            return false;
        default: return true;
        }
    });
}

void Reader::ReadSurf2(CBinaryCursor& c) {
    const std::string_view name = ReadS0(c);
    ReadS0(c); // source surface
    Surface& s = SurfaceNamed(name);
    Walk(c, kSubChunkIFF, [&](Chunk& ch) {
        CBinaryCursor& p = ch.payload;
        auto fp = [&](float& dst) {
            const float f = p.f32be();
            if (p.ok() && Finite(f)) dst = f;
        };
        switch (ch.id) {
        case FourCC("COLR"): {
            float v[3];
            ReadVec(p, v);
            if (p.ok() && Finite(v[0]) && Finite(v[1]) && Finite(v[2])) std::copy(v, v + 3, s.color);
            break;
        }
        case FourCC("DIFF"): fp(s.diff); break;
        case FourCC("LUMI"): fp(s.lumi); break;
        case FourCC('S', 'P', 'E', 'C'): fp(s.specular); break;
        case FourCC("GLOS"): fp(s.glos); break;
        case FourCC("TRAN"): fp(s.tran); break;
        case FourCC("SMAN"): fp(s.sman); break;
        case FourCC("SIDE"): {
            const uint16_t v = p.u16be();
            if (p.ok()) s.twoSided = (v & 3) == 3;
            break;
        }
        case FourCC("BLOK"): ReadBlock(p, s); break;
        default: break;
        }
        return true;
    });
}

// A texture block: the header names its kind and channel; only enabled image maps on the
// colour channel are kept, the lowest ordinal first (later ones are drawn on top of it).
void Reader::ReadBlock(CBinaryCursor& c, Surface& s) {
    Texture t;
    bool image = false, colour = false, enabled = true, first = true;
    std::string ordinal;
    Walk(c, kSubChunkIFF, [&](Chunk& ch) {
        CBinaryCursor& p = ch.payload;
        if (first) {
            first = false;
            image = ch.id == FourCC("IMAP");
            if (!image) return false;
            ordinal = ReadS0(p);
            Walk(p, kSubChunkIFF, [&](Chunk& h) {
                if (h.id == FourCC("CHAN")) colour = h.payload.u32be() == FourCC("COLR");
                else if (h.id == FourCC("ENAB")) enabled = h.payload.u16be() != 0 || !h.payload.ok();
                return true;
            });
            return colour && enabled;
        }
        switch (ch.id) {
        case FourCC("TMAP"):
            Walk(p, kSubChunkIFF, [&](Chunk& m) {
                float v[3];
                if (m.id != FourCC("CNTR") && m.id != FourCC("SIZE") && m.id != FourCC("ROTA")) return true;
                ReadVec(m.payload, v);
                if (!m.payload.ok() || !Finite(v[0]) || !Finite(v[1]) || !Finite(v[2])) return true;
                float* dst = m.id == FourCC("CNTR") ? t.p.center : m.id == FourCC("SIZE") ? t.p.size : t.p.rota;
                std::copy(v, v + 3, dst);
                return true;
            });
            break;
        case FourCC("PROJ"): t.proj = std::min<int>(p.u16be(), 5); break;
        case FourCC("AXIS"): t.p.axis = std::min<int>(p.u16be(), 2); break;
        case FourCC("IMAG"): t.clip = ReadVX(p); break;
        case FourCC("VMAP"): t.uvName = ReadS0(p); break;
        case FourCC("WRPW"): {
            const float f = p.f32be();
            if (p.ok() && Finite(f) && f != 0) t.p.wrapW = f;
            break;
        }
        case FourCC("WRPH"): {
            const float f = p.f32be();
            if (p.ok() && Finite(f) && f != 0) t.p.wrapH = f;
            break;
        }
        default: break;
        }
        return true;
    });
    if (!image || !colour || !enabled) return;
    if (s.tex.present && !(ordinal < s.ordinal)) return;
    t.present = true;
    t.p.proj = t.proj <= 3 ? t.proj : 0;
    s.tex = t;
    s.ordinal = ordinal;
}

// ---------------------------------------------------------------------------------------
// LWOB chunks

void Reader::LwobChunk(Chunk& ch) {
    CBinaryCursor& c = ch.payload;
    switch (ch.id) {
    case FourCC("LAYR"): {
        m_layers.emplace_back();
        Layer& l = m_layers.back();
        l.number = c.u16be();
        l.flags = c.u16be();
        l.name = ReadS0(c);
        break;
    }
    case FourCC("PNTS"): {
        // Point indices are U2: points past 65536 cannot be used.
        Layer& l = CurrentLayer();
        l.pts.clear();
        l.polyStart.assign(1, 0);
        l.polyIdx.clear();
        l.polyKind.clear();
        l.polySurf.clear();
        ReadPoints(c);
        l.pntsBase = 0;
        break;
    }
    case FourCC("SRFS"):
        while (!c.atEnd()) m_tags.emplace_back(ReadS0(c));
        break;
    case FourCC("POLS"):
    case FourCC("PCHS"): ReadPolsB(c, POLY_FACE, 0); break;
    case FourCC("CRVS"): ReadPolsB(c, POLY_CURVE, 0); break;
    case FourCC("SURF"): ReadSurfB(c); break;
    default: break;
    }
}

// Records of U2 count, U2 indices, I2 surface; a negative surface is followed by detail
// polygons of the same shape. `count` limits detail lists (-1: to the chunk end).
bool Reader::ReadPolsB(CBinaryCursor& c, uint8_t kind, int depth) {
    Layer& l = CurrentLayer();
    const size_t npts = l.PointCount();
    auto one = [&]() -> bool {
        const uint32_t n = c.u16be();
        if (!c.ok() || !c.canRead(uint64_t(n) + 1, 2)) return false;
        const size_t start = l.polyIdx.size();
        bool good = n > 0;
        l.polyIdx.resize(start + n);
        for (uint32_t k = 0; k < n; ++k) {
            const uint32_t i = c.u16be();
            l.polyIdx[start + k] = i;
            if (i >= npts) good = false;
        }
        const int16_t surf = c.i16be();
        if (!good) {
            if (n > 0) ++m_droppedPolys;
            l.polyIdx.resize(start);
        }
        if (l.PolyCount() >= 0x7FFFFFFFu) return false;
        l.polyStart.push_back(static_cast<uint32_t>(l.polyIdx.size()));
        l.polyKind.push_back(good ? kind : uint8_t(POLY_OTHER));
        const int s = surf < 0 ? -int(surf) : surf;
        l.polySurf.push_back(s > 0 ? s - 1 : -1);
        if (surf < 0) {
            if (depth >= kMaxDetailDepth) return false;
            const uint32_t details = c.u16be();
            if (!c.ok()) return false;
            for (uint32_t d = 0; d < details; ++d) {
                if (!ReadPolsB(c, kind, depth + 1)) return false;
            }
        }
        return true;
    };
    if (depth > 0) return one();
    while (c.remaining() >= 2)
        if (!one()) break;
    return true;
}

void Reader::ReadSurfB(CBinaryCursor& c) {
    const std::string_view name = ReadS0(c);
    Surface& s = SurfaceNamed(name);
    bool floatDiff = false, floatLumi = false, floatSpec = false, floatTran = false;
    Texture* tex = nullptr; // the colour texture being described
    Texture scratch;        // other textures: read and dropped
    Walk(c, kSubChunkIFF, [&](Chunk& ch) {
        CBinaryCursor& p = ch.payload;
        auto fixed = [&](float& dst, bool isFloat) {
            const uint16_t v = p.u16be();
            if (p.ok() && !isFloat) dst = v / 256.0f;
        };
        auto flt = [&](float& dst, bool& isFloat) {
            const float f = p.f32be();
            if (p.ok() && Finite(f)) {
                dst = f;
                isFloat = true;
            }
        };
        switch (ch.id) {
        case FourCC("COLR"): {
            const uint8_t r = p.u8(), g = p.u8(), b = p.u8();
            if (p.ok()) {
                s.color[0] = r / 255.0f;
                s.color[1] = g / 255.0f;
                s.color[2] = b / 255.0f;
            }
            break;
        }
        case FourCC("FLAG"): {
            const uint16_t f = p.u16be();
            if (p.ok()) {
                s.twoSided = (f & 256) != 0;
                if ((f & 4) && s.sman == 0) s.sman = 1.5625f; // smoothing on, no angle: 89.5 degrees
            }
            break;
        }
        case FourCC("LUMI"): fixed(s.lumi, floatLumi); break;
        case FourCC("DIFF"): fixed(s.diff, floatDiff); break;
        case FourCC('S', 'P', 'E', 'C'): fixed(s.specular, floatSpec); break;
        case FourCC("TRAN"): fixed(s.tran, floatTran); break;
        case FourCC("VLUM"): flt(s.lumi, floatLumi); break;
        case FourCC("VDIF"): flt(s.diff, floatDiff); break;
        case FourCC("VSPC"): flt(s.specular, floatSpec); break;
        case FourCC("VTRN"): flt(s.tran, floatTran); break;
        case FourCC("GLOS"): {
            const uint16_t n = p.u16be();
            // Exponent 16..1024 onto the 0..1 glossiness of the newer files: n = 2^(10g + 2).
            if (p.ok() && n > 0) s.glos = std::clamp((std::log2(float(n)) - 2.0f) / 10.0f, 0.0f, 1.0f);
            break;
        }
        case FourCC("SMAN"): {
            const float f = p.f32be();
            // Old files hold degrees, recent ones radians; no smoothing angle exceeds pi.
            if (p.ok() && Finite(f)) s.sman = f > 3.14159265f ? f * 3.14159265f / 180.0f : f;
            break;
        }
        case FourCC("CTEX"):
        case FourCC("DTEX"):
        case FourCC("STEX"):
        case FourCC("RTEX"):
        case FourCC("TTEX"):
        case FourCC("LTEX"):
        case FourCC("BTEX"): {
            const std::string_view kind = ReadS0(p);
            tex = &scratch;
            scratch = Texture();
            if (ch.id != FourCC("CTEX") || s.tex.present) break;
            int proj = -1;
            if (kind.starts_with("Planar Image")) proj = 0;
            else if (kind.starts_with("Cylindrical Image")) proj = 1;
            else if (kind.starts_with("Spherical Image")) proj = 2;
            else if (kind.starts_with("Cubic Image")) proj = 3;
            if (proj < 0) break;
            tex = &s.tex;
            s.tex = Texture();
            s.tex.proj = proj;
            s.tex.p.proj = proj;
            break;
        }
        case FourCC("TFLG"): {
            const uint16_t f = p.u16be();
            if (tex && p.ok()) tex->p.axis = (f & 1) ? 0 : (f & 2) ? 1 : 2;
            break;
        }
        case FourCC("TSIZ"):
        case FourCC("TCTR"): {
            float v[3];
            ReadVec(p, v);
            if (tex && p.ok() && Finite(v[0]) && Finite(v[1]) && Finite(v[2]))
                std::copy(v, v + 3, ch.id == FourCC("TSIZ") ? tex->p.size : tex->p.center);
            break;
        }
        case FourCC("TWRP"): break;
        case FourCC("TIMG"): {
            const std::string_view file = ReadS0(p);
            if (tex == &s.tex && !file.empty() && file != "(none)") {
                std::string_view f = file;
                if (f.ends_with(" (sequence)")) f.remove_suffix(11);
                s.tex.file = HostPath(f);
                s.tex.present = true;
            }
            break;
        }
        default: break;
        }
        return true;
    });
}

// ---------------------------------------------------------------------------------------
// Scene building

void Reader::BuildMaterials() {
    // Every surface the file describes becomes a material, in file order.
    for (const Surface& s : m_surfaces) {
        auto* m = static_cast<C3DStandardMaterial*>(m_scene->CreateNewMaterial(MATERIAL_STANDARD));
        m->SetName(Name(s.name));
        m->diffuse.SetColor4f(s.color[0], s.color[1], s.color[2]);
        m->diffuseFactor = std::clamp(s.diff, 0.0f, 1.0f);
        m->ambient = m->diffuse;
        m->specular.SetColor(255, 255, 255);
        m->specularFactor = std::clamp(s.specular, 0.0f, 1.0f);
        m->shininess = std::clamp(s.glos, 0.0f, 1.0f);
        m->emissive.SetColor4f(s.color[0] * s.lumi, s.color[1] * s.lumi, s.color[2] * s.lumi);
        m->emissiveFactor = std::clamp(s.lumi, 0.0f, 1.0f);
        m->transparency = std::clamp(s.tran, 0.0f, 1.0f);
        if (s.sman > 0) m->smoothAngle = std::min(s.sman, 3.14159265f) * 180.0f / 3.14159265f;
        if (s.twoSided) m->SetFlag(MATF_TWO_SIDED);
        if (s.tex.present) {
            const CXStringW file = TextureFile(s.tex);
            if (!file.IsEmpty()) {
                int32_t channel;
                uint32_t proj = PROJ_UV;
                if (s.tex.proj == 5 || s.tex.proj == 4) {
                    auto it = m_uvChannelIDs.find(s.tex.uvName);
                    if (it == m_uvChannelIDs.end()) {
                        channel = m_nextChannelID++;
                        m_uvChannelIDs.emplace(s.tex.uvName, channel);
                    } else {
                        channel = it->second;
                    }
                } else {
                    channel = m_nextChannelID++;
                    m_projChannelIDs.emplace(static_cast<size_t>(&s - m_surfaces.data()), channel);
                    static const uint32_t kProj[4] = {PROJ_PLANAR, PROJ_CYLINDRICAL, PROJ_SPHERICAL, PROJ_CUBIC};
                    proj = kProj[s.tex.p.proj];
                }
                CMaterialMap* map = m->AddMaterialMap(file, channel, MAP_DIFFUSE, PROJ_UV);
                map->projection = proj;
                map->axis = s.tex.p.axis;
                map->SetFlag(MAPF_TILE_U);
                map->SetFlag(MAPF_TILE_V);
            }
        }
        m_materialByName.emplace(s.name, m->GetID());
    }
    // Made once for all layers: one table per layer cost layers x surfaces.
    for (auto& [si, id] : m_projChannelIDs) {
        auto it = m_materialByName.find(m_surfaces[si].name);
        if (it != m_materialByName.end()) m_projSurfaceOfMaterial.emplace(static_cast<int32_t>(it->second), si);
    }
}

CXStringW Reader::TextureFile(const Texture& t) {
    CXStringW path = t.file;
    if (path.IsEmpty()) {
        auto it = m_clips.find(t.clip);
        if (it == m_clips.end()) {
            Log(L"Lightwave: texture clip " + std::to_wstring(t.clip) + L" is missing");
            return {};
        }
        path = HostPath(it->second);
    }
    if (path.IsEmpty()) return {};
    bool found = false;
    const CXStringW resolved = m_folder.IsEmpty() ? path : ResolveNear(m_folder, path, found);
    m_scene->AddRequiredFile(resolved);
    if (!found) Log(L"Lightwave: texture file not found: " + path.str());
    return found ? resolved : path;
}

uint32_t Reader::MaterialForTag(int32_t tag) {
    std::string name = "Default";
    if (tag >= 0 && static_cast<size_t>(tag) < m_tags.size()) {
        if (m_tagMaterial.size() < m_tags.size()) m_tagMaterial.resize(m_tags.size(), NO_MATERIAL);
        if (m_tagMaterial[tag] != NO_MATERIAL) return m_tagMaterial[tag];
        name = m_tags[tag];
    }
    uint32_t id;
    auto it = m_materialByName.find(name);
    if (it != m_materialByName.end()) {
        id = it->second;
    } else {
        // Tagged with a surface the file never describes: the format's default look.
        C3DMaterial* m = m_scene->CreateNewMaterial(MATERIAL_STANDARD);
        m->SetName(Name(name));
        m->diffuse.SetColor4f(0.78f, 0.78f, 0.78f);
        id = m->GetID();
        m_materialByName.emplace(name, id);
    }
    if (tag >= 0 && static_cast<size_t>(tag) < m_tags.size()) m_tagMaterial[tag] = id;
    return id;
}

void Reader::BuildLayer(Layer& l, C3DSceneNode* node) {
    const size_t npts = l.PointCount();
    const size_t npolys = l.PolyCount();
    // Faces: 3 corners or more; polygons of one or two corners and curves become poly-lines.
    size_t faces = 0, faceCorners = 0, lines = 0;
    for (size_t f = 0; f < npolys; ++f) {
        const uint32_t n = l.polyStart[f + 1] - l.polyStart[f];
        if (l.polyKind[f] == POLY_FACE && n >= 3) {
            ++faces;
            faceCorners += n;
        } else if (l.polyKind[f] != POLY_OTHER && n >= 1) ++lines;
    }
    if (npts == 0) {
        node->SetObject(new C3DGroup());
        return;
    }
    auto* obj = new C3DObject();
    node->SetObject(obj);
    auto* points = new C3DPointList();
    points->SetSize(static_cast<int>(npts));
    float* pd = points->GetData();
    for (size_t i = 0; i < npts; ++i) {
        pd[i * 3 + 0] = l.pts[i * 3 + 0] - l.pivot[0];
        pd[i * 3 + 1] = l.pts[i * 3 + 1] - l.pivot[1];
        pd[i * 3 + 2] = -(l.pts[i * 3 + 2] - l.pivot[2]);
    }
    obj->SetPointList(points);

    auto* fl = new C3DFaceList();
    CFaceList::IndexArray offsets, indices, materials;
    CFaceList::FlagArray flags;
    offsets.resize(faces + 1);
    indices.resize(faceCorners);
    flags.resize(faces);
    materials.resize(faces);
    std::vector<uint32_t> faceToPoly(faces);
    {
        size_t fi = 0, ci = 0;
        offsets[0] = 0;
        for (size_t f = 0; f < npolys; ++f) {
            const uint32_t s = l.polyStart[f], n = l.polyStart[f + 1] - s;
            if (l.polyKind[f] != POLY_FACE || n < 3) continue;
            // Reversed, keeping the first corner: clockwise in left-handed space is
            // counter-clockwise once Z is mirrored.
            indices[ci] = l.polyIdx[s];
            for (uint32_t k = 1; k < n; ++k) indices[ci + k] = l.polyIdx[s + n - k];
            ci += n;
            flags[fi] = 0;
            materials[fi] = MaterialForTag(l.polySurf[f]);
            faceToPoly[fi] = static_cast<uint32_t>(f);
            offsets[++fi] = static_cast<uint32_t>(ci);
        }
    }
    fl->Adopt(std::move(offsets), std::move(indices), std::move(flags), std::move(materials));
    obj->SetFaceList(fl);
    const C3DFaceList& mf = *obj->GetFaceList();
    const uint32_t* corner = mf.GetIndexes().data();

    // UV maps and vertex colours: one value per point from the VMAP, corners overridden by
    // VMAD entries (point, polygon).
    size_t uvCount = 0, vcCount = 0;
    int32_t firstUV = -1, firstVC = -1;
    for (MapData& m : l.maps) {
        const bool uv = m.type == FourCC("TXUV");
        if (uv ? uvCount >= kMaxUvChannels : vcCount >= kMaxColorChannels) {
            ++m_droppedMaps;
            continue;
        }
        const uint32_t dim = m.dim;
        std::vector<float> vals(npts * dim, uv ? 0.0f : 1.0f);
        for (size_t e = 0; e < m.pts.size(); ++e)
            std::copy(&m.vals[e * dim], &m.vals[e * dim] + dim, &vals[size_t(m.pts[e]) * dim]);
        // Corner overrides sorted by polygon (the last entry for a corner wins); faces come in
        // polygon order, so one pass over both finds them.
        std::vector<uint32_t> order(m.cornerPts.size());
        for (size_t e = 0; e < order.size(); ++e) order[e] = static_cast<uint32_t>(e);
        std::stable_sort(order.begin(), order.end(),
                         [&](uint32_t x, uint32_t y) { return m.cornerPolys[x] < m.cornerPolys[y]; });
        size_t next = 0;
        CFaceList::IndexArray chOffsets, chIdx;
        CFaceList::FlagArray chFlags;
        chOffsets.resize(faces + 1);
        chIdx.resize(faceCorners);
        chFlags.resize(faces);
        std::copy(mf.GetOffsets().begin(), mf.GetOffsets().end(), chOffsets.begin());
        for (size_t fi = 0; fi < faces; ++fi) {
            chFlags[fi] = 0;
            const uint32_t o = mf.GetOffsets()[fi], n = mf.GetOffsets()[fi + 1] - o;
            std::copy(corner + o, corner + o + n, &chIdx[o]);
            const uint32_t poly = faceToPoly[fi];
            while (next < order.size() && m.cornerPolys[order[next]] < poly) ++next;
            for (size_t e = next; e < order.size() && m.cornerPolys[order[e]] == poly; ++e)
                for (uint32_t k = 0; k < n; ++k)
                    if (corner[o + k] == m.cornerPts[order[e]]) chIdx[o + k] = static_cast<uint32_t>(npts + order[e]);
        }
        const size_t total = npts + m.cornerPts.size();
        if (uv) {
            auto ch = std::make_unique<CUVWChannel>();
            ch->SetName(Name(m.name));
            CUVWPointList* up = ch->GetUVWPointList();
            up->SetSize(static_cast<int>(total));
            float* ud = up->GetData();
            for (size_t i = 0; i < total; ++i) {
                const float* v = i < npts ? &vals[i * 2] : &m.cornerVals[(i - npts) * 2];
                ud[i * 3] = v[0];
                ud[i * 3 + 1] = v[1];
                ud[i * 3 + 2] = 0;
            }
            ch->GetUVWFaceList()->Adopt(std::move(chOffsets), std::move(chIdx), std::move(chFlags));
            int32_t id;
            auto it = m_uvChannelIDs.find(m.name);
            if (it == m_uvChannelIDs.end()) {
                id = m_nextChannelID++;
                m_uvChannelIDs.emplace(m.name, id);
            } else {
                id = it->second;
            }
            if (obj->GetChannelByID(id)) id = -1;
            id = obj->AddChannel(std::move(ch), id);
            if (firstUV < 0) firstUV = id;
            ++uvCount;
        } else {
            auto ch = std::make_unique<CVCChannel>();
            ch->SetName(Name(m.name));
            CVCPointList* vp = ch->GetVCPointList();
            vp->SetSize(static_cast<int>(total));
            for (size_t i = 0; i < total; ++i) {
                const float* v = i < npts ? &vals[i * dim] : &m.cornerVals[(i - npts) * dim];
                (*vp)[static_cast<int>(i)].SetColor4f(v[0], v[1], v[2], dim == 4 ? v[3] : 1.0f);
            }
            ch->GetVCFaceList()->Adopt(std::move(chOffsets), std::move(chIdx), std::move(chFlags));
            const int32_t id = obj->AddChannel(std::move(ch));
            if (firstVC < 0) firstVC = id;
            ++vcCount;
        }
    }

    // Projected textures: UVs computed per corner for the faces of that surface; the other
    // faces point at one (0, 0) entry.
    if (!m_projChannelIDs.empty() && faces) {
        const auto& surfaceOfMaterial = m_projSurfaceOfMaterial;
        std::unordered_map<size_t, std::unique_ptr<CUVWChannel>> built;
        for (size_t fi = 0; fi < faces; ++fi) {
            auto it = surfaceOfMaterial.find(static_cast<int32_t>(mf.GetMaterialID(static_cast<int>(fi))));
            if (it == surfaceOfMaterial.end()) continue;
            auto& ch = built[it->second];
            if (!ch) {
                if (built.size() > kMaxUvChannels) {
                    built.erase(it->second);
                    ++m_droppedMaps;
                    continue;
                }
                ch = std::make_unique<CUVWChannel>();
                CFaceList::IndexArray o, x;
                CFaceList::FlagArray fg;
                o.resize(faces + 1);
                x.resize(faceCorners);
                fg.resize(faces);
                std::copy(mf.GetOffsets().begin(), mf.GetOffsets().end(), o.begin());
                std::fill(x.begin(), x.end(), 0u);
                std::fill(fg.begin(), fg.end(), uint8_t(0));
                ch->GetUVWFaceList()->Adopt(std::move(o), std::move(x), std::move(fg));
                ch->GetUVWPointList()->Add(0, 0, 0);
            }
            const Projection& pr = m_surfaces[it->second].tex.p;
            const uint32_t o = mf.GetOffsets()[fi], n = mf.GetOffsets()[fi + 1] - o;
            // Face normal in file space (for cubic mapping).
            float nrm[3] = {0, 0, 0};
            for (uint32_t k = 0; k < n; ++k) {
                const float* a = &l.pts[size_t(corner[o + k]) * 3];
                const float* b = &l.pts[size_t(corner[o + (k + 1) % n]) * 3];
                nrm[0] += (a[1] - b[1]) * (a[2] + b[2]);
                nrm[1] += (a[2] - b[2]) * (a[0] + b[0]);
                nrm[2] += (a[0] - b[0]) * (a[1] + b[1]);
            }
            CUVWPointList* up = ch->GetUVWPointList();
            uint32_t* dst = ch->GetUVWFaceList()->GetIndexes().data() + o;
            for (uint32_t k = 0; k < n; ++k) {
                float u, v;
                ProjectUV(pr, &l.pts[size_t(corner[o + k]) * 3], nrm, u, v);
                dst[k] = static_cast<uint32_t>(up->Add(u, v, 0));
            }
        }
        for (auto& [si, ch] : built) {
            ch->SetName(Name(m_surfaces[si].name));
            int32_t id = m_projChannelIDs[si];
            if (obj->GetChannelByID(id)) id = -1;
            id = obj->AddChannel(std::move(ch), id);
            if (firstUV < 0) firstUV = id;
        }
    }
    if (firstUV >= 0) obj->SetGlobalUVWChannel(firstUV);
    if (firstVC >= 0) obj->SetGlobalVCChannel(firstVC);

    // Curves and one- or two-corner polygons: poly-lines over the points they use.
    if (lines) {
        auto* curve = new C3DCurve();
        auto* cp = new C3DPointList();
        auto* cf = new C3DFaceList();
        std::vector<uint32_t> remap(npts, UINT32_MAX);
        for (size_t f = 0; f < npolys; ++f) {
            const uint32_t s = l.polyStart[f], n = l.polyStart[f + 1] - s;
            if (l.polyKind[f] == POLY_OTHER || n == 0 || (l.polyKind[f] == POLY_FACE && n >= 3)) continue;
            uint32_t* dst = cf->AddFace(static_cast<int>(n));
            for (uint32_t k = 0; k < n; ++k) {
                uint32_t& r = remap[l.polyIdx[s + k]];
                if (r == UINT32_MAX)
                    r = static_cast<uint32_t>(cp->Add(points->GetPoint(static_cast<int>(l.polyIdx[s + k]))));
                dst[k] = r;
            }
            cf->SetMaterialID(cf->GetNumberOfFaces() - 1, MaterialForTag(l.polySurf[f]));
        }
        curve->SetPointList(cp);
        curve->SetFaceList(cf);
        auto* child = new C3DSceneNode(curve);
        child->SetName(node->GetName() + L" curves");
        child->SetNodeID(l.number);
        node->AppendChild(child);
    }

    float smooth = 0;
    for (size_t fi = 0; fi < faces; ++fi) {
        if (const C3DMaterial* m = m_scene->GetMaterialByID(mf.GetMaterialID(static_cast<int>(fi))))
            smooth = std::max(smooth, m->smoothAngle);
        if (fi > 64) break; // a sample is enough for the object-wide angle
    }
    obj->SetSmoothAngle(smooth);
}

// Parents by layer number; unknown numbers, cycles and chains deeper than kMaxLayerDepth
// leave a layer at the root. Linear in the number of layers.
void Reader::LinkLayers(std::vector<std::unique_ptr<C3DSceneNode>>& nodes) {
    const size_t n = m_layers.size();
    std::unordered_map<uint32_t, size_t> byNumber;
    for (size_t i = 0; i < n; ++i) byNumber.emplace(m_layers[i].number, i);
    std::vector<int64_t> parent(n, -1);
    for (size_t i = 0; i < n; ++i) {
        if (m_lwob || m_layers[i].parent < 0) continue;
        auto it = byNumber.find(static_cast<uint32_t>(m_layers[i].parent));
        if (it != byNumber.end() && it->second != i) parent[i] = static_cast<int64_t>(it->second);
    }
    CutParentCycles(parent, kMaxLayerDepth);
    for (size_t i = 0; i < n; ++i) {
        const float* pv = m_layers[i].pivot;
        float t[3] = {pv[0], pv[1], pv[2]};
        if (parent[i] >= 0) {
            const float* pp = m_layers[static_cast<size_t>(parent[i])].pivot;
            for (int k = 0; k < 3; ++k) t[k] -= pp[k];
        }
        C4x4Matrix m;
        m.SetTranslation(t[0], t[1], -t[2]);
        nodes[i]->SetNodeLocalTM(m);
        nodes[i]->SetPivot(C3DPoint(pv[0], pv[1], -pv[2]));
    }
    // Parents before children so that every node hangs in the tree when its children arrive.
    std::vector<C3DSceneNode*> raw(n);
    for (size_t i = 0; i < n; ++i) raw[i] = nodes[i].get();
    for (size_t i = 0; i < n; ++i)
        if (parent[i] < 0) m_scene->AddNode(nullptr, nodes[i].release());
    std::vector<std::vector<size_t>> children(n);
    for (size_t i = 0; i < n; ++i)
        if (parent[i] >= 0) children[static_cast<size_t>(parent[i])].push_back(i);
    std::vector<size_t> stack;
    for (size_t i = 0; i < n; ++i)
        if (parent[i] < 0) stack.push_back(i);
    while (!stack.empty()) {
        const size_t i = stack.back();
        stack.pop_back();
        for (size_t c : children[i]) {
            raw[i]->AppendChild(nodes[c].release());
            stack.push_back(c);
        }
    }
}

} // namespace

CXStringW HostPath(std::string_view stored) {
    std::wstring w = Name(stored).str();
    for (auto& ch : w)
        if (ch == L'\\') ch = L'/';
    // "disk:dir/file": a volume name before the colon (one letter is a Windows drive).
    const size_t colon = w.find(L':');
    if (colon != std::wstring::npos && colon > 1 && w.find(L'/') > colon) {
        w[colon] = L'/';
        w.insert(w.begin(), L'/');
    }
    return CXStringW(w);
}

CXStringW ResolveNear(const CXStringW& folder, const CXStringW& path, bool& found) {
    found = false;
    const bool drive = path.GetLength() >= 2 && path[1] == L':';
    if (!drive && !fileIsPathRelative(path) && fileExists(path)) {
        found = true;
        return path;
    }
    if (!drive && fileIsPathRelative(path)) {
        const CXStringW p = fileMakeAbsolutePath(folder, path);
        if (fileExists(p)) {
            found = true;
            return p;
        }
    }
    const CXStringW bare = fileMakeAbsolutePath(folder, fileStripPath(path));
    if (fileExists(bare)) {
        found = true;
        return bare;
    }
    return drive || !fileIsPathRelative(path) ? path : fileMakeAbsolutePath(folder, path);
}

void ProjectUV(const Projection& p, const float pt[3], const float normal[3], float& u, float& v) {
    constexpr float kPi = 3.14159265358979f;
    float d[3] = {pt[0] - p.center[0], pt[1] - p.center[1], pt[2] - p.center[2]};
    // Undo the texture's rotation: bank about Z, then pitch about X, then heading about Y.
    if (p.rota[0] != 0 || p.rota[1] != 0 || p.rota[2] != 0) {
        const float h = -p.rota[0], pi = -p.rota[1], b = -p.rota[2];
        float x = d[0] * std::cos(h) + d[2] * std::sin(h), z = -d[0] * std::sin(h) + d[2] * std::cos(h);
        d[0] = x;
        d[2] = z;
        float y = d[1] * std::cos(pi) - d[2] * std::sin(pi);
        z = d[1] * std::sin(pi) + d[2] * std::cos(pi);
        d[1] = y;
        d[2] = z;
        x = d[0] * std::cos(b) - d[1] * std::sin(b);
        y = d[0] * std::sin(b) + d[1] * std::cos(b);
        d[0] = x;
        d[1] = y;
    }
    int axis = p.axis;
    int proj = p.proj;
    if (proj == 3) { // cubic: planar along the face normal's largest component
        const float ax = std::fabs(normal[0]), ay = std::fabs(normal[1]), az = std::fabs(normal[2]);
        axis = ax >= ay && ax >= az ? 0 : ay >= az ? 1 : 2;
        proj = 0;
    }
    // Planar: the two components across the axis; cylindrical and spherical: the longitude
    // from the next two components in cyclic order (Y axis: atan2(x, z)), the latitude or
    // height along the axis.
    static const int kU[3] = {2, 0, 0}, kV[3] = {1, 2, 1};
    auto scaled = [&](int i) { return p.size[i] != 0 ? d[i] / p.size[i] : d[i]; };
    if (proj == 0) {
        u = scaled(kU[axis]) + 0.5f;
        v = scaled(kV[axis]) + 0.5f;
    } else {
        const float a = d[(axis + 2) % 3], b = d[(axis + 1) % 3];
        const float lon = (a == 0 && b == 0) ? 0.0f : std::atan2(a, b);
        u = (lon / (2 * kPi) + 0.5f) * p.wrapW;
        if (proj == 1) {
            v = scaled(axis) + 0.5f;
        } else {
            const float lat = std::atan2(d[axis], std::sqrt(a * a + b * b));
            v = (lat / kPi + 0.5f) * p.wrapH;
        }
    }
    if (!std::isfinite(u)) u = 0;
    if (!std::isfinite(v)) v = 0;
}

int ReadObject(std::span<const uint8_t> data, const CXStringW& folder, CSceneImportOptions& options,
               const std::function<bool()>& cancelled, std::unique_ptr<C3DScene>& out, const IoFile* file) {
    try {
        Reader r(folder, options, cancelled, file);
        return r.Run(data, out);
    } catch (const std::bad_alloc&) {
        out.reset();
        return IO_ERR_FORMAT;
    }
}

} // namespace lightwave
