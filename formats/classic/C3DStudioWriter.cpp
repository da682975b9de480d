#include "formats/classic/C3DStudioWriter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Keys.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/TextHelpers.h"

namespace {

constexpr size_t kBufferBytes = 4u << 20;
constexpr uint32_t kMaxCount = 65535;

// 3DS strings are 8-bit: Latin-1, anything beyond becomes '?'.
std::string Narrow(const CXStringW& s) {
    std::string out;
    AppendLatin1(out, s.view().substr(0, s.view().find(L'\0')));
    return out;
}

const C3DKey* FindKeyAt(const C3DKeyframable& k, uint64_t type, int32_t time) {
    const C3DKeyCurve* track = k.GetTrack(type);
    if (!track) return nullptr;
    for (int i = 0; i < track->GetKeyNbr(); ++i)
        if (track->GetKeyByIndex(i)->GetTime() == time) return track->GetKeyByIndex(i);
    return nullptr;
}

// Spline parameters of the key that stands for `time` in a track: the track's own key
// when it has one there, else the first key at that time. Zero unless the curve is TCB.
CTCBParams SplineAt(const C3DKeyframable& k, uint64_t type, int32_t time) {
    const C3DKeyCurve* track = k.GetTrack(type);
    const C3DKey* key = FindKeyAt(k, type, time);
    if (!key) {
        for (int t = 0; t < k.GetTrackCount() && !key; ++t) {
            track = k.GetTrackByIndex(t);
            key = FindKeyAt(k, track->GetType(), time);
        }
    }
    if (!key || !track || track->GetCurveKind() != CURVE_TCB) return {};
    return key->tcb;
}

} // namespace

C3DStudioWriter::C3DStudioWriter(IoFile& file, C3DScene& scene, CIoOptions* log)
    : m_target(file), m_out(m_target, kBufferBytes), m_scene(scene), m_log(log) {}

CXStringW C3DStudioWriter::ObjectName(const C3DSceneNode& node) {
    CXStringW name = GetUniqueName(m_objectNames, m_objectNext, node.GetName(), 10);
    if (m_log && name != node.GetName())
        m_log->AddLogInfo(LOG_INFO, L"3D Studio names have ten characters: \"" + node.GetName() +
                                        L"\" is written as \"" + name + L"\".");
    return name;
}

uint64_t C3DStudioWriter::CountTriangles(const CFaceList& faces) {
    const auto& off = faces.GetOffsets();
    uint64_t n = 0;
    for (size_t f = 0; f + 1 < off.size(); ++f) n += off[f + 1] - off[f] == 4 ? 2 : 1;
    return n;
}

CXStringW C3DStudioWriter::ShortTextureName(const CXStringW& path) {
    CFileNameSpec name(path);
    return name.GetNameWithoutExt().Left(8) + name.GetExtension().Left(4);
}

void C3DStudioWriter::PutString(const CXStringW& s) {
    std::string n = Narrow(s);
    uint8_t* p = m_out.Reserve(n.size() + 1);
    std::memcpy(p, n.data(), n.size());
    p[n.size()] = 0;
}

void C3DStudioWriter::Begin(uint16_t id) { m_open.push_back(m_out.BeginChunk(kChunk3DS, id)); }

void C3DStudioWriter::End() {
    m_out.EndChunk(m_open.back());
    m_open.pop_back();
}

