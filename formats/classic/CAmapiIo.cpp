#include "formats/classic/CAmapiIo.h"

#include <cstring>
#include <new>
#include <string_view>

#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Object.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"

namespace {

constexpr uint32_t kMagic = FourCC("AMAP");
constexpr uint32_t kBlock = FourCC("BLOK");
constexpr uint32_t kShape = FourCC("SHAP");
constexpr uint32_t kSubBlock = FourCC("blok");
constexpr uint32_t kColor = FourCC("colr");
constexpr uint32_t kCtrl = FourCC("ctrl");
constexpr uint32_t kGeom = FourCC("geom");
constexpr uint32_t kGroup = FourCC("grup");
constexpr uint32_t kName = FourCC("name");
constexpr uint8_t kEofMarker[4] = {'e', 'o', 'f', ' '};

constexpr uint8_t kFlagKeepOpen = 0x1;
constexpr uint8_t kFlagHidden = 0x8;

// Geometry of one "geom" sub-block, committed to the shape only when complete.
struct Geometry {
    std::unique_ptr<C3DPointList> points;
    std::unique_ptr<C3DFaceList> faces;
    uint8_t flags = 0, closed = 0, visible = 1;
    uint32_t droppedFaces = 0; // faces naming a point the block does not have
};

bool ReadGeometry(CBinaryCursor& b, Geometry& g) {
    g.flags = b.u8();
    g.closed = b.u8();
    g.visible = b.u8();
    const uint64_t np = b.u32be(), nskip = b.u32be(), nf = b.u32be(), nwords = b.u32be();
    for (int i = 0; i < 5; ++i) b.u32be();
    if (!b.ok()) return false;
    // Every count against the bytes there are, before anything is allocated.
    if (np * 16 + nskip * 8 + nwords * 4 > b.remaining() || nf > nwords || np > 0x3FFFFFFF) return false;

    auto points = std::make_unique<C3DPointList>();
    points->Reserve(np + 1);
    for (uint64_t i = 0; i < np; ++i) {
        float x = b.f32be(), y = b.f32be(), z = b.f32be();
        b.f32be();
        points->Add(x, y, z);
    }
    if (g.closed && !(g.flags & kFlagKeepOpen) && np > 0) points->Add(points->GetPoint(0));
    b.skip(nskip * 8);
    CBinaryCursor words = b.sub(nwords * 4);
    auto faces = std::make_unique<C3DFaceList>();
    faces->Reserve(nf, nwords - nf);
    for (uint64_t f = 0; f < nf; ++f) {
        const uint32_t k = words.u32be();
        if (!words.ok() || !words.canRead(k, 4) || k > 0x3FFFFFFF) return false;
        // A point index past the points costs only its own face: the rest of the shape
        // is sound, and a clamped index would invent an edge the file does not have.
        CBinaryCursor peek = words;
        bool inRange = true;
        for (uint32_t i = 0; i < k && inRange; ++i) inRange = peek.u32be() < np;
        if (!inRange) {
            words.skip(uint64_t(k) * 4);
            ++g.droppedFaces;
            continue;
        }
        uint32_t* idx = faces->AddFace(static_cast<int>(k));
        for (uint32_t i = 0; i < k; ++i) idx[i] = words.u32be();
    }
    if (!b.ok()) return false;
    g.points = std::move(points);
    g.faces = std::move(faces);
    return true;
}

// Moves `cur` to just before the next "eof " marker, or to its end when there is none.
void SkipToEofMarker(CBinaryCursor& cur) {
    const uint8_t* base = cur.data();
    const size_t end = cur.size();
    for (size_t p = cur.pos(); p + 4 <= end; ++p) {
        const void* hit = std::memchr(base + p, 'e', end - p - 3);
        if (!hit) break;
        p = static_cast<size_t>(static_cast<const uint8_t*>(hit) - base);
        if (std::memcmp(base + p, kEofMarker, 4) == 0) {
            cur.seek(p);
            return;
        }
    }
    cur.seek(end);
}

} // namespace

CAmapiIo::CAmapiIo(CFileIo& io) : C3DParser(io) {}
CAmapiIo::~CAmapiIo() {}

C3DScene* CAmapiIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t>, CReadContext& ctx) {
        return ReadFile(*ctx.File(), ctx.Options());
    });
}

C3DScene* CAmapiIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t>, CReadContext& ctx) {
        return ReadFile(*ctx.File(), ctx.Options());
    });
}

