// LXO export. Item channels are written by their index into the CHNM table (a U2, as
// Modo writes them), so the table must already hold every name: the plan collected them.
#include "formats/lxo/LxoSaver.h"

#include <algorithm>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include "formats/lxo/LxoCopy.h"
#include "formats/lxo/LxoReader.h"
#include "plugin/host/FaceList.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/PointList.h"
#include "plugin/host/Scene.h"
#include "plugin/host/SceneNode.h"
#include "plugin/host/XString.h"

namespace {

constexpr uint16_t kIntType = 1, kFloatType = 2, kTextType = 3;

uint32_t WriteValue(LxoWriter& w, const LxoItemChannel& c) {
    if (c.kind == 1) return w.WriteU4(static_cast<uint32_t>(c.i));
    if (c.kind == 2) return w.WriteF4(c.f);
    return w.WriteS0(c.s);
}

uint16_t TypeOf(const LxoItemChannel& c) { return c.kind == 1 ? kIntType : c.kind == 2 ? kFloatType : kTextType; }

// Points, box and poly-lines of a curve layer.
uint32_t WriteCurveLayer(LxoWriter& w, const C3DCurve& curve) {
    const C3DPointList& pts = *curve.GetPointList();
    const size_t n = pts.size();
    {
        LxoPointsChunk c(w, pts.GetData(), n);
        if (uint32_t r = c.Close()) return r;
    }
    if (uint32_t r = LxoWriteBoundingBox(w, pts.GetData(), n)) return r;
    const C3DFaceList* fl = curve.GetFaceList();
    if (!fl || fl->GetNumberOfFaces() == 0) return w.Error();
    LxoPolygonsChunk c(w, lxoid::LINE);
    std::vector<uint32_t> closed;
    for (int f = 0; f < fl->GetNumberOfFaces(); ++f) {
        const uint32_t* idx = fl->GetFaceIndices(f);
        uint32_t count = static_cast<uint32_t>(fl->GetFaceSize(f));
        if (curve.IsClosed() && count > 1 && count < 0xFFFF) {
            // A closed line repeats its first point.
            closed.assign(idx, idx + count);
            closed.push_back(idx[0]);
            idx = closed.data();
            ++count;
        }
        if (uint32_t r = c.AddPolygon(idx, count)) return r;
    }
    return c.Close();
}

uint32_t WriteItem(LxoWriter& w, const LxoWriteData& data, const LxoItemData& it) {
    LxoChunk chunk(w, lxoid::ITEM);
    uint32_t ref = it.id;
    w.WriteItemHeader(it.type, it.name, ref, false);
    if (it.hasLayer) {
        const bool optics = it.type == "camera";
        LxoLayerSubChunk s(w, it.layerIndex, optics ? 9 : 5, 0xC8C8C8FFu);
        if (uint32_t r = s.Close()) return r;
    }
    for (const LxoItemLink& l : it.links) {
        LxoLinkSubChunk s(w, l.graph, l.target, l.ordinal);
        if (uint32_t r = s.Close()) return r;
    }
    for (const LxoItemChannel& c : it.channels) {
        const int32_t index = data.ChannelIndex(c.name);
        if (index < 0) return LXO_ERR_WRITE;
        LxoSubChunk s(w, lxoid::CHAN);
        w.WriteU2(static_cast<uint16_t>(index));
        w.WriteU2(TypeOf(c));
        WriteValue(w, c);
        if (uint32_t r = s.Close()) return r;
    }
    for (const LxoItemVector& v : it.vectors) {
        if (v.xyz) {
            LxoXyzChannelSubChunk s(w, v.base, v.v);
            if (uint32_t r = s.Close()) return r;
        } else {
            LxoRgbChannelSubChunk s(w, v.base, v.v);
            if (uint32_t r = s.Close()) return r;
        }
    }
    for (const auto& [name, value] : it.strings) {
        LxoSubChunk s(w, lxoid::CHNS);
        w.WriteS0(name);
        w.WriteS0(value);
        if (uint32_t r = s.Close()) return r;
    }
    if (!it.unique.empty()) {
        LxoUniqueSubChunk s(w, it.unique);
        if (uint32_t r = s.Close()) return r;
    }
    {
        LxoSubChunk s(w, lxoid::UIDX);
        w.WriteU4(it.hasLayer ? 1u : 0xFFFFFFFFu);
        if (uint32_t r = s.Close()) return r;
    }
    return chunk.Close();
}

uint32_t WriteActions(LxoWriter& w, const LxoWriteData& data) {
    {
        LxoChunk c(w, lxoid::ACTN);
        w.WriteS0("scene");
        w.WriteS0("scene");
        w.WriteU4(data.sceneAction);
        LxoSubChunk p(w, lxoid::PRNT);
        w.WriteU4(data.setupAction);
        if (uint32_t r = p.Close()) return r;
        if (uint32_t r = c.Close()) return r;
    }
    LxoChunk c(w, lxoid::ACTN);
    w.WriteS0("setup");
    w.WriteS0("setup");
    w.WriteU4(data.setupAction);
    auto chan = [&](const std::string& name, uint16_t type, auto&& value) -> uint32_t {
        const int32_t index = data.ChannelIndex(name);
        if (index < 0) return LXO_ERR_WRITE;
        LxoSubChunk s(w, lxoid::CHAN);
        w.WriteU2(static_cast<uint16_t>(index));
        w.WriteU2(type);
        w.WriteU2(0); // no envelope
        value();
        return s.Close();
    };
    static const char *const kXyz[3] = {".X", ".Y", ".Z"}, *const kRgb[3] = {".R", ".G", ".B"};
    for (const LxoItemData& it : data.items) {
        if (it.channels.empty() && it.vectors.empty()) continue;
        {
            LxoSubChunk s(w, lxoid::ITEM);
            w.WriteU4(it.id);
            if (uint32_t r = s.Close()) return r;
        }
        for (const LxoItemChannel& ch : it.channels)
            if (uint32_t r = chan(ch.name, TypeOf(ch), [&] { WriteValue(w, ch); })) return r;
        for (const LxoItemVector& v : it.vectors)
            for (int k = 0; k < 3; ++k)
                if (uint32_t r = chan(v.base + (v.xyz ? kXyz[k] : kRgb[k]), kFloatType, [&] { w.WriteF4(v.v[k]); }))
                    return r;
    }
    return c.Close();
}

} // namespace

