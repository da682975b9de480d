#pragma once
// What an LXO export holds, worked out from a host scene before a byte is written: the
// tag table, the channel-name table, one mesh layer per mesh node and the items a scene
// needs around them (locators with their transform items, cameras, lights, the shader
// tree with one mask and material per host material, render and environment items).
// Item reference IDs are the items' positions; CHNM is complete before any item refers
// to it, which the writer needs since the table precedes the items in the file.
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "formats/lxo/LxoLayerWriter.h"
#include "formats/lxo/LxoTypes.h"

class C3DScene;
class C3DSceneNode;
class C3DCurve;

struct LxoItemChannel {
    std::string name;
    int kind = 2; // 1 integer, 2 float, 3 string
    int32_t i = 0;
    float f = 0;
    std::string s;
};

struct LxoItemVector {
    std::string base; // pos, rot, scl (X,Y,Z) or a colour (R,G,B)
    bool xyz = true;
    float v[3] = {0, 0, 0};
};

struct LxoItemLink {
    std::string graph;
    uint32_t target = 0;
    uint32_t ordinal = 0;
};

struct LxoItemData {
    std::string type, name, unique;
    uint32_t id = 0;
    bool hasLayer = false; // locators: the LAYR sub-chunk
    uint32_t layerIndex = 0;
    std::vector<LxoItemLink> links;
    std::vector<LxoItemChannel> channels;                     // CHAN
    std::vector<LxoItemVector> vectors;                       // CHNV
    std::vector<std::pair<std::string, std::string>> strings; // CHNS
};

struct LxoLayerData {
    LxoLayerInfo info;
    LxoLayerMesh mesh;               // faces (object null for a curve-only layer)
    const C3DCurve* curve = nullptr; // poly-lines written as LINE polygons
};

struct LxoWriteData {
    std::vector<std::string> tags;
    std::vector<std::string> channelNames;                  // "unknown" first
    std::unordered_map<std::string, uint32_t> channelIndex; // name -> position in channelNames
    std::vector<LxoLayerData> layers;
    std::vector<LxoItemData> items;
    uint32_t setupAction = 0, sceneAction = 0; // action IDs (after the items')
    uint32_t untaggedMaterials = 0;            // meshes or faces whose materials could not be tagged

    // Fills everything from `scene`; false when the scene has nothing an LXO file holds
    // or a mesh is beyond what the format can index (`error` says which). The scene must
    // outlive the data (layers point at its objects). Node transforms must split (see
    // NeedsBaking).
    bool Build(const C3DScene& scene, std::string* error = nullptr);
    // True when some node's placement cannot be written as scale, rotation and
    // translation items (shear, an object offset): the caller bakes the scene first.
    static bool NeedsBaking(const C3DScene& scene);
    int32_t ChannelIndex(const std::string& name) const;

    // Splits a local matrix (row vectors: p' = p * M) into scale, then rotation applied
    // x first, then translation; false when it has shear or is not finite.
    static bool SplitTransform(const float m[4][4], float scale[3], float rotXyz[3], float pos[3]);

private:
    uint32_t AddItem(const std::string& type, const std::string& name);
    void AddTransforms(uint32_t owner, const C3DSceneNode& node, bool alwaysScale);
    void AddMaterials(const C3DScene& scene, uint32_t renderItem, const std::vector<uint32_t>& tagMaterial);
    void CollectChannelNames();
};