bool C3DStudioWriter::Write() {
    Begin(0x4D4D);
    Begin(0x0002);
    m_out.U32le(3);
    End();

    Begin(0x3D3D);
    Begin(0x3D3E);
    m_out.U32le(3);
    End();
    CMaterialPos mpos;
    for (C3DMaterial* m = m_scene.GetFirstMaterial(mpos); m; m = m_scene.GetNextMaterial(mpos)) WriteMaterial(*m);
    Begin(0x0100);
    m_out.F32le(m_scene.GetUnit() == UNIT_NONE ? 1.0f : static_cast<float>(m_scene.GetScaleFactor() / 2.54));
    End();
    // Transforms at time 0 in tree order (parents first), each from its parent's.
    C3DBaseObject* obj = nullptr;
    C3DNodePos pos = m_scene.GetFirstNode(KINDOF_ALL);
    while (C3DSceneNode* node = m_scene.GetNextNode(obj, pos)) {
        C4x4Matrix tm;
        node->GetNodeLocalTM(0, tm);
        const C3DSceneNode* parent = node->GetParent();
        if (parent && parent->GetParent()) {
            auto it = m_world.find(parent);
            if (it != m_world.end()) {
                tm = tm * it->second;
            } else {
                C4x4Matrix pm;
                parent->GetNodeTM(0, pm);
                tm = tm * pm;
            }
        }
        m_world[node] = tm;
    }
    pos = m_scene.GetFirstNode(KINDOF_EXPORTABLE);
    while (C3DSceneNode* node = m_scene.GetNextNode(obj, pos)) {
        if (IsExported(*node, obj)) WriteObject(*node, *static_cast<const C3DGeomObject*>(obj));
    }
    End();

    m_nodeCounter = 0;
    Begin(0xB000);
    Begin(0xB00A);
    m_out.U16le(5);
    PutString(CXStringW());
    m_out.U32le(100);
    End();
    Begin(0xB008);
    m_out.U32le(0);
    m_out.U32le(100);
    End();
    Begin(0xB009);
    m_out.U32le(0);
    End();
    pos = m_scene.GetFirstNode(KINDOF_ALL);
    while (C3DSceneNode* node = m_scene.GetNextNode(obj, pos)) {
        const uint32_t kind = node->GetKindOf();
        if (kind == KINDOF_MESH || kind == KINDOF_PATCH || kind == KINDOF_GROUP) WriteNode(*node, kind);
    }
    End();
    End();
    return m_out.Flush();
}

void C3DStudioWriter::WriteMaterial(const C3DMaterial& m) {
    static const C3DStandardMaterial kDefaults;
    const auto* sm = dynamic_cast<const C3DStandardMaterial*>(&m);
    if (!sm) sm = &kDefaults;
    CXStringW base = m.GetName().IsEmpty() ? CXStringW(L"Default Material") : m.GetName();
    CXStringW name = GetUniqueName(m_materialNames, m_materialNext, base, 16);
    m_materialWritten.SetAt(m.GetID(), name);

    Begin(0xAFFF);
    Begin(0xA000);
    PutString(name);
    End();
    // Colours go out as stored: no gamma, unlike the reader.
    const CRGBColor* colors[3] = {&sm->ambient, &m.diffuse, &sm->specular};
    for (int i = 0; i < 3; ++i) {
        Begin(static_cast<uint16_t>(0xA010 + 0x10 * i));
        Begin(0x0011);
        uint8_t* p = m_out.Reserve(3);
        p[0] = colors[i]->r;
        p[1] = colors[i]->g;
        p[2] = colors[i]->b;
        End();
        End();
    }
    Begin(0xA050);
    Begin(0x0031);
    m_out.F32le(m.transparency);
    End();
    End();
    if (const CMaterialMap* map = m.GetMaterialMap(MAP_DIFFUSE)) {
        Begin(0xA200);
        Begin(0x0030);
        m_out.U16le(100);
        End();
        Begin(0xA300);
        const CXStringW shortName = ShortTextureName(map->file);
        if (m_log && shortName != fileStripPath(map->file))
            m_log->AddLogInfo(LOG_INFO, L"3D Studio texture names are 8.3: \"" + fileStripPath(map->file) +
                                            L"\" is written as \"" + shortName + L"\".");
        PutString(shortName);
        End();
        End();
    }
    End();
}

bool C3DStudioWriter::IsExported(const C3DSceneNode& node, const C3DBaseObject* obj) const {
    (void)node;
    if (!obj || !obj->IsGeomObject() || obj->IsFlagSet(OBJF_HIDDEN) || obj->GetKindOf() == KINDOF_CURVE) return false;
    const auto* geom = static_cast<const C3DGeomObject*>(obj);
    const C3DPointList* pts = geom->GetPointList();
    const C3DFaceList* faces = geom->GetFaceList();
    if (!pts || !faces) return false;
    return pts->size() <= kMaxCount && CountTriangles(*faces) <= kMaxCount;
}