C3DScene* CAmapiIo::ReadFile(IoFile& file, CSceneImportOptions& options) {
    CBinaryCursor cur(file.GetData());
    if (cur.u32be() != kMagic || !cur.ok()) {
        // Not ours: no report, deliberately.
        file.CloseFile();
        return nullptr;
    }
    SetFile(&file);
    m_state = cur.u32be();
    std::unique_ptr<C3DScene> scene(new (std::nothrow) C3DScene());
    if (!scene) {
        file.CloseFile();
        SetFile(nullptr);
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    m_building = scene.get();
    m_scene = m_building;
    m_options = &options;
    m_objectCounter = 1;
    while (!IsCancelled()) {
        const uint32_t tag = cur.u32be();
        if (!cur.ok() || tag != kBlock) break;
        const uint32_t type = cur.u32be();
        const uint32_t size = cur.u32be();
        if (!cur.ok()) break;
        const size_t start = cur.pos();
        if (type != kShape) {
            if (uint64_t(start) + size > cur.size()) break;
            cur.seek(start + size);
            continue;
        }
        CBinaryCursor body = cur.sub(size <= cur.remaining() ? size : cur.remaining());
        ShapeEnd end;
        if (auto node = ReadShape(body, nullptr, 0, end)) AddToScene(nullptr, std::move(node));
        if (end.marker) {
            if (uint64_t(start) + size > cur.size()) break;
            cur.seek(start + size);
        } else {
            // Reading goes on where the shape stopped (just past an "eof " marker, say).
            cur.seek(start + body.pos());
        }
        file.ReportProgress(static_cast<int64_t>(cur.pos()));
    }
    file.CloseFile();
    SetFile(nullptr);
    m_building = nullptr;
    m_options = nullptr;
    if (IsCancelled()) {
        m_scene = nullptr;
        m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        return nullptr;
    }
    return scene.release();
}

CXStringW CAmapiIo::DefaultName() const { return CXStringW(L"Object ") + CXStringW(std::to_wstring(m_objectCounter)); }

void CAmapiIo::AddToScene(C3DSceneNode* parent, std::unique_ptr<C3DSceneNode> node) {
    m_building->AddNode(parent, node.release());
    ++m_objectCounter;
}

std::unique_ptr<C3DSceneNode> CAmapiIo::ReadShape(CBinaryCursor& cur, C3DSceneNode* parent, int depth, ShapeEnd& end) {
    CXStringW name;
    bool named = false;
    uint32_t material = NO_MATERIAL;
    Geometry geo;
    C3DSceneNode* group = nullptr;

    while (!IsCancelled()) {
        const uint32_t tag = cur.u32be();
        if (!cur.ok() || tag != kSubBlock) break;
        const uint32_t type = cur.u32be();
        const uint32_t size = cur.u32be();
        if (!cur.ok()) break;
        if (size == 0) {
            end.marker = true;
            break;
        }
        const bool complete = size <= cur.remaining();
        CBinaryCursor body = cur.sub(complete ? size : cur.remaining());
        switch (type) {
        case kColor: {
            uint8_t rgb[3];
            if (!body.read(rgb, 3)) break;
            C3DMaterial* m = m_building->CreateNewMaterial(MATERIAL_STANDARD);
            if (!m) break;
            m->diffuse.SetColor(rgb[0], rgb[1], rgb[2]);
            material = m->GetID();
            break;
        }
        case kCtrl: {
            if (depth + 1 >= kMaxDepth) {
                end.error = true;
                break;
            }
            ShapeEnd inner;
            if (auto node = ReadShape(body, parent, depth + 1, inner)) AddToScene(parent, std::move(node));
            // The marker closes the nested shape; the next tag read (the marker) ends this one.
            if (complete) SkipToEofMarker(cur);
            break;
        }
        case kGeom: {
            Geometry g;
            if (ReadGeometry(body, g)) geo = std::move(g);
            break;
        }
        case kGroup: {
            if (depth + 1 >= kMaxDepth) {
                end.error = true;
                break;
            }
            const uint32_t count = body.u32be();
            if (!body.ok()) break;
            auto gnode = std::make_unique<C3DSceneNode>(new C3DGroup());
            group = gnode.get();
            AddToScene(parent, std::move(gnode));
            for (uint32_t i = 0; i < count && !IsCancelled(); ++i) {
                ShapeEnd child;
                if (auto node = ReadShape(body, group, depth + 1, child)) AddToScene(group, std::move(node));
                if (child.error || child.failed) break;
            }
            break;
        }
        case kName: {
            char raw[20];
            if (!body.read(raw, sizeof raw)) break;
            size_t n = 0;
            while (n < sizeof raw && raw[n]) ++n;
            name = CXStringW(WidenBytes(std::string_view(raw, n)));
            named = true;
            if (name.IsEmpty()) name = DefaultName();
            break;
        }
        default: end.error = true; break;
        }
        if (!complete) break; // the block runs past what there is: nothing follows it
    }
    if (!cur.ok()) end.failed = true;
    if (IsCancelled()) return nullptr;
    if (!named) name = DefaultName();
    if (geo.droppedFaces && m_options)
        m_options->AddLogInfo(LOG_INFO, name + CXStringW(L": " + std::to_wstring(geo.droppedFaces) +
                                                         L" face(s) naming a point the shape does not have, left out"));

    const bool hasPoints = geo.points && !geo.points->IsEmpty();
    const bool hasFaces = geo.faces && geo.faces->GetNumberOfFaces() > 0;
    std::unique_ptr<C3DGeomObject> object;
    if (hasPoints && hasFaces) {
        geo.faces->SetAllMaterialIDs(material);
        object = std::make_unique<C3DObject>();
    } else if (hasPoints) {
        if (!geo.closed) return nullptr;
        // A closed curve: one poly-line through every point.
        geo.faces = std::make_unique<C3DFaceList>();
        const int n = geo.points->GetSize();
        uint32_t* idx = geo.faces->AddFace(n);
        for (int i = 0; i < n; ++i) idx[i] = static_cast<uint32_t>(i);
        geo.faces->SetAllMaterialIDs(material);
        object = std::make_unique<C3DCurve>();
    } else {
        if (group) group->SetName(name);
        return nullptr;
    }
    object->SetPointList(geo.points.release(), true);
    object->SetFaceList(geo.faces.release(), true);
    auto node = std::make_unique<C3DSceneNode>(object.release());
    node->SetName(name);
    node->SetFlag(NODE_HIDDEN, geo.visible == 0);
    if (geo.flags & kFlagHidden) node->SetFlag(NODE_HIDDEN, true);
    return node;
}
