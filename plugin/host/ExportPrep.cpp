#include "plugin/host/ExportPrep.h"

#include <vector>

#include "plugin/host/HostTypes.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"

namespace {
std::vector<C3DSceneNode*> AllNodes(const C3DScene& s) {
    std::vector<C3DSceneNode*> v;
    C3DBaseObject* o;
    for (C3DNodePos p = s.GetFirstNode(); C3DSceneNode* n = s.GetNextNode(o, p);) v.push_back(n);
    return v;
}

bool IsMesh(const C3DBaseObject* o) { return o && (o->GetKindOf() == KINDOF_MESH || o->GetKindOf() == KINDOF_PATCH); }

// Channels whose face list no longer parallels the mesh, or that index past their own points, are
// dropped; so are faces that index past the mesh's points. Writers can then index without checks.
void Sanitize(C3DGeomObject& g) {
    C3DFaceList* faces = g.GetFaceList();
    C3DPointList* pts = g.GetPointList();
    if (!faces || !pts) return;
    const uint32_t np = static_cast<uint32_t>(pts->GetSize());
    const int nf = faces->GetNumberOfFaces();
    std::vector<bool> keep(static_cast<size_t>(nf), true);
    bool any = false;
    for (int f = 0; f < nf; ++f)
        for (uint32_t i : faces->Face(f))
            if (i >= np) { keep[static_cast<size_t>(f)] = false; any = true; break; }
    std::vector<int32_t> drop;
    for (auto& c : g.GetChannels()) {
        const CFaceList* cf = c->GetFaceList();
        if (!cf) {
            if (c->GetType() == CHANNEL_FACE_NORMAL) drop.push_back(c->GetChannelID()); // recomputed on demand
            continue;
        }
        uint32_t cp = 0;
        if (c->GetType() == CHANNEL_UVW) cp = static_cast<uint32_t>(static_cast<CUVWChannel&>(*c).GetUVWPointList()->GetSize());
        else if (c->GetType() == CHANNEL_VC) cp = static_cast<uint32_t>(static_cast<CVCChannel&>(*c).GetVCPointList()->GetSize());
        else if (c->GetType() == CHANNEL_SPEC_NORMAL)
            cp = static_cast<uint32_t>(static_cast<CSpecNormalChannel&>(*c).GetNormalVectorList()->GetSize());
        bool bad = cf->GetNumberOfFaces() != nf || cf->GetMaxIndex() > cp;
        for (int f = 0; !bad && f < nf; ++f) bad = cf->GetFaceSize(f) != faces->GetFaceSize(f);
        if (bad) drop.push_back(c->GetChannelID());
    }
    for (int32_t id : drop) g.RemoveChannel(id);
    if (any) {
        faces->Compact(keep);
        for (auto& c : g.GetChannels())
            if (CFaceList* cf = c->GetFaceList()) cf->Compact(keep);
    }
}

// Splits faces of more than maxVerts vertices into fans (maxVerts 3: triangulate and drop
// faces of fewer than three vertices). Channel face lists follow the same split.
void SplitFaces(C3DGeomObject& g, int maxVerts) {
    C3DFaceList* faces = g.GetFaceList();
    if (!faces) return;
    const int nf = faces->GetNumberOfFaces();
    bool needed = false;
    for (int f = 0; f < nf && !needed; ++f) {
        int k = faces->GetFaceSize(f);
        needed = k > maxVerts || (maxVerts == 3 && k < 3);
    }
    if (!needed) return;
    auto split = [&](const CFaceList& src, CFaceList& dst, const C3DFaceList* mats, C3DFaceList* dstMats) {
        for (int f = 0; f < nf; ++f) {
            const int k = faces->GetFaceSize(f);
            const uint32_t* s = src.GetFaceIndices(f);
            const uint32_t flags = src.GetFaceFlags(f);
            auto add = [&](const uint32_t* idx, int n) {
                if (dstMats) dstMats->SetCurrentMaterial(mats->GetMaterialID(f));
                dst.AddFace(idx, n, flags);
            };
            if (maxVerts == 3 && k < 3) continue;
            if (k <= maxVerts) { add(s, k); continue; }
            if (maxVerts == 3) {
                for (int i = 1; i + 1 < k; ++i) {
                    uint32_t t[3] = {s[0], s[i], s[i + 1]};
                    add(t, 3);
                }
            } else {
                // Fans of up to maxVerts vertices sharing the first vertex.
                std::vector<uint32_t> part;
                int i = 1;
                while (i + 1 < k) {
                    part.assign(1, s[0]);
                    int end = std::min(k - 1, i + maxVerts - 2);
                    for (int j = i; j <= end; ++j) part.push_back(s[j]);
                    add(part.data(), static_cast<int>(part.size()));
                    i = end;
                }
            }
        }
    };
    for (auto& c : g.GetChannels()) {
        CFaceList* cf = c->GetFaceList();
        if (!cf) continue;
        CFaceList out;
        split(*cf, out, nullptr, nullptr);
        *cf = std::move(out);
    }
    C3DFaceList out;
    split(*faces, out, faces, &out);
    *faces = std::move(out);
}

void AppendMesh(C3DObject& dst, const C3DGeomObject& src, bool uv, bool vc, bool normals) {
    C3DPointList& dp = *dst.GetPointList();
    C3DFaceList& df = *dst.GetFaceList();
    const C3DPointList& sp = *src.GetPointList();
    const C3DFaceList& sf = *src.GetFaceList();
    const uint32_t base = static_cast<uint32_t>(dp.GetSize());
    const int nf = sf.GetNumberOfFaces();
    dp.Raw().insert(dp.Raw().end(), sp.Raw().begin(), sp.Raw().end());
    for (int f = 0; f < nf; ++f) {
        df.SetCurrentMaterial(sf.GetMaterialID(f));
        const int k = sf.GetFaceSize(f);
        uint32_t* d = df.AddFace(k, sf.GetFaceFlags(f));
        const uint32_t* s = sf.GetFaceIndices(f);
        for (int i = 0; i < k; ++i) d[i] = s[i] + base;
    }
    // Channels: the source's first channel of each kind, or faces on one default point.
    auto appendChannel = [&](uint32_t type, C3DChannel* target, auto makeDefault) {
        if (!target) return;
        C3DChannel* sc = type == CHANNEL_UVW ? src.GetGlobalUVWChannel() : nullptr;
        if (!sc) sc = src.GetChannelByIndex(0, type);
        if (sc) { target->Append(*sc); return; }
        uint32_t p = makeDefault();
        CFaceList* tf = target->GetFaceList();
        for (int f = 0; f < nf; ++f) {
            uint32_t* d = tf->AddFace(sf.GetFaceSize(f));
            std::fill(d, d + sf.GetFaceSize(f), p);
        }
    };
    if (uv) {
        auto* t = static_cast<CUVWChannel*>(dst.GetChannelByIndex(0, CHANNEL_UVW));
        appendChannel(CHANNEL_UVW, t, [&] { return static_cast<uint32_t>(t->GetUVWPointList()->Add(0, 0, 0)); });
    }
    if (vc) {
        auto* t = static_cast<CVCChannel*>(dst.GetChannelByIndex(0, CHANNEL_VC));
        appendChannel(CHANNEL_VC, t, [&] { return static_cast<uint32_t>(t->GetVCPointList()->Add(CRGBColor(255, 255, 255))); });
    }
    if (normals) {
        auto* t = static_cast<CSpecNormalChannel*>(dst.GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
        appendChannel(CHANNEL_SPEC_NORMAL, t, [&] { return static_cast<uint32_t>(t->GetNormalVectorList()->Add(0, 0, 1)); });
    }
}
} // namespace

std::unique_ptr<C3DScene> PrepareSceneForExport(const C3DScene& scene, uint64_t flags,
                                                const CSceneExportOptions* options) {
    (void)options;
    std::unique_ptr<C3DScene> out = scene.Clone();
    std::vector<C3DSceneNode*> nodes = AllNodes(*out);

    for (C3DSceneNode* n : nodes) {
        C3DBaseObject* o = n->GetBaseObject();
        if (!o) continue;
        if (o->GetKindOf() == KINDOF_PATCH && (flags & PREP_MESHES)) {
            // A patch keeps its control polygons as mesh faces.
            auto* p = static_cast<C3DGeomObject*>(o);
            auto* m = new C3DObject();
            m->SetPointList(new C3DPointList(*p->GetPointList()));
            m->SetFaceList(new C3DFaceList(*p->GetFaceList()));
            for (auto& c : p->GetChannels()) m->AddChannel(c->Clone(), c->GetChannelID());
            m->SetGlobalUVWChannel(p->GetGlobalUVWChannelID());
            m->SetGlobalVCChannel(p->GetGlobalVCChannelID());
            m->SetFlag(p->GetFlags());
            n->SetObject(m);
            o = m;
        }
        if (o->GetKindOf() == KINDOF_CURVE) {
            if (!(flags & PREP_CURVES)) { n->SetObject(nullptr); continue; }
            if (flags & PREP_CURVE_POLYLINES) static_cast<C3DCurve*>(o)->SetDegree(1);
        }
        if (!o->IsGeomObject()) continue;
        auto& g = static_cast<C3DGeomObject&>(*o);
        if (!g.GetPointList() || !g.GetFaceList()) {
            n->SetObject(nullptr);
            continue;
        }
        if (!(flags & PREP_KEEP_NORMALS)) g.RemoveChannels(CHANNEL_SPEC_NORMAL);
        if (!(flags & PREP_KEEP_VERTEX_COLORS)) g.RemoveChannels(CHANNEL_VC);
        if (IsMesh(o)) Sanitize(g);
    }

    const bool merge = (flags & PREP_MERGE) != 0;
    if ((flags & PREP_WORLD_SPACE) || merge) {
        // World matrices first (they depend on the parents), then bake and reset.
        std::vector<C4x4Matrix> world(nodes.size());
        for (size_t i = 0; i < nodes.size(); ++i) {
            C4x4Matrix tm, obj;
            nodes[i]->GetNodeTM(0, tm);
            nodes[i]->GetObjectLocalTM(0, obj);
            world[i] = obj * tm;
        }
        for (size_t i = 0; i < nodes.size(); ++i) {
            if (C3DGeomObject* g = nodes[i]->GetGeomObject())
                if (!world[i].IsIdentity()) g->Transform(world[i]);
            nodes[i]->SetNodeLocalTM(C4x4Matrix());
            nodes[i]->SetObjectLocalTM(C4x4Matrix());
            nodes[i]->DeleteAllKeys();
        }
    }

    if (flags & PREP_SPLIT_CURVES) {
        // For writers that walk a curve's point list: each poly-line gets a node of its
        // own (same name and placement), the first one in place of the original.
        for (C3DSceneNode* n : std::vector<C3DSceneNode*>(nodes)) {
            C3DBaseObject* o = n->GetBaseObject();
            if (!o || o->GetKindOf() != KINDOF_CURVE) continue;
            const auto& c = static_cast<const C3DCurve&>(*o);
            const C3DPointList& pts = *c.GetPointList();
            const C3DFaceList& fl = *c.GetFaceList();
            std::vector<C3DCurve*> parts;
            for (int f = 0; f < fl.GetNumberOfFaces(); ++f) {
                auto* part = new C3DCurve();
                part->SetDegree(c.GetDegree());
                part->SetFlag(c.GetFlags() & ~uint32_t(OBJF_CLOSED));
                std::vector<uint32_t> seq;
                for (uint32_t i : fl.Face(f))
                    if (i < pts.size()) seq.push_back(static_cast<uint32_t>(part->GetPointList()->Add(pts[static_cast<int>(i)])));
                if (c.IsClosed() && seq.size() > 1)
                    seq.push_back(static_cast<uint32_t>(part->GetPointList()->Add(part->GetPointList()->GetPoint(0))));
                part->GetFaceList()->SetCurrentMaterial(fl.GetMaterialID(f));
                part->GetFaceList()->AddFace(seq.data(), static_cast<int>(seq.size()));
                parts.push_back(part);
            }
            if (parts.empty()) continue;
            C3DSceneNode* parent = n->GetParent();
            C4x4Matrix objectTM;
            n->GetObjectLocalTM(0, objectTM);
            for (size_t k = 1; k < parts.size(); ++k) {
                auto* sibling = new C3DSceneNode(parts[k]);
                sibling->SetName(n->GetName());
                sibling->SetNodeLocalTM(n->GetStaticLocalTM());
                sibling->SetObjectLocalTM(objectTM);
                out->AddNode(parent == out->GetRoot() ? nullptr : parent, sibling);
                nodes.push_back(sibling);
            }
            n->SetObject(parts[0]);
        }
    }

    if (flags & (PREP_TRIANGULATE | PREP_SPLIT_LARGE)) {
        const int maxVerts = (flags & PREP_TRIANGULATE) ? 3 : 255;
        for (C3DSceneNode* n : nodes)
            if (IsMesh(n->GetBaseObject())) SplitFaces(*n->GetGeomObject(), maxVerts);
    }

    if (merge) {
        std::vector<C3DSceneNode*> meshes;
        for (C3DSceneNode* n : nodes)
            if (IsMesh(n->GetBaseObject()) && !n->GetBaseObject()->IsFlagSet(OBJF_HIDDEN)) meshes.push_back(n);
        if (!meshes.empty()) {
            bool uv = false, vc = false, normals = true;
            for (C3DSceneNode* n : meshes) {
                C3DGeomObject* g = n->GetGeomObject();
                uv = uv || g->GetChannelCount(CHANNEL_UVW) > 0;
                vc = vc || g->GetChannelCount(CHANNEL_VC) > 0;
                normals = normals && g->GetChannelCount(CHANNEL_SPEC_NORMAL) > 0;
            }
            auto* merged = new C3DObject();
            if (uv) merged->SetGlobalUVWChannel(merged->AddChannel(new CUVWChannel()));
            if (vc) merged->SetGlobalVCChannel(merged->AddChannel(new CVCChannel()));
            if (normals) merged->AddChannel(new CSpecNormalChannel());
            size_t points = 0, faces = 0, idx = 0;
            for (C3DSceneNode* n : meshes) {
                points += n->GetGeomObject()->GetPointList()->size();
                faces += static_cast<size_t>(n->GetGeomObject()->GetFaceList()->GetNumberOfFaces());
                idx += n->GetGeomObject()->GetFaceList()->GetNumberOfIndices();
            }
            merged->GetPointList()->Reserve(points);
            merged->GetFaceList()->Reserve(faces, idx);
            for (C3DSceneNode* n : meshes) AppendMesh(*merged, *n->GetGeomObject(), uv, vc, normals);
            merged->SetSmoothAngle(meshes.front()->GetGeomObject()->GetSmoothAngle());
            auto* node = new C3DSceneNode(merged);
            node->SetName(meshes.front()->GetName());
            node->SetNodeID(meshes.front()->GetNodeID());
            for (C3DSceneNode* n : meshes) n->SetObject(nullptr);
            // The merged mesh comes first so that "the first mesh" is the whole scene.
            C3DSceneNode* root = out->GetRoot();
            std::vector<C3DSceneNode*> rest;
            while (C3DSceneNode* c = root->GetChildNode()) { c->Detach(); rest.push_back(c); }
            root->AppendChild(node);
            for (C3DSceneNode* c : rest) root->AppendChild(c);
            nodes = AllNodes(*out);
        }
    }

    if (flags & PREP_DROP_EMPTY) {
        for (C3DSceneNode* n : nodes) {
            C3DGeomObject* g = n->GetGeomObject();
            if (g && IsMesh(g) && (g->GetPointList()->IsEmpty() || g->GetFaceList()->GetNumberOfFaces() == 0))
                n->SetObject(nullptr);
        }
    }

    if (flags & PREP_FACE_NORMALS)
        for (C3DSceneNode* n : nodes)
            if (IsMesh(n->GetBaseObject())) n->GetGeomObject()->ComputeFaceNormals();

    if (!(flags & PREP_MATERIALS)) {
        out->RemoveAllMaterials();
        for (C3DSceneNode* n : nodes)
            if (C3DGeomObject* g = n->GetGeomObject(); g && g->GetFaceList()) g->GetFaceList()->SetAllMaterialIDs(NO_MATERIAL);
    }
    return out;
}