void C3DStudioWriter::WriteObject(const C3DSceneNode& node, const C3DGeomObject& geom) {
    const C3DPointList& pts = *geom.GetPointList();
    const C3DFaceList& faces = *geom.GetFaceList();
    CXStringW name = ObjectName(node);
    m_nodeWritten.SetAt(&node, name);

    C4x4Matrix tm, objectTM;
    if (auto it = m_world.find(&node); it != m_world.end()) tm = it->second;
    else node.GetNodeTM(0, tm);
    node.GetObjectLocalTM(0, objectTM);
    // The reader negates x after undoing the matrix when it mirrors; do the inverse first.
    const float s = tm.Determinant3() < 0 ? -1.0f : 1.0f;
    const bool hasOffset = !objectTM.IsIdentity();

    Begin(0x4000);
    PutString(name);
    Begin(0x4100);

    const size_t np = pts.size();
    Begin(0x4110);
    m_out.U16le(static_cast<uint16_t>(np));
    {
        uint8_t* out = m_out.Reserve(np * 12);
        const float* in = pts.GetData();
        for (size_t i = 0; i < np; ++i) {
            C3DPoint p(in[i * 3], in[i * 3 + 1], in[i * 3 + 2]);
            if (hasOffset) p = objectTM.TransformPoint(p);
            p.x *= s;
            p = tm.TransformPoint(p);
            PutF32le(out + i * 12, p.x);
            PutF32le(out + i * 12 + 4, p.y);
            PutF32le(out + i * 12 + 8, p.z);
        }
    }
    End();

    if (const CUVWChannel* uv = geom.GetGlobalUVWChannel()) {
        std::vector<int32_t> one = uv->GetOneUVPerVertex(faces, static_cast<int>(np));
        const CUVWPointList& up = *uv->GetUVWPointList();
        const size_t nuv = up.size();
        Begin(0x4140);
        m_out.U16le(static_cast<uint16_t>(np));
        uint8_t* out = m_out.Reserve(np * 8);
        const float* d = up.GetData();
        for (size_t i = 0; i < np; ++i) {
            float u = 0, v = 0;
            if (i < one.size() && one[i] >= 0 && static_cast<size_t>(one[i]) < nuv) {
                u = d[size_t(one[i]) * 3];
                v = -d[size_t(one[i]) * 3 + 1];
            }
            PutF32le(out + i * 8, u);
            PutF32le(out + i * 8 + 4, v);
        }
        End();
    }

    Begin(0x4160);
    for (int r = 0; r < 4; ++r)
        for (int k = 0; k < 3; ++k) m_out.F32le(tm.m[r][k]);
    End();

    // Triangles: quads split in two, larger faces keep their first triangle only.
    const int nf = faces.GetNumberOfFaces();
    const uint64_t ntri = CountTriangles(faces);
    std::vector<uint32_t> triMaterial;
    triMaterial.reserve(ntri);
    Begin(0x4120);
    m_out.U16le(static_cast<uint16_t>(ntri));
    {
        uint8_t* out = m_out.Reserve(ntri * 8);
        auto tri = [&](uint32_t a, uint32_t b, uint32_t c, uint16_t flags, uint32_t mat) {
            PutU16le(out, static_cast<uint16_t>(a));
            PutU16le(out + 2, static_cast<uint16_t>(b));
            PutU16le(out + 4, static_cast<uint16_t>(c));
            PutU16le(out + 6, flags);
            out += 8;
            triMaterial.push_back(mat);
        };
        for (int f = 0; f < nf; ++f) {
            std::span<const uint32_t> ix = faces.Face(f);
            const uint32_t mat = faces.GetMaterialID(f);
            if (ix.size() == 3) {
                tri(ix[0], ix[1], ix[2], 7, mat);
            } else if (ix.size() == 4) {
                tri(ix[0], ix[1], ix[2], 6, mat);
                tri(ix[2], ix[3], ix[0], 6, mat);
            } else if (ix.size() > 4) {
                tri(ix[0], ix[1], ix[2], 6, mat);
            } else {
                // Fewer than three corners: the last one repeats.
                uint32_t a = ix.empty() ? 0 : ix[0];
                uint32_t b = ix.size() > 1 ? ix[1] : a;
                tri(a, b, b, 6, mat);
            }
        }
    }
    // One 0x4130 per material the faces use, in material ID order; triangles are bucketed
    // by material (runs of one material are the common case, so the lookup is cached).
    std::vector<std::pair<uint32_t, uint32_t>> groups; // material, triangle count
    std::unordered_map<uint32_t, uint32_t> groupOf;
    std::vector<uint32_t> triGroup(triMaterial.size());
    uint32_t lastMat = 0, lastGroup = 0;
    bool haveLast = false;
    for (size_t i = 0; i < triMaterial.size(); ++i) {
        const uint32_t mat = triMaterial[i];
        if (!haveLast || mat != lastMat) {
            auto [it, added] = groupOf.try_emplace(mat, static_cast<uint32_t>(groups.size()));
            if (added) groups.emplace_back(mat, 0);
            lastMat = mat;
            lastGroup = it->second;
            haveLast = true;
        }
        triGroup[i] = lastGroup;
        ++groups[lastGroup].second;
    }
    std::vector<uint32_t> byID(groups.size());
    for (size_t g = 0; g < groups.size(); ++g) byID[g] = static_cast<uint32_t>(g);
    std::sort(byID.begin(), byID.end(), [&](uint32_t a, uint32_t b) { return groups[a].first < groups[b].first; });
    std::vector<uint32_t> start(groups.size() + 1, 0);
    for (size_t g = 0; g < groups.size(); ++g) start[g + 1] = start[g] + groups[g].second;
    std::vector<uint16_t> numbers(triMaterial.size());
    {
        std::vector<uint32_t> fill(start.begin(), start.end() - 1);
        for (size_t i = 0; i < triGroup.size(); ++i) numbers[fill[triGroup[i]]++] = static_cast<uint16_t>(i);
    }
    for (uint32_t g : byID) {
        const uint32_t mat = groups[g].first;
        if (m_scene.GetMaterialByID(mat) == nullptr) continue;
        Begin(0x4130);
        const CXStringW* written = m_materialWritten.Find(mat);
        PutString(written ? *written : CXStringW());
        const uint32_t n = groups[g].second;
        m_out.U16le(static_cast<uint16_t>(n));
        uint8_t* out = m_out.Reserve(size_t(n) * 2);
        for (uint32_t k = 0; k < n; ++k) PutU16le(out + k * 2, numbers[start[g] + k]);
        End();
    }
    End(); // 0x4120
    End(); // 0x4100
    End(); // 0x4000
}

