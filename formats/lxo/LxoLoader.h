#pragma once
// Builds a host scene from an LXO file through the reader's handlers. Mesh data comes
// before the items that own it, so layers are buffered and bound to their mesh items once
// every chunk is read. Item CHAN sub-chunks name their channel by a U2 index into CHNM;
// the loader takes that sub-chunk itself and resolves the index. The bulk chunks (PNTS,
// POLS, VMAP, VMAD, PTAG) are decoded here too, straight from the loaded chunk into the
// layer's arrays, with the result codes the framework's decoders give.
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "formats/lxo/LxoReader.h"
#include "plugin/host/FaceList.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"

class LxoLoader : public LxoReader {
public:
    // Takes ownership of `stream`. `cancelled` is polled between chunks. Texture files
    // named by relative paths are looked for in `folder` (none for a file in memory).
    LxoLoader(FILE* stream, CSceneImportOptions& options, std::function<bool()> cancelled,
              CXStringW folder = CXStringW());
    ~LxoLoader() override;

    // Reads the file and builds the scene; null when the walk failed or was cancelled
    // (see Result and WasCancelled).
    C3DScene* Load();
    uint32_t Result() const { return m_result; }
    bool WasCancelled() const { return m_cancelled; }

    uint32_t ParseChunk(int context) override;
    uint32_t ParseItemSubChunk(int context) override;
    uint32_t OnChunkHeader(uint32_t id, uint32_t size) override;
    uint32_t OnLayer(const LxoLayerInfo& layer) override;
    uint32_t OnItemBegin(const char* type, const char* name, uint32_t referenceID) override;
    uint32_t OnItemEnd() override;
    uint32_t OnItemLayer(uint32_t index, uint32_t flags, uint32_t rgba) override;
    uint32_t OnItemUnique(const char* name) override;
    uint32_t OnItemLink(const char* graph, uint32_t referenceID, uint32_t index) override;
    uint32_t OnChannelVectorBegin(const char* name, uint32_t type, uint32_t count) override;
    uint32_t OnChannelVectorElement(const char* name, const LxoChannelValue& value) override;
    uint32_t OnChannelString(const char* name, const char* value) override;
    uint32_t OnAction(const char* type, const char* name, uint32_t id) override;
    uint32_t OnActionItem(uint32_t referenceID) override;
    uint32_t OnActionChannel(uint32_t index, const char* name, const LxoChannelValue& value) override;

    static constexpr uint32_t kNone = 0xFFFFFFFFu;

private:
    enum class Kind : uint8_t {
        Other,
        Mesh,
        Locator,
        Camera,
        Light,
        Translation,
        Rotation,
        Scale,
        Mask,
        Material,
        LightMaterial,
        ImageMap,
        Clip
    };

