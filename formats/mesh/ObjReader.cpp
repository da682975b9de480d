// Wavefront OBJ reading. The first pass counts records per kind and faces per
// group (and reads MTL libraries); the second fills flat arrays and builds each
// group's face lists with file indices, which are renumbered per group at the end.
// Indices: i > 0 is i-1, i < 0 counts back from the records read so far, 0 is bad.
#include "formats/mesh/ObjReader.h"

#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include "formats/mesh/MeshText.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/TextScanner.h"

namespace meshio {
namespace {

using textscan::TextCursor;

constexpr size_t kMaxFirstLine = 1024; // a longer line before any "v" is not OBJ
constexpr size_t kMaxWord = 1024;
constexpr int kPollEvery = 50;

struct MtlMap {
    std::string file;
    float offset[3] = {0, 0, 0};
    float scale[3] = {1, 1, 1};
};

struct MtlRecord {
    std::string name;
    float ka[3] = {0.2f, 0.2f, 0.2f};
    float kd[3] = {0.8f, 0.8f, 0.8f};
    float ks[3] = {0, 0, 0};
    float ns = 0;
    float dissolve = 1;
    std::unique_ptr<MtlMap> colorMap, bumpMap, normalMap;
};

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (Lower(s[i]) != Lower(prefix[i])) return false;
    return true;
}

// "%d" for face indices. Plain short decimal numbers are taken here without the generic
// conversion (the result is the same); anything else goes to the scanner.
inline bool ReadIndex(TextCursor& c, int& v) {
    const std::string_view r = c.Remaining();
    size_t i = 0;
    while (i < r.size() && textscan::IsSpace(r[i])) ++i;
    bool neg = false;
    if (i < r.size() && (r[i] == '-' || r[i] == '+')) neg = r[i++] == '-';
    const size_t first = i;
    uint32_t x = 0;
    while (i < r.size() && i - first < 9 && static_cast<unsigned>(r[i] - '0') < 10u)
        x = x * 10 + static_cast<uint32_t>(r[i++] - '0');
    if (i == first || (i < r.size() && static_cast<unsigned>(r[i] - '0') < 10u)) return c.ReadInt(v);
    v = neg ? -static_cast<int>(x) : static_cast<int>(x);
    c.Advance(i);
    return true;
}

// A literal '/' of the face patterns (no space skipping, as in scanf).
inline bool Slash(TextCursor& c) {
    if (c.Peek() != '/') return false;
    c.Advance(1);
    return true;
}

// Up to three floats, scanf style: the fields before the first mismatch are assigned.
int ReadFloats(TextCursor& c, float* out, int n) {
    int got = 0;
    while (got < n && ReadCoord(c, out[got])) ++got;
    return got;
}

// "map_Kd [-o u v w] [-s u v w] file": options first, the rest of the line names the file.
std::unique_ptr<MtlMap> ParseMap(std::string_view rest) {
    auto map = std::make_unique<MtlMap>();
    TextCursor c(rest);
    for (;;) {
        c.SkipSpaces();
        std::string_view r = c.Remaining();
        if (r.size() >= 2 && r[0] == '-' && (r.size() == 2 || textscan::IsSpace(r[2]))) {
            if (r[1] == 'o' || r[1] == 's') {
                c.Advance(2);
                ReadFloats(c, r[1] == 'o' ? map->offset : map->scale, 3);
                continue;
            }
        }
        if (!r.empty() && r[0] == '-' && r.size() > 1 && !(r[1] >= '0' && r[1] <= '9')) {
            // Another option: skip it and its numeric arguments.
            c.SkipWord();
            float dummy;
            while (c.ReadFloat(dummy)) {
            }
            continue;
        }
        break;
    }
    map->file = std::string(textscan::Trim(c.Remaining()));
    if (map->file.empty()) return nullptr;
    return map;
}

void ParseMtl(std::string_view text, std::vector<MtlRecord>& out) {
    textscan::LineSplitter lines(text);
    std::string_view line;
    MtlRecord* cur = nullptr;
    while (lines.Next(line)) {
        line = textscan::TrimLeft(line);
        if (line.empty() || line[0] == '#') continue;
        TextCursor c(line);
        std::string_view key;
        if (!c.ReadWord(key, kMaxWord)) continue;
        if (StartsWithNoCase(key, "newmtl") && key.size() == 6) {
            out.emplace_back();
            cur = &out.back();
            cur->name = std::string(textscan::Trim(c.Remaining()));
            continue;
        }
        if (!cur) continue;
        auto is = [&](std::string_view k) { return key.size() == k.size() && StartsWithNoCase(key, k); };
        if (is("Ka")) ReadFloats(c, cur->ka, 3);
        else if (is("Kd")) ReadFloats(c, cur->kd, 3);
        else if (is("Ks")) ReadFloats(c, cur->ks, 3);
        else if (is("Ns")) ReadFloats(c, &cur->ns, 1);
        else if (is("d") || is("Tr")) ReadFloats(c, &cur->dissolve, 1);
        else if (is("map_Kd")) cur->colorMap = ParseMap(c.Remaining());
        else if (is("map_bump") || is("bump")) cur->bumpMap = ParseMap(c.Remaining());
        else if (is("map_norm")) cur->normalMap = ParseMap(c.Remaining());
    }
}

bool IsValidUtf8(std::string_view s) {
    size_t i = 0;
    while (i < s.size()) {
        const uint8_t c = static_cast<uint8_t>(s[i]);
        if (c < 0x80) { ++i; continue; }
        size_t n = (c >= 0xC2 && c <= 0xDF) ? 1 : (c >= 0xE0 && c <= 0xEF) ? 2 : (c >= 0xF0 && c <= 0xF4) ? 3 : 0;
        if (n == 0 || i + n >= s.size()) return false;
        for (size_t k = 1; k <= n; ++k)
            if ((static_cast<uint8_t>(s[i + k]) & 0xC0) != 0x80) return false;
        i += n + 1;
    }
    return true;
}

CXStringW NameFromBytes(std::string_view bytes, int textMode) {
    if (textMode == TEXT_MODE_AUTO) return IsValidUtf8(bytes) ? CXStringW(Utf8ToWide(bytes)) : CXStringW(WidenBytes(bytes));
    return DecodeName(bytes, textMode);
}

struct Group {
    std::string name;
    int countedFaces = 0;
    uint64_t countedIndices = 0;
    uint64_t nodeId = 0;
    bool hasNodeId = false;
    std::unique_ptr<C3DFaceList> faces;
    std::unique_ptr<CUVWChannel> uv;
    std::unique_ptr<CSpecNormalChannel> normals;
};

class CObjParser {
public:
    CObjParser(std::string_view text, int textMode, const MtlLoader& loader, CFileIo& io,
               CSceneImportOptions& options, const IoFile* file)
        : m_text(text), m_mode(textMode), m_loader(loader), m_io(io), m_options(options), m_release(file, text) {}