const CXStringW& C3DStudioWriter::NodeName(const C3DSceneNode& node) {
    if (const CXStringW* n = m_nodeWritten.Find(&node)) return *n;
    m_nodeWritten.SetAt(&node, ObjectName(node));
    return *m_nodeWritten.Find(&node);
}

void C3DStudioWriter::WriteNode(C3DSceneNode& node, uint32_t kind) {
    const uint32_t id = m_nodeCounter;
    m_nodeIDs.SetAt(&node, id);
    Begin(0xB002);
    Begin(0xB030);
    m_out.U16le(static_cast<uint16_t>(id));
    End();

    Begin(0xB010);
    PutString(kind == KINDOF_GROUP ? CXStringW(L"$$$DUMMY") : NodeName(node));
    m_out.U16le(0x4000);
    m_out.U16le(0);
    uint16_t parentID = 0xFFFF;
    const C3DSceneNode* parent = node.GetParent();
    if (parent && parent != m_scene.GetRoot()) {
        if (const uint32_t* pid = m_nodeIDs.Find(parent)) parentID = static_cast<uint16_t>(*pid);
    }
    m_out.U16le(parentID);
    End();

    Begin(0xB013);
    C3DVector pivot;
    if (node.GetKeyNbr(KEY_PIVOT) > 0) {
        if (const auto* k = dynamic_cast<const C3DVectorKey*>(node.GetKeyByIndex(KEY_PIVOT, 0))) pivot = -k->value;
    }
    m_out.F32le(pivot.x);
    m_out.F32le(pivot.y);
    m_out.F32le(pivot.z);
    End();

    if (kind == KINDOF_GROUP) {
        Begin(0xB011);
        PutString(NodeName(node));
        End();
        WriteTracks(node);
        Begin(0xB014);
        C3DBox box;
        if (!node.GetBoundingBox(0, box, false) || !box.IsValid()) box.min = box.max = C3DPoint();
        m_out.F32le(box.min.x);
        m_out.F32le(box.min.y);
        m_out.F32le(box.min.z);
        m_out.F32le(box.max.x);
        m_out.F32le(box.max.y);
        m_out.F32le(box.max.z);
        End();
    } else {
        WriteTracks(node);
    }
    End();
    ++m_nodeCounter;
}