uint32_t LxoSaveScene(LxoWriter& w, const LxoWriteData& data) {
    {
        LxoVersionChunk c(w, 2, 1, "orbiscope");
        if (uint32_t r = c.Close()) return r;
    }
    {
        LxoTagsChunk c(w, data.tags);
        if (uint32_t r = c.Close()) return r;
    }
    {
        LxoChannelNamesChunk c(w, data.channelNames);
        if (uint32_t r = c.Close()) return r;
    }
    for (const LxoLayerData& layer : data.layers) {
        {
            LxoLayerChunk c(w, layer.info);
            if (uint32_t r = c.Close()) return r;
        }
        const uint32_t r = layer.curve ? WriteCurveLayer(w, *layer.curve) : LxoWriteLayerData(w, layer.mesh);
        if (r) return r;
    }
    for (const LxoItemData& it : data.items)
        if (uint32_t r = WriteItem(w, data, it)) return r;
    if (uint32_t r = WriteActions(w, data)) return r;
    return w.Error();
}

// ---------------------------------------------------------------------------
// Update

namespace {

// The writer opens by name; handing it the name of a descriptor already open means
// the file is never created by it (and it prints nothing when that fails).
std::string HeldName(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

// First pass: the mesh items (ID, name) and the tag table, nothing else loaded.
class LxoMeshIndex : public LxoReader {
public:
    using LxoReader::LxoReader;
    struct MeshItem {
        uint32_t id;
        std::string name;
    };
    std::vector<MeshItem> meshes;

    int NestingContext() override {
        const uint32_t id = ChunkID();
        return id == lxoid::ITEM || id == lxoid::TAGS ? 0 : 1;
    }
    int ItemNestingContext() override { return 1; }
    uint32_t OnItemBegin(const char* type, const char* name, uint32_t referenceID) override {
        if (std::string_view(type) == "mesh") meshes.push_back({referenceID, name});
        return LXO_OK;
    }
};

} // namespace

LxoUpdateResult LxoUpdateFile(const char* src, const char* dst, const C3DScene& scene) {
    LxoUpdateResult res;
    LxoMeshIndex index(src);
    if ((res.read = index.Read())) return res;

    // The scene's meshes in pre-order, by name.
    std::vector<const C3DSceneNode*> nodes;
    struct Named {
        std::vector<size_t> nodes; // in scene order
        size_t next = 0;
    };
    std::unordered_map<std::string, Named> byName;
    {
        C3DNodePos pos = scene.GetFirstNode(KINDOF_MESH | KINDOF_PATCH);
        C3DBaseObject* o = nullptr;
        while (pos.IsValid()) {
            const C3DSceneNode* n = scene.GetNextNode(o, pos);
            if (!n || !o || !(o->GetKindOf() & (KINDOF_MESH | KINDOF_PATCH))) continue;
            byName[WideToUtf8(std::wstring_view(n->GetName()))].nodes.push_back(nodes.size());
            nodes.push_back(n);
        }
    }
    std::vector<bool> used(nodes.size(), false);
    std::vector<int64_t> nodeOf(index.meshes.size(), -1);
    for (size_t i = 0; i < index.meshes.size(); ++i) {
        const auto found = byName.find(index.meshes[i].name);
        if (found == byName.end() || found->second.next == found->second.nodes.size()) continue;
        const size_t k = found->second.nodes[found->second.next++];
        used[k] = true;
        nodeOf[i] = static_cast<int64_t>(k);
    }
    size_t next = 0;
    for (size_t i = 0; i < index.meshes.size(); ++i) {
        if (nodeOf[i] >= 0) continue;
        while (next < nodes.size() && used[next]) ++next;
        if (next == nodes.size()) break;
        used[next] = true;
        nodeOf[i] = static_cast<int64_t>(next);
    }

    // Material ID -> the file's tag of the same name (tag 0 otherwise).
    std::unordered_map<std::string, uint32_t> tagByName;
    const LxoStringList& tags = index.Tags();
    for (size_t t = tags.size(); t-- > 0;) tagByName[tags[t]] = static_cast<uint32_t>(t);
    std::vector<LxoLayerMesh> meshes;
    meshes.reserve(index.meshes.size());
    std::vector<uint32_t> ids;
    uint64_t budget = uint64_t(1) << 24; // table entries of all meshes together
    for (size_t i = 0; i < index.meshes.size(); ++i) {
        if (nodeOf[i] < 0) continue;
        const auto* geom = static_cast<const C3DGeomObject*>(nodes[static_cast<size_t>(nodeOf[i])]->GetBaseObject());
        LxoLayerMesh m;
        m.object = geom;
        uint32_t top = 0;
        if (const C3DFaceList* fl = geom->GetFaceList()) {
            uint32_t last = NO_MATERIAL;
            for (uint32_t id : fl->GetMaterialIDs()) {
                if (id == last || id < top) continue; // runs of one material are the usual case
                last = id;
                if (id < (1u << 16) && scene.GetMaterialByID(id)) top = id + 1;
            }
        }
        if (top > budget) top = 0; // past the budget the mesh goes out untagged
        budget -= top;
        m.materialTags.assign(top, 0);
        for (uint32_t id = 0; id < top; ++id)
            if (const C3DMaterial* mat = scene.GetMaterialByID(id)) {
                const auto t = tagByName.find(WideToUtf8(std::wstring_view(mat->GetName())));
                if (t != tagByName.end()) m.materialTags[id] = t->second;
            }
        meshes.push_back(std::move(m));
        ids.push_back(index.meshes[i].id);
    }
    res.meshes = static_cast<int>(meshes.size());

    // The destination exists: open it without creating it, and hand the updater that
    // open file by its descriptor's name.
    const int fd = ::open(dst, O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) {
        res.write = LXO_ERR_WRITE;
        return res;
    }
    const std::string held = HeldName(fd);
    {
        LxoUpdater up(src, held.c_str());
        if (!up.Writer()) {
            ::close(fd);
            res.write = LXO_ERR_WRITE;
            return res;
        }
        for (size_t k = 0; k < meshes.size(); ++k) up.Replacements().SetAt(ids[k], &meshes[k]);
        res.read = up.Read();
        res.replaced = up.ReplacedCount();
        res.write = up.Writer()->Finish();
    }
    ::close(fd);
    return res;
}

uint32_t LxoSaveFile(const char* path, const LxoWriteData& data) {
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return LXO_ERR_NO_FILE;
    uint32_t r = LXO_OK;
    {
        LxoWriter w(HeldName(fd).c_str());
        if (!w.IsOpen()) {
            r = LXO_ERR_NO_FILE;
        } else {
            LxoFileChunk form(w);
            r = LxoSaveScene(w, data);
            const uint32_t f = w.Finish();
            if (!r) r = f;
        }
    }
    ::close(fd);
    return r;
}
