#pragma once
// Text and JSON descriptions of a scene for `orbiscope info` and `convert`.
#include <string>

class C3DScene;

struct SceneTotals {
    int nodes = 0, meshes = 0, curves = 0, groups = 0, cameras = 0, lights = 0, other = 0;
    long long points = 0, faces = 0, keys = 0;
    int materials = 0;
};

SceneTotals CountScene(const C3DScene& scene);
// One line: "3 nodes, 2 meshes, 1208 points, 2400 faces, 2 materials".
std::string SummaryLine(const C3DScene& scene);
// The node tree, materials, cameras and keys, indented.
std::string DescribeScene(const C3DScene& scene);
std::string DescribeSceneJson(const C3DScene& scene, const std::string& file, const std::string& format);