void C3DStudioWriter::WriteTracks(C3DSceneNode& node) {
    struct Sample {
        int32_t time;
        C3DPoint t, s;
        C3DVector axis;
        float angle;
    };
    std::vector<Sample> samples;
    if (node.GetKeyNbr() == 0) {
        // A key-less node gets a translation key at 0, deliberately changing the scene.
        C4x4Matrix local;
        node.GetNodeLocalTM(0, local);
        auto key = std::make_unique<C3DTranslateKey>(0);
        key->value = local.GetTranslation();
        node.AddKey(std::move(key), CURVE_TCB);
    }
    std::vector<int32_t> times;
    for (int t = 0; t < node.GetTrackCount(); ++t) {
        const C3DKeyCurve* track = node.GetTrackByIndex(t);
        for (int k = 0; k < track->GetKeyNbr(); ++k) times.push_back(track->GetKeyByIndex(k)->GetTime());
    }
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());
    samples.reserve(times.size());
    uint32_t counts[3] = {0, 0, 0};
    for (size_t i = 0; i < times.size(); ++i) {
        C4x4Matrix local;
        node.GetNodeLocalTM(times[i], local);
        Sample sm;
        sm.time = times[i];
        CQuaternion q;
        local.Decompose(sm.t, q, sm.s);
        C3DRotateKey::AngleAxisOf(q, sm.angle, sm.axis);
        samples.push_back(sm);
    }
    auto usesPos = [](const Sample& sm, size_t i) {
        return i == 0 || std::fabs(sm.t.x) >= 1e-15f || std::fabs(sm.t.y) >= 1e-15f || std::fabs(sm.t.z) >= 1e-15f;
    };
    auto usesRot = [](const Sample& sm) { return std::fabs(sm.angle) > 1e-6f; };
    auto usesScale = [](const Sample& sm) {
        return std::fabs(sm.s.x - 1) > 1e-15f || std::fabs(sm.s.y - 1) > 1e-15f || std::fabs(sm.s.z - 1) > 1e-15f;
    };
    for (size_t i = 0; i < samples.size(); ++i) {
        counts[0] += usesPos(samples[i], i);
        counts[1] += usesRot(samples[i]);
        counts[2] += usesScale(samples[i]);
    }
    static const uint64_t kTags[3] = {KEY_TRANSLATE, KEY_ROTATE, KEY_SCALE};
    for (int track = 0; track < 3; ++track) {
        if (!counts[track]) continue;
        Begin(static_cast<uint16_t>(0xB020 + track));
        m_out.U16le(0);
        m_out.U32le(0);
        m_out.U32le(0);
        m_out.U32le(counts[track]);
        for (size_t i = 0; i < samples.size(); ++i) {
            const Sample& sm = samples[i];
            if (track == 0 ? !usesPos(sm, i) : track == 1 ? !usesRot(sm) : !usesScale(sm)) continue;
            m_out.U32le(static_cast<uint32_t>(sm.time));
            CTCBParams tcb = SplineAt(node, kTags[track], sm.time);
            const float v[5] = {tcb.tension, tcb.continuity, tcb.bias, tcb.easeIn, tcb.easeOut};
            uint16_t flags = 0;
            for (int b = 0; b < 5; ++b)
                if (v[b] != 0.0f) flags = static_cast<uint16_t>(flags | (1u << b));
            m_out.U16le(flags);
            for (int b = 0; b < 5; ++b)
                if (v[b] != 0.0f) m_out.F32le(v[b]);
            if (track == 0) {
                m_out.F32le(sm.t.x);
                m_out.F32le(sm.t.y);
                m_out.F32le(sm.t.z);
            } else if (track == 1) {
                m_out.F32le(sm.angle);
                m_out.F32le(sm.axis.x);
                m_out.F32le(sm.axis.y);
                m_out.F32le(sm.axis.z);
            } else {
                m_out.F32le(sm.s.x);
                m_out.F32le(sm.s.y);
                m_out.F32le(sm.s.z);
            }
        }
        End();
    }
}