    ObjReadResult Run();

private:
    bool CountPass();
    bool FillPass();
    int GroupFor(std::string_view name);
    void ReadMtl(std::string_view name);
    void CreateMaterials();
    void AddFace(std::string_view rest);
    bool BuildScene();
    void Warn();
    bool Poll(size_t lineNo, size_t pos, bool second);

    std::string_view m_text;
    int m_mode;
    const MtlLoader& m_loader;
    CFileIo& m_io;
    CSceneImportOptions& m_options;

    std::vector<Group> m_groups;
    std::unordered_map<std::string, int> m_groupIndex;
    int m_current = 0;
    std::vector<MtlRecord> m_mtl;
    std::vector<std::string> m_mtlRead;
    std::unordered_map<std::string, uint32_t> m_materialByName;
    uint32_t m_material = NO_MATERIAL;
    uint64_t m_pendingNodeId = 0;
    bool m_hasPendingNodeId = false;

    uint64_t m_nv = 0, m_nt = 0, m_nn = 0, m_nf = 0;
    std::vector<float> m_v, m_t, m_n;
    uint64_t m_readV = 0, m_readT = 0, m_readN = 0;
    bool m_cancelled = false;
    bool m_warned = false;

    std::vector<uint32_t> m_pos, m_uv, m_nrm;
    std::unique_ptr<C3DScene> m_scene;
    CPageReleaser m_release;
};

bool CObjParser::Poll(size_t lineNo, size_t pos, bool second) {
    if (lineNo % kPollEvery != 0) return false;
    m_release.At(m_text.data() + pos);
    const int64_t total = static_cast<int64_t>(m_text.size()) * 2;
    ReportThreadProgress(static_cast<int64_t>(pos) + (second ? static_cast<int64_t>(m_text.size()) : 0), total);
    if (ShouldCancelThread(0)) {
        m_cancelled = true;
        return true;
    }
    return false;
}

int CObjParser::GroupFor(std::string_view name) {
    auto it = m_groupIndex.find(std::string(name));
    if (it != m_groupIndex.end()) return it->second;
    const int idx = static_cast<int>(m_groups.size());
    m_groups.emplace_back();
    m_groups.back().name = std::string(name);
    m_groupIndex.emplace(std::string(name), idx);
    return idx;
}

void CObjParser::ReadMtl(std::string_view name) {
    for (auto& r : m_mtlRead)
        if (r == name) return;
    m_mtlRead.emplace_back(name);
    std::string bytes;
    if (!m_loader || !m_loader(name, bytes)) {
        m_options.AddLogInfo(LOG_INFO, CXStringW(L"Material library not found: ") + NameFromBytes(name, m_mode));
        return;
    }
    std::string storage;
    std::string_view text =
        PrepareText(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), m_mode,
                    storage);
    ParseMtl(text, m_mtl);
}

