#include "plugin/host/Scene.h"

#include "plugin/host/FileHelpers.h"

#include <algorithm>
#include <unordered_map>

C3DScene::C3DScene() : m_root(std::make_unique<C3DSceneNode>()) { m_root->SetName(L"Root"); }

C3DScene::~C3DScene() {
    for (const CXStringW& f : m_ownedFolders) fileRemoveDirectory(f);
}

void C3DScene::SetParserData(bool own, uint32_t parserClass, const CXStringW& folder) {
    m_parserData.SetString(parserClass, folder);
    if (own) m_ownedFolders.push_back(folder);
}

std::unique_ptr<C3DScene> C3DScene::Clone() const {
    auto s = std::make_unique<C3DScene>();
    for (const C3DSceneNode* c = m_root->GetChildNode(); c; c = c->GetRightNode()) s->m_root->AppendChild(c->Clone());
    for (auto& [id, m] : m_materials) s->m_materials.emplace(id, m->Clone());
    s->m_unit = m_unit;
    s->m_scale = m_scale;
    s->m_texturePaths = m_texturePaths;
    s->m_requiredFiles = m_requiredFiles;
    s->m_texturePathSet = m_texturePathSet;
    s->m_requiredFileSet = m_requiredFileSet;
    s->m_ticks = m_ticks;
    s->m_start = m_start;
    s->m_end = m_end;
    s->m_parserData = m_parserData;
    s->m_custom = m_custom;
    return s;
}

C3DSceneNode* C3DScene::AddNode(C3DSceneNode* parent, C3DSceneNode* node) {
    if (!node) return nullptr;
    (parent ? parent : m_root.get())->AppendChild(node);
    return node;
}

void C3DScene::RemoveNode(C3DSceneNode* node, bool destroy) {
    if (!node || node == m_root.get()) return;
    node->Detach();
    if (destroy) delete node;
}

C3DSceneNode* C3DScene::CopyNode(const C3DSceneNode* node, C3DSceneNode* parent, bool subtree) {
    if (!node) return nullptr;
    return AddNode(parent, node->Clone(subtree));
}

void C3DScene::AddScene(C3DScene& other, C3DSceneNode* parent) {
    // Renumber the other scene's materials past ours.
    uint32_t next = m_materials.empty() ? 0 : m_materials.rbegin()->first + 1;
    std::unordered_map<uint32_t, uint32_t> remap;
    for (auto& [id, m] : other.m_materials) {
        remap[id] = next;
        m->SetID(next);
        m_materials.emplace(next, std::move(m));
        ++next;
    }
    other.m_materials.clear();
    C3DBaseObject* obj;
    for (C3DNodePos pos = other.GetFirstNode(); C3DSceneNode* n = other.GetNextNode(obj, pos);) {
        C3DGeomObject* g = n->GetGeomObject();
        if (!g || !g->GetFaceList()) continue;
        for (uint32_t& mid : g->GetFaceList()->GetMaterialIDs()) {
            auto it = remap.find(mid);
            mid = it == remap.end() ? NO_MATERIAL : it->second;
        }
    }
    C3DSceneNode* target = parent ? parent : m_root.get();
    while (C3DSceneNode* c = other.m_root->GetChildNode()) {
        c->Detach();
        target->AppendChild(c);
    }
    for (auto& p : other.m_texturePaths) AddTexturePath(p);
    for (auto& p : other.m_requiredFiles) AddRequiredFile(p);
    // Folders the merged scene owned now live as long as this one.
    m_ownedFolders.insert(m_ownedFolders.end(), other.m_ownedFolders.begin(), other.m_ownedFolders.end());
    other.m_ownedFolders.clear();
}

bool C3DScene::IsNodeInScene(const C3DSceneNode* node) const {
    if (!node) return false;
    const C3DSceneNode* n = node;
    while (n->GetParent()) n = n->GetParent();
    return n == m_root.get() && node != m_root.get();
}

namespace {
bool Matches(const C3DSceneNode* n, uint32_t kinds, uint32_t flags) {
    if ((n->GetKindOf() & kinds) == 0) return false;
    if ((flags & GETNODE_SKIP_HIDDEN) && n->IsFlagSet(NODE_HIDDEN)) return false;
    return true;
}

// Pre-order successor of `n` within the subtree of `top`.
C3DSceneNode* Successor(const C3DSceneNode* n, const C3DSceneNode* top) {
    if (C3DSceneNode* c = n->GetChildNode()) return c;
    while (n && n != top) {
        if (C3DSceneNode* r = n->GetRightNode()) return r;
        n = n->GetParent();
    }
    return nullptr;
}
} // namespace

C3DNodePos C3DScene::GetFirstNode(uint32_t kinds, uint32_t flags, const C3DSceneNode* start,
                                  const C3DSceneNode* stop) const {
    C3DNodePos pos;
    pos.kinds = kinds;
    pos.flags = flags;
    pos.stop = stop;
    pos.top = start ? start : m_root.get();
    // The root itself is never returned; a start node is.
    C3DSceneNode* first = start ? const_cast<C3DSceneNode*>(start) : m_root->GetChildNode();
    while (first && first != stop && !Matches(first, kinds, flags)) first = Successor(first, pos.top);
    pos.next = first == stop ? nullptr : first;
    return pos;
}

