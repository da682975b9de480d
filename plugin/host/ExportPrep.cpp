#include "plugin/host/ExportPrep.h"

#include "plugin/host/Cancel.h"

#include <string>
#include <unordered_map>
#include <vector>

#include "plugin/host/HostTypes.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/Triangulate.h"

namespace {
constexpr uint64_t kCutterBaseWork = 50'000'000;
constexpr uint64_t kCutterWorkPerIndex = 64;
constexpr uint32_t k16BitLimit = 65535;

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
            if (i >= np) {
                keep[static_cast<size_t>(f)] = false;
                any = true;
                break;
            }
    std::vector<int32_t> drop;
    for (auto& c : g.GetChannels()) {
        const CFaceList* cf = c->GetFaceList();
        if (!cf) {
            if (c->GetType() == CHANNEL_FACE_NORMAL) drop.push_back(c->GetChannelID()); // recomputed on demand
            continue;
        }
        uint32_t cp = 0;
        if (c->GetType() == CHANNEL_UVW)
            cp = static_cast<uint32_t>(static_cast<CUVWChannel&>(*c).GetUVWPointList()->GetSize());
        else if (c->GetType() == CHANNEL_VC)
            cp = static_cast<uint32_t>(static_cast<CVCChannel&>(*c).GetVCPointList()->GetSize());
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

// Faces of more than maxVerts corners are cut into triangles on their own plane (maxVerts 3:
// every face, and faces of fewer than three corners go). Channel face lists follow the same
// cut, corner for corner.
void SplitFaces(C3DGeomObject& g, int maxVerts, CPolygonTriangulator& cutter) {
    C3DFaceList* faces = g.GetFaceList();
    if (!faces) return;
    const int nf = faces->GetNumberOfFaces();
    bool needed = false;
    for (int f = 0; f < nf && !needed; ++f) {
        int k = faces->GetFaceSize(f);
        needed = k > maxVerts || (maxVerts == 3 && k < 3);
    }
    if (!needed) return;
    // Corner triples of every face that is cut, from the mesh's own points.
    std::vector<uint32_t> corners;
    std::vector<size_t> cutStart(static_cast<size_t>(nf) + 1, 0);
    size_t outFaces = 0, outIndices = 0;
    for (int f = 0; f < nf; ++f) {
        const int k = faces->GetFaceSize(f);
        if (k > maxVerts) cutter.Triangulate(*g.GetPointList(), faces->Face(f), corners);
        cutStart[static_cast<size_t>(f) + 1] = corners.size();
        if (k > maxVerts) {
            outFaces += static_cast<size_t>(k - 2);
            outIndices += static_cast<size_t>(k - 2) * 3;
        } else if (k >= 3 || maxVerts != 3) {
            ++outFaces;
            outIndices += static_cast<size_t>(k);
        }
    }
    auto split = [&](const CFaceList& src, CFaceList& dst, const C3DFaceList* mats, C3DFaceList* dstMats) {
        dst.Reserve(outFaces, outIndices);
        for (int f = 0; f < nf; ++f) {
            const int k = faces->GetFaceSize(f);
            const uint32_t* s = src.GetFaceIndices(f);
            const uint32_t flags = src.GetFaceFlags(f);
            if (dstMats) dstMats->SetCurrentMaterial(mats->GetMaterialID(f));
            if (k <= maxVerts) {
                if (k >= 3 || maxVerts != 3) dst.AddFace(s, k, flags);
                continue;
            }
            for (size_t c = cutStart[static_cast<size_t>(f)]; c < cutStart[static_cast<size_t>(f) + 1]; c += 3) {
                uint32_t t[3] = {s[corners[c]], s[corners[c + 1]], s[corners[c + 2]]};
                dst.AddFace(t, 3, flags);
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

// Triangles a 16-bit triangle writer makes of a face: a quad gives two, anything else one.
uint64_t WriterTriangles(int corners) { return corners == 4 ? 2 : 1; }

// A channel of the same kind with no faces or points yet; null for kinds without faces.
std::unique_ptr<C3DChannel> EmptyChannelLike(const C3DChannel& c) {
    std::unique_ptr<C3DChannel> out;
    switch (c.GetType()) {
    case CHANNEL_UVW: out = std::make_unique<CUVWChannel>(); break;
    case CHANNEL_VC: {
        auto vc = std::make_unique<CVCChannel>();
        vc->SetWeight(static_cast<const CVCChannel&>(c).GetWeight());
        out = std::move(vc);
        break;
    }
    case CHANNEL_SPEC_NORMAL: out = std::make_unique<CSpecNormalChannel>(); break;
    default: return nullptr;
    }
    out->GetCustomData() = c.GetCustomData();
    return out;
}

// Copies entry `i` of `src`'s point list to the end of `dst`'s (same kind).
void CopyChannelPoint(const C3DChannel& src, C3DChannel& dst, uint32_t i) {
    if (src.GetType() == CHANNEL_VC) {
        static_cast<CVCChannel&>(dst).GetVCPointList()->Add(
            static_cast<const CVCChannel&>(src).GetVCPointList()->Raw()[i]);
        return;
    }
    const C3DPointList* sp = src.GetType() == CHANNEL_UVW
                                 ? static_cast<const CUVWChannel&>(src).GetUVWPointList()
                                 : static_cast<const CSpecNormalChannel&>(src).GetNormalVectorList();
    C3DPointList* dp = dst.GetType() == CHANNEL_UVW ? static_cast<CUVWChannel&>(dst).GetUVWPointList()
                                                    : static_cast<CSpecNormalChannel&>(dst).GetNormalVectorList();
    dp->Add(sp->GetPoint(static_cast<int>(i)));
}

// Cuts a mesh whose points or writer triangles exceed `limit` into pieces within it, faces
// in order. The first piece stays in `node`; the others become children of it named
// "<name>.2", "<name>.3"..., with no transform of their own and the node's object offset,
// so every piece lands where it was. A single face beyond the limit stays a piece alone.
void SplitBigMesh(C3DSceneNode& node, uint32_t limit) {
    C3DGeomObject& g = *node.GetGeomObject();
    const C3DPointList& pts = *g.GetPointList();
    const C3DFaceList& faces = *g.GetFaceList();
    const int nf = faces.GetNumberOfFaces();
    uint64_t tris = 0;
    for (int f = 0; f < nf; ++f) tris += WriterTriangles(faces.GetFaceSize(f));
    if (pts.size() <= limit && tris <= limit) return;

    // Pieces as runs of faces [start, end).
    std::vector<int> cuts{0};
    {
        // A point repeated within one face is counted twice: pieces may come out a little
        // smaller than they could be, never larger.
        std::vector<uint32_t> stamp(pts.size(), 0);
        uint32_t piece = 1;
        uint64_t used = 0, pieceTris = 0;
        for (int f = 0; f < nf; ++f) {
            uint64_t fresh = 0;
            for (uint32_t i : faces.Face(f)) fresh += stamp[i] != piece;
            const uint64_t t = WriterTriangles(faces.GetFaceSize(f));
            if (f > cuts.back() && (used + fresh > limit || pieceTris + t > limit)) {
                cuts.push_back(f);
                ++piece;
                used = 0;
                pieceTris = 0;
                fresh = static_cast<uint64_t>(faces.GetFaceSize(f));
            }
            for (uint32_t i : faces.Face(f)) stamp[i] = piece;
            used += fresh;
            pieceTris += t;
        }
    }
    cuts.push_back(nf);
    if (cuts.size() <= 2) return;

    std::vector<int64_t> remap(pts.size(), -1);
    std::vector<std::vector<int64_t>> channelRemap(g.GetChannels().size());
    std::vector<C3DObject*> pieces;
    for (size_t p = 0; p + 1 < cuts.size(); ++p) {
        auto* o = new C3DObject();
        o->SetFlag(g.GetFlags());
        o->GetCustomData() = g.GetCustomData();
        o->SetSmoothAngle(g.GetSmoothAngle());
        o->SetSmoothMode(g.GetSmoothMode());
        o->SetFaceMode(g.GetFaceMode());
        C3DPointList& op = *o->GetPointList();
        C3DFaceList& of = *o->GetFaceList();
        std::vector<uint32_t> idx;
        for (int f = cuts[p]; f < cuts[p + 1]; ++f) {
            idx.clear();
            for (uint32_t i : faces.Face(f)) {
                if (remap[i] < 0) remap[i] = op.Add(pts.GetPoint(static_cast<int>(i)));
                idx.push_back(static_cast<uint32_t>(remap[i]));
            }
            of.SetCurrentMaterial(faces.GetMaterialID(f));
            of.AddFace(idx.data(), static_cast<int>(idx.size()), faces.GetFaceFlags(f));
        }
        for (int f = cuts[p]; f < cuts[p + 1]; ++f)
            for (uint32_t i : faces.Face(f)) remap[i] = -1;
        for (size_t c = 0; c < g.GetChannels().size(); ++c) {
            const C3DChannel& sc = *g.GetChannels()[c];
            std::unique_ptr<C3DChannel> dc = EmptyChannelLike(sc);
            if (!dc || !sc.GetFaceList()) continue;
            const CFaceList& sf = *sc.GetFaceList();
            std::vector<int64_t>& cm = channelRemap[c];
            if (cm.empty()) cm.assign(sf.GetMaxIndex(), -1);
            int64_t next = 0;
            for (int f = cuts[p]; f < cuts[p + 1]; ++f) {
                idx.clear();
                for (uint32_t i : sf.Face(f)) {
                    if (cm[i] < 0) {
                        cm[i] = next++;
                        CopyChannelPoint(sc, *dc, i);
                    }
                    idx.push_back(static_cast<uint32_t>(cm[i]));
                }
                dc->GetFaceList()->AddFace(idx.data(), static_cast<int>(idx.size()), sf.GetFaceFlags(f));
            }
            for (int f = cuts[p]; f < cuts[p + 1]; ++f)
                for (uint32_t i : sf.Face(f)) cm[i] = -1;
            o->AddChannel(std::move(dc), sc.GetChannelID());
        }
        o->SetGlobalUVWChannel(g.GetGlobalUVWChannelID());
        o->SetGlobalVCChannel(g.GetGlobalVCChannelID());
        pieces.push_back(o);
    }
    C4x4Matrix objectTM;
    node.GetObjectLocalTM(0, objectTM);
    const CXStringW name = node.GetName();
    node.SetObject(pieces[0]);
    for (size_t p = 1; p < pieces.size(); ++p) {
        auto* child = new C3DSceneNode(pieces[p]);
        child->SetName(name + CXStringW(L".") + CXStringW(std::to_wstring(p + 1)));
        child->SetObjectLocalTM(objectTM);
        node.AppendChild(child);
    }
}

// World transforms of `nodes` (tree order, parents first) with one local evaluation each.
std::vector<C4x4Matrix> WorldTransforms(const std::vector<C3DSceneNode*>& nodes, double time) {
    std::unordered_map<const C3DSceneNode*, size_t> at;
    at.reserve(nodes.size());
    std::vector<C4x4Matrix> world(nodes.size());
    for (size_t i = 0; i < nodes.size(); ++i) {
        nodes[i]->GetNodeLocalTM(time, world[i]);
        const C3DSceneNode* p = nodes[i]->GetParent();
        if (p && p->GetParent()) {
            auto it = at.find(p);
            if (it != at.end()) {
                world[i] = world[i] * world[it->second];
            } else {
                C4x4Matrix pm;
                p->GetNodeTM(time, pm);
                world[i] = world[i] * pm;
            }
        }
        at.emplace(nodes[i], i);
    }
    return world;
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
        if (sc) {
            target->Append(*sc);
            return;
        }
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
        appendChannel(CHANNEL_VC, t,
                      [&] { return static_cast<uint32_t>(t->GetVCPointList()->Add(CRGBColor(255, 255, 255))); });
    }
    if (normals) {
        auto* t = static_cast<CSpecNormalChannel*>(dst.GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
        appendChannel(CHANNEL_SPEC_NORMAL, t,
                      [&] { return static_cast<uint32_t>(t->GetNormalVectorList()->Add(0, 0, 1)); });
    }
}
} // namespace

std::unique_ptr<C3DScene> PrepareSceneForExport(const C3DScene& scene, uint64_t flags, CSceneExportOptions* options) {
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
            if (!(flags & PREP_CURVES)) {
                n->SetObject(nullptr);
                continue;
            }
            if (flags & PREP_CURVE_POLYLINES) static_cast<C3DCurve*>(o)->SetDegree(1);
        }
        if (!o->IsGeomObject()) continue;
        auto& g = static_cast<C3DGeomObject&>(*o);
        if (!g.GetPointList() || !g.GetFaceList()) {
            n->SetObject(nullptr);
            continue;
        }
        if (!(flags & PREP_KEEP_NORMALS)) g.RemoveChannels(CHANNEL_SPEC_NORMAL);
        if (IsMesh(o)) Sanitize(g);
    }

    // A cancel stops the preparation between its steps and between meshes; what is
    // returned then is incomplete, and the caller, which set the cancel, drops it.
    if (ShouldCancelThread()) return out;
    const bool merge = (flags & PREP_MERGE) != 0;
    if ((flags & PREP_WORLD_SPACE) || merge) {
        // World matrices first (they depend on the parents), then bake and reset.
        std::vector<C4x4Matrix> world = WorldTransforms(nodes, 0);
        for (size_t i = 0; i < nodes.size(); ++i) {
            C4x4Matrix obj;
            nodes[i]->GetObjectLocalTM(0, obj);
            world[i] = obj * world[i];
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
                    if (i < pts.size())
                        seq.push_back(static_cast<uint32_t>(part->GetPointList()->Add(pts[static_cast<int>(i)])));
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

    if (flags & (PREP_TRIANGULATE | PREP_TRIANGULATE_POLYGONS | PREP_SPLIT_LARGE)) {
        const int maxVerts = (flags & PREP_TRIANGULATE) ? 3 : (flags & PREP_TRIANGULATE_POLYGONS) ? 4 : 255;
        // Ear clipping is quadratic in the worst case: its work is bounded by the input size,
        // and faces beyond that bound are cut as fans (and said so).
        uint64_t indices = 0;
        for (C3DSceneNode* n : nodes)
            if (IsMesh(n->GetBaseObject())) indices += n->GetGeomObject()->GetFaceList()->GetNumberOfIndices();
        CPolygonTriangulator cutter(kCutterBaseWork + kCutterWorkPerIndex * indices);
        for (C3DSceneNode* n : nodes) {
            if (ShouldCancelThread()) return out;
            if (IsMesh(n->GetBaseObject())) SplitFaces(*n->GetGeomObject(), maxVerts, cutter);
        }
        if (options && cutter.FannedFaces() > 0)
            options->AddLogInfo(LOG_INFO, CXStringW(std::to_wstring(cutter.FannedFaces())) +
                                              CXStringW(L" large faces were cut into triangles as simple fans; "
                                                        L"concave ones may overlap."));
        if (options && cutter.ForcedCuts() > 0)
            options->AddLogInfo(LOG_INFO,
                                CXStringW(std::to_wstring(cutter.ForcedCuts())) +
                                    CXStringW(L" corners of self-crossing faces were cut without a clean ear."));
    }

    if (flags & PREP_SPLIT_16BIT) {
        for (C3DSceneNode* n : nodes)
            if (IsMesh(n->GetBaseObject())) SplitBigMesh(*n, k16BitLimit);
        nodes = AllNodes(*out);
    }

    if (ShouldCancelThread()) return out;
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
            for (C3DSceneNode* n : meshes) {
                if (ShouldCancelThread()) {
                    delete merged;
                    return out;
                }
                AppendMesh(*merged, *n->GetGeomObject(), uv, vc, normals);
            }
            merged->SetSmoothAngle(meshes.front()->GetGeomObject()->GetSmoothAngle());
            auto* node = new C3DSceneNode(merged);
            node->SetName(meshes.front()->GetName());
            node->SetNodeID(meshes.front()->GetNodeID());
            for (C3DSceneNode* n : meshes) n->SetObject(nullptr);
            // The merged mesh comes first so that "the first mesh" is the whole scene.
            C3DSceneNode* root = out->GetRoot();
            std::vector<C3DSceneNode*> rest;
            while (C3DSceneNode* c = root->GetChildNode()) {
                c->Detach();
                rest.push_back(c);
            }
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
            if (C3DGeomObject* g = n->GetGeomObject(); g && g->GetFaceList())
                g->GetFaceList()->SetAllMaterialIDs(NO_MATERIAL);
    }
    return out;
}