bool CObjParser::CountPass() {
    m_current = GroupFor("default");
    textscan::LineSplitter lines(m_text);
    std::string_view line;
    size_t lineNo = 0;
    while (lines.Next(line)) {
        if (Poll(++lineNo, lines.Position(), false)) return false;
        if (line.empty()) continue;
        if (m_nv == 0 && line.size() > kMaxFirstLine) return false;
        switch (Lower(line[0])) {
        case 'f': {
            ++m_nf;
            Group& g = m_groups[static_cast<size_t>(m_current)];
            ++g.countedFaces;
            // Vertex tokens, to reserve the index arrays exactly.
            bool inTok = false;
            for (size_t i = 1; i < line.size(); ++i) {
                const bool sp = textscan::IsSpace(line[i]);
                if (!sp && !inTok) ++g.countedIndices;
                inTok = !sp;
            }
            break;
        }
        case 'g':
            m_current = GroupFor(textscan::Trim(line.substr(1)));
            break;
        case 'o': {
            TextCursor c(line.substr(1));
            std::string_view w;
            if (!c.ReadWord(w, kMaxWord)) w = {};
            m_current = GroupFor(w);
            break;
        }
        case 'm':
            if (line.size() >= 6 && line.substr(0, 6) == "mtllib") {
                std::string_view name = textscan::Trim(line.substr(6));
                if (!name.empty()) ReadMtl(name);
            }
            break;
        case 'v':
            if (line.size() >= 2) {
                const char c2 = Lower(line[1]);
                if (c2 == ' ' || c2 == '\t') ++m_nv;
                else if (c2 == 'n') ++m_nn;
                else if (c2 == 't') ++m_nt;
            }
            break;
        default:
            break;
        }
    }
    return m_nv != 0 && m_nf != 0;
}

void CObjParser::CreateMaterials() {
    for (auto& r : m_mtl) {
        auto* m = static_cast<C3DStandardMaterial*>(m_scene->CreateNewMaterial(MATERIAL_STANDARD));
        m->SetName(NameFromBytes(r.name, m_mode));
        m->ambient.SetColor4f(r.ka[0], r.ka[1], r.ka[2]);
        m->diffuse.SetColor4f(r.kd[0], r.kd[1], r.kd[2]);
        m->specular.SetColor4f(r.ks[0], r.ks[1], r.ks[2]);
        m->specularFactor = static_cast<float>(r.ns / 1000.0);
        m->transparency = 1.0f - r.dissolve;
        auto addMap = [&](const std::unique_ptr<MtlMap>& src, uint32_t type) {
            if (!src) return;
            const CXStringW file = NameFromBytes(src->file, m_mode);
            // Maps use the object's first UV channel, which the reader always adds first (ID 0).
            CMaterialMap* map = m->AddMaterialMap(file, 0, type, PROJ_UV);
            map->SetScale(src->scale[0], src->scale[1]);
            map->SetTranslation(src->offset[0], src->offset[1]);
            m_scene->AddRequiredFile(file);
        };
        addMap(r.colorMap, MAP_DIFFUSE);
        addMap(r.bumpMap, MAP_BUMP);
        addMap(r.normalMap, MAP_NORMAL);
        m_materialByName.emplace(r.name, m->GetID());
    }
}

