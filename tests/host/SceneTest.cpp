#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "plugin/host/Scene.h"

namespace {
C3DSceneNode* Named(const wchar_t* name, C3DBaseObject* obj = nullptr) {
    auto* n = new C3DSceneNode(obj);
    n->SetName(name);
    return n;
}

std::vector<std::wstring> Walk(const C3DScene& s, uint32_t kinds = KINDOF_ALL, uint32_t flags = 0,
                               const C3DSceneNode* start = nullptr, const C3DSceneNode* stop = nullptr) {
    std::vector<std::wstring> out;
    C3DBaseObject* o;
    for (C3DNodePos p = s.GetFirstNode(kinds, flags, start, stop); C3DSceneNode* n = s.GetNextNode(o, p);) {
        EXPECT_EQ(o, n->GetBaseObject());
        out.push_back(n->GetName().str());
    }
    return out;
}

// a(mesh) -> [b(group) -> [c(mesh), d(camera)], e(curve)], f(mesh, hidden)
struct Tree {
    C3DScene s;
    C3DSceneNode *a, *b, *c, *d, *e, *f;
    Tree() {
        a = s.AddNode(nullptr, Named(L"a", new C3DObject()));
        b = s.AddNode(a, Named(L"b"));
        c = s.AddNode(b, Named(L"c", new C3DObject()));
        d = s.AddNode(b, Named(L"d", new C3DCamera()));
        e = s.AddNode(a, Named(L"e", new C3DCurve()));
        f = s.AddNode(nullptr, Named(L"f", new C3DObject()));
        f->SetFlag(NODE_HIDDEN);
    }
};
} // namespace

TEST(SceneTraversal, PreOrderWithKindMasksFlagsAndRanges) {
    Tree t;
    using V = std::vector<std::wstring>;
    EXPECT_EQ(Walk(t.s), (V{L"a", L"b", L"c", L"d", L"e", L"f"}));
    EXPECT_EQ(Walk(t.s, KINDOF_MESH), (V{L"a", L"c", L"f"}));
    EXPECT_EQ(Walk(t.s, KINDOF_MESH | KINDOF_CURVE), (V{L"a", L"c", L"e", L"f"}));
    // An object-less node counts as a group.
    EXPECT_EQ(Walk(t.s, KINDOF_GROUP), (V{L"b"}));
    EXPECT_EQ(Walk(t.s, KINDOF_ALL, GETNODE_SKIP_HIDDEN), (V{L"a", L"b", L"c", L"d", L"e"}));
    // A start node walks its own subtree only; a stop node ends the walk before it.
    EXPECT_EQ(Walk(t.s, KINDOF_ALL, 0, t.b), (V{L"b", L"c", L"d"}));
    EXPECT_EQ(Walk(t.s, KINDOF_ALL, 0, nullptr, t.e), (V{L"a", L"b", L"c", L"d"}));
    EXPECT_EQ(Walk(t.s, KINDOF_LIGHT), V{});
    C3DScene empty;
    EXPECT_EQ(Walk(empty), V{});
}

TEST(SceneTraversal, ChildCountsUseTheWritersMask) {
    Tree t;
    EXPECT_EQ(t.s.GetChildCount(nullptr), 6);
    EXPECT_EQ(t.s.GetChildCount(nullptr, KINDOF_EXPORTABLE), 4); // meshes a, c, f and curve e
    EXPECT_EQ(t.s.GetChildCount(t.a, KINDOF_ALL, false), 2);
    EXPECT_EQ(t.s.GetChildCount(t.b, KINDOF_MESH), 1);
    C3DScene groupsOnly;
    groupsOnly.AddNode(nullptr, Named(L"g", new C3DGroup()));
    groupsOnly.AddNode(nullptr, Named(L"cam", new C3DCamera()));
    EXPECT_EQ(groupsOnly.GetChildCount(nullptr, KINDOF_EXPORTABLE), 0);
}

TEST(SceneEditing, RemoveCopyAndMembership) {
    Tree t;
    EXPECT_TRUE(t.s.IsNodeInScene(t.c));
    EXPECT_FALSE(t.s.IsNodeInScene(t.s.GetRoot()));
    t.s.RemoveNode(t.b, false); // detach, keep
    EXPECT_FALSE(t.s.IsNodeInScene(t.c));
    EXPECT_EQ(Walk(t.s), (std::vector<std::wstring>{L"a", L"e", L"f"}));
    EXPECT_EQ(t.a->GetDirectChildCount(), 1);
    C3DSceneNode* copy = t.s.CopyNode(t.b, t.f);
    delete t.b;
    EXPECT_EQ(Walk(t.s), (std::vector<std::wstring>{L"a", L"e", L"f", L"b", L"c", L"d"}));
    EXPECT_NE(copy->GetChildNode()->GetBaseObject(), nullptr);
    EXPECT_EQ(copy->GetChildNode()->GetKindOf(), static_cast<uint32_t>(KINDOF_MESH));
    t.s.RemoveNode(t.e);
    EXPECT_EQ(t.a->GetChildNode(), nullptr);
    EXPECT_EQ(t.a->GetLastChildNode(), nullptr);
}

TEST(SceneEditing, DeepAndWideTreesNeitherRecurseNorCrawl) {
    // A chain a million deep would overflow the stack if destruction, copy or the walk recursed.
    auto s = std::make_unique<C3DScene>();
    C3DSceneNode* parent = nullptr;
    for (int i = 0; i < 1000000; ++i) parent = s->AddNode(parent, new C3DSceneNode());
    EXPECT_EQ(s->GetChildCount(nullptr), 1000000);
    auto copy = s->Clone();
    EXPECT_EQ(copy->GetNodeCount(), 1000000);
    s.reset();
    copy.reset();
}

