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
// The unit's name ("inch"), "none" when the file does not say.
const char* UnitName(int unit);
// The node tree, materials, bounding box, units, textures, animation, indented. `file` is
// the scene's own file: texture names relative to it are looked up beside it.
std::string DescribeScene(const C3DScene& scene, const std::string& file);
// The same as one JSON document (docs/json-schema/info.schema.json, "schema" names its version).
std::string DescribeSceneJson(const C3DScene& scene, const std::string& file, const std::string& format);
// The totals as a JSON object ({"nodes": 3, ...}).
std::string TotalsJson(const SceneTotals& t);
std::string JsonString(const std::string& s);