void CObjParser::Warn() {
    if (m_warned) return;
    m_warned = true;
    m_io.SetIoError(CXStringW(L"A face refers to a vertex that does not exist; the index was left out."), &m_options,
                    LOG_INFO);
}

// One index of a face: 0-based file index, or -1 when out of range.
inline int64_t Resolve(int i, uint64_t readSoFar, uint64_t total) {
    int64_t r;
    if (i > 0) r = static_cast<int64_t>(i) - 1;
    else if (i < 0) r = static_cast<int64_t>(readSoFar) + i;
    else return -1;
    return (r >= 0 && static_cast<uint64_t>(r) < total) ? r : -1;
}

void CObjParser::AddFace(std::string_view rest) {
    enum Form { kNone, kPos, kPosUv, kPosUvN, kPosN };
    Form form = kNone;
    if (rest.find("//") != std::string_view::npos) {
        form = kPosN;
    } else {
        TextCursor t(rest);
        int a;
        if (ReadIndex(t, a)) {
            form = kPos;
            if (Slash(t) && ReadIndex(t, a)) {
                form = kPosUv;
                if (Slash(t) && ReadIndex(t, a)) form = kPosUvN;
            }
        }
    }
    if (form == kNone) return;
    const bool wantUv = form == kPosUv || form == kPosUvN;
    const bool wantN = form == kPosUvN || form == kPosN;
    m_pos.clear();
    m_uv.clear();
    m_nrm.clear();
    bool uvOk = wantUv, nOk = wantN;
    TextCursor c(rest);
    for (;;) {
        int p = 0, t = 0, n = 0;
        bool ok;
        switch (form) {
        case kPos: ok = ReadIndex(c, p); break;
        case kPosUv: ok = ReadIndex(c, p) && Slash(c) && ReadIndex(c, t); break;
        case kPosUvN:
            ok = ReadIndex(c, p) && Slash(c) && ReadIndex(c, t) && Slash(c) && ReadIndex(c, n);
            break;
        default: ok = ReadIndex(c, p) && Slash(c) && Slash(c) && ReadIndex(c, n); break;
        }
        if (!ok) break;
        const int64_t pi = Resolve(p, m_readV, m_nv);
        if (pi < 0) {
            Warn();
            continue;
        }
        m_pos.push_back(static_cast<uint32_t>(pi));
        if (wantUv) {
            const int64_t ti = Resolve(t, m_readT, m_nt);
            if (ti < 0) { uvOk = false; Warn(); }
            m_uv.push_back(ti < 0 ? 0u : static_cast<uint32_t>(ti));
        }
        if (wantN) {
            const int64_t ni = Resolve(n, m_readN, m_nn);
            if (ni < 0) { nOk = false; Warn(); }
            m_nrm.push_back(ni < 0 ? 0u : static_cast<uint32_t>(ni));
        }
    }
    if (m_pos.empty()) return;
    Group& g = m_groups[static_cast<size_t>(m_current)];
    if (!g.faces) {
        g.faces = std::make_unique<C3DFaceList>();
        g.faces->Reserve(static_cast<size_t>(g.countedFaces), static_cast<size_t>(g.countedIndices));
    }
    const int cnt = static_cast<int>(m_pos.size());
    const int before = g.faces->GetNumberOfFaces();
    g.faces->SetCurrentMaterial(m_material);
    g.faces->AddFace(m_pos.data(), cnt, 0);

    // Channel faces stay parallel to the mesh faces; faces without data are flagged unusable.
    auto parallel = [&](CFaceList* list, bool ok, const std::vector<uint32_t>& idx) {
        if (ok) list->AddFace(idx.data(), cnt, 0);
        else list->AddFace(cnt, FACE_SKIP);
    };
    auto backfill = [&](CFaceList* list) {
        list->Reserve(static_cast<size_t>(g.countedFaces), static_cast<size_t>(g.countedIndices));
        for (int f = 0; f < before; ++f) list->AddFace(g.faces->GetFaceSize(f), FACE_SKIP);
    };
    if (uvOk && !g.uv) {
        g.uv = std::make_unique<CUVWChannel>();
        backfill(g.uv->GetUVWFaceList());
    }
    if (g.uv) parallel(g.uv->GetUVWFaceList(), uvOk, m_uv);
    if (nOk && !g.normals) {
        g.normals = std::make_unique<CSpecNormalChannel>();
        backfill(g.normals->GetNormalFaceList());
    }
    if (g.normals) parallel(g.normals->GetNormalFaceList(), nOk, m_nrm);
}