TEST(SceneMaterials, IdsNamesIterationAndMerging) {
    C3DScene s;
    C3DMaterial* m0 = s.CreateNewMaterial();
    C3DMaterial* m1 = s.CreateNewMaterial();
    m1->SetName(L"steel");
    EXPECT_EQ(m0->GetID(), 0u);
    EXPECT_EQ(m1->GetID(), 1u);
    EXPECT_EQ(s.GetMaterialID(L"steel"), 1u);
    EXPECT_EQ(s.GetMaterialID(L"gold"), NO_MATERIAL);
    EXPECT_EQ(s.GetMaterialByID(7), nullptr);
    EXPECT_NE(s.GetMaterialByID(7, true), nullptr);
    EXPECT_EQ(s.GetMaterialNumber(), 3);
    std::vector<uint32_t> ids;
    CMaterialPos p;
    for (C3DMaterial* m = s.GetFirstMaterial(p); m; m = s.GetNextMaterial(p)) ids.push_back(m->GetID());
    EXPECT_EQ(ids, (std::vector<uint32_t>{0, 1, 7}));

    // AddScene renumbers the other scene's materials past ours, and its faces follow.
    C3DScene other;
    C3DMaterial* om = other.CreateNewMaterial();
    om->SetName(L"glass");
    auto* obj = new C3DObject();
    obj->GetPointList()->Add(0, 0, 0);
    obj->GetFaceList()->SetCurrentMaterial(om->GetID());
    obj->GetFaceList()->AddTriangle(0, 0, 0);
    obj->GetFaceList()->SetCurrentMaterial(42); // dangling: becomes "no material"
    obj->GetFaceList()->AddTriangle(0, 0, 0);
    other.AddNode(nullptr, new C3DSceneNode(obj));
    s.AddScene(other);
    EXPECT_EQ(other.GetNodeCount(), 0);
    EXPECT_EQ(other.GetMaterialNumber(), 0);
    EXPECT_EQ(s.GetMaterialID(L"glass"), 8u);
    EXPECT_EQ(obj->GetFaceList()->GetMaterialID(0), 8u);
    EXPECT_EQ(obj->GetFaceList()->GetMaterialID(1), NO_MATERIAL);
}

TEST(SceneTransforms, WorldMatrixComposesParentsAndObjectOffset) {
    C3DScene s;
    auto* parent = s.AddNode(nullptr, new C3DSceneNode());
    parent->SetNodeLocalTM(C4x4Matrix::Translation(10, 0, 0));
    auto* obj = new C3DObject();
    obj->GetPointList()->Add(1, 0, 0);
    auto* child = s.AddNode(parent, new C3DSceneNode(obj));
    child->SetNodeLocalTM(C4x4Matrix::Scaling(2, 2, 2));
    C4x4Matrix tm;
    child->GetNodeTM(0, tm);
    C3DPoint p = tm.TransformPoint({1, 0, 0});
    EXPECT_FLOAT_EQ(p.x, 12.0f); // scaled by the child, then moved by the parent
    child->SetObjectLocalTM(C4x4Matrix::Translation(0, 5, 0));
    C3DBox box;
    ASSERT_TRUE(child->GetBoundingBox(0, box, true));
    EXPECT_FLOAT_EQ(box.min.y, 10.0f);
    EXPECT_FLOAT_EQ(box.min.x, 12.0f);
}

// Texture folders and required files: each name once, in the order first given, through
// copies, merges and replacements.
TEST(SceneFiles, EachNameOnceInFirstOrder) {
    using V = std::vector<CXStringW>;
    C3DScene s;
    for (const wchar_t* f : {L"a.png", L"b.png", L"a.png", L"c.png", L"b.png"}) s.AddRequiredFile(f);
    s.AddTexturePath(L"/tex");
    s.AddTexturePath(L"/tex");
    EXPECT_EQ(s.GetRequiredFiles(), (V{L"a.png", L"b.png", L"c.png"}));
    EXPECT_EQ(s.GetTexturePaths(), (V{L"/tex"}));

    // A copy knows its names too.
    std::unique_ptr<C3DScene> copy = s.Clone();
    copy->AddRequiredFile(L"b.png");
    copy->AddTexturePath(L"/tex");
    copy->AddTexturePath(L"/more");
    EXPECT_EQ(copy->GetRequiredFiles(), (V{L"a.png", L"b.png", L"c.png"}));
    EXPECT_EQ(copy->GetTexturePaths(), (V{L"/tex", L"/more"}));

    // Merging adds only the names not there yet.
    C3DScene other;
    other.AddRequiredFile(L"c.png");
    other.AddRequiredFile(L"d.png");
    s.AddScene(other);
    EXPECT_EQ(s.GetRequiredFiles(), (V{L"a.png", L"b.png", L"c.png", L"d.png"}));

    // Replacing: in place; onto a name already there, the old entry goes; an unknown name is
    // added; the replaced name can come back.
    s.ReplaceRequiredFile(L"b.png", L"e.png");
    EXPECT_EQ(s.GetRequiredFiles(), (V{L"a.png", L"e.png", L"c.png", L"d.png"}));
    s.ReplaceRequiredFile(L"a.png", L"d.png");
    EXPECT_EQ(s.GetRequiredFiles(), (V{L"e.png", L"c.png", L"d.png"}));
    s.ReplaceRequiredFile(L"x.png", L"f.png");
    s.AddRequiredFile(L"b.png");
    s.AddRequiredFile(L"e.png");
    EXPECT_EQ(s.GetRequiredFiles(), (V{L"e.png", L"c.png", L"d.png", L"f.png", L"b.png"}));
}
