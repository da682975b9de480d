#include "plugin/host/SceneNode.h"

#include <vector>

C3DSceneNode::C3DSceneNode(C3DBaseObject* object) : m_object(object) {}

C3DSceneNode::~C3DSceneNode() {
    // Delete descendants without recursion: unlink each child list onto a work stack.
    std::vector<C3DSceneNode*> work;
    for (C3DSceneNode* c = m_firstChild; c; c = c->m_next) work.push_back(c);
    m_firstChild = m_lastChild = nullptr;
    while (!work.empty()) {
        C3DSceneNode* n = work.back();
        work.pop_back();
        for (C3DSceneNode* c = n->m_firstChild; c; c = c->m_next) work.push_back(c);
        n->m_firstChild = n->m_lastChild = nullptr;
        delete n;
    }
}

void C3DSceneNode::SetObject(C3DBaseObject* object, bool own) {
    if (own || !object) m_object.reset(object);
    else m_object = object->Clone();
}

C3DGeomObject* C3DSceneNode::GetGeomObject(double) const {
    return m_object && m_object->IsGeomObject() ? static_cast<C3DGeomObject*>(m_object.get()) : nullptr;
}

void C3DSceneNode::GetNodeLocalTM(double time, C4x4Matrix& out) const {
    if (!Evaluate(time, out)) out = m_local;
}

void C3DSceneNode::GetNodeTM(double time, C4x4Matrix& out) const {
    GetNodeLocalTM(time, out);
    for (const C3DSceneNode* p = m_parent; p && p->m_parent; p = p->m_parent) {
        C4x4Matrix pm;
        p->GetNodeLocalTM(time, pm);
        out = out * pm;
    }
}

bool C3DSceneNode::GetBoundingBox(double time, C3DBox& box, bool world) const {
    box = C3DBox{};
    if (!m_object) return false;
    C3DBox local = m_object->GetBoundingBox();
    if (!local.IsValid()) return false;
    if (!world) {
        box = local;
        return true;
    }
    C4x4Matrix tm;
    GetNodeTM(time, tm);
    tm = m_objectTM * tm;
    for (int i = 0; i < 8; ++i) {
        C3DPoint c{(i & 1) ? local.max.x : local.min.x, (i & 2) ? local.max.y : local.min.y,
                   (i & 4) ? local.max.z : local.min.z};
        box.Add(tm.TransformPoint(c));
    }
    return true;
}

void C3DSceneNode::AppendChild(C3DSceneNode* child) {
    child->m_parent = this;
    child->m_next = nullptr;
    child->m_prev = m_lastChild;
    if (m_lastChild) m_lastChild->m_next = child;
    else m_firstChild = child;
    m_lastChild = child;
    ++m_childCount;
}

void C3DSceneNode::Detach() {
    if (!m_parent) return;
    if (m_prev) m_prev->m_next = m_next;
    else m_parent->m_firstChild = m_next;
    if (m_next) m_next->m_prev = m_prev;
    else m_parent->m_lastChild = m_prev;
    --m_parent->m_childCount;
    m_parent = m_next = m_prev = nullptr;
}

C3DSceneNode* C3DSceneNode::Clone(bool subtree) const {
    auto copyOne = [](const C3DSceneNode& s) {
        auto* n = new C3DSceneNode(s.m_object ? s.m_object->Clone().release() : nullptr);
        static_cast<C3DKeyframable&>(*n) = s;
        n->m_name = s.m_name;
        n->m_id = s.m_id;
        n->m_flags = s.m_flags;
        n->m_local = s.m_local;
        n->m_objectTM = s.m_objectTM;
        n->m_pivot = s.m_pivot;
        return n;
    };
    C3DSceneNode* top = copyOne(*this);
    if (!subtree) return top;
    // Iterative copy: pairs of (source, copy) whose children still need copying.
    std::vector<std::pair<const C3DSceneNode*, C3DSceneNode*>> work{{this, top}};
    while (!work.empty()) {
        auto [src, dst] = work.back();
        work.pop_back();
        for (const C3DSceneNode* c = src->m_firstChild; c; c = c->m_next) {
            C3DSceneNode* cc = copyOne(*c);
            dst->AppendChild(cc);
            work.emplace_back(c, cc);
        }
    }
    return top;
}