bool CObjParser::FillPass() {
    m_v.assign(static_cast<size_t>(m_nv + 1) * 3, 0.0f);
    m_t.assign(static_cast<size_t>(m_nt + 1) * 2, 0.0f);
    m_n.assign(static_cast<size_t>(m_nn + 1) * 3, 0.0f);
    m_current = GroupFor("default");
    m_release.Reset();
    textscan::LineSplitter lines(m_text);
    std::string_view line;
    size_t lineNo = 0;
    while (lines.Next(line)) {
        if (Poll(++lineNo, lines.Position(), true)) return false;
        if (line.empty()) continue;
        switch (Lower(line[0])) {
        case 'v': {
            if (line.size() < 2) break;
            const char c2 = Lower(line[1]);
            if (c2 == ' ' || c2 == '\t') {
                if (m_readV < m_nv) {
                    TextCursor c(line.substr(1));
                    ReadFloats(c, &m_v[static_cast<size_t>(m_readV) * 3], 3);
                    ++m_readV;
                }
            } else if (c2 == 'n') {
                if (m_readN < m_nn) {
                    TextCursor c(line.substr(2));
                    ReadFloats(c, &m_n[static_cast<size_t>(m_readN) * 3], 3);
                    ++m_readN;
                }
            } else if (c2 == 't') {
                if (m_readT < m_nt) {
                    TextCursor c(line.substr(2));
                    ReadFloats(c, &m_t[static_cast<size_t>(m_readT) * 2], 2);
                    ++m_readT;
                }
            }
            break;
        }
        case 'f':
            AddFace(line.substr(1));
            break;
        case 'g':
        case 'o': {
            if (Lower(line[0]) == 'g') {
                m_current = GroupFor(textscan::Trim(line.substr(1)));
            } else {
                TextCursor c(line.substr(1));
                std::string_view w;
                if (!c.ReadWord(w, kMaxWord)) w = {};
                m_current = GroupFor(w);
            }
            if (m_hasPendingNodeId) {
                Group& g = m_groups[static_cast<size_t>(m_current)];
                g.nodeId = m_pendingNodeId;
                g.hasNodeId = true;
                m_hasPendingNodeId = false;
            }
            break;
        }
        case 'u': {
            std::string_view name = textscan::Trim(line.size() > 6 ? line.substr(6) : std::string_view());
            auto it = m_materialByName.find(std::string(name));
            m_material = it == m_materialByName.end() ? NO_MATERIAL : it->second;
            break;
        }
        case '#':
            if (line.size() >= 5 && line.substr(2, 3) == "TVL") {
                const size_t p = line.find("NODEID:", 6);
                if (p != std::string_view::npos) {
                    TextCursor c(line.substr(p + 7));
                    unsigned long long id;
                    if (c.ReadUInt64(id)) {
                        m_pendingNodeId = id;
                        m_hasPendingNodeId = true;
                    }
                }
            }
            break;
        default:
            break;
        }
    }
    return true;
}

// Renumbers `list` in place by order of first use of each file index (skipping flagged
// faces when `skipFlagged`), and returns the file indices in local order.
std::vector<uint32_t> Renumber(CFaceList& list, std::vector<int32_t>& remap, bool skipFlagged) {
    std::vector<uint32_t> used;
    auto& idx = list.GetIndexes();
    const auto& off = list.GetOffsets();
    const int nf = list.GetNumberOfFaces();
    for (int f = 0; f < nf; ++f) {
        if (skipFlagged && list.IsFaceFlagSet(f, FACE_SKIP)) continue;
        for (uint32_t i = off[static_cast<size_t>(f)]; i < off[static_cast<size_t>(f) + 1]; ++i) {
            int32_t& r = remap[idx[i]];
            if (r < 0) {
                r = static_cast<int32_t>(used.size());
                used.push_back(idx[i]);
            }
            idx[i] = static_cast<uint32_t>(r);
        }
    }
    for (uint32_t u : used) remap[u] = -1;
    return used;
}

