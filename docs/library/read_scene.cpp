// Loads the format module, reads one file and prints what its scene holds.
#include <cstdio>
#include <orbiscope/Orbiscope.h>

int main(int argc, char** argv) {
    if (argc != 3) return std::fprintf(stderr, "usage: read_scene MODULE FILE\n"), 2;
    std::string error;
    if (!orbiscope::LoadModule(argv[1], &error)) return std::fprintf(stderr, "%s\n", error.c_str()), 1;
    CFileIo io;
    CSceneImportOptions options;
    std::unique_ptr<C3DScene> scene = C3DIo::ReadScene(CXStringW(Utf8ToWide(argv[2])), io, 0, &options);
    if (!scene) return std::fprintf(stderr, "cannot read %s (result %d)\n", argv[2], io.GetIoError()), 1;
    int meshes = 0;
    for (C3DNodePos pos = scene->GetFirstNode(KINDOF_MESH); C3DSceneNode* node = scene->GetNextNode(pos);) {
        std::printf("mesh \"%s\": %d points\n", WideToUtf8(node->GetName().view()).c_str(),
                    node->GetGeomObject() ? node->GetGeomObject()->GetPointList()->GetSize() : 0);
        ++meshes;
    }
    std::printf("%d meshes, %d materials (orbiscope %s)\n", meshes, scene->GetMaterialNumber(), ORBISCOPE_VERSION);
    return 0;
}
