// Host scene figures: building, walking and destroying a scene of a million nodes,
// and export preparation of a large mesh.
#include <chrono>
#include <cstdio>
#include <memory>

#include "plugin/host/ExportPrep.h"
#include "plugin/host/Scene.h"

namespace {
double Seconds(std::chrono::steady_clock::time_point a) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - a).count();
}
} // namespace

int main() {
    constexpr int kNodes = 1000000;
    auto t0 = std::chrono::steady_clock::now();
    auto scene = std::make_unique<C3DScene>();
    // A bushy tree: 1000 groups of 999 meshes each.
    for (int g = 0; g < 1000; ++g) {
        C3DSceneNode* group = scene->AddNode(nullptr, new C3DSceneNode());
        for (int i = 0; i < kNodes / 1000 - 1; ++i) scene->AddNode(group, new C3DSceneNode(new C3DObject()));
    }
    std::printf("build %d nodes: %.3f s\n", scene->GetNodeCount(), Seconds(t0));

    for (int pass = 0; pass < 3; ++pass) {
        t0 = std::chrono::steady_clock::now();
        long n = 0;
        C3DBaseObject* o;
        for (C3DNodePos p = scene->GetFirstNode(KINDOF_MESH); scene->GetNextNode(o, p);) ++n;
        double s = Seconds(t0);
        std::printf("walk (mesh mask) %ld nodes: %.1f ms, %.1f M nodes/s\n", n, s * 1e3, n / s / 1e6);
    }
    t0 = std::chrono::steady_clock::now();
    scene.reset();
    std::printf("destroy: %.3f s\n", Seconds(t0));

    // Export preparation: 2 M quads triangulated and given face normals.
    C3DScene big;
    auto* obj = new C3DObject();
    const int side = 1415;
    obj->GetPointList()->Reserve(size_t(side) * side);
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) obj->GetPointList()->Add(float(x), float(y), float((x * y) % 7));
    obj->GetFaceList()->Reserve(size_t(side - 1) * (side - 1), size_t(side - 1) * (side - 1) * 4);
    for (int y = 0; y + 1 < side; ++y)
        for (int x = 0; x + 1 < side; ++x) {
            uint32_t a = uint32_t(y * side + x);
            uint32_t q[4] = {a, a + 1, a + 1 + side, a + side};
            obj->GetFaceList()->AddFace(q, 4);
        }
    big.AddNode(nullptr, new C3DSceneNode(obj));
    t0 = std::chrono::steady_clock::now();
    auto prepared = PrepareSceneForExport(big, PREP_MESHES | PREP_TRIANGULATE | PREP_MERGE | PREP_FACE_NORMALS);
    std::printf("prepare %d quads (triangulate, merge, face normals): %.3f s, scene arrays %.1f MB\n",
                obj->GetFaceList()->GetNumberOfFaces(), Seconds(t0), prepared->MemoryBytes() / 1e6);
    return 0;
}
