#include "formats/classic/C3DStudioIo.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <new>
#include <string_view>

#include "formats/classic/C3DStudioMaterial.h"
#include "formats/classic/C3DStudioWriter.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Keys.h"
#include "plugin/host/Object.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"

namespace {

constexpr uint32_t kNoNodeID = 0x8300; // no 0xB030 seen in this object node yet

bool ReadName(CBinaryCursor& c, std::string& out) {
    std::string_view s;
    if (!c.cstring(s, k3DSMaxString)) return false;
    out.assign(s);
    return true;
}

CXStringW Wide(const std::string& s) { return CXStringW(WidenBytes(s)); }

// Copies n little-endian floats from the cursor into dst (the caller checked the size).
void CopyFloats(CBinaryCursor& c, float* dst, size_t n) {
    std::span<const uint8_t> b = c.bytes(n * 4);
    if constexpr (std::endian::native == std::endian::little) {
        if (!b.empty()) std::memcpy(dst, b.data(), b.size());
    } else {
        CBinaryCursor r(b);
        for (size_t i = 0; i < n; ++i) dst[i] = r.f32le();
    }
}

void AddKey(C3DSceneNode& node, std::unique_ptr<C3DKey> key) { node.AddKey(std::move(key), CURVE_TCB); }

} // namespace

C3DStudioIo::C3DStudioIo(CFileIo& io) : C3DParser(io) {}
C3DStudioIo::~C3DStudioIo() {}

template <typename F> bool C3DStudioIo::Walk(CBinaryCursor& body, int depth, F&& fn) {
    if (depth > kMaxDepth) return false;
    CChunkWalker walker(body, kChunk3DS);
    Chunk c;
    for (;;) {
        ChunkStatus s = walker.Next(c);
        if (s == ChunkStatus::End) return true;
        if (s != ChunkStatus::Ok || IsCancelled()) return false;
        if (!fn(c)) return false;
    }
}

void C3DStudioIo::ResetReadState() {
    m_nodesByID.RemoveAll();
    m_materialsByName.RemoveAll();
    m_nodesByName.RemoveAll();
    m_nodeRecs.clear();
    m_recIndex.RemoveAll();
    m_parentMap.clear();
    m_objectName.clear();
    m_points.reset();
    m_faces.reset();
    m_uv.reset();
    m_local.SetIdentity();
    m_currentNode = nullptr;
    m_currentNodeID = kNoNodeID;
    // Incremented before each node is handled, so implicit node IDs count from 0.
    m_nodeCounter = 0xFFFFFFFFu;
    m_pivot = C3DPoint();
    m_shapeOffset[0] = m_shapeOffset[1] = 0;
}

C3DScene* C3DStudioIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t>, CReadContext& ctx) {
        return ReadFile(*ctx.File(), ctx.Options());
    });
}

C3DScene* C3DStudioIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t>, CReadContext& ctx) {
        return ReadFile(*ctx.File(), ctx.Options());
    });
}