    struct UvValue {
        uint32_t vertex, polygon;
        float u, v;
    };
    struct RgbValue {
        uint32_t vertex, polygon;
        float c[4];
    };
    struct Layer {
        LxoLayerInfo info;
        hostmem::ZeroedArray<float> points; // handed to the mesh whole
        // Every polygon of the layer in file order; PTAG and VMAD count from the start of
        // the POLS chunk before them (polsBase).
        CFaceList::IndexArray polyOffsets{0};
        CFaceList::IndexArray polyIndices;
        hostmem::ZeroedArray<uint8_t> polyKind; // 0 face, 1 curve, 2 other
        uint32_t polsBase = 0;
        bool irregular = false; // a polygon that is not a face of three corners or more
        uint32_t maxIndex = 0;  // the largest corner index of the faces and curves
        std::string uvName;
        std::vector<UvValue> uv; // continuous (polygon = kNone) and discontinuous values
        std::string rgbName;
        std::vector<RgbValue> rgb;    // the first RGB or RGBA map, as uv
        std::vector<uint32_t> matTag; // polygon, tag pairs
        uint32_t boundItem = kNone;
    };
    struct Shading {
        float diffCol[3] = {0.8f, 0.8f, 0.8f};
        float diffAmt = 0.8f;
        float specCol[3] = {1, 1, 1};
        float specAmt = 0.0f;
        float tranAmt = 0.0f;
        float rough = 1.0f;
        float smooth = 0.0f;
        float smAngle = 0.0f;
        int enable = 1;
        std::string ptag, ptyp;
        std::string effect; // image maps: the channel they drive
        std::string file;   // clips: the image file
    };
    // Cameras, lights and light materials.
    struct Optics {
        float focalLen = 0.05f, apertureY = 0.024f;
        bool ortho = false;
        int lightKind = 0;
        float color[3] = {1, 1, 1};
    };
    struct Item {
        Kind kind = Kind::Other;
        uint32_t id = 0;
        uint32_t parent = kNone;     // parent graph target
        uint32_t xfrmTarget = kNone; // xfrmCore target (transform items)
        uint32_t xfrmOrdinal = 0;
        bool hasLayer = false;
        float vec[3] = {0, 0, 0};           // pos, rot or scl
        char order[4] = {'x', 'y', 'z', 0}; // rotation order, the axis applied first first
        std::string name;                   // the item name, else its unique name, else its type
        int32_t shading = -1;               // index into m_shading (m_optics for cameras, lights)
        std::vector<uint32_t> links;        // image maps and clips: targets of their other links
    };

    // The bulk decoders: each takes the whole chunk.
    uint32_t TakePoints();
    uint32_t TakePolygons();
    uint32_t TakeVertexMap(bool disc);
    uint32_t TakePolyTags();
    Layer& CurrentLayer();
    // Masks, materials, image maps and clips keep their channels in m_shading.
    static bool HasShading(Kind kind);
    static void SetText(Shading& s, const char* name, const char* value);
    Item* Current() { return m_inItem && !m_items.empty() ? &m_items.back() : nullptr; }
    void SetChannel(const std::string& name, const LxoChannelValue& value);
    void SetChannel(Item& item, const std::string& name, const LxoChannelValue& value);
    int32_t FindItem(uint32_t id) const;
    void Bind();
    uint32_t MaterialForTag(C3DScene& scene, uint32_t tag);
    void AddTexture(C3DMaterial& material, const std::string& file);
    C3DBaseObject* BuildLayer(Layer& layer, std::unique_ptr<C3DCurve>& curves);
    C4x4Matrix LocalMatrix(uint32_t itemIndex) const;
    void Log(const std::wstring& text);

    CSceneImportOptions& m_options;
    std::function<bool()> m_isCancelled;
    uint32_t m_result = 0;
    bool m_cancelled = false;
    uint32_t m_chunks = 0;

    std::vector<Layer> m_layers;
    std::vector<Item> m_items;
    std::vector<Shading> m_shading;
    std::vector<Optics> m_optics;
    std::unordered_map<uint32_t, uint32_t> m_itemByID;
    bool m_inItem = false;
    std::string m_vectorBase;
    std::string m_itemType, m_itemUnique; // of the item being read
    bool m_inSetup = false;               // inside the setup action
    int32_t m_actionItem = -1;            // the item its channels belong to
    LxoChannelValue m_chanValue;

    // Per build: host material per tag name, the base material.
    std::unordered_map<std::string, uint32_t> m_materialByName;
    std::vector<uint32_t> m_materialOfTag; // by tag index
    uint32_t m_baseMaterial = kNone;
    int32_t m_baseShading = -1;
    uint32_t m_droppedFaces = 0;
    struct Xfrm {
        uint32_t target, ordinal, item;
    };
    std::vector<Xfrm> m_xfrms;                               // sorted by target, ordinal
    std::unordered_map<std::string, int32_t> m_shadingByTag; // mask tag -> material inside
    // Diffuse colour image maps: per mask tag, and the one outside any mask.
    std::unordered_map<std::string, std::string> m_textureByTag;
    std::string m_baseTexture;
    std::unordered_map<std::string, CXStringW> m_resolved; // texture file -> path used
    CXStringW m_folder;
    C3DScene* m_building = nullptr;
};