bool CObjParser::BuildScene() {
    std::vector<int32_t> remap(static_cast<size_t>(std::max({m_nv, m_nt, m_nn})) + 1, -1);
    for (Group& g : m_groups) {
        if (!g.faces || g.faces->GetNumberOfFaces() == 0) continue;
        auto* obj = new C3DObject();
        auto* node = new C3DSceneNode(obj);
        node->SetName(NameFromBytes(g.name, m_mode));
        if (g.hasNodeId) node->SetNodeID(g.nodeId);
        m_scene->AddNode(nullptr, node);

        std::vector<uint32_t> used = Renumber(*g.faces, remap, false);
        auto* points = new C3DPointList();
        points->SetSize(static_cast<int>(used.size()));
        float* dst = points->GetData();
        for (size_t i = 0; i < used.size(); ++i) std::memcpy(dst + i * 3, &m_v[size_t(used[i]) * 3], 12);
        obj->SetPointList(points, true);
        g.faces->FreeExtra();
        obj->SetFaceList(g.faces.release(), true);

        if (g.uv) {
            used = Renumber(*g.uv->GetUVWFaceList(), remap, true);
            CUVWPointList* up = g.uv->GetUVWPointList();
            up->SetSize(static_cast<int>(used.size()));
            float* u = up->GetData();
            for (size_t i = 0; i < used.size(); ++i) {
                u[i * 3] = m_t[size_t(used[i]) * 2];
                u[i * 3 + 1] = m_t[size_t(used[i]) * 2 + 1];
            }
            g.uv->GetUVWFaceList()->FreeExtra();
            const int32_t id = obj->AddChannel(g.uv.release(), -1);
            obj->SetGlobalUVWChannel(id);
        }
        if (g.normals) {
            used = Renumber(*g.normals->GetNormalFaceList(), remap, true);
            C3DVectorList* nv = g.normals->GetNormalVectorList();
            nv->SetSize(static_cast<int>(used.size()));
            float* d = nv->GetData();
            for (size_t i = 0; i < used.size(); ++i) std::memcpy(d + i * 3, &m_n[size_t(used[i]) * 3], 12);
            g.normals->GetNormalFaceList()->FreeExtra();
            obj->AddChannel(g.normals.release(), -1);
        }
    }
    return m_scene->GetNodeCount() > 0;
}

ObjReadResult CObjParser::Run() {
    ObjReadResult res;
    const bool counted = CountPass();
    if (m_cancelled) { res.status = ObjStatus::Cancelled; return res; }
    if (!counted) return res;
    m_scene = std::make_unique<C3DScene>();
    CreateMaterials();
    FillPass();
    if (m_cancelled) { res.status = ObjStatus::Cancelled; return res; }
    m_v.shrink_to_fit();
    if (!BuildScene()) return res;
    res.scene = m_scene.release();
    res.status = ObjStatus::Ok;
    return res;
}

} // namespace

std::string_view PrepareText(std::span<const uint8_t> data, int textMode, std::string& storage) {
    std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    if (textMode != TEXT_MODE_ANSI && text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") return text.substr(3);
    const bool utf16 = text.size() >= 2 && ((uint8_t(text[0]) == 0xFF && uint8_t(text[1]) == 0xFE) ||
                                            (uint8_t(text[0]) == 0xFE && uint8_t(text[1]) == 0xFF));
    if (textMode == TEXT_MODE_AUTO && utf16) {
        IoFile f(true, TEXT_MODE_AUTO);
        f.OpenMemory(data.data(), data.size());
        CXStringW line;
        storage.clear();
        storage.reserve(data.size() / 2 + 16);
        while (f.ReadString(line)) {
            storage += WideToUtf8(line.view());
            storage += '\n';
        }
        f.CloseFile();
        return storage;
    }
    return text;
}

ObjReadResult ReadObj(std::span<const uint8_t> data, int textMode, const MtlLoader& loadMtl, CFileIo& io,
                      CSceneImportOptions& options, const IoFile* file) {
    std::string storage;
    std::string_view text = PrepareText(data, textMode, storage);
    CObjParser parser(text, textMode, loadMtl, io, options, file);
    return parser.Run();
}

} // namespace meshio