C3DSceneNode* C3DScene::GetNextNode(C3DBaseObject*& object, C3DNodePos& pos) const {
    C3DSceneNode* cur = pos.next;
    object = nullptr;
    if (!cur) return nullptr;
    object = cur->GetBaseObject();
    C3DSceneNode* n = Successor(cur, pos.top);
    while (n && n != pos.stop && !Matches(n, pos.kinds, pos.flags)) n = Successor(n, pos.top);
    pos.next = n == pos.stop ? nullptr : n;
    return cur;
}

int C3DScene::GetChildCount(const C3DSceneNode* node, uint32_t kinds, bool recursive) const {
    const C3DSceneNode* top = node ? node : m_root.get();
    int count = 0;
    if (!recursive) {
        for (const C3DSceneNode* c = top->GetChildNode(); c; c = c->GetRightNode())
            if (c->GetKindOf() & kinds) ++count;
        return count;
    }
    for (const C3DSceneNode* n = top->GetChildNode(); n; n = Successor(n, top))
        if (n->GetKindOf() & kinds) ++count;
    return count;
}

C3DSceneNode* C3DScene::FindNodeByID(uint64_t id) const {
    for (C3DSceneNode* n = m_root->GetChildNode(); n; n = Successor(n, m_root.get()))
        if (n->GetNodeID() == id) return n;
    return nullptr;
}

C3DSceneNode* C3DScene::FindNodeByName(const CXStringW& name) const {
    for (C3DSceneNode* n = m_root->GetChildNode(); n; n = Successor(n, m_root.get()))
        if (n->GetName() == name) return n;
    return nullptr;
}

C3DMaterial* C3DScene::CreateNewMaterial(uint32_t cls) {
    (void)cls; // the standard material is the only class
    auto* m = new C3DStandardMaterial();
    AddNewMaterial(m);
    return m;
}

uint32_t C3DScene::AddNewMaterial(C3DMaterial* m) {
    uint32_t id = m->GetID();
    if (id == NO_MATERIAL || m_materials.count(id)) id = m_materials.empty() ? 0 : m_materials.rbegin()->first + 1;
    m->SetID(id);
    m_materials[id].reset(m);
    return id;
}

C3DMaterial* C3DScene::GetMaterialByID(uint32_t id, bool create, uint32_t cls) {
    auto it = m_materials.find(id);
    if (it != m_materials.end()) return it->second.get();
    if (!create || id == NO_MATERIAL) return nullptr;
    (void)cls;
    auto* m = new C3DStandardMaterial();
    m->SetID(id);
    m_materials[id].reset(m);
    return m;
}

C3DMaterial* C3DScene::GetMaterialByID(uint32_t id) const {
    auto it = m_materials.find(id);
    return it == m_materials.end() ? nullptr : it->second.get();
}

uint32_t C3DScene::FindMaterial(const C3DMaterial* m) const {
    for (auto& [id, p] : m_materials)
        if (p.get() == m) return id;
    return NO_MATERIAL;
}

uint32_t C3DScene::GetMaterialID(const CXStringW& name) const {
    for (auto& [id, p] : m_materials)
        if (p->GetName() == name) return id;
    return NO_MATERIAL;
}

C3DMaterial* C3DScene::GetFirstMaterial(CMaterialPos& pos) const {
    pos.it = m_materials.begin();
    return pos.it == m_materials.end() ? nullptr : pos.it->second.get();
}

C3DMaterial* C3DScene::GetNextMaterial(CMaterialPos& pos) const {
    if (pos.it == m_materials.end()) return nullptr;
    ++pos.it;
    return pos.it == m_materials.end() ? nullptr : pos.it->second.get();
}

bool C3DScene::RemoveMaterial(uint32_t id) { return m_materials.erase(id) != 0; }

void C3DScene::AddTexturePath(const CXStringW& p) {
    if (m_texturePathSet.insert(p.str()).second) m_texturePaths.push_back(p);
}

void C3DScene::ReplaceRequiredFile(const CXStringW& from, const CXStringW& to) {
    if (!m_requiredFileSet.count(from.str())) return AddRequiredFile(to);
    auto it = std::find(m_requiredFiles.begin(), m_requiredFiles.end(), from);
    if (m_requiredFileSet.count(to.str())) { // already there (or the same name): the old entry goes
        m_requiredFileSet.erase(from.str());
        m_requiredFiles.erase(it);
    } else {
        m_requiredFileSet.erase(from.str());
        m_requiredFileSet.insert(to.str());
        *it = to;
    }
}

void C3DScene::AddRequiredFile(const CXStringW& p) {
    if (m_requiredFileSet.insert(p.str()).second) m_requiredFiles.push_back(p);
}

size_t C3DScene::MemoryBytes() const {
    size_t n = 0;
    for (C3DSceneNode* c = m_root->GetChildNode(); c; c = Successor(c, m_root.get()))
        if (C3DBaseObject* o = c->GetBaseObject()) n += o->MemoryBytes();
    return n;
}

C3DBox C3DScene::GetBoundingBox(double time) const {
    C3DBox box;
    for (C3DSceneNode* c = m_root->GetChildNode(); c; c = Successor(c, m_root.get())) {
        C3DBox b;
        if (c->GetBoundingBox(time, b, true)) box.Add(b);
    }
    return box;
}