C3DScene* C3DStudioIo::ReadFile(IoFile& file, CSceneImportOptions& options) {
    SetFile(&file);
    m_options = &options;
    std::span<const uint8_t> data = file.GetData();
    m_fileBase = data.data();
    CBinaryCursor all(data);
    uint16_t first = all.u16le();
    if (!all.ok()) {
        file.CloseFile();
        SetFile(nullptr);
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return nullptr;
    }
    if (first != 0x4D4D && first != 0x3D3D && first != 0xC23D) {
        file.CloseFile();
        SetFile(nullptr);
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    all.seek(0);

    ResetReadState();
    m_copyBudget = m_copyAllowance + 4 * uint64_t(data.size());
    m_copiesCut = false;
    m_building.reset(new (std::nothrow) C3DScene());
    bool ok = m_building != nullptr;
    if (ok) {
        m_scene = m_building.get();
        CChunkWalker walker(all, kChunk3DS);
        Chunk top;
        // Only the first chunk is the file; whatever follows it is ignored.
        ok = walker.Next(top) == ChunkStatus::Ok && !IsCancelled() && ReadTop(top, 0);
    }
    file.ReportProgress(static_cast<int64_t>(data.size()));

    C3DScene* result = nullptr;
    if (ok) {
        PlaceNodes();
        result = m_building.release();
    } else {
        // Unplaced nodes die with their records, the rest with the scene.
        m_nodeRecs.clear();
        m_building.reset();
        if (IsCancelled()) m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        else m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
    }
    m_points.reset();
    m_faces.reset();
    m_uv.reset();
    m_nodeRecs.clear();
    m_recIndex.RemoveAll();
    m_parentMap.clear();
    m_nodesByID.RemoveAll();
    m_nodesByName.RemoveAll();
    m_materialsByName.RemoveAll();
    m_scene = result;
    m_options = nullptr;
    file.CloseFile();
    SetFile(nullptr);
    return result;
}

bool C3DStudioIo::ReadTop(Chunk& c, int depth) {
    switch (c.id) {
    case 0x4D4D:
    case 0x3D3D: return ReadEditor(c.payload, depth + 1);
    case 0xC23D: return ReadProject(c.payload, depth + 1);
    default: return true;
    }
}

// Main (0x4D4D) and editor (0x3D3D) containers share one handler.
bool C3DStudioIo::ReadEditor(CBinaryCursor& body, int depth) {
    return Walk(body, depth, [&](Chunk& c) {
        switch (c.id) {
        case 0x0100: return ReadMasterScale(c.payload);
        case 0x3D3D: return ReadEditor(c.payload, depth + 1);
        case 0x4000: {
            if (!ReadNamedObject(c.payload, depth + 1)) return false;
            // Objects are read once: their file pages can go, and the host sees the progress.
            const int64_t end = (c.payload.data() - m_fileBase) + static_cast<int64_t>(c.payload.size());
            GetFile()->ReportProgress(end);
            GetFile()->ReleaseBefore(end);
            return true;
        }
        case 0xAFFF: {
            C3DSMaterialRecord rec;
            if (!ParseStudioMaterial(c.payload, rec, *this)) return false;
            C3DMaterial* m = BuildStudioMaterial(*m_building, rec, kUVChannelID);
            if (m && !m_materialsByName.Find(m->GetName())) m_materialsByName.SetAt(m->GetName(), m->GetID());
            return true;
        }
        case 0xB000: return ReadKeyframer(c.payload, depth + 1);
        default: return true;
        }
    });
}

bool C3DStudioIo::ReadProject(CBinaryCursor& body, int depth) {
    return Walk(body, depth, [&](Chunk& c) {
        switch (c.id) {
        case 0x2D2D: return ReadShapes(c.payload, depth + 1);
        case 0x3D3D: return ReadEditor(c.payload, depth + 1);
        case 0xB000: return ReadKeyframer(c.payload, depth + 1);
        default: return true;
        }
    });
}

bool C3DStudioIo::ReadShapes(CBinaryCursor& body, int depth) {
    return Walk(body, depth, [&](Chunk& c) {
        switch (c.id) {
        case 0x0100: return ReadMasterScale(c.payload);
        case 0x5020:
            m_shapeOffset[0] = c.payload.f32le();
            m_shapeOffset[1] = c.payload.f32le();
            return c.payload.ok();
        case 0x5000: return m_readShapes ? ReadShape(c.payload) : true;
        default: return true;
        }
    });
}

bool C3DStudioIo::ReadMasterScale(CBinaryCursor& p) {
    float f = p.f32le();
    if (!p.ok()) return false;
    double scale = f;
    if (!std::isfinite(scale) || scale < 1e-6) scale = 1.0;
    if (std::fabs(scale - 39.37) < 0.005) {
        m_building->SetScaleFactor(100.0);
        m_building->SetUnit(UNIT_METER);
    } else if (std::fabs(scale - 0.3937) < 0.005) {
        m_building->SetScaleFactor(1.0);
        m_building->SetUnit(UNIT_CENTIMETER);
    } else {
        m_building->SetScaleFactor(scale * 2.54);
        m_building->SetUnit(UNIT_INCH);
    }
    return true;
}

bool C3DStudioIo::ReadNamedObject(CBinaryCursor& p, int depth) {
    if (!ReadName(p, m_objectName)) return false;
    return Walk(p, depth, [&](Chunk& c) { return c.id == 0x4100 ? ReadTriObject(c.payload, depth + 1) : true; });
}

bool C3DStudioIo::ReadTriObject(CBinaryCursor& p, int depth) {
    m_local.SetIdentity();
    m_points.reset();
    m_faces.reset();
    m_uv.reset();
    bool ok = Walk(p, depth, [&](Chunk& c) {
        CBinaryCursor& d = c.payload;
        switch (c.id) {
        case 0x4110: {
            uint16_t n = d.u16le();
            if (!d.ok() || !d.canRead(n, 12)) return false;
            auto pts = std::make_unique<C3DPointList>();
            pts->SetSize(n);
            CopyFloats(d, pts->GetData(), size_t(n) * 3);
            m_points = std::move(pts);
            return true;
        }
        case 0x4120: return ReadFaces(d, depth + 1);
        case 0x4140: {
            uint16_t n = d.u16le();
            if (!d.ok() || !d.canRead(n, 8)) return false;
            auto uv = std::make_unique<CUVWChannel>();
            CUVWPointList& up = *uv->GetUVWPointList();
            up.SetSize(n);
            float* out = up.GetData();
            for (size_t i = 0; i < n; ++i) {
                float u = d.f32le(), v = d.f32le();
                if (u > 1e10f || u < -1e10f) u = 0;
                if (v > 1e10f || v < -1e10f) v = 0;
                out[i * 3] = u;
                out[i * 3 + 1] = -v; // negated, not mirrored about 1
                out[i * 3 + 2] = 0;
            }
            m_uv = std::move(uv);
            return true;
        }
        case 0x4160: {
            float f[12];
            for (float& x : f) x = d.f32le();
            if (!d.ok()) return false;
            // The file gives the X, Y, Z axes and the origin; our matrices hold them as rows.
            C4x4Matrix m;
            for (int r = 0; r < 4; ++r)
                for (int k = 0; k < 3; ++k) m.m[r][k] = f[r * 3 + k];
            m_local = m;
            return true;
        }
        default: return true;
        }
    });
    if (!ok) return false;
    BuildTriObject();
    return true;
}

bool C3DStudioIo::ReadFaces(CBinaryCursor& p, int depth) {
    uint16_t n = p.u16le();
    if (!p.ok() || !p.canRead(n, 8)) return false;
    auto faces = std::make_unique<C3DFaceList>();
    faces->SetSize(n, 3, SETSIZE_UNIFORM);
    uint32_t* idx = faces->GetIndexes().data();
    std::span<const uint8_t> b = p.bytes(size_t(n) * 8);
    for (size_t f = 0; f < n; ++f) {
        const uint8_t* r = b.data() + f * 8;
        idx[f * 3] = uint32_t(r[0]) | uint32_t(r[1]) << 8;
        idx[f * 3 + 1] = uint32_t(r[2]) | uint32_t(r[3]) << 8;
        idx[f * 3 + 2] = uint32_t(r[4]) | uint32_t(r[5]) << 8;
    }
    m_faces = std::move(faces);
    bool ok = Walk(p, depth, [&](Chunk& c) { return c.id == 0x4130 ? ReadFaceMaterial(c.payload) : true; });
    if (!ok) m_faces.reset();
    return ok;
}

bool C3DStudioIo::ReadFaceMaterial(CBinaryCursor& p) {
    std::string name;
    if (!ReadName(p, name)) return false;
    uint16_t n = p.u16le();
    if (!p.ok() || !p.canRead(n, 2)) return false;
    uint32_t id = 0;
    if (const uint32_t* found = m_materialsByName.Find(Wide(name))) id = *found;
    auto& mats = m_faces->GetMaterialIDs();
    const size_t count = mats.size();
    std::span<const uint8_t> b = p.bytes(size_t(n) * 2);
    for (size_t i = 0; i < n; ++i) {
        size_t f = size_t(b[i * 2]) | size_t(b[i * 2 + 1]) << 8;
        if (f < count) mats[f] = id;
    }
    return true;
}

// Shapes of project files: 38-byte vertex records, x and y at the start and flags at byte 36.
bool C3DStudioIo::ReadShape(CBinaryCursor& p) {
    uint16_t n = p.u16le();
    if (!p.ok() || !p.canRead(n, 38)) return false;
    auto pts = std::make_unique<C3DPointList>();
    pts->Reserve(n);
    for (uint16_t i = 0; i < n; ++i) {
        CBinaryCursor r = p.sub(38);
        float x = r.f32le(), y = r.f32le();
        r.seek(36);
        uint8_t flags = r.u8();
        pts->Add(x - m_shapeOffset[0], y - m_shapeOffset[1], 0.0f);
        if (flags & 1) pts->Add(pts->GetPoint(0));
    }
    auto curve = std::make_unique<C3DCurve>();
    const int count = pts->GetSize();
    curve->SetPointList(pts.release(), true);
    auto line = std::make_unique<C3DFaceList>();
    uint32_t* idx = line->AddFace(count);
    for (int i = 0; i < count; ++i) idx[i] = static_cast<uint32_t>(i);
    curve->SetFaceList(line.release(), true);
    size_t rec = AddNodeRec(std::make_unique<C3DSceneNode>(curve.release()));
    // Shapes go to the root at once; the placement at the end skips them.
    m_building->AddNode(nullptr, m_nodeRecs[rec].owned.release());
    return true;
}

void C3DStudioIo::BuildTriObject() {
    std::unique_ptr<C3DBaseObject> object;
    if (!m_points) {
        object = std::make_unique<C3DGroup>();
        m_faces.reset();
        m_uv.reset();
    } else {
        const int np = m_points->GetSize();
        C4x4Matrix inverse;
        // A singular matrix leaves the points as the file gives them.
        if (m_local.Invert(inverse)) m_points->MatrixTransform(inverse);
        if (m_local.Determinant3() < 0) {
            // Mirrored matrix: x is negated, the winding is deliberately left alone.
            float* d = m_points->GetData();
            for (int i = 0; i < np; ++i) d[i * 3] = -d[i * 3];
        }
        if (m_faces) {
            // Faces pointing past the point list cannot be drawn; they are dropped.
            const auto& idx = m_faces->GetIndexes();
            const uint32_t limit = static_cast<uint32_t>(np);
            if (std::any_of(idx.begin(), idx.end(), [&](uint32_t i) { return i >= limit; })) {
                const int nf = m_faces->GetNumberOfFaces();
                std::vector<bool> keep(static_cast<size_t>(nf));
                for (int f = 0; f < nf; ++f)
                    keep[f] = idx[f * 3] < limit && idx[f * 3 + 1] < limit && idx[f * 3 + 2] < limit;
                m_faces->Compact(keep);
            }
            auto mesh = std::make_unique<C3DObject>();
            if (m_uv && m_uv->GetUVWPointList()->GetSize() != np) {
                CXStringW text = CXStringW(L"The texture coordinates of object \"") + Wide(m_objectName) +
                                 L"\" do not match its points and were ignored.";
                if (m_options) m_options->AddLogInfo(LOG_INFO, text);
                m_uv.reset();
            }
            if (m_uv) {
                *m_uv->GetUVWFaceList() = static_cast<const CFaceList&>(*m_faces);
                int32_t id = mesh->AddChannel(m_uv.release(), kUVChannelID);
                mesh->SetGlobalUVWChannel(id);
            }
            mesh->SetPointList(m_points.release(), true);
            mesh->SetFaceList(m_faces.release(), true);
            object = std::move(mesh);
        } else {
            auto curve = std::make_unique<C3DCurve>();
            auto line = std::make_unique<C3DFaceList>();
            uint32_t* li = line->AddFace(np);
            for (int i = 0; i < np; ++i) li[i] = static_cast<uint32_t>(i);
            curve->SetPointList(m_points.release(), true);
            curve->SetFaceList(line.release(), true);
            object = std::move(curve);
            m_uv.reset();
        }
    }
    auto node = std::make_unique<C3DSceneNode>(object.release());
    node->SetName(Wide(m_objectName));
    auto key = std::make_unique<C3DMatrixKey>(0);
    key->matrix = m_local;
    AddKey(*node, std::move(key));
    C3DSceneNode* raw = node.get();
    AddNodeRec(std::move(node));
    m_nodesByName.SetAt(Wide(m_objectName), raw);
}

size_t C3DStudioIo::AddNodeRec(std::unique_ptr<C3DSceneNode> node) {
    NodeRec rec;
    rec.node = node.get();
    rec.owned = std::move(node);
    m_nodeRecs.push_back(std::move(rec));
    m_recIndex.SetAt(m_nodeRecs.back().node, m_nodeRecs.size() - 1);
    return m_nodeRecs.size() - 1;
}

C3DStudioIo::NodeRec* C3DStudioIo::FindRec(const C3DSceneNode* node) {
    size_t* i = m_recIndex.Find(node);
    return i ? &m_nodeRecs[*i] : nullptr;
}

bool C3DStudioIo::ReadKeyframer(CBinaryCursor& p, int depth) {
    return Walk(p, depth, [&](Chunk& c) {
        if (c.id < 0xB002 || c.id > 0xB007) return true;
        ++m_nodeCounter;
        return c.id == 0xB002 ? ReadObjectNode(c.payload, depth + 1) : true;
    });
}

bool C3DStudioIo::ReadObjectNode(CBinaryCursor& p, int depth) {
    m_pivot = C3DPoint();
    m_currentNode = nullptr;
    m_currentNodeID = kNoNodeID;
    return Walk(p, depth, [&](Chunk& c) {
        CBinaryCursor& d = c.payload;
        switch (c.id) {
        case 0xB030: m_currentNodeID = d.u16le(); return d.ok();
        case 0xB010: return ReadNodeHeader(d);
        case 0xB011: {
            std::string name;
            if (!ReadName(d, name)) return false;
            if (m_currentNode) m_currentNode->SetName(Wide(name));
            return true;
        }
        case 0xB013: {
            float x = d.f32le(), y = d.f32le(), z = d.f32le();
            if (!d.ok()) return false;
            m_pivot = C3DPoint(x, y, z);
            if (!m_currentNode) return true;
            if (std::fabs(x) < 1e-15f && std::fabs(y) < 1e-15f && std::fabs(z) < 1e-15f) return true;
            auto key = std::make_unique<C3DVectorKey>(KEY_PIVOT, 0);
            key->value = C3DVector(-x, -y, -z);
            AddKey(*m_currentNode, std::move(key));
            return true;
        }
        case 0xB020:
        case 0xB021:
        case 0xB022: return ReadTrack(d, c.id);
        default: return true;
        }
    });
}

bool C3DStudioIo::ReadNodeHeader(CBinaryCursor& p) {
    std::string name;
    if (!ReadName(p, name)) return false;
    if (name == "$_$_$_$") {
        m_currentNode = nullptr;
        return true;
    }
    C3DSceneNode* node = nullptr;
    if (name == "DUMMY" || name == "$$$DUMMY") {
        auto n = std::make_unique<C3DSceneNode>(new C3DGroup());
        n->SetName(Wide(name));
        node = n.get();
        AddNodeRec(std::move(n));
    } else {
        C3DSceneNode** found = m_nodesByName.Find(Wide(name));
        if (!found) return false;
        node = *found;
        NodeRec* rec = FindRec(node);
        if (rec && rec->parentEntry >= 0) {
            // The object is used a second time: a key-less copy stands for it, while the
            // copies stay within their budget.
            uint64_t cost = 1;
            if (const C3DGeomObject* g = node->GetGeomObject()) {
                if (g->GetPointList()) cost += static_cast<uint64_t>(g->GetPointList()->GetSize());
                if (g->GetFaceList()) cost += g->GetFaceList()->GetNumberOfIndices();
            }
            if (m_copiesCut || cost > m_copyBudget) {
                if (!m_copiesCut && m_options)
                    m_options->AddLogInfo(
                        LOG_INFO, CXStringW(L"3D Studio: objects used too many times; the later uses were left out."));
                m_copiesCut = true;
                m_currentNode = nullptr;
                m_nodesByID.SetAt(m_currentNodeID == kNoNodeID ? m_nodeCounter : m_currentNodeID, nullptr);
                return true;
            }
            m_copyBudget -= cost;
            std::unique_ptr<C3DSceneNode> copy(node->Clone(false));
            if (!copy) return false;
            copy->DeleteAllKeys();
            node = copy.get();
            AddNodeRec(std::move(copy));
        }
    }
    m_currentNode = node;
    const uint32_t id = m_currentNodeID == kNoNodeID ? m_nodeCounter : m_currentNodeID;
    m_nodesByID.SetAt(id, node);

    p.u16le();
    p.u16le();
    uint16_t parentID = p.u16le();
    if (!p.ok()) return false;
    C3DSceneNode* parent = nullptr;
    if (parentID < 0xFFFF) {
        if (C3DSceneNode** pn = m_nodesByID.Find(parentID)) parent = *pn;
    }
    NodeRec* rec = FindRec(node);
    if (rec) {
        rec->parent = parent;
        rec->parentEntry = static_cast<int>(m_parentMap.size());
        m_parentMap.push_back(static_cast<size_t>(rec - m_nodeRecs.data()));
    }
    return true;
}

bool C3DStudioIo::ReadTrack(CBinaryCursor& p, uint32_t id) {
    p.u16le();
    p.u32le();
    p.u32le();
    int32_t count = p.i32le();
    if (!p.ok()) return false;
    for (int32_t k = 0; k < count; ++k) {
        int32_t frame = p.i32le();
        uint16_t spline = p.u16le();
        float v[5] = {0, 0, 0, 0, 0};
        for (int b = 0; b < 5; ++b)
            if (spline & (1u << b)) v[b] = p.f32le();
        float a = 0, x = 0, y = 0, z = 0;
        if (id == 0xB021) a = p.f32le();
        x = p.f32le();
        y = p.f32le();
        z = p.f32le();
        if (!p.ok()) return false;
        if (!m_currentNode) continue;
        CTCBParams tcb;
        tcb.tension = v[0];
        tcb.continuity = v[1];
        tcb.bias = v[2];
        tcb.easeIn = v[3];
        tcb.easeOut = v[4];
        if (id == 0xB020) {
            auto key = std::make_unique<C3DTranslateKey>(frame);
            key->value = C3DVector(x, y, z);
            key->tcb = tcb;
            AddKey(*m_currentNode, std::move(key));
        } else if (id == 0xB021) {
            if (a == 0.0f) continue; // a zero angle carries no rotation: dropped deliberately
            auto key = std::make_unique<C3DRotateKey>(frame);
            key->SetRotation(a, C3DVector(x, y, z));
            key->tcb = tcb;
            AddKey(*m_currentNode, std::move(key));
        } else {
            auto key = std::make_unique<C3DVectorKey>(KEY_SCALE, frame);
            key->value = C3DVector(x, y, z);
            key->tcb = tcb;
            AddKey(*m_currentNode, std::move(key));
        }
    }
    return true;
}

// Nodes without a keyframer entry go to the root; the others are placed in passes,
// each under its parent once the parent is in the scene. A pass that places
// nothing (self-parents) leaves the remaining nodes at the root.
void C3DStudioIo::PlaceNodes() {
    for (NodeRec& rec : m_nodeRecs) {
        C3DSceneNode* n = rec.node;
        if (n->GetKeyNbr() > 1 && n->GetKeyNbr(KEY_MATRIX) > 0) n->DeleteKey(KEY_MATRIX, 0);
        if (rec.parentEntry < 0 && rec.owned) m_building->AddNode(nullptr, rec.owned.release());
    }
    // Every pass walks the map in order, so an entry lands in the first pass after
    // its parent's (the same pass when the parent comes earlier in the map).
    const size_t n = m_parentMap.size();
    constexpr uint32_t kNever = 0xFFFFFFFFu;
    std::vector<uint32_t> pass(n, 0); // 0: not computed yet
    std::vector<size_t> mark(n, 0);   // walk that last put the entry on its chain
    std::vector<size_t> chain;
    for (size_t e = 0; e < n; ++e) {
        if (pass[e]) continue;
        // Follow parents up to one whose pass is known, then fill the chain back.
        size_t cur = e;
        chain.clear();
        uint32_t found = 0;
        for (;;) {
            if (pass[cur]) {
                found = pass[cur];
                break;
            }
            NodeRec& rec = m_nodeRecs[m_parentMap[cur]];
            const NodeRec* prec = rec.parent ? FindRec(rec.parent) : nullptr;
            if (!rec.parent || !prec || prec->parentEntry < 0) {
                // No parent, or a parent already in the scene: the first pass places it.
                pass[cur] = 1;
                found = 1;
                break;
            }
            if (mark[cur] == e + 1) {
                found = kNever;
                break;
            }
            mark[cur] = e + 1;
            chain.push_back(cur);
            cur = static_cast<size_t>(prec->parentEntry);
        }
        // chain[i]'s parent is chain[i+1] (or `cur`, whose pass is `found`).
        for (size_t i = chain.size(); i-- > 0;) {
            size_t entry = chain[i];
            if (pass[entry]) {
                found = pass[entry];
                continue;
            }
            if (found == kNever) {
                pass[entry] = kNever;
                continue;
            }
            size_t parentEntry = i + 1 < chain.size() ? chain[i + 1] : cur;
            pass[entry] = parentEntry < entry ? found : found + 1;
            found = pass[entry];
        }
    }
    std::vector<size_t> order(n);
    for (size_t i = 0; i < n; ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return pass[a] < pass[b]; });
    for (size_t e : order) {
        NodeRec& rec = m_nodeRecs[m_parentMap[e]];
        if (!rec.owned) continue;
        C3DSceneNode* parent = pass[e] == kNever ? nullptr : rec.parent;
        m_building->AddNode(parent, rec.owned.release());
    }
}

void C3DStudioIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    // Patches as meshes and the material table kept; curves kept as curves so that the writer
    // leaves them out (a dropped curve would come back as an empty dummy node). The writer keeps
    // only the first triangle of a larger face and drops meshes past its 16-bit counts, so it
    // gets triangles only, in meshes cut to fit.
    options.prepFlags = PREP_MESHES | PREP_MATERIALS | PREP_CURVES | PREP_TRIANGULATE | PREP_SPLIT_16BIT;
}

bool C3DStudioIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    if (!scene) {
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    IoFile file(IsSilentMode());
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    SetFile(&file);
    m_scene = scene;
    C3DStudioWriter writer(file, *scene, &options);
    writer.Write();
    file.CloseFile();
    SetFile(nullptr);
    return true;
}
